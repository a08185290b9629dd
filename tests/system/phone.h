// Phone: the system-test fixture. Each test gets a fresh phone root in a temp directory, a
// virtual modem, and the real rix binary running inside vphone.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "process.h"
#include "virtual_modem.h"

namespace systest {

using namespace std::chrono_literals;
using Millis = std::chrono::milliseconds;

inline constexpr Millis kWait = 10s;

// A partition with every part a boot loads, and an NV file that fills its NV entry.
inline const std::vector<std::string> kBootableParts = {
    "TOC", "BOOT:size=70000", "MAIN:size=0x100000", "VSS:size=4096", "NV:size=0x10000", "OFFSET"};
inline const std::vector<std::string> kValidNv = {"--total-size", "0xFFEE"};

// One message of the daemon in its two copies: /dev/kmsg and /dev/log/radio.
struct LogLine {
    std::string kernel;
    std::string android;
};
// "<6>cpif: rix: fn: text" and "D/boot: rix: fn: text".
LogLine info(const std::string& fn, const std::string& text);
// "<3>cpif: rix: (ERR! err) fn: text" and "E/boot: rix: (ERR! err) fn: text".
LogLine error(const std::string& err, const std::string& fn, const std::string& text);

#ifndef RIX_SANITIZED
#define RIX_SANITIZED 0
#endif
// How much faster the phone's clock runs in tests of the daemon's long waits. libfaketime's
// lazy set-up calls malloc from inside the sanitizer allocator of clang's ASan runtime and
// deadlocks, so a sanitized daemon runs on the real clock.
inline constexpr int kClockSpeed = RIX_SANITIZED ? 1 : 10;

inline const std::string kLogDir = "/data/vendor/log/rix";
// Lines the scenarios wait for and count: the status loop waits for an event, or ended; a boot
// starts, worked or failed; the crash handling ends with a new boot; one dump attempt failed.
inline const LogLine kWaiting = info("status_loop", "Wait event from modem type: 1");
inline const LogLine kLoopExit = info("status_loop", "status loop exit");
inline const LogLine kCallBoot = info("main", "Call boot start");
inline const LogLine kBootDone = info("main", "Boot up process done!!!");
inline const LogLine kBootFailed = info("main", "start boot fail");
inline const LogLine kStatusReset = info("status_loop", "CP status RESET");
inline const LogLine kStartDumpFail = info("status_loop", "start_dump fail");

// The lines of a text, without their line feeds.
std::vector<std::string> lines_of(const std::string& text);
// How many of the lines begin with `prefix`.
int count_prefix(const std::vector<std::string>& lines, const std::string& prefix);

// How the sandbox around the daemon is set up (see vphone --help).
struct Sandbox {
    std::vector<std::string> omit_nodes;  // e.g. "ramdump_memshare"
    std::string log_tmpfs;                // size of a tmpfs at the log directory
    int faketime = 1;                     // how many times faster the phone's clock runs
};
inline Sandbox fast_clock(Sandbox s = {}) {
    s.faketime = kClockSpeed;
    return s;
}

class Phone : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    // ---- before the start (a property may also be changed while the daemon runs)
    void set_property(const std::string& name, const std::string& value);
    void set_cmdline(const std::string& text) { write_file("/.vphone/cmdline", text + "\n"); }
    void write_file(const std::string& phone_path, const std::string& content);
    // Builds the partition image and the NV file with mkmodem (its `image` parts and `nv`
    // options); the defaults make a modem that boots.
    void build_modem(const std::vector<std::string>& parts = kBootableParts,
                     const std::vector<std::string>& nv = kValidNv);
    void start_modem(const std::string& scenario = "") { modem_->start(scenario); }
    void start_rix(const std::vector<std::string>& args, const Sandbox& sandbox = {});
    // Starts any command (a path inside the phone) in vphone, as start_rix does.
    void start_in_phone(const std::vector<std::string>& command, const Sandbox& sandbox = {});
    // A modem that boots, the daemon at `level` in daemon mode, up to its status loop.
    void boot(const std::string& scenario, const std::vector<std::string>& args = {},
              const std::string& level = "0x4948", const Sandbox& sandbox = {});

    // ---- while it runs
    bool rix_running() { return vphone_.running(); }
    // Sends `sig` to vphone and returns its exit status (killed after 3 s).
    int stop_phone(int sig) { return vphone_.stop(sig, 3s); }
    // The exit status of vphone, which is the daemon's own; nothing on time-out.
    std::optional<int> wait_exit(Millis timeout = kWait) { return vphone_.wait(timeout); }
    pid_t rix_pid();
    // A field of /proc/<pid>/status of the daemon, e.g. "Uid" or "CapEff", trimmed.
    std::string proc_status(const std::string& field);
    // The daemon's open descriptors by what they point to ("/dev/umts_boot0": 1, ...).
    std::map<std::string, int> open_handles();
    std::string control(const std::string& command) { return modem_->control(command); }
    VirtualModem& modem() { return *modem_; }

    // ---- reading
    std::string root() const { return work_ + "/root"; }
    std::string partition_path() const { return work_ + "/modem.img"; }
    std::string nv_path() const { return work_ + "/nv_data.bin"; }
    std::string read_file(const std::string& path) const { return read_text(root() + path); }
    bool exists(const std::string& path) const { return std::filesystem::exists(root() + path); }
    std::string kmsg() const { return read_file("/dev/kmsg"); }
    std::string radio_log() const { return read_file("/dev/log/radio"); }
    // What vphone and the command printed on stdout and stderr.
    std::string output() const { return read_text(work_ + "/vphone.out"); }
    std::optional<std::string> property(const std::string& name) const;
    // Number of lines of both copies holding the message (each copy counted; -1 if they differ).
    int count(const LogLine& line) const;
    // Each line counted as the pair says. Capture threads log beside the main thread, so an
    // expected line is first given a few seconds to reach its count.
    void expect_counts(const std::vector<std::pair<LogLine, int>>& lines) const;
    // Names of the files of the log directory that begin with `prefix`, sorted.
    std::vector<std::string> files(const std::string& prefix) const;
    // Trace lines that begin with `prefix`.
    int traced(const std::string& prefix) const {
        return count_prefix(lines_of(modem_->trace()), prefix);
    }

    // ---- waiting (true when it came before the time-out)
    bool wait_logged(const LogLine& line, Millis timeout = kWait, int times = 1);
    bool wait_request(const std::string& name, Millis timeout = kWait) {
        return eventually([&] { return !modem_->requests(name).empty(); }, timeout);
    }
    bool wait_trace(const std::string& prefix, Millis timeout = kWait) {
        return eventually([&] { return traced(prefix) > 0; }, timeout);
    }
    bool wait_property(const std::string& name, const std::string& value, Millis timeout = kWait) {
        return eventually([&] { return property(name) == value; }, timeout);
    }

  private:
    std::string work_;
    bool built_ = false;
    std::unique_ptr<VirtualModem> modem_;
    Process vphone_;
};

}  // namespace systest
