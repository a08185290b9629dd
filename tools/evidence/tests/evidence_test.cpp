// The reader on log directories laid out by hand: what a pulled directory
// holds besides the crashes the bench scenarios collect (several days,
// renamed and lost files, a failed preparation, a hex log rotated inside an
// entry, foreign names). A full disk, a lost frame and a retry are the
// scenarios' (Crashes/Evidence.*), any bytes at all the fuzz target's.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>

#include "evidence.h"
#include "srinfo/srinfo.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using Files = std::map<std::string, std::string>;

const std::string S1 = "20261123-2003_28", K1 = "202611232003_28";
const std::string S2 = "20261124-0910_05", K2 = "202611240910_05";
// The files of an attempt at dump stamp `s` and capture stamp `k`: a dump log
// with one region and one step, the info, a 64-byte dump, the region, the
// capture before and, when `after`, the one after the dump.
Files attempt(const std::string& s, const std::string& k, bool after = true) {
    const std::string region = "/data/vendor/log/rix/cpcrash_shmem_dump_umts_" + s + ".log";
    Files f = {
        {"cpcrash_umts_log_" + s + ".log",
         "get_log_dump: size:100\nget_log_dump: " + region + " opened (fd 9)\n" +
             "get_log_dump: " + region + " Complete! (100 bytes)\n" +
             "std_ul_recv_info: DUMP INFO saved\n" + "std_ul_recv_data: [step 1] saved = 64\n" +
             "std_dump_receive_cp_dump: DUMP DATA saved\n"},
        {"cpcrash_umts_info_vm420_" + s + ".log", ": CP Crash by CP - UMTS: oops"},
        {"cpcrash_umts_dump_" + s + ".log", std::string(64, 'd')},
        {"cpcrash_shmem_dump_umts_" + s + ".log", std::string(100, 'r')},
        {"cpcrash_umts_klog_before_" + k + ".log", "ring"}};
    f["cpcrash_umts_klog_" + std::string(after ? "after_" : "before_") + k + ".log"] = "ring";
    return f;
}

Files operator+(Files a, Files b) {
    return a.merge(b), a;
}

// A hex-log entry of November `day` with the crash-info text, as the daemon
// formats it.
std::string hex_entry(int day, const std::string& text) {
    uint8_t data[kSrinfoDataLen] = {'V', 'M', 'S', 'R', 1};
    std::copy(text.begin(), text.end(), data + kSrinfoTextOffset);
    struct tm tm = {};
    strptime(("2026-11-" + std::to_string(day) + " 08").c_str(), "%Y-%m-%d %H", &tm);
    char out[kSrinfoEntryMax];
    return {out, srinfo_hex_entry(out, tm, data, kSrinfoTextOffset + text.size())};
}

struct Case {
    const char* what;
    Files files;
    std::vector<std::pair<std::string, json>> expect;  // JSON pointer, value
    int status;
};

std::vector<Case> cases() {
    const std::string cut = hex_entry(23, R"({"JVER":"x","why":"rotated"})");
    const size_t two_lines = cut.find('\n', cut.find('\n') + 1) + 1;
    Files renamed = attempt(S1, K1);
    for (const std::string& gone :
         {"umts_dump_" + S1, "shmem_dump_umts_" + S1, "umts_klog_before_" + K1}) {
        renamed.erase("cpcrash_" + gone + ".log");
    }
    renamed["cpcrash_umts_dump_" + S1 + ".log.1"] = "";
    renamed["cpcrash_umts_klog_before_202611231903_28.log"] = "an hour before";
    for (const char* foreign : {"notes.txt", "sr_info_umts.1", "cpcrash_umts_log_2026.log"}) {
        renamed[foreign] = "";
    }
    return {
        {"two days in time order: a failed preparation and its retry, then a dump without its "
         "capture after",
         attempt(S2, K2, false) + attempt(S1, K1) +
             Files{{"cpcrash_umts_klog_before_202611232003_27.log", "ring"},
                   {"cpcrash_umts_dump_fail_202611232003_27.log", "ring"}},
         {{"/crashes/0/time", "2026-11-23 20:03:27"},
          {"/crashes/0/attempts/0/failing_step",
           "the dump files were never made (preparation failed)"},
          {"/crashes/0/attempts/1/verdict", "complete"},
          {"/crashes/1/time", "2026-11-24 09:10:05"},
          {"/crashes/1/attempts/0/missing", {"kernel log after the dump"}},
          {"/crashes/2", nullptr}},
         1},
        {"a renamed dump file, a lost region and capture, an old capture, foreign names",
         renamed,
         {{"/unknown",
           {"cpcrash_umts_dump_" + S1 + ".log.1", "cpcrash_umts_log_2026.log", "notes.txt",
            "sr_info_umts.1"}},
          {"/crashes/0/attempts/0/kernel_log/before/0",
           "cpcrash_umts_klog_before_202611231903_28.log"},
          {"/crashes/1/attempts/0/missing",
           {"dump file", "region shmem: file missing", "kernel log before the dump"}}},
         1},
        {"a hex log rotated inside an entry, and its backup",
         {{".sr_info_umts.bak", hex_entry(22, R"({"a":1})") + cut.substr(0, two_lines)},
          {"sr_info_umts", cut.substr(two_lines) + hex_entry(24, R"({"b":2})") +
                               "0000:00000000 00000000 00000000 00000000 zero bytes shown\n"},
          {"err/last_sr_info_umts", R"({"b":2})"}},
         {{"/silent_resets/0/text", R"({"a":1})"},
          {"/silent_resets/1/time", "2026-11-23 08:00:00"},
          {"/silent_resets/1/text", R"({"JVER":"x","why":"rotated"})"},
          {"/silent_resets/1/complete", true},
          {"/silent_resets/2/time", "2026-11-24 08:00:00"},
          {"/problems", {"sr_info_umts line 8: neither a time line nor a hex row"}},
          {"/pending_silent_reset/0/text", R"({"b":2})"}},
         0},
    };
}

TEST(Evidence, ReadsWhatAPulledDirectoryHolds) {
    const fs::path dir = fs::temp_directory_path() / ("evidence-test-" + std::to_string(getpid()));
    for (const Case& c : cases()) {
        SCOPED_TRACE(c.what);
        fs::remove_all(dir);
        fs::create_directories(dir / "err");
        for (const auto& [name, content] : c.files) {
            std::ofstream(dir / name, std::ios::binary) << content;
        }
        const evidence::Report r = evidence::read_report(dir);
        const json j = evidence::to_json(r);
        for (const auto& [pointer, want] : c.expect) {
            EXPECT_EQ(j.value(json::json_pointer(pointer), json()), want) << pointer << "\n"
                                                                          << j.dump(1);
        }
        EXPECT_EQ(evidence::exit_status(r), c.status);
    }
    fs::remove_all(dir);
}

}  // namespace
