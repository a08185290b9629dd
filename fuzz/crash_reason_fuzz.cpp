// The crash-reason text from an arbitrary owner, an arbitrary 512-byte driver
// text (not necessarily terminated) and the dump record's reason. Input: owner
// (4 bytes), driver text (512), the CP's reason (the rest, cut to 512 bytes).
#include "dump/crash_reason.h"
#include "fuzz_support.h"

void fuzz_one(fuzz::Input in) {
    const auto owner = static_cast<int32_t>(in.le(4));
    char driver[kDriverReasonLen] = {}, cp[sizeof(std_dump::reason)] = {};
    const fuzz::Input d = in.take(sizeof(driver)), c = in.take(sizeof(cp));
    memcpy(driver, d.data, d.size);
    memcpy(cp, c.data, c.size);
    // The text the upload request carries: 512 bytes in a field of 515.
    char out[kCrashReasonLen];
    memset(out, 'x', sizeof(out));
    format_cp_crash_reason(out, kCrashReasonMax, owner, cp, driver);
    fuzz::expect(strnlen(out, kCrashReasonMax) < kCrashReasonMax && out[kCrashReasonMax] == 'x',
                 "crash reason terminated inside its field");
}
