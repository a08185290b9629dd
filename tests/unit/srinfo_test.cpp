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

std::string file_text(const char* path) {
    return read_file(path);
}

mode_t mode_of(const char* path) {
    struct stat st;
    EXPECT_EQ(stat(path, &st), 0) << path;
    return st.st_mode & 07777;
}

bool exists(const char* path) {
    return std::filesystem::exists(path);
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

    mode_t old_mask_ = 0;
};

// ---- The fetched block ----

TEST_F(SrinfoTest, BlockNeedsItsMarkerWithinTheValidBytes) {
    unsigned int len = 7;
    Block ok = driver_block();
    EXPECT_TRUE(srinfo_check_block(ok.get(), &len));
    EXPECT_EQ(len, 16 + strlen(kText));
    EXPECT_EQ(kmsg(), "");

    Block wrong = driver_block("//ABCD}");
    EXPECT_FALSE(srinfo_check_block(wrong.get(), &len));
    EXPECT_EQ(kmsg(),
              "<6>cpif: rix: alloc_srinfo: Crash info string was invalid(44434241/5245564a)\n");
    EXPECT_EQ(radio(),
              "D/boot: rix: alloc_srinfo: Crash info string was invalid(44434241/5245564a)\n");

    // The marker bytes are there, but the driver says they are not valid.
    clear_logs();
    Block shorter = driver_block("//JVER}", 21);
    EXPECT_FALSE(srinfo_check_block(shorter.get(), &len));
    EXPECT_EQ(len, 21u);
    EXPECT_EQ(kmsg(),
              "<6>cpif: rix: alloc_srinfo: Crash info string was invalid(5245564a/5245564a)\n");
    Block just = driver_block("//JVER", 22);
    EXPECT_TRUE(srinfo_check_block(just.get(), &len));
}

TEST_F(SrinfoTest, DriverLengthIsBoundedToTheBlock) {
    unsigned int len = 0;
    Block b = driver_block(kText, 0xFFFFFFFF);
    EXPECT_TRUE(srinfo_check_block(b.get(), &len));
    EXPECT_EQ(len, 4092u);
    EXPECT_EQ(b->len, 4092u);
}

TEST_F(SrinfoTest, TextRunsThroughTheFirstClosingBrace) {
    EXPECT_EQ(srinfo_text_len(driver_block().get()), kCloseAt + 1);
    // No '}' within the valid bytes: the text ends with them, even when the
    // bytes after them hold one.
    Block open = driver_block("//JVER no brace here}", 16 + 14);
    EXPECT_EQ(srinfo_text_len(open.get()), 14u);
    // A '}' as the very last valid byte, and a block filled to the end.
    Block full = driver_block("//JVER", 4092);
    memset(full->data + 22, 'a', 4092 - 22);
    EXPECT_EQ(srinfo_text_len(full.get()), 4092u - 16);
    full->data[4091] = '}';
    EXPECT_EQ(srinfo_text_len(full.get()), 4092u - 16);
    // A length past the block is never followed.
    full->len = 0xFFFFFFFF;
    EXPECT_EQ(srinfo_text_len(full.get()), 4092u - 16);
    full->len = 16;
    EXPECT_EQ(srinfo_text_len(full.get()), 0u);
}

// ---- The hex log entry ----

TEST_F(SrinfoTest, HexRowsShowWordsAndPrintableBytes) {
    Block b = new_block();
    for (int i = 0; i < 16; i++) {
        b->data[i] = static_cast<uint8_t>(i);
    }
    const uint8_t edge[16] = {0x20, 0x21, 0x22, 0x41, 0x7D, 0x7E, 0x7F, 0x80,
                              0xFF, 0x2E, 0x7B, 0x30, 0x39, 0x0A, 0x00, 0x5C};
    memcpy(b->data + 16, edge, sizeof(edge));
    char row[kSrinfoRowLen + 1] = {};
    ASSERT_EQ(srinfo_hex_row(row, b->data, 32, 0), kSrinfoRowLen);
    EXPECT_EQ(std::string(row), "0000:03020100 07060504 0b0a0908 0f0e0d0c ................\n");
    srinfo_hex_row(row, b->data, 32, 16);
    EXPECT_EQ(std::string(row), "0010:41222120 807f7e7d 307b2eff 5c000a39 ..\"A}.....{09..\\\n");
    // Every hex digit of the offset; past the length the row is zeros.
    memset(row, 0, sizeof(row));
    srinfo_hex_row(row, b->data, 32, 0x9af0);
    EXPECT_EQ(std::string(row), "9af0:00000000 00000000 00000000 00000000 ................\n");
}

TEST_F(SrinfoTest, HexEntryHasTimeRowsAndEmptyLine) {
    int fd = memfd_create("hex", MFD_CLOEXEC);
    ASSERT_GE(fd, 0);
    Block b = new_block();
    for (int i = 0; i < 20; i++) {
        b->data[i] = static_cast<uint8_t>(0x41 + i);
    }
    b->data[20] = 0x55;  // past len: shows as zero
    SrinfoTarn s;
    EXPECT_EQ(s.write_srinfo_file(fd, reinterpret_cast<char*>(b->data), 20), 0);
    std::string out(512, '\0');
    out.resize(pread(fd, out.data(), out.size(), 0));
    std::smatch m;
    ASSERT_TRUE(
        std::regex_match(out, m, std::regex(R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\]\n([\s\S]*))")))
        << out;
    EXPECT_EQ(m[1].str(),
              "0000:44434241 48474645 4c4b4a49 504f4e4d ABCDEFGHIJKLMNOP\n"
              "0010:54535251 00000000 00000000 00000000 QRST............\n"
              "\n");
    EXPECT_EQ(kmsg(),
              "<6>cpif: rix: write_srinfo_file: store to hex ascii text size=(0x14)\n"
              "<6>cpif: rix: write_srinfo_file: store done\n");

    // len 0 gives the time line and the empty line only.
    ASSERT_EQ(ftruncate(fd, 0), 0);
    ASSERT_EQ(lseek(fd, 0, SEEK_SET), 0);
    EXPECT_EQ(s.write_srinfo_file(fd, reinterpret_cast<char*>(b->data), 0), 0);
    out.assign(512, '\0');
    out.resize(pread(fd, out.data(), out.size(), 0));
    EXPECT_TRUE(std::regex_match(out, std::regex(R"(\[[^\]]*\]\n\n)"))) << out;
    close(fd);
}

TEST_F(SrinfoTest, FullBlockListingNeverReadsPastTheBlock) {
    int fd = memfd_create("hex", MFD_CLOEXEC);
    ASSERT_GE(fd, 0);
    Block b = new_block();
    memset(b->data, 0x7A, sizeof(b->data));
    SrinfoTarn s;
    // A length beyond the room is treated as the whole room.
    for (unsigned len : {4092u, 0xFFFFFFFFu}) {
        ASSERT_EQ(ftruncate(fd, 0), 0);
        ASSERT_EQ(lseek(fd, 0, SEEK_SET), 0);
        EXPECT_EQ(s.write_srinfo_file(fd, reinterpret_cast<char*>(b->data), len), 0);
        struct stat st;
        ASSERT_EQ(fstat(fd, &st), 0);
        std::string out(st.st_size, '\0');
        ASSERT_EQ(pread(fd, out.data(), out.size(), 0), st.st_size);
        // 256 rows; the last shows 12 bytes of the block and 4 zero bytes.
        EXPECT_EQ(out.size(), 22u + 256 * kSrinfoRowLen + 1);
        EXPECT_NE(out.find("0ff0:7a7a7a7a 7a7a7a7a 7a7a7a7a 00000000 zzzzzzzzzzzz....\n\n"),
                  std::string::npos);
    }
    close(fd);
}

TEST_F(SrinfoTest, FailedFlushOfTheHexLogIsReported) {
    int p[2];
    ASSERT_EQ(pipe(p), 0);  // a pipe cannot be flushed to storage
    Block b = driver_block();
    SrinfoTarn s;
    EXPECT_EQ(s.write_srinfo_file(p[1], reinterpret_cast<char*>(b->data), 16), -1);
    EXPECT_EQ(kmsg(),
              "<6>cpif: rix: write_srinfo_file: store to hex ascii text size=(0x10)\n"
              "<3>cpif: rix: (ERR! Invalid argument) write_srinfo_file: ERR! fsync(srinfo_hex) "
              "fail\n");
    close(p[0]);
    close(p[1]);
}

// ---- The hex log file and its rotation ----

TEST_F(SrinfoTest, HexLogIsCreatedForTheGroupAndKeptUpToTheLimit) {
    make_dirs();
    SrinfoTarn s;
    int fd = s.open_srinfo_file("umts");
    ASSERT_GE(fd, 0);
    close(fd);
    EXPECT_EQ(mode_of(kHex), 0660u);
    EXPECT_EQ(kmsg(),
              "<6>cpif: rix: open_srinfo_file: open file - "
              "/data/vendor/log/rix/sr_info_umts(/data/vendor/log/rix/.sr_info_umts.bak)\n"
              "<6>cpif: rix: open_srinfo_file: srinfo log size : 0(0x0/0x10000)\n");

    // Exactly at the limit the log is appended to.
    std::filesystem::resize_file(kHex, 65536);
    clear_logs();
    fd = s.open_srinfo_file("umts");
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, "x", 1), 1);
    close(fd);
    EXPECT_EQ(std::filesystem::file_size(kHex), 65537u);
    EXPECT_FALSE(exists(kBak));
    EXPECT_NE(kmsg().find("srinfo log size : 65536(0x10000/0x10000)\n"), std::string::npos);
}

TEST_F(SrinfoTest, HexLogPastTheLimitBecomesTheOnlyBackup) {
    make_dirs();
    std::ofstream(kBak) << "older generation";
    {
        std::ofstream hex(kHex, std::ios::binary);
        hex << std::string(65536, 'a') << "z";
    }
    ASSERT_EQ(chmod(kHex, 0660), 0);
    SrinfoTarn s;
    int fd = s.open_srinfo_file("umts");
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, "new", 3), 3);
    close(fd);
    EXPECT_EQ(file_text(kHex), "new");
    EXPECT_EQ(mode_of(kHex), 0664u);
    EXPECT_EQ(std::filesystem::file_size(kBak), 65537u);
    EXPECT_EQ(file_text(kBak).back(), 'z');
    EXPECT_EQ(kmsg(),
              "<6>cpif: rix: open_srinfo_file: open file - "
              "/data/vendor/log/rix/sr_info_umts(/data/vendor/log/rix/.sr_info_umts.bak)\n"
              "<6>cpif: rix: open_srinfo_file: srinfo log size : 65537(0x10001/0x10000)\n");
}

TEST_F(SrinfoTest, HexLogOpenAndRotationFailures) {
    SrinfoTarn s;
    EXPECT_EQ(s.open_srinfo_file("umts"), -1);  // no log directory
    EXPECT_NE(kmsg().find("<3>cpif: rix: (ERR! No such file or directory) open_srinfo_file: "
                          "open fail - /data/vendor/log/rix/sr_info_umts\n"),
              std::string::npos);

    // A backup name held by a directory with content can be neither deleted
    // nor replaced; the full log stays where it is.
    make_dirs();
    std::filesystem::create_directories(std::string(kBak) + "/keep");
    std::ofstream(kHex, std::ios::binary) << std::string(65537, 'a');
    clear_logs();
    EXPECT_EQ(s.open_srinfo_file("umts"), -1);
    EXPECT_NE(kmsg().find("<3>cpif: rix: (ERR! Is a directory) open_srinfo_file: rename "
                          "(/data/vendor/log/rix/sr_info_umts -> "
                          "/data/vendor/log/rix/.sr_info_umts.bak) file fail\n"),
              std::string::npos);
    EXPECT_EQ(std::filesystem::file_size(kHex), 65537u);

    // A name that does not fit the path is refused before anything is opened.
    clear_logs();
    EXPECT_EQ(s.open_srinfo_file(std::string(40, 'n').c_str()), -1);
    EXPECT_NE(kmsg().find("<3>cpif: rix: (ERR! File name too long) open_srinfo_file: open fail"),
              std::string::npos);
}

// ---- Store ----

const char kCheckLine[] =
    "<6>cpif: rix: check_srinfo_last: check_srinfo_last: full_path: "
    "/data/vendor/log/rix/err/last_sr_info_umts\n";

TEST_F(SrinfoTest, StoreKeepsTextInLastFileAndAppendsHexEntry) {
    make_parent();
    DriverStandIn s;
    s.store_srinfo(42);
    EXPECT_EQ(s.fetches, 1);
    EXPECT_EQ(s.fetch_fd, 42);

    // The text through its first '}', no terminator, no line feed.
    EXPECT_EQ(file_text(kLast), std::string(kText, kCloseAt + 1));
    EXPECT_EQ(mode_of(kLast), 0664u);
    EXPECT_EQ(mode_of(kHex), 0660u);
    const std::string hex = file_text(kHex);
    std::smatch m;
    ASSERT_TRUE(
        std::regex_match(hex, m, std::regex(R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\]\n([\s\S]*))")))
        << hex;
    EXPECT_EQ(m[1].str(),
              "0000:03020100 07060504 0b0a0908 0f0e0d0c ................\n"
              "0010:564a2f2f 52205245 54455345 3178303d //JVER.RESET=0x1\n"
              "0020:61742032 4c3d6b73 43535f31 20444548 2.task=L1_SCHED.\n"
              "0030:303d6370 30663478 6961747d 7d787b6c pc=0x4f0}tail{x}\n"
              "\n");
    EXPECT_EQ(kmsg(),
              std::string(kCheckLine) +
                  "<6>cpif: rix: create_directory: log path (/data/vendor/log/rix) created\n"
                  "<6>cpif: rix: create_directory: log path (/data/vendor/log/rix/err) "
                  "created\n"
                  "<6>cpif: rix: create_srinfo_last: create last_sr_info file - "
                  "/data/vendor/log/rix/err/last_sr_info_umts\n"
                  "<6>cpif: rix: write_srinfo_last: store to ascii text (40 bytes)\n"
                  "<6>cpif: rix: open_srinfo_file: open file - "
                  "/data/vendor/log/rix/sr_info_umts(/data/vendor/log/rix/"
                  ".sr_info_umts.bak)\n"
                  "<6>cpif: rix: open_srinfo_file: srinfo log size : 0(0x0/0x10000)\n"
                  "<6>cpif: rix: write_srinfo_file: store to hex ascii text size=(0x40)\n"
                  "<6>cpif: rix: write_srinfo_file: store done\n");
}

TEST_F(SrinfoTest, StoreIsSkippedWhileABlockWaits) {
    make_parent();
    DriverStandIn s;
    s.store_srinfo(3);
    const std::string last = file_text(kLast);
    const std::string hex = file_text(kHex);
    clear_logs();
    s.record = driver_block("//JVER other}");
    s.store_srinfo(3);
    EXPECT_EQ(s.fetches, 1);  // the driver is not even asked
    EXPECT_EQ(file_text(kLast), last);
    EXPECT_EQ(file_text(kHex), hex);
    EXPECT_EQ(kmsg(), std::string(kCheckLine) +
                          "<6>cpif: rix: store_srinfo: srinfo_last file exist, skip!\n");
}

TEST_F(SrinfoTest, InvalidOrRefusedBlockTouchesNoFile) {
    make_parent();
    DriverStandIn s;
    s.record = driver_block("//ABCD}");
    s.store_srinfo(3);
    EXPECT_EQ(kmsg(), std::string(kCheckLine) +
                          "<6>cpif: rix: alloc_srinfo: Crash info string was "
                          "invalid(44434241/5245564a)\n"
                          "<6>cpif: rix: store_srinfo: alloc srinfo fail\n");
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
    EXPECT_EQ(kmsg(), std::string(kCheckLine) +
                          "<3>cpif: rix: (ERR! Inappropriate ioctl for device) alloc_srinfo: "
                          "ioctl fail - Get srinfo(-1)\n"
                          "<6>cpif: rix: store_srinfo: alloc srinfo fail\n");
    EXPECT_EQ(radio(),
              "D/boot: rix: check_srinfo_last: check_srinfo_last: full_path: "
              "/data/vendor/log/rix/err/last_sr_info_umts\n"
              "E/boot: rix: (ERR! Inappropriate ioctl for device) alloc_srinfo: "
              "ioctl fail - Get srinfo(-1)\n"
              "D/boot: rix: store_srinfo: alloc srinfo fail\n");
    EXPECT_FALSE(exists("/data/vendor/log/rix"));
    close(fd);
}

TEST_F(SrinfoTest, TextWithoutBraceEndsWithTheValidBytes) {
    make_parent();
    DriverStandIn s;
    // The driver's bytes after len hold a '}' that must not be reached.
    s.record = driver_block("//JVER no brace}", 16 + 14);
    s.store_srinfo(3);
    EXPECT_EQ(file_text(kLast), "//JVER no brac");
    EXPECT_NE(kmsg().find("write_srinfo_last: store to ascii text (13 bytes)\n"),
              std::string::npos);
    EXPECT_NE(file_text(kHex).find("0010:564a2f2f 6e205245 7262206f 00006361 //JVER.no.brac..\n\n"),
              std::string::npos);
}

TEST_F(SrinfoTest, StoreStopsWhereAFileCannotBeMade) {
    make_parent();
    DriverStandIn s;
    // The error directory is taken by a file.
    std::filesystem::create_directories("/data/vendor/log/rix");
    std::ofstream("/data/vendor/log/rix/err") << "";
    s.store_srinfo(3);
    EXPECT_EQ(s.fetches, 1);
    EXPECT_NE(kmsg().find("<6>cpif: rix: create_directory: (/data/vendor/log/rix/err) is not a "
                          "directory\n"),
              std::string::npos);
    EXPECT_EQ(kmsg().find("create_srinfo_last"), std::string::npos);
    EXPECT_FALSE(exists(kHex));

    // The last file's name leads nowhere.
    std::filesystem::remove("/data/vendor/log/rix/err");
    make_dirs();
    std::filesystem::create_symlink("/data/nowhere/last", kLast);
    clear_logs();
    s.store_srinfo(3);
    EXPECT_EQ(s.fetches, 2);
    EXPECT_NE(kmsg().find("<3>cpif: rix: (ERR! No such file or directory) create_srinfo_last: "
                          "last_sr_info create fail\n"
                          "<6>cpif: rix: store_srinfo: sr_info_last open fail(-1)\n"),
              std::string::npos);
    EXPECT_FALSE(exists(kHex));

    // The hex log's name is taken by a directory: the last file is kept.
    std::filesystem::remove(kLast);
    std::filesystem::create_directory(kHex);
    clear_logs();
    s.store_srinfo(3);
    EXPECT_EQ(file_text(kLast), std::string(kText, kCloseAt + 1));
    EXPECT_NE(kmsg().find("<3>cpif: rix: (ERR! Is a directory) open_srinfo_file: open fail - "
                          "/data/vendor/log/rix/sr_info_umts\n"
                          "<6>cpif: rix: store_srinfo: sr_info_last create fail(-1)\n"),
              std::string::npos);
}

// ---- Restore ----

TEST_F(SrinfoTest, RestoreWithoutWaitingBlock) {
    SrinfoTarn s;
    s.restore_srinfo(3);
    EXPECT_EQ(kmsg(),
              "<6>cpif: rix: open_srinfo_last: open last_sr_info file - "
              "/data/vendor/log/rix/err/last_sr_info_umts\n"
              "<3>cpif: rix: (ERR! No such file or directory) open_srinfo_last: last_sr_info "
              "open fail\n"
              "<6>cpif: rix: restore_srinfo: sr_info_last open fail(-1)\n");
}

TEST_F(SrinfoTest, HandBackHoldsTheLastFileTextAtDataStart) {
    make_parent();
    DriverStandIn s;
    s.store_srinfo(3);
    char path[kSrinfoPathLen];
    int fd = open_srinfo_last(path);
    ASSERT_GE(fd, 0);
    EXPECT_STREQ(path, kLast);
    Block b(read_srinfo_last(fd));
    close(fd);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->len, kCloseAt + 1);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(b->data), b->len),
              std::string(kText, kCloseAt + 1));
    EXPECT_EQ(b->data[b->len], 0);
    EXPECT_EQ(b->data[4091], 0);

    // A last file longer than the block fills the room and no more.
    std::string big(5000, 'q');
    std::ofstream(kLast, std::ios::binary | std::ios::trunc) << big;
    fd = open_srinfo_last(path);
    ASSERT_GE(fd, 0);
    Block full(read_srinfo_last(fd));
    close(fd);
    ASSERT_NE(full, nullptr);
    EXPECT_EQ(full->len, 4092u);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(full->data), 4092), big.substr(0, 4092));
}

TEST_F(SrinfoTest, FailedHandBackKeepsTheLastFile) {
    make_dirs();
    // An empty last file has nothing to hand back.
    std::ofstream(kLast) << "";
    SrinfoTarn s;
    s.restore_srinfo(3);
    // The read gives 0 bytes without an error of its own: the line is an
    // error line with whatever errno holds.
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
    EXPECT_EQ(kmsg(),
              "<6>cpif: rix: open_srinfo_last: open last_sr_info file - "
              "/data/vendor/log/rix/err/last_sr_info_umts\n"
              "<3>cpif: rix: (ERR! Inappropriate ioctl for device) restore_srinfo: ioctl fail - "
              "Set srinfo(-1)\n");
    EXPECT_EQ(file_text(kLast), "//JVER x}");
}

}  // namespace

namespace {

// The phone's group database, with the group "log", over the host's for one
// test (the tests run in a mount namespace of their own).
class WithLogGroup {
  public:
    explicit WithLogGroup(const std::string& dir) {
        const std::string file = dir + "/group";
        std::ofstream(file) << "root:x:0:\nlog:x:1007:\n";
        mounted_ = mount(file.c_str(), "/etc/group", nullptr, MS_BIND, nullptr) == 0;
    }
    ~WithLogGroup() {
        if (mounted_) {
            umount2("/etc/group", MNT_DETACH);
        }
    }
    bool mounted() const { return mounted_; }

  private:
    bool mounted_ = false;
};

gid_t gid_of(const char* path) {
    struct stat st;
    EXPECT_EQ(stat(path, &st), 0) << path;
    return st.st_gid;
}

TEST_F(SrinfoTest, HexLogBelongsToGroupLogAlsoAfterRotation) {
    WithLogGroup group(dir_);
    ASSERT_TRUE(group.mounted());
    make_parent();
    DriverStandIn s;
    s.store_srinfo(3);
    EXPECT_EQ(gid_of(kHex), 1007u);
    EXPECT_EQ(gid_of(kLast), 0u);  // the last file is not the log group's

    std::filesystem::remove(kLast);
    ASSERT_EQ(chown(kHex, 0, 0), 0);
    std::filesystem::resize_file(kHex, 65537);
    s.store_srinfo(3);
    EXPECT_TRUE(exists(kBak));
    EXPECT_EQ(gid_of(kHex), 1007u);
    EXPECT_EQ(mode_of(kHex), 0664u);
}

}  // namespace
