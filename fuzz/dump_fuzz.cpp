// Dump reception over an arbitrary CP byte stream (the START answer, INFO,
// REASON, the step answers and frames, the DONE answer) on a socket pair
// standing in for the dump node. Input: a settings byte (bit 0: a debug level
// that writes the info file; bit 1: a dump log), then the CP messages.
#include <sys/mman.h>

#include "fuzz_support.h"

void fuzz_one(fuzz::Input in) {
    const uint32_t flags = in.le(1);
    debug_level = (flags & 1) != 0 ? DBG_MID : DBG_LOW;
    Container::bootDump->std_dump_init_args();
    std_dump* d = Container::getStdDump();
    memset(crash_reason, 0, sizeof(crash_reason));
    fuzz::CpFeed cp(in.messages());
    d->fd = cp.ap;
    // The info, dump and dump-log files: writes, seeks and fsync as on a disk.
    d->info_fd = memfd_create("info", MFD_CLOEXEC);
    d->dump_fd = memfd_create("dump", MFD_CLOEXEC);
    d->log_fd = (flags & 2) != 0 ? memfd_create("dumplog", MFD_CLOEXEC) : -1;
    // The prefix the dump preparation puts in front of the CP's words.
    snprintf(d->reason, sizeof(d->reason), "%s", "UMTS: ");
    (void)Container::protocol->std_dump_receive_cp_dump();
    fuzz::expect(strnlen(d->reason, sizeof(d->reason)) < sizeof(d->reason) &&
                     strnlen(crash_reason, kCrashReasonMax) < kCrashReasonMax,
                 "reasons terminated");
    close(d->info_fd), close(d->dump_fd), close(d->log_fd);
    d->fd = d->info_fd = d->dump_fd = d->log_fd = -1;
}
