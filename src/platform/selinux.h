// SELinux label restore. On the phone this is libselinux; on a development
// host the stand-in records the path it was asked to relabel.
#pragma once

#ifdef __ANDROID__
#include <selinux/android.h>
#else

#define SELINUX_ANDROID_RESTORECON_NOCHANGE 1
#define SELINUX_ANDROID_RESTORECON_VERBOSE 2
#define SELINUX_ANDROID_RESTORECON_RECURSE 4

int selinux_android_restorecon(const char* file, unsigned int flags);

#endif
