// Upload mode: the driver takes the whole phone into its dump mode, carrying
// the crash-reason text.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>

#include "boot/boot_dump.h"
#include "log/log.h"

char crash_reason[kCrashReasonLen];

int BootDump::upload(int fd) {
    int own = -1;
    if (fd < 0) {
        own = open(rix_args.boot_node, O_RDWR | O_NONBLOCK | O_CLOEXEC);
        if (own < 0) {
            LOGE("%s open fail\n", rix_args.boot_node);
            return -1;
        }
        fd = own;
    }
    LOGI("Go to UPLOAD mode\n");
    int ret = ioctl(fd, IOCTL_ENTER_UPLOAD_MODE, crash_reason);
    if (own >= 0) {
        close(own);
    }
    return ret;
}

int BootDump::forceUpload(const char* reason) {
    snprintf(crash_reason, kCrashReasonMax, "%s", reason);
    return upload(-1);
}
