// Not built yet.
#include "boot/boot_dump.h"
#include "core/not_built.h"
#include "core/util.h"

void Util::byteToHex(char* dst, unsigned long dst_size, char*, unsigned long) {
    NOT_BUILT();
    if (dst_size > 0) {
        dst[0] = '\0';
    }
}

void Util::toUpperCase(char*, char*) {
    NOT_BUILT();
}

bool Util::getNvFd(cp_boot_mode, char*, int, int* fd) {
    NOT_BUILT();
    *fd = -1;
    return false;
}
