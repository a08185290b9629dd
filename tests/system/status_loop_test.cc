// The status loop after a normal boot: events on the boot node and what the daemon makes of them.
#include <thread>

#include "phone.h"

namespace systest {
namespace {

using StatusLoop = Phone;

const LogLine kWaiting = info("status_loop", "Wait event from modem type: 1");

TEST_F(StatusLoop, UnknownStateIsLoggedAndTheLoopWaitsAgain) {
    build_modem();
    start_modem();
    start_rix({"-d", "-t", "vm420"});
    // A failed boot ends the wait early: the daemon would only retry it every second.
    const LogLine boot_failed = info("main", "start boot fail");
    ASSERT_TRUE(eventually([&] { return logged(kWaiting) || logged(boot_failed); }, 90s));
    ASSERT_TRUE(logged(kWaiting)) << "no booted modem in the status loop:\n" << radio_log();

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
    EXPECT_EQ(modem().requests("GET_MODEM_STATE").size(), 2u) << modem().trace();
    EXPECT_TRUE(rix_running());
}

}  // namespace
}  // namespace systest
