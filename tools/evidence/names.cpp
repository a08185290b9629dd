// Each pattern is the daemon's own path format printed with marks in place of
// the directory, the device prefix, the region or modem name and the time
// stamp; a name matches when its text fits around the marks.
#include "names.h"

#include <cctype>
#include <cstdio>
#include <ctime>
#include <vector>

#include "dump/log_dump.h"
#include "log/log.h"
#include "srinfo/srinfo.h"

namespace evidence {
namespace {

constexpr char kPrefix = '\x01';
constexpr char kWhat = '\x02';
constexpr char kDumpStamp = '\x03';
constexpr char kCaptureStamp = '\x04';
// Names and prefixes come from the daemon's 64-byte buffers.
constexpr size_t kFieldMax = 64;

struct Pattern {
    Kind kind;
    std::string text;  // the file name with marks
    std::string capture;
    size_t literals;  // characters outside the marks: the more, the better a match
};

bool is_mark(char c) {
    return c >= kPrefix && c <= kCaptureStamp;
}

// `fmt` printed with the arguments; a path format's directory is left empty
// and its slash dropped, leaving the file name.
template <typename... Args>
std::string print(const char* fmt, Args... args) {
    char buf[512];
    const int n = snprintf(buf, sizeof(buf), fmt, args...);
    std::string out(buf, n > 0 ? static_cast<size_t>(n) : 0);
    return out.rfind('/', 0) == 0 ? out.substr(1) : out;
}

Pattern make(Kind kind, std::string text, std::string capture = "") {
    size_t literals = 0;
    for (char c : text) {
        literals += !is_mark(c);
    }
    return {kind, std::move(text), std::move(capture), literals};
}

const std::vector<Pattern>& patterns() {
    static const std::vector<Pattern> all = [] {
        const char prefix[] = {kPrefix, 0};
        const char what[] = {kWhat, 0};
        const char dstamp[] = {kDumpStamp, 0};
        const char cstamp[] = {kCaptureStamp, 0};
        const std::string base = print(kDumpNameBase, prefix);
        std::vector<Pattern> p = {
            make(Kind::DumpLog, print(kDumpLogPathFormat, "", base.c_str(), dstamp)),
            make(Kind::Info, print(kDumpInfoPathFormat, "", base.c_str(), what, dstamp)),
            make(Kind::Dump, print(kDumpFilePathFormat, "", base.c_str(), dstamp)),
            make(Kind::Region, print(kRegionPathFormat, "", what, prefix, dstamp)),
            make(Kind::SrLog, print(kSrinfoPathFormat, "", kSrinfoLogName, prefix)),
            make(Kind::SrBackup, print(kSrinfoBackupPathFormat, "", kSrinfoLogName, prefix)),
            make(Kind::SrLast, print(kSrinfoPathFormat, "", kSrinfoLastName, prefix)),
        };
        const std::pair<Kind, const char*> captures[] = {
            {Kind::KlogBefore, kCaptureDumpBefore},  {Kind::KlogAfter, kCaptureDumpAfter},
            {Kind::KlogFail, kCaptureDumpFail},      {Kind::BootCapture, kCaptureCpBoot},
            {Kind::BootCapture, kCaptureCpBootDone}, {Kind::BootCapture, kCaptureRixOnly},
        };
        for (const auto& [kind, name] : captures) {
            const std::string n = print(name, prefix);
            p.push_back(make(kind, print(kCapturePathFormat, "", n.c_str(), cstamp), name));
        }
        return p;
    }();
    return all;
}

// Every stamp of a format has the same length (years of four digits).
size_t stamp_length(const char* format) {
    struct tm tm = {};
    tm.tm_year = 100;
    tm.tm_mday = 1;
    char buf[64];
    return strftime(buf, sizeof(buf), format, &tm);
}

const char* stamp_format(char mark) {
    return mark == kDumpStamp ? kDumpStampFormat : kCaptureStampFormat;
}

bool word_ok(std::string_view v) {
    if (v.empty() || v.size() > kFieldMax) {
        return false;
    }
    // What the daemon puts there: "umts", "vm420", "pmux0", "cp_btl".
    for (char c : v) {
        if (!isalnum(static_cast<unsigned char>(c)) && c != '_' && c != '-') {
            return false;
        }
    }
    return true;
}

struct Fields {
    std::string_view prefix, what, stamp;
    int64_t time = 0;
};

// Literal characters must be equal; a mark takes the shortest text for which
// the rest still matches.
bool match(std::string_view text, std::string_view name, Fields& f) {
    while (!text.empty() && !is_mark(text.front())) {
        if (name.empty() || name.front() != text.front()) {
            return false;
        }
        text.remove_prefix(1);
        name.remove_prefix(1);
    }
    if (text.empty()) {
        return name.empty();
    }
    const char mark = text.front();
    text.remove_prefix(1);
    const bool stamp = mark == kDumpStamp || mark == kCaptureStamp;
    for (size_t len = 1; len <= name.size() && len <= kFieldMax; ++len) {
        const std::string_view v = name.substr(0, len);
        Fields next = f;
        if (stamp) {
            if (len != stamp_length(stamp_format(mark))) {
                continue;
            }
            auto t = read_stamp(v, stamp_format(mark));
            if (!t) {
                continue;
            }
            next.stamp = v;
            next.time = *t;
        } else if (!word_ok(v)) {
            continue;
        } else {
            (mark == kPrefix ? next.prefix : next.what) = v;
        }
        if (match(text, name.substr(len), next)) {
            f = next;
            return true;
        }
    }
    return false;
}

}  // namespace

std::optional<int64_t> read_stamp(std::string_view text, const char* format) {
    const std::string s(text);
    struct tm tm = {};
    const char* end = strptime(s.c_str(), format, &tm);
    if (end == nullptr || *end != '\0') {
        return std::nullopt;
    }
    char back[64];
    const size_t n = strftime(back, sizeof(back), format, &tm);
    if (std::string_view(back, n) != text) {
        return std::nullopt;
    }
    return static_cast<int64_t>(timegm(&tm));
}

std::string show_time(int64_t t) {
    const auto tt = static_cast<time_t>(t);
    struct tm tm = {};
    char buf[64];
    if (gmtime_r(&tt, &tm) == nullptr ||
        strftime(buf, sizeof(buf), "%Y-%m-%d %H:%M:%S", &tm) == 0) {
        return "?";
    }
    return buf;
}

std::string printable(std::string_view bytes) {
    std::string out;
    for (char c : bytes) {
        const auto u = static_cast<unsigned char>(c);
        if (u >= 0x20 && u < 0x7F && c != '\\') {
            out += c;
        } else {
            char esc[8];
            snprintf(esc, sizeof(esc), "\\x%02x", u);
            out += esc;
        }
    }
    return out;
}

Name classify(std::string_view file) {
    Name best;
    size_t best_literals = 0;
    for (const Pattern& p : patterns()) {
        Fields f;
        if (p.literals > best_literals && match(p.text, file, f)) {
            best.kind = p.kind;
            best.prefix = f.prefix;
            best.stamp = f.stamp;
            best.time = f.time;
            best.what = p.capture.empty() ? std::string(f.what)
                                          : print(p.capture.c_str(), best.prefix.c_str());
            best_literals = p.literals;
        }
    }
    return best;
}

}  // namespace evidence
