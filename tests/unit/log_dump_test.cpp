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

namespace fs = std::filesystem;
using LogDumpTest = RixTest;

// Each failure is -22 and leaves the region's data unread.
TEST_F(LogDumpTest, RefusedRequestOrUnopenableFileReadsNothing) {
    ASSERT_EQ(parse({"-t", "vm420"}), 0);
    Container::protocol = new ProtocolTarn();
    cp_peer::Node node;
    node.give(cp_peer::Bytes(10, 'p'));
    std_dump* d = Container::getStdDump();
    d->fd = node.ap;
    const std::string log = dir_ + "/cpcrash_log";
    d->log_fd = open(log.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    ASSERT_GE(d->log_fd, 3);
    fs::create_directories(kLogDir);
    clear_logs();

    // The driver gets at most 31 characters of the name.
    const std::string name = "region_name_of_forty_characters_long_xx";
    EXPECT_EQ(Container::bootDump->get_log_dump(name.c_str(), CP_LOG_DUMP_IDX_PMUX), -22);
    EXPECT_EQ(kmsg(), "<6>cpif: rix: get_log_dump: name:" + name.substr(0, 31) +
                          " idx:2\n<3>cpif: rix: (ERR! Inappropriate ioctl for device) "
                          "get_log_dump: ERR! ioctl fail\n");
    // A name that does not fit the path is never cut into another file name.
    EXPECT_EQ(save_log_region(std::string(600, 'n').c_str(), 10), -22);
    EXPECT_TRUE(fs::is_empty(kLogDir));

    fs::remove_all(kLogDir);
    EXPECT_EQ(save_log_region("cp_btl", 10), -22);
    EXPECT_NE(read_file(log).find("(ERR! No such file or directory) get_log_dump: ERR! "
                                  "/data/vendor/log/rix/cpcrash_cp_btl_dump_umts_"),
              std::string::npos)
        << read_file(log);
    EXPECT_EQ(node.unread(), 1);
    close(d->log_fd);
    d->fd = d->log_fd = -1;
}

}  // namespace
