// A CP log region at the transport's limit: IOCTL_GET_LOG_DUMP, then per
// chunk one poll, one 4096-byte read and one write to the file.
//
//   minimal_region --dump NODE --name NAME --out FILE
#include <poll.h>
#include <sys/ioctl.h>

#include <cstdint>
#include <cstdio>

#include "boot/cpif.h"
#include "dump/udl.h"
#include "minimal.h"

int main(int argc, char** argv) {
    const int dump = minimal::open_or_die(minimal::arg(argc, argv, "--dump"), O_RDWR);
    const int out =
        minimal::open_or_die(minimal::arg(argc, argv, "--out"), O_WRONLY | O_CREAT | O_TRUNC, 0640);
    cp_log_dump_info info{};
    snprintf(info.name, sizeof(info.name), "%s", minimal::arg(argc, argv, "--name"));
    info.idx = CP_LOG_DUMP_IDX_SHMEM;
    if (ioctl(dump, IOCTL_GET_LOG_DUMP, &info) < 0) {
        minimal::die("GET_LOG_DUMP");
    }
    const double cpu0 = minimal::cpu_seconds();
    static char chunk[udl::kLogChunkSize];
    unsigned long long received = 0;
    while (received < info.size) {
        pollfd p{dump, POLLIN, 0};
        if (poll(&p, 1, udl::kPollTimeoutMs) != 1 || (p.revents & POLLIN) == 0) {
            minimal::die("poll");
        }
        ssize_t got = read(dump, chunk, sizeof(chunk));
        if (got <= 0) {
            minimal::die("read region");
        }
        if (write(out, chunk, static_cast<size_t>(got)) < 0) {
            minimal::die("write region");
        }
        received += static_cast<unsigned long long>(got);
    }
    minimal::report(received, minimal::cpu_seconds() - cpu0);
    return 0;
}
