// The daemon's answers to the questions its flow leaves open, seen from outside: what a command
// line without a modem, the upload test, the CP debug options, a boot that fails with the CP in a
// crash state and a status loop without a descriptor lead to, and how values from properties and
// the driver are converted and bounded.
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <thread>

#include "phone.h"

namespace systest {
namespace {

const LogLine kBootFailed = info("main", "start boot fail");

class Decisions : public Phone {
  protected:
    Sandbox fast_clock() const {
        Sandbox s;
        if (kClockSpeed > 1) {
            s.faketime = std::to_string(kClockSpeed);
        }
        return s;
    }

    // Lines equal to the message's kernel copy: the kernel log holds the latest run only.
    int kmsg_count(const LogLine& line) const {
        auto lines = lines_of(kmsg());
        return static_cast<int>(std::count(lines.begin(), lines.end(), line.kernel));
    }
    // Lines equal to the message's radio copy, over every run of the test.
    int radio_count(const LogLine& line) const {
        auto lines = lines_of(radio_log());
        return static_cast<int>(std::count(lines.begin(), lines.end(), line.android));
    }

    // Names of the files in the log directory that begin with `prefix`.
    std::vector<std::string> log_files(const std::string& prefix) const {
        std::vector<std::string> out;
        std::error_code ec;
        for (const auto& e : std::filesystem::directory_iterator(root() + kLogDir, ec)) {
            const std::string name = e.path().filename().string();
            if (name.rfind(prefix, 0) == 0) {
                out.push_back(name);
            }
        }
        return out;
    }

    // The trace lines of the requests, in order.
    std::vector<std::string> request_lines(const std::string& name) {
        std::vector<std::string> out;
        for (const auto& r : modem().requests(name)) {
            out.push_back(r.line);
        }
        return out;
    }
};

// A command line accepted without -t leaves no controller: one message, one second, and the
// daemon ends as for a refused command line, without a request to the modem.
TEST_F(Decisions, CommandLineWithoutModemEndsWithMinus22AfterOneSecond) {
    start_modem();
    const auto begin = std::chrono::steady_clock::now();
    start_rix({"-d"});
    auto code = wait_exit();
    const auto took = std::chrono::steady_clock::now() - begin;
    ASSERT_TRUE(code) << "rix is still running without a modem";
    EXPECT_EQ(*code, 234);
    EXPECT_GE(took, 1s);
    const LogLine invalid = info("main", "Invaild modem type 0");
    EXPECT_EQ(count(invalid), 1) << radio_log();
    EXPECT_EQ(lines_of(kmsg()).back(), invalid.kernel) << "nothing follows the message";
    EXPECT_TRUE(modem().requests().empty()) << modem().trace();
}

// Without daemon mode a boot that fails is tried again; the daemon exits only after a boot.
TEST_F(Decisions, OneShotBootThatFailsIsRetriedNotEnded) {
    start_modem();  // no partition image: every boot fails
    set_property("vendor.rix.rfs_check_done", "1");
    start_rix({"-t", "vm420"});
    ASSERT_TRUE(wait_logged(kBootFailed, 10s, 2)) << radio_log();
    EXPECT_TRUE(rix_running());
    EXPECT_EQ(count(info("status_loop", "Cp boot Oneshot")), 0);
    EXPECT_EQ(count(info("main", "Boot up process done!!!")), 0);
}

// The upload test runs the dump sequence as root before any boot. At DBG_LOW with minidump
// support the dump goes to the minidump file even though no minidump property is set, the
// driver is told minidump mode is off, no version is asked for, and the phone is then sent to
// upload mode through the dump node. The dump-mode load counts as the first load: the boot that
// follows skips VSS.
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
    EXPECT_EQ(count(info("main", "Start with root")), 0);
    EXPECT_EQ(count(kBootFailed), 0);
    EXPECT_EQ(count(info("set_minidump_mode", "minidump mode is disabled")), 1);
    auto trace = lines_of(modem().trace());
    auto set = std::find(trace.begin(), trace.end(), "ioctl boot SET_MINIDUMP_MODE enable=0 -> 0");
    auto open_dump = std::find_if(trace.begin(), trace.end(), [](const std::string& l) {
        return l.rfind("open dump ", 0) == 0;
    });
    EXPECT_LT(set, open_dump) << modem().trace();
    EXPECT_TRUE(modem().requests("GET_CPIF_VERSION").empty()) << "no dump log at DBG_LOW";
    auto uploads = request_lines("ENTER_UPLOAD_MODE");
    ASSERT_EQ(uploads.size(), 1u);
    EXPECT_EQ(uploads[0].rfind("ioctl dump ENTER_UPLOAD_MODE", 0), 0u) << uploads[0];
    EXPECT_EQ(property("vendor.ril.done_minidump"), "0");
    EXPECT_EQ(read_file(minidump).size(), 5000u) << "the old file is replaced by the dump";
    EXPECT_TRUE(log_files("cpcrash_").empty());

    EXPECT_EQ(count(kCallBoot), 1);
    EXPECT_EQ(count(info("load_cp_images", "stage[3] : stage is already xmit once")), 1);
    EXPECT_EQ(count(info("boot", "skip VSS check")), 1);
}

// A failed upload test is reported as a failed boot, and the hang option then hangs at the cycle
// end instead of booting.
TEST_F(Decisions, FailedUploadTestIsAFailedBootAndTheHangOptionHangsAfterIt) {
    start_modem();  // no partition image: the dump-mode load cannot be prepared
    set_cmdline("pax_debug.cp=1");
    start_rix({"-d", "-t", "vm420", "-o", "u"}, fast_clock());
    ASSERT_TRUE(wait_logged(info("main", "hang rix for debugging"), 30s)) << radio_log();
    EXPECT_EQ(count(kBootFailed), 1);
    EXPECT_EQ(count(info("status_loop", "start_dump fail")), 0);
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
    EXPECT_EQ(count(info("main", "CP_DEBUG NORESET prop set")), 1);
    EXPECT_EQ(count(kCallBoot), 1);
    EXPECT_EQ(count(kBootFailed), 1);
    EXPECT_EQ(count(info("main", "CP_DEBUG NORESET")), 1);
    EXPECT_EQ(property("vendor.rix.cpboot"), "1");

    stop_phone(SIGTERM);
    start_rix({"-d", "-t", "vm420"});
    // The kernel log starts afresh with each run; the radio log keeps both.
    ASSERT_TRUE(eventually([&] { return radio_count(kWaiting) == 2; }, kWait)) << radio_log();
    EXPECT_EQ(radio_count(info("main", "CP_DEBUG NORESET")), 2);
    EXPECT_EQ(radio_count(info("main", "CP_DEBUG NORESET prop set")), 1);
    EXPECT_EQ(radio_count(kCallBoot), 1);
}

// After a failed boot the state is read once when it is 2 and twice otherwise; only a second
// read may give 9. Each read opens the node and logs its state.
TEST_F(Decisions, CrashWhileBootingIsTwoAtTheFirstReadOrNineAtTheSecond) {
    build_modem();
    start_modem("state 2\nresult POWER_RESET -5\n");
    set_property("ro.boot.debug_level", "0x4948");
    start_rix({"-d", "-t", "vm420"}, fast_clock());

    // The state reads of each failure handling: from "start boot fail" to the next boot.
    struct Handling {
        std::vector<std::string> states;
        bool crash = false;
    };
    auto handlings = [&] {
        std::vector<Handling> out;
        bool inside = false;
        for (const auto& l : lines_of(kmsg())) {
            if (l == kBootFailed.kernel) {
                out.emplace_back();
                inside = true;
            } else if (l == kCallBoot.kernel) {
                inside = false;
            } else if (inside && l.rfind("<6>cpif: rix: get_modem_state: modem_status: ", 0) == 0) {
                out.back().states.push_back(l.substr(l.rfind(' ') + 1));
            } else if (inside && l == info("main", "CP Crash when CP booting..").kernel) {
                out.back().crash = true;
            }
        }
        if (inside && !out.empty()) {
            out.pop_back();  // still running
        }
        return out;
    };
    auto seen = [&](const std::vector<std::string>& states, bool crash) {
        for (const auto& h : handlings()) {
            if (h.states == states && h.crash == crash) {
                return true;
            }
        }
        return false;
    };
    ASSERT_TRUE(eventually([&] { return seen({"2"}, true); }, 60s)) << kmsg();
    modem().hang_up(9);
    ASSERT_TRUE(eventually([&] { return seen({"9", "9"}, true); }, 60s)) << kmsg();
    modem().hang_up(4);
    ASSERT_TRUE(eventually([&] { return seen({"4", "4"}, false); }, 60s)) << kmsg();
    for (const auto& h : handlings()) {
        const bool crash = (h.states.size() == 1 && h.states[0] == "2") ||
                           (h.states.size() == 2 && h.states[0] != "2" && h.states[1] == "9");
        EXPECT_EQ(h.crash, crash) << ::testing::PrintToString(h.states);
        EXPECT_TRUE(h.states.size() == 1 ? h.states[0] == "2" : h.states.size() == 2)
            << ::testing::PrintToString(h.states);
    }
}

// A status loop that cannot open the boot node while a CP debug option is set counts its start
// and ends at once instead of waiting for ever; the cycle starts it again a second later.
TEST_F(Decisions, StatusLoopWithoutDescriptorEndsAndStartsOverEverySecond) {
    start_modem();
    set_cmdline("pax_debug.level=1 pax_debug.cp=3");
    Sandbox no_boot_node;
    no_boot_node.omit_nodes = {"umts_boot0"};
    start_rix({"-d", "-t", "vm420"}, no_boot_node);
    ASSERT_TRUE(wait_logged(kLoopExit, 10s, 3)) << radio_log();
    EXPECT_GE(count(error("No such file or directory", "status_loop", "/dev/umts_boot0 open fail")),
              3);
    EXPECT_EQ(radio_log().find("open fail, err ="), std::string::npos) << "no dump attempt";
    EXPECT_GE(count(kWaiting), 3);
    EXPECT_GE(std::stoi(property("vendor.rix.cp_reset").value_or("0")), 3);
    EXPECT_EQ(property("vendor.rix.boot_done"), "1");
    EXPECT_TRUE(rix_running());
}

// The loop count is read with atoi's leniency and wraps like a 32-bit counter.
TEST_F(Decisions, LoopCountIsReadLikeAtoi) {
    start_modem();
    set_cmdline("pax_debug.level=1 pax_debug.cp=3");
    set_property("vendor.rix.cp_reset", "7x");
    start_rix({"-d", "-t", "vm420"});
    ASSERT_TRUE(wait_logged(kWaiting)) << radio_log();
    EXPECT_EQ(property("vendor.rix.cp_reset"), "8");
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"-5", "-4"}, {"abc", "1"}, {"2147483647", "-2147483648"}};
    int loops = 1;
    for (const auto& [before, after] : cases) {
        set_property("vendor.rix.cp_reset", before);
        modem().control("crash_reset");
        ASSERT_TRUE(wait_logged(kWaiting, 10s, ++loops)) << radio_log();
        EXPECT_EQ(property("vendor.rix.cp_reset"), after) << before;
    }
}

// A crash reset acts on the debug level read at start; only a crash reads it again. The status
// loop reads the state itself (no state line), logs the shutdown property at each event, and
// saves the kernel log of a completed boot only from the second loop on.
TEST_F(Decisions, CrashResetKeepsTheStartUpDebugLevelACrashReadsItAgain) {
    build_modem();
    start_modem();
    set_property("ro.boot.debug_level", "0x4948");
    set_property("vendor.rix.rfs_check_done", "1");
    start_rix({"-d", "-t", "vm420"}, fast_clock());
    ASSERT_TRUE(wait_logged(kWaiting, 30s)) << radio_log();
    const LogLine level_high = info("check_debug_level", "debug_level=2, cp_debug=0");
    EXPECT_EQ(count(level_high), 1);
    EXPECT_TRUE(log_files("cp_boot_done_umts_").empty()) << "boot_done was not yet 1";

    set_property("ro.boot.debug_level", "0x4F4C");
    modem().control("crash_reset");
    // 30 s for rild, on the real clock in a sanitized build.
    ASSERT_TRUE(wait_logged(kWaiting, 60s, 2)) << radio_log();
    EXPECT_EQ(count(info("status_loop", "get event 1")), 1);
    EXPECT_EQ(count(level_high), 1);
    EXPECT_EQ(radio_log().find("check_debug_level: debug_level=0"), std::string::npos);
    EXPECT_EQ(radio_log().find("get_cmdline_str"), std::string::npos);
    EXPECT_TRUE(eventually([&] { return log_files("rix_only_umts_").size() == 1; }, kWait))
        << "the start-up level 2 still applies";
    EXPECT_TRUE(eventually([&] { return log_files("cp_boot_umts_").size() == 1; }, kWait));
    EXPECT_TRUE(eventually([&] { return log_files("cp_boot_done_umts_").size() == 1; }, kWait));

    modem().control("crash");
    ASSERT_TRUE(wait_logged(kWaiting, 60s, 3)) << radio_log();
    EXPECT_EQ(count(info("check_debug_level", "debug_level=0, cp_debug=0")), 1);
    EXPECT_EQ(count(info("status_loop", "DBG_LOW, wait onrestart by rild")), 1);
    EXPECT_TRUE(log_files("cpcrash_").empty());

    EXPECT_EQ(count(info("status_loop", "deviceOff = 0")), 2) << "one per event";
    EXPECT_EQ(count(info("main", "deviceOff = 0")), 0) << "the cycle logs only a shutdown";
    int state_lines = 0;
    for (const auto& l : lines_of(radio_log())) {
        state_lines += l.find("get_modem_state: modem_status: ") != std::string::npos;
    }
    EXPECT_EQ(state_lines, count(kCallBoot)) << "only each boot's own read logs the state";
}

// A log directory that cannot be made (neither made nor full) skips the collection: no dump and
// no "CP status RESET"; the CP is booted again.
TEST_F(Decisions, UnusableLogDirectorySkipsTheCollectionWithoutReset) {
    build_modem();
    start_modem();
    set_property("ro.boot.debug_level", "0x4948");
    set_property("vendor.rix.rfs_check_done", "1");
    start_rix({"-d", "-t", "vm420"});
    ASSERT_TRUE(wait_logged(kWaiting, 30s)) << radio_log();
    std::filesystem::remove_all(root() + kLogDir);
    write_file(kLogDir, "not a directory");
    modem().control("crash");
    ASSERT_TRUE(wait_logged(kWaiting, 30s, 2)) << radio_log();
    EXPECT_EQ(count(info("status_loop", "CP status CRASH")), 1);
    EXPECT_GE(count(info("create_directory", "(" + kLogDir + ") is not a directory")), 1);
    EXPECT_EQ(count(info("status_loop", "CP status RESET")), 0);
    EXPECT_EQ(count(info("status_loop", "start_dump fail")), 0);
    EXPECT_EQ(count_prefix(lines_of(modem().trace()), "open dump"), 0);
    EXPECT_TRUE(modem().requests("ENTER_UPLOAD_MODE").empty());
}

// Texts the driver may leave unterminated are bounded: a 20-byte version and a 512-byte crash
// reason. The dump-mode security answer 13 is tolerated after its error line.
TEST_F(Decisions, UnterminatedDriverTextsAreBoundedAndDumpAnswerThirteenIsTolerated) {
    build_modem();
    start_modem(
        "cpif_version ABCDEFGHIJKLMNOPQRST\ncrash_owner 16\ncrash_reason_unterminated 1\n"
        "security 1 13\ndump_size 3000\ndump_steps 1\n");
    set_property("ro.boot.debug_level", "0x4948");
    set_property("vendor.rix.rfs_check_done", "1");
    start_rix({"-d", "-t", "vm420"});
    ASSERT_TRUE(wait_logged(kWaiting, 30s)) << radio_log();
    modem().control("crash");
    ASSERT_TRUE(wait_logged(kWaiting, 60s, 2)) << radio_log();
    EXPECT_EQ(count(info("std_dump_write_versions", "CPIF version: ABCDEFGHIJKLMNOPQRST")), 1)
        << radio_log();
    EXPECT_EQ(count_prefix(lines_of(kmsg()),
                           "<3>cpif: rix: (ERR! Success) std_security_req: ERR! "
                           "IOCTL_CHECK_SECURITY fail (0xd)"),
              1)
        << kmsg();
    EXPECT_EQ(count(info("std_security_req", "dump mode and ret:13")), 1);
    EXPECT_EQ(count(info("status_loop", "start_dump fail")), 0);
    auto uploads = request_lines("ENTER_UPLOAD_MODE");
    ASSERT_EQ(uploads.size(), 1u) << modem().trace();
    const auto quote = uploads[0].find("text=\": CP Crash by CLD - ");
    ASSERT_NE(quote, std::string::npos) << uploads[0];
    EXPECT_EQ(uploads[0].size() - (quote + 6) - 1, 511u) << uploads[0];
}

// The driver requests of the boot report what they must: power-on and completion failures
// with the value, power reset and boot-loader start without; a completion failure is still
// reported to the driver; and a state that cannot be read leads to a power reset.
TEST_F(Decisions, BootRequestFailuresAndAnUnreadableStateAsTheDriverSeesThem) {
    build_modem();
    start_modem("result GET_MODEM_STATE -5\nresult POWER_ON -5\n");
    set_property("vendor.rix.rfs_check_done", "1");
    start_rix({"-d", "-t", "vm420"});
    const std::string eio = "Input/output error";
    ASSERT_TRUE(wait_logged(error(eio, "std_boot_power_on", "ERR! IOCTL_POWER_ON fail (-1)")))
        << radio_log();
    EXPECT_TRUE(logged(info("get_modem_state", "modem_status: -1")));
    EXPECT_TRUE(logged(info("boot", "Power reset CP_BOOT_MODE_NORMAL")));
    EXPECT_FALSE(modem().requests("POWER_RESET").empty());

    control("set result GET_MODEM_STATE default");
    control("set result POWER_ON default");
    control("set result COMPLETE_NORMAL_BOOTUP -5");
    ASSERT_TRUE(wait_logged(error(eio, "std_boot_complete_normal_bootup",
                                  "ERR! IOCTL_COMPLETE_NORMAL_BOOTUP fail (-1)")))
        << radio_log();
    ASSERT_TRUE(wait_request("NOTIFY_BOOTUP_FAIL")) << modem().trace();

    control("set result COMPLETE_NORMAL_BOOTUP default");
    control("set result START_CP_BOOTLOADER -5");
    ASSERT_TRUE(wait_logged(
        error(eio, "std_boot_start_cp_bootloader", "ERR! IOCTL_START_CP_BOOTLOADER fail")))
        << radio_log();

    control("set result START_CP_BOOTLOADER default");
    control("set result GET_MODEM_STATE -5");
    control("set result POWER_RESET -5");
    ASSERT_TRUE(wait_logged(error(eio, "std_boot_power_reset", "ERR! IOCTL_POWER_RESET fail")))
        << radio_log();
}

// A TOC count of 0 loads nothing but still asks for every check, with zero sizes and offsets, and
// the boot completes. The messages name the security modes with their own capitals.
TEST_F(Decisions, TocCountZeroLoadsNothingButStillChecksEveryPart) {
    std::vector<std::string> parts = {"--count", "0"};
    parts.insert(parts.end(), kBootableParts.begin(), kBootableParts.end());
    build_modem(parts);
    start_modem();
    set_property("vendor.rix.rfs_check_done", "1");
    start_rix({"-t", "vm420"});
    auto code = wait_exit(60s);
    ASSERT_TRUE(code) << radio_log();
    EXPECT_EQ(*code, 0) << radio_log();
    EXPECT_TRUE(modem().requests("LOAD_CP_IMAGE").empty()) << modem().trace();
    std::vector<std::string> args;
    for (const auto& line : request_lines("CHECK_SECURITY")) {
        args.push_back(line.substr(line.find("mode="), line.find(" ->") - line.find("mode=")));
    }
    EXPECT_EQ(args, (std::vector<std::string>{"mode=2 param2=0x0 param3=0x0 param4=0x0",
                                              "mode=7 param2=0x0 param3=0x0 param4=0x0",
                                              "mode=7 param2=0x0 param3=0x0 param4=0x0",
                                              "mode=0 param2=0x0 param3=0x0 param4=0x0"}));
    const std::vector<std::string> order = {
        info("boot", "Request security : non-secure mode").kernel,
        info("boot", "Request Security : TOC secure mode").kernel,
        info("boot", "Request Security : VSS secure mode").kernel,
        info("boot", "Request security : BOOT/MAIN secure mode").kernel};
    std::vector<std::string> got;
    for (const auto& l : lines_of(kmsg())) {
        if (l.find(" boot: Request ") != std::string::npos) {
            got.push_back(l);
        }
    }
    EXPECT_EQ(got, order);
    EXPECT_EQ(property("vendor.rix.first_xmit_done"), "1");
}

// A part whose size equals its offset in the partition is sent like any other.
TEST_F(Decisions, PartWhoseSizeEqualsItsOffsetIsSent) {
    build_modem({"TOC", "BOOT:size=4096", "MAIN:size=0x10000", "VSS:size=4096", "NV:size=0x10000",
                 "OFFSET"});
    start_modem();
    set_property("vendor.rix.rfs_check_done", "1");
    start_rix({"-t", "vm420"});
    auto code = wait_exit(60s);
    ASSERT_TRUE(code && *code == 0) << radio_log();
    bool sent = false;
    for (const auto& l : request_lines("LOAD_CP_IMAGE")) {
        sent |= l.find("size=0x1000 ") != std::string::npos &&
                l.find("b_offset=0x1000 ") != std::string::npos &&
                l.find("len=4096 ") != std::string::npos;
    }
    EXPECT_TRUE(sent) << modem().trace();
}

// The silent-reset hand-back names the file it deleted; with no record waiting, the hand-back
// reports the missing file as an error and goes on.
TEST_F(Decisions, SilentResetHandBackNamesTheFileOrReportsThatNoneWaits) {
    build_modem();
    start_modem();
    set_property("vendor.rix.rfs_check_done", "1");
    start_rix({"-t", "vm420"});
    ASSERT_TRUE(wait_exit(60s)) << radio_log();
    const std::string last = kLogDir + "/err/last_sr_info_umts";
    EXPECT_EQ(kmsg_count(info("restore_srinfo", "done = " + last)), 1) << kmsg();
    EXPECT_FALSE(exists(last));

    control("set srinfo_marker 0x12345678");
    start_rix({"-t", "vm420"});
    ASSERT_TRUE(wait_exit(60s)) << radio_log();
    EXPECT_EQ(kmsg_count(
                  error("No such file or directory", "open_srinfo_last", "last_sr_info open fail")),
              1)
        << kmsg();
    EXPECT_EQ(kmsg_count(info("restore_srinfo", "sr_info_last open fail(-1)")), 1);
}

// The back-trace area size is MiB shifted in 32 unsigned bits: 2048 MiB sets the top bit and
// reads back as 2048, 4096 MiB wraps to 0. A size the driver cannot report is written back empty.
TEST_F(Decisions, BtlSizeIsShiftedAsAnUnsigned32BitValue) {
    start_modem();
    const std::vector<std::tuple<std::string, std::string, std::string>> cases = {
        {"2048", "0x80000000", "2048"}, {"4096", "0x00000000", "0"}};
    for (const auto& [mib, logged_size, back] : cases) {
        set_property("persist.vendor.rix.btl_size", mib);
        start_rix({"-t", "vm420"});
        ASSERT_TRUE(wait_kmsg(
            info("adjust_btl_ramsize", "persist.vendor.rix.btl_size " + logged_size).kernel))
            << kmsg();
        ASSERT_TRUE(wait_property("persist.vendor.rix.btl_size", back)) << mib;
        stop_phone(SIGTERM);
    }
    set_property("persist.vendor.rix.btl_size", "16");
    control("set result GET_BTL_SIZE -5");
    start_rix({"-t", "vm420"});
    ASSERT_TRUE(wait_property("persist.vendor.rix.btl_size", "")) << kmsg();
    EXPECT_EQ(kmsg_count(error("Input/output error", "adjust_btl_ramsize",
                               "Failed to IOCTL_GET_BTL_SIZE")),
              1)
        << kmsg();
    EXPECT_EQ(kmsg_count(error("Input/output error", "main", "adjust btl ramsize fail")), 0);
}

}  // namespace
}  // namespace systest
