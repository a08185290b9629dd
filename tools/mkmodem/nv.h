// The NV data file: a 16-byte header whose TotalSize (offset 8) counts the
// data bytes, the data, one pad byte when TotalSize is odd, and a 16-bit
// little-endian check value: the wrap-around sum of the data's 16-bit
// little-endian words, an odd last byte counting as 0xFF00 | byte.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace mkmodem {

inline constexpr size_t kNvHeaderSize = 16;
inline constexpr size_t kNvTotalSizeOffset = 8;
inline constexpr uint32_t kNvDefaultTotalSize = 0xFFFFFFFF;

// The check value, fed in pieces of any length.
class NvChecksum {
  public:
    void add(const uint8_t* data, size_t len);
    uint16_t value() const;

  private:
    uint16_t sum_ = 0;
    bool have_low_ = false;
    uint8_t low_ = 0;
};

struct NvLayout {
    uint32_t total_size = 0;            // data bytes
    std::string seed_name = "NV";       // pattern stream of the data
    bool erased = false;                // all 0xFF: the default file
    uint32_t erased_size = 0;           // file size of the default file
    bool corrupt = false;               // stored check value off by one
    std::optional<uint64_t> file_size;  // cut or extend the file afterwards
};

// File offset of the check value for a given TotalSize.
constexpr uint64_t nv_checksum_offset(uint32_t total_size) {
    return kNvHeaderSize + uint64_t{total_size} + (total_size & 1);
}

// Writes the NV file; returns "" or the reason.
std::string write_nv(const NvLayout& req, const std::string& path);

}  // namespace mkmodem
