// A CP crash seen by the status loop: the evidence the daemon collects, the dump-mode boot of the
// CP, upload mode, and what a misbehaving CP, a full log partition or a debug setting make of it.
#include <dirent.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include "../../tools/vmodem/payload.h"
#include "phone.h"

namespace systest {
namespace {

const LogLine kStatusReset = info("status_loop", "CP status RESET");
const LogLine kStartDumpFail = info("status_loop", "start_dump fail");

// Compares a file with `size` bytes of the stream `seed` of payload.h, a MiB at a time.
// Returns an empty text when they are equal, else what differs.
std::string compare_with_stream(const std::string& host_path, uint64_t seed, uint64_t size) {
    std::ifstream in(host_path, std::ios::binary);
    if (!in) {
        return "cannot open " + host_path;
    }
    std::vector<char> got(1 << 20);
    std::vector<uint8_t> want(1 << 20);
    uint64_t off = 0;
    while (off < size) {
        const size_t n = static_cast<size_t>(std::min<uint64_t>(got.size(), size - off));
        in.read(got.data(), static_cast<std::streamsize>(n));
        if (static_cast<size_t>(in.gcount()) != n) {
            return host_path + ": only " + std::to_string(off + in.gcount()) + " of " +
                   std::to_string(size) + " bytes";
        }
        payload::fill(seed, off, want.data(), n);
        if (std::memcmp(got.data(), want.data(), n) != 0) {
            size_t i = 0;
            while (static_cast<uint8_t>(got[i]) == want[i]) {
                ++i;
            }
            return host_path + ": differs at byte " + std::to_string(off + i);
        }
        off += n;
    }
    if (in.peek() != std::char_traits<char>::eof()) {
        return host_path + ": longer than " + std::to_string(size) + " bytes";
    }
    return "";
}

class Crash : public Phone {
  protected:
    // Boots the CP with the daemon at DBG_HIGH (unless `level` says otherwise) and waits for the
    // status loop.
    void boot(const std::string& modem,
              const std::vector<std::string>& args = {"-d", "-t", "vm420"},
              const std::string& level = "0x4948", const Sandbox& sandbox = {}) {
        build_modem();
        start_modem(modem);
        set_property("ro.boot.debug_level", level);
        set_property("vendor.rix.rfs_check_done", "1");
        start_rix(args, sandbox);
        ASSERT_TRUE(wait_logged(kWaiting, 60s)) << radio_log();
    }

    // Names of the files in a directory of the phone that begin with `prefix`, sorted.
    std::vector<std::string> files(const std::string& prefix, const std::string& dir = kLogDir) {
        std::vector<std::string> out;
        DIR* d = opendir((root() + dir).c_str());
        if (d == nullptr) {
            return out;
        }
        while (const dirent* e = readdir(d)) {
            std::string name = e->d_name;
            if (name.rfind(prefix, 0) == 0) {
                out.push_back(name);
            }
        }
        closedir(d);
        std::sort(out.begin(), out.end());
        return out;
    }

    std::string host(const std::string& name, const std::string& dir = kLogDir) const {
        return root() + dir + "/" + name;
    }

    Sandbox fast_clock() const {
        Sandbox s;
        if (kClockSpeed > 1) {
            s.faketime = std::to_string(kClockSpeed);
        }
        return s;
    }

    // Error lines of `fn` with `text` in the kernel log, whatever the errno text.
    int count_errors(const std::string& fn, const std::string& text) const {
        const std::string tail = ") " + fn + ": " + text;
        int n = 0;
        for (const auto& line : lines_of(kmsg())) {
            n += line.rfind("<3>cpif: rix: (ERR! ", 0) == 0 && line.size() >= tail.size() &&
                 line.compare(line.size() - tail.size(), tail.size(), tail) == 0;
        }
        return n;
    }

    // The trace from the first line that begins with `from` on.
    std::vector<std::string> trace_from(const std::string& from) {
        auto lines = lines_of(modem().trace());
        auto it = std::find_if(lines.begin(), lines.end(),
                               [&](const std::string& l) { return l.rfind(from, 0) == 0; });
        return {it, lines.end()};
    }

    // Opens and releases of a node balance: no descriptor of it was left behind.
    void expect_node_closed(const std::string& node) {
        auto lines = lines_of(modem().trace());
        EXPECT_EQ(count_prefix(lines, "open " + node + " "), count_prefix(lines, "release " + node))
            << node << " node:\n"
            << modem().trace();
    }

    // The one file whose name begins with `prefix`; its name, or a failure.
    std::string one_file(const std::string& prefix) {
        auto names = files(prefix);
        EXPECT_EQ(names.size(), 1u) << prefix << "*: " << ::testing::PrintToString(names);
        return names.empty() ? "" : names.front();
    }

    // The kernel-log capture `name` exists once, is named by its time stamp and ends with the
    // zero byte that follows the ring-buffer text.
    void expect_capture(const std::string& name) {
        const std::string file = one_file(name + "_");
        ASSERT_FALSE(file.empty());
        EXPECT_EQ(file.size(), name.size() + 1 + 15 + 4) << file << ": %Y%m%d%H%M_%S";
        EXPECT_EQ(file[name.size() + 1 + 12], '_') << file;
        const std::string content = read_file(kLogDir + "/" + file);
        ASSERT_FALSE(content.empty()) << file;
        EXPECT_EQ(content.back(), '\0') << file;
    }

    // The dump log, info and dump files of the one attempt, sharing their time stamp; the info
    // file holds `reason` and the dump file the CP's payload.
    void expect_dump_files(uint64_t seed, uint64_t size, const std::string& reason) {
        const std::string log = one_file("cpcrash_umts_log_");
        ASSERT_FALSE(log.empty());
        const std::string stamp = log.substr(strlen("cpcrash_umts_log_"), 16);
        EXPECT_EQ(stamp[8], '-') << log << ": %Y%m%d-%H%M_%S";
        EXPECT_EQ(stamp[13], '_') << log;
        EXPECT_EQ(files("cpcrash_umts_info_"),
                  std::vector<std::string>{"cpcrash_umts_info_vm420_" + stamp + ".log"});
        EXPECT_EQ(files("cpcrash_umts_dump_2"),
                  std::vector<std::string>{"cpcrash_umts_dump_" + stamp + ".log"});

        auto lines = lines_of(read_file(kLogDir + "/" + log));
        ASSERT_GE(lines.size(), 3u);
        EXPECT_EQ(lines[0], "std_dump_write_versions: CPIF version: VMODEM-CPIF-1.0");
        EXPECT_EQ(lines[1], "std_dump_write_versions: Velmora (RIX) version: RIX-V3-20250515R1");
        EXPECT_EQ(
            lines[2].rfind("std_dump_prepare_args: " + kLogDir + "/" + log + " opened (fd ", 0), 0u)
            << lines[2];
        EXPECT_EQ(count_prefix(lines, "std_ul_recv_info: DUMP INFO saved"), 1);
        EXPECT_EQ(count_prefix(lines, "std_dump_receive_cp_dump: DUMP DATA saved"), 1);
        // Lines that only go to the system logs.
        EXPECT_EQ(count_prefix(lines, "std_ul_recv_info: dump_size"), 0);
        EXPECT_EQ(count_prefix(lines, "make_cp_crash_reason"), 0);
        EXPECT_EQ(count_prefix(lines, "rix: "), 0) << "copies carry no \"rix: \"";

        EXPECT_EQ(read_file(kLogDir + "/cpcrash_umts_info_vm420_" + stamp + ".log"), reason);
        EXPECT_EQ(compare_with_stream(host("cpcrash_umts_dump_" + stamp + ".log"), seed, size), "");
    }

    // One file per CP log region, byte-identical to the region.
    void expect_regions(uint64_t seed, const std::vector<std::pair<std::string, uint64_t>>& sizes) {
        for (const auto& [name, size] : sizes) {
            const std::string file = one_file("cpcrash_" + name + "_dump_umts_");
            if (!file.empty()) {
                EXPECT_EQ(compare_with_stream(host(file), payload::stream_seed(seed, name), size),
                          "");
            }
        }
    }

    // The CP was restarted into its dump boot loader: power reset in dump mode, only the TOC and
    // BOOT parts loaded, the dump-mode security request, the boot loader started in dump mode,
    // then the dump stage on the dump node.
    void expect_dump_mode_boot(const std::vector<std::string>& crash) {
        std::vector<std::string> got;
        for (const auto& l : crash) {
            if (l.rfind("ioctl boot", 0) == 0 && l.find("GET_SRINFO") == std::string::npos &&
                l.find("GET_MODEM_STATE") == std::string::npos) {
                got.push_back(l);
            }
            if (l.rfind("write dump 0x00009D00", 0) == 0) {
                break;
            }
        }
        ASSERT_GE(got.size(), 6u) << ::testing::PrintToString(crash);
        EXPECT_EQ(got[0], "ioctl boot POWER_RESET mode=1 -> 0");
        EXPECT_EQ(got[1],
                  "ioctl boot LOAD_CP_IMAGE size=0x200 m_offset=0x1000 b_offset=0x0 "
                  "mode=1 len=512 -> 0");
        EXPECT_EQ(got[2],
                  "ioctl boot LOAD_CP_IMAGE size=0x11170 m_offset=0x2000 "
                  "b_offset=0x1000 mode=1 len=63488 -> 0");
        EXPECT_EQ(got[3],
                  "ioctl boot LOAD_CP_IMAGE size=0x11170 m_offset=0x11800 "
                  "b_offset=0x1000 mode=1 len=6512 -> 0");
        EXPECT_EQ(got[4],
                  "ioctl boot CHECK_SECURITY mode=1 param2=0x11170 param3=0x0 "
                  "param4=0x0 -> 0");
        EXPECT_EQ(got[5], "ioctl boot START_CP_BOOTLOADER mode=1 -> 0");
        EXPECT_EQ(got.size(), 6u) << ::testing::PrintToString(got);
    }

    // Collected crash: upload mode with the crash reason on the dump node, a new boot a second
    // later, and the silent-reset info handed back after it.
    void expect_upload_and_reboot(const std::string& reason) {
        auto crash = trace_from("ioctl boot GET_MODEM_STATE -> ");
        auto upload = std::find_if(crash.begin(), crash.end(), [](const std::string& l) {
            return l.find("ENTER_UPLOAD_MODE") != std::string::npos;
        });
        ASSERT_NE(upload, crash.end()) << modem().trace();
        EXPECT_EQ(*upload, "ioctl dump ENTER_UPLOAD_MODE -> 0 text=\"" + reason + "\"");
        auto done = std::find(crash.begin(), upload, "read dump 0x0000AD0D");
        EXPECT_NE(done, upload) << "the dump stage is closed before the upload request";
        auto after = std::vector<std::string>(upload + 1, crash.end());
        auto reset = std::find(after.begin(), after.end(), "ioctl boot POWER_RESET mode=0 -> 0");
        ASSERT_NE(reset, after.end()) << "no new normal boot";
        auto complete = std::find_if(reset, after.end(), [](const std::string& l) {
            return l.rfind("ioctl boot COMPLETE_NORMAL_BOOTUP -> 0", 0) == 0;
        });
        ASSERT_NE(complete, after.end());
        EXPECT_TRUE(std::any_of(complete, after.end(), [](const std::string& l) {
            return l.rfind("ioctl boot SET_SRINFO -> 0", 0) == 0;
        })) << "the silent-reset info stored by the dump goes back after the new boot";
    }
};

// The CP's dump, its log regions and the kernel log around them are all kept; the CP is then
// sent to upload mode and, when that returns, booted again.
TEST_F(Crash, CrashIsCollectedInFullThenTheCpBootsAgain) {
    constexpr uint64_t kDumpSize = (256ull << 20) + 12345;
    const std::vector<std::pair<std::string, uint64_t>> regions = {
        {"shmem", 5000}, {"vss", 4096},   {"databuf", 100}, {"l2b", 9000}, {"pmux0", 10},
        {"pmux1", 0},    {"pmux2", 4097}, {"cp_btl", 8192}, {"ddm", 1}};
    std::string scenario = "dump_seed 7\ndump_steps 5\ndump_size " + std::to_string(kDumpSize) +
                           "\ndump_reason oops at 0x1234\ncrash_owner 0\nregion_count 2 3\n";
    for (const auto& [name, size] : regions) {
        scenario += "region " + name + " " + std::to_string(size) + "\n";
    }
    boot(scenario);
    modem().control("crash 2");
    ASSERT_TRUE(wait_logged(kLoopExit, 120s)) << radio_log();
    const auto exit_seen = std::chrono::steady_clock::now();
    ASSERT_TRUE(wait_logged(kCallBoot, 10s, 2)) << radio_log();
    const auto next_boot = std::chrono::steady_clock::now() - exit_seen;
    EXPECT_GT(next_boot, 900ms) << "the cycle end waits 1 s";
    EXPECT_LT(next_boot, 3s);
    ASSERT_TRUE(wait_logged(kWaiting, 30s, 2)) << radio_log();

    EXPECT_EQ(count(info("status_loop", "get event 2")), 1);
    EXPECT_EQ(count(info("status_loop", "CP status CRASH")), 1);
    EXPECT_EQ(count(kStartDumpFail), 0);
    EXPECT_EQ(count(kStatusReset), 1);
    const std::string reason = ": CP Crash by CP - UMTS: oops at 0x1234";
    EXPECT_EQ(count(info("make_cp_crash_reason", "CP CRASH" + reason)), 1);

    expect_capture("cpcrash_umts_klog_before");
    expect_capture("cpcrash_umts_klog_after");
    EXPECT_TRUE(files("cpcrash_umts_dump_fail").empty());
    expect_dump_files(7, kDumpSize, reason);
    expect_regions(7, regions);
    EXPECT_TRUE(files("cpcrash_pmux3_").empty()) << "three pmux regions were announced";

    auto crash = trace_from("ioctl boot GET_MODEM_STATE -> 2");
    // The dump node is opened before the dump-mode boot record, and the silent-reset info is
    // stored before the CP is reset.
    auto open_dump = std::find(crash.begin(), crash.end(), "open dump flags=0x8002");
    auto store = std::find_if(crash.begin(), crash.end(), [](const std::string& l) {
        return l.rfind("ioctl boot GET_SRINFO -> 0", 0) == 0;
    });
    auto reset = std::find(crash.begin(), crash.end(), "ioctl boot POWER_RESET mode=1 -> 0");
    EXPECT_LT(open_dump, store);
    EXPECT_LT(store, reset);
    expect_dump_mode_boot(crash);
    expect_upload_and_reboot(reason);
    // The dump stored the silent-reset info, the next boot's store was skipped, and its
    // hand-back emptied the slot: two entries in the hex log.
    EXPECT_EQ(count(info("store_srinfo", "srinfo_last file exist, skip!")), 1);
    EXPECT_EQ(count_prefix(lines_of(read_file(kLogDir + "/sr_info_umts")), "[20"), 2);
    EXPECT_FALSE(exists(kLogDir + "/err/last_sr_info_umts"));

    auto handles = modem().handles();
    EXPECT_EQ(handles["boot"], 1) << "only the new status loop's descriptor";
    EXPECT_EQ(handles["dump"], 0);
    EXPECT_EQ(handles["memshare"], 0);
    expect_node_closed("dump");
    EXPECT_TRUE(rix_running());
}

// State 9 is handled as state 2; a crash the driver blames on another party carries the driver's
// text, and a dump of many frames per step arrives whole.
TEST_F(Crash, WatchdogStateWithTheDriversReasonIsCollectedToo) {
    boot(
        "dump_seed 3\ndump_size 50000\ndump_steps 3\nframe_payload 1000\n"
        "crash_owner 16\ncrash_reason cld stalled\nregion_default_size 3000\n");
    modem().control("crash 9");
    ASSERT_TRUE(wait_logged(kWaiting, 60s, 2)) << radio_log();
    EXPECT_EQ(count(info("status_loop", "get event 9")), 1);
    EXPECT_EQ(count(kStatusReset), 1);
    EXPECT_EQ(count(kStartDumpFail), 0);
    EXPECT_EQ(count(info("std_ul_recv_data", "[step 3] num_frames = 17")), 1);
    const std::string reason = ": CP Crash by CLD - cld stalled";
    expect_capture("cpcrash_umts_klog_before");
    expect_capture("cpcrash_umts_klog_after");
    expect_dump_files(3, 50000, reason);
    // A failed or absent count reads one pmux region.
    expect_regions(3, {{"shmem", 3000},
                       {"vss", 3000},
                       {"databuf", 3000},
                       {"l2b", 3000},
                       {"pmux0", 3000},
                       {"cp_btl", 3000},
                       {"ddm", 3000}});
    expect_dump_mode_boot(trace_from("ioctl boot GET_MODEM_STATE -> 9"));
    expect_upload_and_reboot(reason);
    EXPECT_EQ(modem().handles()["dump"], 0);
    expect_node_closed("dump");
}

// A dump that fails every time: seven attempts one second apart, the kernel log saved after each,
// the watchdog request from the second on, then the CP is booted all the same. Each kind of CP
// misbehaviour ends its attempt with its own line, and none of them harms the daemon.
TEST_F(Crash, MisbehavingCpEndsEachAttemptCleanly) {
    boot(
        "dump_seed 5\ndump_size 100000\ndump_steps 2\nframe_payload 1000\n"
        "region_default_size 100\nframe_size_field 1 1 16385\n",
        {"-d", "-t", "vm420"}, "0x4948", fast_clock());
    const auto attempts_time = std::chrono::duration_cast<Millis>(6s) / kClockSpeed;
    int boots = 1;
    // Crashes the CP and waits until the daemon has booted it again.
    auto crash_round = [&](const std::vector<std::string>& misbehaviour) {
        EXPECT_EQ(modem().control("set misbehave_clear"), "ok");
        for (const auto& setting : misbehaviour) {
            EXPECT_EQ(modem().control("set " + setting), "ok") << setting;
        }
        modem().control("crash");
        ++boots;
        return wait_logged(kWaiting, 120s, boots);
    };

    // A frame that claims more payload than a frame holds.
    const auto begin = std::chrono::steady_clock::now();
    modem().control("crash");
    ASSERT_TRUE(wait_logged(kStatusReset, 120s)) << radio_log();
    const auto took = std::chrono::steady_clock::now() - begin;
    ++boots;
    ASSERT_TRUE(wait_logged(kWaiting, 60s, boots)) << radio_log();
    EXPECT_GT(took, attempts_time) << "six sleeps of 1 s between the attempts";
    EXPECT_EQ(count(kStartDumpFail), 7);
    EXPECT_EQ(count(info("std_ul_recv_data", "ERR! [step 1] std_ul_rx_frame fail (ret -14)")), 7);
    EXPECT_EQ(count(info("dump", "ERR! std_dump_receive_cp_dump fail")), 7);
    for (int n = 1; n <= 7; ++n) {
        EXPECT_EQ(count_errors("dump", "dump_try_cnt:" + std::to_string(n)), 1) << n;
    }
    EXPECT_EQ(count_errors("dump", "ERR! dump failed. trigger ap wdtreset"), 6);
    EXPECT_EQ(modem().requests("TRIGGER_AP_WDTRESET").size(), 6u) << "none after the first";
    EXPECT_EQ(files("cpcrash_umts_dump_fail_").size(), 7u);
    EXPECT_EQ(files("cpcrash_umts_klog_before_").size(), 7u);
    EXPECT_TRUE(files("cpcrash_umts_klog_after_").empty());
    EXPECT_TRUE(modem().requests("ENTER_UPLOAD_MODE").empty());
    EXPECT_EQ(count(kStatusReset), 1);
    // No payload of the refused frame reached a dump file.
    for (const auto& f : files("cpcrash_umts_dump_2")) {
        EXPECT_EQ(read_file(kLogDir + "/" + f), "") << f;
    }

    // Frames ..., 48, 50 of the last step: the step is given up, the count of that read stands in
    // for what it saved (1016 bytes, not 48000 + 1016), and the size check fails without a DONE
    // exchange.
    const int done_requests = count_prefix(lines_of(modem().trace()), "write dump 0x00009D0D");
    ASSERT_TRUE(crash_round({"frame_skip 2 49"})) << radio_log();
    EXPECT_EQ(count(info("std_ul_recv_data", "ERR! [step 2] curr_frame 50 != seqn 49")), 7);
    EXPECT_EQ(count(info("std_dump_receive_cp_dump", "ERR! saved 51016 != dump_size 100000")), 7);
    EXPECT_EQ(count_prefix(lines_of(modem().trace()), "write dump 0x00009D0D"), done_requests);
    EXPECT_EQ(count(kStartDumpFail), 14);

    // INFO announces 1000 bytes less than the frames carry: the frame that would pass the
    // announced size is not written, and the attempt fails there.
    ASSERT_TRUE(crash_round({"info_dump_size_delta -1000"})) << radio_log();
    EXPECT_EQ(
        count(info("std_ul_recv_data", "ERR! [step 2] total 100000 would pass dump_size 99000")),
        7);
    EXPECT_EQ(count_prefix(lines_of(modem().trace()), "write dump 0x00009D0D"), done_requests);
    const auto dumps = files("cpcrash_umts_dump_2");
    ASSERT_FALSE(dumps.empty());
    EXPECT_EQ(read_file(kLogDir + "/" + dumps.back()).size(), 99000u);
    EXPECT_EQ(count(kStartDumpFail), 21);

    // More steps than a request word can name: no step is requested.
    const int step_requests = count_prefix(lines_of(modem().trace()), "write dump 0x00009D01");
    ASSERT_TRUE(crash_round({"info_num_steps 300"})) << radio_log();
    EXPECT_EQ(count(info("std_ul_recv_info", "ERR! invalid num_steps 300")), 7);
    EXPECT_EQ(count(info("std_dump_receive_cp_dump", "ERR! std_ul_recv_info fail")), 7);
    EXPECT_EQ(count_prefix(lines_of(modem().trace()), "write dump 0x00009D01"), step_requests);
    EXPECT_EQ(count(kStartDumpFail), 28);
    EXPECT_EQ(modem().requests("TRIGGER_AP_WDTRESET").size(), 24u);

    // A REASON longer than the room behind the prefix is cut to fit, and log regions that
    // deliver nothing end their own file only: this dump is collected.
    ASSERT_TRUE(crash_round({"info_reason_len 1000", "region_zero_reads 1"})) << radio_log();
    EXPECT_EQ(count(info("std_ul_recv_info", "ERR! reason_len 1000 > 505, truncated")), 1);
    EXPECT_EQ(count(info("get_log_dump", "ERR! log_dump std_ul_rx_frame fail (ret 0)")), 7);
    EXPECT_EQ(count(kStartDumpFail), 28);
    auto uploads = modem().requests("ENTER_UPLOAD_MODE");
    ASSERT_EQ(uploads.size(), 1u);
    // The crash-reason text holds at most 511 characters.
    const auto quote = uploads[0].line.find("text=\"");
    ASSERT_NE(quote, std::string::npos);
    EXPECT_EQ(uploads[0].line.size() - (quote + 6) - 1, 511u) << uploads[0].line;
    auto info_files = files("cpcrash_umts_info_");
    ASSERT_FALSE(info_files.empty());
    EXPECT_EQ(read_file(kLogDir + "/" + info_files.back()).size(), 511u);

    EXPECT_EQ(count(kStatusReset), 5);
    auto handles = modem().handles();
    EXPECT_EQ(handles["boot"], 1);
    EXPECT_EQ(handles["dump"], 0);
    expect_node_closed("dump");
    EXPECT_TRUE(rix_running());
}

// At DBG_LOW without minidump support a crash is not collected: 3 s for rild, then a new boot.
// The platform's minidump property alone is not support: the daemon's option is missing.
TEST_F(Crash, DbgLowWaitsForRildAndBootsAgainWithoutEvidence) {
    set_property("persist.sys.enable_minidump0", "1");
    boot("", {"-d", "-t", "vm420"}, "0x4F4C", fast_clock());
    const auto begin = std::chrono::steady_clock::now();
    modem().control("crash");
    ASSERT_TRUE(wait_logged(kCallBoot, 30s, 2)) << radio_log();
    const auto took = std::chrono::steady_clock::now() - begin;
    ASSERT_TRUE(wait_logged(kWaiting, 30s, 2)) << radio_log();
    EXPECT_GT(took, std::chrono::duration_cast<Millis>(3s) / kClockSpeed);
    EXPECT_EQ(count(info("status_loop", "DBG_LOW, wait onrestart by rild")), 1);
    EXPECT_EQ(count(info("status_loop", "CP status CRASH")), 0);
    EXPECT_EQ(count(kStatusReset), 0);
    EXPECT_TRUE(files("cpcrash_").empty());
    EXPECT_EQ(count_prefix(lines_of(modem().trace()), "open dump"), 0);
    EXPECT_TRUE(modem().requests("ENTER_UPLOAD_MODE").empty());
}

// Minidump mode: the driver is told, the dump replaces the minidump file, the property says it
// is complete, and the daemon parks instead of sending the phone to upload mode. Either of the
// platform's two minidump properties turns it on.
class Minidump : public Crash, public ::testing::WithParamInterface<const char*> {};
INSTANTIATE_TEST_SUITE_P(EitherProperty, Minidump,
                         ::testing::Values("persist.sys.enable_minidump0",
                                           "persist.sys.enable_minidump1"));

TEST_P(Minidump, ModeLeavesTheDumpInItsFileAndParks) {
    set_property(GetParam(), "1");
    const std::string minidump = "/data/vendor/ramdump/remoteproc-mss-md.elf";
    write_file(minidump, std::string(200000, 'x'));
    boot("dump_seed 9\ndump_size 100000\ndump_steps 2\n", {"-d", "-t", "vm420", "-o", "m"},
         "0x4F4C");
    modem().control("crash");
    ASSERT_TRUE(wait_logged(info("dump", "No trigger dump upload(minidump mode)"), 60s))
        << radio_log();
    EXPECT_EQ(property("vendor.ril.done_minidump"), "1");
    EXPECT_EQ(count(info("set_minidump_mode", "minidump mode is enabled")), 1);
    auto crash = trace_from("ioctl boot GET_MODEM_STATE -> 2");
    auto set = std::find(crash.begin(), crash.end(), "ioctl boot SET_MINIDUMP_MODE enable=1 -> 0");
    auto open_dump = std::find(crash.begin(), crash.end(), "open dump flags=0x8002");
    EXPECT_LT(set, open_dump) << modem().trace();
    EXPECT_EQ(compare_with_stream(root() + minidump, 9, 100000), "");
    EXPECT_TRUE(files("cpcrash_").empty()) << "nothing in the log directory at DBG_LOW";

    std::this_thread::sleep_for(2s);
    EXPECT_TRUE(rix_running());
    EXPECT_TRUE(modem().requests("ENTER_UPLOAD_MODE").empty());
    EXPECT_EQ(count(kCallBoot), 1) << "the daemon parks: no new boot";
    EXPECT_EQ(count(kStatusReset), 0);
    auto handles = modem().handles();
    EXPECT_EQ(handles["dump"], 0);
    EXPECT_EQ(handles["boot"], 1) << "only the status loop's descriptor stays";
}

// A log partition with less than 500 MB free: the phone is sent to upload mode with "Not enough
// freespace"; when that returns the collection is still tried, and every attempt fails before
// it opens anything.
TEST_F(Crash, FullLogPartitionForcesUploadThenStillTriesTheCollection) {
    Sandbox small = fast_clock();
    small.log_tmpfs = "2m";
    boot("", {"-d", "-t", "vm420"}, "0x4948", small);
    modem().control("crash");
    ASSERT_TRUE(wait_logged(kStatusReset, 60s)) << radio_log();
    ASSERT_TRUE(wait_logged(kWaiting, 30s, 2)) << radio_log();
    EXPECT_GE(count(info("check_fs_log_directory", kLogDir + ": freespace is under 500 MB")), 8)
        << "before the forced upload and in every attempt";
    EXPECT_EQ(count(info("_save_logs", "save dmesg begin...")), 0) << "no room for captures";
    auto uploads = modem().requests("ENTER_UPLOAD_MODE");
    ASSERT_EQ(uploads.size(), 1u) << modem().trace();
    EXPECT_EQ(uploads[0].line, "ioctl boot ENTER_UPLOAD_MODE -> 0 text=\"Not enough freespace\"");
    EXPECT_EQ(count(info("upload", "Go to UPLOAD mode")), 1);
    EXPECT_EQ(count(info("dump", "ERR! std_dump_prepare_args fail")), 7);
    EXPECT_EQ(count(kStartDumpFail), 7);
    // The boot record was never prepared: the watchdog request goes to a boot node opened for it
    // alone, and the phone goes down all the same.
    EXPECT_EQ(count_errors("dump", "ERR! dump failed. trigger ap wdtreset"), 6);
    EXPECT_EQ(modem().requests("TRIGGER_AP_WDTRESET").size(), 6u) << modem().trace();
    EXPECT_EQ(count_prefix(lines_of(modem().trace()), "open dump"), 0);
    EXPECT_TRUE(files("cpcrash_").empty());
    EXPECT_EQ(modem().handles()["boot"], 1);
}

// CP debug option 5: a crash and a crash reset both force upload mode, and nothing is collected.
TEST_F(Crash, ForceUploadOptionUploadsAtCrashAndCrashReset) {
    set_cmdline("pax_debug.cp=5");
    boot("");
    modem().control("crash");
    ASSERT_TRUE(wait_logged(kWaiting, 30s, 2)) << radio_log();
    modem().control("crash_reset");
    ASSERT_TRUE(wait_logged(kWaiting, 30s, 3)) << radio_log();
    auto uploads = modem().requests("ENTER_UPLOAD_MODE");
    ASSERT_EQ(uploads.size(), 2u) << modem().trace();
    for (const auto& u : uploads) {
        EXPECT_EQ(u.line, "ioctl boot ENTER_UPLOAD_MODE -> 0 text=\"Force upload\"");
    }
    EXPECT_EQ(count(info("status_loop", "CP status CRASH")), 0);
    EXPECT_EQ(count(info("status_loop", "STATE_CRASH_RESET, wait onrestart by rild")), 0);
    EXPECT_EQ(count(kLoopExit), 2);
    EXPECT_EQ(count_prefix(lines_of(modem().trace()), "open dump"), 0);
    EXPECT_TRUE(files("cpcrash_").empty());
    EXPECT_EQ(modem().handles()["boot"], 1);
}

}  // namespace
}  // namespace systest
