// The table of contents (TOC) in the first 512 bytes of the modem partition:
// 16 entries that name the parts of the firmware, where each lies in the
// partition and where it goes in modem memory.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "core/rix.h"

// The partition is written little-endian and the entries are read in place.
static_assert(std::endian::native == std::endian::little);

inline constexpr size_t kTocNameLen = 12;
inline constexpr unsigned kTocEntries = 16;
// Only the low 30 bits of a TOC m_off address modem memory.
inline constexpr uint32_t kTocModemOffsetMask = 0x3FFFFFFF;
// last_stage value that means "load nothing" (a TOC count of 0).
inline constexpr uint32_t kNoStage = 0xFFFFFFFF;

struct toc_entry {
    char name[kTocNameLen];  // NUL-terminated unless all 12 bytes are used
    uint32_t b_off;          // offset in the partition (NV: in the NV data file)
    uint32_t m_off;          // offset in modem memory, top two bits not used
    uint32_t size;
    uint32_t crc;
    uint32_t toc_count;  // entry 0 only: number of entries
};
static_assert(sizeof(toc_entry) == 32);
static_assert(offsetof(toc_entry, name) == 0);
static_assert(offsetof(toc_entry, b_off) == 12);
static_assert(offsetof(toc_entry, m_off) == 16);
static_assert(offsetof(toc_entry, size) == 20);
static_assert(offsetof(toc_entry, crc) == 24);
static_assert(offsetof(toc_entry, toc_count) == 28);
static_assert(sizeof(toc_entry) * kTocEntries == kTocSize);

// Entry `index` of the TOC held in a boot record; index must be below
// kTocEntries.
inline toc_entry toc_entry_at(const std_boot* b, unsigned index) {
    toc_entry e;
    memcpy(&e, b->toc + index * sizeof(toc_entry), sizeof(e));
    return e;
}

// True when the entry's name is exactly `name`; a 12-byte name without NUL
// never matches and is never read past.
inline bool toc_name_is(const toc_entry& e, const char* name) {
    return strncmp(e.name, name, kTocNameLen) == 0;
}
