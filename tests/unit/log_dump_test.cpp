// CP log regions: the region and count requests (which a socket refuses, as
// a driver without them would) and the streaming of an announced region into
// its own file from a CP played over a socket pair.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
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
using cp_peer::CpPeer;
using cp_peer::pattern;

std::string time_stamp(time_t t) {
    struct tm tm = {};
    localtime_r(&t, &tm);
    char buf[64];
    strftime(buf, sizeof(buf), "%Y%m%d-%H%M_%S", &tm);
    return buf;
}

size_t open_descriptors() {
    size_t n = 0;
    for (const auto& e : std::filesystem::directory_iterator("/proc/self/fd")) {
        (void)e;
        ++n;
    }
    return n;
}

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
        cp_ = std::make_unique<CpPeer>(sv[1]);
        dump_log_ = dir_ + "/cpcrash_log";
        d_->log_fd = open(dump_log_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        ASSERT_GE(d_->log_fd, 3);
        std::filesystem::create_directories(kLogDir);
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

    // The region files in the log directory.
    static std::vector<std::string> region_files() {
        std::vector<std::string> out;
        for (const auto& e : std::filesystem::directory_iterator(kLogDir)) {
            out.push_back(e.path().filename().string());
        }
        return out;
    }

    int save(const char* name, uint32_t size) {
        cp_->start();
        int ret = save_log_region(name, size);
        cp_->stop();
        return ret;
    }

    std_dump* d_ = nullptr;
    std::unique_ptr<CpPeer> cp_;
    std::string dump_log_;
    mode_t old_mask_ = 0;
};

TEST_F(LogDumpTest, RegionGoesToItsOwnFileChunkByChunk) {
    const Bytes a = pattern(0, 1, 4096);
    const Bytes b = pattern(0, 2, 904);
    cp_->give(a).give(b);
    const time_t before = time(nullptr);
    EXPECT_EQ(save("shmem", 5000), 904);
    const time_t after = time(nullptr);

    // Region first, the node prefix after "dump", then the call's time stamp.
    const auto files = region_files();
    ASSERT_EQ(files.size(), 1u);
    const std::string& name = files[0];
    EXPECT_TRUE(name == "cpcrash_shmem_dump_umts_" + time_stamp(before) + ".log" ||
                name == "cpcrash_shmem_dump_umts_" + time_stamp(after) + ".log")
        << name;
    const std::string path = std::string(kLogDir) + "/" + name;
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

TEST_F(LogDumpTest, LastChunkIsWrittenWholeEvenPastTheAnnouncedSize) {
    cp_->give(pattern(0, 1, 4096)).give(pattern(0, 2, 4096)).give(pattern(0, 3, 10));
    cp_->start();
    cp_->join();  // all queued before the region is read
    EXPECT_EQ(save_log_region("vss", 5000), 4096);
    const auto files = region_files();
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(read_file(std::string(kLogDir) + "/" + files[0]).size(), 8192u);
    EXPECT_NE(kmsg().find(" Complete! (8192 bytes)\n"), std::string::npos);
    // The third chunk is left for whoever reads next.
    uint8_t buf[16];
    EXPECT_EQ(recv(d_->fd, buf, sizeof(buf), MSG_DONTWAIT), 10);
}

TEST_F(LogDumpTest, EmptyRegionMakesAnEmptyFileWithoutReading) {
    cp_->give(pattern(0, 1, 7));
    cp_->start();
    cp_->join();
    EXPECT_EQ(save_log_region("databuf", 0), 0);
    const auto files = region_files();
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(read_file(std::string(kLogDir) + "/" + files[0]), "");
    EXPECT_NE(kmsg().find(" Complete! (0 bytes)\n"), std::string::npos);
    uint8_t buf[16];
    EXPECT_EQ(recv(d_->fd, buf, sizeof(buf), MSG_DONTWAIT), 7);
}

TEST_F(LogDumpTest, EmptyReadEndsTheRegionAsAFailureAndKeepsWhatCame) {
    cp_->give(pattern(0, 1, 100));
    cp_->start();
    cp_->join();
    // The CP side ends: the node polls readable and reads 0 bytes.
    ASSERT_EQ(shutdown(d_->fd, SHUT_RD), 0);
    const size_t fds = open_descriptors();
    EXPECT_EQ(save_log_region("l2b", 5000), -14);
    EXPECT_EQ(open_descriptors(), fds);
    const auto files = region_files();
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(read_file(std::string(kLogDir) + "/" + files[0]).size(), 100u);
    const std::string log = read_file(dump_log_);
    EXPECT_NE(log.find(")\nget_log_dump: ERR! log_dump std_ul_rx_frame fail (ret 0)\n"),
              std::string::npos)
        << log;
    EXPECT_EQ(log.find("Complete!"), std::string::npos);
}

TEST_F(LogDumpTest, FailedChunkWaitPassesItsResultUp) {
    // A pipe whose writer is gone polls POLLHUP alone.
    int p[2];
    ASSERT_EQ(pipe2(p, O_CLOEXEC), 0);
    close(p[1]);
    const int node = d_->fd;
    d_->fd = p[0];
    EXPECT_EQ(save_log_region("ddm", 10), -5);
    d_->fd = node;
    close(p[0]);
    EXPECT_NE(
        read_file(dump_log_).find("get_log_dump: ERR! log_dump std_ul_rx_frame fail (ret -5)\n"),
        std::string::npos);
}

TEST_F(LogDumpTest, EveryRegionTakesTheTimeStampOfItsOwnCall) {
    cp_->give(pattern(0, 1, 10)).give(pattern(0, 2, 10));
    cp_->start();
    ASSERT_EQ(save_log_region("pmux0", 10), 10);
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    ASSERT_EQ(save_log_region("pmux0", 10), 10);
    cp_->stop();
    EXPECT_EQ(region_files().size(), 2u);
}

TEST_F(LogDumpTest, UnopenableRegionFileIsAnError) {
    std::filesystem::remove_all(kLogDir);
    cp_->give(pattern(0, 1, 10));
    EXPECT_EQ(save("cp_btl", 10), -22);
    const std::string log = read_file(dump_log_);
    EXPECT_EQ(log.rfind("(ERR! No such file or directory) get_log_dump: ERR! "
                        "/data/vendor/log/rix/cpcrash_cp_btl_dump_umts_",
                        0),
              0u)
        << log;
    EXPECT_NE(log.find(".log open fail\n"), std::string::npos);

    // A name that does not fit the path is never cut into another file name.
    std::filesystem::create_directories(kLogDir);
    const std::string huge(600, 'n');
    EXPECT_EQ(save_log_region(huge.c_str(), 10), -22);
    EXPECT_TRUE(region_files().empty());
}

TEST_F(LogDumpTest, RefusedRegionRequestReadsNothing) {
    // The driver gets at most 31 characters of the name.
    const std::string name = "region_name_of_forty_characters_long_xx";
    ASSERT_EQ(name.size(), 39u);
    cp_->give(pattern(0, 1, 10));
    cp_->start();
    cp_->join();
    EXPECT_EQ(Container::bootDump->get_log_dump(name.c_str(), CP_LOG_DUMP_IDX_PMUX), -22);
    EXPECT_EQ(kmsg(),
              "<6>cpif: rix: get_log_dump: name:" + name.substr(0, 31) +
                  " idx:2\n"
                  "<3>cpif: rix: (ERR! Inappropriate ioctl for device) get_log_dump: ERR! ioctl "
                  "fail\n");
    EXPECT_EQ(read_file(dump_log_),
              "(ERR! Inappropriate ioctl for device) get_log_dump: ERR! ioctl fail\n");
    EXPECT_TRUE(region_files().empty());
    uint8_t buf[16];
    EXPECT_EQ(recv(d_->fd, buf, sizeof(buf), MSG_DONTWAIT), 10);
}

TEST_F(LogDumpTest, RefusedCountRequestCountsOneRegion) {
    unsigned count = 77;
    EXPECT_EQ(Container::bootDump->get_num_log_dump(CP_LOG_DUMP_IDX_PMUX, &count), 0);
    EXPECT_EQ(count, 1u);
    // Informational, although the request failed.
    EXPECT_EQ(kmsg(),
              "<6>cpif: rix: get_num_log_dump: idx:2\n"
              "<6>cpif: rix: get_num_log_dump: ioctl fail\n"
              "<6>cpif: rix: get_num_log_dump: num_dump:1\n");
    EXPECT_EQ(read_file(dump_log_),
              "get_num_log_dump: ioctl fail\n"
              "get_num_log_dump: num_dump:1\n");
}

}  // namespace
