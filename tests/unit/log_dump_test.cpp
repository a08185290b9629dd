// CP log regions: the region and count requests (refused by a socket, as by a
// driver without them) and the streaming of a region into its own file.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "boot/boot_dump.h"
#include "core/rix.h"
#include "cp_peer.h"
#include "dump/log_dump.h"
#include "dump/protocol.h"
#include "log/log.h"
#include "rix_test.h"

namespace {

using cp_peer::Bytes;
using cp_peer::pattern;
namespace fs = std::filesystem;

class LogDumpTest : public RixTest {
  protected:
    void SetUp() override {
        RixTest::SetUp();
        ASSERT_EQ(parse({"-t", "vm420"}), 0);
        Container::protocol = new ProtocolTarn();
        d_ = Container::getStdDump();
        d_->fd = node_.ap;
        d_->log_fd =
            open((dir_ + "/cpcrash_log").c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        ASSERT_GE(d_->log_fd, 3);
        fs::create_directories(kLogDir);
        old_mask_ = umask(002);
        clear_logs();
    }
    void TearDown() override {
        umask(old_mask_);
        close(d_->log_fd);
        d_->fd = d_->log_fd = -1;
        RixTest::TearDown();
    }
    std::string dump_log() const { return read_file(dir_ + "/cpcrash_log"); }

    // The region files of one name.
    static std::vector<std::string> region_files(const std::string& name = "") {
        std::vector<std::string> out;
        for (const auto& e : fs::directory_iterator(kLogDir)) {
            if (e.path().filename().string().rfind("cpcrash_" + name, 0) == 0) {
                out.push_back(e.path().string());
            }
        }
        return out;
    }

    std_dump* d_ = nullptr;
    cp_peer::Node node_;
    mode_t old_mask_ = 0;
};

std::string time_stamp(time_t t) {
    struct tm tm = {};
    localtime_r(&t, &tm);
    char buf[64];
    strftime(buf, sizeof(buf), "%Y%m%d-%H%M_%S", &tm);
    return buf;
}

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

size_t open_fds() {
    const fs::directory_iterator it("/proc/self/fd");
    return std::distance(begin(it), end(it));
}

TEST_F(LogDumpTest, RegionGoesToItsOwnFileChunkByChunk) {
    const Bytes a = pattern(0, 1, 4096), b = pattern(0, 2, 904);
    enum End { kOpen, kEnded, kHungUp };  // the node after the queued chunks
    const struct {
        const char* name;
        std::vector<Bytes> chunks;
        End end;
        uint32_t size;
        int ret;
        Bytes file;
        std::string log_end;
        int unread;
    } cases[] = {
        // The last chunk is written whole; a third chunk is left on the node.
        {"shmem", {a, b}, kOpen, 5000, 904, a + b, "Complete! (5000 bytes)\n", 0},
        {"vss", {a, a, pattern(0, 3, 10)}, kOpen, 5000, 4096, a + a, "Complete! (8192 bytes)\n", 1},
        {"databuf", {}, kOpen, 0, 0, {}, "Complete! (0 bytes)\n", 0},
        // A node that reads 0 bytes, or fails the wait, ends the region as a
        // failure; what came stays.
        {"l2b",
         {pattern(0, 1, 100)},
         kEnded,
         5000,
         -14,
         pattern(0, 1, 100),
         ")\nget_log_dump: ERR! log_dump std_ul_rx_frame fail (ret 0)\n",
         0},
        {"ddm",
         {},
         kHungUp,
         10,
         -5,
         {},
         "DUMP std_udl_poll fail\nget_log_dump: ERR! log_dump std_ul_rx_frame fail (ret -5)\n",
         0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        cp_peer::Node node;
        for (const Bytes& chunk : c.chunks) {
            node.give(chunk);
        }
        int p[2] = {-1, -1};
        ASSERT_EQ(pipe2(p, O_CLOEXEC), 0);
        close(p[1]);  // a pipe without writer polls POLLHUP alone
        d_->fd = c.end == kHungUp ? p[0] : node.ap;
        if (c.end == kEnded) {
            ASSERT_EQ(shutdown(node.ap, SHUT_RD), 0);
        }
        ASSERT_EQ(ftruncate(d_->log_fd, 0), 0);
        const size_t fds = open_fds();
        const time_t before = time(nullptr);
        EXPECT_EQ(save_log_region(c.name, c.size), c.ret);
        const time_t after = time(nullptr);
        EXPECT_EQ(open_fds(), fds);
        close(p[0]);
        EXPECT_EQ(node.unread(), c.unread);

        // Region, node prefix and the call's time stamp; 0660.
        const auto files = region_files(std::string(c.name) + "_");
        ASSERT_EQ(files.size(), 1u);
        const std::string stem = std::string(kLogDir) + "/cpcrash_" + c.name + "_dump_umts_";
        EXPECT_TRUE(files[0] == stem + time_stamp(before) + ".log" ||
                    files[0] == stem + time_stamp(after) + ".log")
            << files[0];
        EXPECT_TRUE(read_file(files[0]) == std::string(c.file.begin(), c.file.end()));
        struct stat st = {};
        ASSERT_EQ(stat(files[0].c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0660u);
        // Every line goes to the dump log as well.
        const std::string log = dump_log();
        EXPECT_EQ(log.rfind("get_log_dump: " + files[0] + " opened (fd ", 0), 0u) << log;
        const std::string tail =
            (c.ret < 0 ? "" : ")\nget_log_dump: " + files[0] + " ") + c.log_end;
        EXPECT_EQ(log.substr(log.size() - std::min(log.size(), tail.size())), tail);
    }
}

TEST_F(LogDumpTest, UnopenableRegionFileIsAnError) {
    fs::remove_all(kLogDir);
    node_.give(pattern(0, 1, 10));
    EXPECT_EQ(save_log_region("cp_btl", 10), -22);
    const std::string log = dump_log();
    EXPECT_EQ(log.rfind("(ERR! No such file or directory) get_log_dump: ERR! "
                        "/data/vendor/log/rix/cpcrash_cp_btl_dump_umts_",
                        0),
              0u)
        << log;
    EXPECT_NE(log.find(".log open fail\n"), std::string::npos);
    EXPECT_EQ(node_.unread(), 1);

    // A name that does not fit the path is never cut into another file name.
    fs::create_directories(kLogDir);
    EXPECT_EQ(save_log_region(std::string(600, 'n').c_str(), 10), -22);
    EXPECT_TRUE(region_files().empty());
}

TEST_F(LogDumpTest, RefusedDriverRequestsReadNothingAndCountOneRegion) {
    // The driver gets at most 31 characters of the name.
    const std::string name = "region_name_of_forty_characters_long_xx";
    node_.give(pattern(0, 1, 10));
    EXPECT_EQ(Container::bootDump->get_log_dump(name.c_str(), CP_LOG_DUMP_IDX_PMUX), -22);
    const std::string ioctl_err =
        "(ERR! Inappropriate ioctl for device) get_log_dump: ERR! ioctl fail\n";
    EXPECT_EQ(kmsg(), "<6>cpif: rix: get_log_dump: name:" + name.substr(0, 31) +
                          " idx:2\n<3>cpif: rix: " + ioctl_err);
    EXPECT_TRUE(region_files().empty());
    EXPECT_EQ(node_.unread(), 1);

    // The count's failure is informational.
    clear_logs();
    unsigned count = 77;
    EXPECT_EQ(Container::bootDump->get_num_log_dump(CP_LOG_DUMP_IDX_PMUX, &count), 0);
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(kmsg(),
              "<6>cpif: rix: get_num_log_dump: idx:2\n"
              "<6>cpif: rix: get_num_log_dump: ioctl fail\n"
              "<6>cpif: rix: get_num_log_dump: num_dump:1\n");
    EXPECT_EQ(dump_log(),
              ioctl_err + "get_num_log_dump: ioctl fail\nget_num_log_dump: num_dump:1\n");
}

}  // namespace
