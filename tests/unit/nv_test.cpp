// The NV data file: its check value, opening it or creating an erased one,
// and the hex and upper-case text helpers.
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "boot/nv.h"
#include "core/util.h"
#include "rix_test.h"

namespace {

constexpr char kNvPath[] = "/mnt/vendor/efs/nv_data.bin";
constexpr char kSmallDir[] = "/mnt/vendor/small";

void put32(std::string& s, size_t at, uint32_t v) {
    for (int k = 0; k < 4; k++) {
        s[at + k] = static_cast<char>(v >> (8 * k));
    }
}

// An NV image: header with TotalSize, the data, the pad byte when the size
// is odd, and the given 16-bit check value.
std::string nv_image(uint32_t total, const std::string& data, uint16_t check, char pad = '\xAA') {
    std::string nv(16, '\0');
    put32(nv, 8, total);
    nv += data;
    if (total % 2 != 0) {
        nv += pad;
    }
    nv += static_cast<char>(check & 0xFF);
    nv += static_cast<char>(check >> 8);
    return nv;
}

bool data_check(const std::string& bytes) {
    return CsumCheckForData(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
}

void write_file(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

int open_descriptors() {
    int n = 0;
    for ([[maybe_unused]] const auto& e : std::filesystem::directory_iterator("/proc/self/fd")) {
        n++;
    }
    return n;
}

class NvTest : public RixTest {
  protected:
    void SetUp() override {
        RixTest::SetUp();
        std::filesystem::create_directories("/mnt/vendor/efs");
        old_mask_ = umask(002);
    }
    void TearDown() override {
        umount2(kSmallDir, MNT_DETACH);
        umask(old_mask_);
        RixTest::TearDown();
    }
    bool contains(const std::string& text) const { return kmsg().find(text) != std::string::npos; }
    // A file system with room for one 4 KiB page.
    void mount_small() {
        std::filesystem::create_directories(kSmallDir);
        ASSERT_EQ(mount("tmpfs", kSmallDir, "tmpfs", 0, "size=4k"), 0);
    }

    mode_t old_mask_ = 0;
};

TEST_F(NvTest, ByteToHexIsBoundedByTheDestination) {
    char src[512];
    for (int i = 0; i < 512; i++) {
        src[i] = static_cast<char>(i);
    }
    // 96 bytes hold 32 source bytes: 95 characters and a NUL.
    char dst[97];
    memset(dst, 'x', sizeof(dst));
    Util::byteToHex(dst, 96, src, sizeof(src));
    EXPECT_EQ(strlen(dst), 95u);
    EXPECT_STREQ(dst,
                 "00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10 11 12 13 14 15 16 17 18 19 1A "
                 "1B 1C 1D 1E 1F");
    EXPECT_EQ(dst[96], 'x');

    // The source length bounds it too; upper-case digits for high bytes.
    char hi[] = {'\xAB', '\xff', '\x0c'};
    char small[16];
    memset(small, 'x', sizeof(small));
    Util::byteToHex(small, sizeof(small), hi, 2);
    EXPECT_STREQ(small, "AB FF");
    EXPECT_EQ(small[7], 'x');

    // A destination of exactly three bytes per source byte.
    memset(small, 'x', sizeof(small));
    Util::byteToHex(small, 6, hi, 3);
    EXPECT_STREQ(small, "AB FF");
    EXPECT_EQ(small[6], 'x');

    // Nothing to render: the destination is not touched.
    memset(small, 'x', sizeof(small));
    Util::byteToHex(small, 2, hi, 3);
    Util::byteToHex(small, sizeof(small), hi, 0);
    Util::byteToHex(small, sizeof(small), nullptr, 3);
    Util::byteToHex(nullptr, sizeof(small), hi, 3);
    EXPECT_EQ(small[0], 'x');
}

TEST_F(NvTest, ToUpperCaseWritesNoTerminator) {
    char dst[8];
    memset(dst, 'x', sizeof(dst));
    char umts[] = "umts";
    Util::toUpperCase(umts, dst);
    EXPECT_EQ(std::string(dst, 8), "UMTSxxxx");

    char mixed[] = "aZ`{-z9";
    char out[8] = {};
    Util::toUpperCase(mixed, out);
    EXPECT_STREQ(out, "AZ`{-Z9");
}

TEST_F(NvTest, DataCheckSumsLittleEndianWords) {
    // No data: an empty sum, check value 0.
    EXPECT_TRUE(data_check(nv_image(0, "", 0)));
    EXPECT_EQ(nv_image(0, "", 0).size(), 18u);

    // Odd size: 0x0201 + (0xFF00 | 0x03) = 0x10104, kept as 0x0104, read
    // after the pad byte, whose value is not used.
    std::string odd = nv_image(3, "\x01\x02\x03", 0x0104, '\x77');
    EXPECT_EQ(odd.size(), 22u);
    EXPECT_EQ(odd[20], '\x04');
    EXPECT_TRUE(data_check(odd));

    // The sum wraps at 16 bits: 0xFFFF + 0x0002.
    EXPECT_TRUE(data_check(nv_image(4, std::string("\xff\xff\x02\x00", 4), 0x0001)));
    EXPECT_EQ(kmsg(), "");

    // A wrong check value.
    EXPECT_FALSE(data_check(nv_image(3, "\x01\x02\x03", 0x0103)));
    EXPECT_EQ(kmsg(), "<6>cpif: rix: CsumCheckForData: Check sum Error\n");
}

TEST_F(NvTest, DataCheckRefusesWhatDoesNotFit) {
    // Shorter than the header.
    EXPECT_FALSE(data_check(std::string(15, '\0')));
    EXPECT_EQ(kmsg(), "<6>cpif: rix: CsumCheckForData: Invalid NV data");

    // More data announced than there are bytes.
    clear_logs();
    std::string short_file(17, '\0');
    put32(short_file, 8, 0x20);
    EXPECT_FALSE(data_check(short_file));
    EXPECT_EQ(kmsg(),
              "<6>cpif: rix: CsumCheckForData: NV Size Error! NV_header->TotalSize:32, "
              "nvSize:17\n");

    // The data fits but its check value does not.
    clear_logs();
    std::string no_check = nv_image(4, "abcd", 0);
    no_check.pop_back();
    EXPECT_FALSE(data_check(no_check));
    EXPECT_EQ(kmsg(),
              "<6>cpif: rix: CsumCheckForData: NV Size Error! NV_header->TotalSize:4, "
              "nvSize:21\n");
    clear_logs();
    std::string odd_no_check = nv_image(3, "abc", 0);
    odd_no_check.resize(20);  // data and pad only
    EXPECT_FALSE(data_check(odd_no_check));
    EXPECT_TRUE(contains("TotalSize:3, nvSize:20\n"));
    clear_logs();
    odd_no_check.push_back('\x04');  // half a check value after the pad
    EXPECT_FALSE(data_check(odd_no_check));
    EXPECT_TRUE(contains("TotalSize:3, nvSize:21\n"));

    // An image longer than 1 MiB is never summed, even when it is valid.
    clear_logs();
    std::string big = nv_image(0, "", 0);
    EXPECT_TRUE(data_check(big + std::string(0x100000 - big.size(), '\0')));
    EXPECT_FALSE(data_check(big + std::string(0x100001 - big.size(), '\0')));
    EXPECT_EQ(kmsg(),
              "<6>cpif: rix: CsumCheckForData: NV Size Error! NV_header->TotalSize:0, "
              "nvSize:1048577\n");
}

TEST_F(NvTest, ErasedImageIsTheDefault) {
    // Reported on the main log only, and verified whatever follows.
    std::string erased(64, '\xff');
    EXPECT_TRUE(data_check(erased));
    EXPECT_EQ(kmsg(), "");
    EXPECT_EQ(radio(), "");
    EXPECT_NE(main_log().find("I/"), std::string::npos);
    EXPECT_NE(main_log().find(": NV File is default.\n"), std::string::npos);

    // The header decides even for a file too long to be checked.
    std::string header(16, '\0');
    put32(header, 8, 0xFFFFFFFF);
    EXPECT_TRUE(data_check(header));
    EXPECT_TRUE(data_check(header + std::string(0x200000, '\0')));
}

TEST_F(NvTest, FileCheckReportsItsVerdict) {
    const int before = open_descriptors();
    write_file(kNvPath, nv_image(3, "\x01\x02\x03", 0x0104));
    EXPECT_TRUE(CsumCheckForFile(kNvPath));
    EXPECT_EQ(kmsg(),
              "<6>cpif: rix: CsumCheckForFile: /mnt/vendor/efs/nv_data.bin checksum : verified");

    clear_logs();
    write_file(kNvPath, nv_image(3, "\x01\x02\x03", 0x0105));
    EXPECT_FALSE(CsumCheckForFile(kNvPath));
    EXPECT_EQ(kmsg(),
              "<6>cpif: rix: CsumCheckForData: Check sum Error\n"
              "<6>cpif: rix: CsumCheckForFile: /mnt/vendor/efs/nv_data.bin checksum : corrupted");

    clear_logs();
    write_file(kNvPath, std::string(3, '\0'));
    EXPECT_FALSE(CsumCheckForFile(kNvPath));
    EXPECT_EQ(kmsg(),
              "<6>cpif: rix: CsumCheckForData: Invalid NV data"
              "<6>cpif: rix: CsumCheckForFile: /mnt/vendor/efs/nv_data.bin checksum : corrupted");

    // An empty file: false without a word.
    clear_logs();
    write_file(kNvPath, "");
    EXPECT_FALSE(CsumCheckForFile(kNvPath));
    EXPECT_EQ(kmsg(), "");

    clear_logs();
    EXPECT_FALSE(CsumCheckForFile("/mnt/vendor/efs/missing.bin"));
    EXPECT_EQ(kmsg(), "<6>cpif: rix: CsumCheckForFile: Failed to open file");

    clear_logs();
    EXPECT_FALSE(CsumCheckForFile(nullptr));
    EXPECT_EQ(kmsg(), "<6>cpif: rix: CsumCheckForFile: Invalid file path");
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(NvTest, FileLongerThanOneMebibyte) {
    std::string valid = nv_image(4, "abcd", static_cast<uint16_t>(0x6261 + 0x6463));
    write_file(kNvPath, valid + std::string(0x100001 - valid.size(), '\0'));
    EXPECT_FALSE(CsumCheckForFile(kNvPath));
    EXPECT_EQ(kmsg(),
              "<6>cpif: rix: CsumCheckForData: NV Size Error! NV_header->TotalSize:4, "
              "nvSize:1048577\n"
              "<6>cpif: rix: CsumCheckForFile: /mnt/vendor/efs/nv_data.bin checksum : corrupted");

    // Exactly 1 MiB is still checked.
    clear_logs();
    write_file(kNvPath, valid + std::string(0x100000 - valid.size(), '\0'));
    EXPECT_TRUE(CsumCheckForFile(kNvPath));
    EXPECT_TRUE(contains("checksum : verified"));

    // An erased file of any length is the default.
    clear_logs();
    write_file(kNvPath, std::string(0x180000, '\xff'));
    EXPECT_TRUE(CsumCheckForFile(kNvPath));
    EXPECT_EQ(kmsg(),
              "<6>cpif: rix: CsumCheckForFile: /mnt/vendor/efs/nv_data.bin checksum : "
              "verified");
    EXPECT_NE(main_log().find("NV File is default.\n"), std::string::npos);
}

TEST_F(NvTest, DumpModeAndEmptyPathOpenNothing) {
    char path[] = "/mnt/vendor/efs/nv_data.bin";
    int fd = 7;
    EXPECT_TRUE(Util::getNvFd(CP_BOOT_MODE_DUMP, path, 256, &fd));
    EXPECT_EQ(fd, -1);
    EXPECT_FALSE(std::filesystem::exists(path));
    char empty[] = "";
    fd = 7;
    EXPECT_TRUE(Util::getNvFd(CP_BOOT_MODE_NORMAL, empty, 256, &fd));
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(kmsg(), "");
}

TEST_F(NvTest, ExistingFileIsOpenedReadOnly) {
    char path[] = "/mnt/vendor/efs/nv_data.bin";
    write_file(path, "nv");
    int fd = -1;
    ASSERT_TRUE(Util::getNvFd(CP_BOOT_MODE_NORMAL, path, 256, &fd));
    ASSERT_GE(fd, 0);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDONLY);
    EXPECT_EQ(kmsg(), "<6>cpif: rix: getNvFd: NV(/mnt/vendor/efs/nv_data.bin) opened (fd " +
                          std::to_string(fd) + ")\n");
    EXPECT_EQ(std::filesystem::file_size(path), 2u);
    close(fd);

    // Any failure but a missing file is an error, and nothing is created.
    clear_logs();
    char below_file[] = "/mnt/vendor/efs/nv_data.bin/x";
    EXPECT_FALSE(Util::getNvFd(CP_BOOT_MODE_NORMAL, below_file, 256, &fd));
    EXPECT_EQ(kmsg(),
              "<3>cpif: rix: (ERR! Not a directory) getNvFd: ERR! "
              "NV(/mnt/vendor/efs/nv_data.bin/x) open fail\n");
}

TEST_F(NvTest, MissingFileIsCreatedErased) {
    char path[] = "/mnt/vendor/efs/nv_data.bin";
    int fd = -1;
    ASSERT_TRUE(Util::getNvFd(CP_BOOT_MODE_NORMAL, path, 301, &fd));
    ASSERT_GE(fd, 0);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDONLY);
    EXPECT_EQ(kmsg(),
              "<6>cpif: rix: getNvFd: No NV(/mnt/vendor/efs/nv_data.bin) file\n"
              "<6>cpif: rix: create_empty_nv: try to create NV(/mnt/vendor/efs/nv_data.bin) "
              "with size(301)\n"
              "<6>cpif: rix: create_empty_nv: NV(/mnt/vendor/efs/nv_data.bin) saved 301 "
              "bytes\n"
              "<6>cpif: rix: getNvFd: NV(/mnt/vendor/efs/nv_data.bin) opened (fd " +
                  std::to_string(fd) + ")\n");
    close(fd);
    struct stat st;
    ASSERT_EQ(stat(path, &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0660u);
    EXPECT_EQ(std::filesystem::file_size(path), 301u);
    std::ifstream in(path, std::ios::binary);
    std::string content((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(content, std::string(301, '\xff'));

    // What was created passes the check as the default file.
    clear_logs();
    EXPECT_TRUE(CsumCheckForFile(path));
}

// Peak resident set of this process in KiB (VmHWM).
long peak_rss_kib() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmHWM:", 0) == 0) {
            return std::stol(line.substr(6));
        }
    }
    return -1;
}

// A corrupt TOC can name an NV size of a gigabyte: the erased file is
// written from a bounded buffer, so the daemon's memory does not follow it.
TEST_F(NvTest, LargeCreationKeepsMemoryFlat) {
    constexpr int kSize = 48 << 20;
    std::ofstream("/proc/self/clear_refs") << "5";  // restarts the peak at the current size
    const long before = peak_rss_kib();
    ASSERT_GT(before, 0);
    char path[] = "/mnt/vendor/efs/nv_data.bin";
    int fd = -1;
    ASSERT_TRUE(Util::getNvFd(CP_BOOT_MODE_NORMAL, path, kSize, &fd));
    EXPECT_LT(peak_rss_kib() - before, 8 * 1024);
    close(fd);
    ASSERT_EQ(std::filesystem::file_size(path), static_cast<uintmax_t>(kSize));
    std::ifstream in(path, std::ios::binary);
    std::string chunk(1 << 20, '\0');
    for (int at = 0; at < kSize; at += static_cast<int>(chunk.size())) {
        ASSERT_TRUE(in.read(chunk.data(), static_cast<std::streamsize>(chunk.size())));
        ASSERT_EQ(chunk.find_first_not_of('\xff'), std::string::npos) << "at " << at;
    }
    EXPECT_TRUE(contains("NV(/mnt/vendor/efs/nv_data.bin) saved 50331648 bytes\n"));
}

TEST_F(NvTest, FailedCreationLeavesNoFile) {
    const int before = open_descriptors();
    char path[] = "/mnt/vendor/efs/nv_data.bin";
    int fd = -1;
    for (int size : {0, -5}) {
        clear_logs();
        EXPECT_FALSE(Util::getNvFd(CP_BOOT_MODE_NORMAL, path, size, &fd));
        const std::string s = std::to_string(size);
        EXPECT_EQ(kmsg(),
                  "<6>cpif: rix: getNvFd: No NV(/mnt/vendor/efs/nv_data.bin) file\n"
                  "<6>cpif: rix: create_empty_nv: try to create "
                  "NV(/mnt/vendor/efs/nv_data.bin) with size(" +
                      s +
                      ")\n"
                      "<6>cpif: rix: create_empty_nv: ERR! wrong size(" +
                      s +
                      ")\n"
                      "<6>cpif: rix: getNvFd: ERR! "
                      "create_empty_nv(/mnt/vendor/efs/nv_data.bin, " +
                      s + ") fail\n");
        EXPECT_FALSE(std::filesystem::exists(path));
    }

    // The file cannot even be created: its removal fails as well.
    clear_logs();
    char no_dir[] = "/mnt/vendor/none/nv_data.bin";
    EXPECT_FALSE(Util::getNvFd(CP_BOOT_MODE_NORMAL, no_dir, 64, &fd));
    EXPECT_TRUE(
        contains("<3>cpif: rix: (ERR! No such file or directory) create_empty_nv: ERR! "
                 "NV(/mnt/vendor/none/nv_data.bin) open fail\n"
                 "<6>cpif: rix: getNvFd: ERR! create_empty_nv(/mnt/vendor/none/nv_data.bin, "
                 "64) fail\n"
                 "<3>cpif: rix: (ERR! No such file or directory) getNvFd: ERR! "
                 "NV(/mnt/vendor/none/nv_data.bin) remove fail\n"))
        << kmsg();
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(NvTest, ShortOrFailedWriteRemovesTheFile) {
    mount_small();
    char path[] = "/mnt/vendor/small/nv_data.bin";
    int fd = -1;
    // Room for 4096 of 8192 bytes.
    EXPECT_FALSE(Util::getNvFd(CP_BOOT_MODE_NORMAL, path, 8192, &fd));
    EXPECT_TRUE(
        contains("<6>cpif: rix: create_empty_nv: ERR! NV(/mnt/vendor/small/nv_data.bin) "
                 "partial saved(4096) but size(8192)\n"
                 "<6>cpif: rix: getNvFd: ERR! "
                 "create_empty_nv(/mnt/vendor/small/nv_data.bin, 8192) fail\n"))
        << kmsg();
    EXPECT_FALSE(contains("remove fail"));
    EXPECT_FALSE(std::filesystem::exists(path));

    // No room at all.
    write_file(std::string(kSmallDir) + "/full", std::string(4096, 'f'));
    clear_logs();
    EXPECT_FALSE(Util::getNvFd(CP_BOOT_MODE_NORMAL, path, 100, &fd));
    EXPECT_TRUE(
        contains("<3>cpif: rix: (ERR! No space left on device) create_empty_nv: ERR! "
                 "NV(/mnt/vendor/small/nv_data.bin) write fail\n"))
        << kmsg();
    EXPECT_FALSE(std::filesystem::exists(path));
}

}  // namespace
