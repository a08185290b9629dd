// The driver and the CP behind the three nodes: power, modem memory, security
// answers, the boot handshake, crashes, the dump stage, log regions and the
// recorded facts. Pure logic: no FUSE, no threads; the caller serialises.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

#include "requests.h"
#include "settings.h"
#include "trace.h"

namespace vmodem {

// The caller's memory, for requests that pass a pointer (the kernel driver's
// copy_from_user / copy_to_user).
class UserMemory {
  public:
    virtual ~UserMemory() = default;
    virtual bool read(uint64_t addr, void* dst, size_t len) = 0;
    virtual bool write(uint64_t addr, const void* src, size_t len) = 0;
};

// Modem states of the driver as this model reports them.
inline constexpr int32_t kStateOffline = 0;
inline constexpr int32_t kStateCrashReset = 1;
inline constexpr int32_t kStateCrashExit = 2;
inline constexpr int32_t kStateBooting = 3;
inline constexpr int32_t kStateOnline = 4;
inline constexpr int32_t kStateCrashWatchdog = 9;

enum class Loader : uint8_t { None, Normal, Dump };

// What the AP has told the driver so far; reported by the `query` command.
struct Facts {
    bool power = false;
    int32_t boot_mode = 0;
    Loader loader = Loader::None;
    bool handshake_done = false;  // 0x900D answered
    bool finish_done = false;     // 0x9F00 answered
    int upload_count = 0;
    std::string upload_text;
    int watchdog_count = 0;
    int minidump = -1;  // -1 never set
    int bootup_done = 0;
    int bootup_fail = 0;
    int srinfo_fetches = 0;
    int srinfo_restores = 0;
    std::string srinfo_restored;
    uint64_t image_bytes = 0;
    bool dump_done = false;
};

// A request's outcome: `result` is what ioctl() returns (0, a positive value,
// a security code, or -errno); `out_len` bytes of the out buffer are valid.
struct IoctlOutcome {
    int32_t result = 0;
    size_t out_len = 0;
};

// Bulk transfers timed for benchmarks: image chunks loaded, dump frames and
// log-region chunks served.
enum class Bulk : uint8_t { Image, Frame, Region };
inline constexpr int kBulkKinds = 3;

// Per kind since the last clear: count and bytes, CLOCK_MONOTONIC of the
// first and the last one served, and the CPU time (ns on CPU, -1 unknown) of
// the thread that asked for the first one, read when the first and the last
// one were served: the reader's cost over the very window of the transfer,
// whatever else its process does before or after.
struct BulkMark {
    uint64_t count = 0;
    uint64_t bytes = 0;
    uint64_t first_ns = 0;
    uint64_t last_ns = 0;
    int64_t cpu_first_ns = -1;
    int64_t cpu_last_ns = -1;
};

inline constexpr unsigned kPollIn = 0x001;
inline constexpr unsigned kPollHup = 0x010;

class Modem {
  public:
    // memory: memory_size bytes of modem memory owned by the caller.
    Modem(Settings settings, uint8_t* memory, Trace& trace);
    ~Modem();
    Modem(const Modem&) = delete;
    Modem& operator=(const Modem&) = delete;

    IoctlOutcome ioctl(Node node, uint32_t cmd, uint64_t arg, const void* in, size_t in_len,
                       void* out, size_t out_cap, UserMemory& user);
    // Returns the bytes consumed or -errno.
    int64_t write(Node node, const void* data, size_t len);
    // Returns the bytes of one message, frame or chunk (at most len), or
    // -EAGAIN when there is nothing to deliver yet.
    int64_t read(Node node, uint8_t* buf, size_t len);
    unsigned poll_mask(Node node) const;

    // The driver reports `state` (2 or 9 for a crash, any other for tests)
    // and the boot node hangs up until the CP is powered again.
    void crash(int32_t state);
    void crash_reset();  // state 1
    void opened(Node node, int flags);
    void released(Node node);

    int open_count(Node node) const { return handles_[static_cast<int>(node)]; }
    int32_t state() const { return state_; }
    const Facts& facts() const { return facts_; }
    Settings& settings() { return settings_; }
    Trace& trace() { return trace_; }

    // The thread whose request is being served (for the CPU time of a mark).
    void set_caller(int32_t pid) { caller_ = pid; }
    const BulkMark& mark(Bulk kind) const { return marks_[static_cast<int>(kind)]; }
    void clear_marks();

    // Geometry of the dump the CP uploads (without misbehaviour).
    uint32_t step_bytes(uint32_t step) const;
    uint64_t step_offset(uint32_t step) const;
    uint32_t step_frames(uint32_t step) const;

  private:
    struct Message {
        enum Kind : uint8_t { Word, Info, Reason, Frames, Region };
        Kind kind = Word;
        uint32_t word = 0;        // Word: the answer; Frames: the step
        uint32_t next_frame = 1;  // Frames
        uint64_t done = 0;        // Region: bytes delivered so far
        uint64_t total = 0;       // Region: size announced
        uint64_t seed = 0;        // Region
        std::string name;         // Region

        static Message make(Kind kind, uint32_t word = 0) {
            Message m;
            m.kind = kind;
            m.word = word;
            return m;
        }
    };

    IoctlOutcome dispatch(Node node, const Request& r, uint64_t arg, const void* in, size_t in_len,
                          void* out, UserMemory& user);
    IoctlOutcome load_image(const void* in, UserMemory& user);
    IoctlOutcome get_srinfo(uint64_t arg, UserMemory& user);
    IoctlOutcome set_srinfo(uint64_t arg, UserMemory& user);
    IoctlOutcome enter_upload(uint64_t arg, UserMemory& user);
    IoctlOutcome get_log_dump(const void* in, void* out);
    IoctlOutcome power(bool on, int32_t mode);

    void boot_word(uint32_t word);
    void dump_word(uint32_t word);
    bool answer_override(Node node, uint32_t word);
    int64_t read_frame(Message& m, uint8_t* buf, size_t len, bool& finished);
    int64_t read_region(Message& m, uint8_t* buf, size_t len, bool& finished);
    int64_t read_reason(uint8_t* buf, size_t len);
    uint32_t reason_len() const;
    std::deque<Message>& queue(Node node) { return queues_[static_cast<int>(node)]; }
    void clear_queues();
    void note_bulk(Bulk kind, uint64_t bytes);

    Settings settings_;
    uint8_t* memory_;
    uint64_t memory_size_;  // fixed at start; later `set memory_size` has no effect
    Trace& trace_;
    int32_t state_;
    bool hangup_ = false;
    int32_t btl_size_;
    Facts facts_;
    std::string note_;  // detail for the current trace line
    bool dump_stage_open_ = false;
    bool step13_served_ = false;
    int handles_[kNodeCount] = {};
    std::deque<Message> queues_[kNodeCount];
    int32_t caller_ = 0;
    BulkMark marks_[kBulkKinds];
    // Per kind, the first caller's /proc/TID/task/TID/schedstat, kept open
    // so that each chunk costs one pread, not an open and a close.
    int mark_cpu_fd_[kBulkKinds] = {-1, -1, -1};
};

}  // namespace vmodem
