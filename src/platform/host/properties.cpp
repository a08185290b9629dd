// Host stand-in for Android system properties: one file per property in
// $RIX_PROPERTY_DIR (default /dev/__properties__) holding exactly the value.
// Writes go through a temporary file and a rename, so another process may
// read or set any property at any moment.
#include "platform/properties.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

const char* property_dir() {
    const char* dir = getenv("RIX_PROPERTY_DIR");
    return (dir != nullptr && dir[0] != '\0') ? dir : "/dev/__properties__";
}

// A key names one file in the directory: no separators, no dot files.
bool valid_key(const char* key) {
    if (key == nullptr || key[0] == '\0' || key[0] == '.') {
        return false;
    }
    return strchr(key, '/') == nullptr;
}

bool property_path(const char* key, char* path, size_t size) {
    if (!valid_key(key)) {
        return false;
    }
    int n = snprintf(path, size, "%s/%s", property_dir(), key);
    return n > 0 && static_cast<size_t>(n) < size;
}

int read_value(const char* key, char* value) {
    char path[512];
    if (!property_path(key, path, sizeof(path))) {
        return 0;
    }
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return 0;
    }
    ssize_t n = read(fd, value, PROPERTY_VALUE_MAX - 1);
    close(fd);
    value[n > 0 ? n : 0] = '\0';
    return static_cast<int>(strlen(value));
}

}  // namespace

int property_get(const char* key, char* value, const char* default_value) {
    value[0] = '\0';
    int len = read_value(key, value);
    if (len == 0 && default_value != nullptr) {
        len = static_cast<int>(strnlen(default_value, PROPERTY_VALUE_MAX - 1));
        memcpy(value, default_value, len);
        value[len] = '\0';
    }
    return len;
}

int32_t property_get_int32(const char* key, int32_t default_value) {
    char buf[PROPERTY_VALUE_MAX];
    if (property_get(key, buf, "") <= 0) {
        return default_value;
    }
    char* end = nullptr;
    errno = 0;
    intmax_t v = strtoimax(buf, &end, 0);
    if (end == buf || errno == ERANGE || v < INT32_MIN || v > INT32_MAX) {
        return default_value;
    }
    return static_cast<int32_t>(v);
}

int property_set(const char* key, const char* value) {
    char path[512];
    char tmp[512];
    if (value == nullptr || strlen(value) >= PROPERTY_VALUE_MAX ||
        !property_path(key, path, sizeof(path))) {
        return -1;
    }
    int n = snprintf(tmp, sizeof(tmp), "%s/.%s.XXXXXX", property_dir(), key);
    if (n <= 0 || static_cast<size_t>(n) >= sizeof(tmp)) {
        return -1;
    }
    int fd = mkostemp(tmp, O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    size_t len = strlen(value);
    bool ok = fchmod(fd, 0666) == 0 && write(fd, value, len) == static_cast<ssize_t>(len);
    ok = (close(fd) == 0) && ok;
    if (!ok || rename(tmp, path) != 0) {
        unlink(tmp);
        return -1;
    }
    return 0;
}
