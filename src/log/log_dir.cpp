// The log directory: made on demand with its label and group, and guarded
// against filling a nearly full data partition.
#include <grp.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <vector>

#include "core/util.h"
#include "log/log.h"
#include "platform/selinux.h"

namespace {

// Below this much free space on the log partition no log file is written.
constexpr unsigned LOG_MIN_FREE_MB = 500;

}  // namespace

int Log::create_directory(const char* path) {
    struct stat st;
    if (stat(path, &st) == 0) {
        if (!S_ISDIR(st.st_mode)) {
            LOGI("(%s) is not a directory\n", path);
            return -14;
        }
    } else {
        // Another thread (a kernel-log capture) may have made it in between:
        // EEXIST means the directory is there, which is all that is wanted.
        int ret = mkdir(path, 0775);
        if (ret != 0 && errno != EEXIST) {
            LOGE("log path create fail err=%d\n", ret);
            return ret;
        }
        LOGI("log path (%s) created\n", path);
        ret = selinux_android_restorecon(path, SELINUX_ANDROID_RESTORECON_RECURSE);
        if (ret != 0) {
            LOGE("selinux restorecon failed path(%s) err(%d)\n", path, ret);
        }
    }
    Util::switch_group_log(const_cast<char*>(path));
    return 0;
}

int Log::check_fs_log_directory() {
    struct statfs fs;
    int ret = statfs(log_dir, &fs);
    if (ret != 0) {
        LOGE("statfs failed\n");
        return ret;
    }
    // Blocks reserved for the superuser count as free: the daemon's files
    // are what that reserve is kept for.
    const uint64_t bsize_kb = static_cast<uint64_t>(fs.f_bsize) / 1024;
    const uint64_t bfree_k = static_cast<uint64_t>(fs.f_bfree) / 1024;
    const uint64_t free_mb = bsize_kb * bfree_k;
    if (free_mb >= LOG_MIN_FREE_MB) {
        return 0;
    }
    LOGI("Block size: %lu, Free Block: %lu, Free Size: %ld MB\n",
         static_cast<unsigned long>(fs.f_bsize), static_cast<unsigned long>(fs.f_bfree),
         static_cast<long>(free_mb));
    LOGI("%s: freespace is under %u MB\n", log_dir, LOG_MIN_FREE_MB);
    return -28;
}

int Log::create_log_directory() {
    // Always the fixed directory, whatever log_dir names.
    int ret = create_directory(kLogDir);
    if (ret != 0) {
        return ret;
    }
    return check_fs_log_directory();
}

namespace {

constexpr size_t kGroupBufMax = size_t{64} * 1024;

// The group "log", looked up into storage of the caller's own: the capture
// threads and the main thread look it up at the same time.
bool log_group(gid_t* gid) {
    std::vector<char> buf(1024);
    for (;;) {
        struct group gr;
        struct group* found = nullptr;
        const int ret = getgrnam_r("log", &gr, buf.data(), buf.size(), &found);
        if (ret == ERANGE && buf.size() < kGroupBufMax) {
            buf.resize(buf.size() * 2);
            continue;
        }
        if (ret != 0 || found == nullptr) {
            return false;
        }
        *gid = gr.gr_gid;
        return true;
    }
}

}  // namespace

void Util::switch_group_log(char* path) {
    gid_t gid;
    if (!log_group(&gid)) {
        return;
    }
    int ret = chown(path, static_cast<uid_t>(-1), gid);
    if (ret != 0) {
        LOGI("log path(%s) gid(%d) set err(%d)\n", path, static_cast<int>(gid), ret);
    }
}
