// The sandbox itself: what the daemon's tests rely on about vphone.
#include <filesystem>
#include <fstream>
#include <sstream>

#include "phone.h"

namespace systest {
namespace {

namespace fs = std::filesystem;

// True when a host process runs with exactly this command line (arguments joined by spaces).
bool host_process_running(const std::string& command_line) {
    for (const auto& entry : fs::directory_iterator("/proc")) {
        std::ifstream in(entry.path() / "cmdline", std::ios::binary);
        std::stringstream ss;
        ss << in.rdbuf();
        std::string text = ss.str();
        for (char& c : text) {
            c = c == '\0' ? ' ' : c;
        }
        if (text == command_line + " ") {
            return true;
        }
    }
    return false;
}

using Sandbox = Phone;

TEST_F(Sandbox, ReportsTheCommandsExitStatusAsItsOwn) {
    start_in_phone({"/bin/sh", "-c", "exit 234"});
    EXPECT_EQ(wait_exit(), 234) << output();
}

TEST_F(Sandbox, ReportsADeathBySignalAs128PlusTheSignal) {
    start_in_phone({"/bin/sh", "-c", "kill -KILL $$"});
    EXPECT_EQ(wait_exit(), 128 + 9) << output();
}

TEST_F(Sandbox, EveryProcessEndsWithTheCommand) {
    start_in_phone({"/bin/sh", "-c", "sleep 987651 & exit 0"});
    ASSERT_EQ(wait_exit(), 0) << output();
    EXPECT_TRUE(eventually([] { return !host_process_running("sleep 987651"); }, 2s))
        << "a background process of the sandbox outlived it";
}

TEST_F(Sandbox, SigtermEndsTheCommandAndEverythingItStarted) {
    start_in_phone({"/bin/sh", "-c", "sleep 987652 & sleep 987653"});
    ASSERT_TRUE(eventually([] { return host_process_running("sleep 987653"); }, kWait));
    ASSERT_TRUE(rix_running());
    EXPECT_EQ(stop_phone(SIGTERM), 128 + SIGTERM);
    EXPECT_TRUE(eventually([] { return !host_process_running("sleep 987652"); }, 2s));
    EXPECT_TRUE(eventually([] { return !host_process_running("sleep 987653"); }, 2s));
}

TEST_F(Sandbox, PidFileHoldsTheCommandsHostPid) {
    start_in_phone({"/bin/sleep", "987654"});
    pid_t pid = rix_pid();
    std::ifstream in("/proc/" + std::to_string(pid) + "/cmdline", std::ios::binary);
    std::string argv0, argv1;
    std::getline(in, argv0, '\0');
    std::getline(in, argv1, '\0');
    EXPECT_EQ(argv1, "987654") << "pid " << pid << " is " << argv0;
}

TEST_F(Sandbox, ProcIsTheSandboxesOwnWithTheGivenCommandLine) {
    set_cmdline("pax_debug.level=2 pax_debug.cp=1");
    start_in_phone({"/bin/sh", "-c", "cat /proc/cmdline; echo pid=$$"});
    ASSERT_EQ(wait_exit(), 0) << output();
    // vphone's init is pid 1 of the namespace; the command is its first child.
    EXPECT_EQ(output(), "pax_debug.level=2 pax_debug.cp=1\npid=2\n");
}

TEST_F(Sandbox, RadioUserCanWriteWhatTheDaemonWritesAfterItsDrop) {
    const std::string script =
        "set -e; echo l >> /dev/log/radio; echo l >> /dev/log/main; echo l >> /dev/kmsg;"
        "echo v > /dev/__properties__/.t; mv /dev/__properties__/.t /dev/__properties__/p;"
        "echo l >> /dev/log/restorecon; touch /data/vendor/log/rix/f /data/vendor/ramdump/f;"
        "echo rix > /sys/power/wake_lock; echo rix > /sys/power/wake_unlock;"
        "echo 2 > /sys/devices/platform/cpif/sim/ds_detect;"
        "touch /mnt/vendor/efs/nv_data_temp.bin; cat /efs/factory.prop; getent group radio log";
    start_in_phone({"/usr/bin/setpriv", "--reuid=1001", "--regid=1001", "--clear-groups", "/bin/sh",
                    "-c", script});
    ASSERT_EQ(wait_exit(), 0) << output();
    EXPECT_EQ(output(), "radio:x:1001:\nlog:x:1007:\n");
    EXPECT_EQ(property("p"), "v\n");
    EXPECT_EQ(read_file("/sys/devices/platform/cpif/sim/ds_detect"), "2\n");
}

TEST_F(Sandbox, LogTmpfsHasTheGivenSizeAndBelongsToRadioAndLog) {
    systest::Sandbox small;
    small.log_tmpfs = "64k";
    start_in_phone({"/bin/sh", "-c",
                    "stat -f -c '%b*%S' /data/vendor/log/rix; stat -c '%u:%g %a' "
                    "/data/vendor/log/rix"},
                   small);
    ASSERT_EQ(wait_exit(), 0) << output();
    EXPECT_EQ(output(), "16*4096\n1001:1007 775\n");
}

TEST_F(Sandbox, LogDirectoryOwnership) {
    start_in_phone({"/usr/bin/stat", "-c", "%u:%g %a", "/data/vendor/log/rix", "/dev/log",
                    "/dev/__properties__"});
    ASSERT_EQ(wait_exit(), 0) << output();
    EXPECT_EQ(output(), "1001:1007 775\n1001:1007 775\n1001:1001 775\n");
}

TEST_F(Sandbox, FaketimeSpeedsUpSleeps) {
    systest::Sandbox fast;
    fast.faketime = "20";
    auto begin = std::chrono::steady_clock::now();
    start_in_phone({"/bin/sleep", "20"}, fast);
    ASSERT_EQ(wait_exit(15s), 0) << output();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 5s);
}

TEST_F(Sandbox, RefusesToRunWithoutRoot) {
    std::string out = root() + "/../nonroot.out";
    int code = run({"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                    VPHONE_BIN, "--root", root(), "--", "/bin/true"},
                   out, kWait);
    std::ifstream in(out);
    std::stringstream text;
    text << in.rdbuf();
    EXPECT_EQ(code, 125);
    EXPECT_NE(text.str().find("must run as root"), std::string::npos) << text.str();
}

}  // namespace
}  // namespace systest
