// CP log regions: the region and count requests (refused by a socket, as by a
// driver without them) and the streaming of a region into its own file.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <ctime>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
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
        int sv[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv), 0);
        d_->fd = sv[0];
        cp_ = std::make_unique<cp_peer::CpPeer>(sv[1]);
        dump_log_ = dir_ + "/cpcrash_log";
        d_->log_fd = open(dump_log_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        ASSERT_GE(d_->log_fd, 3);
        fs::create_directories(kLogDir);
        old_mask_ = umask(002);
        clear_logs();
    }

    void TearDown() override {
        umask(old_mask_);
        cp_.reset();
        close(d_->fd);
        close(d_->log_fd);
        d_->fd = d_->log_fd = -1;
        RixTest::TearDown();
    }

    // The region files of one name, oldest first.
    static std::vector<std::string> region_files(const std::string& name = "") {
        std::vector<std::string> out;
        for (const auto& e : fs::directory_iterator(kLogDir)) {
            if (e.path().filename().string().rfind("cpcrash_" + name, 0) == 0) {
                out.push_back(e.path().string());
            }
        }
        std::sort(out.begin(), out.end());
        return out;
    }

    // The CP queues all chunks before the region is read.
    void queued(const std::vector<Bytes>& chunks) {
        for (const Bytes& c : chunks) {
            cp_->give(c);
        }
        cp_->start();
        cp_->join();
    }

    ssize_t left_on_node() {
        uint8_t buf[16];
        return recv(d_->fd, buf, sizeof(buf), MSG_DONTWAIT);
    }

    std_dump* d_ = nullptr;
    std::unique_ptr<cp_peer::CpPeer> cp_;
    std::string dump_log_;
    mode_t old_mask_ = 0;
};

std::string time_stamp(time_t t) {
    struct tm tm = {};
    localtime_r(&t, &tm);
    char buf[64];
    strftime(buf, sizeof(buf), "%Y%m%d-%H%M_%S", &tm);
    return buf;
}

TEST_F(LogDumpTest, RegionGoesToItsOwnFileChunkByChunk) {
    const Bytes a = pattern(0, 1, 4096);
    const Bytes b = pattern(0, 2, 904);
    cp_->give(a).give(b).start();
    const time_t before = time(nullptr);
    EXPECT_EQ(save_log_region("shmem", 5000), 904);
    const time_t after = time(nullptr);
    cp_->stop();

    // Region first, the node prefix after "dump", then the call's time stamp.
    const auto files = region_files();
    ASSERT_EQ(files.size(), 1u);
    const std::string& path = files[0];
    const std::string stem = std::string(kLogDir) + "/cpcrash_shmem_dump_umts_";
    EXPECT_TRUE(path == stem + time_stamp(before) + ".log" ||
                path == stem + time_stamp(after) + ".log")
        << path;
    Bytes want = a;
    want.insert(want.end(), b.begin(), b.end());
    EXPECT_EQ(read_file(path), std::string(want.begin(), want.end()));
    struct stat st = {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0660u);

    // Every line goes to the dump log as well.
    const std::string log = read_file(dump_log_);
    EXPECT_EQ(log.rfind("get_log_dump: " + path + " opened (fd ", 0), 0u) << log;
    EXPECT_NE(log.find(")\nget_log_dump: " + path + " Complete! (5000 bytes)\n"), std::string::npos)
        << log;
}

TEST_F(LogDumpTest, LastChunkIsWrittenWholeAndAnEmptyRegionReadsNothing) {
    queued({pattern(0, 1, 4096), pattern(0, 2, 4096), pattern(0, 3, 10)});
    EXPECT_EQ(save_log_region("vss", 5000), 4096);
    // The same region a second later gets a file of its own.
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    EXPECT_EQ(save_log_region("vss", 0), 0);
    const auto files = region_files("vss_");
    ASSERT_EQ(files.size(), 2u);
    EXPECT_EQ(read_file(files[0]).size(), 8192u);
    EXPECT_EQ(read_file(files[1]), "");
    EXPECT_NE(kmsg().find(files[0] + " Complete! (8192 bytes)\n"), std::string::npos) << kmsg();
    EXPECT_NE(kmsg().find(files[1] + " Complete! (0 bytes)\n"), std::string::npos) << kmsg();
    // The third chunk is left for whoever reads next.
    EXPECT_EQ(left_on_node(), 10);
}

TEST_F(LogDumpTest, FailedChunkReadEndsTheRegionAsAFailureAndKeepsWhatCame) {
    queued({pattern(0, 1, 100)});
    // The CP side ends: the node polls readable and reads 0 bytes.
    ASSERT_EQ(shutdown(d_->fd, SHUT_RD), 0);
    auto open_fds = [] {
        const fs::directory_iterator it("/proc/self/fd");
        return std::distance(begin(it), end(it));
    };
    const auto fds = open_fds();
    EXPECT_EQ(save_log_region("l2b", 5000), -14);
    EXPECT_EQ(open_fds(), fds);
    const auto files = region_files();
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(read_file(files[0]).size(), 100u);
    EXPECT_NE(
        read_file(dump_log_).find(")\nget_log_dump: ERR! log_dump std_ul_rx_frame fail (ret 0)\n"),
        std::string::npos)
        << read_file(dump_log_);

    // A failed wait (a pipe whose writer is gone polls POLLHUP) passes its result up.
    int p[2];
    ASSERT_EQ(pipe2(p, O_CLOEXEC), 0);
    close(p[1]);
    std::swap(d_->fd, p[0]);
    EXPECT_EQ(save_log_region("ddm", 10), -5);
    std::swap(d_->fd, p[0]);
    close(p[0]);
    const std::string log = read_file(dump_log_);
    EXPECT_NE(log.find("get_log_dump: ERR! log_dump std_ul_rx_frame fail (ret -5)\n"),
              std::string::npos)
        << log;
    EXPECT_EQ(log.find("Complete!"), std::string::npos);
}

TEST_F(LogDumpTest, UnopenableRegionFileIsAnError) {
    fs::remove_all(kLogDir);
    queued({pattern(0, 1, 10)});
    EXPECT_EQ(save_log_region("cp_btl", 10), -22);
    const std::string log = read_file(dump_log_);
    EXPECT_EQ(log.rfind("(ERR! No such file or directory) get_log_dump: ERR! "
                        "/data/vendor/log/rix/cpcrash_cp_btl_dump_umts_",
                        0),
              0u)
        << log;
    EXPECT_NE(log.find(".log open fail\n"), std::string::npos);

    // A name that does not fit the path is never cut into another file name.
    fs::create_directories(kLogDir);
    EXPECT_EQ(save_log_region(std::string(600, 'n').c_str(), 10), -22);
    EXPECT_TRUE(region_files().empty());
}

TEST_F(LogDumpTest, RefusedDriverRequestsReadNothingAndCountOneRegion) {
    // The driver gets at most 31 characters of the name.
    const std::string name = "region_name_of_forty_characters_long_xx";
    queued({pattern(0, 1, 10)});
    EXPECT_EQ(Container::bootDump->get_log_dump(name.c_str(), CP_LOG_DUMP_IDX_PMUX), -22);
    const std::string ioctl_err =
        "(ERR! Inappropriate ioctl for device) get_log_dump: ERR! ioctl fail\n";
    EXPECT_EQ(kmsg(), "<6>cpif: rix: get_log_dump: name:" + name.substr(0, 31) +
                          " idx:2\n<3>cpif: rix: " + ioctl_err);
    EXPECT_TRUE(region_files().empty());
    EXPECT_EQ(left_on_node(), 10);

    // The count's failure is informational.
    clear_logs();
    unsigned count = 77;
    EXPECT_EQ(Container::bootDump->get_num_log_dump(CP_LOG_DUMP_IDX_PMUX, &count), 0);
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(kmsg(),
              "<6>cpif: rix: get_num_log_dump: idx:2\n"
              "<6>cpif: rix: get_num_log_dump: ioctl fail\n"
              "<6>cpif: rix: get_num_log_dump: num_dump:1\n");
    EXPECT_EQ(read_file(dump_log_),
              ioctl_err + "get_num_log_dump: ioctl fail\nget_num_log_dump: num_dump:1\n");
}

}  // namespace
