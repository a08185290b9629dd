// The word exchange and upload reads on the boot and dump nodes, with a
// socket pair standing in for each node (one message per read, real poll).
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "boot/boot_dump.h"
#include "core/rix.h"
#include "dump/protocol.h"
#include "dump/udl.h"
#include "rix_test.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes le(uint32_t word) {
    return {static_cast<uint8_t>(word), static_cast<uint8_t>(word >> 8),
            static_cast<uint8_t>(word >> 16), static_cast<uint8_t>(word >> 24)};
}

class ProtocolTest : public RixTest {
  protected:
    void SetUp() override {
        RixTest::SetUp();
        ASSERT_EQ(parse({"-t", "vm420"}), 0);
        Container::protocol = new ProtocolTarn();
        proto_ = Container::protocol;
        int boot[2];
        int dump[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, boot), 0);
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, dump), 0);
        boot_node_ = boot[0];
        boot_cp_ = boot[1];
        dump_node_ = dump[0];
        dump_cp_ = dump[1];
        Container::getStdBoot()->fd = boot_node_;
        Container::getStdDump()->fd = dump_node_;
        clear_logs();
    }

    void TearDown() override {
        Container::getStdBoot()->fd = -1;
        Container::getStdDump()->fd = -1;
        Container::getStdDump()->log_fd = -1;
        for (int fd : {boot_node_, boot_cp_, dump_node_, dump_cp_}) {
            if (fd >= 0) {
                close(fd);
            }
        }
        for (int fd : extra_) {
            close(fd);
        }
        RixTest::TearDown();
    }

    // The CP side queues one message.
    static void cp_send(int cp, const Bytes& msg) {
        ASSERT_EQ(send(cp, msg.data(), msg.size(), 0), static_cast<ssize_t>(msg.size()));
    }

    // Every message the AP wrote to the CP side, in order.
    static std::vector<Bytes> cp_received(int cp) {
        std::vector<Bytes> out;
        uint8_t buf[64];
        ssize_t n;
        while ((n = recv(cp, buf, sizeof(buf), MSG_DONTWAIT)) >= 0) {
            out.emplace_back(buf, buf + n);
        }
        return out;
    }

    // A node that has hung up: a pipe whose writer is gone polls POLLHUP
    // alone, never POLLIN.
    int hung_up_node() {
        int p[2];
        EXPECT_EQ(pipe2(p, O_CLOEXEC), 0);
        close(p[1]);
        extra_.push_back(p[0]);
        return p[0];
    }

    Protocol* proto_ = nullptr;
    int boot_node_ = -1;
    int boot_cp_ = -1;
    int dump_node_ = -1;
    int dump_cp_ = -1;
    std::vector<int> extra_;
};

TEST_F(ProtocolTest, BootHandshakeWritesBothWordsAndAcceptsBothAnswers) {
    cp_send(boot_cp_, le(0xA00D));
    cp_send(boot_cp_, le(0xAF00));
    EXPECT_EQ(proto_->std_boot_finish_handshake(), 0);
    EXPECT_EQ(cp_received(boot_cp_), (std::vector<Bytes>{{0x0D, 0x90, 0, 0}, {0x00, 0x9F, 0, 0}}));
    EXPECT_EQ(kmsg(),
              "<6>cpif: rix: std_udl_req_resp: request:0x0000900D\n"
              "<6>cpif: rix: std_udl_req_resp: request:0x00009F00\n");
    // Nothing goes to the dump node.
    EXPECT_TRUE(cp_received(dump_cp_).empty());
}

TEST_F(ProtocolTest, BootHandshakeStopsAtTheFirstWrongAnswer) {
    cp_send(boot_cp_, le(0xA00E));
    EXPECT_EQ(proto_->std_boot_finish_handshake(), -14);
    // The finish stage is never started.
    EXPECT_EQ(cp_received(boot_cp_), (std::vector<Bytes>{{0x0D, 0x90, 0, 0}}));
    EXPECT_EQ(kmsg(),
              "<6>cpif: rix: std_udl_req_resp: request:0x0000900D\n"
              "<6>cpif: rix: std_udl_req_resp: ERR! resp 0xA00E != exp 0xA00D\n"
              "<6>cpif: rix: std_udl_req_resp: ERR! request:0x0000900D expected:0x0000A00D\n"
              "<6>cpif: rix: std_udl_stage_done: ERR! [stage 0] DONE fail (req:0x900D "
              "exp:0xA00D)\n"
              "<6>cpif: rix: std_boot_finish_handshake: ERR! std_udl_stage_done fail\n");
}

TEST_F(ProtocolTest, BootHandshakeReportsAFailedFinishStageWithTheSameLine) {
    cp_send(boot_cp_, le(0xA00D));
    cp_send(boot_cp_, le(0xAF01));
    EXPECT_EQ(proto_->std_boot_finish_handshake(), -14);
    EXPECT_EQ(kmsg(),
              "<6>cpif: rix: std_udl_req_resp: request:0x0000900D\n"
              "<6>cpif: rix: std_udl_req_resp: request:0x00009F00\n"
              "<6>cpif: rix: std_udl_req_resp: ERR! resp 0xAF01 != exp 0xAF00\n"
              "<6>cpif: rix: std_udl_req_resp: ERR! request:0x00009F00 expected:0x0000AF00\n"
              "<6>cpif: rix: std_udl_stage_start: ERR! [stage 15] START fail (req:0x9F00 "
              "exp:0xAF00)\n"
              "<6>cpif: rix: std_boot_finish_handshake: ERR! std_udl_stage_done fail\n");
    // Informational although the texts begin with "ERR!".
    EXPECT_EQ(radio().find("E/"), std::string::npos);
}

TEST_F(ProtocolTest, DumpStageWordsGoToTheDumpNode) {
    cp_send(dump_cp_, le(0xAD00));
    cp_send(dump_cp_, le(0xAD0D));
    EXPECT_EQ(proto_->std_udl_stage_start(OPERATION_DUMP, udl::kStageDump), 0);
    // Step 13 shares its word with the stage's DONE and is sent as a step.
    EXPECT_EQ(proto_->std_udl_req_resp(OPERATION_DUMP, udl::dump_step_request(13), 0), 0);
    EXPECT_EQ(proto_->std_udl_stage_done(OPERATION_DUMP, udl::kStageDump), 0);
    EXPECT_EQ(cp_received(dump_cp_),
              (std::vector<Bytes>{{0x00, 0x9D, 0, 0}, {0x0D, 0x9D, 0, 0}, {0x0D, 0x9D, 0, 0}}));
    EXPECT_TRUE(cp_received(boot_cp_).empty());
}

TEST_F(ProtocolTest, AnyOperationOtherThanBootSelectsTheDumpNode) {
    EXPECT_EQ(proto_->std_udl_req_resp(static_cast<operation>(7), 0x9D01, 0), 0);
    EXPECT_EQ(cp_received(dump_cp_), (std::vector<Bytes>{{0x01, 0x9D, 0, 0}}));
    EXPECT_TRUE(cp_received(boot_cp_).empty());
}

TEST_F(ProtocolTest, ZeroRequestOnlyWaitsAndZeroExpectedOnlySends) {
    // Request 0: nothing written, the answer is still awaited and checked.
    cp_send(dump_cp_, le(0xAD00));
    EXPECT_EQ(proto_->std_udl_req_resp(OPERATION_DUMP, 0, 0xAD00), 0);
    EXPECT_TRUE(cp_received(dump_cp_).empty());
    EXPECT_EQ(kmsg(), "");

    // Expected 0: written, and a queued message is left unread.
    cp_send(dump_cp_, le(0x1234));
    EXPECT_EQ(proto_->std_udl_req_resp(OPERATION_DUMP, 0x9D02, 0), 0);
    EXPECT_EQ(cp_received(dump_cp_), (std::vector<Bytes>{{0x02, 0x9D, 0, 0}}));
    uint32_t left = 0;
    EXPECT_EQ(recv(dump_node_, &left, sizeof(left), MSG_DONTWAIT), 4);
    EXPECT_EQ(left, 0x1234u);

    // Both 0: nothing at all.
    clear_logs();
    EXPECT_EQ(proto_->std_udl_req_resp(OPERATION_DUMP, 0, 0), 0);
    EXPECT_TRUE(cp_received(dump_cp_).empty());
    EXPECT_EQ(kmsg(), "");
}

TEST_F(ProtocolTest, ShortAnswerIsComparedWithItsMissingBytesAsZero) {
    cp_send(dump_cp_, {0x00, 0xAD});
    EXPECT_EQ(proto_->std_udl_req_resp(OPERATION_DUMP, 0x9D00, 0xAD00), 0);

    // The answer compares as a whole word: no mask on the upper half.
    cp_send(dump_cp_, le(0x0001AD00));
    EXPECT_EQ(proto_->std_udl_req_resp(OPERATION_DUMP, 0, 0xAD00), -14);
    EXPECT_NE(kmsg().find("ERR! resp 0x1AD00 != exp 0xAD00\n"), std::string::npos);
}

TEST_F(ProtocolTest, EndOfFileIsAnAnswerOfZero) {
    // The CP side stops sending: poll reports readable, the read returns 0.
    ASSERT_EQ(shutdown(dump_cp_, SHUT_WR), 0);
    EXPECT_EQ(proto_->std_udl_req_resp(OPERATION_DUMP, 0x9D0D, 0xAD0D), -14);
    EXPECT_EQ(cp_received(dump_cp_), (std::vector<Bytes>{{0x0D, 0x9D, 0, 0}}));
    EXPECT_EQ(kmsg(),
              "<6>cpif: rix: std_udl_req_resp: request:0x00009D0D\n"
              "<6>cpif: rix: std_udl_req_resp: ERR! resp 0x0 != exp 0xAD0D\n"
              "<6>cpif: rix: std_udl_req_resp: ERR! request:0x00009D0D expected:0x0000AD0D\n");
}

TEST_F(ProtocolTest, HungUpNodeFailsAtOnceWithTheEventsThatCameBack) {
    Container::getStdBoot()->fd = hung_up_node();
    EXPECT_EQ(proto_->std_udl_req_resp(OPERATION_BOOT, 0, 0xA00D), -5);
    EXPECT_EQ(kmsg(),
              "<6>cpif: rix: std_udl_poll: ERR! poll fail (events 0x1 != revents 0x10)\n"
              "<6>cpif: rix: std_udl_req_resp: ERR! std_udl_poll fail\n"
              "<6>cpif: rix: std_udl_req_resp: ERR! request:0x00000000 expected:0x0000A00D\n");

    // A pipe whose reader is gone polls POLLERR alone; a closed descriptor
    // polls POLLNVAL.
    int p[2];
    ASSERT_EQ(pipe2(p, O_CLOEXEC), 0);
    close(p[0]);
    extra_.push_back(p[1]);
    Container::getStdBoot()->fd = p[1];
    clear_logs();
    EXPECT_EQ(proto_->std_udl_poll(OPERATION_BOOT, POLLIN, udl::kPollTimeoutMs), -5);
    EXPECT_EQ(kmsg(), "<6>cpif: rix: std_udl_poll: ERR! poll fail (events 0x1 != revents 0x8)\n");

    int closed = dup(boot_cp_);
    close(closed);
    Container::getStdBoot()->fd = closed;
    clear_logs();
    EXPECT_EQ(proto_->std_udl_poll(OPERATION_BOOT, POLLIN, udl::kPollTimeoutMs), -5);
    EXPECT_EQ(kmsg(), "<6>cpif: rix: std_udl_poll: ERR! poll fail (events 0x1 != revents 0x20)\n");
}

TEST_F(ProtocolTest, PollSucceedsOnAnyAwaitedEventAndTimesOutWithItsOwnLine) {
    // POLLHUP together with POLLIN counts as readable.
    close(boot_cp_);
    boot_cp_ = -1;
    EXPECT_EQ(proto_->std_udl_poll(OPERATION_BOOT, POLLIN, 1000), 0);
    EXPECT_EQ(kmsg(), "");

    // Nothing arrives within the time given.
    EXPECT_EQ(proto_->std_udl_poll(OPERATION_DUMP, POLLIN, 20), -5);
    EXPECT_EQ(kmsg(), "<6>cpif: rix: std_udl_poll: ERR! poll fail (events 0x1, TIMEOUT)\n");
}

void on_alarm(int) {}

TEST_F(ProtocolTest, InterruptedPollIsAnErrorLine) {
    struct sigaction sa = {};
    struct sigaction old = {};
    sa.sa_handler = on_alarm;  // no SA_RESTART; poll is never restarted anyway
    ASSERT_EQ(sigaction(SIGALRM, &sa, &old), 0);
    struct itimerval t = {};
    t.it_value.tv_usec = 50000;
    ASSERT_EQ(setitimer(ITIMER_REAL, &t, nullptr), 0);
    int ret = proto_->std_udl_poll(OPERATION_DUMP, POLLIN, 5000);
    sigaction(SIGALRM, &old, nullptr);
    EXPECT_EQ(ret, -5);
    EXPECT_EQ(kmsg(),
              "<3>cpif: rix: (ERR! Interrupted system call) std_udl_poll: ERR! poll fail "
              "(events 0x1)\n");
    EXPECT_EQ(radio(),
              "E/boot: rix: (ERR! Interrupted system call) std_udl_poll: ERR! poll fail "
              "(events 0x1)\n");
}

TEST_F(ProtocolTest, FailedWriteAndReadPassTheCallResultUp) {
    // A pipe's read end refuses writes: no poll follows.
    Container::getStdBoot()->fd = hung_up_node();
    EXPECT_EQ(proto_->std_udl_req_resp(OPERATION_BOOT, 0x900D, 0xA00D), -1);
    EXPECT_EQ(kmsg(),
              "<6>cpif: rix: std_udl_req_resp: request:0x0000900D\n"
              "<3>cpif: rix: (ERR! Bad file descriptor) std_udl_req_resp: ERR! write fail\n"
              "<6>cpif: rix: std_udl_req_resp: ERR! request:0x0000900D expected:0x0000A00D\n");

    // A write-only file polls readable but refuses the read.
    int wo = open("/data/node", O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(wo, 0);
    extra_.push_back(wo);
    Container::getStdBoot()->fd = wo;
    clear_logs();
    EXPECT_EQ(proto_->std_udl_req_resp(OPERATION_BOOT, 0x900D, 0xA00D), -1);
    EXPECT_EQ(kmsg(),
              "<6>cpif: rix: std_udl_req_resp: request:0x0000900D\n"
              "<3>cpif: rix: (ERR! Bad file descriptor) std_udl_req_resp: ERR! read fail\n"
              "<6>cpif: rix: std_udl_req_resp: ERR! request:0x0000900D expected:0x0000A00D\n");
    EXPECT_EQ(read_file("/data/node"), std::string("\x0D\x90\x00\x00", 4));
}

// Records how the transport waits, then waits the same way.
class WaitSpy : public ProtocolTarn {
  public:
    int std_udl_poll(operation op, short events, long timeout_ms) override {
        calls.push_back({op, events, timeout_ms});
        return ProtocolTarn::std_udl_poll(op, events, timeout_ms);
    }
    struct Call {
        operation op;
        short events;
        long timeout_ms;
    };
    std::vector<Call> calls;
};

TEST_F(ProtocolTest, EveryWaitIsOnePollForInputOfThirtySecondsThroughTheObject) {
    auto* spy = new WaitSpy();
    delete Container::protocol;
    Container::protocol = spy;
    cp_send(boot_cp_, le(0xA00D));
    cp_send(boot_cp_, le(0xAF00));
    cp_send(dump_cp_, {1, 2, 3});
    ASSERT_EQ(spy->std_boot_finish_handshake(), 0);
    uint8_t buf[8];
    ASSERT_EQ(spy->std_ul_rx_frame(buf, sizeof(buf)), 3);
    ASSERT_EQ(spy->calls.size(), 3u);
    const operation ops[] = {OPERATION_BOOT, OPERATION_BOOT, OPERATION_DUMP};
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(spy->calls[i].op, ops[i]);
        EXPECT_EQ(spy->calls[i].events, POLLIN);
        EXPECT_EQ(spy->calls[i].timeout_ms, 30000);
    }
}

TEST_F(ProtocolTest, FrameReadReturnsOneMessageBoundedByTheBuffer) {
    Bytes frame(20);
    for (size_t i = 0; i < frame.size(); ++i) {
        frame[i] = static_cast<uint8_t>(i + 1);
    }
    cp_send(dump_cp_, frame);
    cp_send(dump_cp_, Bytes(30, 0xEE));
    Bytes buf(udl::kMaxFrameSize, 0);
    EXPECT_EQ(proto_->std_ul_rx_frame(buf.data(), static_cast<unsigned>(buf.size())), 20);
    EXPECT_EQ(Bytes(buf.begin(), buf.begin() + 20), frame);
    // A message longer than the buffer is cut to it, never past it.
    uint8_t small[12] = {};
    EXPECT_EQ(proto_->std_ul_rx_frame(small, 10), 10);
    EXPECT_EQ(small[9], 0xEE);
    EXPECT_EQ(small[10], 0);
    // An ended node reads 0 bytes; the caller decides what that means.
    ASSERT_EQ(shutdown(dump_cp_, SHUT_WR), 0);
    EXPECT_EQ(proto_->std_ul_rx_frame(small, 10), 0);
    EXPECT_EQ(kmsg(), "");
}

TEST_F(ProtocolTest, FrameReadFailuresAreErrorsCopiedToTheDumpLog) {
    int dump_log = memfd_create("dumplog", MFD_CLOEXEC);
    ASSERT_GT(dump_log, 0);
    extra_.push_back(dump_log);
    Container::getStdDump()->log_fd = dump_log;
    uint8_t buf[16];

    Container::getStdDump()->fd = hung_up_node();
    errno = 0;
    EXPECT_EQ(proto_->std_ul_rx_frame(buf, sizeof(buf)), -5);
    const std::string poll_err =
        std::string("(ERR! ") + strerror(0) + ") std_ul_rx_frame: ERR! DUMP std_udl_poll fail\n";
    EXPECT_EQ(kmsg(),
              "<6>cpif: rix: std_udl_poll: ERR! poll fail (events 0x1 != revents 0x10)\n"
              "<3>cpif: rix: " +
                  poll_err);

    int wo = open("/data/node", O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(wo, 0);
    extra_.push_back(wo);
    Container::getStdDump()->fd = wo;
    EXPECT_EQ(proto_->std_ul_rx_frame(buf, sizeof(buf)), -1);
    const std::string read_err =
        "(ERR! Bad file descriptor) std_ul_rx_frame: ERR! DUMP read fail\n";
    EXPECT_NE(kmsg().find("<3>cpif: rix: " + read_err), std::string::npos);

    // Only these two lines reach the dump log; the poll's own line does not.
    std::string copy(256, '\0');
    copy.resize(pread(dump_log, copy.data(), copy.size(), 0));
    EXPECT_EQ(copy, poll_err + read_err);
}

TEST_F(ProtocolTest, RebootGoesThroughThePowerControlProperty) {
    EXPECT_EQ(proto_->std_reboot_system("secure"), 0);
    EXPECT_EQ(prop("sys.powerctl"), "reboot,secure");
    EXPECT_EQ(kmsg(), "");

    // The value is cut to what a property holds.
    const std::string long_reason(200, 'r');
    EXPECT_EQ(proto_->std_reboot_system(long_reason.c_str()), 0);
    EXPECT_EQ(prop("sys.powerctl"), "reboot," + std::string(84, 'r'));

    // A refused property is reported and passed up.
    setenv("RIX_PROPERTY_DIR", (dir_ + "/missing").c_str(), 1);
    EXPECT_EQ(proto_->std_reboot_system("secure"), -1);
    setenv("RIX_PROPERTY_DIR", prop_dir_.c_str(), 1);
    EXPECT_EQ(kmsg(),
              "<6>cpif: rix: std_reboot_system: ERR! failed to setprop "
              "[sys.powerctl](reboot,secure)\n");
}

}  // namespace
