// The evidence reader on the log directory of a phone that has just crashed: a whole dump is
// named complete with its reason and every region; a dump that a misbehaving CP or a full log
// partition cut short is named partial with what is missing, and the reader exits non-zero. The
// JSON form validates against the reader's schema.
#include "phone.h"

namespace systest {
namespace {

struct Row {
    const char* label;
    const char* scenario;
    std::string log_tmpfs;          // a tmpfs of this size at the log directory
    std::string recover;            // the CP behaves again after this trace line
    int status;                     // of the reader
    const char* verdict;            // of the crash, in the JSON form
    std::vector<std::string> says;  // in the text form
    // Rows print as their label in test names and messages.
    friend void PrintTo(const Row& row, std::ostream* os) { *os << row.label; }
};

std::vector<std::string> every_region(const std::string& size) {
    std::vector<std::string> out;
    for (const char* name : {"shmem", "vss", "databuf", "l2b", "pmux0", "pmux1", "cp_btl", "ddm"}) {
        out.push_back("  region       " + std::string(name) + ": " + size + " bytes, complete\n");
    }
    return out;
}

class Evidence : public Phone, public ::testing::WithParamInterface<Row> {};

TEST_P(Evidence, TellsWhetherTheCrashJustCollectedIsWhole) {
    const Row& row = GetParam();
    Sandbox sandbox;
    sandbox.log_tmpfs = row.log_tmpfs;
    boot(row.scenario, {}, "0x4948", fast_clock(sandbox));
    control("crash");
    if (!row.recover.empty()) {
        ASSERT_TRUE(wait_trace(row.recover, 60s)) << modem().trace();
        control("set misbehave_clear");
    }
    ASSERT_TRUE(wait_logged(kStatusReset, 240s)) << radio_log();

    // A log tmpfs lives in the phone's mount namespace: read it through the daemon's root.
    const std::string dir = "/proc/" + std::to_string(rix_pid()) + "/root" + kLogDir;
    // The outputs go into the phone's root, to be read like its files.
    EXPECT_EQ(run({EVIDENCE_BIN, dir}, root() + "/evidence.txt", 60s), row.status);
    EXPECT_EQ(run({EVIDENCE_BIN, "--json", dir}, root() + "/evidence.json", 60s), row.status);
    const std::string report = read_file("/evidence.txt");
    for (const std::string& line : row.says) {
        EXPECT_NE(report.find(line), std::string::npos) << line << "\nnot in:\n" << report;
    }
    EXPECT_EQ(run({"/usr/bin/python3", "-c",
                   "import json, sys, jsonschema\n"
                   "doc = json.load(open(sys.argv[2]))\n"
                   "jsonschema.validate(doc, json.load(open(sys.argv[1])),\n"
                   "                    cls=jsonschema.Draft202012Validator)\n"
                   "print(len(doc['crashes']), doc['crashes'][0]['verdict'])\n",
                   EVIDENCE_SCHEMA, root() + "/evidence.json"},
                  root() + "/schema.out", 60s),
              0)
        << read_file("/schema.out");
    EXPECT_EQ(read_file("/schema.out"), std::string("1 ") + row.verdict + "\n");
}

// What the report must say, each piece on one of its lines.
const std::string kCut = "reception did not finish: step ";
const std::string kUnannounced =
    "partial: dump: the size the CP announced is not in the evidence; ";

// clang-format off
const Row kRows[] = {
    {"Whole", "dump_size 1000000\ndump_steps 2\nregion_default_size 3000\nregion_count 2 2\n"
     "dump_reason evidence test\n", "", "", 0, "complete", [] {
         auto says = every_region("3000");
         says.insert(says.end(), {"(umts): complete\n",
                                  "  reason       CP Crash by CP - UMTS: evidence test\n",
                                  "  followed by  upload mode\n",
                                  ": 1000000 of 1000000 bytes announced, 2 steps saved, ",
                                  ", reception finished (DONE)\n",
                                  "  kernel log   before: cpcrash_umts_klog_before_",
                                  "  kernel log   after: cpcrash_umts_klog_after_",
                                  "  verdict      complete\n"});
         return says;
     }()},
    // Frames 1, 2, 4 of step 2, in each of the seven attempts.
    {"FrameSkipped", "dump_size 100000\ndump_steps 2\nframe_payload 10000\nframe_skip 2 3\n", "",
     "", 1, "partial", {"(umts): partial, 7 attempts\n",
     "    verdict      partial: dump: 70000 of 100000 bytes; ", kCut + "2: curr_frame 4 != seqn 3\n"}},
    // Room for the regions but not for the dump; later attempts find no room at all.
    {"FullLogPartition", "dump_size 629145600\ndump_steps 4\n", "560m", "", 1, "partial",
     {"(umts): partial\n", " bytes, the size the CP announced is not known",
      "  verdict      " + kUnannounced + kCut}},
    // The CP stops before step 2 once; the retry collects the dump whole.
    {"CpStopsThenRetrySucceeds", "dump_size 100000\ndump_steps 2\nanswer 0x9D02 none\n", "",
     "write dump 0x00009D02", 0, "complete", {"(umts): complete, 2 attempts\n",
     "    verdict      " + kUnannounced + kCut + "2: std_ul_rx_frame fail (ret -5)\n",
     "    verdict      complete\n"}},
};
// clang-format on
INSTANTIATE_TEST_SUITE_P(Crashes, Evidence, ::testing::ValuesIn(kRows),
                         [](const auto& row) { return std::string(row.param.label); });

}  // namespace
}  // namespace systest
