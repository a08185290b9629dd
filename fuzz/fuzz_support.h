// Shared pieces of the fuzz targets: a private copy of the phone's paths so
// the daemon's fixed file names land in scratch space, a quiet log, the CP
// played over a socket pair, and a check that no descriptor leaks.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/rix.h"
#include "dump/protocol.h"
#include "log/log.h"
#include "vphone/phone_files.h"

namespace fuzz {

// Scratch space on the private /data.
inline constexpr char kScratch[] = "/data/fuzz";
inline constexpr char kCmdline[] = "/data/fuzz/cmdline";

[[noreturn]] inline void die(const char* what) {
    fprintf(stderr, "fuzz setup: %s: %s\n", what, strerror(errno));
    abort();
}

inline void write_file(const char* path, const uint8_t* data, size_t size) {
    int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        die(path);
    }
    size_t done = 0;
    while (done < size) {
        ssize_t n = write(fd, data + done, size - done);
        if (n <= 0) {
            die(path);
        }
        done += static_cast<size_t>(n);
    }
    close(fd);
}

// Puts a scratch file with `text` over `target` (private mount namespace).
inline void bind_text(const char* path, const char* target, const char* text) {
    write_file(path, reinterpret_cast<const uint8_t*>(text), strlen(text));
    if (mount(path, target, nullptr, MS_BIND, nullptr) != 0) {
        die(target);
    }
}

// Removes the plain files of a directory (the daemon's time-stamped files).
inline void clear_dir(const char* path) {
    DIR* dir = opendir(path);
    if (dir == nullptr) {
        return;
    }
    while (const dirent* e = readdir(dir)) {
        if (e->d_type == DT_REG) {
            unlinkat(dirfd(dir), e->d_name, 0);
        }
    }
    closedir(dir);
}

// Runs once per fuzzer process: a private mount namespace (root needed, as
// for the unit tests) with empty tmpfs on /data and /efs, a file of our own
// over /proc/cmdline, properties in scratch space, Android log lines
// formatted and dropped, the kernel log copy to /dev/null, and the log
// directory in scratch space.
inline void enter_sandbox() {
    if (unshare(CLONE_NEWNS) != 0) {
        die("unshare(CLONE_NEWNS) (the fuzzers need root)");
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        die("make / private");
    }
    for (const char* dir : {"/data", "/efs"}) {
        mkdir(dir, 0755);
        if (mount("tmpfs", dir, "tmpfs", 0, "mode=0755,size=64m") != 0) {
            die(dir);
        }
    }
    mkdir(kScratch, 0755);
    for (const char* dir : {"/data/fuzz/props", "/data/fuzz/log"}) {
        mkdir(dir, 0755);
    }
    write_file(kCmdline, nullptr, 0);
    if (mount(kCmdline, "/proc/cmdline", nullptr, MS_BIND, nullptr) != 0) {
        die("bind over /proc/cmdline");
    }
    // The group database of the phone, read from files only: the host's
    // NSS modules (systemd's userdb) cost a dozen path walks per lookup,
    // which made every log file the daemon opens the bulk of a run.
    bind_text("/data/fuzz/group", "/etc/group", vphone::kGroupFile);
    bind_text("/data/fuzz/nsswitch.conf", "/etc/nsswitch.conf", vphone::kNsswitchFile);
    setenv("RIX_PROPERTY_DIR", "/data/fuzz/props", 1);
    setenv("RIX_LOG_DIR", "/dev/null", 1);
    // RIX_FUZZ_LOG=1 shows the kernel log copy on stderr, to see what a
    // single input does.
    const char* show = getenv("RIX_FUZZ_LOG");
    kmsg_fd = show != nullptr && show[0] == '1' ? dup(2) : open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (kmsg_fd < 0) {
        die("/dev/null");
    }
    snprintf(log_dir, sizeof(log_dir), "%s", "/data/fuzz/log");
    // A request word written after the CP end is gone must fail, not kill.
    signal(SIGPIPE, SIG_IGN);
}

// Aborts when a run leaves a descriptor open: the lowest free descriptor
// must be the same after the run as before it.
// Reads "-t vm420" as the daemon would, so the controller, its records and
// the protocol object exist.
inline void select_modem() {
    static char name[] = "vm420";
    char* argv[] = {const_cast<char*>("rix"), const_cast<char*>("-t"), name, nullptr};
    if (Container::parseArgs(3, argv) != 0) {
        abort();
    }
    if (Container::protocol == nullptr) {
        Container::protocol = new ProtocolTarn();
    }
}

class FdLeakCheck {
  public:
    FdLeakCheck() : lowest_(lowest_free()) {}
    ~FdLeakCheck() {
        if (lowest_free() != lowest_) {
            fprintf(stderr, "descriptor leak: lowest free %d, was %d\n", lowest_free(), lowest_);
            abort();
        }
    }
    FdLeakCheck(const FdLeakCheck&) = delete;
    FdLeakCheck& operator=(const FdLeakCheck&) = delete;

  private:
    static int lowest_free() {
        int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (fd >= 0) {
            close(fd);
        }
        return fd;
    }
    int lowest_;
};

// The input as CP messages: each one is a 16-bit little-endian length and
// that many bytes (fewer at the end of the input). Zero-length messages are
// kept: a read of 0 bytes is a case of its own.
struct Message {
    const uint8_t* data;
    size_t size;
};

inline constexpr size_t kMaxMessages = 4096;

inline std::vector<Message> split_messages(const uint8_t* data, size_t size) {
    std::vector<Message> out;
    size_t at = 0;
    while (at + 2 <= size && out.size() < kMaxMessages) {
        size_t len = data[at] | (static_cast<size_t>(data[at + 1]) << 8);
        at += 2;
        len = len < size - at ? len : size - at;
        out.push_back({data + at, len});
        at += len;
    }
    return out;
}

// The CP end of a node: a SOCK_SEQPACKET pair (one message per read, poll
// works). Every message is queued before the AP starts, then the CP end
// stops sending, so the AP reads an end of file after the last one instead
// of waiting for its time-out. Both ends get send buffers large enough for
// the whole input and the AP's request words, so no thread has to drain
// them (a thread per run costs more than the run). Destruction closes both.
class CpFeed {
  public:
    explicit CpFeed(const std::vector<Message>& msgs) {
        int sv[2];
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv) != 0) {
            die("socketpair");
        }
        ap_ = sv[0];
        cp_ = sv[1];
        const int room = 64 << 20;
        if (setsockopt(ap_, SOL_SOCKET, SO_SNDBUFFORCE, &room, sizeof(room)) != 0 ||
            setsockopt(cp_, SOL_SOCKET, SO_SNDBUFFORCE, &room, sizeof(room)) != 0) {
            die("SO_SNDBUFFORCE (the fuzzers need root)");
        }
        for (const Message& m : msgs) {
            if (send(cp_, m.data, m.size, MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
                die("queue a CP message");
            }
        }
        shutdown(cp_, SHUT_WR);
    }
    ~CpFeed() {
        close(ap_);
        close(cp_);
    }
    CpFeed(const CpFeed&) = delete;
    CpFeed& operator=(const CpFeed&) = delete;

    // The AP end, for the node descriptor of a record.
    int ap() const { return ap_; }

  private:
    int ap_ = -1;
    int cp_ = -1;
};

}  // namespace fuzz
