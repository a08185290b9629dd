// The crash-reason text from an arbitrary owner, an arbitrary 512-byte
// driver text (not necessarily terminated) and the dump record's reason.
// Input: owner (4 bytes), driver text (512), the CP's reason (the rest, cut
// to the record's 512 bytes).
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "boot/boot_dump.h"
#include "core/rix.h"
#include "dump/crash_reason.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    int32_t owner = 0;
    char driver[kDriverReasonLen];
    char cp[sizeof(std_dump::reason)];
    memset(driver, 0, sizeof(driver));
    memset(cp, 0, sizeof(cp));
    size_t at = 0;
    size_t n = size < sizeof(owner) ? size : sizeof(owner);
    memcpy(&owner, data, n);
    at += n;
    n = size - at < sizeof(driver) ? size - at : sizeof(driver);
    memcpy(driver, data + at, n);
    at += n;
    n = size - at < sizeof(cp) ? size - at : sizeof(cp);
    memcpy(cp, data + at, n);

    // The process-wide text the upload request carries: 512 bytes in a
    // field of 515, always terminated.
    char out[kCrashReasonLen];
    memset(out, 'x', sizeof(out));
    format_cp_crash_reason(out, kCrashReasonMax, owner, cp, driver);
    if (strnlen(out, kCrashReasonMax) >= kCrashReasonMax || out[kCrashReasonMax] != 'x') {
        abort();
    }
    return 0;
}
