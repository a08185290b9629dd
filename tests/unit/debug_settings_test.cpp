// Debug level and CP debug option: which source wins, and the kernel command
// line reader behind them.
#include <cstring>
#include <sstream>
#include <string>

#include "core/util.h"
#include "log/log.h"
#include "rix_test.h"

namespace {

using DebugSettingsTest = RixTest;

// The kernel log lines of a check: one per '\n'-ended line, of the command
// line reader for "find str" lines, of `fn` otherwise.
std::string lines(const std::string& fn, const std::string& text) {
    std::istringstream in(text);
    std::string out, l;
    while (std::getline(in, l)) {
        out += "<6>cpif: rix: " + (l.rfind("find str", 0) == 0 ? "get_cmdline_str" : fn) + ": " +
               l + (l.rfind("find str", 0) == 0 ? " form /proc/cmdline\n" : "\n");
    }
    return out;
}

TEST_F(DebugSettingsTest, CmdlineTokensSplitOnSpacesOnlyWithinTheBytesRead) {
    const std::string spaced = "console=ttyS0   pax_debug.level=1\tquiet pax_debug.cp=3\n";
    const struct {
        std::string cmdline;
        const char* key;
        unsigned size;
        const char* token;  // nullptr: not found
    } cases[] = {
        {spaced, "pax_debug.cp=", 4096, "pax_debug.cp=3"},  // the final line feed is gone
        {spaced, "pax_debug.level=", 4096, "pax_debug.level=1\tquiet"},  // a tab is no separator
        {"a=1 ab=2", "a", 4096, "a=1"},  // the first token that begins with the key
        // Bytes 0..4094 are read: the key's '=' at byte 4095 is not, what is before it is.
        {std::string(4093, 'x') + " k=1", "k=", 4096, nullptr},
        {std::string(4093, 'x') + " k=1", "k", 4096, "k"},
        {"abcdef k=1", "k=", 8, nullptr},  // the caller's buffer bounds the read
        {"", "", 4096, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.cmdline.substr(0, 40) + " / " + c.key);
        set_cmdline(c.cmdline);
        clear_logs();
        char buf[4096] = {};
        const char* t = Util::get_cmdline_str(buf, c.size, c.key);
        EXPECT_STREQ(t, c.token);
        EXPECT_EQ(kmsg(), c.token ? lines("", std::string("find str ") + c.token + "\n") : "");
    }
}

TEST_F(DebugSettingsTest, LevelComesFromThePropertyTheCommandLineOrAForcedUpload) {
    const std::string prop = "\"ro.boot.debug_level\", ";
    const struct {
        const char *level_prop, *force_upload, *cmdline;
        int before, after;
        std::string log;  // before the closing line
    } cases[] = {
        // clang-format off
        {"", "", "", 0, 0, ""},
        // A known property value wins; the command line is not read.
        {"0x4948", "", "pax_debug.level=1 pax_debug.enable=1", 1, 2, prop + "0x4948\n"},
        {"0x4945", "", "pax_debug.level=1", 0, 1, prop + "0x4945\n"},
        {"0x4F4C", "", "pax_debug.level=1", 2, 0, prop + "0x4F4C\n"},
        // Any other value lets the command line decide, which never gives 2.
        {"1", "", "pax_debug.level=2", 0, 1,
         prop + "0x1\n" + prop + "undefined value=0x1\nfind str pax_debug.level=2\npax_debug.level=2, 1\n"},
        // The enable key counts only without the level key; empty is not '0'.
        {"", "", "pax_debug.level=0 pax_debug.enable=1", 0, 0, "find str pax_debug.level=0\n"},
        {"", "", "pax_debug.enable=1", 0, 1, "find str pax_debug.enable=1\npax_debug.enable=1, 1\n"},
        {"", "", "pax_debug.level=", 0, 1, "find str pax_debug.level=\npax_debug.level=, 1\n"},
        // A later check never lowers the level through the command line.
        {"", "", "pax_debug.level=0", 2, 2, "find str pax_debug.level=0\n"},
        // A forced upload lifts the low level only.
        {"0x4F4C", "5", "", 2, 1, prop + "0x4F4C\nforce_upload=5\nforce_upload on!\n"},
        {"0x4948", "5", "", 0, 2, prop + "0x4948\n"},
        {"0x4F4C", "4", "", 0, 0, prop + "0x4F4C\nforce_upload=4\n"},
        // clang-format on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.level_prop) + " / " + c.force_upload + " / " + c.cmdline);
        set_prop("ro.boot.debug_level", c.level_prop);
        set_prop("ro.boot.force_upload", c.force_upload);
        set_cmdline(c.cmdline);
        debug_level = c.before;
        clear_logs();
        Log::check_debug_level();
        EXPECT_EQ(debug_level, c.after);
        EXPECT_EQ(kmsg(),
                  lines("check_debug_level",
                        c.log + "debug_level=" + std::to_string(c.after) + ", cp_debug=0\n"));
    }
}

TEST_F(DebugSettingsTest, CpOptionIsThePropertyOrOneCommandLineCharacterMinusZero) {
    const struct {
        const char *prop, *cmdline;
        int before, after;
        std::string log;
    } cases[] = {
        {"", "quiet", 2, 2, ""},  // nothing set: unchanged
        {"0", "pax_debug.cp=3", 4, 0, "cp_debug=0 overwritten by prop\n"},
        {"", "pax_debug.cp=7abc", 0, 7, "find str pax_debug.cp=7abc\npax_debug.cp=7abc, 7\n"},
        {"", "pax_debug.cp=", 0, -48, "find str pax_debug.cp=\npax_debug.cp=, -48\n"},
        {"", "pax_debug.cp=\xE9", 0, 0xE9 - '0',
         "find str pax_debug.cp=\xE9\npax_debug.cp=\xE9, 185\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.cmdline);
        set_prop("persist.vendor.rix.debug_cp_opt", c.prop);
        set_cmdline(c.cmdline);
        cp_debug = c.before;
        clear_logs();
        Log::check_debug_cp_opt();
        EXPECT_EQ(cp_debug, c.after);
        EXPECT_EQ(kmsg(), lines("check_debug_cp_opt", c.log));
    }
}

}  // namespace
