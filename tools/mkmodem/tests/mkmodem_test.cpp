// What the boot scenarios rely on in the images and NV files mkmodem builds but cannot see
// through the daemon. Their layouts (the default one, a first part that is not TOC, counts 0 and
// 17, an even NV file and a corrupt one) are booted by the daemon and checked chunk by chunk
// there; fields, crcs and files no scenario uses are left to `mkmodem show`.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <tuple>

#include "nv.h"
#include "payload.h"
#include "toc.h"

namespace mkmodem {
namespace {

// The file at `path` after a write that returned `error`; each test has its own (ctest runs
// them in parallel).
std::vector<uint8_t> written(const std::string& path, const std::string& error) {
    EXPECT_EQ(error, "");
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// Top bits of a modem offset are kept (the daemon masks them) and the next part follows its low
// 30 bits. Part bytes are the pattern: zeros would let the boot scenarios' memory comparison
// pass a chunk loaded at the wrong offset.
TEST(Image, TopBitsOfModemOffsetsAndThePattern) {
    ImageLayout layout;
    for (const char* p : {"TOC", "MAIN:size=70000,m_off=0xC0200000", "VSS:size=100"}) {
        EXPECT_EQ(parse_part(p, layout.parts.emplace_back()), "") << p;
    }
    const std::string path = ::testing::TempDir() + "/mkmodem-test.img";
    const auto image = written(path, write_image(layout, path));
    const auto* toc = reinterpret_cast<const toc_entry*>(image.data());
    EXPECT_EQ(std::tie(toc[1].m_off, toc[2].m_off), std::make_tuple(0xC0200000u, 0x212000u));
    for (uint32_t i : {0u, 1u, 63487u, 69999u}) {
        EXPECT_EQ(image[toc[1].b_off + i], payload::byte_at(payload::stream_seed(0, "MAIN"), i));
    }
}

// The file: header with TotalSize, the pattern data (zeros would make the boot scenarios'
// comparison of NV bytes in modem memory vacuous), a 0xFF pad for an odd size, then the check
// value, the 16-bit sum of the words with an odd last byte counted with 0xFF (one more with
// corrupt). 0x10001 bytes span two of mkmodem's write pieces.
TEST(Nv, CheckValueAndFileLayout) {
    const std::string path = ::testing::TempDir() + "/mkmodem-test.nv";
    for (const auto& [total, corrupt] : {std::pair{3u, false}, std::pair{0x10001u, true}}) {
        const auto f = written(
            path, write_nv({.total_size = total, .corrupt = corrupt, .file_size = {}}, path));
        const size_t at = nv_checksum_offset(total);
        ASSERT_EQ(f.size(), at + 2);
        EXPECT_EQ(*reinterpret_cast<const uint32_t*>(f.data() + kNvTotalSizeOffset), total);
        EXPECT_EQ(f[kNvHeaderSize], payload::byte_at(payload::stream_seed(0, "NV"), 0));
        EXPECT_TRUE(total % 2 == 0 || f[at - 1] == 0xFF) << "pad of an odd TotalSize";
        uint16_t sum = corrupt;
        for (size_t i = kNvHeaderSize; i < at; i += 2) {
            sum = static_cast<uint16_t>(sum + (f[i] | f[i + 1] << 8));
        }
        EXPECT_EQ(f[at] | f[at + 1] << 8, sum) << total;
    }
}

}  // namespace
}  // namespace mkmodem
