// The dump sequence: after a CP crash, restart the CP into its dump boot
// loader, keep its log regions and crash dump as files, then send the phone
// to upload mode (or, in minidump mode, leave the dump to another service).
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <initializer_list>

#include "boot/boot_dump.h"
#include "core/util.h"
#include "dump/log_dump.h"
#include "dump/protocol.h"
#include "log/log.h"
#include "platform/properties.h"
#include "srinfo/srinfo.h"

namespace {

constexpr const char kMinidumpFile[] = "/data/vendor/ramdump/remoteproc-mss-md.elf";
constexpr size_t kNameLen = 64;
constexpr size_t kFilePathLen = 512;
// The driver says how many pmux regions there are; a broken or hostile CP
// could claim billions, so the reader stops here.
constexpr unsigned kMaxPmuxRegions = 64;

bool minidump_properties_set() {
    return property_get_int32("persist.sys.enable_minidump0", 0) == 1 ||
           property_get_int32("persist.sys.enable_minidump1", 0) == 1;
}

// The dump goes to the minidump file at DBG_LOW with minidump support.
bool minidump_file_chosen() {
    return debug_level == 0 && (rix_args.options & BOPT_MINIDUMP) != 0;
}

bool minidump_in_force() {
    return minidump_file_chosen() && minidump_properties_set();
}

void capture(const char* fmt) {
    char name[kNameLen] = {};
    snprintf(name, sizeof(name), fmt, rix_args.dev_prefix);
    Log::save_logs(1, name);
}

// The crash reason is prefixed with the device prefix in capitals.
void write_reason_prefix(std_dump* d) {
    char prefix[kNameLen] = {};
    snprintf(prefix, sizeof(prefix), "%s", rix_args.dev_prefix);
    Util::toUpperCase(prefix, d->reason);
    size_t len = strnlen(d->reason, sizeof(d->reason) - 3);
    memcpy(d->reason + len, ": ", 3);
}

struct DumpNames {
    char base[kNameLen];
    char stamp[kNameLen];
};

DumpNames make_names() {
    DumpNames n = {};
    snprintf(n.base, sizeof(n.base), kDumpNameBase, rix_args.dev_prefix);
    dump_time_stamp(n.stamp, sizeof(n.stamp));
    return n;
}

// Path of descriptor slot 5 (log), 6 (info) or 7 (dump). False when the
// path does not fit its buffer.
bool slot_path(int slot, const DumpNames& n, char* path) {
    int len;
    if (slot == 5) {
        len = snprintf(path, kFilePathLen, kDumpLogPathFormat, log_dir, n.base, n.stamp);
    } else if (slot == 6) {
        len = snprintf(path, kFilePathLen, kDumpInfoPathFormat, log_dir, n.base,
                       rix_args.modem_name, n.stamp);
    } else if (minidump_file_chosen()) {
        len = snprintf(path, kFilePathLen, "%s", kMinidumpFile);
    } else {
        len = snprintf(path, kFilePathLen, kDumpFilePathFormat, log_dir, n.base, n.stamp);
    }
    return len > 0 && static_cast<size_t>(len) < kFilePathLen;
}

int32_t* slot_field(std_dump* d, int slot) {
    return slot == 5 ? &d->log_fd : slot == 6 ? &d->info_fd : &d->dump_fd;
}

}  // namespace

int BootDump::set_minidump_mode() {
    uint8_t enable = minidump_in_force() ? 1 : 0;
    int fd = open(rix_args.boot_node, O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        LOGE("%s open fail:%s\n", rix_args.boot_node, strerror(errno));
        return fd;
    }
    int ret = ioctl(fd, IOCTL_SET_MINIDUMP_MODE, &enable);
    if (ret < 0) {
        LOGE("IOCTL_SET_MINIDUMP_MODE fail:%d enable:%d\n", ret, enable);
    } else {
        LOGI("minidump mode is %s\n", enable != 0 ? "enabled" : "disabled");
    }
    close(fd);
    return ret;
}

int BootDump::std_dump_write_versions() {
    char version[kCpifVersionLen] = {};
    if (ioctl(getStdDump()->fd, IOCTL_GET_CPIF_VERSION, version) < 0) {
        LOGE_DUMP("ERR! IOCTL_GET_CPIF_VERSION fail\n");
        return -22;
    }
    // The driver may fill all 20 bytes without a terminator.
    LOGI_DUMP("CPIF version: %.*s\n", static_cast<int>(sizeof(version)), version);
    LOGI_DUMP("Velmora (RIX) version: %s\n", kRixVersion);
    return 0;
}

bool BootDump::std_dump_prepare_args() {
    if (Log::create_log_directory() != 0) {
        return false;
    }
    std_dump_init_args();
    std_dump* d = getStdDump();
    write_reason_prefix(d);
    int fd = open(rix_args.dump_node, O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        LOGE("ERR! %s open fail\n", rix_args.dump_node);
        return false;
    }
    LOGI("%s opened (fd %d)\n", rix_args.dump_node, fd);
    d->fd = fd;
    const DumpNames names = make_names();
    for (int slot = 5; slot <= 7; slot++) {
        if (slot < 7 && debug_level == 0) {
            continue;
        }
        if (slot == 7 && minidump_file_chosen()) {
            if (unlink(kMinidumpFile) != 0 && errno != ENOENT) {
                LOGE("delete minidump file fail (%d)\n", errno);
                return false;
            }
            property_set("vendor.ril.done_minidump", "0");
        }
        char path[kFilePathLen];
        if (!slot_path(slot, names, path)) {
            LOGE_DUMP("ERR! %s open fail\n", path);
            return false;
        }
        // Truncated: a retry within the same second reuses the names and
        // must not leave the tail of the earlier attempt behind.
        int file = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0660);
        if (file < 0) {
            LOGE_DUMP("ERR! %s open fail\n", path);
            return false;
        }
        Util::switch_group_log(path);
        *slot_field(d, slot) = file;
        if (slot == 5) {
            std_dump_write_versions();
        }
        LOGI_DUMP("%s opened (fd %d)\n", path, file);
    }
    return true;
}

int BootDump::std_dump_receive_cp_dump() {
    return Container::protocol->std_dump_receive_cp_dump();
}

int BootDump::std_dump_upload() {
    std_dump* d = getStdDump();
    for (int32_t* fd : {&d->dump_fd, &d->info_fd}) {
        if (*fd >= 1) {
            fsync(*fd);
            close(*fd);
            *fd = -1;
        }
    }
    if (d->log_fd >= 1 && fsync(d->log_fd) != 0) {
        LOGE_DUMP("ERR! fsync(log_fd) fail\n");
        return -1;
    }
    return upload(d->fd);
}

namespace {

void collect_log_regions(BootDump* bd) {
    LOGI_AS("dump", "Get log dump\n");
    bd->get_log_dump("shmem", CP_LOG_DUMP_IDX_SHMEM);
    if (rix_args.options & BOPT_VERIFY_VSS) {
        LOGI_AS("dump", "BOPT_VERIFY_VSS is enabled. VSS region is not accessible by rix\n");
    } else {
        bd->get_log_dump("vss", CP_LOG_DUMP_IDX_VSS);
    }
    bd->get_log_dump("databuf", CP_LOG_DUMP_IDX_DATABUF);
    bd->get_log_dump("l2b", CP_LOG_DUMP_IDX_L2B);
    unsigned count = 0;
    bd->get_num_log_dump(CP_LOG_DUMP_IDX_PMUX, &count);
    if (count > kMaxPmuxRegions) {
        LOGI_AS("dump", "ERR! num_dump %u too large, reading %u\n", count, kMaxPmuxRegions);
        count = kMaxPmuxRegions;
    }
    for (unsigned i = 0; i < count; i++) {
        char name[32];
        snprintf(name, sizeof(name), "pmux%u", i);
        bd->get_log_dump(name, CP_LOG_DUMP_IDX_PMUX);
    }
    bd->get_log_dump("cp_btl", CP_LOG_DUMP_IDX_CP_BTL);
    bd->get_log_dump("ddm", CP_LOG_DUMP_IDX_DDM);
}

}  // namespace

// Everything from the preparation of the dump files to the upload request.
// Returns the result of the failing step, or of the upload request.
int BootDumpQuoll::dump_attempt() {
    int ret;
    if (rix_args.options & BOPT_MINIDUMP) {
        if ((ret = set_minidump_mode()) < 0) {
            LOGI_AS("dump", "set minidump mode is failed:%d\n", ret);
            return ret;
        }
    }
    if (debug_level != 0) {
        capture(kCaptureDumpBefore);
    }
    LOGI_AS("dump", "Prepare CP crash dump\n");
    if (!std_dump_prepare_args()) {
        LOGI_AS("dump", "ERR! std_dump_prepare_args fail\n");
        return -14;
    }
    if (!prepare_boot_args(CP_BOOT_MODE_DUMP)) {
        LOGI_AS("dump", "ERR! prepare_boot_args fail\n");
        return -14;
    }
    const std_boot& b = *getStdBoot();
    if (Container::srinfo != nullptr) {
        Container::srinfo->store_srinfo(b.fd);
    }
    if (debug_level != 0) {
        collect_log_regions(this);
    }
    LOGI_AS("dump", "Power reset CP_BOOT_MODE_DUMP\n");
    if ((ret = std_boot_power_reset(CP_BOOT_MODE_DUMP)) < 0) {
        LOGI_AS("dump", "ERR! std_boot_power_reset fail\n");
        return ret;
    }
    LOGI_AS("dump", "Load CP bootloader\n");
    if ((ret = load_cp_images(CP_BOOT_MODE_DUMP)) < 0) {
        LOGI_AS("dump", "ERR! load_cp_images fail\n");
        return ret;
    }
    LOGI_AS("dump", "Request security : dump mode\n");
    if (std_security_req(SECURITY_MODE_DUMP, b.stage[1].b_size, b.stage[2].b_size) < 0) {
        LOGI_AS("dump", "ERR! security check fail\n");
        return -1;
    }
    LOGI_AS("dump", "Start CP bootloader for crash dump\n");
    if ((ret = std_boot_start_cp_bootloader(CP_BOOT_MODE_DUMP)) < 0) {
        LOGI_AS("dump", "ERR! std_boot_start_cp_bootloader fail\n");
        return ret;
    }
    LOGI_AS("dump", "Receive CP crash dump\n");
    if ((ret = std_dump_receive_cp_dump()) < 0) {
        LOGI_DUMP_AS("dump", "ERR! std_dump_receive_cp_dump fail\n");
        return ret;
    }
    if (debug_level != 0) {
        capture(kCaptureDumpAfter);
    }
    sync();
    if (minidump_in_force()) {
        // Another service takes the dump from the minidump file; the daemon
        // parks here holding the wake lock.
        property_set("vendor.ril.done_minidump", "1");
        LOGI_AS("dump", "No trigger dump upload(minidump mode)\n");
        std_dump_close_args();
        std_boot_close_args();
        for (;;) {
            sleep(1);
        }
    }
    LOGI_AS("dump", "Trigger dump upload\n");
    if ((ret = std_dump_upload()) < 0) {
        LOGI_DUMP_AS("dump", "ERR! std_dump_upload fail\n");
        return ret;
    }
    return ret;
}

namespace {

// The watchdog request goes to the boot record's descriptor. An attempt that
// failed while preparing has already closed it (or never opened it): the
// boot node is then opened for this one request, or the phone would stay up
// and the evidence of the crash be lost.
void trigger_ap_wdtreset(int fd) {
    int own = -1;
    if (fd < 0) {
        own = fd = open(rix_args.boot_node, O_RDWR | O_CLOEXEC);
        if (fd < 0) {
            LOGE_AS("dump", "ERR! %s open fail\n", rix_args.boot_node);
            return;
        }
    }
    ioctl(fd, IOCTL_TRIGGER_AP_WDTRESET);
    if (own >= 0) {
        close(own);
    }
}

}  // namespace

int BootDumpQuoll::dump() {
    boot_wake_lock(1);
    dump_try_cnt++;
    int ret = dump_attempt();
    if (ret < 0 && debug_level != 0) {
        LOGE("dump_try_cnt:%d\n", dump_try_cnt);
        capture(kCaptureDumpFail);
        if (dump_try_cnt >= 2) {
            // From the second failed attempt on, the whole phone goes down
            // through a watchdog reset so that the evidence is not lost.
            LOGE("ERR! dump failed. trigger ap wdtreset\n");
            trigger_ap_wdtreset(std_boot_node_fd());
        }
    }
    std_dump_close_args();
    std_boot_close_args();
    boot_wake_lock(0);
    return ret;
}
