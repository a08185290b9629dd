// Shared bits of the minimal loops: the smallest programs that make the same
// system calls per chunk as the daemon, so the benchmark can put the daemon's
// throughput next to the transport's own limit.
#pragma once

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace minimal {

[[noreturn]] inline void die(const char* what) {
    perror(what);
    exit(1);
}

// `--name value` pairs; a missing one ends the program.
inline const char* arg(int argc, char** argv, const char* name) {
    for (int i = 1; i + 1 < argc; i += 2) {
        if (strcmp(argv[i], name) == 0) {
            return argv[i + 1];
        }
    }
    fprintf(stderr, "%s: missing %s\n", argv[0], name);
    exit(2);
}

inline unsigned long long num(int argc, char** argv, const char* name) {
    return strtoull(arg(argc, argv, name), nullptr, 0);
}

inline int open_or_die(const char* path, int flags, mode_t mode = 0) {
    int fd = open(path, flags | O_CLOEXEC, mode);
    if (fd < 0) {
        die(path);
    }
    return fd;
}

// User + system CPU seconds of this process so far.
inline double cpu_seconds() {
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    return static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
           static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

// One line for the runner: bytes moved and CPU seconds of the loop alone.
inline void report(unsigned long long bytes, double cpu) {
    printf("bytes=%llu cpu_s=%.6f\n", bytes, cpu);
}

}  // namespace minimal
