// The one-line crash-reason text: who crashed the CP, as the driver reports
// it, and in whose words. It goes into the info file and along with the
// upload-mode request.
#pragma once

#include <cstddef>
#include <cstdint>

// Length of the driver's reason text in IOCTL_GET_CP_CRASH_REASON; the driver
// may fill it completely, without a terminator.
inline constexpr size_t kDriverReasonLen = 512;

// Formats the crash-reason text for `owner` into out (size bytes, always
// terminated, longer text cut off). cp_text is the dump record's reason field
// (the node prefix in capitals and the CP's own words); driver_text is the
// driver's text, read up to its first zero or its kDriverReasonLen-th byte.
void format_cp_crash_reason(char* out, size_t size, int32_t owner, const char* cp_text,
                            const char* driver_text);
