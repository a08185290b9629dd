// The modem's NV data file: a 16-byte header, TotalSize data bytes, a pad
// byte when TotalSize is odd, and a 16-bit little-endian check value.
#pragma once

#include <cstddef>
#include <cstdint>

struct NV_header {
    uint32_t unused0[2];
    uint32_t TotalSize;  // data bytes; 0xFFFFFFFF while the file is erased
    uint32_t unused1;
};
static_assert(sizeof(NV_header) == 16);
static_assert(offsetof(NV_header, TotalSize) == 8);

// TotalSize of a file that was never written (all bytes 0xFF).
inline constexpr uint32_t kNvDefaultTotalSize = 0xFFFFFFFF;
// Larger files are never checked.
inline constexpr size_t kNvMaxFileSize = 0x100000;

// True when the n bytes at data hold a valid NV image or a default one.
bool CsumCheckForData(const uint8_t* data, size_t n);

// True when the file at path holds a valid NV image or a default one.
bool CsumCheckForFile(const char* path);
