// CP log regions: memory areas of the crashed CP that the driver hands over
// on the dump node, one region per request, as plain chunks. Each region goes
// into a file of its own, streamed through one chunk buffer.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <ctime>

#include "boot/boot_dump.h"
#include "core/rix.h"
#include "core/util.h"
#include "dump/log_dump.h"
#include "dump/protocol.h"
#include "dump/udl.h"
#include "log/log.h"

namespace {

// The region's messages carry the name of the region request.
constexpr char kFn[] = "get_log_dump";

// Streams `size` bytes of the requested region into fd. Returns the length of
// the last chunk written (0 when there was none) or a negative result; the
// count received so far is in `received` either way.
int receive_region(int fd, uint32_t size, uint64_t& received) {
    char chunk[udl::kLogChunkSize] = {};
    int ret = 0;
    received = 0;
    while (received < size) {
        int got = Container::protocol->std_ul_rx_frame(chunk, sizeof(chunk));
        // A node that reports data but delivers none would never finish the
        // region: an empty read ends it as a failure.
        if (got <= 0) {
            LOGI_DUMP_AS(kFn, "ERR! log_dump std_ul_rx_frame fail (ret %d)\n", got);
            return got < 0 ? got : -14;
        }
        ssize_t n = write(fd, chunk, static_cast<size_t>(got));
        if (n < 0) {
            LOGE_DUMP_AS(kFn, "ERR! log_dump write fail\n");
            return static_cast<int>(n);
        }
        received += static_cast<uint64_t>(got);
        ret = got;
    }
    return ret;
}

}  // namespace

void dump_time_stamp(char* buf, size_t size) {
    const time_t now = time(nullptr);
    struct tm tm = {};
    localtime_r(&now, &tm);
    if (strftime(buf, size, kDumpStampFormat, &tm) == 0) {
        buf[0] = '\0';
    }
}

int save_log_region(const char* name, uint32_t size) {
    char ts[64];
    dump_time_stamp(ts, sizeof(ts));
    char path[kPathLen];
    const int len =
        snprintf(path, sizeof(path), kRegionPathFormat, log_dir, name, rix_args.dev_prefix, ts);
    // A cut path would name another file: it counts as a failed open.
    int fd = -1;
    if (len < 0 || static_cast<size_t>(len) >= sizeof(path)) {
        errno = ENAMETOOLONG;
    } else {
        fd = open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0660);
    }
    if (fd < 0) {
        LOGE_DUMP_AS(kFn, "ERR! %s open fail\n", path);
        return -22;
    }
    Util::switch_group_log(path);
    LOGI_DUMP_AS(kFn, "%s opened (fd %d)\n", path, fd);

    uint64_t received = 0;
    const int ret = receive_region(fd, size, received);
    if (ret >= 0) {
        LOGI_DUMP_AS(kFn, "%s Complete! (%lu bytes)\n", path, static_cast<unsigned long>(received));
    }
    close(fd);
    return ret;
}

int BootDump::get_log_dump(const char* name, cp_log_dump_index idx) {
    const std_dump* d = getStdDump();
    cp_log_dump_info info = {};
    snprintf(info.name, sizeof(info.name), "%s", name);
    info.idx = idx;
    LOGI("name:%s idx:%u\n", info.name, info.idx);

    if (ioctl(d->fd, IOCTL_GET_LOG_DUMP, &info) < 0) {
        LOGE_DUMP("ERR! ioctl fail\n");
        return -22;
    }
    LOGI_DUMP("size:%u\n", info.size);
    return save_log_region(name, info.size);
}

int BootDump::get_num_log_dump(cp_log_dump_index idx, unsigned* count) {
    const std_dump* d = getStdDump();
    cp_log_dump_num num = {};
    num.idx = idx;
    LOGI("idx:%u\n", num.idx);
    // A count the driver cannot give still lets the caller read the first
    // region of the kind.
    if (ioctl(d->fd, IOCTL_GET_NUM_LOG_DUMP, &num) < 0) {
        LOGI_DUMP("ioctl fail\n");
        *count = 1;
    } else {
        *count = num.num_dump;
    }
    LOGI_DUMP("num_dump:%u\n", *count);
    return 0;
}
