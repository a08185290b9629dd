// The sandbox itself, where the daemon's scenarios do not already drive it: signals, what
// outlives the command and the refusal to run without root. (The log tmpfs, the fake clock, the
// ownership of what the daemon writes and the pid file are relied on by those scenarios.)
#include "phone.h"

namespace systest {
namespace {

class Sandbox : public Phone {
  protected:
    // True when a host process runs with exactly this command line.
    bool host_process_running(const std::string& command_line) {
        return run({"/usr/bin/pgrep", "-x", "-f", command_line}, root() + "/../pgrep.out", kWait) ==
               0;
    }
};

TEST_F(Sandbox, ReportsADeathBySignalAs128PlusTheSignal) {
    start_in_phone({"/bin/sh", "-c", "kill -KILL $$"});
    EXPECT_EQ(wait_exit(), 128 + 9) << output();
}

TEST_F(Sandbox, EveryProcessEndsWithTheCommandOrOnSigterm) {
    start_in_phone({"/bin/sh", "-c", "sleep 987651 & exit 0"});
    ASSERT_EQ(wait_exit(), 0) << output();
    EXPECT_TRUE(eventually([&] { return !host_process_running("sleep 987651"); }, 2s));
    start_in_phone({"/bin/sh", "-c", "sleep 987652 & sleep 987653"});
    ASSERT_TRUE(eventually([&] { return host_process_running("sleep 987653"); }, kWait));
    EXPECT_EQ(stop_phone(SIGTERM), 128 + SIGTERM);
    EXPECT_TRUE(eventually([&] { return !host_process_running("sleep 987652"); }, 2s));
    EXPECT_TRUE(eventually([&] { return !host_process_running("sleep 987653"); }, 2s));
}

TEST_F(Sandbox, RefusesToRunWithoutRoot) {
    std::string out = root() + "/../nonroot.out";
    EXPECT_EQ(run({"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                   VPHONE_BIN, "--root", root(), "--", "/bin/true"},
                  out, kWait),
              125);
    EXPECT_NE(read_text(out).find("must run as root"), std::string::npos) << read_text(out);
}

}  // namespace
}  // namespace systest
