// The host property store's integer parsing, as the platform does it. Values, their bound and
// their writes are driven by fuzz_property and every system test.
#include <cstdint>
#include <string>

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

}  // namespace
