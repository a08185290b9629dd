// The NV data file: its check value, and opening it or creating an erased one.
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

// Each image is checked as the NV file, which adds its verdict to the check's own lines.
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
        {"exactly 1 MiB", empty + std::string(0x100000 - empty.size(), '\0'), true, ""},
        {"longer than 1 MiB is never summed", empty + std::string(0x100001 - empty.size(), '\0'),
         false, size_error(0, 1048577)},
        // An erased header is the default, even for a file too long to be checked.
        {"erased", std::string(64, '\xff'), true, ""},
        {"erased header, 2 MiB behind", erased_header + std::string(0x200000, '\0'), true, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
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

// Peak resident set of this process in KiB (VmHWM).
long peak_rss_kib() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line) && line.rfind("VmHWM:", 0) != 0) {
    }
    return line.empty() ? -1 : std::stol(line.substr(6));
}

// getNvFd: what it logs, and the file it leaves. Missing files are created
// erased (0660) and opened read-only; a failed creation leaves no file. A
// corrupt TOC can name a size of a gigabyte: the erased file is written from
// a bounded buffer, so the daemon's memory does not follow it.
TEST_F(NvTest, MissingFileIsCreatedErasedAndOpenedReadOnly) {
    const int before = open_descriptors();
    std::filesystem::create_directories(kSmallDir);
    // A file system with room for one 4 KiB page: 4096 of 8192 bytes, then none.
    ASSERT_EQ(mount("tmpfs", kSmallDir, "tmpfs", 0, "size=4k"), 0);
    const std::string nv = kNvPath, small = std::string(kSmallDir) + "/nv_data.bin",
                      below = nv + "/x", no_dir = "/mnt/vendor/none/nv_data.bin",
                      big = "/mnt/vendor/efs/big.bin";
    auto creating = [](const std::string& path, int size) {
        return info("getNvFd", "No NV(" + path + ") file\n") +
               info("create_empty_nv",
                    "try to create NV(" + path + ") with size(" + std::to_string(size) + ")\n");
    };
    auto made = [&](const std::string& path, int size) {
        return creating(path, size) +
               info("create_empty_nv",
                    "NV(" + path + ") saved " + std::to_string(size) + " bytes\n") +
               info("getNvFd", "NV(" + path + ") opened (fd)\n");
    };
    auto failed = [](const std::string& path, int size) {
        return info("getNvFd",
                    "ERR! create_empty_nv(" + path + ", " + std::to_string(size) + ") fail\n");
    };
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
        {CP_BOOT_MODE_NORMAL, nv, 301, true, made(nv, 301), 301},
        // An existing file is opened as it is, whatever the size asked.
        {CP_BOOT_MODE_NORMAL, nv, 256, true, info("getNvFd", "NV(" + nv + ") opened (fd)\n"), 301},
        {CP_BOOT_MODE_NORMAL, big, 48 << 20, true, made(big, 48 << 20), 48 << 20},
        // Any other open failure is an error, and nothing is created.
        {CP_BOOT_MODE_NORMAL, below, 256, false,
         err("Not a directory", "getNvFd", "NV(" + below + ") open fail"), 301},
        {CP_BOOT_MODE_NORMAL, small, 0, false,
         creating(small, 0) + info("create_empty_nv", "ERR! wrong size(0)\n") + failed(small, 0),
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
    std::ofstream("/proc/self/clear_refs") << "5";  // restarts the peak at the current size
    const long rss = peak_rss_kib();
    ASSERT_GT(rss, 0);
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
    EXPECT_LT(peak_rss_kib() - rss, 8 * 1024);
    struct stat st;
    ASSERT_EQ(stat(kNvPath, &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0660u);
    EXPECT_EQ(read_file(kNvPath), std::string(301, '\xff'));
    EXPECT_TRUE(CsumCheckForFile(kNvPath));  // what was created passes as the default file
    EXPECT_EQ(open_descriptors(), before);
}

}  // namespace
