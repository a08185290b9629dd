// The daemon leaves root for the radio user with exactly the capabilities its work needs.
#include <fstream>
#include <sstream>

#include "phone.h"

namespace systest {
namespace {

// NET_ADMIN, NET_RAW, SYS_ADMIN, SYS_BOOT, SYSLOG, BLOCK_SUSPEND
constexpr const char* kRadioCaps = "0000001400603000";

std::string own_status(const std::string& field) {
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind(field + ":", 0) == 0) {
            return line.substr(line.find_first_not_of(" \t", field.size() + 1));
        }
    }
    return "";
}

// A shutdown requested at start parks the daemon in its endless sleep right after start-up,
// which leaves its process identity to be read without any boot.
class Privileges : public Phone {
  protected:
    void start_parked(std::vector<std::string> args) {
        start_modem();
        set_property("sys.shutdown.requested", "1");
        start_rix(args);
        ASSERT_TRUE(wait_logged(info("main", "deviceOff = 1"))) << radio_log();
    }
};

TEST_F(Privileges, DaemonRunsAsRadioWithSixCapabilities) {
    start_parked({"-d", "-t", "vm420"});

    EXPECT_EQ(proc_status("Uid"), "1001\t1001\t1001\t1001");
    EXPECT_EQ(proc_status("CapEff"), kRadioCaps);
    EXPECT_EQ(proc_status("CapPrm"), kRadioCaps);
    EXPECT_EQ(proc_status("CapInh"), "0000000000000000");
    EXPECT_FALSE(logged(info("main", "Start with root")));
    EXPECT_EQ(radio_log().find("capset failed"), std::string::npos) << radio_log();
}

TEST_F(Privileges, RunWithRootOptionKeepsRoot) {
    start_parked({"-d", "-o", "r", "-t", "vm420"});

    EXPECT_EQ(count(info("parseArgs", "run with root")), 1) << radio_log();
    EXPECT_EQ(count(info("main", "Start with root")), 1) << radio_log();
    EXPECT_EQ(proc_status("Uid"), "0\t0\t0\t0");
    EXPECT_EQ(proc_status("CapEff"), own_status("CapEff"));
    EXPECT_NE(proc_status("CapEff"), kRadioCaps);
}

}  // namespace
}  // namespace systest
