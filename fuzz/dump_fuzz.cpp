// Dump reception over an arbitrary CP byte stream: the START answer, INFO,
// REASON, the step answers and frames, and the DONE answer, as messages of a
// SOCK_SEQPACKET pair standing in for the dump node. Input: one byte of
// settings, then the messages (see fuzz::split_messages).
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "boot/boot_dump.h"
#include "core/rix.h"
#include "dump/protocol.h"
#include "fuzz_support.h"

namespace {

int open_out(const char* path) {
    int fd = open(path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0660);
    if (fd < 0) {
        fuzz::die(path);
    }
    return fd;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::enter_sandbox();
    fuzz::select_modem();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) {
        return 0;
    }
    fuzz::FdLeakCheck fds;
    // Bit 0: a debug level that writes the info file; bit 1: a dump log.
    debug_level = (data[0] & 1) != 0 ? DBG_MID : DBG_LOW;
    BootDump* bd = Container::bootDump;
    bd->std_dump_init_args();
    std_dump* d = Container::getStdDump();
    memset(crash_reason, 0, sizeof(crash_reason));
    {
        fuzz::CpFeed cp(fuzz::split_messages(data + 1, size - 1));
        d->fd = cp.ap();
        d->info_fd = open_out("/data/fuzz/info");
        d->dump_fd = open_out("/data/fuzz/dump");
        d->log_fd = (data[0] & 2) != 0 ? open_out("/data/fuzz/dumplog") : -1;
        // The prefix the dump preparation puts in front of the CP's words.
        snprintf(d->reason, sizeof(d->reason), "%s", "UMTS: ");

        (void)Container::protocol->std_dump_receive_cp_dump();

        if (strnlen(d->reason, sizeof(d->reason)) == sizeof(d->reason) ||
            strnlen(crash_reason, kCrashReasonMax) == kCrashReasonMax) {
            abort();
        }
        close(d->info_fd);
        close(d->dump_fd);
        if (d->log_fd >= 0) {
            close(d->log_fd);
        }
        d->fd = d->info_fd = d->dump_fd = d->log_fd = -1;
    }
    return 0;
}
