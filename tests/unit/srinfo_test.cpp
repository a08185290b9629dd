// The silent-reset record: which blocks are kept, what the last file and the
// hex log receive, the rotation of the log, and the hand-back of the text.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "core/rix.h"
#include "rix_test.h"
#include "srinfo/srinfo.h"

namespace {

namespace fs = std::filesystem;
const char kLast[] = "/data/vendor/log/rix/err/last_sr_info_umts";
const char kHex[] = "/data/vendor/log/rix/sr_info_umts";
const char kBak[] = "/data/vendor/log/rix/.sr_info_umts.bak";

struct FreeBlock {
    void operator()(srinfo_block* b) const { free(b); }
};
using Block = std::unique_ptr<srinfo_block, FreeBlock>;

// A block as the driver returns it, exactly as large as the driver's, on the
// heap (the address sanitizer sees any read past it): 16 header bytes
// 0x00..0x0F, then the text, whose marker "JVER" is at data offset 18.
const char kText[] = "//JVER RESET=0x12 task=L1_SCHED pc=0x4f0}tail{x}";
Block driver_block(const std::string& text = kText, long len = -1) {
    Block b(static_cast<srinfo_block*>(calloc(1, sizeof(srinfo_block))));
    for (int i = 0; i < 16; i++) {
        b->data[i] = static_cast<uint8_t>(i);
    }
    memcpy(b->data + 16, text.data(), text.size());
    b->len = len < 0 ? 16 + text.size() : len;
    return b;
}

struct stat stat_of(const char* path) {
    struct stat st = {};
    EXPECT_EQ(stat(path, &st), 0) << path;
    return st;
}
// A hex log entry without its "[YYYY-MM-DD hh:mm:ss]\n" time line.
std::string without_time(const std::string& entry) {
    return entry.size() > 22 && entry[0] == '[' && entry[21] == '\n' ? entry.substr(22)
                                                                     : "no time line: " + entry;
}

// Stands in for the driver's fetch: the block it fills is `record`; the
// checks after the fetch are the daemon's own.
class DriverStandIn : public SrinfoTarn {
  public:
    srinfo_block* alloc_srinfo(unsigned int* len, int) override {
        fetches++;
        Block b = driver_block();
        memcpy(b.get(), record.get(), sizeof(srinfo_block));
        return srinfo_check_block(b.get(), len) ? b.release() : nullptr;
    }
    Block record = driver_block();
    int fetches = 0;
};

class SrinfoTest : public RixTest {
  protected:
    void SetUp() override {
        RixTest::SetUp();
        ASSERT_EQ(parse({"-t", "vm420"}), 0);
        old_mask_ = umask(002);  // the daemon's
        // The phone's group database, with the group "log", over the host's.
        std::ofstream(dir_ + "/group") << "root:x:0:\nlog:x:1007:\n";
        ASSERT_EQ(mount((dir_ + "/group").c_str(), "/etc/group", nullptr, MS_BIND, nullptr), 0);
        fs::create_directories("/data/vendor/log");  // there before the daemon runs
        clear_logs();
    }
    void TearDown() override {
        umount2("/etc/group", MNT_DETACH);
        umask(old_mask_);
        RixTest::TearDown();
    }
    mode_t old_mask_ = 0;
};

TEST_F(SrinfoTest, BlockIsJudgedByItsMarkerAlone) {
    const std::string kRefused =
        "<6>cpif: rix: alloc_srinfo: Crash info string was invalid(44434241/5245564a)\n";
    // The marker decides whatever the length; the length is bounded to the
    // block; the text runs through the first '}' within the valid bytes.
    const struct {
        std::string text;
        long len;
        bool valid;
        size_t len_out;
        size_t text_len;
    } cases[] = {
        {kText, -1, true, 16 + strlen(kText), 41},
        {"//ABCD}", -1, false, 23, 7},
        {"//JVER}", 0, true, 0, 0},
        {"//JVER}", 16, true, 16, 0},
        {"//JVER no brace here}", 16 + 14, true, 30, 14},
        {kText, 0xFFFFFFFF, true, 4092, 41},
        {"//JVER" + std::string(4092 - 22, 'a'), 4092, true, 4092, 4076},
        {"//JVER" + std::string(4092 - 23, 'a') + "}", 0xFFFFFFFF, true, 4092, 4076},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text.substr(0, 21) + " len " + std::to_string(c.len));
        clear_logs();
        Block b = driver_block(c.text, c.len);
        unsigned int len = 7;
        EXPECT_EQ(srinfo_check_block(b.get(), &len), c.valid);
        EXPECT_EQ(len, c.len_out);
        EXPECT_EQ(b->len, c.len_out);
        EXPECT_EQ(srinfo_text_len(b.get()), c.text_len);
        EXPECT_EQ(kmsg(), c.valid ? "" : kRefused);
    }
}

TEST_F(SrinfoTest, HexRowsShowWordsAndPrintableBytes) {
    Block b =
        driver_block(std::string("\x20\x21\x22\x41\x7D\x7E\x7F\x80\xFF\x2E\x7B\x30\x39\x0A"
                                 "\x00\x5C",
                                 16));
    const struct {
        size_t len, off;
        std::string row;
    } cases[] = {
        {32, 0, "0000:03020100 07060504 0b0a0908 0f0e0d0c ................\n"},
        {32, 16, "0010:41222120 807f7e7d 307b2eff 5c000a39 ..\"A}.....{09..\\\n"},
        {20, 16, "0010:41222120 00000000 00000000 00000000 ..\"A............\n"},
        {32, 0x9af0, "9af0:00000000 00000000 00000000 00000000 ................\n"},
    };
    for (const auto& c : cases) {
        char row[kSrinfoRowLen + 1] = {};
        EXPECT_EQ(srinfo_hex_row(row, b->data, c.len, c.off), kSrinfoRowLen);
        EXPECT_EQ(row, c.row);
    }

    // A full block at a five-digit year still fits the entry's room.
    struct tm far = {};
    far.tm_year = 12345 - 1900;
    far.tm_mday = 1;
    std::vector<char> room(kSrinfoEntryMax + 16, '\xEE');
    const size_t n = srinfo_hex_entry(room.data(), far, b->data, 4092);
    ASSERT_EQ(n, 23 + 256 * kSrinfoRowLen + 1);
    EXPECT_EQ(std::string(room.data(), 24), "[12345-01-01 00:00:00]\n0");
    EXPECT_EQ(std::string(room.data() + n - kSrinfoRowLen - 1, kSrinfoRowLen + 1),
              "0ff0:00000000 00000000 00000000 00000000 ................\n\n");
    EXPECT_EQ(std::string(room.data() + kSrinfoEntryMax, 16), std::string(16, '\xEE'));
}

TEST_F(SrinfoTest, StoreKeepsTextInLastFileAndHexEntryAndHandBackReadsIt) {
    DriverStandIn s;
    s.store_srinfo(42);
    // The text through its first '}', no terminator, no line feed.
    EXPECT_EQ(read_file(kLast), std::string(kText, 41));
    EXPECT_EQ(stat_of(kLast).st_mode & 07777, 0664u);
    EXPECT_EQ(stat_of(kLast).st_gid, 0u);
    EXPECT_EQ(stat_of(kHex).st_mode & 07777, 0660u);
    EXPECT_EQ(stat_of(kHex).st_gid, 1007u);
    EXPECT_EQ(without_time(read_file(kHex)),
              "0000:03020100 07060504 0b0a0908 0f0e0d0c ................\n"
              "0010:564a2f2f 52205245 54455345 3178303d //JVER.RESET=0x1\n"
              "0020:61742032 4c3d6b73 43535f31 20444548 2.task=L1_SCHED.\n"
              "0030:303d6370 30663478 6961747d 7d787b6c pc=0x4f0}tail{x}\n\n");

    // A hand-back the driver refuses keeps the last file.
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    s.restore_srinfo(null);
    close(null);
    EXPECT_EQ(read_file(kLast), std::string(kText, 41));

    // The hand-back holds the text at data start, at most a block of it.
    std::ofstream(kLast, std::ios::binary | std::ios::trunc) << std::string(5000, 'q');
    char path[kSrinfoPathLen];
    const int fd = open_srinfo_last(path);
    Block b(read_srinfo_last(fd));
    close(fd);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(b->data), b->len), std::string(4092, 'q'));
}

TEST_F(SrinfoTest, StoreLeavesNoLastFileItCouldNotWriteWhole) {
    const std::string errdir = "/data/vendor/log/rix/err";
    const struct {
        const char* what;
        std::function<void()> make;
        long len;  // of the block, -1 for all of kText
        bool hex;
    } cases[] = {
        {"last file leads nowhere",
         [&] {
             fs::create_directories(errdir);
             fs::create_symlink("/data/none/x", kLast);
         },
         -1, false},
        // A full disk leaves no partial last file to block the stores to come.
        {"full disk",
         [&] {
             fs::create_directories(errdir);
             mount("full", errdir.c_str(), "tmpfs", 0, "size=4k");
             std::ofstream(errdir + "/filler") << std::string(4096, 'f');
         },
         -1, false},
        // A valid block without text leaves no empty last file behind either.
        {"no text", [] {}, 16, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        fs::remove_all("/data/vendor/log/rix");
        c.make();
        DriverStandIn s;
        s.record = driver_block(kText, c.len);
        s.store_srinfo(3);
        umount2(errdir.c_str(), MNT_DETACH);
        EXPECT_EQ(s.fetches, 1);
        EXPECT_FALSE(fs::is_regular_file(kLast));
        EXPECT_EQ(fs::exists(kHex), c.hex);
    }
}

TEST_F(SrinfoTest, HexLogIsCreatedForTheGroupAndKeptUpToTheLimit) {
    fs::create_directories("/data/vendor/log/rix");
    // The size found, and the log and backup after the open.
    const struct {
        size_t size;
        bool bak_dir;
        int ret;
        size_t log_after, bak_after;
    } cases[] = {
        {0, false, 0, 0, 0},
        {65536, false, 0, 65536, 0},
        {65537, false, 0, 0, 65537},
        // A backup name held by a directory with content: the log stays.
        {65537, true, -1, 65537, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.size);
        fs::remove_all(kBak);
        std::ofstream(kBak) << "older generation";
        if (c.bak_dir) {
            fs::remove(kBak);
            fs::create_directories(std::string(kBak) + "/keep");
        }
        std::ofstream(kHex, std::ios::binary | std::ios::trunc) << std::string(c.size, 'a');
        ASSERT_EQ(chown(kHex, 0, 0), 0);
        ASSERT_EQ(chmod(kHex, 0660), 0);
        const int fd = SrinfoTarn().open_srinfo_file("umts");
        EXPECT_EQ(fd < 0 ? -1 : 0, c.ret);
        close(fd);
        EXPECT_EQ(fs::file_size(kHex), c.log_after);
        EXPECT_EQ(stat_of(kHex).st_gid, 1007u);
        EXPECT_EQ(stat_of(kHex).st_mode & 07777, c.bak_after ? 0664u : 0660u);
        EXPECT_EQ(c.bak_after ? fs::file_size(kBak) : 0, c.bak_after);
    }
}

}  // namespace
