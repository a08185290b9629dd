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
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "core/rix.h"
#include "rix_test.h"
#include "srinfo/srinfo.h"

namespace {

const char kLast[] = "/data/vendor/log/rix/err/last_sr_info_umts";
const char kHex[] = "/data/vendor/log/rix/sr_info_umts";
const char kBak[] = "/data/vendor/log/rix/.sr_info_umts.bak";

struct FreeBlock {
    void operator()(srinfo_block* b) const { free(b); }
};
using Block = std::unique_ptr<srinfo_block, FreeBlock>;

// A block exactly as large as the driver's, on the heap, so that the address
// sanitizer catches any read past its end.
Block new_block() {
    return Block(static_cast<srinfo_block*>(calloc(1, sizeof(srinfo_block))));
}

// A crash-info block as the driver returns it: 16 header bytes 0x00..0x0F,
// then the text, which carries the marker "JVER" at data offset 18.
const char kText[] = "//JVER RESET=0x12 task=L1_SCHED pc=0x4f0}tail{x}";
constexpr size_t kCloseAt = 40;  // text position of the first '}'

Block driver_block(const std::string& text = kText, long len = -1) {
    Block b = new_block();
    for (int i = 0; i < 16; i++) {
        b->data[i] = static_cast<uint8_t>(i);
    }
    memcpy(b->data + 16, text.data(), text.size());
    b->len = len < 0 ? static_cast<uint32_t>(16 + text.size()) : static_cast<uint32_t>(len);
    return b;
}

struct stat stat_of(const char* path) {
    struct stat st = {};
    EXPECT_EQ(stat(path, &st), 0) << path;
    return st;
}
mode_t mode_of(const char* path) {
    return stat_of(path).st_mode & 07777;
}
bool exists(const char* path) {
    return std::filesystem::exists(path);
}

// Kernel log lines: an information line and an error line with errno's text.
std::string info(const std::string& fn, const std::string& text) {
    return "<6>cpif: rix: " + fn + ": " + text + "\n";
}
std::string err(const std::string& error, const std::string& fn, const std::string& text) {
    return "<3>cpif: rix: (ERR! " + error + ") " + fn + ": " + text + "\n";
}
std::string invalid_marker(const std::string& found) {
    return info("alloc_srinfo", "Crash info string was invalid(" + found + "/5245564a)");
}
const std::string kCheckLine =
    info("check_srinfo_last", std::string("check_srinfo_last: full_path: ") + kLast);
// The lines of opening the hex log when it holds size bytes.
std::string opening_hex_log(const std::string& size) {
    return info("open_srinfo_file", std::string("open file - ") + kHex + "(" + kBak + ")") +
           info("open_srinfo_file", "srinfo log size : " + size + "/0x10000)");
}

// A hex log entry without its time line, which must lead it. (Only the line
// goes through the regex: a long entry would exhaust its recursion.)
std::string without_time(const std::string& entry) {
    const std::regex time(R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\]\n)");
    return std::regex_match(entry.substr(0, 22), time) ? entry.substr(22)
                                                       : "no time line in: " + entry;
}

// What write_srinfo_file, which must succeed, puts into an empty file.
std::string hex_entry(uint8_t* data, unsigned len) {
    int fd = memfd_create("hex", MFD_CLOEXEC);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(SrinfoTarn().write_srinfo_file(fd, reinterpret_cast<char*>(data), len), 0);
    const std::string out = read_file("/proc/self/fd/" + std::to_string(fd));
    close(fd);
    return without_time(out);
}

// Stands in for the driver's fetch: the block it fills is `record`, and the
// checks that follow the fetch are the daemon's own.
class DriverStandIn : public SrinfoTarn {
  public:
    srinfo_block* alloc_srinfo(unsigned int* len, int fd) override {
        fetches++;
        fetch_fd = fd;
        Block b = new_block();
        memcpy(b.get(), record.get(), sizeof(srinfo_block));
        if (!srinfo_check_block(b.get(), len)) {
            return nullptr;
        }
        return b.release();
    }
    Block record = driver_block();
    int fetches = 0;
    int fetch_fd = -1;
};

class SrinfoTest : public RixTest {
  protected:
    void SetUp() override {
        RixTest::SetUp();
        ASSERT_EQ(parse({"-t", "vm420"}), 0);
        // The daemon runs under umask 002; the modes below are its effective ones.
        old_mask_ = umask(002);
        clear_logs();
    }
    void TearDown() override {
        umask(old_mask_);
        RixTest::TearDown();
    }

    // On the phone /data/vendor/log is there before the daemon runs.
    void make_parent() { std::filesystem::create_directories("/data/vendor/log"); }
    void make_dirs() { std::filesystem::create_directories("/data/vendor/log/rix/err"); }
    bool logged(const std::string& text) const { return kmsg().find(text) != std::string::npos; }

    mode_t old_mask_ = 0;
};

TEST_F(SrinfoTest, BlockIsJudgedByItsMarkerAlone) {
    unsigned int len = 7;
    EXPECT_TRUE(srinfo_check_block(driver_block().get(), &len));
    EXPECT_EQ(len, 16 + strlen(kText));
    EXPECT_EQ(kmsg(), "");

    EXPECT_FALSE(srinfo_check_block(driver_block("//ABCD}").get(), &len));
    EXPECT_EQ(kmsg(), invalid_marker("44434241"));
    EXPECT_EQ(radio(),
              "D/boot: rix: alloc_srinfo: Crash info string was invalid(44434241/5245564a)\n");

    // The marker decides, whatever length the driver gives.
    clear_logs();
    EXPECT_TRUE(srinfo_check_block(driver_block("//JVER}", 0).get(), &len));
    EXPECT_EQ(len, 0u);
    EXPECT_EQ(kmsg(), "");

    // The driver's length is bounded to the block.
    Block b = driver_block(kText, 0xFFFFFFFF);
    EXPECT_TRUE(srinfo_check_block(b.get(), &len));
    EXPECT_EQ(len, 4092u);
    EXPECT_EQ(b->len, 4092u);
}

TEST_F(SrinfoTest, TextRunsThroughTheFirstClosingBrace) {
    EXPECT_EQ(srinfo_text_len(driver_block().get()), kCloseAt + 1);
    // No '}' within the valid bytes: the text ends with them, even when the
    // bytes after them hold one.
    EXPECT_EQ(srinfo_text_len(driver_block("//JVER no brace here}", 16 + 14).get()), 14u);
    // A '}' as the very last valid byte, a block filled to the end, a length
    // past the block, and no text at all.
    Block full = driver_block("//JVER", 4092);
    memset(full->data + 22, 'a', 4092 - 22);
    for (auto [last, len, text_len] : {std::tuple{'a', 4092u, 4076u},
                                       {'}', 4092u, 4076u},
                                       {'}', 0xFFFFFFFFu, 4076u},
                                       {'}', 16u, 0u}}) {
        full->data[4091] = last;
        full->len = len;
        EXPECT_EQ(srinfo_text_len(full.get()), text_len) << "last byte " << last << ", len " << len;
    }
}

TEST_F(SrinfoTest, HexRowsShowWordsAndPrintableBytes) {
    Block b = new_block();
    for (int i = 0; i < 16; i++) {
        b->data[i] = static_cast<uint8_t>(i);
    }
    const uint8_t edge[16] = {0x20, 0x21, 0x22, 0x41, 0x7D, 0x7E, 0x7F, 0x80,
                              0xFF, 0x2E, 0x7B, 0x30, 0x39, 0x0A, 0x00, 0x5C};
    memcpy(b->data + 16, edge, sizeof(edge));
    auto row_at = [&](size_t off) {
        char row[kSrinfoRowLen + 1] = {};
        EXPECT_EQ(srinfo_hex_row(row, b->data, 32, off), kSrinfoRowLen);
        return std::string(row);
    };
    EXPECT_EQ(row_at(0), "0000:03020100 07060504 0b0a0908 0f0e0d0c ................\n");
    EXPECT_EQ(row_at(16), "0010:41222120 807f7e7d 307b2eff 5c000a39 ..\"A}.....{09..\\\n");
    // Every hex digit of the offset; past the length the row is zeros.
    EXPECT_EQ(row_at(0x9af0), "9af0:00000000 00000000 00000000 00000000 ................\n");
}

TEST_F(SrinfoTest, HexEntryHasTimeRowsAndEmptyLineAndIsFlushed) {
    Block b = new_block();
    for (int i = 0; i < 20; i++) {
        b->data[i] = static_cast<uint8_t>(0x41 + i);
    }
    b->data[20] = 0x55;  // past len: shows as zero
    EXPECT_EQ(hex_entry(b->data, 20),
              "0000:44434241 48474645 4c4b4a49 504f4e4d ABCDEFGHIJKLMNOP\n"
              "0010:54535251 00000000 00000000 00000000 QRST............\n"
              "\n");
    EXPECT_EQ(kmsg(), info("write_srinfo_file", "store to hex ascii text size=(0x14)") +
                          info("write_srinfo_file", "store done"));
    // len 0 gives the time line and the empty line only.
    EXPECT_EQ(hex_entry(b->data, 0), "\n");

    // A length beyond the room is treated as the whole room: 256 rows, the
    // last shows 12 bytes of the block and 4 zero bytes.
    memset(b->data, 0x7A, sizeof(b->data));
    for (unsigned len : {4092u, 0xFFFFFFFFu}) {
        const std::string out = hex_entry(b->data, len);
        ASSERT_EQ(out.size(), 256 * kSrinfoRowLen + 1) << len;
        EXPECT_EQ(out.substr(255 * kSrinfoRowLen),
                  "0ff0:7a7a7a7a 7a7a7a7a 7a7a7a7a 00000000 zzzzzzzzzzzz....\n\n")
            << len;
    }

    // A full block at a five-digit year still fits the entry's room.
    struct tm far = {};
    far.tm_year = 12345 - 1900;
    far.tm_mday = 1;
    std::vector<char> room(kSrinfoEntryMax + 16, '\xEE');
    const size_t n = srinfo_hex_entry(room.data(), far, b->data, 4092);
    ASSERT_LE(n, kSrinfoEntryMax);
    EXPECT_EQ(std::string(room.data(), 24), "[12345-01-01 00:00:00]\n0");
    EXPECT_EQ(std::string(room.data() + n - 2, 2), "\n\n");
    EXPECT_EQ(std::string(room.data() + kSrinfoEntryMax, 16), std::string(16, '\xEE'));

    // A pipe cannot be flushed to storage.
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    clear_logs();
    EXPECT_EQ(SrinfoTarn().write_srinfo_file(p[1], reinterpret_cast<char*>(b->data), 16), -1);
    EXPECT_EQ(kmsg(),
              info("write_srinfo_file", "store to hex ascii text size=(0x10)") +
                  err("Invalid argument", "write_srinfo_file", "ERR! fsync(srinfo_hex) fail"));
    close(p[0]);
    close(p[1]);
}

TEST_F(SrinfoTest, HexLogIsCreatedForTheGroupAndKeptUpToTheLimit) {
    make_dirs();
    auto open_and_write = [](const std::string& text) {
        int fd = SrinfoTarn().open_srinfo_file("umts");
        ASSERT_GE(fd, 0);
        ASSERT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        close(fd);
    };
    open_and_write("");
    EXPECT_EQ(mode_of(kHex), 0660u);
    EXPECT_EQ(kmsg(), opening_hex_log("0(0x0"));

    // Exactly at the limit the log is appended to.
    std::filesystem::resize_file(kHex, 65536);
    clear_logs();
    open_and_write("x");
    EXPECT_EQ(std::filesystem::file_size(kHex), 65537u);
    EXPECT_FALSE(exists(kBak));
    EXPECT_EQ(kmsg(), opening_hex_log("65536(0x10000"));

    // One byte past the limit (now) the log becomes the only backup.
    std::ofstream(kBak) << "older generation";
    ASSERT_EQ(chmod(kHex, 0660), 0);
    clear_logs();
    open_and_write("new");
    EXPECT_EQ(read_file(kHex), "new");
    EXPECT_EQ(mode_of(kHex), 0664u);
    const std::string bak = read_file(kBak);
    EXPECT_EQ(bak.size(), 65537u);
    EXPECT_EQ(bak.back(), 'x');
    EXPECT_EQ(kmsg(), opening_hex_log("65537(0x10001"));
}

TEST_F(SrinfoTest, HexLogOpenAndRotationFailures) {
    SrinfoTarn s;
    EXPECT_EQ(s.open_srinfo_file("umts"), -1);  // no log directory
    EXPECT_TRUE(logged(
        err("No such file or directory", "open_srinfo_file", std::string("open fail - ") + kHex)));

    // A backup name held by a directory with content can be neither deleted
    // nor replaced; the full log stays where it is.
    make_dirs();
    std::filesystem::create_directories(std::string(kBak) + "/keep");
    std::ofstream(kHex, std::ios::binary) << std::string(65537, 'a');
    clear_logs();
    EXPECT_EQ(s.open_srinfo_file("umts"), -1);
    EXPECT_TRUE(logged(err("Is a directory", "open_srinfo_file",
                           std::string("rename (") + kHex + " -> " + kBak + ") file fail")));
    EXPECT_EQ(std::filesystem::file_size(kHex), 65537u);

    // A name that does not fit the path is refused before anything is opened.
    clear_logs();
    EXPECT_EQ(s.open_srinfo_file(std::string(40, 'n').c_str()), -1);
    EXPECT_TRUE(logged("<3>cpif: rix: (ERR! File name too long) open_srinfo_file: open fail"));
}

// The block read back from the last file.
Block hand_back() {
    char path[kSrinfoPathLen];
    int fd = open_srinfo_last(path);
    EXPECT_GE(fd, 0);
    EXPECT_STREQ(path, kLast);
    Block b(read_srinfo_last(fd));
    close(fd);
    return b;
}

TEST_F(SrinfoTest, StoreKeepsTextInLastFileAndHexEntryAndHandsTheTextBack) {
    make_parent();
    DriverStandIn s;
    s.store_srinfo(42);
    EXPECT_EQ(s.fetches, 1);
    EXPECT_EQ(s.fetch_fd, 42);

    // The text through its first '}', no terminator, no line feed.
    EXPECT_EQ(read_file(kLast), std::string(kText, kCloseAt + 1));
    EXPECT_EQ(mode_of(kLast), 0664u);
    EXPECT_EQ(mode_of(kHex), 0660u);
    EXPECT_EQ(without_time(read_file(kHex)),
              "0000:03020100 07060504 0b0a0908 0f0e0d0c ................\n"
              "0010:564a2f2f 52205245 54455345 3178303d //JVER.RESET=0x1\n"
              "0020:61742032 4c3d6b73 43535f31 20444548 2.task=L1_SCHED.\n"
              "0030:303d6370 30663478 6961747d 7d787b6c pc=0x4f0}tail{x}\n"
              "\n");
    EXPECT_EQ(kmsg(),
              kCheckLine + info("create_directory", "log path (/data/vendor/log/rix) created") +
                  info("create_directory", "log path (/data/vendor/log/rix/err) created") +
                  info("create_srinfo_last", std::string("create last_sr_info file - ") + kLast) +
                  info("write_srinfo_last", "store to ascii text (40 bytes)") +
                  opening_hex_log("0(0x0") +
                  info("write_srinfo_file", "store to hex ascii text size=(0x40)") +
                  info("write_srinfo_file", "store done"));

    // While a block waits in the last file, the driver is not even asked.
    const std::string last = read_file(kLast), hex = read_file(kHex);
    clear_logs();
    s.record = driver_block("//JVER other}");
    s.store_srinfo(3);
    EXPECT_EQ(s.fetches, 1);
    EXPECT_EQ(read_file(kLast), last);
    EXPECT_EQ(read_file(kHex), hex);
    EXPECT_EQ(kmsg(), kCheckLine + info("store_srinfo", "srinfo_last file exist, skip!"));

    // No '}' in the valid bytes: the text ends with them, though the driver's
    // bytes after len hold a '}'.
    std::filesystem::remove(kLast);
    std::filesystem::remove(kHex);
    s.record = driver_block("//JVER no brace}", 16 + 14);
    s.store_srinfo(3);
    EXPECT_EQ(read_file(kLast), "//JVER no brac");
    EXPECT_TRUE(logged(info("write_srinfo_last", "store to ascii text (13 bytes)")));
    EXPECT_EQ(without_time(read_file(kHex)),
              "0000:03020100 07060504 0b0a0908 0f0e0d0c ................\n"
              "0010:564a2f2f 6e205245 7262206f 00006361 //JVER.no.brac..\n\n");

    // The hand-back holds the last file's text at data start.
    Block b = hand_back();
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->len, 14u);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(b->data), b->len), "//JVER no brac");
    EXPECT_EQ(b->data[b->len], 0);
    EXPECT_EQ(b->data[4091], 0);

    // A last file longer than the block fills the room and no more.
    std::string big(5000, 'q');
    std::ofstream(kLast, std::ios::binary | std::ios::trunc) << big;
    Block full = hand_back();
    ASSERT_NE(full, nullptr);
    EXPECT_EQ(full->len, 4092u);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(full->data), 4092), big.substr(0, 4092));
}

TEST_F(SrinfoTest, InvalidOrRefusedBlockTouchesNoFile) {
    make_parent();
    DriverStandIn s;
    s.record = driver_block("//ABCD}");
    s.store_srinfo(3);
    EXPECT_EQ(kmsg(),
              kCheckLine + invalid_marker("44434241") + info("store_srinfo", "alloc srinfo fail"));
    EXPECT_FALSE(exists("/data/vendor/log/rix"));

    // The real fetch on a descriptor that is no driver.
    clear_logs();
    int fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    SrinfoTarn real;
    unsigned int len = 99;
    EXPECT_EQ(real.alloc_srinfo(&len, fd), nullptr);
    EXPECT_EQ(len, 0u);
    clear_logs();
    real.store_srinfo(fd);
    EXPECT_EQ(kmsg(), kCheckLine +
                          err("Inappropriate ioctl for device", "alloc_srinfo",
                              "ioctl fail - Get srinfo(-1)") +
                          info("store_srinfo", "alloc srinfo fail"));
    EXPECT_EQ(radio(),
              "D/boot: rix: check_srinfo_last: check_srinfo_last: full_path: "
              "/data/vendor/log/rix/err/last_sr_info_umts\n"
              "E/boot: rix: (ERR! Inappropriate ioctl for device) alloc_srinfo: "
              "ioctl fail - Get srinfo(-1)\n"
              "D/boot: rix: store_srinfo: alloc srinfo fail\n");
    EXPECT_FALSE(exists("/data/vendor/log/rix"));
    close(fd);
}

TEST_F(SrinfoTest, StoreStopsWhereAFileCannotBeMade) {
    make_parent();
    DriverStandIn s;
    // The error directory is taken by a file.
    std::filesystem::create_directories("/data/vendor/log/rix");
    std::ofstream("/data/vendor/log/rix/err") << "";
    s.store_srinfo(3);
    EXPECT_EQ(s.fetches, 1);
    EXPECT_TRUE(logged(info("create_directory", "(/data/vendor/log/rix/err) is not a directory")));
    EXPECT_FALSE(logged("create_srinfo_last"));
    EXPECT_FALSE(exists(kHex));

    // The last file's name leads nowhere.
    std::filesystem::remove("/data/vendor/log/rix/err");
    make_dirs();
    std::filesystem::create_symlink("/data/nowhere/last", kLast);
    clear_logs();
    s.store_srinfo(3);
    EXPECT_EQ(s.fetches, 2);
    EXPECT_TRUE(
        logged(err("No such file or directory", "create_srinfo_last", "last_sr_info create fail") +
               info("store_srinfo", "sr_info_last open fail(-1)")));
    EXPECT_FALSE(exists(kHex));

    // The hex log's name is taken by a directory: the last file is kept.
    std::filesystem::remove(kLast);
    std::filesystem::create_directory(kHex);
    clear_logs();
    s.store_srinfo(3);
    EXPECT_EQ(read_file(kLast), std::string(kText, kCloseAt + 1));
    EXPECT_TRUE(
        logged(err("Is a directory", "open_srinfo_file", std::string("open fail - ") + kHex) +
               info("store_srinfo", "sr_info_last create fail(-1)")));

    // A full disk cuts the text short: no last file is left to block the
    // stores to come, and none is handed back. With room again, the next
    // store works.
    std::filesystem::remove(kLast);
    std::filesystem::remove(kHex);
    const char* err_dir = "/data/vendor/log/rix/err";
    ASSERT_EQ(mount("full", err_dir, "tmpfs", 0, "size=4k"), 0);
    std::shared_ptr<void> unmount(nullptr, [=](void*) { umount2(err_dir, MNT_DETACH); });
    std::ofstream(std::string(err_dir) + "/filler") << std::string(4096, 'f');
    clear_logs();
    s.store_srinfo(3);
    EXPECT_TRUE(logged(info("store_srinfo", "srinfo_last write fail(-1)")));
    EXPECT_FALSE(exists(kLast));
    EXPECT_FALSE(exists(kHex));
    std::filesystem::remove(std::string(err_dir) + "/filler");
    s.store_srinfo(3);
    EXPECT_EQ(s.fetches, 5);
    EXPECT_EQ(read_file(kLast), std::string(kText, kCloseAt + 1));

    // A valid block without text leaves no empty last file behind either.
    std::filesystem::remove(kLast);
    s.record = driver_block("//JVER}", 0);
    s.store_srinfo(3);
    EXPECT_FALSE(exists(kLast));
    EXPECT_TRUE(exists(kHex));
}

TEST_F(SrinfoTest, HexLogBelongsToGroupLogAlsoAfterRotation) {
    // The phone's group database, with the group "log", over the host's for
    // this test (the tests run in a mount namespace of their own).
    const std::string group = dir_ + "/group";
    std::ofstream(group) << "root:x:0:\nlog:x:1007:\n";
    ASSERT_EQ(mount(group.c_str(), "/etc/group", nullptr, MS_BIND, nullptr), 0);
    std::shared_ptr<void> unmount(nullptr, [](void*) { umount2("/etc/group", MNT_DETACH); });
    make_parent();
    DriverStandIn s;
    s.store_srinfo(3);
    EXPECT_EQ(stat_of(kHex).st_gid, 1007u);
    EXPECT_EQ(stat_of(kLast).st_gid, 0u);  // the last file is not the log group's

    std::filesystem::remove(kLast);
    ASSERT_EQ(chown(kHex, 0, 0), 0);
    std::filesystem::resize_file(kHex, 65537);
    s.store_srinfo(3);
    EXPECT_TRUE(exists(kBak));
    EXPECT_EQ(stat_of(kHex).st_gid, 1007u);
    EXPECT_EQ(mode_of(kHex), 0664u);
}

TEST_F(SrinfoTest, FailedHandBackKeepsTheLastFile) {
    const std::string opening =
        info("open_srinfo_last", std::string("open last_sr_info file - ") + kLast);
    SrinfoTarn s;
    s.restore_srinfo(3);  // no block waits
    EXPECT_EQ(kmsg(),
              opening +
                  err("No such file or directory", "open_srinfo_last", "last_sr_info open fail") +
                  info("restore_srinfo", "sr_info_last open fail(-1)"));

    // An empty last file has nothing to hand back. The read gives 0 bytes
    // without an error of its own: the line is an error line with whatever
    // errno holds.
    make_dirs();
    std::ofstream(kLast) << "";
    clear_logs();
    s.restore_srinfo(3);
    EXPECT_TRUE(std::regex_search(
        kmsg(),
        std::regex(
            R"(\n<3>cpif: rix: \(ERR! [^)]*\) restore_srinfo: last_sr_info file read fail\n$)")))
        << kmsg();
    EXPECT_TRUE(exists(kLast));

    // The driver refuses the text.
    std::ofstream(kLast, std::ios::binary) << "//JVER x}";
    int fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    clear_logs();
    s.restore_srinfo(fd);
    close(fd);
    EXPECT_EQ(kmsg(), opening + err("Inappropriate ioctl for device", "restore_srinfo",
                                    "ioctl fail - Set srinfo(-1)"));
    EXPECT_EQ(read_file(kLast), "//JVER x}");
}

}  // namespace
