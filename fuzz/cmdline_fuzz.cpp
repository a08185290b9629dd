// The kernel command-line lookup and the debug settings read from it, over an
// arbitrary /proc/cmdline (a file bound over it).
#include "core/util.h"
#include "fuzz_support.h"

void fuzz_one(fuzz::Input in) {
    fuzz::write_file(fuzz::kCmdline, in.data, in.size);  // same inode: the bind stays
    for (const char* key : {"pax_debug.level=", "pax_debug.enable=", "pax_debug.cp=", "a", ""}) {
        char buf[4096] = {};
        const char* t = Util::get_cmdline_str(buf, sizeof(buf), key);
        const char* end = buf + sizeof(buf);
        fuzz::expect(t == nullptr || (t >= buf && t < end && strncmp(t, key, strlen(key)) == 0 &&
                                      strnlen(t, end - t) < static_cast<size_t>(end - t)),
                     "the token is the key's, inside the buffer and terminated");
    }
    char small[8];  // a small buffer cuts the text, never the bounds
    (void)Util::get_cmdline_str(small, sizeof(small), "pax");
    debug_level = cp_debug = 0;
    Log::check_debug_cp_opt();
    Log::check_debug_level();
}
