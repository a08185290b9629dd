// Not built yet.
#include "boot/boot_dump.h"
#include "core/not_built.h"
#include "core/util.h"

int BootDumpQuoll::load_cp_images(cp_boot_mode) {
    NOT_BUILT();
    return -1;
}

int BootDumpQuoll::std_security_req(unsigned, unsigned, unsigned) {
    NOT_BUILT();
    return -1;
}
