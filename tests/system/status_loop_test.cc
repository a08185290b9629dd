// The status loop after a normal boot: events on the boot node and what the daemon makes of them.
#include <thread>

#include "phone.h"

namespace systest {
namespace {

using StatusLoop = Phone;

TEST_F(StatusLoop, UnknownStateIsLoggedAndTheLoopWaitsAgain) {
    build_modem();
    start_modem();
    start_rix({"-d", "-t", "vm420"});
    // A failed boot ends the wait early: the daemon would only retry it every second.
    const LogLine boot_failed = info("main", "start boot fail");
    ASSERT_TRUE(eventually([&] { return logged(kWaiting) || logged(boot_failed); }, 90s));
    ASSERT_TRUE(logged(kWaiting)) << "no booted modem in the status loop:\n" << radio_log();
    // Only the loop's own descriptor is open: the boot closed all of its own.
    auto handles = modem().handles();
    EXPECT_EQ(handles["boot"], 1);
    EXPECT_EQ(handles["dump"], 0);
    EXPECT_EQ(handles["memshare"], 0);

    const LogLine event = info("status_loop", "get event 4");
    const LogLine unknown = info("status_loop", "unknown Modem status");
    modem().hang_up(4);
    ASSERT_TRUE(wait_logged(unknown)) << radio_log();
    // One hang-up is one event: the loop then sleeps in poll again instead of re-reading.
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(count(event), 1);
    EXPECT_EQ(count(unknown), 1);
    EXPECT_EQ(count(info("status_loop", "deviceOff = 0")), 1);

    // Still waiting on the same descriptor: a second event is read the same way.
    modem().hang_up(4);
    ASSERT_TRUE(wait_logged(unknown, kWait, 2)) << radio_log();
    EXPECT_EQ(count(event), 2);
    EXPECT_EQ(count(kWaiting), 1) << "the loop must not start over";
    EXPECT_EQ(count(info("status_loop", "status loop exit")), 0);
    EXPECT_EQ(count(info("status_loop", "CP status_loop start (modem = 1)")), 1);
    // The boot asks for the state once before powering on; the loop once per event.
    int answered_4 = 0;
    for (const auto& r : modem().requests("GET_MODEM_STATE")) {
        answered_4 += r.result == 4;
    }
    EXPECT_EQ(answered_4, 2) << modem().trace();
    EXPECT_TRUE(rix_running());
}

}  // namespace
}  // namespace systest

namespace systest {
namespace {

// CP_DEBUG_NOBOOT at a debug level above DBG_LOW: the daemon skips the boot and goes
// straight to the status loop, which makes the loop reachable without a booted modem.
class StatusLoopWithoutBoot : public Phone {
  protected:
    void start_waiting() {
        start_modem();
        set_cmdline("pax_debug.level=1 pax_debug.cp=3");
        start_rix({"-d", "-t", "vm420"});
        ASSERT_TRUE(wait_logged(kWaiting)) << radio_log();
        ASSERT_EQ(count(info("main", "CP_DEBUG NOBOOT")), 1);
    }
};

TEST_F(StatusLoopWithoutBoot, UnknownStateIsOneEventAndTheLoopWaitsAgain) {
    start_waiting();
    const LogLine event = info("status_loop", "get event 4");
    const LogLine unknown = info("status_loop", "unknown Modem status");
    modem().hang_up(4);
    ASSERT_TRUE(wait_logged(unknown)) << radio_log();
    std::this_thread::sleep_for(300ms);
    // A driver raises POLLHUP for a state change; if the modem kept it raised, this loop would
    // re-read the state without end.
    EXPECT_EQ(count(event), 1) << "one hang-up must be read once";
    EXPECT_EQ(count(unknown), 1);
    EXPECT_EQ(count(info("status_loop", "status loop exit")), 0);
    EXPECT_EQ(property("vendor.rix.cp_reset"), "1");
    EXPECT_EQ(property("vendor.rix.boot_done"), "1");
    EXPECT_TRUE(rix_running());
}

TEST_F(StatusLoopWithoutBoot, ShutdownSeenAtAnEventPowersOffAndIsRecorded) {
    start_waiting();
    set_property("sys.shutdown.requested", "1");
    modem().hang_up(4);
    ASSERT_TRUE(wait_logged(info("status_loop", "shutdown"))) << radio_log();
    EXPECT_EQ(count(info("status_loop", "deviceOff = 1")), 2)
        << "logged once when read and once more before the power-off";
    ASSERT_TRUE(wait_property("vendor.rix.deviceOffRes", "1"));
    EXPECT_EQ(modem().requests("POWER_OFF").size(), 1u) << modem().trace();
    EXPECT_EQ(count(info("status_loop", "get event 4")), 0) << "the state is not acted on";
    std::this_thread::sleep_for(1s);
    EXPECT_TRUE(rix_running()) << "the daemon must sleep for ever after the power-off";
}

TEST_F(StatusLoopWithoutBoot, CrashResetWithACpDebugOptionEndsTheLoopAndStartsOver) {
    start_waiting();
    modem().control("crash_reset");
    ASSERT_TRUE(wait_logged(info("status_loop", "status loop exit"))) << radio_log();
    EXPECT_EQ(count(info("status_loop", "get event 1")), 1);
    EXPECT_EQ(count(info("status_loop", "STATE_CRASH_RESET, wait onrestart by rild")), 0)
        << "a CP debug option ends the loop at once";
    // The cycle end waits 1 s, then the next cycle skips the boot again and waits anew.
    ASSERT_TRUE(wait_logged(kWaiting, 5s, 2)) << radio_log();
    EXPECT_EQ(count(info("main", "CP_DEBUG NOBOOT")), 2);
    EXPECT_EQ(property("vendor.rix.cp_reset"), "2");
}

}  // namespace
}  // namespace systest

namespace systest {
namespace {

// The crash-reset wait is 3 s plus 27 s, on a faster clock where the build allows it.
TEST_F(StatusLoop, CrashResetWaitsForRildThenBootsAgain) {
    build_modem();
    start_modem();
    set_cmdline("pax_debug.level=1");
    Sandbox fast;
    if (kClockSpeed > 1) {
        fast.faketime = std::to_string(kClockSpeed);
    }
    start_rix({"-d", "-t", "vm420"}, fast);
    ASSERT_TRUE(wait_logged(kWaiting, 30s)) << radio_log();

    const auto rild_wait = std::chrono::duration_cast<Millis>(30s) / kClockSpeed;
    auto begin = std::chrono::steady_clock::now();
    modem().control("crash_reset");
    ASSERT_TRUE(wait_logged(info("status_loop", "status loop exit"), rild_wait + 20s))
        << radio_log();
    auto waited = std::chrono::steady_clock::now() - begin;
    EXPECT_EQ(count(info("status_loop", "get event 1")), 1);
    EXPECT_EQ(count(info("status_loop", "STATE_CRASH_RESET, wait onrestart by rild")), 1);
    EXPECT_EQ(count(info("status_loop", "RILD dosenot restart for 3sec, save logs")), 1);
    EXPECT_GT(waited, rild_wait * 85 / 100);
    EXPECT_LT(waited, rild_wait + 10s);

    // Then the cycle boots the CP again and waits for the next event.
    ASSERT_TRUE(wait_logged(kWaiting, 30s, 2)) << radio_log();
    EXPECT_EQ(modem().handles()["boot"], 1) << "the first loop's descriptor is closed";
    EXPECT_EQ(count(info("main", "Call boot start")), 2);
    EXPECT_EQ(count(info("main", "Boot up process done!!!")), 2);
    EXPECT_EQ(property("vendor.rix.cp_reset"), "2");
    EXPECT_EQ(property("vendor.rix.reset_done"), "1");
}

}  // namespace
}  // namespace systest
