// Host stand-in for libselinux's label restore: the path is recorded, one
// line each, in $RIX_LOG_DIR/restorecon, and the restore succeeds.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "platform/selinux.h"

int selinux_android_restorecon(const char* file, unsigned int /*flags*/) {
    const char* dir = getenv("RIX_LOG_DIR");
    char path[512];
    char line[1024];
    int n = snprintf(path, sizeof(path), "%s/restorecon", (dir && dir[0]) ? dir : "/dev/log");
    int len = snprintf(line, sizeof(line), "%s\n", file);
    if (n <= 0 || static_cast<size_t>(n) >= sizeof(path) || len <= 0 ||
        static_cast<size_t>(len) >= sizeof(line)) {
        return 0;
    }
    int saved = errno;
    int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    if (fd >= 0) {
        (void)!write(fd, line, len);
        close(fd);
    }
    errno = saved;
    return 0;
}
