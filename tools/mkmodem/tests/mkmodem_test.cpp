// Partition images and NV files the boot scenarios do not build. Theirs (the default layout, a
// first part that is not TOC, counts 0 and 17, an even NV file and a corrupt one) are booted by
// the daemon and checked chunk by chunk there; the check value of a valid file, odd sizes, cut
// and erased files are only seen here.
#include <zlib.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <fstream>
#include <tuple>

#include "nv.h"
#include "payload.h"
#include "toc.h"

namespace mkmodem {
namespace {

const std::string kOut = ::testing::TempDir() + "/mkmodem-test.bin";

std::vector<uint8_t> written(const std::string& error) {
    EXPECT_EQ(error, "");
    std::ifstream in(kOut, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

std::vector<uint8_t> image_of(std::initializer_list<std::string> parts,
                              std::optional<uint32_t> count = {}) {
    ImageLayout layout;
    layout.toc_count = count;
    for (const auto& p : parts) {
        EXPECT_EQ(parse_part(p, layout.parts.emplace_back()), "") << p;
    }
    return written(write_image(layout, kOut));
}

toc_entry entry(const std::vector<uint8_t>& image, size_t i) {
    return reinterpret_cast<const toc_entry*>(image.data())[i];
}

// Top bits of a modem offset are kept and the next part follows its low 30 bits. Part bytes are
// the pattern (zeros would let the boot scenarios' memory comparison pass a chunk loaded at the
// wrong offset) and the crc32s, which the daemon does not check, cover the bytes and the table.
// On request: a part from a file, padded to its size at the given offset with the given crc; a
// TOC at modem offset 0; a 12-character name without terminator; a count of 1. Refused: what a
// TOC cannot hold.
TEST(Image, LayoutFieldsOnRequestAndRefusals) {
    auto image = image_of({"TOC", "MAIN:size=70000,m_off=0xC0200000", "VSS:size=100"});
    const toc_entry toc = entry(image, 0), main = entry(image, 1), vss = entry(image, 2);
    EXPECT_EQ(std::tie(main.m_off, vss.m_off), std::make_tuple(0xC0200000u, 0x212000u));
    for (uint32_t i : {0u, 1u, 63487u, 69999u}) {
        EXPECT_EQ(image[main.b_off + i], payload::byte_at(payload::stream_seed(0, "MAIN"), i)) << i;
    }
    EXPECT_EQ(main.crc, crc32(0, image.data() + main.b_off, main.size));
    std::memset(image.data() + offsetof(toc_entry, crc), 0, 4);
    EXPECT_EQ(toc.crc, crc32(0, image.data(), kTocSize));

    const std::string file = ::testing::TempDir() + "/mkmodem-test.part";
    std::ofstream(file) << "hello";
    image = image_of(
        {"BOOT:file=" + file + ",size=8,b_off=0x800,crc=7", "TOC:m_off=0", "ABCDEFGHIJKL:size=1"},
        1);
    const toc_entry boot = entry(image, 0), toc0 = entry(image, 1), twelve = entry(image, 2);
    EXPECT_EQ(std::string(boot.name, 5), std::string("BOOT\0", 5));
    EXPECT_EQ(std::tie(boot.toc_count, boot.b_off, boot.crc, toc0.m_off, twelve.b_off),
              std::make_tuple(1u, 0x800u, 7u, 0u, 0x1000u));
    EXPECT_EQ(std::string(image.begin() + 0x800, image.begin() + 0x808),
              std::string("hello\0\0\0", 8));
    EXPECT_EQ(std::memcmp(twelve.name, "ABCDEFGHIJKL", 12), 0);
    for (const char* text : {"", "ABCDEFGHIJKLM", "BOOT:size=-1", "BOOT:size=0x100000000",
                             "BOOT:colour=1", "BOOT:size"}) {
        PartLayout p;
        EXPECT_NE(parse_part(text, p), "") << text;
    }
    ImageLayout too_many, beyond_4g;
    too_many.parts.resize(17, PartLayout{"X", 1u, {}, {}, {}, ""});
    beyond_4g.parts = {PartLayout{"BOOT", 0x2000u, 0xFFFFF000u, {}, {}, ""}};
    EXPECT_NE(write_image(too_many, kOut), "");
    EXPECT_NE(write_image(beyond_4g, kOut), "");
}

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
    // TotalSize, corrupt, file_size; the file's size, check value minus sum (-1: none written)
    const std::tuple<uint32_t, bool, std::optional<uint64_t>, size_t, int> rows[] = {
        {3, false, {}, 22, 0}, {1000, true, {}, 1018, 1}, {1000, false, 17, 17, -1}};
    for (const auto& [total, corrupt, cut, size, delta] : rows) {
        NvLayout layout{.total_size = total, .corrupt = corrupt, .file_size = cut};
        const auto f = written(write_nv(layout, kOut));
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
    EXPECT_EQ(
        written(write_nv(NvLayout{.erased = true, .erased_size = 4096, .file_size = {}}, kOut)),
        std::vector<uint8_t>(4096, 0xFF));
}

}  // namespace
}  // namespace mkmodem
