// The trace: one line per request, protocol word, upload and event, written
// with a single write() so a reader sees whole lines at any moment.
#pragma once

#include <string>
#include <vector>

namespace vmodem {

class Trace {
  public:
    Trace() = default;
    ~Trace();
    Trace(const Trace&) = delete;
    Trace& operator=(const Trace&) = delete;

    // Truncates and opens path; false when it cannot be opened.
    bool open(const std::string& path);
    // Keeps the lines in memory as well (for tests).
    void capture(bool on) { capture_ = on; }
    const std::vector<std::string>& captured() const { return lines_; }

    // False when lines go nowhere: callers may skip formatting their details.
    bool enabled() const { return fd_ >= 0 || capture_; }
    // printf-style; a line feed is appended.
    void line(const char* fmt, ...) __attribute__((format(printf, 2, 3)));

  private:
    int fd_ = -1;
    bool capture_ = false;
    std::vector<std::string> lines_;
};

}  // namespace vmodem
