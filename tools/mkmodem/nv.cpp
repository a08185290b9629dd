#include "nv.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "payload.h"

namespace mkmodem {

void NvChecksum::add(const uint8_t* data, size_t len) {
    for (size_t i = 0; i < len; ++i) {
        if (have_low_) {
            sum_ = static_cast<uint16_t>(sum_ + (low_ | (data[i] << 8)));
            have_low_ = false;
        } else {
            low_ = data[i];
            have_low_ = true;
        }
    }
}

uint16_t NvChecksum::value() const {
    return have_low_ ? static_cast<uint16_t>(sum_ + (0xFF00 | low_)) : sum_;
}

namespace {

bool put(int fd, const void* data, size_t len, uint64_t off) {
    return pwrite(fd, data, len, static_cast<off_t>(off)) == static_cast<ssize_t>(len);
}

std::string write_erased(int fd, uint32_t size) {
    std::vector<uint8_t> buf(std::min<size_t>(size, 1 << 20), 0xFF);
    for (uint64_t done = 0; done < size;) {
        size_t n = static_cast<size_t>(std::min<uint64_t>(buf.size(), size - done));
        if (!put(fd, buf.data(), n, done)) {
            return strerror(errno);
        }
        done += n;
    }
    return "";
}

std::string write_valid(int fd, const NvLayout& req) {
    uint8_t header[kNvHeaderSize] = {'V', 'M', 'N', 'V', 1, 0, 0, 0};
    std::memcpy(header + kNvTotalSizeOffset, &req.total_size, 4);
    if (!put(fd, header, sizeof(header), 0)) {
        return strerror(errno);
    }
    const uint64_t seed = payload::stream_seed(0, req.seed_name);
    std::vector<uint8_t> buf(1 << 16);
    NvChecksum sum;
    for (uint64_t done = 0; done < req.total_size;) {
        size_t n = static_cast<size_t>(std::min<uint64_t>(buf.size(), req.total_size - done));
        payload::fill(seed, done, buf.data(), n);
        sum.add(buf.data(), n);
        if (!put(fd, buf.data(), n, kNvHeaderSize + done)) {
            return strerror(errno);
        }
        done += n;
    }
    uint8_t pad = 0xFF;
    if ((req.total_size & 1) && !put(fd, &pad, 1, kNvHeaderSize + uint64_t{req.total_size})) {
        return strerror(errno);
    }
    uint16_t check = static_cast<uint16_t>(sum.value() + (req.corrupt ? 1 : 0));
    if (!put(fd, &check, 2, nv_checksum_offset(req.total_size))) {
        return strerror(errno);
    }
    return "";
}

}  // namespace

std::string write_nv(const NvLayout& req, const std::string& path) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return path + ": " + strerror(errno);
    }
    std::string err = req.erased ? write_erased(fd, req.erased_size) : write_valid(fd, req);
    if (err.empty() && req.file_size && ftruncate(fd, static_cast<off_t>(*req.file_size)) != 0) {
        err = strerror(errno);
    }
    close(fd);
    return err;
}

}  // namespace mkmodem
