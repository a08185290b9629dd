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

int open_descriptors() {
    auto fds = std::filesystem::directory_iterator("/proc/self/fd");
    return static_cast<int>(std::distance(begin(fds), end(fds)));
}

// Kernel log lines: an information line and an error line with errno's text.
std::string info(const std::string& fn, const std::string& text) {
    return "<6>cpif: rix: " + fn + ": " + text;
}
std::string size_error(uint32_t total, size_t size) {
    return info("CsumCheckForData", "NV Size Error! NV_header->TotalSize:" + std::to_string(total) +
                                        ", nvSize:" + std::to_string(size) + "\n");
}

class NvTest : public RixTest {
  protected:
    void TearDown() override {
        umount2(kSmallDir, MNT_DETACH);
        RixTest::TearDown();
    }
};

// Each image is checked as the NV file, which adds its verdict to the check's own lines.
TEST_F(NvTest, CheckValueSumsWordsAndRefusesWhatDoesNotFit) {
    std::filesystem::create_directories("/mnt/vendor/efs");
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
        // No data, check value 0, and zeros up to the limit.
        {"exactly 1 MiB", empty + std::string(0x100000 - empty.size(), '\0'), true, ""},
        {"longer than 1 MiB is never summed", empty + std::string(0x100001 - empty.size(), '\0'),
         false, size_error(0, 1048577)},
        // An erased header is the default, even for a file too long to be checked.
        {"erased", std::string(64, '\xff'), true, ""},
        {"erased header, 2 MiB behind", erased_header + std::string(0x200000, '\0'), true, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::ofstream(kNvPath, std::ios::binary | std::ios::trunc) << c.bytes;
        clear_logs();
        EXPECT_EQ(CsumCheckForFile(kNvPath), c.ok);
        EXPECT_EQ(kmsg(), c.log + info("CsumCheckForFile", std::string(kNvPath) + " checksum : " +
                                                               (c.ok ? "verified" : "corrupted")));
    }
    // An empty file gets no verdict line, no path a line of its own.
    std::ofstream(kNvPath, std::ios::trunc) << "";
    clear_logs();
    EXPECT_FALSE(CsumCheckForFile(kNvPath) || CsumCheckForFile(nullptr));
    EXPECT_EQ(kmsg(), info("CsumCheckForFile", "Invalid file path"));
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

// getNvFd where the boot preparation's rows do not reach: a missing file is created erased
// (0660) and opened read-only, any other open failure is an error, and a creation that fails
// part-way leaves no file. A corrupt TOC can name a size of a gigabyte: the erased file is
// written from a bounded buffer, so the daemon's memory does not follow it.
TEST_F(NvTest, MissingFileIsCreatedErasedAndOpenedReadOnly) {
    std::filesystem::create_directories(kSmallDir);
    std::filesystem::create_directories("/mnt/vendor/efs");
    const mode_t old_mask = umask(002);  // as the daemon runs
    const int before = open_descriptors();
    // A file system with room for one 4 KiB page: 4096 of 8192 bytes, then none.
    ASSERT_EQ(mount("tmpfs", kSmallDir, "tmpfs", 0, "size=4k"), 0);
    const std::string nv = kNvPath, small = std::string(kSmallDir) + "/nv_data.bin",
                      below = nv + "/x", big = "/mnt/vendor/efs/big.bin";
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
    const struct {
        std::string path;
        int size;
        bool ok;
        std::string log;
        int file_size;  // -1: no file
    } cases[] = {
        {nv, 301, true, made(nv, 301), 301},
        {big, 48 << 20, true, made(big, 48 << 20), 48 << 20},
        // Nothing is created below a file.
        {below, 256, false,
         "<3>cpif: rix: (ERR! Not a directory) getNvFd: ERR! NV(" + below + ") open fail\n", 301},
        {small, 8192, false,
         creating(small, 8192) +
             info("create_empty_nv",
                  "ERR! NV(" + small + ") partial saved(4096) but size(8192)\n") +
             info("getNvFd", "ERR! create_empty_nv(" + small + ", 8192) fail\n"),
         -1},
    };
    std::ofstream("/proc/self/clear_refs") << "5";  // restarts the peak at the current size
    const long rss = peak_rss_kib();
    ASSERT_GT(rss, 0);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path + ", size " + std::to_string(c.size));
        clear_logs();
        std::string path = c.path;
        int fd = -1;
        EXPECT_EQ(Util::getNvFd(CP_BOOT_MODE_NORMAL, path.data(), c.size, &fd), c.ok);
        EXPECT_EQ(std::regex_replace(kmsg(), std::regex(R"(\(fd \d+\))"), "(fd)"), c.log);
        if (c.ok) {
            EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDONLY);
            close(fd);
        }
        const std::string file = c.path.substr(0, c.path.rfind("/x"));
        EXPECT_EQ(
            std::filesystem::exists(file) ? static_cast<int>(std::filesystem::file_size(file)) : -1,
            c.file_size);
    }
    EXPECT_LT(peak_rss_kib() - rss, 8 * 1024);
    umask(old_mask);
    struct stat st;
    ASSERT_EQ(stat(kNvPath, &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0660u);
    EXPECT_EQ(open_descriptors(), before);
}

}  // namespace
