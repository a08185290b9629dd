// Start-up of the daemon: the command line, a shutdown seen at start, the back-trace log size.
#include <sys/stat.h>

#include <thread>

#include "phone.h"

namespace systest {
namespace {

std::string last_line(const std::string& text) {
    auto end = text.find_last_not_of('\n');
    if (end == std::string::npos) {
        return "";
    }
    auto begin = text.rfind('\n', end);
    return text.substr(begin == std::string::npos ? 0 : begin + 1, end - (begin + 1) + 1);
}

ino_t inode_of(const std::string& path) {
    struct stat st = {};
    return stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

const LogLine kStart = info("main", "Start Velmora v3 (RIX) RIX-V3-20250515R1");

using StartUp = Phone;

TEST_F(StartUp, RefusedModemNameExitsWithMinus22BeforeTouchingTheModem) {
    start_modem();
    start_rix({"-t", "nosuchmodem"});

    auto code = wait_exit();
    ASSERT_TRUE(code) << "rix is still running after a refused command line";
    EXPECT_EQ(*code, 234) << "main must return -22";

    const LogLine unknown = info("parseArgs", "Unknown modem");
    EXPECT_EQ(count(kStart), 1);
    EXPECT_EQ(count(unknown), 1) << "kmsg:\n" << kmsg() << "radio:\n" << radio_log();
    // Nothing is logged after the refusal.
    EXPECT_EQ(last_line(kmsg()), unknown.kernel);
    EXPECT_EQ(last_line(radio_log()), unknown.android);
    EXPECT_TRUE(modem().requests().empty()) << modem().trace();
}

TEST_F(StartUp, ShutdownRequestedAtStartPowersTheModemOffAndSleeps) {
    start_modem();
    set_property("sys.shutdown.requested", "1");
    start_rix({"-d", "-t", "vm420"});

    ASSERT_TRUE(wait_logged(info("main", "deviceOff = 1"))) << radio_log();
    ASSERT_TRUE(wait_request("POWER_OFF")) << modem().trace();

    std::this_thread::sleep_for(1s);
    EXPECT_TRUE(rix_running()) << "the daemon must sleep for ever after the power-off";
    EXPECT_EQ(modem().requests("POWER_OFF").size(), 1u) << modem().trace();
    EXPECT_TRUE(modem().requests("POWER_ON").empty()) << modem().trace();
    EXPECT_FALSE(logged(info("main", "Call boot start")));
    EXPECT_EQ(property("vendor.rix.deviceOffRes"), std::nullopt)
        << "only a shutdown seen in the status loop writes it";
    auto handles = modem().handles();
    EXPECT_EQ(handles["boot"], 0) << "the boot node stays open after the power-off";
    EXPECT_EQ(handles["memshare"], 0) << "the memshare node stays open after sizing the BTL";
}

TEST_F(StartUp, BtlSizeRoundTripsThroughTheDriver) {
    start_modem();
    set_property("persist.vendor.rix.btl_size", "16");
    const std::string file = root() + "/dev/__properties__/persist.vendor.rix.btl_size";
    const ino_t before = inode_of(file);
    start_rix({"-t", "vm420"});

    ASSERT_TRUE(wait_logged(info("adjust_btl_ramsize", "persist.vendor.rix.btl_size 0x01000000")))
        << radio_log();
    // The written-back value replaces the file (temporary file and rename).
    ASSERT_TRUE(eventually([&] { return inode_of(file) != before; }, kWait))
        << "persist.vendor.rix.btl_size was not written back";
    EXPECT_EQ(property("persist.vendor.rix.btl_size"), "16");

    auto set = modem().requests("SET_BTL_SIZE");
    ASSERT_EQ(set.size(), 1u) << modem().trace();
    EXPECT_TRUE(carries(set[0], 16ul << 20)) << set[0].line;
    EXPECT_EQ(modem().requests("GET_BTL_SIZE").size(), 1u) << modem().trace();
}

// A driver that refuses the new size is only logged: the size it reports goes back all the same.
TEST_F(StartUp, RefusedBtlSizeIsLoggedAndTheDriversSizeWrittenBack) {
    start_modem("btl_size 0x800000\nresult SET_BTL_SIZE -5\n");
    set_property("persist.vendor.rix.btl_size", "16");
    start_rix({"-t", "vm420"});
    ASSERT_TRUE(wait_property("persist.vendor.rix.btl_size", "8")) << radio_log();
    EXPECT_TRUE(
        logged(error("Input/output error", "adjust_btl_ramsize", "Failed to IOCTL_SET_BTL_SIZE")))
        << radio_log();
}

TEST_F(StartUp, BtlSizeIsWrittenEmptyWhenTheMemshareNodeIsMissing) {
    start_modem();
    set_property("persist.vendor.rix.btl_size", "16");
    Sandbox without_memshare;
    without_memshare.omit_nodes = {"ramdump_memshare"};
    start_rix({"-t", "vm420"}, without_memshare);

    ASSERT_TRUE(wait_property("persist.vendor.rix.btl_size", "")) << radio_log();
    EXPECT_TRUE(logged(error("No such file or directory", "adjust_btl_ramsize",
                             "ERR! (/dev/ramdump_memshare) open fail")))
        << radio_log();
    EXPECT_FALSE(logged(error("No such file or directory", "main", "adjust btl ramsize fail")));
    EXPECT_TRUE(modem().requests("SET_BTL_SIZE").empty()) << modem().trace();
    EXPECT_TRUE(modem().requests("GET_BTL_SIZE").empty()) << modem().trace();
}

}  // namespace
}  // namespace systest
