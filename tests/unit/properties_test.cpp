// The host property store: integer parsing as the platform does it, and
// atomic, exact values.
#include <filesystem>
#include <string>

#include "platform/properties.h"
#include "rix_test.h"

namespace {

class PropertiesTest : public RixTest {};

TEST_F(PropertiesTest, Int32ParsesLikeThePlatform) {
    struct {
        const char* text;
        int32_t expect;
    } cases[] = {
        {"16", 16},
        {"0x4948", 0x4948},
        {"0X4f4c", 0x4F4C},
        {"010", 8},
        {"-1", -1},
        {"12abc", 12},
        {" 7", 7},
        {"2147483647", INT32_MAX},
        {"-2147483648", INT32_MIN},
        // Out of range, or no number at all: the default.
        {"2147483648", -99},
        {"-2147483649", -99},
        {"0xFFFFFFFF", -99},
        {"abc", -99},
        {"", -99},
        {"-", -99},
        {"99999999999999999999999", -99},
    };
    for (const auto& c : cases) {
        set_prop("p.int", c.text);
        EXPECT_EQ(property_get_int32("p.int", -99), c.expect) << '"' << c.text << '"';
    }
    EXPECT_EQ(property_get_int32("p.missing", 5), 5);
}

TEST_F(PropertiesTest, GetReturnsValueOrDefault) {
    char value[PROPERTY_VALUE_MAX];
    EXPECT_EQ(property_get("p.missing", value, "0"), 1);
    EXPECT_STREQ(value, "0");
    EXPECT_EQ(property_get("p.missing", value, nullptr), 0);
    EXPECT_STREQ(value, "");
    set_prop("p.empty", "");
    EXPECT_EQ(property_get("p.empty", value, "dflt"), 4);
    EXPECT_STREQ(value, "dflt");
    // A stored value longer than the platform allows is cut to 91 bytes.
    set_prop("p.long", std::string(200, 'v'));
    EXPECT_EQ(property_get("p.long", value, ""), PROPERTY_VALUE_MAX - 1);
    EXPECT_EQ(std::string(value), std::string(PROPERTY_VALUE_MAX - 1, 'v'));
}

TEST_F(PropertiesTest, SetStoresExactlyTheValueAndRefusesBadInput) {
    ASSERT_EQ(property_set("vendor.rix.boot_done", "1"), 0);
    EXPECT_EQ(prop("vendor.rix.boot_done"), "1");
    ASSERT_EQ(property_set("vendor.rix.boot_done", ""), 0);
    EXPECT_EQ(prop("vendor.rix.boot_done"), "");
    EXPECT_EQ(property_set("x", std::string(PROPERTY_VALUE_MAX, 'v').c_str()), -1);
    EXPECT_EQ(property_set("x", std::string(PROPERTY_VALUE_MAX - 1, 'v').c_str()), 0);
    EXPECT_EQ(property_set("../escape", "1"), -1);
    EXPECT_EQ(property_set("", "1"), -1);
    EXPECT_FALSE(std::filesystem::exists(dir_ + "/escape"));
    // No temporary file is left behind.
    int files = 0;
    for (const auto& e : std::filesystem::directory_iterator(prop_dir_)) {
        (void)e;
        files++;
    }
    EXPECT_EQ(files, 2);
    // A directory that does not exist: the write fails.
    setenv("RIX_PROPERTY_DIR", (dir_ + "/nowhere").c_str(), 1);
    EXPECT_EQ(property_set("a", "1"), -1);
}

}  // namespace
