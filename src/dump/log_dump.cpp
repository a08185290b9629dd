// Not built yet.
#include "boot/boot_dump.h"
#include "core/not_built.h"
#include "dump/protocol.h"

int BootDump::get_log_dump(const char*, cp_log_dump_index) {
    NOT_BUILT();
    return -1;
}

int BootDump::get_num_log_dump(cp_log_dump_index, unsigned* count) {
    NOT_BUILT();
    *count = 0;
    return 0;
}
