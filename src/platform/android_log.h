// Android logging. On the phone this is liblog; on a development host the
// stand-in in host/ appends one line per message to a file per log buffer.
// The declarations below are liblog's (C linkage, the same values), so code
// built on them builds on liblog unchanged (RIX_ANDROID_LIBS).
#pragma once

#if defined(__ANDROID__) || defined(RIX_ANDROID_LIBS)
#include <android/log.h>
#else

typedef enum log_id {
    LOG_ID_MAIN = 0,
    LOG_ID_RADIO = 1,
    LOG_ID_EVENTS = 2,
    LOG_ID_SYSTEM = 3,
    LOG_ID_CRASH = 4,
} log_id_t;

typedef enum android_LogPriority {
    ANDROID_LOG_UNKNOWN = 0,
    ANDROID_LOG_DEFAULT,
    ANDROID_LOG_VERBOSE,
    ANDROID_LOG_DEBUG,
    ANDROID_LOG_INFO,
    ANDROID_LOG_WARN,
    ANDROID_LOG_ERROR,
    ANDROID_LOG_FATAL,
    ANDROID_LOG_SILENT,
} android_LogPriority;

// liblog's own names, reserved identifiers or not.
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
extern "C" int __android_log_buf_print(int bufID, int prio, const char* tag, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
extern "C" int __android_log_print(int prio, const char* tag, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));

#endif
