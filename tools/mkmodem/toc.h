// The modem partition image: a 512-byte table of contents (16 entries of 32
// bytes) followed by the parts it names, and the writer that lays one out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace mkmodem {

inline constexpr size_t kTocEntries = 16;
inline constexpr size_t kTocSize = 512;
inline constexpr size_t kNameSize = 12;

struct toc_entry {
    char name[kNameSize];  // NUL-terminated unless all 12 bytes are used
    uint32_t b_off;        // offset in the partition (for NV: in the NV file)
    uint32_t m_off;        // offset in modem memory; the top two bits are ignored
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

// One part as asked for on the command line; unset fields get defaults.
struct PartSpec {
    std::string name;
    std::optional<uint32_t> size, b_off, m_off, crc;
    std::string file;  // contents; default: the pattern of payload.h
};

struct ImageSpec {
    std::vector<PartSpec> parts;
    std::optional<uint32_t> toc_count;  // default: number of parts
    uint32_t align = 0x1000;
    uint32_t m_base = 0x1000;
};

// Parses "NAME[:key=value,...]" with keys size, b_off, m_off, crc, file.
// Returns "" or the reason.
std::string parse_part(const std::string& text, PartSpec& out);

// Fills in the defaults and returns the 16 entries; "" or the reason in err.
std::vector<toc_entry> layout(ImageSpec& spec, std::string& err);

// Writes the image to path, streaming each part. Returns "" or the reason.
std::string write_image(ImageSpec spec, const std::string& path);

// True for parts whose bytes are not in the partition (the NV data and the
// TOC itself, which is the table).
bool outside_partition(const std::string& name);

}  // namespace mkmodem
