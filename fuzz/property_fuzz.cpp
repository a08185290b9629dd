// The integer property reader over arbitrary stored text, and a value
// written and read back.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "fuzz_support.h"
#include "platform/properties.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::enter_sandbox();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // As another process may have stored it: any bytes, any length.
    fuzz::write_file("/data/fuzz/props/fuzz.int", data, size);
    (void)property_get_int32("fuzz.int", -7);
    char value[PROPERTY_VALUE_MAX];
    const int len = property_get("fuzz.int", value, "d");
    if (len < 0 || len >= PROPERTY_VALUE_MAX || value[len] != '\0') {
        abort();
    }

    // What property_set accepts comes back unchanged.
    std::string text(reinterpret_cast<const char*>(data),
                     strnlen(reinterpret_cast<const char*>(data), size));
    if (property_set("fuzz.set", text.c_str()) == 0 && !text.empty()) {
        property_get("fuzz.set", value, "");
        if (text != value) {
            abort();
        }
    }
    return 0;
}
