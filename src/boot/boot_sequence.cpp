// Booting the CP: from whatever state it is in to normal operation.
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <ctime>

#include "boot/boot_dump.h"
#include "dump/protocol.h"
#include "log/log.h"
#include "platform/properties.h"
#include "srinfo/srinfo.h"

int dump_try_cnt = 0;

namespace {

constexpr const char kWakeLockName[] = "vm420";

void pause_100ms() {
    timespec t = {0, 100L * 1000 * 1000};
    nanosleep(&t, nullptr);
}

}  // namespace

void BootDumpQuoll::boot_wake_lock(int lock) {
    const char* path = lock != 0 ? "/sys/power/wake_lock" : "/sys/power/wake_unlock";
    int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0664);
    if (fd < 0) {
        LOGE("user wake_%s open fail\n", lock != 0 ? "lock" : "unlock");
        return;
    }
    const size_t len = strlen(kWakeLockName);
    if (write(fd, kWakeLockName, len) != static_cast<ssize_t>(len)) {
        LOGE("write fail - %s\n", kWakeLockName);
    } else {
        LOGI("%s/%s\n", path, kWakeLockName);
    }
    close(fd);
}

// The steps after the boot arguments are prepared; the caller closes the
// arguments and releases the wake lock whatever this returns.
int BootDumpQuoll::boot_prepared() {
    const std_boot& b = *getStdBoot();
    if (Container::srinfo != nullptr) {
        Container::srinfo->store_srinfo(b.fd);
    }
    int ret;
    if (get_modem_state(b.fd) != 0) {
        LOGI_AS("boot", "Power reset CP_BOOT_MODE_NORMAL\n");
        if ((ret = std_boot_power_reset(CP_BOOT_MODE_NORMAL)) < 0) {
            LOGI_AS("boot", "ERR! std_boot_power_reset fail\n");
            return ret;
        }
    }
    LOGI_AS("boot", "Power on CP\n");
    if ((ret = std_boot_power_on()) < 0) {
        LOGI_AS("boot", "ERR! std_boot_power_on fail\n");
        return ret;
    }
    LOGI_AS("boot", "Request security : non-secure mode\n");
    if (std_security_req(SECURITY_MODE_NON_SECURE, 0, 0) < 0) {
        LOGI_AS("boot", "ERR! security check fail\n");
        return -1;
    }
    LOGI_AS("boot", "Send CP image\n");
    const int loaded = load_cp_images(CP_BOOT_MODE_NORMAL);
    if (loaded < 0) {
        LOGI_AS("boot", "ERR! BOOT_STAGE fail\n");
        return loaded;
    }
    // Stage slots 0..3 are TOC, BOOT, MAIN and VSS; a slot that was not
    // built reads 0.
    LOGI_AS("boot", "Request Security : TOC secure mode\n");
    if (std_security_req(SECURITY_MODE_TOC_VSS, b.stage[0].m_off, b.stage[0].b_size) < 0) {
        LOGI_AS("boot", "ERR! security check fail for TOC\n");
        return -1;
    }
    if (b.toc_idx_vss >= 0) {
        const bool verify = (rix_args.options & BOPT_VERIFY_VSS) != 0;
        if (loaded == 0 || verify) {
            LOGI_AS("boot", "Request Security : VSS secure mode\n");
            if (std_security_req(verify ? SECURITY_MODE_VSS_VERIFY : SECURITY_MODE_TOC_VSS,
                                 b.stage[3].m_off, b.stage[3].b_size) < 0) {
                LOGI_AS("boot", "ERR! security check fail for VSS\n");
                return -1;
            }
        } else {
            LOGI_AS("boot", "skip VSS check\n");
        }
    }
    LOGI_AS("boot", "Request security : BOOT/MAIN secure mode\n");
    if (std_security_req(SECURITY_MODE_BOOT_MAIN, b.stage[1].b_size, b.stage[2].b_size) < 0) {
        LOGI_AS("boot", "ERR! security check fail for BOOT/MAIN\n");
        return -1;
    }
    set_sim_configuration();
    LOGI_AS("boot", "Start CP bootloader\n");
    if ((ret = std_boot_start_cp_bootloader(CP_BOOT_MODE_NORMAL)) < 0) {
        LOGI_AS("boot", "ERR! std_boot_start_cp_bootloader fail\n");
        return ret;
    }
    LOGI_AS("boot", "Handshake\n");
    if ((ret = Container::protocol->std_boot_finish_handshake()) < 0) {
        LOGI_AS("boot", "ERR! std_boot_finish_handshake fail\n");
        return ret;
    }
    LOGI_AS("boot", "Complete normal bootup\n");
    if ((ret = std_boot_complete_normal_bootup()) < 0) {
        LOGI_AS("boot", "ERR! std_boot_complete_normal_bootup fail\n");
        return ret;
    }
    if (Container::srinfo != nullptr) {
        Container::srinfo->restore_srinfo(b.fd);
    }
    return 0;
}

// Another platform component sets "vendor.rix.rfs_check_done" once the NV
// files were validated. The property is read 50 times with a pause after
// each read; a "1" that comes during the last pause is not seen.
const char* wait_nv_validation(void (*pause)()) {
    for (int left = 50;;) {
        char value[PROPERTY_VALUE_MAX] = {};
        property_get("vendor.rix.rfs_check_done", value, "0");
        if (value[0] == '1') {
            return "done";
        }
        pause();
        if (--left == 0) {
            return "TIMEOUT";
        }
    }
}

int BootDumpQuoll::boot() {
    LOGI("CP boot device = %s\n", rix_args.boot_node);
    LOGI("CP binary file = %s\n", rix_args.partition_path);
    LOGI("CP NV data file = %s\n", rix_args.nv_data_path);
    LOGI("NV validation %s\n", wait_nv_validation(pause_100ms));
    boot_wake_lock(1);
    dump_try_cnt = 0;
    LOGI("Prepare arguments\n");
    int ret;
    if (!prepare_boot_args(CP_BOOT_MODE_NORMAL)) {
        LOGI("ERR! prepare_boot_args fail\n");
        ret = -14;
    } else {
        ret = boot_prepared();
    }
    std_boot_close_args();
    boot_wake_lock(0);
    return ret;
}
