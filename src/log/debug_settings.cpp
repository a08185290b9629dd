// The debug level and the CP debug option, from properties and the kernel
// command line.
#include <fcntl.h>
#include <unistd.h>

#include <cstring>

#include "core/util.h"
#include "log/log.h"
#include "platform/properties.h"

namespace {

constexpr unsigned kCmdlineBuf = 4096;

// Debug level codes the bootloader passes in "ro.boot.debug_level".
constexpr int32_t kDebugLevelLow = 0x4F4C;   // "LO"
constexpr int32_t kDebugLevelMid = 0x4945;   // "IE"
constexpr int32_t kDebugLevelHigh = 0x4948;  // "IH"

// Character right after the key's '=' (the key itself ends with '=').
// The character code is taken as unsigned, as the phone's ABI does with a
// plain char, so a byte of 0x80 or more counts the same on every host.
unsigned char value_after_key(const char* token, const char* key) {
    return static_cast<unsigned char>(token[strlen(key)]);
}

// Looks a key up in a freshly zeroed buffer: the previous lookup split the
// text in place.
char* lookup(char* buf, const char* key) {
    memset(buf, 0, kCmdlineBuf);
    return Util::get_cmdline_str(buf, kCmdlineBuf, key);
}

// The level keys of the kernel command line only ever raise the level to 1.
bool level_from_cmdline(char* buf, const char* key) {
    char* token = lookup(buf, key);
    if (token == nullptr) {
        return false;
    }
    if (value_after_key(token, key) != '0') {
        debug_level = DBG_MID;
        LOGI_AS("check_debug_level", "%s, %d\n", token, debug_level);
    }
    return true;
}

}  // namespace

char* Util::get_cmdline_str(char* buf, unsigned int size, const char* key) {
    if (size < 2) {
        return nullptr;
    }
    int fd = open("/proc/cmdline", O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return nullptr;
    }
    ssize_t n = read(fd, buf, size - 1);
    close(fd);
    if (n < 1) {
        return nullptr;
    }
    if (buf[n - 1] == '\n') {
        buf[n - 1] = '\0';
    } else {
        buf[n] = '\0';
    }
    // Split on spaces only; a run of spaces is one separator.
    for (ssize_t i = 0; i < n; i++) {
        if (buf[i] == ' ') {
            buf[i] = '\0';
        }
    }
    size_t key_len = strlen(key);
    for (ssize_t i = 0; i < n;) {
        char* token = buf + i;
        size_t len = strlen(token);
        if (len > 0 && strncmp(token, key, key_len) == 0) {
            LOGI_AS("get_cmdline_str", "find str %s form %s\n", token, "/proc/cmdline");
            return token;
        }
        i += static_cast<ssize_t>(len) + 1;
    }
    return nullptr;
}

void Log::check_debug_cp_opt() {
    int32_t prop = property_get_int32("persist.vendor.rix.debug_cp_opt", -1);
    if (prop >= 0) {
        cp_debug = prop;
        LOGI("cp_debug=%d overwritten by prop\n", prop);
        return;
    }
    char buf[kCmdlineBuf];
    const char* key = "pax_debug.cp=";
    char* token = lookup(buf, key);
    if (token != nullptr) {
        // One decimal digit; any other character gives its code minus '0'.
        cp_debug = value_after_key(token, key) - '0';
        LOGI("%s, %d\n", token, cp_debug);
    }
}

void Log::check_debug_level() {
    int32_t prop = property_get_int32("ro.boot.debug_level", -1);
    bool decided = false;
    if (prop >= 0) {
        const char* name = "\"ro.boot.debug_level\"";
        LOGI("%s, 0x%X\n", name, prop);
        decided = true;
        if (prop == kDebugLevelLow) {
            debug_level = DBG_LOW;
        } else if (prop == kDebugLevelMid) {
            debug_level = DBG_MID;
        } else if (prop == kDebugLevelHigh) {
            debug_level = DBG_HIGH;
        } else {
            LOGI("%s, undefined value=0x%X\n", name, prop);
            decided = false;
        }
    }
    if (!decided) {
        char buf[kCmdlineBuf];
        // The enable key counts only when the level key is absent.
        if (!level_from_cmdline(buf, "pax_debug.level=")) {
            level_from_cmdline(buf, "pax_debug.enable=");
        }
    }
    int32_t force_upload = property_get_int32("ro.boot.force_upload", -1);
    if (force_upload >= 0 && debug_level == DBG_LOW) {
        LOGI("force_upload=%d\n", force_upload);
        if (force_upload == 5) {
            debug_level = DBG_MID;
            LOGI("force_upload on!\n");
        }
    }
    LOGI("debug_level=%d, cp_debug=%d\n", debug_level, cp_debug);
}
