#include "logs.h"

#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <memory>

#include "names.h"
#include "srinfo/srinfo.h"

namespace evidence {
namespace {

using Fields = std::vector<std::string_view>;

// Matches `text` with one of the daemon's message formats: %d, %u, %lu and
// %llu take a decimal number, %X a hexadecimal one, %s the shortest text
// (one character at least) after which the rest matches.
bool scan(std::string_view text, std::string_view fmt, Fields& out) {
    while (!fmt.empty()) {
        if (fmt.front() != '%') {
            if (text.empty() || text.front() != fmt.front()) {
                return false;
            }
            text.remove_prefix(1);
            fmt.remove_prefix(1);
            continue;
        }
        fmt.remove_prefix(1);
        while (!fmt.empty() && fmt.front() == 'l') {
            fmt.remove_prefix(1);
        }
        if (fmt.empty()) {
            return false;
        }
        const char conv = fmt.front();
        fmt.remove_prefix(1);
        if (conv == 's') {
            for (size_t len = 1; len <= text.size(); ++len) {
                out.push_back(text.substr(0, len));
                if (scan(text.substr(len), fmt, out)) {
                    return true;
                }
                out.pop_back();
            }
            return false;
        }
        size_t n = conv == 'd' && !text.empty() && text.front() == '-' ? 1 : 0;
        const size_t digits = n;
        while (n < text.size() && (conv == 'X' ? isxdigit(static_cast<unsigned char>(text[n]))
                                               : isdigit(static_cast<unsigned char>(text[n])))) {
            ++n;
        }
        if (n == digits) {
            return false;
        }
        out.push_back(text.substr(0, n));
        text.remove_prefix(n);
    }
    return text.empty();
}

// A decimal number of a message; -1 when it does not fit.
int64_t number(std::string_view v) {
    int64_t n = -1;
    if (std::from_chars(v.data(), v.data() + v.size(), n).ec != std::errc()) {
        return -1;
    }
    return n;
}

std::string base_name(std::string_view path) {
    const size_t slash = path.rfind('/');
    return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

std::string clip(std::string_view s) {
    constexpr size_t kShown = 200;
    return printable(s.substr(0, kShown));
}

}  // namespace

std::string for_each_line(const std::string& path,
                          const std::function<void(std::string_view)>& take) {
    std::unique_ptr<FILE, int (*)(FILE*)> f(fopen(path.c_str(), "rb"), fclose);
    if (!f) {
        return strerror(errno);
    }
    std::string line;
    line.reserve(256);
    int c;
    while ((c = getc(f.get())) != EOF) {
        if (c == '\n') {
            take(line);
            line.clear();
        } else if (line.size() < kMaxLine) {
            line += static_cast<char>(c);
        }
    }
    if (ferror(f.get())) {
        return strerror(errno);
    }
    if (!line.empty()) {
        take(line);
    }
    return "";
}

std::optional<std::string> read_head(const std::string& path, size_t max) {
    std::unique_ptr<FILE, int (*)(FILE*)> f(fopen(path.c_str(), "rb"), fclose);
    if (!f) {
        return std::nullopt;
    }
    std::string out(max, '\0');
    const size_t n = fread(out.data(), 1, max, f.get());
    if (ferror(f.get())) {
        return std::nullopt;
    }
    out.resize(n);
    return out;
}

StepFacts& DumpLogReader::step(unsigned n) {
    for (StepFacts& s : f_.steps) {
        if (s.n == n) {
            return s;
        }
    }
    if (f_.steps.size() >= kMaxKept) {
        static StepFacts spare;
        spare = {};
        return spare;
    }
    f_.steps.push_back({});
    f_.steps.back().n = n;
    return f_.steps.back();
}

void DumpLogReader::take(std::string_view line) {
    // An error line carries the text of errno before its step name.
    std::string why;
    if (line.rfind("(ERR! ", 0) == 0) {
        const size_t close = line.find(") ");
        if (close == std::string_view::npos) {
            return;
        }
        why = " (" + clip(line.substr(6, close - 6)) + ")";
        line.remove_prefix(close + 2);
    }
    const size_t colon = line.find(": ");
    if (colon == std::string_view::npos) {
        return;
    }
    const std::string_view fn = line.substr(0, colon);
    const std::string_view text = line.substr(colon + 2);
    Fields v;
    auto is = [&](const char* fmt) {
        v.clear();
        return scan(text, fmt, v);
    };
    // A REASON longer than its room is cut and the dump goes on: no failure.
    const bool failure = (text.rfind("ERR! ", 0) == 0 || !why.empty()) &&
                         !(fn == "std_ul_recv_info" && is("ERR! reason_len %u > %u, truncated"));
    if (failure && f_.errors.size() < kMaxKept) {
        f_.errors.push_back(clip(line) + why);
    }
    if (fn == "std_dump_write_versions") {
        if (is("CPIF version: %s")) {
            f_.cpif_version = clip(v[0]);
        } else if (is("Velmora (RIX) version: %s")) {
            f_.rix_version = clip(v[0]);
        }
    } else if (fn == "get_log_dump") {
        if (is("size:%u")) {
            pending_size_ = number(v[0]);
        } else if ((is("%s opened (fd %d)") || is("ERR! %s open fail")) &&
                   f_.regions.size() < kMaxKept) {
            f_.regions.push_back({base_name(v[0]), pending_size_, -1, false,
                                  text.rfind("ERR! ", 0) == 0 ? "open fail" + why : ""});
            pending_size_ = -1;
        } else if (is("%s Complete! (%lu bytes)")) {
            for (RegionFacts& r : f_.regions) {
                if (r.file == base_name(v[0])) {
                    r.complete = true;
                    r.received = number(v[1]);
                }
            }
        } else if (is("ERR! ioctl fail") && f_.regions.size() < kMaxKept) {
            f_.regions.push_back({"", -1, -1, false, "the driver refused the region" + why});
            pending_size_ = -1;
        } else if (text.rfind("ERR! log_dump ", 0) == 0 && !f_.regions.empty()) {
            f_.regions.back().error = clip(text.substr(14)) + why;
        }
    } else if (fn == "std_ul_recv_info") {
        f_.info_saved |= is("DUMP INFO saved");
    } else if (fn == "std_ul_recv_data") {
        if (is("[step %d] num_frames = %d")) {
            step(number(v[0])).frames = number(v[1]);
        } else if (is("[step %d] saved = %d")) {
            step(number(v[0])).saved = static_cast<uint32_t>(number(v[1]));
        } else if (is("ERR! [step %d] %s")) {
            step(number(v[0])).error = clip(v[1]) + why;
            if (is("ERR! [step %d] total %llu would pass dump_size %u")) {
                f_.announced = static_cast<uint32_t>(number(v[2]));
            }
        }
    } else if (fn == "std_dump_receive_cp_dump") {
        if (is("DUMP DATA saved")) {
            f_.data_saved = true;
        } else if (is("ERR! saved %d != dump_size %d")) {
            f_.announced = static_cast<uint32_t>(number(v[1]));
        } else {
            f_.done_failed |= is("ERR! DUMP std_udl_stage_done fail");
        }
    } else if (fn == "dump") {
        f_.upload_failed |= is("ERR! std_dump_upload fail");
    }
}

void CaptureReader::take(std::string_view line) {
    constexpr std::string_view kStart = "rix: dump: Prepare CP crash dump";
    constexpr std::string_view kSize = "rix: std_ul_recv_info: dump_size = ";
    constexpr std::string_view kFail = "rix: dump: ERR! ";
    if (line.find(kStart) != std::string_view::npos) {
        f_ = {};
        f_.attempt_seen = true;
    } else if (size_t at = line.find(kSize); at != std::string_view::npos) {
        const int64_t n = number(line.substr(at + kSize.size()));
        if (n != -1) {
            f_.dump_size = static_cast<uint32_t>(n);
        }
    } else if (size_t at = line.find(kFail); at != std::string_view::npos && f_.failure.empty()) {
        f_.failure = clip(line.substr(at + 11));
    }
}

namespace {

int hex_digit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    return -1;
}

// The value of `digits` lower-case hex digits at `p`, or -1.
int64_t hex(std::string_view s, size_t at, size_t digits) {
    int64_t v = 0;
    for (size_t i = 0; i < digits; ++i) {
        const int d = hex_digit(s[at + i]);
        if (d < 0) {
            return -1;
        }
        v = v * 16 + d;
    }
    return v;
}

// One row of a hex-log entry read back: its data offset and its 16 bytes,
// when the daemon's own formatting of those bytes gives the very same line.
std::optional<size_t> read_row(std::string_view line, uint8_t (&bytes)[16]) {
    if (line.size() != kSrinfoRowLen - 1 || line[4] != ':') {
        return std::nullopt;
    }
    const int64_t off = hex(line, 0, 4);
    if (off < 0 || off % 16 != 0 || static_cast<size_t>(off) >= kSrinfoDataLen) {
        return std::nullopt;
    }
    for (size_t w = 0; w < 4; ++w) {
        const int64_t word = hex(line, 5 + 9 * w, 8);
        if (word < 0) {
            return std::nullopt;
        }
        for (size_t b = 0; b < 4; ++b) {
            bytes[4 * w + b] = static_cast<uint8_t>(word >> (8 * b));
        }
    }
    static uint8_t block[kSrinfoDataLen];
    const auto at = static_cast<size_t>(off);
    const size_t len = std::min(at + 16, kSrinfoDataLen);
    memcpy(block + at, bytes, len - at);
    char again[kSrinfoRowLen];
    srinfo_hex_row(again, block, len, at);
    if (std::string_view(again, kSrinfoRowLen - 1) != line) {
        return std::nullopt;
    }
    return at;
}

const std::string& time_line_format() {
    static const std::string fmt = [] {
        std::string f = kSrinfoTimeLine;
        while (!f.empty() && f.back() == '\n') {
            f.pop_back();
        }
        return f;
    }();
    return fmt;
}

}  // namespace

std::string SrEntry::text() const {
    const size_t from = first <= kSrinfoTextOffset ? kSrinfoTextOffset - first : 0;
    std::string out;
    for (size_t i = from; i < bytes.size() && bytes[i] != 0; ++i) {
        out += static_cast<char>(bytes[i]);
        if (bytes[i] == '}') {
            break;
        }
    }
    return printable(out);
}

std::string SrEntry::header() const {
    std::string out;
    for (size_t i = 0; first == 0 && i < kSrinfoTextOffset && i < bytes.size(); ++i) {
        char b[3];
        snprintf(b, sizeof(b), "%02x", bytes[i]);
        out += b;
    }
    return out;
}

void SrLogReader::start(std::optional<int64_t> time) {
    open_ = out_.size() < kMaxEntries;
    if (open_) {
        out_.push_back({});
        out_.back().file = file_;
        out_.back().line = line_;
        out_.back().time = time;
    }
}

void SrLogReader::take(std::string_view line) {
    ++line_;
    if (line.empty()) {
        if (open_) {
            out_.back().ended = true;
        }
        open_ = false;
        return;
    }
    if (auto t = read_stamp(line, time_line_format().c_str())) {
        start(t);
        return;
    }
    uint8_t bytes[16];
    const auto off = read_row(line, bytes);
    if (!off) {
        const std::string what =
            "line " + std::to_string(line_) + ": neither a time line nor a hex row";
        if (open_ && out_.back().problems.size() < kMaxProblems) {
            out_.back().problems.push_back(what);
        } else if (!open_ && stray_.size() < kMaxProblems) {
            stray_.push_back(file_ + " " + what);
        }
        return;
    }
    if (open_ && out_.back().next() != *off) {
        char what[64];
        snprintf(what, sizeof(what), ": row %04zx where %04zx was due", *off, out_.back().next());
        out_.back().problems.push_back("line " + std::to_string(line_) + what);
        open_ = false;
    }
    if (!open_) {
        start(std::nullopt);
        if (!open_) {
            return;
        }
        out_.back().first = *off;
    }
    SrEntry& e = out_.back();
    e.bytes.insert(e.bytes.end(), bytes, bytes + std::min<size_t>(16, kSrinfoDataLen - *off));
}

std::vector<SrEntry> SrLogReader::finish() {
    return std::move(out_);
}

bool join_rotated(SrEntry& head, SrEntry& rest) {
    if (head.ended || rest.time || rest.first == 0 || rest.first != head.next()) {
        return false;
    }
    head.bytes.insert(head.bytes.end(), rest.bytes.begin(), rest.bytes.end());
    head.ended = rest.ended;
    head.problems.push_back("continued in " + rest.file + " line " + std::to_string(rest.line) +
                            " (the log was rotated inside this entry)");
    head.problems.insert(head.problems.end(), rest.problems.begin(), rest.problems.end());
    return true;
}

}  // namespace evidence
