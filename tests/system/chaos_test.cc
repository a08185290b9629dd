// Chaos runs: a seeded generator makes the virtual modem misbehave at random points of the boot
// and of the dump (wrong answer words, silences, bad frames, failing requests, crashes and crash
// resets in the middle of things), then lets it behave again. Whatever happened, the daemon must
// still run, hold no descriptor it should not, have written nothing outside its directories, have
// kept every evidence file it already wrote, and bring the CP up again.
//
// The seeds come from RIX_CHAOS_SEEDS ("17", "1-8", "3,5,9-12"); each seed is its own test, so a
// failure names the one command that repeats it.
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <random>
#include <set>
#include <sstream>
#include <tuple>

#include "phone.h"

namespace systest {
namespace {

namespace fs = std::filesystem;

// The default keeps a CI run within a few minutes: the fast clock makes a round cost a few
// seconds, the real clock of a sanitized daemon up to a minute.
constexpr const char* kDefaultSeeds = RIX_SANITIZED ? "1-6" : "1-16";
constexpr int kRounds = 3;  // misbehaviour rounds per seed

std::vector<unsigned> chaos_seeds() {
    const char* env = std::getenv("RIX_CHAOS_SEEDS");
    std::istringstream in(env != nullptr && *env != '\0' ? env : kDefaultSeeds);
    std::vector<unsigned> out;
    for (std::string item; std::getline(in, item, ',');) {
        unsigned first = 0, last = 0;
        const int n = std::sscanf(item.c_str(), "%u-%u", &first, &last);
        for (unsigned s = first; n > 0 && s <= (n == 2 ? last : first) && s - first < 100000; ++s) {
            out.push_back(s);
        }
    }
    return out;
}

// Every file and directory under `dir` of the phone: its size and modification time, or -1 for
// a directory.
using Snapshot = std::map<std::string, std::pair<intmax_t, int64_t>>;
Snapshot snapshot(const std::string& dir) {
    Snapshot out;
    std::error_code ec;
    fs::recursive_directory_iterator it(dir, fs::directory_options::skip_permission_denied, ec);
    for (; !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
        struct stat st;
        if (lstat(it->path().c_str(), &st) == 0) {  // else gone between the listing and the look
            const bool d = S_ISDIR(st.st_mode);
            out[it->path().string().substr(dir.size())] = {
                d ? -1 : st.st_size, d ? 0 : st.st_mtim.tv_sec * 1000000000LL + st.st_mtim.tv_nsec};
        }
    }
    return out;
}

bool under(const std::string& path, const std::string& dir) {
    return path == dir || path.rfind(dir + "/", 0) == 0;
}

// What the daemon is meant to write: its log directory, the minidump directory, the kernel and
// Android logs, properties, the wake lock files, the SIM configuration and the NV files.
// clang-format off
const std::vector<std::string> kWritable = {
    kLogDir, "/data/vendor/ramdump", "/dev/log", "/dev/__properties__", "/sys/power", "/dev/kmsg",
    "/sys/devices/platform/cpif/sim/ds_detect", "/mnt/vendor/efs/nv_data.bin",
    "/mnt/vendor/efs/nv_data_temp.bin"};
// clang-format on
bool may_change(const std::string& path) {
    return std::any_of(kWritable.begin(), kWritable.end(), [&](const std::string& p) {
        return under(path, p) || under(p, path);  // the place itself or a directory on its way
    });
}

// Evidence that may go by design: the silent-reset last file, which the hand-back deletes, and
// the silent-reset hex log with its one older generation, which rotate.
const std::set<std::string> kRotating = {"/err/last_sr_info_umts", "/sr_info_umts",
                                         "/.sr_info_umts.bak"};

// What the generator may do, one choice of {a|b|c} each; $step and $frame are a step and a frame
// of the dump. A "result" setting is undone by its default, the others by misbehave_clear. A line
// starting with '~' only on the fast clock: a silence costs the 30 s poll time-out.
// clang-format off
const std::vector<std::string> kBootFaults = {
    "set answer 0x900D {0xA00E|0xAF00|0x0|0xFFFFFFFF}", "set answer 0x9F00 {0xAF01|0xA00D|0x0}",
    "set result POWER_ON -5", "set result POWER_RESET {-5|-110}",
    "set result LOAD_CP_IMAGE {-14|-22|-5}", "set result CHECK_SECURITY {-1|-13|7}",
    "set result START_CP_BOOTLOADER -5", "set result COMPLETE_NORMAL_BOOTUP -5",
    "set result GET_MODEM_STATE {2|9|1|-5}", "set result GET_SRINFO {-5|5000}",
    "set result SET_SRINFO -22", "set srinfo_marker {0|0xFFFFFFFF|0x5245564B}",
    "~set answer {0x900D|0x9F00} none"};
const std::vector<std::string> kDumpFaults = {
    "set answer 0x9D00 {0xAD01|0xA00D|0x0}", "set answer 0x9D0D {0xAD0E|0xAD00}",
    "set answer 0x9D0$step {0xAD0D|0xAD00}", "set frame_skip $step $frame",
    "set frame_size_field $step $frame {16385|0xFFFFFFFF|0|1|16384|0x7FFFFFFF}",
    "set frame_command $step {0xAD0F|0xAD00|0xAD0D|0x12345678}",
    "set info_reason_len {0|1|505|506|4096|65535}", "set info_num_steps {0|13|14|255|256|300}",
    "set info_dump_size_delta {-1|1|-100000|4096|4000000000}", "set region_zero_reads 1",
    "set crash_reason_unterminated 1", "set result GET_LOG_DUMP {-5|1}",
    "set result GET_NUM_LOG_DUMP {-5|100000}", "set result GET_CP_CRASH_REASON -14",
    "set result ENTER_UPLOAD_MODE -5", "set result GET_CPIF_VERSION -25",
    "set result TRIGGER_AP_WDTRESET -1", "~set answer {0x9D00|0x9D0D|0x9D01} none"};
// Where in the trace something happens mid-flight: the n-th line that begins with the prefix
// (and holds the text) after the round started, n up to the number given.
const std::vector<std::tuple<std::string, std::string, int>> kPoints = {
    {"ioctl boot LOAD_CP_IMAGE", "mode=0", 12}, {"ioctl boot LOAD_CP_IMAGE", "mode=1", 3},
    {"ioctl boot POWER_RESET", "", 1}, {"write boot 0x0000900D", "", 1},
    {"ioctl boot START_CP_BOOTLOADER", "", 1}, {"read dump INFO", "", 1},
    {"read dump FRAME", "", 6}, {"ioctl dump GET_LOG_DUMP", "", 8},
    {"ioctl dump GET_CP_CRASH_REASON", "", 1}};
// clang-format on

class Chaos : public Phone, public ::testing::WithParamInterface<unsigned> {
  protected:
    int pick(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng_); }
    bool chance(int percent) { return pick(1, 100) <= percent; }

    // One line of a pool, its choices made.
    std::string draw(const std::vector<std::string>& pool) {
        std::string s;
        do {
            s = pool[pick(0, static_cast<int>(pool.size()) - 1)];
        } while (s[0] == '~' && kClockSpeed == 1);
        s = s[0] == '~' ? s.substr(1) : s;
        for (size_t open; (open = s.find('{')) != std::string::npos;) {
            std::vector<std::string> choices;
            std::istringstream in(s.substr(open + 1, s.find('}') - open - 1));
            for (std::string c; std::getline(in, c, '|');) {
                choices.push_back(c);
            }
            s.replace(open, s.find('}') - open + 1, choices[pick(0, choices.size() - 1)]);
        }
        for (const auto& [name, most] : {std::pair{"$step", steps_}, {"$frame", frames_}}) {
            if (auto at = s.find(name); at != std::string::npos) {
                s.replace(at, std::strlen(name), std::to_string(pick(1, most)));
            }
        }
        return s;
    }

    void send(const std::string& command) {
        const std::string reply = control(command);
        EXPECT_EQ(reply.rfind("ok", 0), 0u) << command << ": " << reply;
        log_ << "  " << command << "\n";
        if (command.rfind("set result ", 0) == 0) {
            undo_.push_back(command.substr(0, command.rfind(' ')) + " default");
        }
    }

    // Files under the log directory never shrink or go, except those that rotate by design.
    void check_evidence() {
        Snapshot now = snapshot(root() + kLogDir);
        for (const auto& [path, was] : evidence_) {
            if (was.first >= 0 && !kRotating.count(path)) {
                EXPECT_GE(now.count(path) ? now[path].first : -2, was.first)
                    << "evidence file " << kLogDir << path << " shrank or went; ";
                now.emplace(path, was);  // keep what we knew, so a later look misses no loss
            }
        }
        evidence_ = std::move(now);
    }

    // Nothing outside what the daemon may write changed since the first boot.
    void check_writes() {
        Snapshot now = snapshot(root());
        for (const auto& [path, e] : now) {
            EXPECT_TRUE(may_change(path) ||
                        (baseline_.count(path) && (e.first < 0 || baseline_.at(path) == e)))
                << "the daemon created or changed " << path;
        }
        for (const auto& [path, e] : baseline_) {
            EXPECT_TRUE(may_change(path) || now.count(path)) << "removed " << path;
        }
    }

    // The daemon's descriptors other than its log directory's (the kernel log captures write
    // there from threads of their own).
    std::map<std::string, int> own_handles() {
        auto all = open_handles();
        std::erase_if(all, [](const auto& h) { return under(h.first, kLogDir); });
        return all;
    }

    // The CP is up again (a boot worked since `boots_before`), the status loop waits for it
    // (after an unknown state it waits again without a new wait line) with its one descriptor of
    // the nodes and no descriptor of a file left behind (the same as after the first boot), and
    // the modem is online.
    bool settled(int boots_before) {
        auto lines = lines_of(radio_log());
        const auto last = std::find_if(lines.rbegin(), lines.rend(), [](const std::string& l) {
            return l.find(" status_loop: ") != l.npos || l.find(" main: ") != l.npos;
        });
        return count(kBootDone) > boots_before && last != lines.rend() &&
               (*last == kWaiting.android ||
                *last == info("status_loop", "unknown Modem status").android) &&
               modem().handles() ==
                   std::map<std::string, int>{{"boot", 1}, {"dump", 0}, {"memshare", 0}} &&
               control("query facts").find(" state=4 ") != std::string::npos &&
               (boots_before == 0 || own_handles() == handles_);
    }

    bool wait_settled(int boots_before, Millis timeout) {
        return eventually(
            [&] {
                check_evidence();
                if (!rix_running() || !settled(boots_before)) {
                    return false;
                }
                std::this_thread::sleep_for(300ms);  // still so a moment later: no event on its way
                return settled(boots_before);
            },
            timeout);
    }

    // One round: faults set before a crash, the crash, maybe a strike at a point of the boot or
    // the dump, the modem behaving again at a random moment, and the checks.
    void round(int n) {
        log_ << "round " << n << ":\n";
        const int boots_before = count(kBootDone);
        const size_t trace_from = modem().trace().size();
        for (const auto& [pool, percent] :
             {std::pair{&kDumpFaults, 60}, {&kDumpFaults, 30}, {&kBootFaults, 40}}) {
            if (chance(percent)) {
                send(draw(*pool));
            }
        }
        const bool with_point = chance(70);
        const auto& [prefix, holds, most] = kPoints[pick(0, kPoints.size() - 1)];
        const int nth = pick(1, most);
        const std::vector<std::string> strikes = {
            "crash",           "crash 9",         "hangup 4",
            draw(kDumpFaults), draw(kBootFaults), kClockSpeed > 1 ? "crash_reset" : "crash"};
        const std::string strike = strikes[pick(0, strikes.size() - 1)];
        send(chance(33) ? "crash 9" : "crash");
        if (with_point) {
            log_ << "  at " << nth << ". " << prefix << " " << holds << ":\n";
            if (eventually(
                    [&, &prefix = prefix, &holds = holds] {
                        check_evidence();
                        const std::string t = modem().trace();
                        int k = 0;
                        for (const auto& l : lines_of(t.substr(std::min(trace_from, t.size())))) {
                            k += l.rfind(prefix, 0) == 0 && l.find(holds) != std::string::npos;
                        }
                        return k >= nth;
                    },
                    kClockSpeed > 1 ? 3s : 8s)) {
                send(strike);
            } else {
                log_ << "  (point not reached)\n";
            }
        }
        std::this_thread::sleep_for(Millis(pick(0, 1500)));
        control("set misbehave_clear 1");
        for (const auto& c : undo_) {
            control(c);
        }
        undo_.clear();
        log_ << "  (recovered)\n";
        EXPECT_TRUE(wait_settled(boots_before, 150s))
            << "the daemon did not bring the CP up again, or ended, or kept a descriptor; nodes: "
            << control("query handles") << "\nfacts: " << control("query facts")
            << "\ndescriptors: " << ::testing::PrintToString(own_handles())
            << ", after the first boot: " << ::testing::PrintToString(handles_) << "\n"
            << output();
        check_evidence();
        check_writes();
    }

    std::mt19937 rng_{GetParam()};
    int steps_ = 1, frames_ = 1;  // of the dump: its steps, at most 4 frames of a step
    std::vector<std::string> undo_;
    std::ostringstream log_;  // what the generator did, for the failure messages
    Snapshot baseline_, evidence_;
    std::map<std::string, int> handles_;
};

TEST_P(Chaos, DaemonSurvivesAMisbehavingModem) {
    SCOPED_TRACE("repeat: RIX_CHAOS_SEEDS=" + std::to_string(GetParam()) + " " +
                 fs::read_symlink("/proc/self/exe").string() + " --gtest_filter='Chaos*'");
    // A modem that boots, with a dump of a random shape.
    steps_ = pick(1, 3);
    const int payload = std::vector<int>{1000, 4096, 16384}[pick(0, 2)];
    const int size = pick(20000, 200000);
    frames_ = std::min(4, std::max(1, size / steps_ / payload + 1));
    std::ostringstream scenario;
    scenario << "dump_seed " << GetParam() << "\ndump_size " << size << "\ndump_steps " << steps_
             << "\nframe_payload " << payload << "\nregion_default_size " << pick(0, 9000)
             << "\nregion_count 2 " << pick(0, 3) << "\n";
    boot(scenario.str(), {}, "0x4948", fast_clock());
    ASSERT_TRUE(wait_settled(0, 60s)) << radio_log();
    baseline_ = snapshot(root());
    evidence_ = snapshot(root() + kLogDir);
    handles_ = own_handles();
    for (int n = 1; n <= kRounds && !HasFailure(); ++n) {
        round(n);  // the first broken round tells the story; later ones only repeat it
    }
    for (const char* bad : {"Sanitizer", "runtime error:", "Segmentation", "Aborted"}) {
        EXPECT_EQ(output().find(bad), std::string::npos) << bad << "\n" << output();
    }
    if (std::getenv("RIX_CHAOS_VERBOSE") != nullptr || HasFailure()) {
        std::cerr << "chaos seed " << GetParam() << ", what the generator did:\n" << log_.str();
    }
}

INSTANTIATE_TEST_SUITE_P(Chaos, Chaos, ::testing::ValuesIn(chaos_seeds()),
                         [](const auto& info) { return "seed" + std::to_string(info.param); });

}  // namespace
}  // namespace systest
