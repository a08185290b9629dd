// Board and SIM queries: SIM count, RF sub-board, sales code.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "boot/boot_dump.h"
#include "core/not_built.h"
#include "core/util.h"
#include "dump/protocol.h"

void BootDump::set_sim_configuration() {
    NOT_BUILT();
}

bool ProtocolTarn::check_dmx_sales_code() {
    NOT_BUILT();
    return false;
}

int ProtocolTarn::get_factory_prop() {
    NOT_BUILT();
    return -1;
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
