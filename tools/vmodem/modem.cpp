#include "modem.h"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>
#include <algorithm>
#include <chrono>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "boot/cpif.h"
#include "dump/udl.h"
#include "payload.h"

namespace vmodem {
namespace {

template <typename T>
T load(const void* p) {
    T v;
    std::memcpy(&v, p, sizeof(T));
    return v;
}

// Printable form of untrusted text for a one-line trace or query reply.
std::string escape(const char* s, size_t n) {
    std::string out;
    for (size_t i = 0; i < n; ++i) {
        unsigned char c = static_cast<unsigned char>(s[i]);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c >= 0x20 && c < 0x7F) {
            out += static_cast<char>(c);
        } else {
            char hex[8];
            snprintf(hex, sizeof(hex), "\\x%02X", c);
            out += hex;
        }
    }
    return out;
}

constexpr uint32_t kSrinfoRoom = kSrinfoBlockSize - 4;
constexpr size_t kCrashReasonTextSize = 515;  // the daemon's crash-reason buffer

uint64_t monotonic_ns() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return uint64_t(ts.tv_sec) * 1000000000u + uint64_t(ts.tv_nsec);
}

// Opens the run-time counter of a thread: the first field of its schedstat
// is the time it spent on a CPU, in ns.
int open_thread_cpu(int32_t tid) {
    char path[64];
    snprintf(path, sizeof(path), "/proc/%d/task/%d/schedstat", static_cast<int>(tid),
             static_cast<int>(tid));
    return open(path, O_RDONLY | O_CLOEXEC);
}

int64_t thread_cpu_ns(int fd) {
    if (fd < 0) {
        return -1;
    }
    char buf[96];
    const ssize_t n = pread(fd, buf, sizeof(buf) - 1, 0);
    if (n <= 0) {
        return -1;
    }
    buf[n] = '\0';
    char* end = nullptr;
    const unsigned long long ns = strtoull(buf, &end, 10);
    return end == buf ? -1 : static_cast<int64_t>(ns);
}

}  // namespace

Modem::Modem(Settings settings, uint8_t* memory, Trace& trace)
    : settings_(std::move(settings)),
      memory_(memory),
      memory_size_(settings_.memory_size),
      trace_(trace),
      state_(settings_.state),
      btl_size_(settings_.btl_size) {}

void Modem::opened(Node node, int flags) {
    ++handles_[static_cast<int>(node)];
    trace_.line("open %s flags=0x%X", node_name(node), static_cast<unsigned>(flags));
}

void Modem::released(Node node) {
    --handles_[static_cast<int>(node)];
    trace_.line("release %s", node_name(node));
}

Modem::~Modem() {
    clear_marks();
}

void Modem::clear_marks() {
    for (int k = 0; k < kBulkKinds; ++k) {
        marks_[k] = BulkMark{};
        if (mark_cpu_fd_[k] >= 0) {
            close(mark_cpu_fd_[k]);
            mark_cpu_fd_[k] = -1;
        }
    }
}

// A mark is a clock read, a pread of the first caller's CPU time and two
// additions per chunk; the counter is opened once per kind and clear.
void Modem::note_bulk(Bulk kind, uint64_t bytes) {
    const int k = static_cast<int>(kind);
    BulkMark& m = marks_[k];
    const uint64_t now = monotonic_ns();
    if (m.count == 0) {
        m.first_ns = now;
        mark_cpu_fd_[k] = open_thread_cpu(caller_);
        m.cpu_first_ns = thread_cpu_ns(mark_cpu_fd_[k]);
    }
    m.last_ns = now;
    m.cpu_last_ns = thread_cpu_ns(mark_cpu_fd_[k]);
    ++m.count;
    m.bytes += bytes;
}

void Modem::clear_queues() {
    for (auto& q : queues_) {
        q.clear();
    }
    dump_stage_open_ = false;
    step13_served_ = false;
}

void Modem::crash(int32_t state) {
    state_ = state;
    hangup_ = true;
    facts_.loader = Loader::None;
    queue(Node::Boot).clear();
    trace_.line("event hangup state=%d", state);
}

void Modem::crash_reset() {
    crash(kStateCrashReset);
}

unsigned Modem::poll_mask(Node node) const {
    unsigned mask = queues_[static_cast<int>(node)].empty() ? 0 : kPollIn;
    if (node == Node::Boot && hangup_) {
        mask |= kPollHup;
    }
    return mask;
}

// ---------------------------------------------------------------- requests

static void describe_args(const Request& r, const void* in, size_t in_len, char* buf, size_t cap) {
    buf[0] = '\0';
    if (in_len < ioc_size(r.code)) {
        return;
    }
    switch (r.code) {
        case IOCTL_POWER_RESET:
        case IOCTL_START_CP_BOOTLOADER:
            snprintf(buf, cap, " mode=%d", load<int32_t>(in));
            break;
        case IOCTL_SET_BTL_SIZE:
            snprintf(buf, cap, " size=%d", load<int32_t>(in));
            break;
        case IOCTL_SET_MINIDUMP_MODE:
            snprintf(buf, cap, " enable=%u", load<uint8_t>(in));
            break;
        case IOCTL_LOAD_CP_IMAGE: {
            auto img = load<cp_image>(in);
            snprintf(buf, cap, " size=0x%X m_offset=0x%X b_offset=0x%X mode=%u len=%u", img.size,
                     img.m_offset, img.b_offset, img.mode, img.len);
            break;
        }
        case IOCTL_CHECK_SECURITY: {
            auto s = load<security_req_args>(in);
            snprintf(buf, cap, " mode=%u param2=0x%X param3=0x%X param4=0x%X", s.mode, s.param2,
                     s.param3, s.param4);
            break;
        }
        case IOCTL_GET_LOG_DUMP: {
            auto info = load<cp_log_dump_info>(in);
            std::string name = escape(info.name, strnlen(info.name, sizeof(info.name)));
            snprintf(buf, cap, " name=%s idx=%u", name.c_str(), info.idx);
            break;
        }
        case IOCTL_GET_NUM_LOG_DUMP:
            snprintf(buf, cap, " idx=%u", load<cp_log_dump_num>(in).idx);
            break;
        default:
            break;
    }
}

IoctlOutcome Modem::ioctl(Node node, uint32_t cmd, uint64_t arg, const void* in, size_t in_len,
                          void* out, size_t out_cap, UserMemory& user) {
    const Request* r = find_request(cmd);
    if (r == nullptr) {
        trace_.line("ioctl %s 0x%08X -> %d unknown", node_name(node), cmd, -ENOTTY);
        return {-ENOTTY, 0};
    }
    // GET_NUM_LOG_DUMP carries its index in although its code only says "read": FUSE passes
    // no input for such a code, so the driver takes the record from the caller's memory, as
    // the kernel driver's copy_from_user does.
    alignas(8) uint8_t from_user[sizeof(cp_log_dump_num)] = {};
    if (cmd == IOCTL_GET_NUM_LOG_DUMP && in_len < sizeof(from_user)) {
        if (arg == 0 || !user.read(arg, from_user, sizeof(from_user))) {
            trace_.line("ioctl %s %s -> %d bad-argument", node_name(node), r->name, -EFAULT);
            return {-EFAULT, 0};
        }
        in = from_user;
        in_len = sizeof(from_user);
    }
    char args[256] = "";
    if (trace_.enabled()) {
        describe_args(*r, in, in_len, args, sizeof(args));
    }
    uint32_t size = ioc_size(cmd);
    if ((ioc_writes_to_driver(cmd) && in_len < size) ||
        (ioc_reads_from_driver(cmd) && out_cap < size)) {
        trace_.line("ioctl %s %s -> %d short-argument", node_name(node), r->name, -EFAULT);
        return {-EFAULT, 0};
    }
    bool right_node = r->node == node || (cmd == IOCTL_ENTER_UPLOAD_MODE && node == Node::Boot);
    if (settings_.strict_nodes && !right_node) {
        trace_.line("ioctl %s %s%s -> %d wrong-node", node_name(node), r->name, args, -ENOTTY);
        return {-ENOTTY, 0};
    }
    auto forced = settings_.results.find(cmd);
    if (forced != settings_.results.end()) {
        size_t out_len = ioc_reads_from_driver(cmd) ? size : 0;
        std::memset(out, 0, out_len);
        trace_.line("ioctl %s %s%s -> %d forced", node_name(node), r->name, args, forced->second);
        return {forced->second, out_len};
    }
    note_.clear();
    IoctlOutcome o = dispatch(node, *r, arg, in, in_len, out, user);
    trace_.line("ioctl %s %s%s -> %d%s%s", node_name(node), r->name, args, o.result,
                note_.empty() ? "" : " ", note_.c_str());
    return o;
}

IoctlOutcome Modem::power(bool on, int32_t mode) {
    facts_.power = on;
    facts_.boot_mode = mode;
    facts_.loader = Loader::None;
    facts_.handshake_done = false;
    facts_.finish_done = false;
    facts_.dump_done = false;
    state_ = on ? kStateBooting : kStateOffline;
    hangup_ = false;
    clear_queues();
    return {0, 0};
}

IoctlOutcome Modem::dispatch(Node node, const Request& r, uint64_t arg, const void* in, size_t,
                             void* out, UserMemory& user) {
    (void)node;
    switch (r.code) {
        case IOCTL_POWER_ON:
            std::this_thread::sleep_for(std::chrono::milliseconds(settings_.power_on_pause_ms));
            return power(true, facts_.boot_mode);
        case IOCTL_POWER_OFF:
            return power(false, facts_.boot_mode);
        case IOCTL_POWER_RESET: {
            int32_t mode = load<int32_t>(in);
            if (mode != CP_BOOT_MODE_NORMAL && mode != CP_BOOT_MODE_DUMP) {
                return {-EINVAL, 0};
            }
            return power(true, mode);
        }
        case IOCTL_START_CP_BOOTLOADER: {
            int32_t mode = load<int32_t>(in);
            if (mode != CP_BOOT_MODE_NORMAL && mode != CP_BOOT_MODE_DUMP) {
                return {-EINVAL, 0};
            }
            if (!facts_.power || hangup_) {
                note_ = "cp-not-powered";
                return {-EIO, 0};
            }
            facts_.loader = mode == CP_BOOT_MODE_DUMP ? Loader::Dump : Loader::Normal;
            facts_.handshake_done = facts_.finish_done = facts_.dump_done = false;
            clear_queues();
            return {0, 0};
        }
        case IOCTL_COMPLETE_NORMAL_BOOTUP:
            if (facts_.loader != Loader::Normal || !facts_.finish_done || hangup_) {
                note_ = "handshake-not-finished";
                return {-EIO, 0};
            }
            state_ = kStateOnline;
            return {0, 0};
        case IOCTL_GET_MODEM_STATE:
            // A crash keeps the node hung up until the CP is powered again;
            // any other state change is one event, gone once it was read.
            if (state_ != kStateCrashReset && state_ != kStateCrashExit &&
                state_ != kStateCrashWatchdog) {
                hangup_ = false;
            }
            return {state_, 0};
        case IOCTL_SET_MINIDUMP_MODE:
            facts_.minidump = load<uint8_t>(in);
            return {0, 0};
        case IOCTL_ENTER_UPLOAD_MODE:
            return enter_upload(arg, user);
        case IOCTL_TRIGGER_AP_WDTRESET:
            ++facts_.watchdog_count;
            return {0, 0};
        case IOCTL_LOAD_CP_IMAGE:
            return load_image(in, user);
        case IOCTL_GET_SRINFO:
            return get_srinfo(arg, user);
        case IOCTL_SET_SRINFO:
            return set_srinfo(arg, user);
        case IOCTL_NOTIFY_BOOTUP_FAIL:
            ++facts_.bootup_fail;
            return {0, 0};
        case IOCTL_NOTIFY_BOOTUP_DONE:
            ++facts_.bootup_done;
            return {0, 0};
        case IOCTL_GET_LOG_DUMP:
            return get_log_dump(in, out);
        case IOCTL_CHECK_SECURITY: {
            auto it = settings_.security.find(load<security_req_args>(in).mode);
            return {it == settings_.security.end() ? 0 : it->second, 0};
        }
        case IOCTL_GET_CP_CRASH_REASON: {
            cp_crash_reason rec{};
            rec.owner = settings_.crash_owner;
            const std::string& text = settings_.crash_reason;
            if (settings_.crash_reason_unterminated) {
                for (size_t i = 0; i < sizeof(rec.reason); ++i) {
                    rec.reason[i] = text.empty() ? 'X' : text[i % text.size()];
                }
            } else {
                std::memcpy(rec.reason, text.data(), std::min(text.size(), sizeof(rec.reason) - 1));
            }
            std::memcpy(out, &rec, sizeof(rec));
            note_ = "owner=" + std::to_string(rec.owner);
            return {0, sizeof(rec)};
        }
        case IOCTL_GET_CPIF_VERSION: {
            char text[kCpifVersionLen] = {};
            std::memcpy(text, settings_.cpif_version.data(),
                        std::min(settings_.cpif_version.size(), sizeof(text)));
            std::memcpy(out, text, sizeof(text));
            return {0, sizeof(text)};
        }
        case IOCTL_GET_RFBOARD_DISCONNECT:
            return {settings_.rf_level, 0};
        case IOCTL_GET_NUM_LOG_DUMP: {
            auto num = load<cp_log_dump_num>(in);
            auto it = settings_.region_counts.find(num.idx);
            num.num_dump =
                it == settings_.region_counts.end() ? settings_.region_default_count : it->second;
            std::memcpy(out, &num, sizeof(num));
            note_ = "num_dump=" + std::to_string(num.num_dump);
            return {0, sizeof(num)};
        }
        case IOCTL_GET_BTL_SIZE:
            if (arg == 0 || !user.write(arg, &btl_size_, sizeof(btl_size_))) {
                return {-EFAULT, 0};
            }
            note_ = "size=" + std::to_string(btl_size_);
            return {0, 0};
        case IOCTL_SET_BTL_SIZE:
            btl_size_ = load<int32_t>(in);
            return {0, 0};
        default:
            return {-ENOTTY, 0};
    }
}

IoctlOutcome Modem::load_image(const void* in, UserMemory& user) {
    auto img = load<cp_image>(in);
    if (!facts_.power) {
        note_ = "cp-not-powered";
        return {-EIO, 0};
    }
    if (static_cast<uint64_t>(img.m_offset) + img.len > memory_size_) {
        note_ = "out-of-range";
        return {-EINVAL, 0};
    }
    if (img.len > 0 && !user.read(img.image_buf, memory_ + img.m_offset, img.len)) {
        note_ = "bad-buffer";
        return {-EFAULT, 0};
    }
    facts_.image_bytes += img.len;
    if (img.m_offset >= settings_.image_mark_from && img.m_offset < settings_.image_mark_to) {
        note_bulk(Bulk::Image, img.len);
    }
    return {0, 0};
}

IoctlOutcome Modem::get_srinfo(uint64_t arg, UserMemory& user) {
    uint32_t room = 0;
    if (arg == 0 || !user.read(arg, &room, sizeof(room))) {
        return {-EFAULT, 0};
    }
    room = std::min(room, kSrinfoRoom);
    srinfo_block block{};
    const char header[16] = {'V', 'M', 'S', 'R', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    std::memcpy(block.data, header, sizeof(header));
    uint32_t fetch = static_cast<uint32_t>(++facts_.srinfo_fetches);
    std::memcpy(block.data + 4, &fetch, 4);
    const std::string& text = settings_.srinfo_text;
    std::memcpy(block.data + 16, text.data(), std::min<size_t>(text.size(), kSrinfoRoom - 16));
    if (settings_.srinfo_marker) {
        std::memcpy(block.data + kSrinfoMarkerOffset, &*settings_.srinfo_marker, 4);
    }
    block.len = std::min<uint32_t>(static_cast<uint32_t>(16 + text.size()), room);
    std::memset(block.data + block.len, 0, kSrinfoRoom - block.len);
    if (!user.write(arg, &block, 4 + room)) {
        return {-EFAULT, 0};
    }
    note_ = "len=" + std::to_string(block.len) + " marker=0x" + [&] {
        char hex[16];
        snprintf(hex, sizeof(hex), "%08X", load<uint32_t>(block.data + 18));
        return std::string(hex);
    }();
    return {0, 0};
}

IoctlOutcome Modem::set_srinfo(uint64_t arg, UserMemory& user) {
    srinfo_block block{};
    if (arg == 0 || !user.read(arg, &block.len, sizeof(block.len))) {
        return {-EFAULT, 0};
    }
    if (block.len > kSrinfoRoom) {
        note_ = "len=" + std::to_string(block.len) + " too-long";
        return {-EINVAL, 0};
    }
    if (!user.read(arg + 4, block.data, block.len)) {
        return {-EFAULT, 0};
    }
    ++facts_.srinfo_restores;
    facts_.srinfo_restored = escape(reinterpret_cast<const char*>(block.data), block.len);
    note_ = "len=" + std::to_string(block.len);
    return {0, 0};
}

IoctlOutcome Modem::enter_upload(uint64_t arg, UserMemory& user) {
    if (arg == 0) {
        return {-EFAULT, 0};
    }
    char text[kCrashReasonTextSize] = {};
    size_t got = 0;
    if (user.read(arg, text, sizeof(text))) {
        got = sizeof(text);
    } else {
        // The text may end right before an unmapped page: take it byte by byte.
        while (got < sizeof(text) && user.read(arg + got, text + got, 1) && text[got] != '\0') {
            ++got;
        }
    }
    size_t len = strnlen(text, got);
    ++facts_.upload_count;
    facts_.upload_text = escape(text, len);
    note_ = "text=\"" + escape(text, len) + "\"";
    return {0, 0};
}

IoctlOutcome Modem::get_log_dump(const void* in, void* out) {
    auto info = load<cp_log_dump_info>(in);
    std::string name(info.name, strnlen(info.name, sizeof(info.name)));
    auto it = settings_.region_sizes.find(name);
    info.size = it == settings_.region_sizes.end() ? settings_.region_default_size : it->second;
    auto& q = queue(Node::Dump);
    std::erase_if(q, [](const Message& m) { return m.kind == Message::Region; });
    if (info.size > 0) {
        Message m = Message::make(Message::Region);
        m.total = info.size;
        m.seed = payload::stream_seed(settings_.dump_seed, name);
        m.name = escape(name.data(), name.size());
        q.push_back(std::move(m));
    }
    std::memcpy(out, &info, sizeof(info));
    note_ = "size=" + std::to_string(info.size);
    return {0, sizeof(info)};
}

// ---------------------------------------------------------------- words

int64_t Modem::write(Node node, const void* data, size_t len) {
    if (node == Node::Memshare || len < 4) {
        trace_.line("write %s %zu-bytes -> %d", node_name(node), len, -EINVAL);
        return -EINVAL;
    }
    uint32_t word = load<uint32_t>(data);
    note_.clear();
    if (node == Node::Boot) {
        boot_word(word);
    } else {
        dump_word(word);
    }
    trace_.line("write %s 0x%08X%s%s", node_name(node), word, note_.empty() ? "" : " ",
                note_.c_str());
    return static_cast<int64_t>(len);
}

// Queues the answer to `word`, or the scenario's wrong answer. Returns false
// when the scenario silences the CP for this word.
bool Modem::answer_override(Node node, uint32_t word) {
    auto it = settings_.answers.find(word);
    if (it == settings_.answers.end()) {
        return true;
    }
    if (!it->second) {
        note_ = "ignored=no-answer";
        return false;
    }
    queue(node).push_back(Message::make(Message::Word, *it->second));
    note_ = "wrong-answer";
    return true;
}

void Modem::boot_word(uint32_t word) {
    if (facts_.loader != Loader::Normal || hangup_) {
        note_ = "ignored=no-boot-loader";
        return;
    }
    bool known = word == udl::stage_done_request(udl::kStageHandshake) ||
                 word == udl::stage_start_request(udl::kStageFinish);
    if (!known) {
        note_ = "ignored=unknown-word";
        return;
    }
    bool overridden = settings_.answers.count(word) != 0;
    if (!answer_override(Node::Boot, word)) {
        return;
    }
    if (word == udl::stage_done_request(udl::kStageHandshake)) {
        facts_.handshake_done = true;
    } else {
        facts_.finish_done = true;
    }
    if (!overridden) {
        queue(Node::Boot)
            .push_back(Message::make(Message::Word, (word & 0x0FFFu) | udl::kResponse));
    }
}

void Modem::dump_word(uint32_t word) {
    if (facts_.loader != Loader::Dump) {
        note_ = "ignored=no-dump-loader";
        return;
    }
    auto& q = queue(Node::Dump);
    const uint32_t start = udl::stage_start_request(udl::kStageDump);
    const uint32_t done = udl::stage_done_request(udl::kStageDump);
    bool overridden = settings_.answers.count(word) != 0;
    if (word == start) {
        if (!answer_override(Node::Dump, word)) {
            return;
        }
        if (!overridden) {
            q.push_back(Message::make(Message::Word, udl::stage_start_response(udl::kStageDump)));
        }
        q.push_back(Message::make(Message::Info));
        q.push_back(Message::make(Message::Reason));
        dump_stage_open_ = true;
        step13_served_ = false;
        return;
    }
    if (!dump_stage_open_) {
        note_ = "ignored=stage-not-open";
        return;
    }
    uint32_t step = word & 0xFF;
    bool is_done = word == done && (settings_.dump_steps < 13 || step13_served_);
    if (is_done) {
        if (!answer_override(Node::Dump, word)) {
            return;
        }
        if (!overridden) {
            q.push_back(Message::make(Message::Word, udl::stage_done_response(udl::kStageDump)));
        }
        dump_stage_open_ = false;
        facts_.dump_done = true;
        return;
    }
    if ((word & ~0xFFu) != start || step == 0 || step > settings_.dump_steps) {
        note_ = "ignored=no-such-step";
        return;
    }
    if (!answer_override(Node::Dump, word)) {
        return;
    }
    step13_served_ = step13_served_ || step == 13;
    Message m = Message::make(Message::Frames, step);
    q.push_back(m);
}

// ---------------------------------------------------------------- uploads

uint32_t Modem::step_bytes(uint32_t step) const {
    uint32_t steps = settings_.dump_steps;
    if (steps == 0 || step == 0 || step > steps) {
        return 0;
    }
    uint32_t base = settings_.dump_size / steps;
    return step < steps ? base : settings_.dump_size - base * (steps - 1);
}

uint64_t Modem::step_offset(uint32_t step) const {
    uint32_t steps = settings_.dump_steps;
    return steps == 0 ? 0 : uint64_t(settings_.dump_size / steps) * (step - 1);
}

uint32_t Modem::step_frames(uint32_t step) const {
    uint32_t bytes = step_bytes(step);
    uint32_t fp = settings_.frame_payload;
    return bytes == 0 ? 1 : (bytes + fp - 1) / fp;
}

uint32_t Modem::reason_len() const {
    return settings_.info_reason_len ? *settings_.info_reason_len
                                     : static_cast<uint32_t>(settings_.dump_reason.size());
}

int64_t Modem::read_reason(uint8_t* buf, size_t len) {
    size_t n = std::min<size_t>(reason_len(), len);
    const std::string& text = settings_.dump_reason;
    for (size_t i = 0; i < n; ++i) {
        buf[i] = i < text.size() ? static_cast<uint8_t>(text[i]) : '.';
    }
    trace_.line("read dump REASON reason_len=%u -> %zu", reason_len(), n);
    return static_cast<int64_t>(n);
}

int64_t Modem::read_frame(Message& m, uint8_t* buf, size_t len, bool& finished) {
    const uint32_t step = m.word;
    const uint32_t frames = step_frames(step);
    uint32_t f = m.next_frame;
    while (f <= frames && settings_.frame_skip.count({step, f})) {
        ++f;
    }
    if (f > frames) {
        finished = true;
        return -EAGAIN;
    }
    const uint32_t fp = settings_.frame_payload;
    const uint32_t actual = std::min(fp, step_bytes(step) - (f - 1) * fp);
    udl::ul_frame_header h{};
    auto cmd = settings_.frame_command.find(step);
    h.command = cmd == settings_.frame_command.end() ? udl::dump_step_command(step) : cmd->second;
    h.num_frames = frames;
    h.curr_frame = f;
    auto field = settings_.frame_size_field.find({step, f});
    h.size = field == settings_.frame_size_field.end() ? actual : field->second;

    size_t n = std::min(len, udl::kFrameHeaderSize + actual);
    std::memcpy(buf, &h, std::min(len, udl::kFrameHeaderSize));
    if (n > udl::kFrameHeaderSize) {
        payload::fill(settings_.dump_seed, step_offset(step) + uint64_t(f - 1) * fp,
                      buf + udl::kFrameHeaderSize, n - udl::kFrameHeaderSize);
    }
    // A step whose remaining frames are all skipped ends here, so that
    // poll never reports POLLIN for a message with nothing left to read.
    uint32_t next = f + 1;
    while (next <= frames && settings_.frame_skip.count({step, next})) {
        ++next;
    }
    m.next_frame = next;
    finished = next > frames;
    note_bulk(Bulk::Frame, n > udl::kFrameHeaderSize ? n - udl::kFrameHeaderSize : 0);
    trace_.line("read dump FRAME step=%u frame=%u/%u size=%u command=0x%04X -> %zu", step, f,
                frames, h.size, h.command, n);
    return static_cast<int64_t>(n);
}

int64_t Modem::read_region(Message& m, uint8_t* buf, size_t len, bool& finished) {
    if (settings_.region_zero_reads) {
        trace_.line("read dump REGION name=%s offset=%llu -> 0 zero-read", m.name.c_str(),
                    static_cast<unsigned long long>(m.done));
        finished = false;
        return 0;
    }
    size_t n = static_cast<size_t>(
        std::min<uint64_t>({uint64_t{len}, uint64_t{settings_.region_chunk}, m.total - m.done}));
    payload::fill(m.seed, m.done, buf, n);
    trace_.line("read dump REGION name=%s offset=%llu -> %zu", m.name.c_str(),
                static_cast<unsigned long long>(m.done), n);
    m.done += n;
    finished = m.done >= m.total;
    note_bulk(Bulk::Region, n);
    return static_cast<int64_t>(n);
}

int64_t Modem::read(Node node, uint8_t* buf, size_t len) {
    auto& q = queue(node);
    while (!q.empty()) {
        Message& m = q.front();
        bool finished = true;
        int64_t n = 0;
        switch (m.kind) {
            case Message::Word: {
                n = static_cast<int64_t>(std::min<size_t>(4, len));
                std::memcpy(buf, &m.word, static_cast<size_t>(n));
                trace_.line("read %s 0x%08X%s", node_name(node), m.word, n < 4 ? " short" : "");
                break;
            }
            case Message::Info: {
                udl::ul_info info{};
                info.dump_size =
                    static_cast<uint32_t>(settings_.dump_size + settings_.info_dump_size_delta);
                info.num_steps = settings_.info_num_steps.value_or(settings_.dump_steps);
                info.reason_len = reason_len();
                n = static_cast<int64_t>(std::min(len, sizeof(info)));
                std::memcpy(buf, &info, static_cast<size_t>(n));
                trace_.line("read dump INFO dump_size=%u num_steps=%u reason_len=%u -> %lld",
                            info.dump_size, info.num_steps, info.reason_len,
                            static_cast<long long>(n));
                break;
            }
            case Message::Reason:
                n = read_reason(buf, len);
                break;
            case Message::Frames:
                n = read_frame(m, buf, len, finished);
                break;
            case Message::Region:
                n = read_region(m, buf, len, finished);
                break;
        }
        if (finished) {
            q.pop_front();
        }
        if (n != -EAGAIN) {
            return n;
        }
    }
    return -EAGAIN;
}

}  // namespace vmodem
