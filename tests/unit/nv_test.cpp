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

// Kernel log lines: an information line and an error line with errno's text.
std::string info(const std::string& fn, const std::string& text) {
    return "<6>cpif: rix: " + fn + ": " + text;
}
std::string err(const std::string& error, const std::string& fn, const std::string& text) {
    return "<3>cpif: rix: (ERR! " + error + ") " + fn + ": ERR! " + text + "\n";
}
std::string size_error(uint32_t total, size_t size) {
    return info("CsumCheckForData", "NV Size Error! NV_header->TotalSize:" + std::to_string(total) +
                                        ", nvSize:" + std::to_string(size) + "\n");
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

    mode_t old_mask_ = 0;
};

TEST_F(NvTest, TextHelpersStayWithinTheirBounds) {
    char src[512];
    for (int i = 0; i < 512; i++) {
        src[i] = static_cast<char>(i);
    }
    char dst[128];
    // The text rendered, and whether dst[untouched] kept its filler.
    auto hex = [&](size_t dst_size, char* from, size_t n, size_t untouched) {
        memset(dst, 'x', sizeof(dst));
        Util::byteToHex(dst, dst_size, from, n);
        EXPECT_EQ(dst[untouched], 'x') << "byte " << untouched;
        return std::string(dst, strnlen(dst, sizeof(dst)));
    };
    // 96 bytes hold 32 source bytes: 95 characters and a NUL.
    EXPECT_EQ(hex(96, src, sizeof(src), 96),
              "00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10 11 12 13 14 15 16 17 18 19 1A "
              "1B 1C 1D 1E 1F");
    char hi[] = {'\xAB', '\xff', '\x0c'};
    EXPECT_EQ(hex(16, hi, 2, 7), "AB FF");  // the source length bounds it; upper-case digits
    EXPECT_EQ(hex(6, hi, 3, 6), "AB FF");   // exactly three bytes per source byte
    // Nothing to render: the destination is not touched.
    memset(dst, 'x', sizeof(dst));
    Util::byteToHex(dst, 2, hi, 3);
    Util::byteToHex(dst, sizeof(dst), hi, 0);
    Util::byteToHex(dst, sizeof(dst), nullptr, 3);
    Util::byteToHex(nullptr, sizeof(dst), hi, 3);
    EXPECT_EQ(dst[0], 'x');

    // Upper case writes no terminator.
    memset(dst, 'x', sizeof(dst));
    char umts[] = "umts", mixed[] = "aZ`{-z9";
    Util::toUpperCase(umts, dst);
    EXPECT_EQ(std::string(dst, 8), "UMTSxxxx");
    Util::toUpperCase(mixed, dst);
    EXPECT_EQ(std::string(dst, 8), "AZ`{-Z9x");
}

// Each image is checked in memory and as the NV file, which adds its verdict.
TEST_F(NvTest, CheckValueSumsWordsAndRefusesWhatDoesNotFit) {
    const int before = open_descriptors();
    std::string short_file(17, '\0');
    put32(short_file, 8, 0x20);
    std::string no_check = nv_image(4, "abcd", 0);
    no_check.pop_back();
    const std::string odd_no_check = nv_image(3, "abc", 0).substr(0, 20);  // data and pad only
    const std::string empty = nv_image(0, "", 0);
    std::string erased_header(16, '\0');
    put32(erased_header, 8, 0xFFFFFFFF);
    const struct {
        const char* name;
        std::string bytes;
        bool ok;
        std::string log;
    } cases[] = {
        {"no data: check value 0", empty, true, ""},
        // 0x0201 + (0xFF00 | 0x03) = 0x10104, kept as 0x0104, read after the
        // pad byte, whose value is not used.
        {"odd size", nv_image(3, "\x01\x02\x03", 0x0104, '\x77'), true, ""},
        {"sum wraps at 16 bits", nv_image(4, std::string("\xff\xff\x02\x00", 4), 0x0001), true, ""},
        {"wrong check value", nv_image(3, "\x01\x02\x03", 0x0103), false,
         info("CsumCheckForData", "Check sum Error\n")},
        {"shorter than the header", std::string(15, '\0'), false,
         info("CsumCheckForData", "Invalid NV data")},
        {"more data announced than there is", short_file, false, size_error(32, 17)},
        {"no room for the check value", no_check, false, size_error(4, 21)},
        {"odd size without check value", odd_no_check, false, size_error(3, 20)},
        {"odd size with half a check value", odd_no_check + '\x04', false, size_error(3, 21)},
        {"exactly 1 MiB", empty + std::string(0x100000 - empty.size(), '\0'), true, ""},
        {"longer than 1 MiB is never summed", empty + std::string(0x100001 - empty.size(), '\0'),
         false, size_error(0, 1048577)},
        // An erased header is the default, even for a file too long to be checked.
        {"erased", std::string(64, '\xff'), true, ""},
        {"erased header alone", erased_header, true, ""},
        {"erased header, 2 MiB behind", erased_header + std::string(0x200000, '\0'), true, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        clear_logs();
        EXPECT_EQ(data_check(c.bytes), c.ok);
        EXPECT_EQ(kmsg(), c.log);
        write_file(kNvPath, c.bytes);
        clear_logs();
        EXPECT_EQ(CsumCheckForFile(kNvPath), c.ok);
        EXPECT_EQ(kmsg(), c.log + info("CsumCheckForFile", std::string(kNvPath) + " checksum : " +
                                                               (c.ok ? "verified" : "corrupted")));
    }
    // The default is reported on the main log only.
    clear_logs();
    EXPECT_TRUE(data_check(erased_header));
    EXPECT_EQ(radio(), "");
    EXPECT_NE(main_log().find("I/"), std::string::npos);
    EXPECT_NE(main_log().find(": NV File is default.\n"), std::string::npos);

    const struct {
        const char* path;
        std::string log;
    } unread[] = {
        {kNvPath, ""},  // an empty file: false without a word
        {"/mnt/vendor/efs/missing.bin", info("CsumCheckForFile", "Failed to open file")},
        {nullptr, info("CsumCheckForFile", "Invalid file path")},
    };
    write_file(kNvPath, "");
    for (const auto& c : unread) {
        SCOPED_TRACE(c.path ? c.path : "no path");
        clear_logs();
        EXPECT_FALSE(CsumCheckForFile(c.path));
        EXPECT_EQ(kmsg(), c.log);
    }
    EXPECT_EQ(open_descriptors(), before);
}

// The log lines of a creation up to its end, and of its failure.
std::string creating(const std::string& path, int size) {
    return info("getNvFd", "No NV(" + path + ") file\n") +
           info("create_empty_nv",
                "try to create NV(" + path + ") with size(" + std::to_string(size) + ")\n");
}
std::string failed(const std::string& path, int size) {
    return info("getNvFd",
                "ERR! create_empty_nv(" + path + ", " + std::to_string(size) + ") fail\n");
}

TEST_F(NvTest, MissingFileIsCreatedErasedAndOpenedReadOnly) {
    char path[] = "/mnt/vendor/efs/nv_data.bin";
    const std::string nv = std::string("NV(") + path + ")";
    // Dump mode and an empty path open nothing.
    int fd = 7;
    EXPECT_TRUE(Util::getNvFd(CP_BOOT_MODE_DUMP, path, 256, &fd));
    EXPECT_EQ(fd, -1);
    EXPECT_FALSE(std::filesystem::exists(path));
    char empty[] = "";
    fd = 7;
    EXPECT_TRUE(Util::getNvFd(CP_BOOT_MODE_NORMAL, empty, 256, &fd));
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(kmsg(), "");

    ASSERT_TRUE(Util::getNvFd(CP_BOOT_MODE_NORMAL, path, 301, &fd));
    ASSERT_GE(fd, 0);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDONLY);
    EXPECT_EQ(kmsg(), creating(path, 301) + info("create_empty_nv", nv + " saved 301 bytes\n") +
                          info("getNvFd", nv + " opened (fd " + std::to_string(fd) + ")\n"));
    close(fd);
    struct stat st;
    ASSERT_EQ(stat(path, &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0660u);
    EXPECT_EQ(read_file(path), std::string(301, '\xff'));
    // What was created passes the check as the default file.
    EXPECT_TRUE(CsumCheckForFile(path));

    // An existing file is opened read-only as it is, whatever the size asked.
    clear_logs();
    ASSERT_TRUE(Util::getNvFd(CP_BOOT_MODE_NORMAL, path, 256, &fd));
    ASSERT_GE(fd, 0);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDONLY);
    EXPECT_EQ(kmsg(), info("getNvFd", nv + " opened (fd " + std::to_string(fd) + ")\n"));
    EXPECT_EQ(std::filesystem::file_size(path), 301u);
    close(fd);

    // Any failure but a missing file is an error, and nothing is created.
    clear_logs();
    char below_file[] = "/mnt/vendor/efs/nv_data.bin/x";
    EXPECT_FALSE(Util::getNvFd(CP_BOOT_MODE_NORMAL, below_file, 256, &fd));
    EXPECT_EQ(kmsg(),
              err("Not a directory", "getNvFd", "NV(" + std::string(below_file) + ") open fail"));
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
    auto fails = [&](const std::string& path, int size, const std::string& why) {
        SCOPED_TRACE(path + ", size " + std::to_string(size));
        clear_logs();
        std::string p = path;
        int fd = -1;
        EXPECT_FALSE(Util::getNvFd(CP_BOOT_MODE_NORMAL, p.data(), size, &fd));
        EXPECT_EQ(kmsg(), creating(path, size) + why);
        EXPECT_FALSE(std::filesystem::exists(path));
    };
    for (int size : {0, -5}) {
        fails(kNvPath, size,
              info("create_empty_nv", "ERR! wrong size(" + std::to_string(size) + ")\n") +
                  failed(kNvPath, size));
    }
    // The file cannot even be created: its removal fails as well.
    const std::string no_dir = "/mnt/vendor/none/nv_data.bin";
    fails(no_dir, 64,
          err("No such file or directory", "create_empty_nv", "NV(" + no_dir + ") open fail") +
              failed(no_dir, 64) +
              err("No such file or directory", "getNvFd", "NV(" + no_dir + ") remove fail"));
    EXPECT_EQ(open_descriptors(), before);

    // A file system with room for one 4 KiB page: 4096 of 8192 bytes, then none.
    std::filesystem::create_directories(kSmallDir);
    ASSERT_EQ(mount("tmpfs", kSmallDir, "tmpfs", 0, "size=4k"), 0);
    const std::string small = std::string(kSmallDir) + "/nv_data.bin";
    fails(small, 8192,
          info("create_empty_nv", "ERR! NV(" + small + ") partial saved(4096) but size(8192)\n") +
              failed(small, 8192));
    write_file(std::string(kSmallDir) + "/full", std::string(4096, 'f'));
    fails(small, 100,
          err("No space left on device", "create_empty_nv", "NV(" + small + ") write fail") +
              failed(small, 100));
}

}  // namespace
