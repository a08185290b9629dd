// Receiving the CP's crash dump over the dump node: INFO, REASON and the
// steps' frames from a CP played by a thread over a socket pair, into real
// dump, info and dump-log files.
#include <fcntl.h>
#include <sys/socket.h>
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

class DumpReceptionTest : public RixTest {
  protected:
    void SetUp() override {
        RixTest::SetUp();
        ASSERT_EQ(parse({"-t", "vm420"}), 0);
        spy_ = new ReasonSpy();
        Container::protocol = spy_;
        d_ = Container::getStdDump();
        // As the dump sequence leaves the record: zeroed, prefix written.
        memset(d_, 0, sizeof(*d_));
        d_->fd = -1;
        strcpy(d_->reason, "UMTS: ");
        debug_level = DBG_MID;
        d_->log_fd = open_file("log");
        d_->info_fd = open_file("info");
        d_->dump_fd = open_file("dump");
        cp_ = new_node();
        clear_logs();
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

    int open_file(const std::string& name) {
        int fd = open(path(name).c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        EXPECT_GE(fd, 3);
        return fd;
    }
    // The record's files, beside the fixture's own log directory.
    std::string path(const std::string& name) const { return dir_ + "/cpcrash_" + name; }
    std::string file(const std::string& name) const { return read_file(path(name)); }

    // A fresh dump node; its CP end goes to the returned peer.
    std::unique_ptr<CpPeer> new_node() {
        int sv[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv), 0);
        if (d_->fd >= 0) {
            close(d_->fd);
        }
        d_->fd = sv[0];
        return std::make_unique<CpPeer>(sv[1]);
    }

    // START answered, INFO and REASON sent.
    CpPeer& opened(uint32_t dump_size, uint32_t num_steps, const std::string& reason) {
        return opened_raw(dump_size, num_steps, static_cast<uint32_t>(reason.size()),
                          Bytes(reason.begin(), reason.end()));
    }
    CpPeer& opened_raw(uint32_t dump_size, uint32_t num_steps, uint32_t reason_len,
                       const Bytes& reason) {
        return cp_->take()
            .give(le(0xAD00))
            .give(info(dump_size, num_steps, reason_len))
            .give(reason);
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
    Bytes expect;
    const std::vector<std::vector<uint32_t>> steps = {{16384, 16384, 100}, {5000, 16384, 1}};
    uint32_t total = 0;
    for (const auto& s : steps) {
        for (uint32_t n : s) {
            total += n;
        }
    }
    opened(total, 2, "boom");
    step(1, steps[0], expect);
    step(2, steps[1], expect);
    cp_->take().give(le(0xAD0D));

    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(cp_->words(), (std::vector<uint32_t>{0x9D00, 0x9D01, 0x9D02, 0x9D0D}));
    EXPECT_EQ(file("dump"), as_text(expect));
    // The crash-reason step got the prefix with the CP's words behind it; the
    // driver cannot answer on a socket, so the info file gets an empty text.
    EXPECT_EQ(spy_->seen, "UMTS: boom");
    EXPECT_EQ(file("info"), "");

    const std::string copied =
        "std_ul_recv_info: DUMP INFO saved\n"
        "std_ul_recv_data: [step 1] num_frames = 3\n"
        "std_ul_recv_data: [step 1] command = 0xAD01\n"
        "std_ul_recv_data: [step 1] saved = 32868\n"
        "std_ul_recv_data: [step 2] num_frames = 3\n"
        "std_ul_recv_data: [step 2] command = 0xAD02\n"
        "std_ul_recv_data: [step 2] saved = 21385\n"
        "std_dump_receive_cp_dump: DUMP DATA saved\n";
    EXPECT_EQ(file("log"), copied);
    EXPECT_EQ(kmsg(),
              "<6>cpif: rix: std_udl_req_resp: request:0x00009D00\n"
              "<6>cpif: rix: std_ul_recv_info: dump_size = 54253\n"
              "<6>cpif: rix: std_ul_recv_info: num_steps = 2\n"
              "<6>cpif: rix: std_ul_recv_info: reason_len = 4\n"
              "<3>cpif: rix: (ERR! Inappropriate ioctl for device) make_cp_crash_reason: ERR! "
              "IOCTL_GET_CP_CRASH_REASON fail\n"
              "<6>cpif: rix: std_ul_recv_info: DUMP INFO saved\n"
              "<6>cpif: rix: std_udl_req_resp: request:0x00009D01\n"
              "<6>cpif: rix: std_ul_recv_data: [step 1] num_frames = 3\n"
              "<6>cpif: rix: std_ul_recv_data: [step 1] command = 0xAD01\n"
              "<6>cpif: rix: std_ul_recv_data: [step 1] saved = 32868\n"
              "<6>cpif: rix: std_udl_req_resp: request:0x00009D02\n"
              "<6>cpif: rix: std_ul_recv_data: [step 2] num_frames = 3\n"
              "<6>cpif: rix: std_ul_recv_data: [step 2] command = 0xAD02\n"
              "<6>cpif: rix: std_ul_recv_data: [step 2] saved = 21385\n"
              "<6>cpif: rix: std_dump_receive_cp_dump: DUMP DATA saved\n"
              "<6>cpif: rix: std_udl_req_resp: request:0x00009D0D\n");
}

TEST_F(DumpReceptionTest, EveryOneOfTwoHundredFiftyFiveStepsIsRequestedStepThirteenToo) {
    Bytes expect;
    uint32_t total = 0;
    for (uint32_t n = 1; n <= 255; ++n) {
        total += n % 3;
    }
    opened(total, 255, "r");
    for (uint32_t n = 1; n <= 255; ++n) {
        step(n, {n % 3}, expect);
    }
    cp_->take().give(le(0xAD0D));

    EXPECT_EQ(receive(), 0);
    std::vector<uint32_t> want = {0x9D00};
    for (uint32_t n = 1; n <= 255; ++n) {
        want.push_back(0x9D00 | n);
    }
    want.push_back(0x9D0D);
    EXPECT_EQ(cp_->words(), want);
    EXPECT_EQ(file("dump"), as_text(expect));
    // Step 13's request is the stage's DONE word; its frames carry 0xAD0D.
    EXPECT_NE(file("log").find("[step 13] command = 0xAD0D\n"), std::string::npos);
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
    EXPECT_EQ(file("log"),
              "std_ul_recv_info: ERR! invalid num_steps 256\n"
              "std_dump_receive_cp_dump: ERR! std_ul_recv_info fail\n");
    EXPECT_NE(kmsg().find("<6>cpif: rix: std_ul_recv_info: num_steps = 256\n"
                          "<6>cpif: rix: std_ul_recv_info: reason_len = 4\n"
                          "<6>cpif: rix: std_ul_recv_info: ERR! invalid num_steps 256\n"),
              std::string::npos);
}

TEST_F(DumpReceptionTest, OutOfSequenceFrameEndsTheStepWithTheReadCountAsSaved) {
    // Frames 1, 2, 4: frame 4's payload is not written, and its whole read
    // (header included) stands for what step 1 saved.
    Bytes expect;
    opened(0, 2, "x");
    cp_->take();
    for (uint32_t seq : {1u, 2u, 4u}) {
        Bytes p = pattern(1, seq, 1000);
        cp_->give(frame(0xAD01, 5, seq, 1000, p));
        if (seq != 4) {
            expect.insert(expect.end(), p.begin(), p.end());
        }
    }
    step(2, {10}, expect);
    // The usual outcome: the counts do not add up, no DONE exchange.
    EXPECT_EQ(receive(), -14);
    EXPECT_EQ(cp_->words(), (std::vector<uint32_t>{0x9D00, 0x9D01, 0x9D02}));
    EXPECT_EQ(file("dump"), as_text(expect));
    EXPECT_EQ(file("log"),
              "std_ul_recv_info: DUMP INFO saved\n"
              "std_ul_recv_data: [step 1] num_frames = 5\n"
              "std_ul_recv_data: [step 1] command = 0xAD01\n"
              "std_ul_recv_data: ERR! [step 1] curr_frame 4 != seqn 3\n"
              "std_ul_recv_data: [step 2] num_frames = 1\n"
              "std_ul_recv_data: [step 2] command = 0xAD02\n"
              "std_ul_recv_data: [step 2] saved = 10\n"
              "std_dump_receive_cp_dump: ERR! saved 1026 != dump_size 0\n");

    // When the CP's count happens to match, the dump completes: the raw read
    // count replaces what the step had saved before.
    cp_ = new_node();
    expect.clear();
    ASSERT_EQ(ftruncate(d_->dump_fd, 0), 0);
    ASSERT_EQ(lseek(d_->dump_fd, 0, SEEK_SET), 0);
    opened(1016, 1, "x");
    cp_->take();
    Bytes p1 = pattern(1, 1, 1000);
    cp_->give(frame(0xAD01, 3, 1, 1000, p1)).give(frame(0xAD01, 3, 3, 1000, pattern(1, 3, 1000)));
    cp_->take().give(le(0xAD0D));
    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(cp_->words(), (std::vector<uint32_t>{0x9D00, 0x9D01, 0x9D0D}));
    EXPECT_EQ(file("dump"), as_text(p1));
}

TEST_F(DumpReceptionTest, FramesThatCannotHoldWhatTheyClaimFailTheReception) {
    struct Case {
        const char* what;
        Bytes frame;
    };
    const std::vector<Case> cases = {
        {"size above a frame's payload", frame(0xAD01, 1, 1, 16385, Bytes(16384, 0xAA))},
        {"size above what the read returned", frame(0xAD01, 1, 1, 101, Bytes(100, 0xAA))},
        {"read shorter than a header", Bytes{0x01, 0xAD, 0, 0, 1, 0, 0, 0, 1, 0}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        cp_ = new_node();
        clear_logs();
        ASSERT_EQ(ftruncate(d_->log_fd, 0), 0);
        ASSERT_EQ(lseek(d_->log_fd, 0, SEEK_SET), 0);
        opened(100, 1, "x").take().give(c.frame);
        EXPECT_EQ(receive(), -14);
        EXPECT_EQ(cp_->words(), (std::vector<uint32_t>{0x9D00, 0x9D01}));
        EXPECT_EQ(file("dump"), "");
        EXPECT_EQ(file("log"),
                  "std_ul_recv_info: DUMP INFO saved\n"
                  "std_ul_recv_data: ERR! [step 1] std_ul_rx_frame fail (ret -14)\n"
                  "std_dump_receive_cp_dump: ERR! std_ul_recv_data fail\n");
    }
}

TEST_F(DumpReceptionTest, FrameOfAnotherStepFailsTheReception) {
    Bytes expect;
    opened(20, 2, "x");
    step(1, {10}, expect);
    cp_->take().give(frame(0xAD03, 1, 1, 10, pattern(3, 1, 10)));
    EXPECT_EQ(receive(), -14);
    EXPECT_EQ(file("dump"), as_text(expect));
    const std::string log = file("log");
    EXPECT_NE(log.find("std_ul_recv_data: ERR! [step 2] cmd 0xAD03 != exp 0xAD02\n"
                       "std_dump_receive_cp_dump: ERR! std_ul_recv_data fail\n"),
              std::string::npos);
}

TEST_F(DumpReceptionTest, AnnouncedReasonLongerThanTheFieldIsCutToTheRoomLeft) {
    // The prefix "UMTS: " leaves 505 bytes and a terminator in the field.
    spy_->text = ": CP Crash by CP - whatever";
    opened_raw(0, 0, 100000, Bytes(600, 'r')).take().give(le(0xAD0D));
    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(spy_->seen, "UMTS: " + std::string(505, 'r'));
    EXPECT_EQ(d_->reason[511], '\0');
    EXPECT_EQ(d_->reason_len, 100000u);
    EXPECT_EQ(file("info"), ": CP Crash by CP - whatever");
    EXPECT_EQ(file("log"),
              "std_ul_recv_info: ERR! reason_len 100000 > 505, truncated\n"
              "std_ul_recv_info: DUMP INFO saved\n"
              "std_dump_receive_cp_dump: DUMP DATA saved\n");

    // Exactly the room left is no truncation.
    cp_ = new_node();
    memset(d_->reason, 0, sizeof(d_->reason));
    strcpy(d_->reason, "UMTS: ");
    clear_logs();
    opened(0, 0, std::string(505, 's')).take().give(le(0xAD0D));
    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(spy_->seen, "UMTS: " + std::string(505, 's'));
    EXPECT_EQ(kmsg().find("truncated"), std::string::npos);
}

TEST_F(DumpReceptionTest, ReasonIsTerminatedRightBehindWhatTheCpSent) {
    // Whatever the field held behind the prefix's terminator.
    memset(d_->reason + 7, 'Z', sizeof(d_->reason) - 7);
    opened(0, 0, "boom").take().give(le(0xAD0D));
    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(spy_->seen, "UMTS: boom");
}

TEST_F(DumpReceptionTest, CrashReasonIsClearedWhenTheDriverCannotGiveIt) {
    snprintf(crash_reason, kCrashReasonMax, "%s", ": stale text");
    opened(0, 0, "boom").take().give(le(0xAD0D));
    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(crash_reason[0], '\0');
    EXPECT_EQ(file("info"), "");
    // Not copied to the dump log.
    EXPECT_EQ(file("log").find("IOCTL_GET_CP_CRASH_REASON"), std::string::npos);
}

TEST_F(DumpReceptionTest, CountsThatDoNotAddUpEndWithoutDone) {
    opened(5, 0, "x");
    EXPECT_EQ(receive(), -14);
    EXPECT_EQ(cp_->words(), (std::vector<uint32_t>{0x9D00}));
    EXPECT_EQ(file("log"),
              "std_ul_recv_info: DUMP INFO saved\n"
              "std_dump_receive_cp_dump: ERR! saved 0 != dump_size 5\n");
}

TEST_F(DumpReceptionTest, WrongStartOrDoneAnswerFailsWithItsOwnLine) {
    cp_->take().give(le(0xAD01));
    EXPECT_EQ(receive(), -14);
    EXPECT_EQ(file("log"), "std_dump_receive_cp_dump: ERR! std_udl_stage_start fail\n");
    EXPECT_EQ(spy_->calls, 0);

    cp_ = new_node();
    ASSERT_EQ(ftruncate(d_->log_fd, 0), 0);
    ASSERT_EQ(lseek(d_->log_fd, 0, SEEK_SET), 0);
    opened(0, 0, "x").take().give(le(0xAD0E));
    EXPECT_EQ(receive(), -14);
    EXPECT_EQ(cp_->words(), (std::vector<uint32_t>{0x9D00, 0x9D0D}));
    EXPECT_EQ(file("log"),
              "std_ul_recv_info: DUMP INFO saved\n"
              "std_dump_receive_cp_dump: DUMP DATA saved\n"
              "std_dump_receive_cp_dump: ERR! DUMP std_udl_stage_done fail\n");
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

TEST_F(DumpReceptionTest, FailedInfoFileWriteOrFlushEndsTheReception) {
    spy_->text = ": CP Crash by CP - x";
    // A read-only descriptor refuses the write.
    close(d_->info_fd);
    d_->info_fd = open(path("info").c_str(), O_RDONLY | O_CLOEXEC);
    opened(0, 0, "x");
    EXPECT_EQ(receive(), -1);
    EXPECT_EQ(file("log"),
              "(ERR! Bad file descriptor) std_ul_recv_info: ERR! REASON write fail\n"
              "std_dump_receive_cp_dump: ERR! std_ul_recv_info fail\n");

    // A pipe takes the write but cannot be flushed.
    int p[2];
    ASSERT_EQ(pipe2(p, O_CLOEXEC), 0);
    close(d_->info_fd);
    d_->info_fd = p[1];
    cp_ = new_node();
    ASSERT_EQ(ftruncate(d_->log_fd, 0), 0);
    ASSERT_EQ(lseek(d_->log_fd, 0, SEEK_SET), 0);
    opened(0, 0, "x");
    EXPECT_EQ(receive(), -1);
    char got[64] = {};
    EXPECT_EQ(read(p[0], got, sizeof(got)), 20);
    EXPECT_STREQ(got, ": CP Crash by CP - x");
    close(p[0]);
    EXPECT_EQ(file("log"),
              "(ERR! Invalid argument) std_ul_recv_info: ERR! fsync(info_fd) fail (-1)\n"
              "std_dump_receive_cp_dump: ERR! std_ul_recv_info fail\n");
}

TEST_F(DumpReceptionTest, FailedDumpFileWriteOrFlushEndsTheReception) {
    close(d_->dump_fd);
    d_->dump_fd = open(path("dump").c_str(), O_RDONLY | O_CLOEXEC);
    opened(10, 1, "x").take().give(frame(0xAD01, 1, 1, 10, pattern(1, 1, 10)));
    EXPECT_EQ(receive(), -1);
    EXPECT_NE(file("log").find("(ERR! Bad file descriptor) std_ul_recv_data: ERR! [step 1] seq# 1 "
                               "write fail\n"
                               "std_dump_receive_cp_dump: ERR! std_ul_recv_data fail\n"),
              std::string::npos);

    // A pipe takes the payload but cannot be flushed: the negated errno.
    int p[2];
    ASSERT_EQ(pipe2(p, O_CLOEXEC), 0);
    close(d_->dump_fd);
    d_->dump_fd = p[1];
    cp_ = new_node();
    clear_logs();
    opened(10, 1, "x").take().give(frame(0xAD01, 1, 1, 10, pattern(1, 1, 10)));
    EXPECT_EQ(receive(), -EINVAL);
    close(p[0]);
    EXPECT_NE(kmsg().find("<3>cpif: rix: (ERR! Invalid argument) std_dump_receive_cp_dump: ERR! "
                          "fsync(dump_fd) fail\n"),
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
    struct Case {
        int32_t owner;
        const char* text;
    };
    const Case cases[] = {
        {0, ": CP Crash by CP - UMTS: cp words"},
        {1, ": CP Crash by RIL - driver words"},
        {2, ": CP Crash by RIL - driver words"},
        {3, ": CP Crash by RIL - driver words"},
        {4, ": CP Crash by RIL - driver words"},
        {5, ": CP Crash by USER - driver words"},
        {6, ": CP Crash by CPIF - driver words"},
        {7, ": CP Crash by CPIF - driver words"},
        {8, ": CP Crash by CPIF - driver words"},
        {9, ": CP Crash by RIL - driver words"},
        {10, ": CP Crash by CPIF - driver words"},
        {11, ": CP Crash by CP - CP WDOG Reset"},
        {12, ": CP Crash by CPIF - driver words"},
        {13, ": CP Crash by CP - UMTS: cp words"},
        {14, ": CP Crash by CP - UMTS: cp words"},
        {15, ": CP Crash by CP - UMTS: cp words"},
        {16, ": CP Crash by CLD - driver words"},
        {17, ": CP Crash by (17)"},
        {-1, ": CP Crash by (-1)"},
        {INT32_MIN, ": CP Crash by (-2147483648)"},
        {0x7FFFFFFF, ": CP Crash by (2147483647)"},
    };
    for (const Case& c : cases) {
        char out[kCrashReasonLen];
        memset(out, 'Q', sizeof(out));
        format_cp_crash_reason(out, kCrashReasonMax, c.owner, cp, drv);
        EXPECT_STREQ(out, c.text) << "owner " << c.owner;
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
