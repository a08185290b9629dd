// Debug level and CP debug option: which source wins, and the kernel command
// line reader behind them.
#include <cstring>
#include <string>

#include "core/util.h"
#include "log/log.h"
#include "rix_test.h"

namespace {

class DebugSettingsTest : public RixTest {
  protected:
    // Zeroed before every lookup, as the daemon does.
    char* lookup(const char* key, unsigned size = 4096) {
        memset(buf_, 0, sizeof(buf_));
        return Util::get_cmdline_str(buf_, size, key);
    }
    char buf_[4096];
};

TEST_F(DebugSettingsTest, CmdlineTokensSplitOnSpacesOnly) {
    set_cmdline("console=ttyS0   pax_debug.level=1\tquiet pax_debug.cp=3\n");
    char* t = lookup("pax_debug.cp=");
    ASSERT_NE(t, nullptr);
    EXPECT_STREQ(t, "pax_debug.cp=3");  // the final line feed is gone
    // A tab is part of the token.
    t = lookup("pax_debug.level=");
    ASSERT_NE(t, nullptr);
    EXPECT_STREQ(t, "pax_debug.level=1\tquiet");
    EXPECT_EQ(lookup("quiet"), nullptr);
    EXPECT_NE(radio().find("rix: get_cmdline_str: find str pax_debug.cp=3 form /proc/cmdline\n"),
              std::string::npos);
    // The first token that begins with the key wins.
    set_cmdline("a=1 ab=2");
    t = lookup("a");
    ASSERT_NE(t, nullptr);
    EXPECT_STREQ(t, "a=1");
}

TEST_F(DebugSettingsTest, CmdlineSearchStopsAt4095Bytes) {
    // Bytes 0..4094 are read: the key's '=' at byte 4095 is not.
    set_cmdline(std::string(4093, 'x') + " k=1");
    EXPECT_EQ(lookup("k="), nullptr);
    char* t = lookup("k");
    ASSERT_NE(t, nullptr);
    EXPECT_STREQ(t, "k");
    set_cmdline(std::string(4000, 'x') + " k=1");
    t = lookup("k=");
    ASSERT_NE(t, nullptr);
    EXPECT_STREQ(t, "k=1");
    set_cmdline(std::string(4100, 'y') + " k=1");
    EXPECT_EQ(lookup("k="), nullptr);
    // A caller's smaller buffer bounds the read too.
    set_cmdline("abcdef k=1");
    EXPECT_EQ(lookup("k=", 8), nullptr);
    set_cmdline("");
    EXPECT_EQ(lookup(""), nullptr);
}

TEST_F(DebugSettingsTest, NothingSetGivesZeroes) {
    Log::check_debug_cp_opt();
    Log::check_debug_level();
    EXPECT_EQ(debug_level, 0);
    EXPECT_EQ(cp_debug, 0);
    EXPECT_EQ(kmsg(), "<6>cpif: rix: check_debug_level: debug_level=0, cp_debug=0\n");
}

TEST_F(DebugSettingsTest, LevelPropertyFromTableWinsOverCmdline) {
    struct {
        const char* prop;
        int level;
    } cases[] = {{"0x4948", 2}, {"0x4945", 1}, {"0x4F4C", 0}, {"18760", 2}};
    for (const auto& c : cases) {
        debug_level = 1;
        clear_logs();
        set_prop("ro.boot.debug_level", c.prop);
        set_cmdline("pax_debug.level=1 pax_debug.enable=1");
        Log::check_debug_level();
        EXPECT_EQ(debug_level, c.level) << c.prop;
        EXPECT_EQ(radio().find("get_cmdline_str"), std::string::npos) << c.prop;
    }
    EXPECT_NE(radio().find("rix: check_debug_level: \"ro.boot.debug_level\", 0x4948\n"),
              std::string::npos);
}

TEST_F(DebugSettingsTest, UndefinedLevelPropertyLetsCmdlineDecide) {
    set_prop("ro.boot.debug_level", "1");
    set_cmdline("pax_debug.level=2");
    Log::check_debug_level();
    EXPECT_EQ(debug_level, 1);  // the command line never gives DBG_HIGH
    const std::string k = kmsg();
    EXPECT_NE(k.find("check_debug_level: \"ro.boot.debug_level\", 0x1\n"
                     "<6>cpif: rix: check_debug_level: \"ro.boot.debug_level\", undefined "
                     "value=0x1\n"),
              std::string::npos);
    EXPECT_NE(k.find("<6>cpif: rix: check_debug_level: pax_debug.level=2, 1\n"), std::string::npos);
}

TEST_F(DebugSettingsTest, EnableKeyCountsOnlyWithoutLevelKey) {
    set_cmdline("pax_debug.level=0 pax_debug.enable=1");
    Log::check_debug_level();
    EXPECT_EQ(debug_level, 0);
    set_cmdline("pax_debug.enable=1");
    Log::check_debug_level();
    EXPECT_EQ(debug_level, 1);
    // An empty value is not '0'.
    debug_level = 0;
    set_cmdline("pax_debug.level=");
    Log::check_debug_level();
    EXPECT_EQ(debug_level, 1);
}

TEST_F(DebugSettingsTest, SecondCallRaisesByCmdlineLowersOnlyByProperty) {
    debug_level = 2;
    set_cmdline("pax_debug.level=0");
    Log::check_debug_level();
    EXPECT_EQ(debug_level, 2);
    set_prop("ro.boot.debug_level", "0x4F4C");
    Log::check_debug_level();
    EXPECT_EQ(debug_level, 0);
}

TEST_F(DebugSettingsTest, ForceUploadRaisesOnlyFromLow) {
    set_prop("ro.boot.force_upload", "5");
    set_prop("ro.boot.debug_level", "0x4F4C");
    Log::check_debug_level();
    EXPECT_EQ(debug_level, 1);
    EXPECT_NE(kmsg().find("check_debug_level: force_upload=5\n<6>cpif: rix: check_debug_level: "
                          "force_upload on!\n"),
              std::string::npos);

    clear_logs();
    set_prop("ro.boot.debug_level", "0x4948");
    Log::check_debug_level();
    EXPECT_EQ(debug_level, 2);
    EXPECT_EQ(kmsg().find("force_upload"), std::string::npos);

    clear_logs();
    set_prop("ro.boot.debug_level", "0x4F4C");
    set_prop("ro.boot.force_upload", "4");
    Log::check_debug_level();
    EXPECT_EQ(debug_level, 0);
    EXPECT_NE(kmsg().find("force_upload=4\n"), std::string::npos);
    EXPECT_EQ(kmsg().find("force_upload on!"), std::string::npos);
}

TEST_F(DebugSettingsTest, CpOptionPropertyOverridesCmdline) {
    set_prop("persist.vendor.rix.debug_cp_opt", "0");
    set_cmdline("pax_debug.cp=3");
    cp_debug = 4;
    Log::check_debug_cp_opt();
    EXPECT_EQ(cp_debug, 0);
    EXPECT_EQ(kmsg(), "<6>cpif: rix: check_debug_cp_opt: cp_debug=0 overwritten by prop\n");
}

TEST_F(DebugSettingsTest, CpOptionFromCmdlineIsOneCharacterMinusZero) {
    struct {
        const char* cmdline;
        int expect;
    } cases[] = {{"pax_debug.cp=7abc", 7},
                 {"pax_debug.cp=", -48},
                 {"pax_debug.cp=a", 49},
                 {"pax_debug.cp=\xE9", 0xE9 - '0'}};
    for (const auto& c : cases) {
        cp_debug = 0;
        clear_logs();
        set_cmdline(c.cmdline);
        Log::check_debug_cp_opt();
        EXPECT_EQ(cp_debug, c.expect) << c.cmdline;
        EXPECT_NE(kmsg().find(std::string("check_debug_cp_opt: ") + c.cmdline + ", " +
                              std::to_string(c.expect) + "\n"),
                  std::string::npos);
    }
    // Absent key and no property: the value stays.
    cp_debug = 2;
    set_cmdline("quiet");
    Log::check_debug_cp_opt();
    EXPECT_EQ(cp_debug, 2);
    // The closing line of the level check reports the final option.
    Log::check_debug_level();
    EXPECT_NE(kmsg().find("debug_level=0, cp_debug=2\n"), std::string::npos);
}

}  // namespace
