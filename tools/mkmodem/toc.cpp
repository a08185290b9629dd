#include "toc.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "payload.h"

namespace mkmodem {
namespace {

constexpr size_t kBufSize = 1 << 20;

bool parse_u32(const std::string& text, uint32_t& out) {
    if (text.empty()) {
        return false;
    }
    errno = 0;
    char* end = nullptr;
    unsigned long long v = std::strtoull(text.c_str(), &end, 0);
    if (errno != 0 || *end != '\0' || v > UINT32_MAX || text[0] == '-') {
        return false;
    }
    out = static_cast<uint32_t>(v);
    return true;
}

uint64_t align_up(uint64_t v, uint32_t a) {
    return a == 0 ? v : (v + a - 1) / a * a;
}

// Streams one part's bytes (file, zero-padded, or the pattern) to fd at
// b_off; returns the crc32 of what was written, or sets err.
uint32_t stream_part(int fd, const PartLayout& p, const toc_entry& e, std::string& err) {
    std::vector<uint8_t> buf(kBufSize);
    int src = -1;
    if (!p.file.empty() && (src = open(p.file.c_str(), O_RDONLY | O_CLOEXEC)) < 0) {
        err = p.file + ": " + strerror(errno);
        return 0;
    }
    const uint64_t seed = payload::stream_seed(0, p.name);
    uLong crc = crc32(0, nullptr, 0);
    uint64_t done = 0;
    while (done < e.size) {
        size_t n = static_cast<size_t>(std::min<uint64_t>(kBufSize, e.size - done));
        if (src >= 0) {
            ssize_t got = read(src, buf.data(), n);
            if (got < 0) {
                err = p.file + ": " + strerror(errno);
                break;
            }
            std::memset(buf.data() + got, 0, n - static_cast<size_t>(got));
        } else {
            payload::fill(seed, done, buf.data(), n);
        }
        crc = crc32(crc, buf.data(), static_cast<uInt>(n));
        if (fd >= 0 && pwrite(fd, buf.data(), n, static_cast<off_t>(e.b_off + done)) !=
                           static_cast<ssize_t>(n)) {
            err = std::string("write: ") + strerror(errno);
            break;
        }
        done += n;
    }
    if (src >= 0) {
        close(src);
    }
    return static_cast<uint32_t>(crc);
}

}  // namespace

bool outside_partition(const std::string& name) {
    return name == "NV" || name == "TOC";
}

std::string parse_part(const std::string& text, PartLayout& out) {
    out = PartLayout{};
    size_t colon = text.find(':');
    out.name = text.substr(0, colon);
    if (out.name.empty() || out.name.size() > kNameSize) {
        return "part name must have 1 to 12 characters: " + out.name;
    }
    std::string rest = colon == std::string::npos ? "" : text.substr(colon + 1);
    size_t pos = 0;
    while (pos < rest.size()) {
        size_t comma = rest.find(',', pos);
        std::string kv =
            rest.substr(pos, comma == std::string::npos ? std::string::npos : comma - pos);
        pos = comma == std::string::npos ? rest.size() : comma + 1;
        size_t eq = kv.find('=');
        if (eq == std::string::npos) {
            return "expected key=value: " + kv;
        }
        std::string key = kv.substr(0, eq), value = kv.substr(eq + 1);
        if (key == "file") {
            out.file = value;
            continue;
        }
        uint32_t v = 0;
        if (!parse_u32(value, v)) {
            return "not a 32-bit number: " + kv;
        }
        if (key == "size") {
            out.size = v;
        } else if (key == "b_off") {
            out.b_off = v;
        } else if (key == "m_off") {
            out.m_off = v;
        } else if (key == "crc") {
            out.crc = v;
        } else {
            return "unknown key: " + key;
        }
    }
    return "";
}

std::vector<toc_entry> layout(ImageLayout& req, std::string& err) {
    std::vector<toc_entry> toc(kTocEntries);
    if (req.parts.size() > kTocEntries) {
        err = "the TOC holds at most 16 entries";
        return toc;
    }
    uint64_t b_cursor = align_up(kTocSize, req.align);
    uint64_t m_cursor = req.m_base;
    for (size_t i = 0; i < req.parts.size(); ++i) {
        PartLayout& p = req.parts[i];
        if (!p.size) {
            struct stat st {};
            if (!p.file.empty() && stat(p.file.c_str(), &st) == 0) {
                p.size = static_cast<uint32_t>(st.st_size);
            } else {
                p.size = p.name == "TOC" ? kTocSize : 0;
            }
        }
        if (!p.b_off) {
            p.b_off = p.name == "NV" || p.name == "TOC" ? 0 : static_cast<uint32_t>(b_cursor);
        }
        if (!p.m_off) {
            p.m_off = static_cast<uint32_t>(m_cursor);
        }
        if (!outside_partition(p.name)) {
            b_cursor =
                std::max<uint64_t>(b_cursor, align_up(uint64_t{*p.b_off} + *p.size, req.align));
        }
        m_cursor = std::max<uint64_t>(
            m_cursor, align_up(uint64_t{*p.m_off & 0x3FFFFFFFu} + *p.size, req.align));
        if (b_cursor > UINT32_MAX || m_cursor > UINT32_MAX) {
            err = "the parts do not fit 32-bit offsets";
            return toc;
        }
        toc_entry& e = toc[i];
        std::memcpy(e.name, p.name.data(), p.name.size());  // no NUL when 12 long
        e.b_off = *p.b_off;
        e.m_off = *p.m_off;
        e.size = *p.size;
        e.crc = p.crc.value_or(0);
    }
    toc[0].toc_count = req.toc_count.value_or(static_cast<uint32_t>(req.parts.size()));
    return toc;
}

std::string write_image(ImageLayout req, const std::string& path) {
    std::string err;
    std::vector<toc_entry> toc = layout(req, err);
    if (!err.empty()) {
        return err;
    }
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return path + ": " + strerror(errno);
    }
    uint64_t end = kTocSize;
    for (size_t i = 0; i < req.parts.size() && err.empty(); ++i) {
        const PartLayout& p = req.parts[i];
        if (p.name == "TOC") {
            continue;  // the table itself, written last
        }
        // NV bytes live in the NV file; only their crc is recorded.
        uint32_t crc = stream_part(outside_partition(p.name) ? -1 : fd, p, toc[i], err);
        if (!p.crc) {
            toc[i].crc = crc;
        }
        if (!outside_partition(p.name)) {
            end = std::max<uint64_t>(end, uint64_t{toc[i].b_off} + toc[i].size);
        }
    }
    // The TOC entry's crc covers the table as written (its own crc field 0).
    for (size_t i = 0; i < req.parts.size(); ++i) {
        if (req.parts[i].name == "TOC" && !req.parts[i].crc) {
            toc[i].crc = static_cast<uint32_t>(
                crc32(crc32(0, nullptr, 0), reinterpret_cast<const Bytef*>(toc.data()), kTocSize));
        }
    }
    if (err.empty() && pwrite(fd, toc.data(), kTocSize, 0) != static_cast<ssize_t>(kTocSize)) {
        err = std::string("write: ") + strerror(errno);
    }
    if (err.empty() && ftruncate(fd, static_cast<off_t>(end)) != 0) {
        err = std::string("truncate: ") + strerror(errno);
    }
    if (close(fd) != 0 && err.empty()) {
        err = std::string("close: ") + strerror(errno);
    }
    return err;
}

}  // namespace mkmodem
