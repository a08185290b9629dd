// Preparing a boot: the boot node, the modem partition with its TOC, the NV
// data file, and one load-control entry per part that is sent to the CP.
#include "boot/toc.h"

#include <fcntl.h>
#include <unistd.h>

#include "boot/boot_dump.h"
#include "boot/nv.h"
#include "core/util.h"
#include "log/log.h"

namespace {

// The part names the daemon knows, with the boot record field that keeps
// the index of the (last) entry of that name.
struct KnownPart {
    const char* name;
    int32_t std_boot::*index;
};
constexpr KnownPart kKnownParts[] = {
    {"TOC", &std_boot::toc_idx_toc},         {"BOOT", &std_boot::toc_idx_boot},
    {"MAIN", &std_boot::toc_idx_main},       {"VSS", &std_boot::toc_idx_vss},
    {"NV_NORM", &std_boot::toc_idx_nv_norm}, {"NV_PROT", &std_boot::toc_idx_nv_prot},
    {"NV", &std_boot::toc_idx_nv},           {"OFFSET", &std_boot::toc_idx_offset},
};

// The TOC can list up to 16 entries, the stage table holds 13; an entry at
// index 13 or above is never loaded.
constexpr uint32_t kLastStageSlot = kStageSlots - 1;

// Records the index of every known part and lists every named entry.
void index_toc(std_boot* b) {
    for (unsigned i = 0; i < kTocEntries; i++) {
        const toc_entry e = toc_entry_at(b, i);
        for (const KnownPart& part : kKnownParts) {
            if (toc_name_is(e, part.name)) {
                b->*part.index = static_cast<int32_t>(i);
                break;
            }
        }
        if (e.name[0] != '\0') {
            LOGI_AS("std_boot_parse_toc_img",
                    "TOC[%d].name = %.12s, b_off=0x%08x, m_off=0x%08x, size=0x%08x crc=0x%08x\n",
                    static_cast<int>(i), e.name, e.b_off, e.m_off, e.size, e.crc);
        }
    }
}

// Opens the NV data file for the NV entry of nv_size bytes; with the NV
// checksum option a corrupted file is replaced by the fallback copy when
// that one can be opened.
bool open_nv(std_boot* b, cp_boot_mode mode, uint32_t nv_size) {
    int nv = -1;
    if (!Util::getNvFd(mode, rix_args.nv_data_path, static_cast<int>(nv_size), &nv)) {
        return false;
    }
    b->nv_fd = nv;
    if ((rix_args.options & BOPT_NV_CHECKSUM) != 0 && !CsumCheckForFile(rix_args.nv_data_path)) {
        int other = -1;
        if (Util::getNvFd(mode, rix_args.nv_temp_path, static_cast<int>(nv_size), &other)) {
            if (b->nv_fd >= 0) {
                close(b->nv_fd);
            }
            b->nv_fd = other;
        }
    }
    return true;
}

// Stops the stage list at the last slot of the stage table, and says so
// when a part that would have been loaded is left out.
void clamp_last_stage(std_boot* b) {
    if (b->last_stage == kNoStage || b->last_stage <= kLastStageSlot) {
        return;
    }
    for (uint32_t i = kLastStageSlot + 1; i <= b->last_stage && i < kTocEntries; i++) {
        if (b->toc_idx_offset >= 0 && i >= static_cast<uint32_t>(b->toc_idx_offset)) {
            break;
        }
        const toc_entry e = toc_entry_at(b, i);
        if (e.name[0] != '\0') {
            LOGI_AS("prepare_boot_args",
                    "ERR! TOC[%u].name = %.12s has no stage slot, not loaded\n", i, e.name);
        }
    }
    b->last_stage = kLastStageSlot;
}

}  // namespace

bool BootDump::std_boot_prepare_args() {
    std_boot_init_args();
    std_boot* b = getStdBoot();
    b->fd = open(rix_args.boot_node, O_RDWR);
    if (b->fd < 0) {
        LOGE("ERR! DEV(%s) open fail\n", rix_args.boot_node);
        return false;
    }
    LOGI("DEV(%s) opened (fd %d)\n", rix_args.boot_node, b->fd);
    b->last_stage = static_cast<uint32_t>(rix_args.last_stage);
    return true;
}

bool BootDump::std_boot_parse_toc_img(cp_boot_mode mode, unsigned* count) {
    std_boot* b = getStdBoot();
    b->bin_fd = open(rix_args.partition_path, O_RDONLY);
    if (b->bin_fd < 0) {
        LOGE("ERR! BIN(%s) open fail\n", rix_args.partition_path);
        return false;
    }
    LOGI("BIN(%s) opened (fd %d)\n", rix_args.partition_path, b->bin_fd);

    // A short read leaves the rest of the table zero.
    ssize_t got = read(b->bin_fd, b->toc, sizeof(b->toc));
    if (got < 0) {
        LOGE("ERR! TOC read fail\n");
        return false;
    }
    const toc_entry head = toc_entry_at(b, 0);
    if (!toc_name_is(head, "TOC")) {
        // Shown as hex so that an erased or foreign partition can be told
        // apart in the log.
        char content[96] = {};
        Util::byteToHex(content, sizeof(content), reinterpret_cast<char*>(b->toc),
                        static_cast<unsigned long>(got));
        LOGI("ERR! invalid TOC: No TOC, content: %s\n", content);
        return false;
    }
    if (head.toc_count > kTocEntries) {
        LOGI("ERR! invalid TOC: Total TOC count is %d\n", static_cast<int>(head.toc_count));
        return false;
    }
    *count = head.toc_count;

    index_toc(b);

    // The NV entry counts wherever it lies, inside the loaded range or not.
    uint32_t nv_size = 0;
    if (b->toc_idx_nv >= 0) {
        nv_size = toc_entry_at(b, static_cast<unsigned>(b->toc_idx_nv)).size;
        if (!open_nv(b, mode, nv_size)) {
            return false;
        }
    }
    if (mode != CP_BOOT_MODE_DUMP && nv_size == 0) {
        LOGI("ERR! invalid TOC : There is no NV\n");
        return false;
    }
    return true;
}

bool BootDumpQuoll::prepare_boot_args(cp_boot_mode mode) {
    if (!std_boot_prepare_args()) {
        LOGI("ERR! std_boot_prepare_args fail\n");
        std_boot_close_args();
        return false;
    }
    unsigned count = 0;
    if (!std_boot_parse_toc_img(mode, &count)) {
        std_boot_close_args();
        return false;
    }
    std_boot* b = getStdBoot();
    if (count == 1) {
        // A lone TOC entry carries nothing to verify the TOC with, so the TOC
        // itself is not sent.
        b->first_stage = 1;
        b->last_stage = 3;
    } else {
        // Still the raw TOC value: no stage has been built yet.
        if (toc_entry_at(b, static_cast<unsigned>(b->toc_idx_toc)).m_off == 0) {
            LOGI("ERR! invalid TOC : No info for TOC verification\n");
            std_boot_close_args();
            return false;
        }
        b->first_stage = 0;
        b->last_stage = count - 1;  // 0xFFFFFFFF for a count of 0: nothing is loaded
    }
    if (rix_args.nv_data_path[0] == '\0') {
        b->last_stage = 2;
    }
    if (mode == CP_BOOT_MODE_DUMP) {
        // The dump boot loader needs only the TOC and BOOT.
        b->last_stage = 1;
    }
    clamp_last_stage(b);
    build_std_dload_control();
    return true;
}

void BootDumpQuoll::build_std_dload_control() {
    std_boot* b = getStdBoot();
    if (b->last_stage == kNoStage) {
        return;
    }
    for (uint32_t i = 0; i < kStageSlots; i++) {
        if (i >= b->first_stage) {
            const toc_entry e = toc_entry_at(b, i);
            std_dload_control& s = b->stage[i];
            s = {};
            s.stage = i;
            s.fd = static_cast<uint32_t>(b->bin_fd);
            s.b_off = e.b_off;
            s.m_off = e.m_off & kTocModemOffsetMask;
            s.b_size = e.size;
            s.crc = e.crc;
            s.xmit_once = (static_cast<int32_t>(i) == b->toc_idx_vss &&
                           (rix_args.options & BOPT_REINIT_VSS) == 0)
                              ? 1
                              : 0;
            build_std_dload_control_nv_fd(i, i);
            LOGI("stage=%u, name:%.12s b_off=0x%08x, m_offset=0x%08x b_size=0x%08x\n", i, e.name,
                 s.b_off, s.m_off, s.b_size);
        }
        // The OFFSET entry ends the image: it and everything after it stay
        // unbuilt.
        if (i + 1 > b->last_stage || static_cast<int32_t>(i + 1) == b->toc_idx_offset) {
            break;
        }
    }
}

void BootDump::build_std_dload_control_nv_fd(unsigned stage_index, unsigned toc_index) {
    std_boot* b = getStdBoot();
    if (stage_index >= kStageSlots) {
        return;
    }
    // Widened so that no index value can pass for an absent entry (-1).
    const int64_t t = toc_index;
    if (t == b->toc_idx_nv_norm || t == b->toc_idx_nv_prot) {
        b->stage[stage_index].fd = static_cast<uint32_t>(-1);
    } else if (t == b->toc_idx_nv) {
        b->stage[stage_index].fd = static_cast<uint32_t>(b->nv_fd);
    }
}
