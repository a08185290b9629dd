// The integer property reader over arbitrary stored text, and a value written
// and read back.
#include "fuzz_support.h"
#include "platform/properties.h"

void fuzz_one(fuzz::Input in) {
    // As another process may have stored it: any bytes, any length.
    fuzz::write_file("/data/fuzz/props/fuzz.int", in.data, in.size);
    (void)property_get_int32("fuzz.int", -7);
    char value[PROPERTY_VALUE_MAX];
    const int len = property_get("fuzz.int", value, "d");
    fuzz::expect(len >= 0 && len < PROPERTY_VALUE_MAX && value[len] == '\0', "value terminated");
    // What property_set accepts comes back unchanged.
    const std::string text(reinterpret_cast<const char*>(in.data),
                           strnlen(reinterpret_cast<const char*>(in.data), in.size));
    if (property_set("fuzz.set", text.c_str()) == 0 && !text.empty()) {
        property_get("fuzz.set", value, "");
        fuzz::expect(text == value, "a value set comes back");
    }
}
