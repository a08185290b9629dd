// The silent-reset record: fetched from the driver before a boot or a dump,
// kept as text in the one-slot last file and as a hex listing in a rotating
// log, and handed back to the driver after the next successful boot.
#include "srinfo/srinfo.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "core/rix.h"
#include "core/util.h"
#include "log/log.h"

namespace {

// Writes all of buf; the last write's result, or len.
ssize_t write_all(int fd, const char* buf, size_t len) {
    size_t done = 0;
    while (done < len) {
        ssize_t n = write(fd, buf + done, len - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return n;
        }
        done += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(len);
}

uint32_t le32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
           static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

srinfo_block* new_block() {
    return static_cast<srinfo_block*>(calloc(1, sizeof(srinfo_block)));
}

// Writes the low `digits` hex digits of v, lower case; returns the end.
char* put_hex(char* out, uint32_t v, int digits) {
    static const char kDigits[] = "0123456789abcdef";
    for (int i = digits - 1; i >= 0; i--) {
        out[i] = kDigits[v & 0xF];
        v >>= 4;
    }
    return out + digits;
}

// The last file's path, built afresh by each step that uses it.
void last_file_path(char* path) {
    snprintf(path, kSrinfoPathLen, kSrinfoPathFormat, kSrinfoErrDir, kSrinfoLastName,
             rix_args.dev_prefix);
}

}  // namespace

bool srinfo_check_block(srinfo_block* block, unsigned int* len) {
    // The driver's count is trusted no further than the room it was given:
    // every later copy, row and scan of the block is bounded by it.
    if (block->len > kSrinfoDataLen) {
        block->len = kSrinfoDataLen;
    }
    *len = block->len;
    // Only the marker decides: it lies inside the block whatever `len` says.
    const uint32_t marker = le32(block->data + kSrinfoMarkerOffset);
    if (marker != kSrinfoMarker) {
        LOGI_AS("alloc_srinfo", "Crash info string was invalid(%x/%x)\n", marker, kSrinfoMarker);
        return false;
    }
    return true;
}

size_t srinfo_text_len(const srinfo_block* block) {
    const size_t end = block->len < kSrinfoDataLen ? block->len : kSrinfoDataLen;
    if (end <= kSrinfoTextOffset) {
        return 0;
    }
    const void* close = memchr(block->data + kSrinfoTextOffset, '}', end - kSrinfoTextOffset);
    if (close == nullptr) {
        return end - kSrinfoTextOffset;
    }
    return static_cast<const uint8_t*>(close) - (block->data + kSrinfoTextOffset) + 1;
}

size_t srinfo_hex_row(char* out, const uint8_t* data, size_t len, size_t off) {
    uint8_t row[16] = {};
    if (off < len) {
        memcpy(row, data + off, len - off < sizeof(row) ? len - off : sizeof(row));
    }
    // "%04x:%08x %08x %08x %08x %s\n" with the words little-endian and the
    // printable bytes, formatted by hand: a hex log entry is hundreds of rows.
    // The offset stays below 0x10000, so the row is always kSrinfoRowLen long.
    char* p = put_hex(out, static_cast<uint32_t>(off), 4);
    *p++ = ':';
    for (size_t w = 0; w < 4; w++) {
        p = put_hex(p, le32(row + 4 * w), 8);
        *p++ = ' ';
    }
    for (uint8_t b : row) {
        *p++ = b >= 0x22 && b <= 0x7D ? static_cast<char>(b) : '.';
    }
    *p = '\n';
    return kSrinfoRowLen;
}

bool check_srinfo_last(char* path) {
    last_file_path(path);
    LOGI_AS("check_srinfo_last", "%s: full_path: %s\n", "check_srinfo_last", path);
    struct stat st;
    return stat(path, &st) == 0;
}

int create_srinfo_last(char* path) {
    last_file_path(path);
    LOGI_AS("create_srinfo_last", "create last_sr_info file - %s\n", path);
    int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0) {
        LOGE_AS("create_srinfo_last", "last_sr_info create fail\n");
        return fd;
    }
    off_t pos = lseek(fd, 0, SEEK_SET);
    if (pos < 0) {
        LOGE_AS("create_srinfo_last", "fd_last lseek fail\n");
        close(fd);
        return static_cast<int>(pos);
    }
    return fd;
}

ssize_t write_srinfo_last(int fd, const srinfo_block* block) {
    const size_t count = srinfo_text_len(block);
    LOGI_AS("write_srinfo_last", "store to ascii text (%d bytes)\n", static_cast<int>(count) - 1);
    ssize_t ret =
        write_all(fd, reinterpret_cast<const char*>(block->data + kSrinfoTextOffset), count);
    if (fsync(fd) != 0) {
        LOGE_AS("write_srinfo_last", "ERR! fsync(srinfo) fail\n");
    }
    return ret;
}

int open_srinfo_last(char* path) {
    last_file_path(path);
    LOGI_AS("open_srinfo_last", "open last_sr_info file - %s\n", path);
    int fd = open(path, O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        LOGE_AS("open_srinfo_last", "last_sr_info open fail\n");
        return fd;
    }
    off_t pos = lseek(fd, 0, SEEK_SET);
    if (pos < 0) {
        LOGE_AS("open_srinfo_last", "fd_last lseek fail\n");
        close(fd);
        return static_cast<int>(pos);
    }
    return fd;
}

srinfo_block* read_srinfo_last(int fd) {
    srinfo_block* block = new_block();
    if (block == nullptr) {
        LOGI_AS("restore_srinfo", "read buf alloc(%d) fail\n", static_cast<int>(sizeof(*block)));
        return nullptr;
    }
    // The text goes back at data offset 0: the driver gets only what the
    // last file holds, not the header it sent.
    ssize_t n = read(fd, block->data, kSrinfoDataLen);
    if (n <= 0) {
        LOGE_AS("restore_srinfo", "last_sr_info file read fail\n");
        free(block);
        return nullptr;
    }
    block->len = static_cast<uint32_t>(n);
    return block;
}

int Srinfo::open_srinfo_file(const char* name) {
    char path[kSrinfoPathLen];
    char bak[kSrinfoPathLen];
    int n = snprintf(path, sizeof(path), kSrinfoPathFormat, kLogDir, kSrinfoLogName, name);
    int m = snprintf(bak, sizeof(bak), kSrinfoBackupPathFormat, kLogDir, kSrinfoLogName, name);
    LOGI("open file - %s(%s)\n", path, bak);
    // A cut-short name could rotate or delete some other file.
    if (n < 0 || m < 0 || static_cast<size_t>(n) >= sizeof(path) ||
        static_cast<size_t>(m) >= sizeof(bak)) {
        errno = ENAMETOOLONG;
        LOGE("open fail - %s\n", path);
        return -1;
    }
    int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0660);
    if (fd < 0) {
        LOGE("open fail - %s\n", path);
        return fd;
    }
    Util::switch_group_log(path);
    struct stat st;
    int ret = fstat(fd, &st);
    if (ret != 0) {
        LOGE("stat fail - srinfo log\n");
        close(fd);
        return ret;
    }
    const unsigned long size = static_cast<unsigned long>(st.st_size);
    LOGI("srinfo log size : %lu(0x%lx/0x%x)\n", size, size, static_cast<unsigned>(kSrinfoLogLimit));
    if (st.st_size <= kSrinfoLogLimit) {
        return fd;
    }
    // Only one older generation is kept.
    close(fd);
    unlink(bak);
    ret = rename(path, bak);
    if (ret != 0) {
        LOGE("rename (%s -> %s) file fail\n", path, bak);
        return ret;
    }
    fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    if (fd < 0) {
        LOGE("srinfo open fail\n");
        return fd;
    }
    // The new log belongs to the group "log" like the one it replaces.
    Util::switch_group_log(path);
    return fd;
}

void SrinfoTarn::store_srinfo(int fd) {
    char path[kSrinfoPathLen];
    if (check_srinfo_last(path)) {
        // An earlier block still waits to be handed back: keep it.
        LOGI("srinfo_last file exist, skip!\n");
        return;
    }
    unsigned int len = 0;
    srinfo_block* block = alloc_srinfo(&len, fd);
    if (block == nullptr) {
        LOGI("alloc srinfo fail\n");
        return;
    }
    if (Log::create_directory(kLogDir) != 0 || Log::create_directory(kSrinfoErrDir) != 0) {
        free(block);
        return;
    }
    int last = create_srinfo_last(path);
    if (last < 0) {
        LOGI("sr_info_last open fail(%d)\n", last);
        free(block);
        return;
    }
    const ssize_t written = write_srinfo_last(last, block);
    close(last);
    if (written < 0 || static_cast<size_t>(written) != srinfo_text_len(block)) {
        // A partial text must never reach the driver, and a last file left
        // behind would make every later store skip.
        unlink(path);
        LOGI("srinfo_last write fail(%d)\n", static_cast<int>(written));
        free(block);
        return;
    }
    if (written == 0) {
        // No text to hand back: an empty last file would only block the
        // stores to come, as its read-back always fails.
        unlink(path);
    }
    int log = open_srinfo_file(rix_args.dev_prefix);
    if (log < 0) {
        LOGI("sr_info_last create fail(%d)\n", log);
        free(block);
        return;
    }
    int ret = write_srinfo_file(log, reinterpret_cast<char*>(block->data), len);
    if (ret < 0) {
        LOGI("srinfo write fail(%d)\n", ret);
    }
    close(log);
    free(block);
}

srinfo_block* SrinfoTarn::alloc_srinfo(unsigned int* len, int fd) {
    *len = 0;
    srinfo_block* block = new_block();
    if (block == nullptr) {
        LOGI("read buf alloc(%d) fail\n", static_cast<int>(sizeof(*block)));
        return nullptr;
    }
    block->len = kSrinfoDataLen;
    int ret = ioctl(fd, IOCTL_GET_SRINFO, block);
    if (ret < 0) {
        LOGE("ioctl fail - Get srinfo(%d)\n", ret);
        free(block);
        return nullptr;
    }
    if (!srinfo_check_block(block, len)) {
        free(block);
        return nullptr;
    }
    return block;
}

size_t srinfo_hex_entry(char* out, const struct tm& tm, const uint8_t* data, size_t len) {
    // The time line is as long as the year needs, never more than its room.
    size_t used = strftime(out, kSrinfoStampMax, kSrinfoTimeLine, &tm);
    for (size_t off = 0; off < len; off += 16) {
        used += srinfo_hex_row(out + used, data, len, off);
    }
    out[used++] = '\n';
    return used;
}

int SrinfoTarn::write_srinfo_file(int fd, char* data, unsigned int len) {
    // data is a block's data: nothing past its room is ever read.
    const size_t valid = len < kSrinfoDataLen ? len : kSrinfoDataLen;
    time_t now = time(nullptr);
    struct tm tm;
    localtime_r(&now, &tm);
    LOGI("store to hex ascii text size=(0x%x)\n", len);
    char entry[kSrinfoEntryMax];
    const size_t used = srinfo_hex_entry(entry, tm, reinterpret_cast<const uint8_t*>(data), valid);
    // One write for the whole entry keeps it together in the log.
    write_all(fd, entry, used);
    if (fsync(fd) != 0) {
        LOGE("ERR! fsync(srinfo_hex) fail\n");
        return -1;
    }
    LOGI("store done\n");
    return 0;
}

void SrinfoTarn::restore_srinfo(int fd) {
    char path[kSrinfoPathLen];
    int last = open_srinfo_last(path);
    if (last < 0) {
        LOGI("sr_info_last open fail(%d)\n", last);
        return;
    }
    srinfo_block* block = read_srinfo_last(last);
    if (block == nullptr) {
        // The last file stays, so the next successful boot tries again.
        close(last);
        return;
    }
    int ret = ioctl(fd, IOCTL_SET_SRINFO, block);
    if (ret < 0) {
        LOGE("ioctl fail - Set srinfo(%d)\n", ret);
    } else {
        unlink(path);
        LOGI("done = %s\n", path);
    }
    free(block);
    close(last);
}
