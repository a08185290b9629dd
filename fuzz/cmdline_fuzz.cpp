// The kernel command-line lookup and the debug settings read from it, over
// an arbitrary /proc/cmdline (a file bound over it in the fuzzer's private
// mount namespace).
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "core/util.h"
#include "fuzz_support.h"
#include "log/log.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::enter_sandbox();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::FdLeakCheck fds;
    // Same inode: the bind mount keeps pointing at it.
    int fd = open(fuzz::kCmdline, O_WRONLY | O_TRUNC | O_CLOEXEC);
    if (fd < 0 || write(fd, data, size) != static_cast<ssize_t>(size)) {
        fuzz::die("cmdline");
    }
    close(fd);

    static const char* const kKeys[] = {
        "pax_debug.level=", "pax_debug.enable=", "pax_debug.cp=", "a", ""};
    for (const char* key : kKeys) {
        char buf[4096];
        memset(buf, 0, sizeof(buf));
        const char* token = Util::get_cmdline_str(buf, sizeof(buf), key);
        if (token != nullptr &&
            (token < buf || token >= buf + sizeof(buf) || strncmp(token, key, strlen(key)) != 0 ||
             strnlen(token, buf + sizeof(buf) - token) ==
                 static_cast<size_t>(buf + sizeof(buf) - token))) {
            abort();
        }
    }
    // A small buffer cuts the text, never the bounds.
    char small[8];
    (void)Util::get_cmdline_str(small, sizeof(small), "pax");
    debug_level = 0;
    cp_debug = 0;
    Log::check_debug_cp_opt();
    Log::check_debug_level();
    return 0;
}
