// The controller object and the life of its two argument records.
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "boot/boot_dump.h"
#include "log/log.h"

namespace {

// The constructor zero-fills the records, so until the first init every
// descriptor slot reads 0. After an init no two slots can both hold 0 (they
// are -1 or distinct descriptors), so all-zero slots mean "never opened".
bool never_opened(const int32_t* slots, int count) {
    for (int i = 0; i < count; i++) {
        if (slots[i] != 0) {
            return false;
        }
    }
    return true;
}

void close_slots(int32_t* slots, int count) {
    // A record that was never set up holds 0s, and descriptor 0 is not ours.
    if (never_opened(slots, count)) {
        return;
    }
    for (int i = 0; i < count; i++) {
        if (slots[i] >= 0) {
            close(slots[i]);
        }
    }
}

}  // namespace

BootDumpQuoll::BootDumpQuoll() {
    memset(&boot_args_, 0, sizeof(boot_args_));
    memset(&dump_args_, 0, sizeof(dump_args_));
}

std_boot* BootDumpQuoll::getStdBoot() {
    return &boot_args_;
}

std_dump* BootDumpQuoll::getStdDump() {
    return &dump_args_;
}

void BootDumpQuoll::setRixArgs(char* name) {
    LOGI("VM420 modem\n");
    rix_args.modem_type = 1;
    snprintf(rix_args.modem_name, sizeof(rix_args.modem_name), "%s", name);
    rix_args.dev_prefix = "umts";
    snprintf(rix_args.boot_node, sizeof(rix_args.boot_node), "%s", "/dev/umts_boot0");
    rix_args.boot_node_path = rix_args.boot_node;
    snprintf(rix_args.dump_node, sizeof(rix_args.dump_node), "%s", "/dev/umts_ramdump0");
    snprintf(rix_args.partition_path, sizeof(rix_args.partition_path), "%s",
             "/dev/block/by-name/modem");
    snprintf(rix_args.nv_data_path, sizeof(rix_args.nv_data_path), "%s",
             "/mnt/vendor/efs/nv_data.bin");
    snprintf(rix_args.nv_temp_path, sizeof(rix_args.nv_temp_path), "%s",
             "/mnt/vendor/efs/nv_data_temp.bin");
    rix_args.last_stage = 5;
    rix_args.toc_mode = 0;
}

void BootDump::std_boot_init_args() {
    std_boot* b = getStdBoot();
    memset(b, 0, sizeof(*b));
    b->fd = -1;
    b->bin_fd = -1;
    b->nv_fd = -1;
    for (int32_t& fd : b->fd_spare) {
        fd = -1;
    }
    b->toc_idx_toc = b->toc_idx_boot = b->toc_idx_main = b->toc_idx_vss = -1;
    b->toc_idx_nv_norm = b->toc_idx_nv_prot = b->toc_idx_nv = b->toc_idx_offset = -1;
}

void BootDump::std_boot_close_args() {
    std_boot* b = getStdBoot();
    static_assert(offsetof(std_boot, fd_spare) + sizeof(b->fd_spare) ==
                  kBootDescriptors * sizeof(int32_t));
    close_slots(&b->fd, kBootDescriptors);
    std_boot_init_args();
}

int BootDump::std_boot_node_fd() {
    std_boot* b = getStdBoot();
    return never_opened(&b->fd, kBootDescriptors) ? -1 : b->fd;
}

void BootDump::std_dump_init_args() {
    std_dump* d = getStdDump();
    memset(d, 0, sizeof(*d));
    d->fd = -1;
    for (int32_t& fd : d->fd_spare) {
        fd = -1;
    }
    d->log_fd = -1;
    d->info_fd = -1;
    d->dump_fd = -1;
}

void BootDump::std_dump_close_args() {
    std_dump* d = getStdDump();
    static_assert(offsetof(std_dump, dump_fd) + sizeof(int32_t) ==
                  kDumpDescriptors * sizeof(int32_t));
    close_slots(&d->fd, kDumpDescriptors);
    std_dump_init_args();
}
