// Deterministic content of everything the virtual modem uploads (dump
// payload, log regions) and of the parts that mkmodem writes by default.
//
// Generator: the byte at offset `off` of a stream with seed `seed` is byte
// (off % 8) (little-endian) of splitmix64_mix(seed + (off / 8) * kGamma).
// It is counter based, so any byte can be computed on its own and a test can
// regenerate a whole dump file, or any part of it, byte by byte.
//
// Seeds: a dump uses the scenario's dump_seed directly; a log region uses
// stream_seed(dump_seed, region name); an image part written by mkmodem uses
// stream_seed(0, part name).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace payload {

inline constexpr uint64_t kGamma = 0x9E3779B97F4A7C15ull;

// The splitmix64 output function.
constexpr uint64_t mix(uint64_t z) {
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

constexpr uint64_t word_at(uint64_t seed, uint64_t index) {
    return mix(seed + index * kGamma);
}

constexpr uint8_t byte_at(uint64_t seed, uint64_t off) {
    return static_cast<uint8_t>(word_at(seed, off / 8) >> ((off % 8) * 8));
}

// FNV-1a of a name, mixed into a base seed: one independent stream per name.
constexpr uint64_t stream_seed(uint64_t base, std::string_view name) {
    uint64_t h = 0xCBF29CE484222325ull;
    for (char c : name) {
        h = (h ^ static_cast<uint8_t>(c)) * 0x100000001B3ull;
    }
    return mix(base ^ h);
}

// Fills dst with bytes off .. off+n-1 of the stream.
inline void fill(uint64_t seed, uint64_t off, uint8_t* dst, size_t n) {
    while (n > 0 && off % 8 != 0) {
        *dst++ = byte_at(seed, off++);
        --n;
    }
    uint64_t index = off / 8;
    while (n >= 8) {
        uint64_t w = word_at(seed, index++);
        std::memcpy(dst, &w, 8);  // little-endian host
        dst += 8;
        n -= 8;
    }
    off = index * 8;
    while (n > 0) {
        *dst++ = byte_at(seed, off++);
        --n;
    }
}

}  // namespace payload
