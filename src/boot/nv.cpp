// The NV data file: opening it for the NV stage, creating an erased one when
// it is missing, and checking its contents; also two small text helpers.
#include "boot/nv.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/util.h"
#include "log/log.h"
#include "platform/android_log.h"

namespace {

// Writes a file of `size` bytes of 0xFF, which the CP takes as an erased NV
// and fills in itself. The size comes from the TOC: it is written from one
// buffer of this size, never from one allocation of the whole size.
constexpr size_t kNvFillChunk = 1 << 20;

// Writes `size` bytes from the erased buffer, `chunk` at a time. Returns the
// bytes written, or -1 when the first write fails.
ssize_t fill_erased(int fd, const void* buf, size_t chunk, size_t size) {
    size_t done = 0;
    while (done < size) {
        ssize_t n = write(fd, buf, std::min(chunk, size - done));
        if (n < 0) {
            return done == 0 ? -1 : static_cast<ssize_t>(done);
        }
        if (n == 0) {
            break;
        }
        done += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(done);
}

bool create_empty_nv(const char* path, int size) {
    LOGI("try to create NV(%s) with size(%ld)\n", path, static_cast<long>(size));
    int fd = open(path, O_RDWR | O_CREAT | O_SYNC, 0660);
    if (fd < 0) {
        LOGE("ERR! NV(%s) open fail\n", path);
        return false;
    }
    bool ok = false;
    void* buf = nullptr;
    // The size comes from the partition's TOC: the erased file is written
    // from one buffer of at most kNvFillChunk bytes, never held whole.
    const size_t chunk = size > 0 ? std::min(static_cast<size_t>(size), kNvFillChunk) : 0;
    if (size <= 0) {
        LOGI("ERR! wrong size(%ld)\n", static_cast<long>(size));
    } else if ((buf = malloc(chunk)) == nullptr) {
        LOGI("ERR! malloc(%ld) fail\n", static_cast<long>(size));
    } else {
        memset(buf, 0xFF, chunk);
        ssize_t written = fill_erased(fd, buf, chunk, static_cast<size_t>(size));
        if (written < 0) {
            LOGE("ERR! NV(%s) write fail\n", path);
        } else if (written != size) {
            LOGI("ERR! NV(%s) partial saved(%d) but size(%ld)\n", path, static_cast<int>(written),
                 static_cast<long>(size));
        } else {
            // The file is complete even when fsync fails: O_SYNC already
            // pushed every byte out.
            if (fsync(fd) != 0) {
                LOGE("ERR! fsync(nv_fd) fail\n");
            } else {
                LOGI("NV(%s) saved %d bytes\n", path, static_cast<int>(written));
            }
            ok = true;
        }
    }
    free(buf);
    close(fd);
    return ok;
}

enum class NvHeader { Default, Bad, Sized };

// Decides what the header and the length n of the NV image allow: the file
// is erased, unusable, or holds TotalSize data bytes followed by a check
// value that lies inside the n bytes. `head` holds the header when n is at
// least a header long.
NvHeader check_nv_header(const uint8_t* head, uint64_t n, uint32_t* total) {
    if (n < sizeof(NV_header)) {
        LOGI_AS("CsumCheckForData", "Invalid NV data");
        return NvHeader::Bad;
    }
    NV_header h;
    memcpy(&h, head, sizeof(h));
    if (h.TotalSize == kNvDefaultTotalSize) {
        __android_log_print(ANDROID_LOG_INFO, nullptr, "NV File is default.\n");
        return NvHeader::Default;
    }
    const uint64_t t = h.TotalSize;
    const uint64_t check_end = sizeof(NV_header) + t + (t & 1) + sizeof(uint16_t);
    if (n > kNvMaxFileSize || t > n || check_end > n) {
        LOGI_AS("CsumCheckForData", "NV Size Error! NV_header->TotalSize:%u, nvSize:%u\n",
                h.TotalSize, static_cast<unsigned>(n));
        return NvHeader::Bad;
    }
    *total = h.TotalSize;
    return NvHeader::Sized;
}

// 16-bit wrap-around sum of the data's little-endian words; an odd last
// byte counts as the low byte of a word whose high byte is 0xFF.
uint16_t nv_sum(const uint8_t* data, uint32_t total) {
    uint32_t sum = 0;
    uint32_t k = 0;
    for (; k + 1 < total; k += 2) {
        sum += data[k] | (data[k + 1] << 8);
    }
    if (k < total) {
        sum += 0xFF00u | data[k];
    }
    return static_cast<uint16_t>(sum);
}

// Reads the open NV file of length len and checks it. A file too long to be
// checked is judged by its header alone, so its length never becomes the
// size of an allocation.
bool check_open_nv_file(int fd, const char* path, uint64_t len) {
    const size_t want = len > kNvMaxFileSize ? sizeof(NV_header) : static_cast<size_t>(len);
    uint8_t* buf = static_cast<uint8_t*>(calloc(want, 1));
    ssize_t got = -1;
    if (buf != nullptr && lseek(fd, 0, SEEK_SET) == 0) {
        got = read(fd, buf, want);
    }
    bool verified = false;
    if (got < 1 || static_cast<size_t>(got) != want) {
        LOGI_AS("CsumCheckForFile", "Failed to read data");
    } else {
        if (len > kNvMaxFileSize) {
            uint32_t total = 0;
            verified = check_nv_header(buf, len, &total) == NvHeader::Default;
        } else {
            verified = CsumCheckForData(buf, want);
        }
        LOGI_AS("CsumCheckForFile", "%s checksum : %s", path, verified ? "verified" : "corrupted");
    }
    free(buf);
    return verified;
}

}  // namespace

bool CsumCheckForData(const uint8_t* data, size_t n) {
    uint32_t total = 0;
    switch (check_nv_header(data, data != nullptr ? n : 0, &total)) {
        case NvHeader::Default:
            return true;
        case NvHeader::Bad:
            return false;
        case NvHeader::Sized:
            break;
    }
    const uint8_t* body = data + sizeof(NV_header);
    const size_t at = total + (total & 1);
    const uint16_t stored = static_cast<uint16_t>(body[at] | (body[at + 1] << 8));
    if (nv_sum(body, total) != stored) {
        LOGI("Check sum Error\n");
        return false;
    }
    return true;
}

bool CsumCheckForFile(const char* path) {
    if (path == nullptr) {
        LOGI("Invalid file path");
        return false;
    }
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        LOGI("Failed to open file");
        return false;
    }
    bool verified = false;
    off_t len = lseek(fd, 0, SEEK_END);
    if (len >= 1) {
        verified = check_open_nv_file(fd, path, static_cast<uint64_t>(len));
    }
    close(fd);
    return verified;
}

bool Util::getNvFd(cp_boot_mode mode, char* path, int size, int* fd) {
    // The dump-mode boot loader never reads NV.
    if (mode != CP_BOOT_MODE_NORMAL || path == nullptr || path[0] == '\0') {
        *fd = -1;
        return true;
    }
    int nv = open(path, O_RDONLY);
    if (nv < 0 && errno != ENOENT) {
        LOGE("ERR! NV(%s) open fail\n", path);
        return false;
    }
    if (nv < 0) {
        LOGI("No NV(%s) file\n", path);
        if (!create_empty_nv(path, size)) {
            LOGI("ERR! create_empty_nv(%s, %d) fail\n", path, size);
            // A half-made file would pass for a real NV at the next boot.
            if (remove(path) != 0) {
                LOGE("ERR! NV(%s) remove fail\n", path);
            }
            return false;
        }
        nv = open(path, O_RDONLY);
        if (nv < 0) {
            LOGE("ERR! NV(%s) open fail\n", path);
            return false;
        }
    }
    LOGI("NV(%s) opened (fd %d)\n", path, nv);
    *fd = nv;
    return true;
}

void Util::byteToHex(char* dst, unsigned long dst_size, char* src, unsigned long src_len) {
    const unsigned long n = dst_size / 3 < src_len ? dst_size / 3 : src_len;
    if (dst == nullptr || src == nullptr || n == 0) {
        return;
    }
    for (unsigned long k = 0; k < n; k++) {
        snprintf(dst + 3 * k, dst_size - 3 * k, "%02X ", static_cast<unsigned char>(src[k]));
    }
    // No trailing blank.
    dst[3 * n - 1] = '\0';
}

void Util::toUpperCase(char* src, char* dst) {
    if (src == nullptr || dst == nullptr) {
        return;
    }
    for (; *src != '\0'; src++, dst++) {
        *dst = (*src >= 'a' && *src <= 'z') ? static_cast<char>(*src - 'a' + 'A') : *src;
    }
}
