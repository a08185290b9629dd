#include "log/log.h"

#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "core/rix.h"
#include "platform/android_log.h"

int kmsg_fd = 1;
int32_t debug_level = 0;
int32_t cp_debug = 0;
char log_dir[kLogDirLen] = "/data/vendor/log/rix";

namespace {

// One kernel log record holds at most about 1 KiB; a longer text is cut there
// by the kernel anyway.
constexpr size_t kLineMax = 2048;

// Appends the message text (`len` bytes as formatted, a NUL from "%c"
// included) to a prefix and writes the whole line with one write(), so that
// a message is never split across kernel log records.
void write_copy(int fd, const char* prefix, const char* text, size_t len) {
    char line[kLineMax];
    int n = snprintf(line, sizeof(line), "%s", prefix);
    if (n < 0) {
        return;
    }
    size_t head = static_cast<size_t>(n) < sizeof(line) ? n : sizeof(line) - 1;
    if (len > sizeof(line) - 1 - head) {
        len = sizeof(line) - 1 - head;
    }
    memcpy(line + head, text, len);
    if (head + len > 0) {
        (void)!write(fd, line, head + len);
    }
}

// Formats the message text; its length as formatted, cut where the buffer
// cut it.
__attribute__((format(printf, 3, 0))) size_t format_text(char* text, size_t size, const char* fmt,
                                                         va_list ap) {
    const int n = vsnprintf(text, size, fmt, ap);
    if (n < 0) {
        text[0] = '\0';
        return 0;
    }
    return static_cast<size_t>(n) < size ? static_cast<size_t>(n) : size - 1;
}

int dump_log_fd() {
    const std_dump* d = Container::getStdDump();
    return d != nullptr ? d->log_fd : -1;
}

}  // namespace

void rix_log(LogLevel level, LogCopy copy, const char* fn, const char* fmt, ...) {
    char text[kLineMax];
    va_list ap;
    va_start(ap, fmt);
    const size_t len = format_text(text, sizeof(text), fmt, ap);
    va_end(ap);

    // strerror(errno) is taken again for every copy: a copy that fails to be
    // written changes errno, and the next copy reports what is current then.
    char prefix[256];
    if (level == LogLevel::Error) {
        snprintf(prefix, sizeof(prefix), "<3>cpif: rix: (ERR! %s) %s: ", strerror(errno), fn);
    } else {
        snprintf(prefix, sizeof(prefix), "<6>cpif: rix: %s: ", fn);
    }
    write_copy(kmsg_fd, prefix, text, len);

    if (level == LogLevel::Error) {
        __android_log_buf_print(LOG_ID_RADIO, ANDROID_LOG_ERROR, "boot", "rix: (ERR! %s) %s: %s",
                                strerror(errno), fn, text);
    } else {
        __android_log_buf_print(LOG_ID_RADIO, ANDROID_LOG_DEBUG, "boot", "rix: %s: %s", fn, text);
    }

    int log_fd = copy == LogCopy::WithDumpLog ? dump_log_fd() : -1;
    if (log_fd >= 1) {
        if (level == LogLevel::Error) {
            snprintf(prefix, sizeof(prefix), "(ERR! %s) %s: ", strerror(errno), fn);
        } else {
            snprintf(prefix, sizeof(prefix), "%s: ", fn);
        }
        write_copy(log_fd, prefix, text, len);
    }
}

void Log::kprintf_deinit() {
    if (kmsg_fd != 1) {
        close(kmsg_fd);
    }
}
