// CP log regions: after the driver has announced a region's size on the dump
// node, its bytes arrive as plain chunks, and they go to a file of their own.
#pragma once

#include <cstddef>
#include <cstdint>

// The files of one dump attempt in the log directory share the local time
// of its preparation: "<base>_log_<stamp>.log" (the dump log),
// "<base>_info_<modem>_<stamp>.log" (the crash reason) and
// "<base>_dump_<stamp>.log" (the dump), the base naming the device prefix.
inline constexpr char kDumpStampFormat[] = "%Y%m%d-%H%M_%S";
inline constexpr char kDumpNameBase[] = "cpcrash_%s";
inline constexpr char kDumpLogPathFormat[] = "%s/%s_log_%s.log";
inline constexpr char kDumpInfoPathFormat[] = "%s/%s_info_%s_%s.log";
inline constexpr char kDumpFilePathFormat[] = "%s/%s_dump_%s.log";
// A log region's file, with the region name, the device prefix and a time
// stamp of its own.
inline constexpr char kRegionPathFormat[] = "%s/cpcrash_%s_dump_%s_%s.log";
// The kernel-log captures of a dump attempt, named with the device prefix.
inline constexpr char kCaptureDumpBefore[] = "cpcrash_%s_klog_before";
inline constexpr char kCaptureDumpAfter[] = "cpcrash_%s_klog_after";
inline constexpr char kCaptureDumpFail[] = "cpcrash_%s_dump_fail";

// The local time now as the dump files name it.
void dump_time_stamp(char* buf, size_t size);

// Receives the announced `size` bytes of region `name` into
// "<log_dir>/cpcrash_<name>_dump_<prefix>_<time stamp>.log", a file made for
// this call with a time stamp of its own. Returns the length of the last
// chunk written (0 for an empty region) or a negative result; messages carry
// the name of the region request, get_log_dump.
int save_log_region(const char* name, uint32_t size);
