// Small static helpers shared by the daemon's parts.
#pragma once

#include "boot/cpif.h"

class Util {
  public:
    Util() = delete;

    // Gives up root: radio user, only the capabilities the daemon needs.
    static void switch_user();

    // Finds the first kernel command-line token that begins with key. The
    // token points into buf (size bytes, owned by the caller).
    static char* get_cmdline_str(char* buf, unsigned int size, const char* key);

    // Gives path to the group "log".
    static void switch_group_log(char* path);

    // Hexadecimal rendering ("%02X " per byte) and upper-casing of texts.
    static void byteToHex(char* dst, unsigned long dst_size, char* src, unsigned long src_len);
    static void toUpperCase(char* src, char* dst);

    // A read-only descriptor of the NV data file, created when missing.
    static bool getNvFd(cp_boot_mode mode, char* path, int size, int* fd);
};
