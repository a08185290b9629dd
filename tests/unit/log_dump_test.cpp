// CP log regions where the bench cannot fail them: the region request refused (by a socket, as
// by a driver without it) and a region file that cannot be opened. The streaming of
// whole regions into their files is seen by the crash scenarios.
#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "boot/boot_dump.h"
#include "core/rix.h"
#include "cp_peer.h"
#include "dump/log_dump.h"
#include "dump/protocol.h"
#include "log/log.h"
#include "rix_test.h"

namespace {

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
        clear_logs();
    }
    void TearDown() override {
        close(d_->log_fd);
        d_->fd = d_->log_fd = -1;
        RixTest::TearDown();
    }

    std_dump* d_ = nullptr;
    cp_peer::Node node_;
};

TEST_F(LogDumpTest, UnopenableRegionFileIsAnError) {
    fs::remove_all(kLogDir);
    node_.give(pattern(0, 1, 10));
    EXPECT_EQ(save_log_region("cp_btl", 10), -22);
    const std::string log = read_file(dir_ + "/cpcrash_log");
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
    EXPECT_TRUE(fs::is_empty(kLogDir));
}

TEST_F(LogDumpTest, RefusedRegionRequestReadsNothing) {
    // The driver gets at most 31 characters of the name.
    const std::string name = "region_name_of_forty_characters_long_xx";
    node_.give(pattern(0, 1, 10));
    EXPECT_EQ(Container::bootDump->get_log_dump(name.c_str(), CP_LOG_DUMP_IDX_PMUX), -22);
    const std::string ioctl_err =
        "(ERR! Inappropriate ioctl for device) get_log_dump: ERR! ioctl fail\n";
    EXPECT_EQ(kmsg(), "<6>cpif: rix: get_log_dump: name:" + name.substr(0, 31) +
                          " idx:2\n<3>cpif: rix: " + ioctl_err);
    EXPECT_TRUE(fs::is_empty(kLogDir));
    EXPECT_EQ(node_.unread(), 1);
}

}  // namespace
