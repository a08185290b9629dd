// The daemon's answers to the questions its flow leaves open, seen from outside: the upload test,
// the hang and NORESET debug options, and a boot that fails with the CP in a crash state.
#include <algorithm>

#include "phone.h"

namespace systest {
namespace {

using Decisions = Phone;

// The upload test runs the dump sequence as root before any boot. At DBG_LOW with minidump
// support the dump goes to the minidump file even without a minidump property, the driver is
// told minidump mode is off, no version is asked for, and the phone is then sent to upload mode
// through the dump node. The dump-mode load counts as the first load: the next boot skips VSS.
TEST_F(Decisions, UploadTestDumpsAsRootThenBootsWithoutResendingVss) {
    build_modem();
    start_modem("dump_size 5000\ndump_steps 1\n");
    set_property("vendor.rix.rfs_check_done", "1");
    const std::string minidump = "/data/vendor/ramdump/remoteproc-mss-md.elf";
    write_file(minidump, std::string(100000, 'x'));
    start_rix({"-d", "-t", "vm420", "-o", "u", "-o", "m"}, fast_clock());
    ASSERT_TRUE(wait_request("ENTER_UPLOAD_MODE", 30s)) << radio_log();
    EXPECT_EQ(proc_status("Uid"), "0\t0\t0\t0") << "the upload test keeps root";
    ASSERT_TRUE(wait_logged(kWaiting, 60s)) << radio_log();

    EXPECT_NE(kmsg().find("<6>cpif: rix: main: \n\n ---- upload ----\n\n"), std::string::npos);
    expect_counts({{info("main", "Start with root"), 0},
                   {kBootFailed, 0},
                   {info("set_minidump_mode", "minidump mode is disabled"), 1},
                   {kCallBoot, 1},
                   {info("load_cp_images", "stage[3] : stage is already xmit once"), 1},
                   {info("boot", "skip VSS check"), 1}});
    auto trace = lines_of(modem().trace());
    EXPECT_LT(std::find(trace.begin(), trace.end(), "ioctl boot SET_MINIDUMP_MODE enable=0 -> 0"),
              std::find(trace.begin(), trace.end(), "open dump flags=0x8002"));
    EXPECT_TRUE(modem().requests("GET_CPIF_VERSION").empty()) << "no dump log at DBG_LOW";
    EXPECT_EQ(modem().requests("ENTER_UPLOAD_MODE"),
              std::vector<std::string>{"ioctl dump ENTER_UPLOAD_MODE -> 0 text=\": CP Crash by CP "
                                       "- UMTS: vmodem forced crash\""});
    EXPECT_EQ(property("vendor.ril.done_minidump"), "0");
    EXPECT_EQ(read_file(minidump).size(), 5000u) << "the old file is replaced by the dump";
    EXPECT_TRUE(files("cpcrash_").empty());
}

// A failed upload test is reported as a failed boot, and the hang option then hangs at the cycle
// end instead of booting.
TEST_F(Decisions, FailedUploadTestIsAFailedBootAndTheHangOptionHangsAfterIt) {
    start_modem();  // no partition image: the dump-mode load cannot be prepared
    set_cmdline("pax_debug.cp=1");
    start_rix({"-d", "-t", "vm420", "-o", "u"}, fast_clock());
    ASSERT_TRUE(wait_logged(info("main", "hang rix for debugging"), 30s)) << radio_log();
    EXPECT_EQ(count(kBootFailed), 1);
    EXPECT_EQ(count(kStartDumpFail), 0);
    std::this_thread::sleep_for(1s);
    EXPECT_TRUE(rix_running());
    EXPECT_EQ(count(kCallBoot), 0);
    EXPECT_TRUE(modem().requests("POWER_ON").empty());
}

// CP debug option 2 marks the CP as booted before the first boot, so a first boot that fails is
// not tried again, and a restarted daemon does not boot either.
TEST_F(Decisions, NoresetOptionIsSetBeforeTheFirstBootSoAFailedBootIsNotRetried) {
    start_modem();  // no partition image: the boot fails
    set_cmdline("pax_debug.level=1 pax_debug.cp=2");
    start_rix({"-d", "-t", "vm420"});
    ASSERT_TRUE(wait_logged(kWaiting)) << radio_log();
    stop_phone(SIGTERM);
    EXPECT_EQ(property("vendor.rix.cpboot"), "1");
    start_rix({"-d", "-t", "vm420"});
    // The kernel log starts afresh with each run; the radio log keeps both.
    auto in_radio = [&](const LogLine& line) {
        auto lines = lines_of(radio_log());
        return std::count(lines.begin(), lines.end(), line.android);
    };
    ASSERT_TRUE(eventually([&] { return in_radio(kWaiting) == 2; }, kWait)) << radio_log();
    EXPECT_EQ(in_radio(info("main", "CP_DEBUG NORESET")), 2);
    EXPECT_EQ(in_radio(info("main", "CP_DEBUG NORESET prop set")), 1);
    EXPECT_EQ(in_radio(kCallBoot), 1);
    EXPECT_EQ(in_radio(kBootFailed), 1);
}

// After a failed boot the state is read once when it is 2 and twice otherwise; only a second
// read may give 9. Each read opens the node and logs its state.
TEST_F(Decisions, CrashWhileBootingIsTwoAtTheFirstReadOrNineAtTheSecond) {
    build_modem();
    start_modem("state 2\nresult POWER_RESET -5\n");
    set_property("ro.boot.debug_level", "0x4948");
    start_rix({"-d", "-t", "vm420"}, fast_clock());
    // The state reads of each failure handling, from "start boot fail" to the next boot, and
    // "C" when it was taken for a crash.
    auto handlings = [&] {
        std::vector<std::string> out;
        bool inside = false;
        for (const auto& l : lines_of(kmsg())) {
            if (l == kBootFailed.kernel || l == kCallBoot.kernel) {
                inside = l == kBootFailed.kernel;
                out.emplace_back();
            } else if (inside && l.rfind("<6>cpif: rix: get_modem_state: modem_status: ", 0) == 0) {
                out.back() += l.substr(l.rfind(' ') + 1);
            } else if (inside && l == info("main", "CP Crash when CP booting..").kernel) {
                out.back() += "C";
            }
        }
        if (inside) {
            out.pop_back();  // still going on
        }
        return out;
    };
    auto seen = [&](const std::string& h) {
        return eventually([&] { return std::ranges::count(handlings(), h) > 0; }, 60s);
    };
    ASSERT_TRUE(seen("2C")) << kmsg();
    control("hangup 9");
    ASSERT_TRUE(seen("99C")) << kmsg();
    control("hangup 4");
    ASSERT_TRUE(seen("44")) << kmsg();
    for (const auto& h : handlings()) {
        const bool crash = h == "2C" || (h.size() == 3 && h[0] != '2' && h.substr(1) == "9C");
        EXPECT_TRUE(h.empty() || crash || (h.size() == 2 && h[0] != '2' && h[1] != '9')) << h;
    }
}

}  // namespace
}  // namespace systest
