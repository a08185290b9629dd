// Receiving the CP's crash dump over the dump node: INFO, REASON and the
// steps' frames, queued by the CP on a socket pair, into real dump, info and
// dump-log files.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "boot/boot_dump.h"
#include "core/rix.h"
#include "cp_peer.h"
#include "dump/crash_reason.h"
#include "dump/protocol.h"
#include "log/log.h"
#include "rix_test.h"

namespace {

using cp_peer::Bytes;
using cp_peer::frame;
using cp_peer::le;
using cp_peer::pattern;
using Msgs = std::vector<Bytes>;
using Words = std::vector<uint32_t>;

Msgs operator+(Msgs a, const Msgs& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// START answered, INFO and REASON sent.
Msgs opened(uint32_t dump_size, uint32_t steps, const std::string& reason,
            uint32_t reason_len = UINT32_MAX) {
    const uint32_t len = reason_len == UINT32_MAX ? reason.size() : reason_len;
    return {le(0xAD00), cp_peer::info(dump_size, steps, len), Bytes(reason.begin(), reason.end())};
}

// One step of well-formed frames of the given payload sizes; their payload is
// appended to `expect`.
Msgs step(uint32_t n, const std::vector<uint32_t>& sizes, Bytes& expect) {
    Msgs out;
    for (uint32_t i = 0; i < sizes.size(); ++i) {
        const Bytes p = pattern(n, i + 1, sizes[i]);
        out.push_back(frame(0xAD00 | n, sizes.size(), i + 1, sizes[i], p));
        expect.insert(expect.end(), p.begin(), p.end());
    }
    return out;
}

// What one step's first frame (and its last, when saved) puts in the dump log.
std::string step_lines(uint32_t n, uint32_t frames, const std::string& saved) {
    const std::string s = "std_ul_recv_data: [step " + std::to_string(n) + "] ";
    char cmd[16];
    snprintf(cmd, sizeof(cmd), "0xAD%02X", n);
    return s + "num_frames = " + std::to_string(frames) + "\n" + s + "command = " + cmd + "\n" +
           (saved.empty() ? "" : s + "saved = " + saved + "\n");
}

const std::string kInfoSaved = "std_ul_recv_info: DUMP INFO saved\n";
const std::string kDataSaved = "std_dump_receive_cp_dump: DUMP DATA saved\n";
const std::string kInfoFail = "std_dump_receive_cp_dump: ERR! std_ul_recv_info fail\n";
const std::string kDataFail = "std_dump_receive_cp_dump: ERR! std_ul_recv_data fail\n";

// Sees what reception hands to the crash-reason step; optionally puts a known
// text in its place, since the driver's request cannot succeed on a socket.
class ReasonSpy : public ProtocolTarn {
  public:
    void make_cp_crash_reason(char* reason) override {
        seen.assign(reason, strnlen(reason, sizeof(std_dump::reason)));
        if (text.empty()) {
            ProtocolTarn::make_cp_crash_reason(reason);
        } else {
            snprintf(crash_reason, kCrashReasonMax, "%s", text.c_str());
        }
    }
    std::string seen = "<not called>";
    std::string text;
};

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
        close_files();
        d_->fd = -1;
        RixTest::TearDown();
    }
    void close_files() {
        for (int* fd : {&d_->log_fd, &d_->info_fd, &d_->dump_fd}) {
            close(*fd);
            *fd = -1;
        }
    }

    // A fresh node with `cp` queued, empty logs and files, and the reason
    // field as the dump sequence leaves it: zeroed, prefix written.
    void reset(const Msgs& cp = {}) {
        close_files();
        node_ = std::make_unique<cp_peer::Node>();
        d_->fd = node_->ap;
        for (const Bytes& m : cp) {
            node_->give(m);
        }
        clear_logs();
        d_->log_fd = open(path("log").c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        d_->info_fd = open(path("info").c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        d_->dump_fd = open(path("dump").c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        memset(d_->reason, 0, sizeof(d_->reason));
        strcpy(d_->reason, "UMTS: ");
        spy_->seen = "<not called>";
    }

    std::string path(const std::string& name) const { return dir_ + "/cpcrash_" + name; }
    std::string file(const std::string& name) const { return read_file(path(name)); }
    int receive() { return Container::protocol->std_dump_receive_cp_dump(); }

    ReasonSpy* spy_ = nullptr;
    std_dump* d_ = nullptr;
    std::unique_ptr<cp_peer::Node> node_;
};

TEST_F(DumpReceptionTest, WholeDumpIsByteExactAndOnlyMarkedLinesReachTheDumpLog) {
    // 255 steps, the most a request word names; step 13's request is the
    // stage's DONE word, and its frames carry 0xAD0D.
    Bytes expect;
    Msgs frames;
    Words words = {0x9D00};
    std::string log = kInfoSaved;
    for (uint32_t n = 1; n <= 255; ++n) {
        const std::vector<uint32_t> sizes = n == 1   ? std::vector<uint32_t>{16384, 16384, 100}
                                            : n == 2 ? std::vector<uint32_t>{5000, 16384, 1}
                                                     : std::vector<uint32_t>{n % 3};
        const size_t before = expect.size();
        frames = frames + step(n, sizes, expect);
        words.push_back(0x9D00 | n);
        log += step_lines(n, sizes.size(), std::to_string(expect.size() - before));
    }
    reset(opened(expect.size(), 255, "boom") + frames + Msgs{le(0xAD0D)});
    // Whatever the fields held before: the reason is terminated right behind
    // what the CP sent, and a crash reason the driver cannot give is cleared.
    memset(d_->reason + 7, 'Z', sizeof(d_->reason) - 7);
    snprintf(crash_reason, kCrashReasonMax, "%s", ": stale text");
    EXPECT_EQ(receive(), 0);
    words.push_back(0x9D0D);
    EXPECT_EQ(node_->words(), words);
    EXPECT_TRUE(file("dump") == std::string(expect.begin(), expect.end()));
    EXPECT_EQ(spy_->seen, "UMTS: boom");
    EXPECT_EQ(crash_reason[0], '\0');
    EXPECT_EQ(file("info"), "");
    EXPECT_EQ(file("log"), log + kDataSaved);
    // The crash-reason request failed on the socket, and the reception went on.
    EXPECT_NE(kmsg().find("<3>cpif: rix: (ERR! Inappropriate ioctl for device) "
                          "make_cp_crash_reason: ERR! IOCTL_GET_CP_CRASH_REASON fail\n"),
              std::string::npos);
}

TEST_F(DumpReceptionTest, EveryFailureBeforeDoneEndsTheReceptionWithItsOwnLines) {
    const std::string rx_fail = "std_ul_recv_data: ERR! [step 1] std_ul_rx_frame fail (ret -14)\n";
    const std::string frame_fail = kInfoSaved + step_lines(1, 1, "") + rx_fail + kDataFail;
    const Bytes p60 = pattern(1, 1, 60), p10 = pattern(1, 1, 10);
    Bytes seq;  // frames 1, 2 and 4 of step 1, then step 2
    Msgs out_of_seq;
    for (uint32_t n : {1u, 2u, 4u}) {
        const Bytes p = pattern(1, n, 1000);
        out_of_seq.push_back(frame(0xAD01, 5, n, 1000, p));
        seq.insert(seq.end(), p.begin(), p.begin() + (n == 4 ? 0 : 1000));
    }
    out_of_seq = out_of_seq + step(2, {10}, seq);
    const struct {
        const char* what;
        Msgs cp;
        int ret;
        Words words;
        std::string log;
        Bytes dump;
        int unread;
    } cases[] = {
        {"wrong START answer",
         {le(0xAD01)},
         -14,
         {0x9D00},
         "std_dump_receive_cp_dump: ERR! std_udl_stage_start fail\n",
         {},
         0},
        {"more steps than a request word names; REASON is not read",
         opened(0, 256, "boom"),
         -14,
         {0x9D00},
         "std_ul_recv_info: ERR! invalid num_steps 256\n" + kInfoFail,
         {},
         1},
        {"wrong DONE answer",
         opened(0, 0, "x") + Msgs{le(0xAD0E)},
         -14,
         {0x9D00, 0x9D0D},
         kInfoSaved + kDataSaved + "std_dump_receive_cp_dump: ERR! DUMP std_udl_stage_done fail\n",
         {},
         0},
        {"counts that do not add up",
         opened(5, 0, "x"),
         -14,
         {0x9D00},
         kInfoSaved + "std_dump_receive_cp_dump: ERR! saved 0 != dump_size 5\n",
         {},
         0},
        {"frame size above a frame's payload",
         opened(100, 1, "x") + Msgs{frame(0xAD01, 1, 1, 16385, Bytes(16384, 0xAA))},
         -14,
         {0x9D00, 0x9D01},
         frame_fail,
         {},
         0},
        {"frame size above what the read returned",
         opened(100, 1, "x") + Msgs{frame(0xAD01, 1, 1, 101, Bytes(100, 0xAA))},
         -14,
         {0x9D00, 0x9D01},
         frame_fail,
         {},
         0},
        {"read shorter than a frame header",
         opened(100, 1, "x") + Msgs{{0x01, 0xAD, 0, 0, 1, 0, 0, 0, 1, 0}},
         -14,
         {0x9D00, 0x9D01},
         kInfoSaved + rx_fail + kDataFail,
         {},
         0},
        // The command is judged before the size.
        {"frame of another step with a lying size",
         opened(100, 1, "x") + Msgs{frame(0xAD02, 1, 1, 16385, Bytes(100, 0xAA))},
         -14,
         {0x9D00, 0x9D01},
         kInfoSaved + "std_ul_recv_data: ERR! [step 1] cmd 0xAD02 != exp 0xAD01\n" + kDataFail,
         {},
         0},
        {"frame of a later step",
         opened(20, 2, "x") +
             Msgs{frame(0xAD01, 1, 1, 10, p10), frame(0xAD03, 1, 1, 10, pattern(3, 1, 10))},
         -14,
         {0x9D00, 0x9D01, 0x9D02},
         kInfoSaved + step_lines(1, 1, "10") +
             "std_ul_recv_data: ERR! [step 2] cmd 0xAD03 != exp 0xAD02\n" + kDataFail,
         p10,
         0},
        // Step 2's frame would take the total from 60 to 110: not written.
        {"frame past the announced size",
         opened(100, 2, "x") +
             Msgs{frame(0xAD01, 1, 1, 60, p60), frame(0xAD02, 1000, 1, 50, pattern(2, 1, 50))},
         -14,
         {0x9D00, 0x9D01, 0x9D02},
         kInfoSaved + step_lines(1, 1, "60") + step_lines(2, 1000, "") +
             "std_ul_recv_data: ERR! [step 2] total 110 would pass dump_size 100\n" + kDataFail,
         p60,
         0},
        // Frame 4's payload is not written and its whole read (1016 bytes)
        // stands for what step 1 saved.
        {"frame out of sequence",
         opened(2010, 2, "x") + out_of_seq,
         -14,
         {0x9D00, 0x9D01, 0x9D02},
         kInfoSaved + step_lines(1, 5, "") +
             "std_ul_recv_data: ERR! [step 1] curr_frame 4 != seqn 3\n" + step_lines(2, 1, "10") +
             "std_dump_receive_cp_dump: ERR! saved 1026 != dump_size 2010\n",
         seq,
         0},
        // ... and when the CP's count happens to match, the dump completes.
        {"frame out of sequence, counts matching",
         opened(1016, 1, "x") + Msgs{frame(0xAD01, 3, 1, 1000, pattern(1, 1, 1000)),
                                     frame(0xAD01, 3, 3, 60000, pattern(1, 3, 1000)), le(0xAD0D)},
         0,
         {0x9D00, 0x9D01, 0x9D0D},
         kInfoSaved + step_lines(1, 3, "") +
             "std_ul_recv_data: ERR! [step 1] curr_frame 3 != seqn 2\n" + kDataSaved,
         pattern(1, 1, 1000),
         0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        reset(c.cp);
        EXPECT_EQ(receive(), c.ret);
        EXPECT_EQ(node_->words(), c.words);
        EXPECT_EQ(file("log"), c.log);
        EXPECT_TRUE(file("dump") == std::string(c.dump.begin(), c.dump.end()));
        EXPECT_EQ(node_->unread(), c.unread);
    }
}

TEST_F(DumpReceptionTest, ReasonIsCutToTheRoomLeftAndKeptOnlyAtADebugLevel) {
    // The prefix "UMTS: " leaves 505 bytes and a terminator in the field.
    const struct {
        int level;
        std::string sent;
        uint32_t announced;
        std::string seen, info, log;
    } cases[] = {
        {DBG_MID, std::string(600, 'r'), 100000, "UMTS: " + std::string(505, 'r'), ": CP x",
         "std_ul_recv_info: ERR! reason_len 100000 > 505, truncated\n" + kInfoSaved + kDataSaved},
        {DBG_MID, std::string(505, 's'), 505, "UMTS: " + std::string(505, 's'), ": CP x",
         kInfoSaved + kDataSaved},
        {DBG_LOW, "x", 1, "UMTS: x", "", kDataSaved},
    };
    spy_->text = ": CP x";
    for (const auto& c : cases) {
        SCOPED_TRACE(c.announced);
        debug_level = c.level;
        reset(opened(0, 0, c.sent, c.announced) + Msgs{le(0xAD0D)});
        EXPECT_EQ(receive(), 0);
        EXPECT_EQ(spy_->seen, c.seen);
        EXPECT_EQ(d_->reason[511], '\0');
        EXPECT_EQ(d_->reason_len, c.announced);
        EXPECT_EQ(file("info"), c.info);
        EXPECT_EQ(file("log"), c.log);
    }
}

TEST_F(DumpReceptionTest, FailedInfoOrDumpFileWriteOrFlushEndsTheReception) {
    // A read-only descriptor refuses the write; a pipe takes it but cannot be
    // flushed. A failed flush of the dump file returns the negated errno.
    const Msgs one_frame = opened(10, 1, "x") + Msgs{frame(0xAD01, 1, 1, 10, pattern(1, 1, 10))};
    const struct {
        bool dump, pipe;
        Msgs cp;
        int ret;
        std::string log_end;
    } cases[] = {
        {false, false, opened(0, 0, "x"), -1,
         "(ERR! Bad file descriptor) std_ul_recv_info: ERR! REASON write fail\n" + kInfoFail},
        {false, true, opened(0, 0, "x"), -1,
         "(ERR! Invalid argument) std_ul_recv_info: ERR! fsync(info_fd) fail (-1)\n" + kInfoFail},
        {true, false, one_frame, -1,
         "(ERR! Bad file descriptor) std_ul_recv_data: ERR! [step 1] seq# 1 write fail\n" +
             kDataFail},
        {true, true, one_frame, -EINVAL,
         step_lines(1, 1, "10") +
             "(ERR! Invalid argument) std_dump_receive_cp_dump: ERR! fsync(dump_fd) fail\n"},
    };
    spy_->text = ": CP x";
    for (const auto& c : cases) {
        SCOPED_TRACE(c.log_end);
        reset(c.cp);
        int& fd = c.dump ? d_->dump_fd : d_->info_fd;
        close(fd);
        int p[2] = {-1, -1};
        ASSERT_TRUE(!c.pipe || pipe2(p, O_CLOEXEC) == 0);
        fd = c.pipe ? p[1] : open(path(c.dump ? "dump" : "info").c_str(), O_RDONLY | O_CLOEXEC);
        EXPECT_EQ(receive(), c.ret);
        close(p[0]);
        const std::string log = file("log");
        ASSERT_GE(log.size(), c.log_end.size()) << log;
        EXPECT_EQ(log.substr(log.size() - c.log_end.size()), c.log_end);
    }
}

// The crash-reason text for every owner the driver may report.
TEST(CrashReasonText, EveryOwnerCodeGivesItsText) {
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
            format_cp_crash_reason(out, kCrashReasonMax, owner, "UMTS: cp words", drv);
            EXPECT_STREQ(out, c.text.c_str()) << "owner " << owner;
        }
    }
}

}  // namespace
