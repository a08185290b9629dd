// The status loop: events on the boot node and what the daemon makes of them, with a booted CP
// and, through CP debug option 3 (NOBOOT), without one.
#include "phone.h"

namespace systest {
namespace {

using StatusLoop = Phone;
const LogLine kUnknown = info("status_loop", "unknown Modem status");

// A crash reset waits 3 s for rild, saves the kernel log, waits 27 s more and boots again. It
// acts on the debug level read at start; a crash reads the level again, and at DBG_LOW waits 3 s
// for rild and boots again without evidence (a minidump property without -o m changes nothing).
TEST_F(StatusLoop, CrashResetWaitsForRildAtTheStartUpLevelACrashReadsTheLevelAgain) {
    boot("", {}, "0x4948", fast_clock());
    const LogLine level_high = info("check_debug_level", "debug_level=2, cp_debug=0");
    EXPECT_EQ(count(level_high), 1);
    EXPECT_TRUE(files("cp_boot_done_umts_").empty()) << "boot_done was not yet 1";

    set_property("ro.boot.debug_level", "0x4F4C");
    const auto rild_wait = std::chrono::duration_cast<Millis>(30s) / kClockSpeed;
    auto begin = std::chrono::steady_clock::now();
    control("crash_reset");
    ASSERT_TRUE(wait_logged(kLoopExit, rild_wait + 20s)) << radio_log();
    auto waited = std::chrono::steady_clock::now() - begin;
    EXPECT_GT(waited, rild_wait * 85 / 100);
    EXPECT_LT(waited, rild_wait + 10s);
    ASSERT_TRUE(wait_logged(kWaiting, 60s, 2)) << radio_log();
    expect_counts({{info("status_loop", "get event 1"), 1},
                   {info("status_loop", "STATE_CRASH_RESET, wait onrestart by rild"), 1},
                   {info("status_loop", "RILD dosenot restart for 3sec, save logs"), 1},
                   {level_high, 1},
                   {kCallBoot, 2},
                   {kBootDone, 2},
                   {info("save_logs_thread", "pthread_create fail"), 0}});
    EXPECT_EQ(radio_log().find("check_debug_level: debug_level=0"), std::string::npos);
    EXPECT_EQ(radio_log().find("get_cmdline_str"), std::string::npos);
    EXPECT_EQ(modem().handles()["boot"], 1) << "the first loop's descriptor is closed";
    EXPECT_EQ(property("vendor.rix.cp_reset"), "2");
    EXPECT_EQ(property("vendor.rix.reset_done"), "1");
    // The start-up level 2 still applies: the captures of the crash reset and of both boots, each
    // "<name>%Y%m%d%H%M_%S.log" with the ring text and one zero byte.
    for (const std::string capture : {"rix_only_umts_", "cp_boot_umts_", "cp_boot_done_umts_"}) {
        const auto captured = [&] {
            const auto names = files(capture);
            return names.size() == 1 && names[0].size() == capture.size() + 19 &&
                   read_file(kLogDir + "/" + names[0]).ends_with('\0');
        };
        EXPECT_TRUE(eventually(captured, kWait)) << capture;
    }

    set_property("persist.sys.enable_minidump0", "1");
    begin = std::chrono::steady_clock::now();
    control("crash");
    ASSERT_TRUE(wait_logged(kCallBoot, 30s, 3)) << radio_log();
    EXPECT_GT(std::chrono::steady_clock::now() - begin,
              std::chrono::duration_cast<Millis>(3s) / kClockSpeed);
    ASSERT_TRUE(wait_logged(kWaiting, 60s, 3)) << radio_log();
    // "deviceOff = 0" once per event, never from the cycle (it logs only a shutdown).
    expect_counts({{info("check_debug_level", "debug_level=0, cp_debug=0"), 1},
                   {info("status_loop", "DBG_LOW, wait onrestart by rild"), 1},
                   {info("status_loop", "CP status CRASH"), 0},
                   {kStatusReset, 0},
                   {info("status_loop", "deviceOff = 0"), 2},
                   {info("main", "deviceOff = 0"), 0}});
    EXPECT_TRUE(files("cpcrash_").empty());
    EXPECT_EQ(traced("open dump"), 0);
    EXPECT_TRUE(modem().requests("ENTER_UPLOAD_MODE").empty());
    EXPECT_EQ(count_prefix(lines_of(radio_log()), "D/boot: rix: get_modem_state: modem_status: "),
              3)
        << "only each boot's own read logs the state";
}

// Without a boot the loop starts at once. An unknown state is one event, after which the loop
// waits again on its own descriptor. A shutdown seen at an event powers the CP off, is recorded
// and parks the daemon. The loop count is read with atoi's leniency and wraps like a
// 32-bit counter. A crash reset with a CP debug option ends the loop at once and the cycle starts
// it again a second later.
TEST_F(StatusLoop, WithoutBootCountsItsStartsAndPowersOffAtAShutdown) {
    start_modem();
    set_cmdline("pax_debug.level=1 pax_debug.cp=3");
    set_property("vendor.rix.cp_reset", "7x");
    start_rix({"-d", "-t", "vm420"});
    ASSERT_TRUE(wait_logged(kWaiting)) << radio_log();
    EXPECT_EQ(property("vendor.rix.cp_reset"), "8");
    EXPECT_EQ(property("vendor.rix.boot_done"), "1");
    for (int n = 1; n <= 2; ++n) {
        control("hangup 4");
        ASSERT_TRUE(wait_logged(kUnknown, kWait, n)) << radio_log();
        // One hang-up is one event: the loop then sleeps in poll again instead of re-reading.
        std::this_thread::sleep_for(300ms);
        EXPECT_EQ(count(info("status_loop", "get event 4")), n);
        EXPECT_EQ(count(kUnknown), n);
        EXPECT_EQ(count(info("status_loop", "deviceOff = 0")), n);
    }
    EXPECT_EQ(traced("ioctl boot GET_MODEM_STATE -> 4"), 2) << modem().trace();
    EXPECT_EQ(count(kWaiting), 1) << "the loop must not start over";
    EXPECT_EQ(count(info("status_loop", "CP status_loop start (modem = 1)")), 1);
    EXPECT_EQ(traced("open boot"), 1) << "the loop keeps its one descriptor across events";
    set_property("sys.shutdown.requested", "1");
    control("hangup 4");
    ASSERT_TRUE(wait_logged(info("status_loop", "shutdown"))) << radio_log();
    EXPECT_EQ(count(info("status_loop", "deviceOff = 1")), 2)
        << "logged once when read and once more before the power-off";
    ASSERT_TRUE(wait_property("vendor.rix.deviceOffRes", "1"));
    EXPECT_EQ(modem().requests("POWER_OFF").size(), 1u) << modem().trace();
    EXPECT_EQ(count(info("status_loop", "get event 4")), 2) << "the state is not acted on";
    std::this_thread::sleep_for(1s);
    EXPECT_TRUE(rix_running()) << "the daemon sleeps for ever after the power-off";

    set_property("sys.shutdown.requested", "0");
    for (const auto& [before, after] : std::vector<std::pair<std::string, std::string>>{
             {"-5", "-4"}, {"abc", "1"}, {"2147483647", "-2147483648"}}) {
        stop_phone(SIGTERM);
        set_property("vendor.rix.cp_reset", before);
        start_rix({"-d", "-t", "vm420"});
        EXPECT_TRUE(wait_property("vendor.rix.cp_reset", after)) << before;
    }
    // The kernel log holds the latest run only.
    auto in_kmsg = [&](const LogLine& line) { return count_prefix(lines_of(kmsg()), line.kernel); };
    ASSERT_TRUE(wait_logged(kWaiting)) << radio_log();
    control("crash_reset");
    ASSERT_TRUE(wait_logged(kLoopExit)) << radio_log();
    EXPECT_EQ(count(info("status_loop", "get event 1")), 1);
    EXPECT_EQ(count(info("status_loop", "STATE_CRASH_RESET, wait onrestart by rild")), 0);
    ASSERT_TRUE(eventually([&] { return in_kmsg(kWaiting) == 2; }, 5s)) << kmsg();
    EXPECT_EQ(in_kmsg(info("main", "CP_DEBUG NOBOOT")), 2);
    EXPECT_EQ(property("vendor.rix.cp_reset"), "-2147483647");
}

// A loop that cannot open the boot node while a CP debug option is set counts its start and
// ends at once instead of waiting for ever; the cycle starts it again a second later.
TEST_F(StatusLoop, WithoutDescriptorEndsAndStartsOverEverySecond) {
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

// An error condition on the boot node without a hang-up is no event: the loop looks again a
// second later instead of reading the state, and does not spin.
TEST_F(StatusLoop, PollErrorWithoutHangUpIsNoEventAndIsLookedAtEverySecond) {
    boot("boot_poll_error 1\n");
    const auto polls = [&] { return traced("poll boot events=0x18 -> 0x8"); };
    ASSERT_TRUE(eventually([&] { return polls() >= 1; }, 5s)) << modem().trace();
    const size_t state_reads = modem().requests("GET_MODEM_STATE").size();
    std::this_thread::sleep_for(3s);
    EXPECT_GE(polls(), 3) << modem().trace();
    EXPECT_LE(polls(), 5) << modem().trace();
    EXPECT_EQ(radio_log().find("get event"), std::string::npos) << radio_log();
    EXPECT_EQ(modem().requests("GET_MODEM_STATE").size(), state_reads) << modem().trace();
    EXPECT_TRUE(rix_running());
}

}  // namespace
}  // namespace systest
