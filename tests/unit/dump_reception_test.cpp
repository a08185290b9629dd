// Receiving the CP's crash dump over the dump node: INFO, REASON and the
// steps' frames from a CP played by a thread over a socket pair, into real
// dump, info and dump-log files.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "boot/boot_dump.h"
#include "core/rix.h"
#include "cp_peer.h"
#include "dump/crash_reason.h"
#include "dump/protocol.h"
#include "dump/udl.h"
#include "log/log.h"
#include "rix_test.h"

namespace {

using cp_peer::Bytes;
using cp_peer::CpPeer;
using cp_peer::frame;
using cp_peer::info;
using cp_peer::le;
using cp_peer::pattern;

// Sees what reception hands to the crash-reason step; optionally puts a known
// text in its place, since the driver's request cannot succeed on a socket.
class ReasonSpy : public ProtocolTarn {
  public:
    void make_cp_crash_reason(char* reason) override {
        ++calls;
        seen.assign(reason, strnlen(reason, sizeof(std_dump::reason)));
        if (text.empty()) {
            ProtocolTarn::make_cp_crash_reason(reason);
        } else {
            snprintf(crash_reason, kCrashReasonMax, "%s", text.c_str());
        }
    }
    int calls = 0;
    std::string seen;
    std::string text;
};

std::string as_text(const Bytes& b) {
    return std::string(b.begin(), b.end());
}

// Kernel log lines of the given texts, one per line.
std::string klog(const std::string& lines) {
    std::string out;
    for (size_t at = 0, end; at < lines.size(); at = end + 1) {
        end = lines.find('\n', at);
        const std::string line = lines.substr(at, end + 1 - at);
        out += (line.rfind("(ERR! ", 0) == 0 ? "<3>" : "<6>") + std::string("cpif: rix: ") + line;
    }
    return out;
}

// What one step's frames put in the dump log.
std::string step_lines(uint32_t n, uint32_t frames, const std::string& saved) {
    const std::string s = "std_ul_recv_data: [step " + std::to_string(n) + "] ";
    char cmd[16];
    snprintf(cmd, sizeof(cmd), "0xAD%02X", n);
    return s + "num_frames = " + std::to_string(frames) + "\n" + s + "command = " + cmd + "\n" +
           (saved.empty() ? "" : s + "saved = " + saved + "\n");
}

const std::string kInfoSaved = "std_ul_recv_info: DUMP INFO saved\n";
const std::string kDataSaved = "std_dump_receive_cp_dump: DUMP DATA saved\n";

class DumpReceptionTest : public RixTest {
  protected:
    void SetUp() override {
        RixTest::SetUp();
        ASSERT_EQ(parse({"-t", "vm420"}), 0);
        Container::protocol = spy_ = new ReasonSpy();
        d_ = Container::getStdDump();
        memset(d_, 0, sizeof(*d_));
        d_->fd = d_->log_fd = d_->info_fd = d_->dump_fd = -1;
        debug_level = DBG_MID;
        reset();
    }

    void TearDown() override {
        cp_.reset();
        for (int fd : {d_->fd, d_->log_fd, d_->info_fd, d_->dump_fd}) {
            if (fd >= 0) {
                close(fd);
            }
        }
        d_->fd = d_->log_fd = d_->info_fd = d_->dump_fd = -1;
        RixTest::TearDown();
    }

    // A fresh dump node, empty logs, new files, and the reason field as the
    // dump sequence leaves it: zeroed, prefix written.
    void reset() {
        int sv[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv), 0);
        if (d_->fd >= 0) {
            close(d_->fd);
        }
        d_->fd = sv[0];
        cp_ = std::make_unique<CpPeer>(sv[1]);
        clear_logs();
        for (auto [fd, name] : {std::pair{&d_->log_fd, "log"}, std::pair{&d_->info_fd, "info"},
                                std::pair{&d_->dump_fd, "dump"}}) {
            if (*fd >= 0) {
                close(*fd);
            }
            *fd = open(path(name).c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
            ASSERT_GE(*fd, 3);
        }
        memset(d_->reason, 0, sizeof(d_->reason));
        strcpy(d_->reason, "UMTS: ");
        spy_->calls = 0;
    }

    std::string path(const std::string& name) const { return dir_ + "/cpcrash_" + name; }
    std::string file(const std::string& name) const { return read_file(path(name)); }

    // START answered, INFO and REASON sent.
    CpPeer& opened(uint32_t dump_size, uint32_t num_steps, const std::string& reason,
                   uint32_t reason_len = UINT32_MAX) {
        if (reason_len == UINT32_MAX) {
            reason_len = static_cast<uint32_t>(reason.size());
        }
        return cp_->take()
            .give(le(0xAD00))
            .give(info(dump_size, num_steps, reason_len))
            .give(Bytes(reason.begin(), reason.end()));
    }

    // One step of well-formed frames with the given payload sizes; their
    // payload is appended to `expect`.
    void step(uint32_t n, const std::vector<uint32_t>& sizes, Bytes& expect) {
        cp_->take();
        const uint32_t count = static_cast<uint32_t>(sizes.size());
        for (uint32_t i = 0; i < count; ++i) {
            Bytes p = pattern(n, i + 1, sizes[i]);
            cp_->give(frame(0xAD00 | n, count, i + 1, sizes[i], p));
            expect.insert(expect.end(), p.begin(), p.end());
        }
    }

    int receive() {
        cp_->start();
        int ret = Container::protocol->std_dump_receive_cp_dump();
        cp_->stop();
        return ret;
    }

    ReasonSpy* spy_ = nullptr;
    std_dump* d_ = nullptr;
    std::unique_ptr<CpPeer> cp_;
};

TEST_F(DumpReceptionTest, WholeDumpIsByteExactAndOnlyMarkedLinesReachTheDumpLog) {
    // Whatever the fields held before: the reason is terminated right behind
    // what the CP sent, and a crash reason the driver cannot give is cleared.
    memset(d_->reason + 7, 'Z', sizeof(d_->reason) - 7);
    snprintf(crash_reason, kCrashReasonMax, "%s", ": stale text");
    Bytes expect;
    opened(16384 * 3 + 100 + 5000 + 1, 2, "boom");
    step(1, {16384, 16384, 100}, expect);
    step(2, {5000, 16384, 1}, expect);
    cp_->take().give(le(0xAD0D));

    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(cp_->words(), (std::vector<uint32_t>{0x9D00, 0x9D01, 0x9D02, 0x9D0D}));
    EXPECT_EQ(file("dump"), as_text(expect));
    // The crash-reason step got the prefix with the CP's words behind it; the
    // driver cannot answer on a socket, so the info file gets an empty text.
    EXPECT_EQ(spy_->seen, "UMTS: boom");
    EXPECT_EQ(crash_reason[0], '\0');
    EXPECT_EQ(file("info"), "");

    const std::string step1 = step_lines(1, 3, "32868");
    const std::string step2 = step_lines(2, 3, "21385");
    EXPECT_EQ(file("log"), kInfoSaved + step1 + step2 + kDataSaved);
    EXPECT_EQ(kmsg(), klog("std_udl_req_resp: request:0x00009D00\n"
                           "std_ul_recv_info: dump_size = 54253\n"
                           "std_ul_recv_info: num_steps = 2\n"
                           "std_ul_recv_info: reason_len = 4\n"
                           "(ERR! Inappropriate ioctl for device) make_cp_crash_reason: ERR! "
                           "IOCTL_GET_CP_CRASH_REASON fail\n" +
                           kInfoSaved + "std_udl_req_resp: request:0x00009D01\n" + step1 +
                           "std_udl_req_resp: request:0x00009D02\n" + step2 + kDataSaved +
                           "std_udl_req_resp: request:0x00009D0D\n"));
}

TEST_F(DumpReceptionTest, EveryOneOfTwoHundredFiftyFiveStepsIsRequestedStepThirteenToo) {
    Bytes expect;
    uint32_t total = 0;
    std::vector<uint32_t> want = {0x9D00};
    for (uint32_t n = 1; n <= 255; ++n) {
        total += n % 3;
        want.push_back(0x9D00 | n);
    }
    want.push_back(0x9D0D);
    opened(total, 255, "r");
    for (uint32_t n = 1; n <= 255; ++n) {
        step(n, {n % 3}, expect);
    }
    cp_->take().give(le(0xAD0D));

    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(cp_->words(), want);
    EXPECT_EQ(file("dump"), as_text(expect));
    // Step 13's request is the stage's DONE word; its frames carry 0xAD0D.
    EXPECT_NE(file("log").find(step_lines(13, 1, "1")), std::string::npos);
}

TEST_F(DumpReceptionTest, MoreThanTwoHundredFiftyFiveStepsRejectTheInfo) {
    opened(0, 256, "boom");
    cp_->start();
    EXPECT_EQ(Container::protocol->std_dump_receive_cp_dump(), -14);
    cp_->join();
    EXPECT_EQ(cp_->words(), (std::vector<uint32_t>{0x9D00}));
    // The REASON message was never read.
    char buf[16] = {};
    EXPECT_EQ(recv(d_->fd, buf, sizeof(buf), MSG_DONTWAIT), 4);
    EXPECT_EQ(spy_->calls, 0);
    const std::string err = "std_ul_recv_info: ERR! invalid num_steps 256\n";
    EXPECT_EQ(file("log"), err + "std_dump_receive_cp_dump: ERR! std_ul_recv_info fail\n");
    EXPECT_NE(kmsg().find(klog("std_ul_recv_info: num_steps = 256\n"
                               "std_ul_recv_info: reason_len = 4\n" +
                               err)),
              std::string::npos);
}

TEST_F(DumpReceptionTest, EveryFailureBeforeDoneEndsTheReceptionWithItsOwnLines) {
    const std::string data_fail = "std_dump_receive_cp_dump: ERR! std_ul_recv_data fail\n";
    const std::string rx_fail = "std_ul_recv_data: ERR! [step 1] std_ul_rx_frame fail (ret -14)\n";
    const std::string frame_fail = kInfoSaved + step_lines(1, 1, "") + rx_fail + data_fail;
    // Receives what the CP was told to send, checks, and starts afresh.
    auto fails = [&](const char* what, const std::vector<uint32_t>& words, int reason_calls,
                     const std::string& log, const Bytes& dump = {}) {
        SCOPED_TRACE(what);
        EXPECT_EQ(receive(), -14);
        EXPECT_EQ(cp_->words(), words);
        EXPECT_EQ(spy_->calls, reason_calls);
        EXPECT_EQ(file("log"), log);
        EXPECT_EQ(file("dump"), as_text(dump));
        reset();
    };
    cp_->take().give(le(0xAD01));
    fails("wrong START answer", {0x9D00}, 0,
          "std_dump_receive_cp_dump: ERR! std_udl_stage_start fail\n");
    opened(0, 0, "x").take().give(le(0xAD0E));
    fails(
        "wrong DONE answer", {0x9D00, 0x9D0D}, 1,
        kInfoSaved + kDataSaved + "std_dump_receive_cp_dump: ERR! DUMP std_udl_stage_done fail\n");
    opened(5, 0, "x");
    fails("counts that do not add up", {0x9D00}, 1,
          kInfoSaved + "std_dump_receive_cp_dump: ERR! saved 0 != dump_size 5\n");
    opened(100, 1, "x").take().give(frame(0xAD01, 1, 1, 16385, Bytes(16384, 0xAA)));
    fails("frame size above a frame's payload", {0x9D00, 0x9D01}, 1, frame_fail);
    opened(100, 1, "x").take().give(frame(0xAD01, 1, 1, 101, Bytes(100, 0xAA)));
    fails("frame size above what the read returned", {0x9D00, 0x9D01}, 1, frame_fail);
    opened(100, 1, "x").take().give(Bytes{0x01, 0xAD, 0, 0, 1, 0, 0, 0, 1, 0});
    fails("read shorter than a frame header", {0x9D00, 0x9D01}, 1,
          kInfoSaved + rx_fail + data_fail);
    // The command is judged before the size: a frame of another step whose
    // size also lies is refused for its command.
    opened(100, 1, "x").take().give(frame(0xAD02, 1, 1, 16385, Bytes(100, 0xAA)));
    fails("frame of another step with a lying size", {0x9D00, 0x9D01}, 1,
          kInfoSaved + "std_ul_recv_data: ERR! [step 1] cmd 0xAD02 != exp 0xAD01\n" + data_fail);
    // Frames past the announced size are not written: step 2's frame would
    // take the total from 60 to 110.
    const Bytes first = pattern(1, 1, 60);
    opened(100, 2, "x").take().give(frame(0xAD01, 1, 1, 60, first));
    cp_->take().give(frame(0xAD02, 1000, 1, 50, pattern(2, 1, 50)));
    fails("frames past the announced size", {0x9D00, 0x9D01, 0x9D02}, 1,
          kInfoSaved + step_lines(1, 1, "60") + step_lines(2, 1000, "") +
              "std_ul_recv_data: ERR! [step 2] total 110 would pass dump_size 100\n" + data_fail,
          first);
    const Bytes step1 = pattern(1, 1, 10);
    opened(20, 2, "x").take().give(frame(0xAD01, 1, 1, 10, step1));
    cp_->take().give(frame(0xAD03, 1, 1, 10, pattern(3, 1, 10)));
    fails("frame of another step", {0x9D00, 0x9D01, 0x9D02}, 1,
          kInfoSaved + step_lines(1, 1, "10") +
              "std_ul_recv_data: ERR! [step 2] cmd 0xAD03 != exp 0xAD02\n" + data_fail,
          step1);

    // Frames 1, 2, 4: frame 4's payload is not written and its whole read
    // stands for what step 1 saved; the counts then do not add up.
    Bytes expect;
    opened(2010, 2, "x").take();
    for (uint32_t seq : {1u, 2u, 4u}) {
        Bytes p = pattern(1, seq, 1000);
        cp_->give(frame(0xAD01, 5, seq, 1000, p));
        expect.insert(expect.end(), p.begin(), p.begin() + (seq == 4 ? 0 : 1000));
    }
    step(2, {10}, expect);
    fails("frame out of sequence", {0x9D00, 0x9D01, 0x9D02}, 1,
          kInfoSaved + step_lines(1, 5, "") +
              "std_ul_recv_data: ERR! [step 1] curr_frame 4 != seqn 3\n" + step_lines(2, 1, "10") +
              "std_dump_receive_cp_dump: ERR! saved 1026 != dump_size 2010\n",
          expect);
}

TEST_F(DumpReceptionTest, OutOfSequenceFrameCountsItsWholeReadAsWhatTheStepSaved) {
    // Frame 3's read (header included) replaces what the step had saved
    // before; when the CP's count happens to match, the dump completes. Its
    // size field lies too, which does not matter: nothing of it is written.
    const Bytes p1 = pattern(1, 1, 1000);
    opened(1016, 1, "x").take().give(frame(0xAD01, 3, 1, 1000, p1));
    cp_->give(frame(0xAD01, 3, 3, 60000, pattern(1, 3, 1000))).take().give(le(0xAD0D));
    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(cp_->words(), (std::vector<uint32_t>{0x9D00, 0x9D01, 0x9D0D}));
    EXPECT_EQ(file("dump"), as_text(p1));
}

TEST_F(DumpReceptionTest, AnnouncedReasonLongerThanTheFieldIsCutToTheRoomLeft) {
    // The prefix "UMTS: " leaves 505 bytes and a terminator in the field.
    spy_->text = ": CP Crash by CP - whatever";
    opened(0, 0, std::string(600, 'r'), 100000).take().give(le(0xAD0D));
    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(spy_->seen, "UMTS: " + std::string(505, 'r'));
    EXPECT_EQ(d_->reason[511], '\0');
    EXPECT_EQ(d_->reason_len, 100000u);
    EXPECT_EQ(file("info"), ": CP Crash by CP - whatever");
    EXPECT_EQ(file("log"), "std_ul_recv_info: ERR! reason_len 100000 > 505, truncated\n" +
                               kInfoSaved + kDataSaved);

    // Exactly the room left is no truncation.
    reset();
    opened(0, 0, std::string(505, 's')).take().give(le(0xAD0D));
    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(spy_->seen, "UMTS: " + std::string(505, 's'));
    EXPECT_EQ(kmsg().find("truncated"), std::string::npos);
}

TEST_F(DumpReceptionTest, AtDebugLevelLowNothingGoesToTheInfoFile) {
    debug_level = DBG_LOW;
    spy_->text = ": CP Crash by CP - x";
    opened(0, 0, "x").take().give(le(0xAD0D));
    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(spy_->calls, 1);
    EXPECT_EQ(file("info"), "");
    EXPECT_EQ(kmsg().find("DUMP INFO saved"), std::string::npos);
}

TEST_F(DumpReceptionTest, FailedInfoOrDumpFileWriteOrFlushEndsTheReception) {
    // A read-only descriptor refuses the write; a pipe takes it but cannot be flushed.
    int reader = -1;
    auto replace = [&](int& fd, const char* name, bool pipe) {
        reset();
        close(fd);
        int p[2] = {-1, -1};
        ASSERT_TRUE(!pipe || pipe2(p, O_CLOEXEC) == 0);
        fd = pipe ? p[1] : open(path(name).c_str(), O_RDONLY | O_CLOEXEC);
        reader = p[0];
    };
    spy_->text = ": CP Crash by CP - x";
    const std::string info_fail = "std_dump_receive_cp_dump: ERR! std_ul_recv_info fail\n";
    replace(d_->info_fd, "info", false);
    opened(0, 0, "x");
    EXPECT_EQ(receive(), -1);
    EXPECT_EQ(file("log"),
              "(ERR! Bad file descriptor) std_ul_recv_info: ERR! REASON write fail\n" + info_fail);

    replace(d_->info_fd, "info", true);
    opened(0, 0, "x");
    EXPECT_EQ(receive(), -1);
    char got[64] = {};
    EXPECT_EQ(read(reader, got, sizeof(got)), 20);
    EXPECT_STREQ(got, ": CP Crash by CP - x");
    close(reader);
    EXPECT_EQ(
        file("log"),
        "(ERR! Invalid argument) std_ul_recv_info: ERR! fsync(info_fd) fail (-1)\n" + info_fail);

    // The same for the dump file, where a failed flush returns the negated errno.
    replace(d_->dump_fd, "dump", false);
    opened(10, 1, "x").take().give(frame(0xAD01, 1, 1, 10, pattern(1, 1, 10)));
    EXPECT_EQ(receive(), -1);
    EXPECT_NE(file("log").find("(ERR! Bad file descriptor) std_ul_recv_data: ERR! [step 1] seq# 1 "
                               "write fail\n"
                               "std_dump_receive_cp_dump: ERR! std_ul_recv_data fail\n"),
              std::string::npos);

    replace(d_->dump_fd, "dump", true);
    opened(10, 1, "x").take().give(frame(0xAD01, 1, 1, 10, pattern(1, 1, 10)));
    EXPECT_EQ(receive(), -EINVAL);
    close(reader);
    EXPECT_NE(kmsg().find(klog("(ERR! Invalid argument) std_dump_receive_cp_dump: ERR! "
                               "fsync(dump_fd) fail\n")),
              std::string::npos);
    EXPECT_EQ(kmsg().find("DUMP DATA saved"), std::string::npos);
}

TEST_F(DumpReceptionTest, EmptyReasonWithNothingToReadTimesOut) {
    // The one slow case: the REASON wait is the full 30 s poll.
    cp_->take().give(le(0xAD00)).give(info(0, 0, 0));
    EXPECT_EQ(receive(), -5);
    EXPECT_EQ(spy_->calls, 0);
    EXPECT_NE(kmsg().find("<6>cpif: rix: std_udl_poll: ERR! poll fail (events 0x1, TIMEOUT)\n"),
              std::string::npos);
    const std::string log = file("log");
    const std::string tail =
        ") std_ul_rx_frame: ERR! DUMP std_udl_poll fail\n"
        "std_ul_recv_info: ERR! REASON std_ul_rx_frame fail\n"
        "std_dump_receive_cp_dump: ERR! std_ul_recv_info fail\n";
    EXPECT_EQ(log.rfind("(ERR! ", 0), 0u) << log;
    ASSERT_GE(log.size(), tail.size());
    EXPECT_EQ(log.substr(log.size() - tail.size()), tail);
}

// The crash-reason text for every owner the driver may report.
TEST(CrashReasonText, EveryOwnerCodeGivesItsText) {
    const char cp[] = "UMTS: cp words";
    const char drv[kDriverReasonLen] = "driver words";
    const struct {
        std::vector<int32_t> owners;
        std::string text;
    } cases[] = {
        {{0, 13, 14, 15}, ": CP Crash by CP - UMTS: cp words"},
        {{1, 2, 3, 4, 9}, ": CP Crash by RIL - driver words"},
        {{5}, ": CP Crash by USER - driver words"},
        {{6, 7, 8, 10, 12}, ": CP Crash by CPIF - driver words"},
        {{11}, ": CP Crash by CP - CP WDOG Reset"},
        {{16}, ": CP Crash by CLD - driver words"},
        {{17}, ": CP Crash by (17)"},
        {{-1}, ": CP Crash by (-1)"},
        {{INT32_MIN}, ": CP Crash by (-2147483648)"},
        {{0x7FFFFFFF}, ": CP Crash by (2147483647)"},
    };
    for (const auto& c : cases) {
        for (int32_t owner : c.owners) {
            char out[kCrashReasonLen];
            memset(out, 'Q', sizeof(out));
            format_cp_crash_reason(out, kCrashReasonMax, owner, cp, drv);
            EXPECT_STREQ(out, c.text.c_str()) << "owner " << owner;
        }
    }
}

TEST(CrashReasonText, UnterminatedDriverTextAndLongTextsStayBounded) {
    // The driver fills its 512 bytes completely; what follows in memory is
    // not part of the text.
    struct {
        char text[kDriverReasonLen];
        char after[8];
    } rec;
    memset(rec.text, 'd', sizeof(rec.text));
    memcpy(rec.after, "AFTER!!", 8);
    char wide[2048];
    format_cp_crash_reason(wide, sizeof(wide), 1, "", rec.text);
    EXPECT_EQ(std::string(wide), ": CP Crash by RIL - " + std::string(kDriverReasonLen, 'd'));

    // Into the real buffer: at most 512 bytes with the terminator.
    char out[kCrashReasonLen];
    memset(out, 'Q', sizeof(out));
    format_cp_crash_reason(out, kCrashReasonMax, 1, "", rec.text);
    EXPECT_EQ(strlen(out), kCrashReasonMax - 1);
    EXPECT_EQ(out[kCrashReasonMax], 'Q');

    std::string cp = "UMTS: " + std::string(505, 'c');
    format_cp_crash_reason(out, kCrashReasonMax, 0, cp.c_str(), rec.text);
    EXPECT_EQ(std::string(out), (": CP Crash by CP - " + cp).substr(0, kCrashReasonMax - 1));
}

}  // namespace
