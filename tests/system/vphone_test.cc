// The sandbox itself, where the daemon's scenarios do not already drive it: signals, what
// outlives the command, the log tmpfs, the fake clock and the refusal to run without root.
#include <filesystem>
#include <fstream>
#include <sstream>

#include "phone.h"

namespace systest {
namespace {

// True when a host process runs with exactly this command line (arguments joined by spaces).
bool host_process_running(const std::string& command_line) {
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        std::ifstream in(entry.path() / "cmdline", std::ios::binary);
        std::stringstream ss;
        ss << in.rdbuf();
        std::string text = ss.str();
        std::replace(text.begin(), text.end(), '\0', ' ');
        if (text == command_line + " ") {
            return true;
        }
    }
    return false;
}

using Sandbox = Phone;

TEST_F(Sandbox, ReportsADeathBySignalAs128PlusTheSignal) {
    start_in_phone({"/bin/sh", "-c", "kill -KILL $$"});
    EXPECT_EQ(wait_exit(), 128 + 9) << output();
}

TEST_F(Sandbox, EveryProcessEndsWithTheCommandOrOnSigterm) {
    start_in_phone({"/bin/sh", "-c", "sleep 987651 & exit 0"});
    ASSERT_EQ(wait_exit(), 0) << output();
    EXPECT_TRUE(eventually([] { return !host_process_running("sleep 987651"); }, 2s));
    start_in_phone({"/bin/sh", "-c", "sleep 987652 & sleep 987653"});
    ASSERT_TRUE(eventually([] { return host_process_running("sleep 987653"); }, kWait));
    EXPECT_EQ(stop_phone(SIGTERM), 128 + SIGTERM);
    EXPECT_TRUE(eventually([] { return !host_process_running("sleep 987652"); }, 2s));
    EXPECT_TRUE(eventually([] { return !host_process_running("sleep 987653"); }, 2s));
}

TEST_F(Sandbox, LogTmpfsHasTheGivenSizeAndBelongsToRadioAndLog) {
    systest::Sandbox small;
    small.log_tmpfs = "64k";
    start_in_phone({"/bin/sh", "-c",
                    "stat -f -c '%b*%S' " + kLogDir + "; stat -c '%u:%g %a' " + kLogDir +
                        " /dev/log /dev/__properties__"},
                   small);
    ASSERT_EQ(wait_exit(), 0) << output();
    EXPECT_EQ(output(), "16*4096\n1001:1007 775\n1001:1007 775\n1001:1001 775\n");
}

TEST_F(Sandbox, FaketimeSpeedsUpSleeps) {
    systest::Sandbox fast;
    fast.faketime = 20;
    auto begin = std::chrono::steady_clock::now();
    start_in_phone({"/bin/sleep", "20"}, fast);
    ASSERT_EQ(wait_exit(15s), 0) << output();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 5s);
}

TEST_F(Sandbox, RefusesToRunWithoutRoot) {
    std::string out = root() + "/../nonroot.out";
    EXPECT_EQ(run({"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                   VPHONE_BIN, "--root", root(), "--", "/bin/true"},
                  out, kWait),
              125);
    std::ifstream in(out);
    std::stringstream text;
    text << in.rdbuf();
    EXPECT_NE(text.str().find("must run as root"), std::string::npos) << text.str();
}

}  // namespace
}  // namespace systest
