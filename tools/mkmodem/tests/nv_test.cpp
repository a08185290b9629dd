#include "nv.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <vector>

#include "payload.h"

namespace mkmodem {
namespace {

uint16_t checksum_of(std::initializer_list<uint8_t> data) {
    std::vector<uint8_t> v(data);
    NvChecksum c;
    c.add(v.data(), v.size());
    return c.value();
}

TEST(NvChecksum, WordsAndTheOddLastByte) {
    EXPECT_EQ(checksum_of({}), 0);
    EXPECT_EQ(checksum_of({0x01, 0x02}), 0x0201);
    // TotalSize 3: one word plus 0xFF00 | last byte.
    EXPECT_EQ(checksum_of({0x01, 0x02, 0x03}), static_cast<uint16_t>(0x0201 + 0xFF03));
    // Wrap-around.
    EXPECT_EQ(checksum_of({0xFF, 0xFF, 0x02, 0x00}), 0x0001);
}

TEST(NvChecksum, PiecesOfAnyLengthGiveTheSameSum) {
    std::vector<uint8_t> data(1001);
    payload::fill(9, 0, data.data(), data.size());
    NvChecksum whole, pieces;
    whole.add(data.data(), data.size());
    for (size_t off = 0; off < data.size(); off += 7) {
        pieces.add(data.data() + off, std::min<size_t>(7, data.size() - off));
    }
    EXPECT_EQ(whole.value(), pieces.value());
}

class NvFileTest : public ::testing::Test {
  protected:
    std::vector<uint8_t> write(const NvSpec& req) {
        std::string path = ::testing::TempDir() + "/nv_test.bin";
        EXPECT_EQ(write_nv(req, path), "");
        std::ifstream in(path, std::ios::binary);
        return std::vector<uint8_t>((std::istreambuf_iterator<char>(in)), {});
    }
    static uint32_t u32(const std::vector<uint8_t>& f, size_t off) {
        uint32_t v;
        std::memcpy(&v, f.data() + off, 4);
        return v;
    }
    static uint16_t u16(const std::vector<uint8_t>& f, size_t off) {
        uint16_t v;
        std::memcpy(&v, f.data() + off, 2);
        return v;
    }
};

TEST_F(NvFileTest, OddTotalSizeHasPadAndValidCheck) {
    NvSpec req;
    req.total_size = 3;
    auto f = write(req);
    ASSERT_EQ(f.size(), 22u);  // 16 + 3 + pad + 2
    EXPECT_EQ(u32(f, 8), 3u);
    EXPECT_EQ(nv_checksum_offset(3), 20u);
    uint16_t expect = static_cast<uint16_t>((f[16] | (f[17] << 8)) + (0xFF00 | f[18]));
    EXPECT_EQ(u16(f, 20), expect);
}

TEST_F(NvFileTest, EvenSizeCorruptAndCut) {
    NvSpec req;
    req.total_size = 1000;
    auto good = write(req);
    ASSERT_EQ(good.size(), 16u + 1000 + 2);
    NvChecksum c;
    c.add(good.data() + 16, 1000);
    EXPECT_EQ(u16(good, 1016), c.value());

    req.corrupt = true;
    auto bad = write(req);
    EXPECT_NE(u16(bad, 1016), c.value());
    EXPECT_TRUE(std::equal(good.begin(), good.begin() + 1016, bad.begin()));

    req.corrupt = false;
    req.file_size = 17;  // TotalSize says more than the file holds
    EXPECT_EQ(write(req).size(), 17u);
}

TEST_F(NvFileTest, ErasedDefaultFile) {
    NvSpec req;
    req.erased = true;
    req.erased_size = 4096;
    auto f = write(req);
    ASSERT_EQ(f.size(), 4096u);
    EXPECT_EQ(u32(f, 8), kNvDefaultTotalSize);
    EXPECT_TRUE(std::all_of(f.begin(), f.end(), [](uint8_t b) { return b == 0xFF; }));
}

}  // namespace
}  // namespace mkmodem
