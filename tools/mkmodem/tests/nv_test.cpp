// NV files. The boot scenarios boot an even-sized file without checking it and send a corrupt
// one to the daemon's check; the check value of a valid file, odd sizes, cut and erased files
// are only seen here.
#include "nv.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <tuple>
#include <vector>

#include "payload.h"

namespace mkmodem {
namespace {

TEST(NvChecksum, WordsAndTheOddLastByteWrapInPiecesOfAnyLength) {
    const std::pair<std::vector<uint8_t>, uint16_t> rows[] = {
        {{}, 0},
        {{0x01, 0x02}, 0x0201},
        {{0x01, 0x02, 0x03}, static_cast<uint16_t>(0x0201 + 0xFF03)},
        {{0xFF, 0xFF, 0x02, 0x00}, 0x0001}};
    for (const auto& [data, sum] : rows) {
        for (size_t piece : {1, 3, 64}) {
            NvChecksum c;
            for (size_t off = 0; off < data.size(); off += piece) {
                c.add(data.data() + off, std::min(piece, data.size() - off));
            }
            EXPECT_EQ(c.value(), sum) << data.size() << " bytes in pieces of " << piece;
        }
    }
}

// Header with TotalSize, the pattern data (zeros would make the boot scenarios' comparison of
// NV bytes in modem memory vacuous), a 0xFF pad for an odd size, then the check value (one more
// with corrupt); file_size cuts the file; erased is all 0xFF.
TEST(NvFile, LayoutOfEveryKind) {
    const std::string path = ::testing::TempDir() + "/mkmodem-nv-test.bin";
    auto written = [&](const NvLayout& layout) {
        EXPECT_EQ(write_nv(layout, path), "");
        std::ifstream in(path, std::ios::binary);
        return std::vector<uint8_t>{std::istreambuf_iterator<char>(in), {}};
    };
    // TotalSize, corrupt, file_size; the file's size, check value minus sum (-1: none written)
    const std::tuple<uint32_t, bool, std::optional<uint64_t>, size_t, int> rows[] = {
        {3, false, {}, 22, 0}, {1000, true, {}, 1018, 1}, {1000, false, 17, 17, -1}};
    for (const auto& [total, corrupt, cut, size, delta] : rows) {
        NvLayout layout;
        layout.total_size = total;
        layout.corrupt = corrupt;
        layout.file_size = cut;
        const auto f = written(layout);
        ASSERT_EQ(f.size(), size) << total;
        uint32_t stored_total = 0;
        std::memcpy(&stored_total, f.data() + kNvTotalSizeOffset, 4);
        EXPECT_EQ(stored_total, total);
        EXPECT_EQ(f[16], payload::byte_at(payload::stream_seed(0, "NV"), 0));
        if (delta >= 0) {
            NvChecksum c;
            c.add(f.data() + kNvHeaderSize, total);
            const size_t at = nv_checksum_offset(total);
            ASSERT_EQ(at, size - 2);
            EXPECT_EQ(f[at] | f[at + 1] << 8, static_cast<uint16_t>(c.value() + delta)) << total;
            EXPECT_TRUE(total % 2 == 0 || f[at - 1] == 0xFF) << "pad of an odd TotalSize";
        }
    }
    NvLayout erased;
    erased.erased = true;
    erased.erased_size = 4096;
    EXPECT_EQ(written(erased), std::vector<uint8_t>(4096, 0xFF));
}

}  // namespace
}  // namespace mkmodem
