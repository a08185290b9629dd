// vmodem-bench: measures the throughput of a mounted vmodem with the same
// system calls the daemon makes: IOCTL_LOAD_CP_IMAGE with 63488-byte chunks
// on the boot node, then a whole dump stage on the dump node (poll + one
// 16400-byte read per frame). Needs the control socket to size the dump.
//
//   vmodem-bench --mount DIR --control SOCK [--image-mib N] [--dump-mib N] [--verify]
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "boot/cpif.h"
#include "dump/udl.h"
#include "payload.h"

namespace {

using Clock = std::chrono::steady_clock;

[[noreturn]] void die(const char* what) {
    perror(what);
    exit(1);
}

std::string control(const std::string& sock, const std::string& line) {
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", sock.c_str());
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        die("connect control socket");
    }
    std::string msg = line + "\n", reply;
    if (write(fd, msg.data(), msg.size()) != static_cast<ssize_t>(msg.size())) {
        die("write control socket");
    }
    char c;
    while (read(fd, &c, 1) == 1 && c != '\n') {
        reply += c;
    }
    close(fd);
    if (reply.rfind("ok", 0) != 0) {
        fprintf(stderr, "control %s: %s\n", line.c_str(), reply.c_str());
        exit(1);
    }
    return reply;
}

double mb_per_s(uint64_t bytes, Clock::duration d) {
    return static_cast<double>(bytes) / 1e6 / std::chrono::duration<double>(d).count();
}

void wait_in(int fd) {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, udl::kPollTimeoutMs) != 1 || !(p.revents & POLLIN)) {
        fprintf(stderr, "poll: no data\n");
        exit(1);
    }
}

uint32_t exchange(int fd, uint32_t word) {
    if (write(fd, &word, 4) != 4) {
        die("write word");
    }
    wait_in(fd);
    uint32_t answer = 0;
    if (read(fd, &answer, 4) != 4) {
        die("read answer");
    }
    return answer;
}

void bench_image(int boot, uint64_t mib) {
    std::vector<uint8_t> chunk(udl::kImageChunkSize, 0x5A);
    const uint64_t total = mib << 20;
    cp_image img{};
    img.image_buf = reinterpret_cast<uintptr_t>(chunk.data());
    img.size = static_cast<uint32_t>(total);
    img.len = static_cast<uint32_t>(chunk.size());
    if (ioctl(boot, IOCTL_POWER_ON) < 0) {
        die("POWER_ON");
    }
    auto t0 = Clock::now();
    uint64_t sent = 0;
    while (sent < total) {
        img.m_offset = static_cast<uint32_t>(sent % (64u << 20));
        if (ioctl(boot, IOCTL_LOAD_CP_IMAGE, &img) != 0) {
            die("LOAD_CP_IMAGE");
        }
        sent += img.len;
    }
    printf("image: %llu bytes in 63488-byte chunks: %.0f MB/s\n",
           static_cast<unsigned long long>(sent), mb_per_s(sent, Clock::now() - t0));
}

void bench_dump(int boot, int dump, const std::string& sock, uint64_t mib, bool verify) {
    const uint64_t size = mib << 20;
    control(sock, "set dump_size " + std::to_string(size));
    control(sock, "set dump_steps 4");
    control(sock, "set dump_seed 7");
    int32_t mode = CP_BOOT_MODE_DUMP;
    if (ioctl(boot, IOCTL_POWER_RESET, &mode) < 0 ||
        ioctl(boot, IOCTL_START_CP_BOOTLOADER, &mode) < 0) {
        die("dump-mode boot");
    }
    auto t0 = Clock::now();
    if (exchange(dump, 0x9D00) != 0xAD00) {
        fprintf(stderr, "bad START answer\n");
        exit(1);
    }
    udl::ul_info info{};
    wait_in(dump);
    if (read(dump, &info, sizeof(info)) != sizeof(info)) {
        die("read INFO");
    }
    char reason[512];
    wait_in(dump);
    if (read(dump, reason, std::min<size_t>(info.reason_len, sizeof(reason))) < 0) {
        die("read REASON");
    }
    static udl::std_ul_frame frame;
    static uint8_t expect[udl::kMaxFramePayload];
    uint64_t got = 0;
    for (uint32_t step = 1; step <= info.num_steps; ++step) {
        uint32_t word = udl::dump_step_request(step);
        if (write(dump, &word, 4) != 4) {
            die("write step");
        }
        for (;;) {
            wait_in(dump);
            ssize_t n = read(dump, &frame, sizeof(frame));
            if (n < static_cast<ssize_t>(udl::kFrameHeaderSize) ||
                frame.header.size > n - udl::kFrameHeaderSize) {
                fprintf(stderr, "bad frame\n");
                exit(1);
            }
            if (verify) {
                payload::fill(7, got, expect, frame.header.size);
                if (memcmp(expect, frame.payload, frame.header.size) != 0) {
                    fprintf(stderr, "payload differs at %llu\n",
                            static_cast<unsigned long long>(got));
                    exit(1);
                }
            }
            got += frame.header.size;
            if (frame.header.curr_frame >= frame.header.num_frames) {
                break;
            }
        }
    }
    if (exchange(dump, 0x9D0D) != 0xAD0D) {
        fprintf(stderr, "bad DONE answer\n");
        exit(1);
    }
    printf("dump: %llu payload bytes in 16400-byte frames: %.0f MB/s%s\n",
           static_cast<unsigned long long>(got), mb_per_s(got, Clock::now() - t0),
           verify ? " (verified)" : "");
    if (got != info.dump_size) {
        fprintf(stderr, "received %llu != dump_size %u\n", static_cast<unsigned long long>(got),
                info.dump_size);
        exit(1);
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::string mount, sock;
    uint64_t image_mib = 512, dump_mib = 512;
    bool verify = false;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--verify") {
            verify = true;
        } else if (i + 1 < argc && a == "--mount") {
            mount = argv[++i];
        } else if (i + 1 < argc && a == "--control") {
            sock = argv[++i];
        } else if (i + 1 < argc && a == "--image-mib") {
            image_mib = strtoull(argv[++i], nullptr, 0);
        } else if (i + 1 < argc && a == "--dump-mib") {
            dump_mib = strtoull(argv[++i], nullptr, 0);
        } else {
            fprintf(stderr,
                    "usage: vmodem-bench --mount DIR --control SOCK [--image-mib N] "
                    "[--dump-mib N (< 4096)] [--verify]\n");
            return 2;
        }
    }
    if (mount.empty() || sock.empty() || dump_mib >= 4096) {
        fprintf(stderr, "vmodem-bench: --mount and --control are required\n");
        return 2;
    }
    int boot = open((mount + "/umts_boot0").c_str(), O_RDWR);
    int dump = open((mount + "/umts_ramdump0").c_str(), O_RDWR);
    if (boot < 0 || dump < 0) {
        die("open nodes");
    }
    if (image_mib > 0) {
        bench_image(boot, image_mib);
    }
    if (dump_mib > 0) {
        bench_dump(boot, dump, sock, dump_mib, verify);
    }
    close(dump);
    close(boot);
    return 0;
}
