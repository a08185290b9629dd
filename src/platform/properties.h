// Android system properties. On the phone these come from libcutils; on a
// development host the stand-in in host/ keeps one file per property. The
// declarations below are libcutils' (C linkage, the same sizes).
#pragma once

#include <cstdint>

#if defined(__ANDROID__) || defined(RIX_ANDROID_LIBS)
#include <cutils/properties.h>
#else

#define PROPERTY_KEY_MAX 32
#define PROPERTY_VALUE_MAX 92

// Copies the value of key (or default_value when it is unset or empty) into
// value, which must hold PROPERTY_VALUE_MAX bytes. Returns the length copied.
extern "C" int property_get(const char* key, char* value, const char* default_value);

// Reads key as an integer: decimal, octal with a leading 0 or hexadecimal
// with 0x; trailing text is ignored. Text without a number, or a number
// outside the 32-bit range, gives default_value.
extern "C" int32_t property_get_int32(const char* key, int32_t default_value);

// Sets key to value. Returns 0, or -1 when the key or value is refused or the
// value could not be stored.
extern "C" int property_set(const char* key, const char* value);

#endif
