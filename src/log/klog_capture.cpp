// Copies of the kernel ring buffer at the moments a modem post-mortem needs
// (CP reset, completed boot, before and after a crash dump). The status loop
// must not wait for them, so it starts each on a detached thread; the dump
// sequence runs them in its own thread.
#include <fcntl.h>
#include <pthread.h>
#include <sys/klog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>

#include "core/util.h"
#include "log/log.h"
#include "platform/properties.h"

namespace {

// The kernel's "read all, keep the buffer" log action.
constexpr int SYSLOG_ACTION_READ_ALL = 3;
// 512 KiB of ring text and room for the zero byte that ends it in the file.
constexpr int kRingMax = 512 * 1024;
constexpr size_t kCaptureBufSize = kRingMax + 1;

constexpr size_t kPathLen = 256;
constexpr size_t kStampLen = 20;

// Reads the ring buffer into buf and appends it, with one zero byte after
// it, to the file at path. Every failure ends the copy and keeps what was
// written so far.
void dmesg_to_file(const char* path, char* buf) {
    int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW, 0660);
    if (fd < 0) {
        LOGE("file open fail %s\n", path);
        return;
    }
    Util::switch_group_log(const_cast<char*>(path));

    if (lseek(fd, 0, SEEK_END) < 0) {
        LOGE("lseek fail %s\n", path);
        close(fd);
        return;
    }
    const int n = klogctl(SYSLOG_ACTION_READ_ALL, buf, kRingMax);
    if (n < 0) {
        LOGI("klogctl fail\n");
        close(fd);
        return;
    }
    // klogctl never returns more than it was asked for, so n + 1 fits.
    buf[n] = '\0';
    const char* p = buf;
    size_t pending = static_cast<size_t>(n) + 1;
    while (pending > 0) {
        const ssize_t w = write(fd, p, pending);
        if (w < 0) {
            if (errno == EINTR) {
                continue;
            }
            LOGE("write fail\n");
            close(fd);
            return;
        }
        p += w;
        pending -= static_cast<size_t>(w);
    }
    if (fsync(fd) != 0) {
        LOGE("ERR! fsync(fd) fail\n");
    }
    close(fd);
}

// Names the capture file after the request, with the local time to the
// second when asked. A name cut short by the buffer would be another file's
// name, so it is reported as not fitting.
bool format_path(char (&path)[kPathLen], const save_logs_args& args) {
    int n;
    if (args.flags & 1) {
        char stamp[kStampLen] = {};
        const time_t now = time(nullptr);
        struct tm local;
        if (localtime_r(&now, &local) != nullptr) {
            strftime(stamp, sizeof(stamp), kCaptureStampFormat, &local);
        }
        n = snprintf(path, sizeof(path), kCapturePathFormat, log_dir, args.name, stamp);
    } else {
        n = snprintf(path, sizeof(path), "%s/%s.log", log_dir, args.name);
    }
    return n >= 0 && static_cast<size_t>(n) < sizeof(path);
}

// Thread body of an asynchronous capture: the request was made for this
// thread alone and dies with it.
void* capture_thread(void* request) {
    Log::_save_logs(request);
    delete static_cast<save_logs_args*>(request);
    return nullptr;
}

// SoC models on which no capture thread may be started.
bool chip_excluded() {
    char chip[PROPERTY_VALUE_MAX] = {};
    property_get("ro.hardware.chipname", chip, "NONE");
    if (chip[0] == '\0') {
        return false;
    }
    return strncmp(chip, "tolvar410", 9) == 0 || strncmp(chip, "tolvar5120", 10) == 0;
}

}  // namespace

void* Log::_save_logs(void* request) {
    const auto* args = static_cast<const save_logs_args*>(request);
    // A nearly full data partition is kept for the dumps: no capture then.
    if (create_directory(kLogDir) != 0 || check_fs_log_directory() != 0) {
        return nullptr;
    }
    LOGI("save dmesg begin...\n");

    char path[kPathLen];
    const bool fits = format_path(path, *args);

    // On the heap: a capture thread's stack need not hold half a megabyte.
    std::unique_ptr<char[]> buf(new (std::nothrow) char[kCaptureBufSize]());
    if (fits && buf) {
        dmesg_to_file(path, buf.get());
    }
    LOGI("%s\n", path);
    return nullptr;
}

void Log::save_logs(int flags, char* name) {
    save_logs_args args = {};
    args.flags = flags;
    snprintf(args.name, sizeof(args.name), "%s", name);
    _save_logs(&args);
}

void Log::save_logs_thread(int flags, char* name) {
    if (debug_level == DBG_LOW || chip_excluded()) {
        return;
    }
    // cppcheck-suppress legacyUninitvar ; a nothrow new-expression, not a read of args
    auto* args = new (std::nothrow) save_logs_args{};
    if (args == nullptr) {
        return;
    }
    args->flags = flags;
    snprintf(args->name, sizeof(args->name), "%s", name);

    pthread_t tid;
    if (pthread_create(&tid, nullptr, capture_thread, args) != 0) {
        LOGI("pthread_create fail\n");
        delete args;
        return;
    }
    pthread_detach(tid);
}
