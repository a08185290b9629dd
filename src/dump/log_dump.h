// CP log regions: after the driver has announced a region's size on the dump
// node, its bytes arrive as plain chunks, and they go to a file of their own.
#pragma once

#include <cstddef>
#include <cstdint>

// The local time now as the dump files name it: "%Y%m%d-%H%M_%S".
void dump_time_stamp(char* buf, size_t size);

// Receives the announced `size` bytes of region `name` into
// "<log_dir>/cpcrash_<name>_dump_<prefix>_<time stamp>.log", a file made for
// this call with a time stamp of its own. Returns the length of the last
// chunk written (0 for an empty region) or a negative result; messages carry
// the name of the region request, get_log_dump.
int save_log_region(const char* name, uint32_t size);
