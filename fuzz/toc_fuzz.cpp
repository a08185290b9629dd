// The TOC and the boot-argument preparation over arbitrary partition bytes and
// an arbitrary NV file. Input: a settings byte, the NV file's length (2 bytes),
// the NV file, then the partition.
#include "boot/toc.h"
#include "fuzz_support.h"

static constexpr char kPartition[] = "/data/fuzz/modem.bin", kNv[] = "/data/fuzz/nv_data.bin",
                      kNvTemp[] = "/data/fuzz/nv_data_temp.bin";
enum : uint32_t { kDumpMode = 1, kNvChecksum = 2, kReinitVss = 4, kNoNvFile = 8, kNoNvPath = 16 };

void fuzz_one(fuzz::Input in) {
    const uint32_t flags = in.le(1);
    const fuzz::Input nv = in.take(in.le(2)), part = in;
    fuzz::write_file(kPartition, part.data, part.size);
    // A missing NV file (or fallback copy, after a failed check) is created
    // with the size of the (last) NV entry in bytes: only small ones, so a run
    // stays fast. Otherwise both exist and hold the input's NV bytes. The
    // table as the daemon reads it: a short partition leaves the rest zero.
    toc_entry table[kTocEntries] = {};
    memcpy(table, part.data, std::min(part.size, sizeof(table)));
    bool may_create = true;
    for (const toc_entry& e : table) {
        may_create = toc_name_is(e, "NV") ? e.size <= 0x10000 : may_create;
    }
    for (const char* path : {kNv, kNvTemp}) {
        if (may_create && (path == kNvTemp || (flags & kNoNvFile) != 0)) {
            unlink(path);
        } else {
            fuzz::write_file(path, nv.data, nv.size);
        }
    }
    snprintf(rix_args.boot_node, sizeof(rix_args.boot_node), "%s", "/dev/null");
    snprintf(rix_args.partition_path, sizeof(rix_args.partition_path), "%s", kPartition);
    snprintf(rix_args.nv_data_path, sizeof(rix_args.nv_data_path), "%s",
             (flags & kNoNvPath) != 0 ? "" : kNv);
    snprintf(rix_args.nv_temp_path, sizeof(rix_args.nv_temp_path), "%s", kNvTemp);
    rix_args.options = ((flags & kNvChecksum) != 0 ? BOPT_NV_CHECKSUM : 0) |
                       ((flags & kReinitVss) != 0 ? BOPT_REINIT_VSS : 0);
    BootDump* bd = Container::bootDump;
    if (bd->prepare_boot_args((flags & kDumpMode) != 0 ? CP_BOOT_MODE_DUMP : CP_BOOT_MODE_NORMAL)) {
        // The stage table has 13 slots; nothing may stand for more.
        const std_boot* b = Container::getStdBoot();
        fuzz::expect(
            (b->last_stage == kNoStage || b->last_stage < kStageSlots) && b->first_stage <= 1,
            "stages inside the table");
        bd->std_boot_close_args();
    }
}
