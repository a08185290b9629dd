// Requests to the cpif driver that are one ioctl each.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "boot/boot_dump.h"
#include "log/log.h"

int BootDump::std_boot_power_on() {
    int ret = ioctl(getStdBoot()->fd, IOCTL_POWER_ON, nullptr);
    if (ret < 0) {
        LOGE("ERR! IOCTL_POWER_ON fail (%d)\n", ret);
        return ret;
    }
    return 0;
}

int BootDump::std_boot_power_reset(cp_boot_mode mode) {
    int32_t arg = mode;
    int ret = ioctl(getStdBoot()->fd, IOCTL_POWER_RESET, &arg);
    if (ret < 0) {
        LOGE("ERR! IOCTL_POWER_RESET fail\n");
        return ret;
    }
    return 0;
}

int BootDump::std_boot_start_cp_bootloader(cp_boot_mode mode) {
    int32_t arg = mode;
    int ret = ioctl(getStdBoot()->fd, IOCTL_START_CP_BOOTLOADER, &arg);
    if (ret < 0) {
        LOGE("ERR! IOCTL_START_CP_BOOTLOADER fail\n");
        return ret;
    }
    return 0;
}

int BootDump::std_boot_complete_normal_bootup() {
    int fd = getStdBoot()->fd;
    int ret = ioctl(fd, IOCTL_COMPLETE_NORMAL_BOOTUP, nullptr);
    if (ret < 0) {
        LOGE("ERR! IOCTL_COMPLETE_NORMAL_BOOTUP fail (%d)\n", ret);
    }
    // The driver is told the outcome either way; its answer does not matter.
    ioctl(fd, ret < 0 ? IOCTL_NOTIFY_BOOTUP_FAIL : IOCTL_NOTIFY_BOOTUP_DONE, nullptr);
    return ret < 0 ? ret : 0;
}

int BootDump::get_modem_state(int fd) {
    int own = -1;
    if (fd < 0) {
        own = open(rix_args.boot_node, O_RDWR | O_CLOEXEC);
        if (own < 0) {
            LOGE("%s open fail\n", rix_args.boot_node);
            return -1;
        }
        fd = own;
    }
    int state = ioctl(fd, IOCTL_GET_MODEM_STATE);
    LOGI("modem_status: %d\n", state);
    if (own >= 0) {
        close(own);
    }
    return state;
}
