// The host property store: integer parsing as the platform does it, and
// atomic, exact values.
#include <cstring>
#include <filesystem>
#include <string>
#include <tuple>

#include "platform/properties.h"
#include "rix_test.h"

namespace {

using PropertiesTest = RixTest;

TEST_F(PropertiesTest, Int32ParsesLikeThePlatform) {
    const char* texts[] = {"16",    "0x4948", "0X4f4c",     "010",        "-1",
                           "12abc", " 7",     "2147483647", "-2147483648"};
    const int32_t values[] = {16, 0x4948, 0x4F4C, 8, -1, 12, 7, INT32_MAX, INT32_MIN};
    for (size_t i = 0; i < std::size(texts); i++) {
        set_prop("p.int", texts[i]);
        EXPECT_EQ(property_get_int32("p.int", -99), values[i]) << '"' << texts[i] << '"';
    }
    // Out of range, or no number at all: the default.
    for (const char* text :
         {"2147483648", "-2147483649", "0xFFFFFFFF", "abc", "", "-", "99999999999999999999999"}) {
        set_prop("p.int", text);
        EXPECT_EQ(property_get_int32("p.int", -99), -99) << '"' << text << '"';
    }
    EXPECT_EQ(property_get_int32("p.missing", 5), 5);
}

TEST_F(PropertiesTest, GetReturnsValueOrDefault) {
    char value[PROPERTY_VALUE_MAX];
    set_prop("p.empty", "");
    set_prop("p.long", std::string(200, 'v'));  // cut to the platform's 91 bytes
    using Row = std::tuple<const char*, const char*, std::string>;
    for (const auto& [key, dflt, expect] :
         {Row{"p.missing", "0", "0"}, Row{"p.missing", nullptr, ""}, Row{"p.empty", "dflt", "dflt"},
          Row{"p.long", "", std::string(PROPERTY_VALUE_MAX - 1, 'v')}}) {
        EXPECT_EQ(property_get(key, value, dflt), static_cast<int>(expect.size())) << key;
        EXPECT_EQ(value, expect) << key;
    }
}

TEST_F(PropertiesTest, SetStoresExactlyTheValueAndRefusesBadInput) {
    for (const char* v : {"1", ""}) {
        ASSERT_EQ(property_set("vendor.rix.boot_done", v), 0);
        EXPECT_EQ(prop("vendor.rix.boot_done"), v);
    }
    EXPECT_EQ(property_set("x", std::string(PROPERTY_VALUE_MAX, 'v').c_str()), -1);
    EXPECT_EQ(property_set("x", std::string(PROPERTY_VALUE_MAX - 1, 'v').c_str()), 0);
    EXPECT_EQ(property_set("../escape", "1"), -1);
    EXPECT_EQ(property_set("", "1"), -1);
    EXPECT_FALSE(std::filesystem::exists(dir_ + "/escape"));
    // The two values and no temporary file left behind.
    auto files = std::filesystem::directory_iterator(prop_dir_);
    EXPECT_EQ(std::distance(begin(files), end(files)), 2);
    setenv("RIX_PROPERTY_DIR", (dir_ + "/nowhere").c_str(), 1);
    EXPECT_EQ(property_set("a", "1"), -1);
}

}  // namespace
