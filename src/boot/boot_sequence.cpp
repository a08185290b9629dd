// Not built yet.
#include "boot/boot_dump.h"
#include "core/not_built.h"
#include "core/util.h"

int dump_try_cnt = 0;

int BootDumpQuoll::boot() {
    NOT_BUILT();
    return -1;
}

void BootDumpQuoll::boot_wake_lock(int) {
    NOT_BUILT();
}
