// Chaos runs: a seeded generator makes the virtual modem misbehave at random points of the boot
// and of the dump (wrong answer words, silences, bad frames, failing requests, crashes and crash
// resets in the middle of things), then lets it behave again. Whatever happened, the daemon must
// still run, hold no descriptor it should not, have written nothing outside its directories, have
// kept every evidence file it already wrote, and bring the CP up again.
//
// The seeds come from RIX_CHAOS_SEEDS ("17", "1-8", "3,5,9-12"); each seed is its own test, so a
// failure names the one command that repeats it.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "phone.h"

namespace systest {
namespace {

namespace fs = std::filesystem;

// The default keeps a CI run within a few minutes: the fast clock makes a round cost a few
// seconds, the real clock of a sanitized daemon up to a minute.
constexpr const char* kDefaultSeeds = RIX_SANITIZED ? "1-6" : "1-16";
constexpr int kRounds = 3;  // misbehaviour rounds per seed

const LogLine kBootDone = info("main", "Boot up process done!!!");
const LogLine kUnknownState = info("status_loop", "unknown Modem status");

std::vector<unsigned> parse_seeds(const std::string& text) {
    std::vector<unsigned> out;
    std::istringstream in(text);
    std::string item;
    while (std::getline(in, item, ',')) {
        if (item.empty()) {
            continue;
        }
        const auto dash = item.find('-');
        const unsigned first = static_cast<unsigned>(std::stoul(item.substr(0, dash)));
        const unsigned last = dash == std::string::npos
                                  ? first
                                  : static_cast<unsigned>(std::stoul(item.substr(dash + 1)));
        for (unsigned s = first; s <= last && s - first < 100000; ++s) {
            out.push_back(s);
        }
    }
    return out;
}

std::vector<unsigned> chaos_seeds() {
    const char* env = std::getenv("RIX_CHAOS_SEEDS");
    return parse_seeds(env != nullptr && *env != '\0' ? env : kDefaultSeeds);
}

std::string self_path() {
    std::error_code ec;
    auto p = fs::read_symlink("/proc/self/exe", ec);
    return ec ? std::string("rix_system_tests") : p.string();
}

// What a file looked like: kind, size and modification time.
struct Entry {
    bool dir = false;
    uintmax_t size = 0;
    int64_t mtime_ns = 0;
    bool operator==(const Entry&) const = default;
};
using Snapshot = std::map<std::string, Entry>;

// Every file and directory under `host_dir`, by its path relative to `strip`.
Snapshot snapshot(const std::string& host_dir, const std::string& strip) {
    Snapshot out;
    std::error_code ec;
    fs::recursive_directory_iterator it(host_dir, fs::directory_options::skip_permission_denied,
                                        ec);
    for (; !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
        struct stat st;
        if (lstat(it->path().c_str(), &st) != 0) {
            continue;  // gone between the listing and the look
        }
        Entry e;
        e.dir = S_ISDIR(st.st_mode);
        e.size = e.dir ? 0 : static_cast<uintmax_t>(st.st_size);
        e.mtime_ns = e.dir ? 0 : st.st_mtim.tv_sec * 1000000000LL + st.st_mtim.tv_nsec;
        out[it->path().string().substr(strip.size())] = e;
    }
    return out;
}

bool under(const std::string& path, const std::string& dir) {
    return path == dir || path.rfind(dir + "/", 0) == 0;
}

// What the daemon is meant to write: its log directory, the minidump directory, the kernel and
// Android logs, properties, the wake lock files, the SIM configuration and the NV files.
bool may_change(const std::string& path) {
    static const std::vector<std::string> dirs = {kLogDir, "/data/vendor/ramdump", "/dev/log",
                                                  "/dev/__properties__", "/sys/power"};
    static const std::set<std::string> files = {
        "/dev/kmsg", "/sys/devices/platform/cpif/sim/ds_detect", "/mnt/vendor/efs/nv_data.bin",
        "/mnt/vendor/efs/nv_data_temp.bin"};
    if (files.count(path) != 0) {
        return true;
    }
    return std::any_of(dirs.begin(), dirs.end(), [&](const std::string& d) {
        return under(path, d) || under(d, path);  // the directory itself or one on its way
    });
}

// Evidence that may go by design: the silent-reset last file, which the hand-back deletes, and
// the silent-reset hex log with its one older generation, which rotate.
bool may_shrink(const std::string& log_path) {
    return log_path == "/err/last_sr_info_umts" || log_path == "/sr_info_umts" ||
           log_path == "/.sr_info_umts.bak";
}

// One thing the generator does to the modem: a `set` line, or a control command.
struct Action {
    std::string command;  // sent as is to the control socket
    std::string clear;    // what undoes it ("" when misbehave_clear does)
};

class Chaos : public Phone, public ::testing::WithParamInterface<unsigned> {
  protected:
    void SetUp() override {
        Phone::SetUp();
        seed_ = GetParam();
        repeat_ = "RIX_CHAOS_SEEDS=" + std::to_string(seed_) + " " + self_path() +
                  " --gtest_filter='Chaos*'";
        rng_.seed(seed_);
    }

    bool fast() const { return kClockSpeed > 1; }
    int pick(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng_); }
    bool chance(int percent) { return pick(1, 100) <= percent; }
    template <typename T>
    const T& one_of(const std::vector<T>& v) {
        return v[static_cast<size_t>(pick(0, static_cast<int>(v.size()) - 1))];
    }

    std::string where() const { return "seed " + std::to_string(seed_) + ", repeat: " + repeat_; }

    // ---- the generator

    // A modem that boots, with a dump of a random shape.
    std::string base_scenario() {
        dump_steps_ = pick(1, 3);
        const int payload = one_of<int>({1000, 4096, 16384});
        const int size = pick(20000, 200000);
        frames_ = std::max(1, size / dump_steps_ / payload + 1);
        std::ostringstream s;
        s << "dump_seed " << seed_ << "\ndump_size " << size << "\ndump_steps " << dump_steps_
          << "\nframe_payload " << payload << "\nregion_default_size " << pick(0, 9000)
          << "\nregion_count 2 " << pick(0, 3) << "\n";
        return s.str();
    }

    Action set(const std::string& kv) { return {"set " + kv, ""}; }
    Action result(const std::string& name, long value) {
        return {"set result " + name + " " + std::to_string(value),
                "set result " + name + " default"};
    }

    // Something wrong in the boot, in normal or dump mode.
    Action boot_fault() {
        std::vector<Action> pool = {
            set("answer 0x900D " + one_of<std::string>({"0xA00E", "0xAF00", "0x0", "0xFFFFFFFF"})),
            set("answer 0x9F00 " + one_of<std::string>({"0xAF01", "0xA00D", "0x0"})),
            result("POWER_ON", -5),
            result("POWER_RESET", one_of<long>({-5, -110})),
            result("LOAD_CP_IMAGE", one_of<long>({-14, -22, -5})),
            result("CHECK_SECURITY", one_of<long>({-1, -13, 7})),
            result("START_CP_BOOTLOADER", -5),
            result("COMPLETE_NORMAL_BOOTUP", -5),
            result("GET_MODEM_STATE", one_of<long>({2, 9, 1, -5})),
            result("GET_SRINFO", one_of<long>({-5, 5000})),
            result("SET_SRINFO", -22),
            set("srinfo_marker " + one_of<std::string>({"0", "0xFFFFFFFF", "0x5245564B"})),
        };
        if (fast()) {  // a silence costs the 30 s poll time-out
            pool.push_back(set("answer " + one_of<std::string>({"0x900D", "0x9F00"}) + " none"));
        }
        return one_of(pool);
    }

    // Something wrong in the dump stage, the log regions or the upload.
    Action dump_fault() {
        const std::string step = std::to_string(pick(1, dump_steps_));
        const std::string frame = std::to_string(pick(1, std::min(frames_, 4)));
        std::vector<Action> pool = {
            set("answer 0x9D00 " + one_of<std::string>({"0xAD01", "0xA00D", "0x0"})),
            set("answer 0x9D0D " + one_of<std::string>({"0xAD0E", "0xAD00"})),
            set("answer 0x9D0" + step + " " + one_of<std::string>({"0xAD0D", "0xAD00"})),
            set("frame_size_field " + step + " " + frame + " " +
                one_of<std::string>({"16385", "0xFFFFFFFF", "0", "1", "16384", "0x7FFFFFFF"})),
            set("frame_skip " + step + " " + frame),
            set("frame_command " + step + " " +
                one_of<std::string>({"0xAD0F", "0xAD00", "0xAD0D", "0x12345678"})),
            set("info_reason_len " +
                one_of<std::string>({"0", "1", "505", "506", "4096", "65535"})),
            set("info_num_steps " + one_of<std::string>({"0", "13", "14", "255", "256", "300"})),
            set("info_dump_size_delta " +
                one_of<std::string>({"-1", "1", "-100000", "4096", "4000000000"})),
            set("region_zero_reads 1"),
            set("crash_reason_unterminated 1"),
            result("GET_LOG_DUMP", one_of<long>({-5, 1})),
            result("GET_NUM_LOG_DUMP", one_of<long>({-5, 100000})),
            result("GET_CP_CRASH_REASON", -14),
            result("ENTER_UPLOAD_MODE", -5),
            result("GET_CPIF_VERSION", -25),
            result("TRIGGER_AP_WDTRESET", -1),
        };
        if (fast()) {
            pool.push_back(
                set("answer " + one_of<std::string>({"0x9D00", "0x9D0D", "0x9D01"}) + " none"));
        }
        return one_of(pool);
    }

    // Where in the trace something happens mid-flight: the n-th line that begins with `prefix`
    // (and holds `holds`) after the round started.
    struct Point {
        std::string prefix;
        std::string holds;
        int nth;
    };
    Point point() {
        std::vector<Point> pool = {
            {"ioctl boot LOAD_CP_IMAGE", "mode=0", pick(1, 12)},
            {"ioctl boot LOAD_CP_IMAGE", "mode=1", pick(1, 3)},
            {"ioctl boot POWER_RESET", "", 1},
            {"write boot 0x0000900D", "", 1},
            {"ioctl boot START_CP_BOOTLOADER", "", 1},
            {"read dump INFO", "", 1},
            {"read dump FRAME", "", pick(1, std::min(frames_ * dump_steps_, 6))},
            {"ioctl dump GET_LOG_DUMP", "", pick(1, 8)},
            {"ioctl dump GET_CP_CRASH_REASON", "", 1},
        };
        return one_of(pool);
    }

    // What happens at that point: a crash (during a boot or a dump), a crash reset, an unknown
    // state, or a fault that starts in the middle of a stage.
    Action strike() {
        std::vector<Action> pool = {{"crash", ""}, {"crash 9", ""}, {"hangup 4", ""}};
        if (fast()) {  // a crash reset that reaches the status loop costs 30 s
            pool.push_back({"crash_reset", ""});
        }
        pool.push_back(dump_fault());
        pool.push_back(boot_fault());
        return one_of(pool);
    }

    // ---- applying it

    void send(const Action& a) {
        const std::string reply = control(a.command);
        EXPECT_EQ(reply.rfind("ok", 0), 0u) << a.command << ": " << reply << "; " << where();
        log_ << "  " << a.command << "\n";
        if (!a.clear.empty()) {
            undo_.push_back(a.clear);
        }
    }

    // The modem behaves again.
    void recover() {
        control("set misbehave_clear 1");
        for (const auto& c : undo_) {
            control(c);
        }
        undo_.clear();
        log_ << "  (recovered)\n";
    }

    // Waits for the n-th trace line at the point, after `from` bytes of the trace.
    bool reach(const Point& p, size_t from, Millis timeout) {
        return eventually(
            [&] {
                check_evidence();
                const std::string t = modem().trace();
                std::istringstream lines(t.size() > from ? t.substr(from) : "");
                std::string line;
                int n = 0;
                while (std::getline(lines, line)) {
                    n += line.rfind(p.prefix, 0) == 0 && line.find(p.holds) != std::string::npos;
                }
                return n >= p.nth;
            },
            timeout);
    }

    // ---- the checks

    // Files under the log directory never shrink or go, except those that rotate by design.
    void check_evidence() {
        Snapshot now = snapshot(root() + kLogDir, root() + kLogDir);
        for (const auto& [path, was] : evidence_) {
            if (was.dir || may_shrink(path)) {
                continue;
            }
            auto it = now.find(path);
            if (it == now.end()) {
                ADD_FAILURE() << "evidence file " << kLogDir << path << " (" << was.size
                              << " bytes) disappeared; " << where();
                continue;
            }
            EXPECT_GE(it->second.size, was.size)
                << "evidence file " << kLogDir << path << " shrank; " << where();
        }
        // Keep what we knew of files that went by design, so a later look does not miss a loss.
        for (const auto& [path, was] : evidence_) {
            if (now.count(path) == 0 && !may_shrink(path)) {
                now[path] = was;
            }
        }
        evidence_ = std::move(now);
    }

    // Nothing outside what the daemon may write changed since the first boot.
    void check_writes() {
        Snapshot now = snapshot(root(), root());
        for (const auto& [path, e] : now) {
            if (may_change(path)) {
                continue;
            }
            auto it = baseline_.find(path);
            if (it == baseline_.end()) {
                ADD_FAILURE() << "the daemon created " << path << " outside its directories; "
                              << where();
            } else if (!e.dir && !(it->second == e)) {
                ADD_FAILURE() << "the daemon changed " << path << " outside its directories; "
                              << where();
            }
        }
        for (const auto& [path, e] : baseline_) {
            if (!may_change(path) && now.count(path) == 0) {
                ADD_FAILURE() << "the daemon removed " << path << "; " << where();
            }
        }
    }

    // The daemon's descriptors other than its log directory's (the kernel log captures write
    // there from threads of their own).
    std::map<std::string, int> own_handles() {
        auto all = open_handles();
        std::map<std::string, int> out;
        for (const auto& [target, n] : all) {
            if (!under(target, kLogDir)) {
                out[target] = n;
            }
        }
        return out;
    }

    // The last line of the status loop or of main in the radio log.
    std::string last_cycle_line() const {
        std::string last;
        for (const auto& l : lines_of(radio_log())) {
            if (l.find(" status_loop: ") != std::string::npos ||
                l.find(" main: ") != std::string::npos) {
                last = l;
            }
        }
        return last;
    }

    // The CP is up again and the status loop waits for it with its one descriptor: the driver
    // counts boot=1 dump=0 memshare=0 and the modem is online.
    bool settled(int boots_before) {
        // After an unknown state the loop waits again without a new wait line.
        const std::string last = last_cycle_line();
        if (count(kBootDone) <= boots_before ||
            (last != kWaiting.android && last != kUnknownState.android)) {
            return false;
        }
        auto h = modem().handles();
        if (h["boot"] != 1 || h["dump"] != 0 || h["memshare"] != 0) {
            return false;
        }
        return control("query facts").find(" state=4 ") != std::string::npos;
    }

    bool wait_settled(int boots_before, Millis timeout) {
        return eventually(
            [&] {
                check_evidence();
                if (!rix_running() || !settled(boots_before)) {
                    return false;
                }
                // Still so a moment later: no event was on its way.
                std::this_thread::sleep_for(300ms);
                return settled(boots_before);
            },
            timeout);
    }

    // The daemon is alive; if it is not, how it ended.
    void expect_alive() {
        if (rix_running()) {
            return;
        }
        auto status = wait_exit(1s);
        ADD_FAILURE() << "the daemon ended"
                      << (status ? (*status >= 128 ? " by signal " + std::to_string(*status - 128)
                                                   : " with status " + std::to_string(*status))
                                 : std::string(" (status unknown)"))
                      << "; " << where() << "\n"
                      << output();
    }

    void expect_clean_output() {
        const std::string out = output();
        for (const char* bad : {"Sanitizer", "runtime error:", "Segmentation", "Aborted"}) {
            EXPECT_EQ(out.find(bad), std::string::npos)
                << bad << " in the output; " << where() << "\n"
                << out;
        }
    }

    // One round: faults set before a crash, the crash, maybe a strike at a point of the boot or
    // the dump, the modem behaving again at a random moment, and the checks.
    void round(int n) {
        log_ << "round " << n << ":\n";
        const int boots_before = count(kBootDone);
        const size_t trace_from = modem().trace().size();
        if (chance(60)) {
            send(dump_fault());
        }
        if (chance(30)) {
            send(dump_fault());
        }
        if (chance(40)) {
            send(boot_fault());
        }
        const bool with_point = chance(70);
        const Point p = point();
        const Action s = strike();
        send({one_of<std::string>({"crash", "crash", "crash 9"}), ""});
        if (with_point) {
            log_ << "  at " << p.nth << ". \"" << p.prefix << "\"" << (p.holds.empty() ? "" : " ")
                 << p.holds << ":\n";
            if (reach(p, trace_from, fast() ? 3s : 8s)) {
                send(s);
            } else {
                log_ << "  (point not reached)\n";
            }
        }
        std::this_thread::sleep_for(Millis(pick(0, 1500)));
        recover();
        expect_alive();
        const bool back = wait_settled(boots_before, 150s);
        EXPECT_TRUE(back) << "the daemon did not bring the CP up again; " << where()
                          << "\nlast cycle line: " << last_cycle_line()
                          << "\nhandles: " << control("query handles")
                          << "\nfacts: " << control("query facts") << "\n"
                          << log_.str();
        expect_alive();
        // No descriptor of a file left behind: the same as after the first boot.
        const bool same = eventually([&] { return own_handles() == handles_; }, 10s);
        EXPECT_TRUE(same) << "descriptors after round " << n << ": "
                          << ::testing::PrintToString(own_handles())
                          << ", after the first boot: " << ::testing::PrintToString(handles_)
                          << "; " << where();
        check_evidence();
        check_writes();
    }

    unsigned seed_ = 0;
    std::string repeat_;
    std::mt19937 rng_;
    int dump_steps_ = 1;
    int frames_ = 1;  // frames of a step, at most
    std::vector<std::string> undo_;
    std::ostringstream log_;  // what the generator did, for the failure messages
    Snapshot baseline_;
    Snapshot evidence_;
    std::map<std::string, int> handles_;
};

TEST_P(Chaos, DaemonSurvivesAMisbehavingModem) {
    SCOPED_TRACE(where());
    build_modem();
    start_modem(base_scenario());
    set_property("ro.boot.debug_level", "0x4948");
    set_property("vendor.rix.rfs_check_done", "1");
    Sandbox sandbox;
    if (fast()) {
        sandbox.faketime = std::to_string(kClockSpeed);
    }
    start_rix({"-d", "-t", "vm420"}, sandbox);
    ASSERT_TRUE(wait_settled(0, 60s)) << radio_log() << "; " << where();
    baseline_ = snapshot(root(), root());
    evidence_ = snapshot(root() + kLogDir, root() + kLogDir);
    handles_ = own_handles();

    for (int n = 1; n <= kRounds && !HasFatalFailure(); ++n) {
        round(n);
        if (HasFailure()) {
            break;  // the first broken round tells the story; later ones only repeat it
        }
    }
    expect_clean_output();
    if (std::getenv("RIX_CHAOS_VERBOSE") != nullptr) {
        std::cout << "chaos seed " << seed_ << ":\n" << log_.str();
    }
    if (HasFailure()) {
        std::cerr << "chaos seed " << seed_ << " failed; repeat with:\n  " << repeat_ << "\n"
                  << "what the generator did:\n"
                  << log_.str();
    }
}

INSTANTIATE_TEST_SUITE_P(Chaos, Chaos, ::testing::ValuesIn(chaos_seeds()),
                         [](const ::testing::TestParamInfo<unsigned>& info) {
                             return "seed" + std::to_string(info.param);
                         });

}  // namespace
}  // namespace systest
