// Scenario lines: the system scenarios only ever write lines that are accepted, so the
// notations, the refusals and what misbehave_clear leaves behind are checked here.
#include "settings.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <utility>

#include "boot/cpif.h"

namespace vmodem {
namespace {

TEST(Settings, NumbersInEveryNotationAndLinesItCannotHonour) {
    const std::pair<const char*, int64_t> numbers[] = {
        {"0x00FEED04", 0x00FEED04}, {"-5", -5}, {"010", 8}, {"0xCAE20020", 0xCAE20020}};
    for (const auto& [text, want] : numbers) {
        int64_t v = 0;
        EXPECT_TRUE(parse_int(text, v) && v == want) << text << " read as " << v;
    }
    for (const char* line :
         {"dump_size 12abc", "dump_size -", "dump_size 0x", "dump_size 09", "dump_size 1.5",
          "dump_size 0x100000000", "no_such_key 1", "frame_payload 16385", "frame_payload 0",
          "frame_skip 1", "frame_size_field 1 1 2 3", "cpif_version 123456789012345678901",
          "result NO_SUCH_REQUEST 1", "result POWER_ON 0x1FFFFFFFF", "security -1 0",
          "answer 0x900D maybe", "strict_nodes 2", "region_chunk 0",
          "image_mark_range 0x3000 0x2000"}) {
        Settings s;
        EXPECT_NE(apply_setting(s, line), "") << line;
    }
}

// Comments and blank lines are skipped, a text keeps its blanks, a refused line is named by
// its number (vmodem prints it and does not start).
TEST(Settings, ScenarioFileNamesTheLineItRefuses) {
    const std::string path = ::testing::TempDir() + "/vmodem-settings-test";
    std::ofstream(path) << "# comment\n\n  dump_reason CP crashed: assert at x.c:12\n"
                        << "  # indented\ndump_steps x\n";
    Settings s;
    EXPECT_EQ(load_scenario(s, path), "line 5: not a number: x");
    EXPECT_EQ(s.dump_reason, "CP crashed: assert at x.c:12");
}

// The chaos runs make the CP behave again with misbehave_clear and undo each forced result
// with `result NAME default`; answers per security mode and other results stay.
TEST(Settings, MisbehaveClearUndoesEveryMisbehaviourAndNothingElse) {
    Settings s;
    for (const char* line :
         {"security 2 11", "result IOCTL_CHECK_SECURITY 0xCAE20020", "result POWER_ON -5",
          "answer 0x900D 0xA00E", "answer 0x9D00 none", "frame_size_field 2 1 16385",
          "frame_skip 1 3", "frame_command 1 0xAD02", "info_reason_len 600", "info_num_steps 300",
          "info_dump_size_delta -1", "region_zero_reads 1", "srinfo_marker 0x12345678",
          "crash_reason_unterminated 1", "misbehave_clear 1", "result POWER_ON default"}) {
        ASSERT_EQ(apply_setting(s, line), "") << line;
    }
    EXPECT_TRUE(s.answers.empty() && s.frame_size_field.empty() && s.frame_skip.empty() &&
                s.frame_command.empty() && !s.info_reason_len && !s.info_num_steps &&
                s.info_dump_size_delta == 0 && !s.region_zero_reads && !s.srinfo_marker &&
                !s.crash_reason_unterminated)
        << "a misbehaviour survived misbehave_clear";
    EXPECT_EQ(s.security, (std::map<uint32_t, int32_t>{{2, 11}}));
    EXPECT_EQ(
        s.results,
        (std::map<uint32_t, int32_t>{{IOCTL_CHECK_SECURITY, static_cast<int32_t>(0xCAE20020u)}}));
}

}  // namespace
}  // namespace vmodem
