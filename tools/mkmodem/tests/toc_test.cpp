// Partition images the boot scenarios do not build. Theirs (the default layout, a first part
// that is not TOC, counts 0 and 17) are booted by the daemon and checked chunk by chunk there.
#include "toc.h"

#include <zlib.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <fstream>
#include <vector>

#include "payload.h"

namespace mkmodem {
namespace {

// Writes an image of `parts` and returns its bytes.
std::vector<uint8_t> image_of(std::initializer_list<std::string> parts,
                              std::optional<uint32_t> count = {}) {
    ImageLayout layout;
    for (const auto& p : parts) {
        PartLayout part;
        EXPECT_EQ(parse_part(p, part), "") << p;
        layout.parts.push_back(part);
    }
    layout.toc_count = count;
    const std::string path = ::testing::TempDir() + "/mkmodem-toc-test.bin";
    EXPECT_EQ(write_image(layout, path), "");
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

toc_entry entry(const std::vector<uint8_t>& image, size_t i) {
    toc_entry e{};
    std::memcpy(&e, image.data() + i * sizeof(e), sizeof(e));
    return e;
}

// Top bits of a modem offset are kept and the next part follows its low 30 bits. Part bytes are
// the pattern (zeros would let the boot scenarios' memory comparison pass a chunk loaded at the
// wrong offset) and the crc32s, which the daemon does not check, cover the bytes and the table.
TEST(Image, TopBitsOfModemOffsetsPatternAndCrcs) {
    auto image = image_of({"TOC", "MAIN:size=70000,m_off=0xC0200000", "VSS:size=100"});
    const toc_entry toc = entry(image, 0), main = entry(image, 1), vss = entry(image, 2);
    EXPECT_EQ(main.m_off, 0xC0200000u);
    EXPECT_EQ(vss.m_off, 0x200000u + 0x12000u);
    const uint64_t seed = payload::stream_seed(0, "MAIN");
    for (uint32_t i : {0u, 1u, 63487u, 69999u}) {
        EXPECT_EQ(image[main.b_off + i], payload::byte_at(seed, i)) << i;
    }
    EXPECT_EQ(main.crc, crc32(0, image.data() + main.b_off, main.size));
    std::memset(image.data() + offsetof(toc_entry, crc), 0, 4);
    EXPECT_EQ(toc.crc, crc32(0, image.data(), kTocSize));
}

// A part from a file, padded to its size at the given offset with the given crc; a TOC at modem
// offset 0; a 12-character name without terminator; a count of 1.
TEST(Image, ExplicitFieldsAndBrokenTablesOnRequest) {
    const std::string file = ::testing::TempDir() + "/mkmodem-toc-test.part";
    std::ofstream(file) << "hello";
    const auto image = image_of(
        {"BOOT:file=" + file + ",size=8,b_off=0x800,crc=7", "TOC:m_off=0", "ABCDEFGHIJKL:size=1"},
        1);
    const toc_entry boot = entry(image, 0), toc = entry(image, 1), twelve = entry(image, 2);
    EXPECT_EQ(std::string(boot.name, 5), std::string("BOOT\0", 5));
    EXPECT_EQ(boot.toc_count, 1u);
    EXPECT_EQ(boot.b_off, 0x800u);
    EXPECT_EQ(boot.crc, 7u);
    EXPECT_EQ(std::string(image.begin() + 0x800, image.begin() + 0x808),
              std::string("hello\0\0\0", 8));
    EXPECT_EQ(toc.m_off, 0u);
    EXPECT_EQ(std::memcmp(twelve.name, "ABCDEFGHIJKL", 12), 0);
    EXPECT_EQ(twelve.b_off, 0x1000u) << "after BOOT, aligned";
}

TEST(Image, RefusesWhatATocCannotHold) {
    for (const char* text : {"", "ABCDEFGHIJKLM", "BOOT:size=-1", "BOOT:size=0x100000000",
                             "BOOT:colour=1", "BOOT:size"}) {
        PartLayout p;
        EXPECT_NE(parse_part(text, p), "") << text;
    }
    const std::string path = ::testing::TempDir() + "/mkmodem-toc-test.bin";
    ImageLayout too_many;
    too_many.parts.resize(17, PartLayout{"X", 1u, {}, {}, {}, ""});
    EXPECT_NE(write_image(too_many, path), "");
    ImageLayout beyond_4g;
    beyond_4g.parts = {PartLayout{"BOOT", 0x2000u, 0xFFFFF000u, {}, {}, ""}};
    EXPECT_NE(write_image(beyond_4g, path), "");
}

}  // namespace
}  // namespace mkmodem
