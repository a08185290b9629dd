// Not built yet.
#include "boot/boot_dump.h"
#include "core/not_built.h"
#include "core/util.h"

void BootDumpQuoll::build_std_dload_control() {
    NOT_BUILT();
}

bool BootDumpQuoll::prepare_boot_args(cp_boot_mode) {
    NOT_BUILT();
    return false;
}

void BootDump::build_std_dload_control_nv_fd(unsigned, unsigned) {
    NOT_BUILT();
}

bool BootDump::std_boot_prepare_args() {
    NOT_BUILT();
    return false;
}

bool BootDump::std_boot_parse_toc_img(cp_boot_mode, unsigned*) {
    NOT_BUILT();
    return false;
}
