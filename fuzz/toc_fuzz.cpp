// The TOC and the boot-argument preparation over arbitrary partition bytes
// and an arbitrary NV file. Input: one byte of settings, the NV file's
// length (2 bytes, little-endian), the NV file, then the partition.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "boot/boot_dump.h"
#include "boot/toc.h"
#include "core/rix.h"
#include "fuzz_support.h"

namespace {

constexpr char kPartition[] = "/data/fuzz/modem.bin";
constexpr char kNv[] = "/data/fuzz/nv_data.bin";
constexpr char kNvTemp[] = "/data/fuzz/nv_data_temp.bin";

// Settings bits.
constexpr uint8_t kDumpMode = 1;
constexpr uint8_t kNvChecksum = 2;
constexpr uint8_t kReinitVss = 4;
constexpr uint8_t kNoNvFile = 8;
constexpr uint8_t kNoNvPath = 16;

// Size of the partition's (last) NV entry, 0 without one. Only used to keep
// the creation of a missing NV file, which writes that many bytes, small.
uint32_t nv_entry_size(const uint8_t* part, size_t size) {
    // As the daemon reads it: a short partition leaves the rest zero.
    uint8_t table[kTocSize] = {};
    memcpy(table, part, size < sizeof(table) ? size : sizeof(table));
    uint32_t found = 0;
    for (size_t i = 0; i < kTocEntries; i++) {
        toc_entry e;
        memcpy(&e, table + i * sizeof(toc_entry), sizeof(e));
        if (toc_name_is(e, "NV")) {
            found = e.size;
        }
    }
    return found;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::enter_sandbox();
    fuzz::select_modem();
    // The boot node must open; nothing is sent through it here.
    snprintf(rix_args.boot_node, sizeof(rix_args.boot_node), "%s", "/dev/null");
    snprintf(rix_args.partition_path, sizeof(rix_args.partition_path), "%s", kPartition);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 3) {
        return 0;
    }
    fuzz::FdLeakCheck fds;
    const uint8_t flags = data[0];
    size_t nv_len = data[1] | (static_cast<size_t>(data[2]) << 8);
    nv_len = nv_len < size - 3 ? nv_len : size - 3;
    const uint8_t* nv = data + 3;
    const uint8_t* part = nv + nv_len;
    const size_t part_len = size - 3 - nv_len;

    fuzz::write_file(kPartition, part, part_len);
    // A missing NV file (or fallback copy, after a failed check) is created
    // with the NV entry's size in bytes: only small ones, so that a run
    // stays fast. Otherwise both exist and hold the input's NV bytes.
    const bool may_create = nv_entry_size(part, part_len) <= 0x10000;
    if ((flags & kNoNvFile) != 0 && may_create) {
        unlink(kNv);
    } else {
        fuzz::write_file(kNv, nv, nv_len);
    }
    if (may_create) {
        unlink(kNvTemp);
    } else {
        fuzz::write_file(kNvTemp, nv, nv_len);
    }
    snprintf(rix_args.nv_data_path, sizeof(rix_args.nv_data_path), "%s",
             (flags & kNoNvPath) != 0 ? "" : kNv);
    snprintf(rix_args.nv_temp_path, sizeof(rix_args.nv_temp_path), "%s", kNvTemp);
    rix_args.options = ((flags & kNvChecksum) != 0 ? BOPT_NV_CHECKSUM : 0) |
                       ((flags & kReinitVss) != 0 ? BOPT_REINIT_VSS : 0);

    BootDump* bd = Container::bootDump;
    const bool ok =
        bd->prepare_boot_args((flags & kDumpMode) != 0 ? CP_BOOT_MODE_DUMP : CP_BOOT_MODE_NORMAL);
    const std_boot* b = Container::getStdBoot();
    if (ok) {
        // The stage table has 13 slots; nothing may stand for more.
        if (b->last_stage != kNoStage && b->last_stage >= kStageSlots) {
            abort();
        }
        if (b->first_stage > 1) {
            abort();
        }
        bd->std_boot_close_args();
    }
    return 0;
}
