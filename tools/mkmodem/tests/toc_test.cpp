#include "toc.h"

#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <vector>

#include "payload.h"

namespace mkmodem {
namespace {

class ImageTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/mkmodem-test-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override {
        std::string cmd = "rm -rf '" + dir_ + "'";
        // A mkdtemp directory: no outside text reaches the shell.
        EXPECT_EQ(system(cmd.c_str()), 0);  // NOLINT(cert-env33-c)
    }

    ImageSpec req(std::initializer_list<const char*> parts) {
        ImageSpec s;
        for (const char* p : parts) {
            PartSpec part;
            EXPECT_EQ(parse_part(p, part), "") << p;
            s.parts.push_back(part);
        }
        return s;
    }

    std::vector<uint8_t> bytes(const std::string& path) {
        std::ifstream in(path, std::ios::binary);
        return std::vector<uint8_t>((std::istreambuf_iterator<char>(in)), {});
    }

    std::vector<toc_entry> toc_of(const std::vector<uint8_t>& image) {
        std::vector<toc_entry> toc(kTocEntries);
        std::memcpy(toc.data(), image.data(), kTocSize);
        return toc;
    }

    std::string dir_;
};

TEST_F(ImageTest, DefaultLayoutStreamsPatternPartsAfterTheToc) {
    std::string path = dir_ + "/modem.bin";
    ASSERT_EQ(write_image(req({"TOC", "BOOT:size=5000", "MAIN:size=70000,m_off=0xC0200000",
                               "VSS:size=100", "NV:size=0x8000"}),
                          path),
              "");
    auto image = bytes(path);
    auto toc = toc_of(image);
    EXPECT_STREQ(toc[0].name, "TOC");
    EXPECT_EQ(toc[0].toc_count, 5u);
    EXPECT_EQ(toc[0].b_off, 0u);
    EXPECT_EQ(toc[0].size, 512u);
    EXPECT_EQ(toc[0].m_off, 0x1000u);  // non-zero: the TOC can be verified
    EXPECT_EQ(toc[1].b_off, 0x1000u);
    EXPECT_EQ(toc[1].m_off, 0x2000u);
    EXPECT_EQ(toc[2].b_off, 0x3000u);  // 0x1000 + 5000 rounded up
    EXPECT_EQ(toc[2].m_off, 0xC0200000u);
    EXPECT_EQ(toc[3].m_off, 0x200000u + 0x12000u);  // after MAIN's low 30 bits
    EXPECT_EQ(toc[4].b_off, 0u);                    // NV: offset in the NV file
    EXPECT_EQ(toc[4].size, 0x8000u);
    for (int i = 5; i < 16; ++i) {
        EXPECT_EQ(toc[i].name[0], '\0');
    }
    // Part bytes follow the documented pattern and carry their crc32.
    ASSERT_EQ(image.size(), toc[3].b_off + 100u);  // NV adds nothing to the partition
    uint64_t seed = payload::stream_seed(0, "MAIN");
    for (uint32_t i : {0u, 1u, 63487u, 69999u}) {
        EXPECT_EQ(image[toc[2].b_off + i], payload::byte_at(seed, i)) << i;
    }
    EXPECT_EQ(toc[2].crc, crc32(0, image.data() + toc[2].b_off, toc[2].size));
}

TEST_F(ImageTest, PartFromFileIsPaddedToItsSize) {
    std::string part = dir_ + "/boot.img";
    std::ofstream(part) << "hello";
    std::string path = dir_ + "/modem.bin";
    ASSERT_EQ(write_image(req({("BOOT:file=" + part + ",size=8,b_off=0x800,crc=7").c_str()}), path),
              "");
    auto image = bytes(path);
    auto toc = toc_of(image);
    EXPECT_EQ(toc[0].b_off, 0x800u);
    EXPECT_EQ(toc[0].crc, 7u);
    EXPECT_EQ(std::string(image.begin() + 0x800, image.begin() + 0x808),
              std::string("hello\0\0\0", 8));
}

TEST_F(ImageTest, BrokenTocsOnRequest) {
    std::string path = dir_ + "/bad.bin";
    ImageSpec s = req({"BOOT:size=1", "TOC:m_off=0", "ABCDEFGHIJKL:size=1"});
    s.toc_count = 17;
    ASSERT_EQ(write_image(s, path), "");
    auto toc = toc_of(bytes(path));
    EXPECT_EQ(std::string(toc[0].name, 4), std::string("BOOT", 4));  // wrong first name
    EXPECT_EQ(toc[0].toc_count, 17u);
    EXPECT_EQ(toc[1].m_off, 0u);
    EXPECT_EQ(std::memcmp(toc[2].name, "ABCDEFGHIJKL", 12), 0);  // no terminator
    EXPECT_EQ(toc[2].b_off, 0x2000u);  // the unterminated name runs into b_off

    PartSpec p;
    EXPECT_NE(parse_part("ABCDEFGHIJKLM", p), "");
    EXPECT_NE(parse_part("BOOT:size=-1", p), "");
    EXPECT_NE(parse_part("BOOT:colour=1", p), "");
    ImageSpec too_many;
    too_many.parts.resize(17, PartSpec{"X", 1u, {}, {}, {}, ""});
    EXPECT_NE(write_image(too_many, path), "");
}

}  // namespace
}  // namespace mkmodem
