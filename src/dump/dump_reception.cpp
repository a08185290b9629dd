// Dump reception: the dump stage of the upload/download protocol from its
// START to its DONE. The CP first uploads INFO (sizes) and REASON (its own
// words on the crash), then the dump itself, step by step, one frame per read.
// Frames are streamed through one buffer: each payload is in the dump file
// before the next frame is read.
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "boot/boot_dump.h"
#include "core/rix.h"
#include "dump/crash_reason.h"
#include "dump/protocol.h"
#include "dump/udl.h"
#include "log/log.h"

namespace {

// INFO lands straight on these three consecutive words of the dump record.
static_assert(offsetof(std_dump, num_steps) == offsetof(std_dump, dump_size) + 4);
static_assert(offsetof(std_dump, reason_len) == offsetof(std_dump, dump_size) + 8);
static_assert(sizeof(udl::ul_info) == 12);

constexpr size_t kReasonLen = sizeof(std_dump::reason);

// The step name that the per-step lines carry.
constexpr char kRecvData[] = "std_ul_recv_data";

// Who crashed the CP, and whose text completes the line.
enum class ReasonText { Cp, Driver, None, OwnerNumber };
struct ReasonSource {
    const char* who;
    ReasonText text;
};

ReasonSource crash_source(int32_t owner) {
    switch (owner) {
        case 0:
        case 13:
        case 14:
        case 15:
            return {"CP", ReasonText::Cp};
        case 1:
        case 2:
        case 3:
        case 4:
        case 9:
            return {"RIL", ReasonText::Driver};
        case 5:
            return {"USER", ReasonText::Driver};
        case 6:
        case 7:
        case 8:
        case 10:
        case 12:
            return {"CPIF", ReasonText::Driver};
        case 11:
            return {"CP", ReasonText::None};
        case 16:
            return {"CLD", ReasonText::Driver};
        default:
            return {nullptr, ReasonText::OwnerNumber};
    }
}

// INFO and REASON. Every failure is returned negative; the caller adds the
// INFO failure line.
int std_ul_recv_info(Protocol& proto, std_dump& d) {
    char* info = reinterpret_cast<char*>(&d) + offsetof(std_dump, dump_size);
    int ret = proto.std_ul_rx_frame(info, sizeof(udl::ul_info));
    if (ret < 0) {
        LOGI_DUMP("ERR! INFO std_ul_rx_frame fail\n");
        return ret;
    }
    LOGI("dump_size = %d\n", static_cast<int>(d.dump_size));
    LOGI("num_steps = %d\n", static_cast<int>(d.num_steps));
    LOGI("reason_len = %d\n", static_cast<int>(d.reason_len));
    // The step number has 8 bits in the request word; a larger count would
    // request other stages.
    if (d.num_steps > udl::kMaxDumpSteps) {
        LOGI_DUMP("ERR! invalid num_steps %u\n", d.num_steps);
        return -14;
    }

    // REASON goes right behind the prefix, and the text must stay terminated
    // inside the field whatever length the CP announced.
    const size_t used = strnlen(d.reason, kReasonLen - 1);
    const size_t room = kReasonLen - used - 1;
    unsigned count = d.reason_len;
    if (count > room) {
        LOGI_DUMP("ERR! reason_len %u > %u, truncated\n", count, static_cast<unsigned>(room));
        count = static_cast<unsigned>(room);
    }
    ret = proto.std_ul_rx_frame(d.reason + used, count);
    if (ret < 0) {
        LOGI_DUMP("ERR! REASON std_ul_rx_frame fail\n");
        return ret;
    }
    // A read never returns more than asked; the terminator stays in the field
    // even if it did.
    const size_t got = static_cast<size_t>(ret) < count ? static_cast<size_t>(ret) : count;
    d.reason[used + got] = '\0';

    proto.make_cp_crash_reason(d.reason);
    if (debug_level == 0) {
        return 0;
    }
    if (d.info_fd >= 1) {
        ssize_t n = write(d.info_fd, crash_reason, strnlen(crash_reason, kCrashReasonLen));
        if (n < 0) {
            LOGE_DUMP("ERR! REASON write fail\n");
            return static_cast<int>(n);
        }
        ret = fsync(d.info_fd);
        if (ret != 0) {
            LOGE_DUMP("ERR! fsync(info_fd) fail (%d)\n", ret);
            return ret;
        }
    }
    LOGI_DUMP("DUMP INFO saved\n");
    return 0;
}

// A frame whose header did not arrive whole is a failed frame read: its
// command and sequence number would be what an earlier frame left behind.
int rx_frame(Protocol& proto, udl::std_ul_frame& frame) {
    int ret = proto.std_ul_rx_frame(&frame, sizeof(frame));
    if (ret >= 0 && static_cast<size_t>(ret) < udl::kFrameHeaderSize) {
        return -14;
    }
    return ret;
}

// The payload size may claim neither more than a frame holds nor more than
// the read returned; it is checked only where it matters, before the write.
bool payload_fits(const udl::ul_frame_header& h, int got) {
    return h.size <= udl::kMaxFramePayload &&
           h.size <= static_cast<size_t>(got) - udl::kFrameHeaderSize;
}

// One step: request it, then append its frames to the dump file. `prior` is
// what the earlier steps saved. The saved count is returned through `saved`;
// it is counted modulo 2^32 as the CP's sizes are, and a count that reads
// negative as int32 fails the step.
int recv_step(Protocol& proto, const std_dump& d, unsigned n, uint32_t prior,
              udl::std_ul_frame& frame, uint32_t& saved) {
    memset(&frame, 0, sizeof(frame));
    int ret = proto.std_udl_req_resp(OPERATION_DUMP, udl::dump_step_request(n), 0);
    if (ret < 0) {
        LOGI_DUMP_AS(kRecvData, "ERR! [step %d] start fail (ret %d)\n", n, ret);
        return ret;
    }
    saved = 0;
    uint32_t seqn = 1;
    for (;;) {
        ret = rx_frame(proto, frame);
        if (ret < 0) {
            LOGI_DUMP_AS(kRecvData, "ERR! [step %d] std_ul_rx_frame fail (ret %d)\n", n, ret);
            return ret;
        }
        const udl::ul_frame_header& h = frame.header;
        if (h.command != udl::dump_step_command(n)) {
            LOGI_DUMP_AS(kRecvData, "ERR! [step %d] cmd 0x%X != exp 0x%X\n", n, h.command,
                         udl::dump_step_command(n));
            return -14;
        }
        if (h.curr_frame != seqn) {
            // The step is given up without writing this payload; the raw read
            // count stands in for what the step saved.
            LOGI_DUMP_AS(kRecvData, "ERR! [step %d] curr_frame %d != seqn %d\n", n,
                         static_cast<int>(h.curr_frame), static_cast<int>(seqn));
            saved = static_cast<uint32_t>(ret);
            return 0;
        }
        if (seqn == 1) {
            LOGI_DUMP_AS(kRecvData, "[step %d] num_frames = %d\n", n,
                         static_cast<int>(h.num_frames));
            LOGI_DUMP_AS(kRecvData, "[step %d] command = 0x%X\n", n, h.command);
        }
        if (!payload_fits(h, ret)) {
            LOGI_DUMP_AS(kRecvData, "ERR! [step %d] std_ul_rx_frame fail (ret %d)\n", n, -14);
            return -14;
        }
        // A CP that keeps sending frames would otherwise fill the log
        // partition before the totals are compared at the end.
        const uint64_t total = uint64_t{prior} + saved + h.size;
        if (total > d.dump_size) {
            LOGI_DUMP_AS(kRecvData, "ERR! [step %d] total %llu would pass dump_size %u\n", n,
                         static_cast<unsigned long long>(total), d.dump_size);
            return -14;
        }
        ssize_t w = write(d.dump_fd, frame.payload, h.size);
        if (w < 0) {
            LOGE_DUMP_AS(kRecvData, "ERR! [step %d] seq# %d write fail\n", n,
                         static_cast<int>(h.curr_frame));
            return static_cast<int>(w);
        }
        saved += h.size;
        ++seqn;
        if (h.curr_frame >= h.num_frames) {
            LOGI_DUMP_AS(kRecvData, "[step %d] saved = %d\n", n, static_cast<int>(saved));
            return static_cast<int32_t>(saved) < 0 ? static_cast<int32_t>(saved) : 0;
        }
    }
}

// Every step in turn; the sum of what they saved goes to `total`. The frame
// buffer is the only place a frame ever occupies.
int std_ul_recv_data(Protocol& proto, const std_dump& d, uint32_t& total) {
    udl::std_ul_frame frame;
    total = 0;
    for (unsigned n = 1; n <= d.num_steps; ++n) {
        uint32_t saved = 0;
        int ret = recv_step(proto, d, n, total, frame, saved);
        if (ret < 0) {
            return ret;
        }
        total += saved;
    }
    return 0;
}

}  // namespace

void format_cp_crash_reason(char* out, size_t size, int32_t owner, const char* cp_text,
                            const char* driver_text) {
    const ReasonSource src = crash_source(owner);
    switch (src.text) {
        case ReasonText::Cp:
            snprintf(out, size, ": CP Crash by %s - %.*s", src.who, static_cast<int>(kReasonLen),
                     cp_text);
            break;
        case ReasonText::Driver:
            snprintf(out, size, ": CP Crash by %s - %.*s", src.who,
                     static_cast<int>(kDriverReasonLen), driver_text);
            break;
        case ReasonText::None:
            snprintf(out, size, ": CP Crash by %s - CP WDOG Reset", src.who);
            break;
        case ReasonText::OwnerNumber:
            snprintf(out, size, ": CP Crash by (%d)", static_cast<int>(owner));
            break;
    }
}

void Protocol::make_cp_crash_reason(char* reason) {
    cp_crash_reason rec;
    memset(&rec, 0, sizeof(rec));
    memset(crash_reason, 0, kCrashReasonMax);
    static_assert(sizeof(rec.reason) == kDriverReasonLen);

    const std_dump* d = Container::getStdDump();
    const int fd = d != nullptr ? d->fd : -1;
    if (ioctl(fd, IOCTL_GET_CP_CRASH_REASON, &rec) < 0) {
        LOGE("ERR! IOCTL_GET_CP_CRASH_REASON fail\n");
        return;
    }
    LOGI("reason owner:%d\n", static_cast<int>(rec.owner));
    format_cp_crash_reason(crash_reason, kCrashReasonMax, rec.owner, reason, rec.reason);
    LOGI("CP CRASH%s\n", crash_reason);
}

int ProtocolTarn::std_dump_receive_cp_dump() {
    std_dump* d = Container::getStdDump();
    if (d == nullptr) {
        // No controller, so no dump node and no files to receive into.
        return -22;
    }
    int ret = std_udl_stage_start(OPERATION_DUMP, udl::kStageDump);
    if (ret < 0) {
        LOGI_DUMP("ERR! std_udl_stage_start fail\n");
        return ret;
    }
    ret = std_ul_recv_info(*this, *d);
    if (ret < 0) {
        LOGI_DUMP("ERR! std_ul_recv_info fail\n");
        return ret;
    }
    uint32_t total = 0;
    ret = std_ul_recv_data(*this, *d, total);
    if (ret < 0) {
        LOGI_DUMP("ERR! std_ul_recv_data fail\n");
        return ret;
    }
    if (total != d->dump_size) {
        LOGI_DUMP("ERR! saved %d != dump_size %d\n", static_cast<int>(total),
                  static_cast<int>(d->dump_size));
        return -14;
    }
    if (fsync(d->dump_fd) != 0) {
        const int err = errno;
        LOGE_DUMP("ERR! fsync(dump_fd) fail\n");
        return -err;
    }
    LOGI_DUMP("DUMP DATA saved\n");
    ret = std_udl_stage_done(OPERATION_DUMP, udl::kStageDump);
    if (ret < 0) {
        LOGI_DUMP("ERR! DUMP std_udl_stage_done fail\n");
        return ret;
    }
    return 0;
}
