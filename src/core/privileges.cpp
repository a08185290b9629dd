// Giving up root, and powering the CP off when the phone shuts down.
#include <fcntl.h>
#include <linux/capability.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "boot/boot_dump.h"
#include "core/util.h"
#include "log/log.h"

namespace {

constexpr uid_t kRadioUid = 1001;

// CAP_NET_ADMIN, CAP_NET_RAW, CAP_SYS_ADMIN, CAP_SYS_BOOT.
constexpr uint32_t kCapsLow =
    (1u << CAP_NET_ADMIN) | (1u << CAP_NET_RAW) | (1u << CAP_SYS_ADMIN) | (1u << CAP_SYS_BOOT);
// CAP_SYSLOG reads the kernel ring buffer; CAP_BLOCK_SUSPEND holds the wake
// lock of the boot sequence.
constexpr uint32_t kCapsHigh = (1u << (CAP_SYSLOG - 32)) | (1u << (CAP_BLOCK_SUSPEND - 32));
static_assert(kCapsLow == 0x00603000);
static_assert(kCapsHigh == 0x00000014);

}  // namespace

void Util::switch_user() {
    // Keep the permitted set across the change of user id; without root the
    // calls fail and the daemon carries on as it is.
    prctl(PR_SET_KEEPCAPS, 1, 0, 0, 0);
    (void)!setuid(kRadioUid);

    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {
        {kCapsLow, kCapsLow, 0},
        {kCapsHigh, kCapsHigh, 0},
    };
    static_assert(_LINUX_CAPABILITY_VERSION_3 == 0x20080522);
    if (syscall(SYS_capset, &header, data) != 0) {
        LOGE("capset failed\n");
    }
}

void shutdown() {
    int fd = open(rix_args.boot_node, O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        LOGE("%s open fail\n", rix_args.boot_node);
        return;
    }
    ioctl(fd, IOCTL_POWER_OFF, nullptr);
    close(fd);
}
