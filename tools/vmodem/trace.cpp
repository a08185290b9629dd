#include "trace.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>

namespace vmodem {

Trace::~Trace() {
    if (fd_ >= 0) {
        close(fd_);
    }
}

bool Trace::open(const std::string& path) {
    fd_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
    return fd_ >= 0;
}

void Trace::line(const char* fmt, ...) {
    if (fd_ < 0 && !capture_) {
        return;
    }
    char buf[1024];
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(buf, sizeof(buf) - 1, fmt, ap);
    va_end(ap);
    if (n < 0) {
        return;
    }
    size_t len =
        static_cast<size_t>(n) < sizeof(buf) - 1 ? static_cast<size_t>(n) : sizeof(buf) - 2;
    if (capture_) {
        lines_.emplace_back(buf, len);
    }
    buf[len] = '\n';
    if (fd_ >= 0) {
        ssize_t ignored = write(fd_, buf, len + 1);
        (void)ignored;
    }
}

}  // namespace vmodem
