// The harness every fuzz target shares. It runs once per process in a private
// mount namespace (root needed, as for the unit tests): empty tmpfs on /data
// and /efs, a file of our own over /proc/cmdline, the phone's group database,
// properties and the log directory in scratch space, Android log lines
// formatted and dropped, the kernel log copy to /dev/null (RIX_FUZZ_LOG=1
// shows it on stderr), and "-t vm420" read as the daemon would, so the
// controller, its records and the protocol object exist. A target defines
// fuzz_one(); a run that leaves a descriptor open or breaks an invariant the
// target checks with fuzz::expect aborts.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "boot/boot_dump.h"
#include "core/rix.h"
#include "dump/protocol.h"
#include "log/log.h"
#include "vphone/phone_files.h"

namespace fuzz {

inline constexpr char kCmdline[] = "/data/fuzz/cmdline";

// A broken invariant or a failed set-up step ends the run.
inline void expect(bool ok, const char* what) {
    if (!ok) {
        fprintf(stderr, "fuzz: %s (errno: %s)\n", what, strerror(errno));
        abort();
    }
}

inline void write_file(const std::string& path, const uint8_t* data, size_t size) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    expect(fd >= 0 && write(fd, data, size) == static_cast<ssize_t>(size), path.c_str());
    close(fd);
}

inline void bind(const char* path, const char* target, const char* text) {
    write_file(path, reinterpret_cast<const uint8_t*>(text), strlen(text));
    expect(mount(path, target, nullptr, MS_BIND, nullptr) == 0, target);
}

// The input, read from the front: little-endian fields, pieces, CP messages.
struct Input {
    const uint8_t* data;
    size_t size;

    Input take(size_t n) {
        const Input head{data, std::min(n, size)};
        data += head.size, size -= head.size;
        return head;
    }
    uint32_t le(size_t bytes) {
        const Input field = take(bytes);
        uint32_t v = 0;
        for (size_t i = 0; i < field.size; i++) {
            v |= uint32_t{field.data[i]} << (8 * i);
        }
        return v;
    }
    // Each a 16-bit length and that many bytes (fewer at the end). Zero-length
    // messages are kept: a read of 0 bytes is a case of its own.
    std::vector<Input> messages() {
        std::vector<Input> out;
        while (size >= 2 && out.size() < 4096) {
            out.push_back(take(le(2)));
        }
        return out;
    }
};

// The CP end of a node: a SOCK_SEQPACKET pair (one message per read, poll
// works). Every message is queued before the AP starts, then the CP end stops
// sending, so the AP reads an end of file after the last one instead of
// waiting for its time-out. Send buffers hold the whole input and the AP's
// request words, so no thread has to drain them. Destruction closes both.
struct CpFeed {
    int ap, cp;
    explicit CpFeed(const std::vector<Input>& msgs) {
        int sv[2], room = 64 << 20;
        expect(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv) == 0 &&
                   setsockopt(sv[0], SOL_SOCKET, SO_SNDBUFFORCE, &room, sizeof(room)) == 0 &&
                   setsockopt(sv[1], SOL_SOCKET, SO_SNDBUFFORCE, &room, sizeof(room)) == 0,
               "CP socket pair (the fuzzers need root)");
        ap = sv[0], cp = sv[1];
        for (const Input& m : msgs) {
            expect(send(cp, m.data, m.size, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0, "queue a message");
        }
        shutdown(cp, SHUT_WR);
    }
    ~CpFeed() { close(ap), close(cp); }
};

}  // namespace fuzz

void fuzz_one(fuzz::Input in);

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::expect(unshare(CLONE_NEWNS) == 0 &&
                     mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0,
                 "private mount namespace (the fuzzers need root)");
    for (const char* dir : {"/data", "/efs"}) {
        mkdir(dir, 0755);
        fuzz::expect(mount("tmpfs", dir, "tmpfs", 0, "mode=0755,size=64m") == 0, dir);
    }
    std::filesystem::create_directories("/data/fuzz/props");
    std::filesystem::create_directories("/data/fuzz/log");
    fuzz::bind(fuzz::kCmdline, "/proc/cmdline", "");
    // Files only: the host's NSS modules (systemd's userdb) cost a dozen
    // path walks per lookup, the bulk of a run that opens log files.
    fuzz::bind("/data/fuzz/group", "/etc/group", vphone::kGroupFile);
    fuzz::bind("/data/fuzz/nsswitch.conf", "/etc/nsswitch.conf", vphone::kNsswitchFile);
    setenv("RIX_PROPERTY_DIR", "/data/fuzz/props", 1);
    setenv("RIX_LOG_DIR", "/dev/null", 1);
    const char* show = getenv("RIX_FUZZ_LOG");
    kmsg_fd = show != nullptr && show[0] == '1' ? dup(2) : open("/dev/null", O_WRONLY | O_CLOEXEC);
    snprintf(log_dir, sizeof(log_dir), "%s", "/data/fuzz/log");
    // A request word written after the CP end is gone must fail, not kill.
    signal(SIGPIPE, SIG_IGN);
    static char name[] = "vm420";
    char* argv[] = {const_cast<char*>("rix"), const_cast<char*>("-t"), name, nullptr};
    fuzz::expect(kmsg_fd >= 0 && Container::parseArgs(3, argv) == 0, "select vm420");
    Container::protocol = Container::protocol ? Container::protocol : new ProtocolTarn();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto lowest_free = [] {
        const int fd = dup(2);
        return close(fd), fd;
    };
    const int before = lowest_free();
    fuzz_one({data, size});
    fuzz::expect(lowest_free() == before, "a descriptor left open");
    return 0;
}
