// Not built yet.
#include "boot/boot_dump.h"
#include "core/not_built.h"
#include "dump/protocol.h"

void Protocol::make_cp_crash_reason(char*) {
    NOT_BUILT();
}

int ProtocolTarn::std_dump_receive_cp_dump() {
    NOT_BUILT();
    return -1;
}
