// A CP crash seen by the status loop: the evidence the daemon collects, the dump-mode boot of the
// CP, upload mode, and what a misbehaving CP, a full or unusable log directory, a debug option
// or minidump mode make of it.
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "../../tools/vmodem/payload.h"
#include "phone.h"

namespace systest {
namespace {

// Compares a file with `size` bytes of the stream `seed` of payload.h, a MiB at a time: an
// empty text when they are equal, else what differs.
std::string compare_with_stream(const std::string& host_path, uint64_t seed, uint64_t size) {
    std::ifstream in(host_path, std::ios::binary);
    std::vector<char> got(1 << 20);
    std::vector<uint8_t> want(1 << 20);
    for (uint64_t off = 0; off < size;) {
        const size_t n = static_cast<size_t>(std::min<uint64_t>(got.size(), size - off));
        in.read(got.data(), static_cast<std::streamsize>(n));
        payload::fill(seed, off, want.data(), n);
        if (static_cast<size_t>(in.gcount()) != n || std::memcmp(got.data(), want.data(), n)) {
            return host_path + ": short or different in the MiB at " + std::to_string(off);
        }
        off += n;
    }
    return in.peek() == std::char_traits<char>::eof() ? "" : host_path + ": too long";
}

class Crash : public Phone {
  protected:
    // Error lines that end with ") fn: text" in the kernel log, whatever the errno text.
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
        return {std::find_if(lines.begin(), lines.end(),
                             [&](const std::string& l) { return l.rfind(from, 0) == 0; }),
                lines.end()};
    }

    // Opens and releases of the dump node balance, and only the loop's boot descriptor is open.
    void expect_nothing_left_open() {
        EXPECT_EQ(traced("open dump "), traced("release dump")) << modem().trace();
        EXPECT_EQ(modem().handles(),
                  (std::map<std::string, int>{{"boot", 1}, {"dump", 0}, {"memshare", 0}}));
        EXPECT_TRUE(rix_running());
    }
};

// A crash collected whole: the dump, the log regions and the kernel log around them are kept;
// the CP is then sent to upload mode and, when that returns, booted again.
struct Collection {
    const char* label;
    std::string scenario;
    int state;           // 2, or 9 for the watchdog
    std::string reason;  // the crash reason text
    uint64_t seed, size;
    std::vector<std::pair<std::string, uint64_t>> regions;
    std::vector<std::pair<LogLine, int>> lines;
    // Rows print as their label in test names and messages.
    friend void PrintTo(const Collection& row, std::ostream* os) { *os << row.label; }
};

class Collected : public Crash, public ::testing::WithParamInterface<Collection> {};

TEST_P(Collected, KeepsEveryPieceThenBootsTheCpAgain) {
    const Collection& c = GetParam();
    boot(c.scenario);
    control("crash " + std::to_string(c.state));
    ASSERT_TRUE(wait_logged(kLoopExit, 120s)) << radio_log();
    const auto exit_seen = std::chrono::steady_clock::now();
    ASSERT_TRUE(wait_logged(kCallBoot, 10s, 2)) << radio_log();
    const auto next_boot = std::chrono::steady_clock::now() - exit_seen;
    EXPECT_GT(next_boot, 900ms) << "the cycle end waits 1 s";
    EXPECT_LT(next_boot, 3s);
    ASSERT_TRUE(wait_logged(kWaiting, 30s, 2)) << radio_log();
    expect_counts({{info("status_loop", "get event " + std::to_string(c.state)), 1},
                   {info("status_loop", "CP status CRASH"), 1},
                   {kStartDumpFail, 0},
                   {kStatusReset, 1}});
    expect_counts(c.lines);

    // The kernel-log captures: "%Y%m%d%H%M_%S", the ring text and a zero byte.
    for (const std::string name : {"cpcrash_umts_klog_before_", "cpcrash_umts_klog_after_"}) {
        const auto names = files(name);
        ASSERT_EQ(names.size(), 1u) << name;
        EXPECT_EQ(names[0].size(), name.size() + 15 + 4) << names[0];
        EXPECT_EQ(names[0][name.size() + 12], '_') << names[0];
        const std::string content = read_file(kLogDir + "/" + names[0]);
        EXPECT_TRUE(!content.empty() && content.back() == '\0') << names[0];
    }
    EXPECT_TRUE(files("cpcrash_umts_dump_fail").empty());

    // The dump log, info and dump files of the attempt share one "%Y%m%d-%H%M_%S" stamp.
    const auto logs = files("cpcrash_umts_log_");
    ASSERT_EQ(logs.size(), 1u);
    const std::string stamp = logs[0].substr(strlen("cpcrash_umts_log_"), 16);
    EXPECT_EQ(stamp[8], '-') << stamp;
    EXPECT_EQ(stamp[13], '_') << stamp;
    EXPECT_EQ(files("cpcrash_umts_info_"),
              std::vector<std::string>{"cpcrash_umts_info_vm420_" + stamp + ".log"});
    EXPECT_EQ(files("cpcrash_umts_dump_2"),
              std::vector<std::string>{"cpcrash_umts_dump_" + stamp + ".log"});
    // The dump log: versions, its own path, the marked lines only, without "rix: ".
    std::vector<std::string> log;
    for (const auto& l : lines_of(read_file(kLogDir + "/" + logs[0]))) {
        log.push_back(l.substr(0, l.find(" opened (fd ")));
    }
    ASSERT_GE(log.size(), 4u);
    EXPECT_EQ(std::vector<std::string>(log.begin(), log.begin() + 3),
              (std::vector<std::string>{
                  "std_dump_write_versions: CPIF version: VMODEM-CPIF-1.0",
                  "std_dump_write_versions: Velmora (RIX) version: RIX-V3-20250515R1",
                  "std_dump_prepare_args: " + kLogDir + "/" + logs[0]}));
    EXPECT_EQ(count_prefix(log, "std_ul_recv_info: DUMP INFO saved"), 1);
    EXPECT_EQ(count_prefix(log, "std_dump_receive_cp_dump: DUMP DATA saved"), 1);
    EXPECT_EQ(count_prefix(log, "std_ul_recv_info: dump_size"), 0) << "system logs only";
    EXPECT_EQ(count_prefix(log, "make_cp_crash_reason"), 0) << "system logs only";
    EXPECT_EQ(count_prefix(log, "rix: "), 0);
    EXPECT_EQ(read_file(kLogDir + "/cpcrash_umts_info_vm420_" + stamp + ".log"), c.reason);
    EXPECT_EQ(compare_with_stream(root() + kLogDir + "/cpcrash_umts_dump_" + stamp + ".log", c.seed,
                                  c.size),
              "");
    // One file per CP log region, byte-identical to it, 0660, its size in the dump log; no other.
    for (const auto& [name, size] : c.regions) {
        const auto names = files("cpcrash_" + name + "_dump_umts_");
        ASSERT_EQ(names.size(), 1u) << name;
        const std::string path = kLogDir + "/" + names[0];
        EXPECT_EQ(compare_with_stream(root() + path, payload::stream_seed(c.seed, name), size), "");
        struct stat st = {};
        EXPECT_EQ(stat((root() + path).c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0660u) << path;
        EXPECT_EQ(count_prefix(log, "get_log_dump: " + path + " Complete! (" +
                                        std::to_string(size) + " bytes)"),
                  1)
            << path;
    }
    const auto all = files("cpcrash_");
    EXPECT_EQ(std::count_if(all.begin(), all.end(),
                            [](const auto& f) { return f.find("_dump_umts_") != f.npos; }),
              static_cast<long>(c.regions.size()));

    // In the crash's trace, in this order: the dump node opened before the dump-mode boot
    // record, the silent-reset info stored before the reset, the CP restarted into its dump boot
    // loader (TOC and BOOT only, the dump-mode check, the loader in dump mode), the dump stage
    // through its DONE, upload mode with the crash reason, and a new normal boot that hands back
    // the info the dump stored.
    const auto crash = trace_from("ioctl boot GET_MODEM_STATE -> " + std::to_string(c.state));
    auto next = crash.begin();
    for (const std::string& step : std::vector<std::string>{
             "open dump flags=0x8002", "ioctl boot GET_SRINFO -> 0",
             "ioctl boot POWER_RESET mode=1", "write dump 0x00009D00", "read dump 0x0000AD0D",
             "ioctl dump ENTER_UPLOAD_MODE -> 0 text=\"" + c.reason + "\"",
             "ioctl boot POWER_RESET mode=0 -> 0", "ioctl boot COMPLETE_NORMAL_BOOTUP -> 0",
             "ioctl boot SET_SRINFO -> 0"}) {
        next =
            std::find_if(next, crash.end(), [&](const auto& l) { return l.rfind(step, 0) == 0; });
        EXPECT_NE(next, crash.end()) << step << ", in this order, in:\n" << modem().trace();
    }
    std::vector<std::string> dump_boot;  // the boot requests from the reset to the dump stage
    for (auto l = std::find(crash.begin(), crash.end(), "ioctl boot POWER_RESET mode=1 -> 0");
         l < crash.end() && l->rfind("write dump 0x00009D00", 0) != 0; ++l) {
        if (l->rfind("ioctl boot", 0) == 0 && l->find("GET_MODEM_STATE") == std::string::npos) {
            dump_boot.push_back(*l);
        }
    }
    EXPECT_EQ(dump_boot,
              (std::vector<std::string>{
                  "ioctl boot POWER_RESET mode=1 -> 0",
                  "ioctl boot LOAD_CP_IMAGE size=0x200 m_offset=0x1000 b_offset=0x0 mode=1 "
                  "len=512 -> 0",
                  "ioctl boot LOAD_CP_IMAGE size=0x11170 m_offset=0x2000 b_offset=0x1000 mode=1 "
                  "len=63488 -> 0",
                  "ioctl boot LOAD_CP_IMAGE size=0x11170 m_offset=0x11800 b_offset=0x1000 mode=1 "
                  "len=6512 -> 0",
                  "ioctl boot CHECK_SECURITY mode=1 param2=0x11170 param3=0x0 param4=0x0 -> 0",
                  "ioctl boot START_CP_BOOTLOADER mode=1 -> 0"}));
    // The next boot's store was skipped, its hand-back emptied the slot: two hex log entries.
    EXPECT_EQ(count(info("store_srinfo", "srinfo_last file exist, skip!")), 1);
    EXPECT_EQ(count_prefix(lines_of(read_file(kLogDir + "/sr_info_umts")), "[20"), 2);
    EXPECT_FALSE(exists(kLogDir + "/err/last_sr_info_umts"));
    expect_nothing_left_open();
}

std::string regions_scenario(const std::vector<std::pair<std::string, uint64_t>>& regions) {
    std::string s;
    for (const auto& [name, size] : regions) {
        s += "region " + name + " " + std::to_string(size) + "\n";
    }
    return s;
}
const std::vector<std::pair<std::string, uint64_t>> kRegions = {
    {"shmem", 5000}, {"vss", 4096},   {"databuf", 100}, {"l2b", 9000}, {"pmux0", 10},
    {"pmux1", 0},    {"pmux2", 4097}, {"cp_btl", 8192}, {"ddm", 1}};
const std::string kOops = ": CP Crash by CP - UMTS: oops at 0x1234";

// clang-format off
const Collection kCollections[] = {
    // Three pmux regions announced; a dump of more than 256 MiB in 13 steps, the last one
    // requested with the DONE word.
    {"CrashByTheCp", "dump_seed 7\ndump_steps 13\ndump_size 268447801\ndump_reason oops at 0x1234\n"
     "crash_owner 0\nregion_count 2 3\n" + regions_scenario(kRegions), 2, kOops, 7, 268447801,
     kRegions, {{info("make_cp_crash_reason", "CP CRASH" + kOops), 1}}},
    // State 9 is handled as 2; a crash the driver blames on another party carries the driver's
    // text; a dump of many frames per step arrives whole; a refused count reads one pmux region.
    {"WatchdogBlamedOnTheCld", "dump_seed 3\ndump_size 50000\ndump_steps 3\nframe_payload 1000\n"
     "crash_owner 16\ncrash_reason cld stalled\nregion_default_size 3000\n"
     "region_default_count 3\nresult GET_NUM_LOG_DUMP -25\n", 9,
     ": CP Crash by CLD - cld stalled", 3, 50000, {{"shmem", 3000}, {"vss", 3000},
     {"databuf", 3000}, {"l2b", 3000}, {"pmux0", 3000}, {"cp_btl", 3000}, {"ddm", 3000}},
     {{info("std_ul_recv_data", "[step 3] num_frames = 17"), 1}}},
};
// clang-format on
INSTANTIATE_TEST_SUITE_P(Crashes, Collected, ::testing::ValuesIn(kCollections),
                         [](const auto& row) { return std::string(row.param.label); });

// Crashes that are not collected, or not only: the events sent one after the other, each waited
// for until the CP is back, then the upload requests (whole trace lines), the lines counted in
// both logs, and the error lines counted whatever their errno.
struct Handling {
    const char* label;
    std::string scenario = "", cmdline = "", log_tmpfs = "";
    std::vector<std::string> events, uploads = {};
    std::vector<std::pair<LogLine, int>> lines;
    std::vector<std::pair<std::string, int>> errors = {};  // "fn: text", count
    int watchdog_requests = 0;
    bool dump_node_opened = false;
    bool spoil_log_dir = false;
    // Rows print as their label in test names and messages.
    friend void PrintTo(const Handling& row, std::ostream* os) { *os << row.label; }
};

class Handled : public Crash, public ::testing::WithParamInterface<Handling> {};

TEST_P(Handled, AsTheRowSays) {
    const Handling& h = GetParam();
    if (!h.cmdline.empty()) {
        set_cmdline(h.cmdline);
    }
    Sandbox sandbox = fast_clock();
    sandbox.log_tmpfs = h.log_tmpfs;
    boot(h.scenario, {}, "0x4948", sandbox);
    if (h.spoil_log_dir) {
        std::filesystem::remove_all(root() + kLogDir);
        write_file(kLogDir, "not a directory");
    }
    for (size_t i = 0; i < h.events.size(); ++i) {
        control(h.events[i]);
        ASSERT_TRUE(wait_logged(kWaiting, 120s, static_cast<int>(i) + 2)) << radio_log();
    }
    EXPECT_EQ(modem().requests("ENTER_UPLOAD_MODE"), h.uploads) << modem().trace();
    expect_counts(h.lines);
    for (const auto& [error, n] : h.errors) {
        const auto colon = error.find(": ");
        EXPECT_EQ(count_errors(error.substr(0, colon), error.substr(colon + 2)), n) << error;
    }
    EXPECT_EQ(modem().requests("TRIGGER_AP_WDTRESET").size(), size_t(h.watchdog_requests));
    EXPECT_EQ(traced("open dump") > 0, h.dump_node_opened) << modem().trace();
    if (!h.dump_node_opened) {
        EXPECT_TRUE(files("cpcrash_").empty());
    }
    expect_nothing_left_open();
}

const LogLine kCrash = info("status_loop", "CP status CRASH");
std::string unterminated_upload() {
    std::string text;  // the driver's 512 bytes without their end: 511 characters in all
    while (text.size() < 491) {
        text += "vmodem crash";
    }
    return "ioctl dump ENTER_UPLOAD_MODE -> 0 text=\": CP Crash by CLD - " + text.substr(0, 491) +
           "\"";
}

// clang-format off
const Handling kHandlings[] = {
    // Under 500 MB free: upload mode with "Not enough freespace"; when that returns the
    // collection is still tried, and each attempt fails before it opens anything. The boot
    // record was never prepared: the watchdog request opens the boot node for itself.
    {.label = "FullLogPartition", .log_tmpfs = "2m", .events = {"crash"},
     .uploads = {"ioctl boot ENTER_UPLOAD_MODE -> 0 text=\"Not enough freespace\""},
     .lines = {{info("check_fs_log_directory", kLogDir + ": freespace is under 500 MB"), 24},
               {info("_save_logs", "save dmesg begin..."), 0},
               {info("upload", "Go to UPLOAD mode"), 1},
               {info("dump", "ERR! std_dump_prepare_args fail"), 7}, {kStartDumpFail, 7},
               {kStatusReset, 1}},
     .errors = {{"dump: ERR! dump failed. trigger ap wdtreset", 6}}, .watchdog_requests = 6},
    // CP debug option 5: a crash and a crash reset both force upload mode, nothing collected.
    {.label = "ForceUploadOption", .cmdline = "pax_debug.cp=5", .events = {"crash", "crash_reset"},
     .uploads = {2, "ioctl boot ENTER_UPLOAD_MODE -> 0 text=\"Force upload\""},
     .lines = {{kCrash, 0}, {info("status_loop", "STATE_CRASH_RESET, wait onrestart by rild"), 0},
               {kLoopExit, 2}}},
    // A log directory that is neither made nor full skips the collection: no "CP status RESET".
    {.label = "UnusableLogDirectory", .events = {"crash"},
     .lines = {{kCrash, 1}, {info("create_directory", "(" + kLogDir + ") is not a directory"), 4},
               {kStatusReset, 0}, {kStartDumpFail, 0}},
     .spoil_log_dir = true},
    // Texts the driver may leave unterminated are bounded: a 20-byte version and a 511-character
    // crash reason. The dump-mode security answer 13 is tolerated after its error line.
    {.label = "UnterminatedDriverTexts",
     .scenario = "cpif_version ABCDEFGHIJKLMNOPQRST\ncrash_owner 16\ncrash_reason_unterminated 1\n"
                 "security 1 13\ndump_size 3000\ndump_steps 1\n",
     .events = {"crash"}, .uploads = {unterminated_upload()},
     .lines = {{info("std_dump_write_versions", "CPIF version: ABCDEFGHIJKLMNOPQRST"), 1},
               {info("std_security_req", "dump mode and ret:13"), 1}, {kStartDumpFail, 0}},
     .errors = {{"std_security_req: ERR! IOCTL_CHECK_SECURITY fail (0xd)", 1}},
     .dump_node_opened = true},
};
// clang-format on
INSTANTIATE_TEST_SUITE_P(Crashes, Handled, ::testing::ValuesIn(kHandlings),
                         [](const auto& row) { return std::string(row.param.label); });

// A dump that fails every time: seven attempts one second apart, the kernel log saved after
// each, the watchdog request from the second on, then the CP is booted all the same. Each kind
// of CP misbehaviour ends its attempt with its own line, and none of them harms the daemon.
TEST_F(Crash, MisbehavingCpEndsEachAttemptCleanly) {
    boot(
        "dump_seed 5\ndump_size 100000\ndump_steps 2\nframe_payload 1000\n"
        "region_default_size 100\nframe_size_field 1 1 16385\n",
        {}, "0x4948", fast_clock());
    int boots = 1;
    auto crash_round = [&](const std::vector<std::string>& misbehaviour) {
        control("set misbehave_clear");
        for (const auto& setting : misbehaviour) {
            EXPECT_EQ(control("set " + setting), "ok") << setting;
        }
        control("crash");
        return wait_logged(kWaiting, 120s, ++boots);
    };
    auto done_words = [&] { return traced("write dump 0x00009D0D"); };

    // A frame that claims more payload than a frame holds; no payload of it is written.
    const auto begin = std::chrono::steady_clock::now();
    control("crash");
    ASSERT_TRUE(wait_logged(kStatusReset, 120s)) << radio_log();
    EXPECT_GT(std::chrono::steady_clock::now() - begin,
              std::chrono::duration_cast<Millis>(6s) / kClockSpeed)
        << "six sleeps of 1 s between the attempts";
    ASSERT_TRUE(wait_logged(kWaiting, 60s, ++boots)) << radio_log();
    expect_counts({{kStartDumpFail, 7},
                   {info("std_ul_recv_data", "ERR! [step 1] std_ul_rx_frame fail (ret -14)"), 7},
                   {info("dump", "ERR! std_dump_receive_cp_dump fail"), 7},
                   {kStatusReset, 1}});
    for (int n = 1; n <= 7; ++n) {
        EXPECT_EQ(count_errors("dump", "dump_try_cnt:" + std::to_string(n)), 1) << n;
    }
    EXPECT_EQ(count_errors("dump", "ERR! dump failed. trigger ap wdtreset"), 6);
    EXPECT_EQ(modem().requests("TRIGGER_AP_WDTRESET").size(), 6u) << "none after the first";
    EXPECT_EQ(files("cpcrash_umts_dump_fail_").size(), 7u);
    EXPECT_EQ(files("cpcrash_umts_klog_before_").size(), 7u);
    EXPECT_TRUE(files("cpcrash_umts_klog_after_").empty());
    EXPECT_TRUE(modem().requests("ENTER_UPLOAD_MODE").empty());
    for (const auto& f : files("cpcrash_umts_dump_2")) {
        EXPECT_EQ(read_file(kLogDir + "/" + f), "") << f;
    }

    // Frames ..., 48, 50 of the last step: the step is given up, the count of that read stands
    // for what it saved (1016 bytes, not 48000 + 1016), the size check fails without DONE.
    const int done = done_words();
    ASSERT_TRUE(crash_round({"frame_skip 2 49"})) << radio_log();
    // INFO announces 1000 bytes less than the frames carry: the frame that would pass the
    // announced size is not written, and the attempt fails there.
    ASSERT_TRUE(crash_round({"info_dump_size_delta -1000"})) << radio_log();
    EXPECT_EQ(read_file(kLogDir + "/" + files("cpcrash_umts_dump_2").back()).size(), 99000u);
    EXPECT_EQ(done_words(), done);
    // More steps than a request word can name: no step is requested.
    const int steps = traced("write dump 0x00009D01");
    ASSERT_TRUE(crash_round({"info_num_steps 300"})) << radio_log();
    EXPECT_EQ(traced("write dump 0x00009D01"), steps);
    expect_counts(
        {{info("std_ul_recv_data", "ERR! [step 2] curr_frame 50 != seqn 49"), 7},
         {info("std_dump_receive_cp_dump", "ERR! saved 51016 != dump_size 100000"), 7},
         {info("std_ul_recv_data", "ERR! [step 2] total 100000 would pass dump_size 99000"), 7},
         {info("std_ul_recv_info", "ERR! invalid num_steps 300"), 7},
         {info("std_dump_receive_cp_dump", "ERR! std_ul_recv_info fail"), 7},
         {kStartDumpFail, 28}});
    EXPECT_EQ(modem().requests("TRIGGER_AP_WDTRESET").size(), 24u);
    // A wrong START or DONE answer, frames of another step, a frame size above what the read
    // returned: each ends the attempt with its own line.
    for (const char* misbehaviour : {"answer 0x9D00 0xAD01", "answer 0x9D0D 0xAD0E",
                                     "frame_command 2 0xAD03", "frame_size_field 2 1 1001"}) {
        ASSERT_TRUE(crash_round({misbehaviour})) << misbehaviour << "\n" << radio_log();
    }
    expect_counts({{info("std_dump_receive_cp_dump", "ERR! std_udl_stage_start fail"), 7},
                   {info("std_dump_receive_cp_dump", "ERR! DUMP std_udl_stage_done fail"), 7},
                   {info("std_ul_recv_data", "ERR! [step 2] cmd 0xAD03 != exp 0xAD02"), 7},
                   {info("std_ul_recv_data", "ERR! [step 2] std_ul_rx_frame fail (ret -14)"), 7},
                   {kStartDumpFail, 56}});

    // A REASON longer than the room behind the prefix is cut to fit, and log regions that
    // deliver nothing end their own file only: this dump is collected, its reason bounded.
    ASSERT_TRUE(crash_round({"info_reason_len 1000", "region_zero_reads 1"})) << radio_log();
    expect_counts({{info("std_ul_recv_info", "ERR! reason_len 1000 > 505, truncated"), 1},
                   {info("get_log_dump", "ERR! log_dump std_ul_rx_frame fail (ret 0)"), 7},
                   {kStartDumpFail, 56},
                   {kStatusReset, 9}});
    const auto uploads = modem().requests("ENTER_UPLOAD_MODE");
    ASSERT_EQ(uploads.size(), 1u);
    EXPECT_EQ(uploads[0].size() - (uploads[0].find("text=\"") + 6) - 1, 511u) << uploads[0];
    EXPECT_EQ(read_file(kLogDir + "/" + files("cpcrash_umts_info_").back()).size(), 511u);

    // A dump of no steps is collected, empty; a crash reason the driver refuses clears the one
    // before and leaves the upload text empty.
    ASSERT_TRUE(crash_round({"dump_steps 0", "dump_size 0", "result GET_CP_CRASH_REASON -25"}))
        << radio_log();
    EXPECT_EQ(modem().requests("ENTER_UPLOAD_MODE").back(),
              "ioctl dump ENTER_UPLOAD_MODE -> 0 text=\"\"");
    EXPECT_EQ(read_file(kLogDir + "/" + files("cpcrash_umts_dump_2").back()), "");
    EXPECT_EQ(count_errors("make_cp_crash_reason", "ERR! IOCTL_GET_CP_CRASH_REASON fail"), 1);
    expect_nothing_left_open();
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
    control("crash");
    ASSERT_TRUE(wait_logged(info("dump", "No trigger dump upload(minidump mode)"), 60s))
        << radio_log();
    EXPECT_EQ(property("vendor.ril.done_minidump"), "1");
    EXPECT_EQ(count(info("set_minidump_mode", "minidump mode is enabled")), 1);
    auto crash = trace_from("ioctl boot GET_MODEM_STATE -> 2");
    EXPECT_LT(std::find(crash.begin(), crash.end(), "ioctl boot SET_MINIDUMP_MODE enable=1 -> 0"),
              std::find(crash.begin(), crash.end(), "open dump flags=0x8002"));
    EXPECT_EQ(compare_with_stream(root() + minidump, 9, 100000), "");
    EXPECT_TRUE(files("cpcrash_").empty()) << "nothing in the log directory at DBG_LOW";

    std::this_thread::sleep_for(2s);
    EXPECT_TRUE(modem().requests("ENTER_UPLOAD_MODE").empty());
    EXPECT_EQ(count(kCallBoot), 1) << "the daemon parks: no new boot";
    EXPECT_EQ(count(kStatusReset), 0);
    expect_nothing_left_open();
}

}  // namespace
}  // namespace systest
