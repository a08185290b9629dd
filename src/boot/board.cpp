// Board and SIM queries: SIM count, RF sub-board, sales code.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "boot/boot_dump.h"
#include "core/rix.h"
#include "core/util.h"
#include "dump/protocol.h"
#include "log/log.h"
#include "platform/properties.h"

namespace {

constexpr char kFactoryProp[] = "/efs/factory.prop";
constexpr char kSimConf[] = "/sys/devices/platform/cpif/sim/ds_detect";

// The phones that reboot when a secure boot fails.
constexpr const char* kRebootSalesCodes[] = {"TMB", "VZW", "XAU"};

}  // namespace

void BootDump::set_sim_configuration() {
    const int count = Container::protocol->get_factory_prop();
    LOGI("sim count: %d (echo to ds_detect file)\n", count);
    // The driver knows phones with one to four SIM slots.
    if (count < 1 || count > 4) {
        return;
    }
    int fd = open(kSimConf, O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0664);
    if (fd < 0) {
        LOGE("SIM conf: open failed\n");
        return;
    }
    char text[4];
    int len = snprintf(text, sizeof(text), "%d", count);
    if (write(fd, text, static_cast<size_t>(len)) < 0) {
        LOGE("SIM conf: write failed\n");
    } else {
        fsync(fd);
    }
    close(fd);
}

bool ProtocolTarn::check_dmx_sales_code() {
    char code[PROPERTY_VALUE_MAX] = {};
    property_get("ro.dmx.sales_code", code, "");
    LOGI("sales_code:%s\n", code);
    // Exact match: the code and its terminating NUL.
    for (const char* reboot_code : kRebootSalesCodes) {
        if (memcmp(code, reboot_code, 4) == 0) {
            return true;
        }
    }
    return false;
}

int ProtocolTarn::get_factory_prop() {
    int fd = open(kFactoryProp, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        LOGI("%s open fail(not support)\n", kFactoryProp);
        return -22;
    }
    // One byte more than is read, so the text always ends in a NUL and the
    // byte after an '=' at the very end is that NUL.
    char text[128] = {};
    int ret = static_cast<int>(read(fd, text, sizeof(text) - 1));
    if (ret < 0) {
        LOGE("%s read fail\n", kFactoryProp);
    } else if (const char* eq = strchr(text, '='); eq != nullptr) {
        // The byte as it is, on every platform's char signedness.
        ret = static_cast<unsigned char>(eq[1]) - '0';
        LOGI("sim_count: %d\n", ret);
    } else {
        LOGI("can't find token!\n");
        ret = -22;
    }
    close(fd);
    return ret;
}

int BootDump::get_rfboard_disconnect() {
    int fd = open(rix_args.boot_node, O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        LOGE("%s open fail(%s)\n", rix_args.boot_node, strerror(errno));
        return fd;
    }
    int level = ioctl(fd, IOCTL_GET_RFBOARD_DISCONNECT);
    if (level < 0) {
        LOGE("IOCTL_GET_RFBOARD_DISCONNECT fail (%d)\n", level);
    } else {
        LOGI("RF sub board is %s, gpio_val:%d\n", level != 0 ? "disconnected" : "connected", level);
    }
    close(fd);
    return level;
}
