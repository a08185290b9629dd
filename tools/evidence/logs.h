// Reading back what the daemon wrote line by line: the dump log of an
// attempt, a kernel-log capture and the silent-reset hex log. Every reader
// takes lines one at a time, so a file of any size streams through; a line is
// kept to kMaxLine bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace evidence {

inline constexpr size_t kMaxLine = 4096;

// Calls `take` for each line of the file (without its line feed; a longer
// line is cut to kMaxLine). An empty text, or what went wrong.
std::string for_each_line(const std::string& path,
                          const std::function<void(std::string_view)>& take);

// The first `max` bytes of a file, or nothing when it cannot be read.
std::optional<std::string> read_head(const std::string& path, size_t max);

struct StepFacts {
    unsigned n = 0;
    int64_t frames = -1;  // num_frames of its first frame
    int64_t saved = -1;   // what the step saved, once it ended
    std::string error;    // the step's failure line
};

struct RegionFacts {
    std::string file;        // base name of the region file
    int64_t announced = -1;  // the size the driver announced
    int64_t received = -1;   // the count of the Complete! line
    bool complete = false;
    std::string error;
};

// What the dump log of one attempt tells.
struct DumpLogFacts {
    std::string cpif_version, rix_version;
    std::vector<RegionFacts> regions;
    bool info_saved = false;
    std::vector<StepFacts> steps;
    bool data_saved = false;   // the whole dump received, its size checked and flushed
    bool done_failed = false;  // the closing DONE exchange failed
    bool upload_failed = false;
    std::optional<uint32_t> announced;  // the dump size the CP announced, where a line says
    std::vector<std::string> errors;    // each failure line, "step: text"
};

class DumpLogReader {
  public:
    void take(std::string_view line);
    const DumpLogFacts& facts() const { return f_; }

  private:
    StepFacts& step(unsigned n);
    DumpLogFacts f_;
    int64_t pending_size_ = -1;  // a region's size line waits for its opened line
    static constexpr size_t kMaxKept = 512;
};

// What a kernel-log capture holds of the daemon's own lines, from the last
// start of a dump attempt on (the ring buffer keeps earlier attempts too).
struct CaptureFacts {
    bool attempt_seen = false;
    std::optional<uint32_t> dump_size;
    std::string failure;  // the attempt's failing step as the daemon named it
};

class CaptureReader {
  public:
    void take(std::string_view line);
    const CaptureFacts& facts() const { return f_; }

  private:
    CaptureFacts f_;
};

// One entry of the silent-reset hex log: the time of the store and the bytes
// of the block that its rows show.
struct SrEntry {
    std::string file;
    size_t line = 0;              // where it starts in its file
    std::optional<int64_t> time;  // none when its first line is not in the file
    size_t first = 0;             // data offset of bytes[0]
    std::vector<uint8_t> bytes;
    bool ended = false;  // its closing empty line was seen
    std::vector<std::string> problems;

    size_t next() const { return first + bytes.size(); }
    // The crash-info text (data offset 16 through the first '}'), and the
    // 16 header bytes before it in hex.
    std::string text() const;
    std::string header() const;
};

class SrLogReader {
  public:
    explicit SrLogReader(std::string file) : file_(std::move(file)) {}
    void take(std::string_view line);
    // The entries read, in file order.
    std::vector<SrEntry> finish();
    // Lines outside every entry that are not part of one.
    const std::vector<std::string>& stray() const { return stray_; }

  private:
    void start(std::optional<int64_t> time);
    std::string file_;
    size_t line_ = 0;
    std::vector<SrEntry> out_;
    std::vector<std::string> stray_;
    bool open_ = false;
    static constexpr size_t kMaxEntries = 4096;
    static constexpr size_t kMaxProblems = 32;
};

// Joins an entry cut by a rotation of the log to its rest at the start of the
// next file. True when `rest` continued `head` and was moved into it.
bool join_rotated(SrEntry& head, SrEntry& rest);

}  // namespace evidence
