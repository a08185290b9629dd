#include "payload.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

// The crash scenarios compare dump and region files with these streams; streams that did not
// depend on seed, name and offset would let a daemon that writes data out of place pass.
// The generator is splitmix64: its first outputs for seed 0 are published
// reference values, so a test written in another language can rely on it.
TEST(Payload, IsSplitmix64) {
    EXPECT_EQ(payload::word_at(0, 1), 0xE220A8397B1DCDAFull);
    EXPECT_EQ(payload::word_at(0, 2), 0x6E789E6AA1B965F4ull);
    // Bytes are the words in little-endian order.
    EXPECT_EQ(payload::byte_at(0, 8), 0xAF);
    EXPECT_EQ(payload::byte_at(0, 15), 0xE2);
}

TEST(Payload, FillMatchesByteAtForAnyOffsetAndLength) {
    for (uint64_t off : {0ull, 1ull, 7ull, 8ull, 13ull, 16380ull}) {
        for (size_t len : {0u, 1u, 5u, 8u, 9u, 33u, 100u}) {
            std::vector<uint8_t> buf(len);
            payload::fill(42, off, buf.data(), len);
            for (size_t i = 0; i < len; ++i) {
                ASSERT_EQ(buf[i], payload::byte_at(42, off + i)) << off << "+" << i;
            }
        }
    }
}

TEST(Payload, StreamsDifferBySeedAndName) {
    EXPECT_NE(payload::stream_seed(1, "shmem"), payload::stream_seed(1, "vss"));
    EXPECT_NE(payload::stream_seed(1, "shmem"), payload::stream_seed(2, "shmem"));
    EXPECT_NE(payload::word_at(1, 0), payload::word_at(2, 0));
}

}  // namespace
