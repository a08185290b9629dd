// Host stand-in for liblog: each message is appended with one write, as one
// line "<priority letter>/<tag>: <text>", to $RIX_LOG_DIR/<buffer>
// (default directory /dev/log; /dev/null drops the lines).
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/android_log.h"

namespace {

const char* log_dir() {
    const char* dir = getenv("RIX_LOG_DIR");
    return (dir != nullptr && dir[0] != '\0') ? dir : "/dev/log";
}

const char* buffer_name(int id) {
    switch (id) {
        case LOG_ID_RADIO:
            return "radio";
        case LOG_ID_EVENTS:
            return "events";
        case LOG_ID_SYSTEM:
            return "system";
        case LOG_ID_CRASH:
            return "crash";
        default:
            return "main";
    }
}

char priority_letter(int prio) {
    static const char kLetters[] = "??VDIWEFS";
    return (prio >= 0 && prio < 9) ? kLetters[prio] : '?';
}

int write_line(int id, int prio, const char* tag, const char* fmt, va_list ap) {
    // liblog's own limit on one entry.
    char line[4096];
    if (tag == nullptr) {
        tag = program_invocation_short_name;
    }
    int head = snprintf(line, sizeof(line), "%c/%s: ", priority_letter(prio), tag);
    if (head < 0) {
        return -1;
    }
    size_t len = static_cast<size_t>(head) < sizeof(line) ? head : sizeof(line) - 1;
    int body = vsnprintf(line + len, sizeof(line) - len, fmt, ap);
    if (body > 0) {
        len += static_cast<size_t>(body) < sizeof(line) - len ? body : sizeof(line) - len - 1;
    }
    if (len == 0 || line[len - 1] != '\n') {
        if (len == sizeof(line) - 1) {
            len--;
        }
        line[len++] = '\n';
    }
    // RIX_LOG_DIR=/dev/null formats the line and drops it: the fuzzers log
    // thousands of lines a second and only the formatting is of interest.
    const char* dir = log_dir();
    if (strcmp(dir, "/dev/null") == 0) {
        return static_cast<int>(len);
    }
    char path[512];
    int n = snprintf(path, sizeof(path), "%s/%s", dir, buffer_name(id));
    if (n <= 0 || static_cast<size_t>(n) >= sizeof(path)) {
        return -1;
    }
    // Keep errno as it was: the caller may format strerror(errno) next.
    int saved = errno;
    int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    ssize_t w = -1;
    if (fd >= 0) {
        w = write(fd, line, len);
        close(fd);
    }
    errno = saved;
    return w < 0 ? -1 : static_cast<int>(w);
}

}  // namespace

int __android_log_buf_print(int bufID, int prio, const char* tag, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int r = write_line(bufID, prio, tag, fmt, ap);
    va_end(ap);
    return r;
}

int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int r = write_line(LOG_ID_MAIN, prio, tag, fmt, ap);
    va_end(ap);
    return r;
}
