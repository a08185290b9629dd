// Not built yet.
#include "boot/boot_dump.h"
#include "core/not_built.h"
#include "dump/protocol.h"

int BootDumpQuoll::dump() {
    NOT_BUILT();
    return -1;
}

int BootDump::set_minidump_mode() {
    NOT_BUILT();
    return -1;
}

bool BootDump::std_dump_prepare_args() {
    NOT_BUILT();
    return false;
}

int BootDump::std_dump_receive_cp_dump() {
    NOT_BUILT();
    return -1;
}

int BootDump::std_dump_upload() {
    NOT_BUILT();
    return -1;
}

int BootDump::std_dump_write_versions() {
    NOT_BUILT();
    return -1;
}
