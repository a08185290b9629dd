// Dump reception at the transport's limit: the dump-mode boot, then the
// dump stage with the same exchange as the daemon (step words; per frame one
// poll, one 16400-byte read, one write of the payload to the file).
//
//   minimal_dump --boot NODE --dump NODE --out FILE
#include <poll.h>
#include <sys/ioctl.h>

#include <cstdint>

#include "boot/cpif.h"
#include "dump/udl.h"
#include "minimal.h"

namespace {

void wait_in(int fd) {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, udl::kPollTimeoutMs) != 1 || (p.revents & POLLIN) == 0) {
        minimal::die("poll");
    }
}

void exchange(int fd, uint32_t word, uint32_t expected) {
    if (write(fd, &word, 4) != 4) {
        minimal::die("write word");
    }
    wait_in(fd);
    uint32_t answer = 0;
    if (read(fd, &answer, 4) != 4 || answer != expected) {
        minimal::die("answer");
    }
}

}  // namespace

int main(int argc, char** argv) {
    const int boot = minimal::open_or_die(minimal::arg(argc, argv, "--boot"), O_RDWR);
    const int dump = minimal::open_or_die(minimal::arg(argc, argv, "--dump"), O_RDWR);
    const int out =
        minimal::open_or_die(minimal::arg(argc, argv, "--out"), O_WRONLY | O_CREAT | O_TRUNC, 0640);
    int32_t mode = CP_BOOT_MODE_DUMP;
    if (ioctl(boot, IOCTL_POWER_RESET, &mode) < 0 ||
        ioctl(boot, IOCTL_START_CP_BOOTLOADER, &mode) < 0) {
        minimal::die("dump-mode boot");
    }
    const double cpu0 = minimal::cpu_seconds();
    exchange(dump, udl::stage_start_request(udl::kStageDump),
             udl::stage_start_response(udl::kStageDump));
    udl::ul_info info{};
    wait_in(dump);
    if (read(dump, &info, sizeof(info)) != sizeof(info) || info.num_steps > udl::kMaxDumpSteps) {
        minimal::die("INFO");
    }
    char reason[512];
    wait_in(dump);
    if (read(dump, reason, info.reason_len < sizeof(reason) ? info.reason_len : sizeof(reason)) <
        0) {
        minimal::die("REASON");
    }
    static udl::std_ul_frame frame;
    unsigned long long saved = 0;
    for (uint32_t step = 1; step <= info.num_steps; ++step) {
        const uint32_t word = udl::dump_step_request(step);
        if (write(dump, &word, 4) != 4) {
            minimal::die("write step");
        }
        for (;;) {
            wait_in(dump);
            ssize_t n = read(dump, &frame, sizeof(frame));
            if (n < static_cast<ssize_t>(udl::kFrameHeaderSize) ||
                frame.header.size > n - udl::kFrameHeaderSize) {
                minimal::die("frame");
            }
            if (write(out, frame.payload, frame.header.size) < 0) {
                minimal::die("write dump");
            }
            saved += frame.header.size;
            if (frame.header.curr_frame >= frame.header.num_frames) {
                break;
            }
        }
    }
    if (fsync(out) != 0) {
        minimal::die("fsync");
    }
    exchange(dump, udl::stage_done_request(udl::kStageDump),
             udl::stage_done_response(udl::kStageDump));
    minimal::report(saved, minimal::cpu_seconds() - cpu0);
    return 0;
}
