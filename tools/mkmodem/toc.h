// The modem partition image: a 512-byte table of contents (16 entries of 32
// bytes) followed by the parts it names, and the writer that lays one out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "boot/toc.h"

namespace mkmodem {

// The layout is the daemon's own reading of the partition.
using ::kTocSize;
using ::toc_entry;
inline constexpr size_t kTocEntries = ::kTocEntries;
inline constexpr size_t kNameSize = kTocNameLen;

// One part as asked for on the command line; unset fields get defaults.
struct PartLayout {
    std::string name;
    std::optional<uint32_t> size, b_off, m_off, crc;
    std::string file;  // contents; default: the pattern of payload.h
};

struct ImageLayout {
    std::vector<PartLayout> parts;
    std::optional<uint32_t> toc_count;  // default: number of parts
    uint32_t align = 0x1000;
    uint32_t m_base = 0x1000;
};

// Parses "NAME[:key=value,...]" with keys size, b_off, m_off, crc, file.
// Returns "" or the reason.
std::string parse_part(const std::string& text, PartLayout& out);

// Fills in the defaults and returns the 16 entries; "" or the reason in err.
std::vector<toc_entry> layout(ImageLayout& req, std::string& err);

// Writes the image to path, streaming each part. Returns "" or the reason.
std::string write_image(ImageLayout req, const std::string& path);

// True for parts whose bytes are not in the partition (the NV data and the
// TOC itself, which is the table).
bool outside_partition(const std::string& name);

}  // namespace mkmodem
