#include "settings.h"

#include <gtest/gtest.h>

#include "boot/cpif.h"

namespace vmodem {
namespace {

TEST(Settings, NumbersInEveryNotation) {
    int64_t v = 0;
    EXPECT_TRUE(parse_int("0x00FEED04", v));
    EXPECT_EQ(v, 0x00FEED04);
    EXPECT_TRUE(parse_int("-5", v));
    EXPECT_EQ(v, -5);
    EXPECT_TRUE(parse_int("010", v));
    EXPECT_EQ(v, 8);
    EXPECT_FALSE(parse_int("12abc", v));
    EXPECT_FALSE(parse_int("", v));
}

TEST(Settings, ResultsAcceptNamesAndSignedOrUnsignedValues) {
    Settings s;
    EXPECT_EQ(apply_setting(s, "result IOCTL_CHECK_SECURITY 0xCAE20020"), "");
    EXPECT_EQ(s.results.at(IOCTL_CHECK_SECURITY), static_cast<int32_t>(0xCAE20020u));
    EXPECT_EQ(apply_setting(s, "result POWER_ON -5"), "");
    EXPECT_EQ(s.results.at(IOCTL_POWER_ON), -5);
    EXPECT_EQ(apply_setting(s, "result POWER_ON default"), "");
    EXPECT_EQ(s.results.count(IOCTL_POWER_ON), 0u);
    EXPECT_NE(apply_setting(s, "result NO_SUCH_REQUEST 1"), "");
    EXPECT_NE(apply_setting(s, "result POWER_ON 0x1FFFFFFFF"), "");
}

TEST(Settings, MisbehaviourKeysAndClear) {
    Settings s;
    EXPECT_EQ(apply_setting(s, "security 2 11"), "");
    EXPECT_EQ(apply_setting(s, "answer 0x900D 0xA00E"), "");
    EXPECT_EQ(apply_setting(s, "answer 0x9D00 none"), "");
    EXPECT_EQ(apply_setting(s, "frame_skip 1 3"), "");
    EXPECT_EQ(apply_setting(s, "frame_size_field 2 1 16385"), "");
    EXPECT_EQ(apply_setting(s, "info_num_steps 300"), "");
    EXPECT_EQ(apply_setting(s, "info_dump_size_delta -1"), "");
    EXPECT_EQ(s.security.at(2), 11);
    EXPECT_EQ(s.answers.at(0x900D), 0xA00Eu);
    EXPECT_FALSE(s.answers.at(0x9D00).has_value());
    EXPECT_EQ(s.frame_size_field.at({2, 1}), 16385u);
    EXPECT_EQ(apply_setting(s, "misbehave_clear"), "");
    EXPECT_TRUE(s.answers.empty());
    EXPECT_TRUE(s.frame_skip.empty());
    EXPECT_FALSE(s.info_num_steps.has_value());
    EXPECT_EQ(s.info_dump_size_delta, 0);
    EXPECT_EQ(s.security.at(2), 11);  // answers per mode are not misbehaviour
}

TEST(Settings, RefusesBadLines) {
    Settings s;
    EXPECT_NE(apply_setting(s, "no_such_key 1"), "");
    EXPECT_NE(apply_setting(s, "frame_payload 16385"), "");
    EXPECT_NE(apply_setting(s, "frame_payload 0"), "");
    EXPECT_NE(apply_setting(s, "frame_skip 1"), "");
    EXPECT_NE(apply_setting(s, "cpif_version 123456789012345678901"), "");
    EXPECT_EQ(apply_setting(s, "  # comment"), "");
    EXPECT_EQ(apply_setting(s, ""), "");
    EXPECT_EQ(apply_setting(s, "dump_reason CP crashed: assert at x.c:12"), "");
    EXPECT_EQ(s.dump_reason, "CP crashed: assert at x.c:12");
}

}  // namespace
}  // namespace vmodem
