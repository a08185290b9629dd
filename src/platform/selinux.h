// SELinux label restore. On the phone this is libselinux; on a development
// host the stand-in records the path it was asked to relabel.
#pragma once

#if defined(__ANDROID__) || defined(RIX_ANDROID_LIBS)
#include <selinux/android.h>
#else

#define SELINUX_ANDROID_RESTORECON_NOCHANGE 1
#define SELINUX_ANDROID_RESTORECON_VERBOSE 2
#define SELINUX_ANDROID_RESTORECON_RECURSE 4

extern "C" int selinux_android_restorecon(const char* file, unsigned int flags);

#endif
