// The NV data file: its check value, opening it or creating an erased one,
// and the hex and upper-case text helpers.
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>

#include "boot/nv.h"
#include "core/util.h"
#include "rix_test.h"

namespace {

constexpr char kNvPath[] = "/mnt/vendor/efs/nv_data.bin";
constexpr char kSmallDir[] = "/mnt/vendor/small";

// An NV image: header with TotalSize, the data, the pad byte when the size
// is odd, and the given 16-bit check value.
std::string nv_image(uint32_t total, const std::string& data, uint16_t check, char pad = '\xAA') {
    std::string nv(16, '\0');
    memcpy(&nv[8], &total, 4);
    nv += data + (total % 2 != 0 ? std::string(1, pad) : "");
    return nv + static_cast<char>(check & 0xFF) + static_cast<char>(check >> 8);
}

void write_file(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

int open_descriptors() {
    auto fds = std::filesystem::directory_iterator("/proc/self/fd");
    return static_cast<int>(std::distance(begin(fds), end(fds)));
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
    mode_t old_mask_ = 0;
};

TEST_F(NvTest, TextHelpersStayWithinTheirBounds) {
    char src[64];
    for (int i = 0; i < 64; i++) {
        src[i] = static_cast<char>(i + 0xA0);
    }
    const struct {
        size_t dst_size;
        char* from;
        size_t n;
        std::string text;  // "": the destination is not touched
        size_t untouched;  // the first byte left as it was
    } cases[] = {
        // 96 bytes hold 32 source bytes: 95 characters and a NUL.
        {96, src, 64,
         "A0 A1 A2 A3 A4 A5 A6 A7 A8 A9 AA AB AC AD AE AF B0 B1 B2 B3 B4 B5 B6 B7 B8 B9 BA BB BC "
         "BD BE BF",
         96},
        {16, src, 2, "A0 A1", 7},  // the source length bounds it
        {6, src, 3, "A0 A1", 6},   // exactly three bytes per source byte
        {2, src, 3, "", 0},
        {16, src, 0, "", 0},
        {16, nullptr, 3, "", 0},
    };
    for (const auto& c : cases) {
        char dst[128];
        memset(dst, 'x', sizeof(dst));
        Util::byteToHex(dst, c.dst_size, c.from, c.n);
        EXPECT_EQ(std::string(dst, c.untouched),
                  c.text + std::string(c.untouched - c.text.size(), '\0'));
        EXPECT_EQ(std::string(dst + c.untouched, 128 - c.untouched),
                  std::string(128 - c.untouched, 'x'));
    }
    Util::byteToHex(nullptr, 16, src, 3);  // no destination: nothing happens
    // Upper case writes no terminator.
    char dst[8] = {'x', 'x', 'x', 'x', 'x', 'x', 'x', 'x'}, mixed[] = "aZ`{-z9";
    Util::toUpperCase(mixed, dst);
    EXPECT_EQ(std::string(dst, 8), "AZ`{-Z9x");
}

// Each image is checked in memory and as the NV file, which adds its verdict.
TEST_F(NvTest, CheckValueSumsWordsAndRefusesWhatDoesNotFit) {
    const int before = open_descriptors();
    std::string short_file(17, '\0'), erased_header(16, '\0');
    short_file[8] = 0x20;
    memset(&erased_header[8], 0xFF, 4);
    const std::string no_check = nv_image(4, "abcd", 0).substr(0, 21);
    const std::string odd_no_check = nv_image(3, "abc", 0).substr(0, 20);  // data and pad only
    const std::string empty = nv_image(0, "", 0);
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
        EXPECT_EQ(
            CsumCheckForData(reinterpret_cast<const uint8_t*>(c.bytes.data()), c.bytes.size()),
            c.ok);
        EXPECT_EQ(kmsg(), c.log);
        write_file(kNvPath, c.bytes);
        clear_logs();
        EXPECT_EQ(CsumCheckForFile(kNvPath), c.ok);
        EXPECT_EQ(kmsg(), c.log + info("CsumCheckForFile", std::string(kNvPath) + " checksum : " +
                                                               (c.ok ? "verified" : "corrupted")));
    }
    // The default is reported on the main log only.
    clear_logs();
    EXPECT_TRUE(CsumCheckForData(reinterpret_cast<const uint8_t*>(erased_header.data()), 16));
    EXPECT_EQ(radio(), "");
    EXPECT_NE(main_log().find("I/"), std::string::npos);
    EXPECT_NE(main_log().find(": NV File is default.\n"), std::string::npos);

    // A file that is empty or reads short (a sysfs attribute claims 4096
    // bytes) gets no verdict line.
    struct stat st = {};
    ASSERT_EQ(stat("/sys/kernel/uevent_seqnum", &st), 0);
    ASSERT_EQ(st.st_size, 4096);
    write_file(kNvPath, "");
    const std::pair<const char*, std::string> unread[] = {
        {kNvPath, ""},
        {"/sys/kernel/uevent_seqnum", info("CsumCheckForFile", "Failed to read data")},
        {"/mnt/vendor/efs/missing.bin", info("CsumCheckForFile", "Failed to open file")},
        {nullptr, info("CsumCheckForFile", "Invalid file path")},
    };
    for (const auto& [path, log] : unread) {
        clear_logs();
        EXPECT_FALSE(CsumCheckForFile(path));
        EXPECT_EQ(kmsg(), log);
    }
    EXPECT_EQ(open_descriptors(), before);
}

// getNvFd: what it logs, and the file it leaves. Missing files are created
// erased (0660) and opened read-only; a failed creation leaves no file.
TEST_F(NvTest, MissingFileIsCreatedErasedAndOpenedReadOnly) {
    const int before = open_descriptors();
    std::filesystem::create_directories(kSmallDir);
    // A file system with room for one 4 KiB page: 4096 of 8192 bytes, then none.
    ASSERT_EQ(mount("tmpfs", kSmallDir, "tmpfs", 0, "size=4k"), 0);
    const std::string nv = kNvPath, small = std::string(kSmallDir) + "/nv_data.bin",
                      below = nv + "/x", no_dir = "/mnt/vendor/none/nv_data.bin";
    auto creating = [](const std::string& path, int size) {
        return info("getNvFd", "No NV(" + path + ") file\n") +
               info("create_empty_nv",
                    "try to create NV(" + path + ") with size(" + std::to_string(size) + ")\n");
    };
    auto failed = [](const std::string& path, int size) {
        return info("getNvFd",
                    "ERR! create_empty_nv(" + path + ", " + std::to_string(size) + ") fail\n");
    };
    const std::string opened = info("getNvFd", "NV(" + nv + ") opened (fd)\n");
    const struct {
        cp_boot_mode mode;
        std::string path;
        int size;
        bool ok;
        std::string log;
        int file_size;  // -1: no file
    } cases[] = {
        // Dump mode and an empty path open nothing.
        {CP_BOOT_MODE_DUMP, nv, 256, true, "", -1},
        {CP_BOOT_MODE_NORMAL, "", 256, true, "", -1},
        {CP_BOOT_MODE_NORMAL, nv, 301, true,
         creating(nv, 301) + info("create_empty_nv", "NV(" + nv + ") saved 301 bytes\n") + opened,
         301},
        // An existing file is opened as it is, whatever the size asked.
        {CP_BOOT_MODE_NORMAL, nv, 256, true, opened, 301},
        // Any other open failure is an error, and nothing is created.
        {CP_BOOT_MODE_NORMAL, below, 256, false,
         err("Not a directory", "getNvFd", "NV(" + below + ") open fail"), 301},
        {CP_BOOT_MODE_NORMAL, small, 0, false,
         creating(small, 0) + info("create_empty_nv", "ERR! wrong size(0)\n") + failed(small, 0),
         -1},
        {CP_BOOT_MODE_NORMAL, small, -5, false,
         creating(small, -5) + info("create_empty_nv", "ERR! wrong size(-5)\n") + failed(small, -5),
         -1},
        // The file cannot even be created: its removal fails as well.
        {CP_BOOT_MODE_NORMAL, no_dir, 64, false,
         creating(no_dir, 64) +
             err("No such file or directory", "create_empty_nv", "NV(" + no_dir + ") open fail") +
             failed(no_dir, 64) +
             err("No such file or directory", "getNvFd", "NV(" + no_dir + ") remove fail"),
         -1},
        {CP_BOOT_MODE_NORMAL, small, 8192, false,
         creating(small, 8192) +
             info("create_empty_nv",
                  "ERR! NV(" + small + ") partial saved(4096) but size(8192)\n") +
             failed(small, 8192),
         -1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path + ", size " + std::to_string(c.size));
        clear_logs();
        std::string path = c.path;
        int fd = 7;
        EXPECT_EQ(Util::getNvFd(c.mode, path.data(), c.size, &fd), c.ok);
        EXPECT_EQ(std::regex_replace(kmsg(), std::regex(R"(\(fd \d+\))"), "(fd)"), c.log);
        if (c.ok) {
            EXPECT_EQ(fd >= 0 ? fcntl(fd, F_GETFL) & O_ACCMODE : -1,
                      c.path.empty() || c.mode == CP_BOOT_MODE_DUMP ? -1 : O_RDONLY);
            close(fd);
        }
        const std::string file = c.path.empty() ? nv : c.path.substr(0, c.path.rfind("/x"));
        EXPECT_EQ(
            std::filesystem::exists(file) ? static_cast<int>(std::filesystem::file_size(file)) : -1,
            c.file_size);
    }
    struct stat st;
    ASSERT_EQ(stat(kNvPath, &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0660u);
    EXPECT_EQ(read_file(kNvPath), std::string(301, '\xff'));
    EXPECT_TRUE(CsumCheckForFile(kNvPath));  // what was created passes as the default file
    // A full file system: the first write fails.
    write_file(std::string(kSmallDir) + "/full", std::string(4096, 'f'));
    clear_logs();
    int fd = -1;
    EXPECT_FALSE(Util::getNvFd(CP_BOOT_MODE_NORMAL, std::string(small).data(), 100, &fd));
    EXPECT_EQ(kmsg(), creating(small, 100) +
                          err("No space left on device", "create_empty_nv",
                              "NV(" + small + ") write fail") +
                          failed(small, 100));
    EXPECT_FALSE(std::filesystem::exists(small));
    EXPECT_EQ(open_descriptors(), before);
}

// Peak resident set of this process in KiB (VmHWM).
long peak_rss_kib() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line) && line.rfind("VmHWM:", 0) != 0) {
    }
    return line.empty() ? -1 : std::stol(line.substr(6));
}

// A corrupt TOC can name an NV size of a gigabyte: the erased file is
// written from a bounded buffer, so the daemon's memory does not follow it.
TEST_F(NvTest, LargeCreationKeepsMemoryFlat) {
    constexpr int kSize = 48 << 20;
    std::ofstream("/proc/self/clear_refs") << "5";  // restarts the peak at the current size
    const long before = peak_rss_kib();
    ASSERT_GT(before, 0);
    std::string path = kNvPath;
    int fd = -1;
    ASSERT_TRUE(Util::getNvFd(CP_BOOT_MODE_NORMAL, path.data(), kSize, &fd));
    EXPECT_LT(peak_rss_kib() - before, 8 * 1024);
    close(fd);
    std::ifstream in(path, std::ios::binary);
    std::string chunk(1 << 20, '\0');
    for (int at = 0; at < kSize; at += static_cast<int>(chunk.size())) {
        ASSERT_TRUE(in.read(chunk.data(), static_cast<std::streamsize>(chunk.size())));
        ASSERT_EQ(chunk.find_first_not_of('\xff'), std::string::npos) << "at " << at;
    }
    EXPECT_FALSE(in.read(chunk.data(), 1));  // and not a byte more
    EXPECT_NE(kmsg().find("NV(/mnt/vendor/efs/nv_data.bin) saved 50331648 bytes\n"),
              std::string::npos);
}

}  // namespace
