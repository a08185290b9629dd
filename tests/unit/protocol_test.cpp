// The word exchange and upload reads on the boot and dump nodes, with a socket pair standing in
// for each node (one message per read, real poll): the word rules and the failures of the calls
// themselves. The handshake and the dump stage through the real daemon are the system scenarios'.
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
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
using Msgs = std::vector<Bytes>;

Bytes le(uint32_t word) {
    return {static_cast<uint8_t>(word), static_cast<uint8_t>(word >> 8),
            static_cast<uint8_t>(word >> 16), static_cast<uint8_t>(word >> 24)};
}

// Kernel log lines: informational unless they start with "(ERR! ".
std::string klog(std::initializer_list<std::string> lines) {
    std::string out;
    for (const std::string& l : lines) {
        out += (l.rfind("(ERR! ", 0) == 0 ? "<3>" : "<6>") + std::string("cpif: rix: ") + l + "\n";
    }
    return out;
}

std::string request(uint32_t req) {
    char buf[64];
    snprintf(buf, sizeof(buf), "std_udl_req_resp: request:0x%08X", req);
    return buf;
}

std::string failed(uint32_t req, uint32_t exp) {
    char buf[96];
    snprintf(buf, sizeof(buf), "std_udl_req_resp: ERR! request:0x%08X expected:0x%08X", req, exp);
    return buf;
}

// Records how the transport waits, then waits the same way.
class WaitSpy : public ProtocolTarn {
  public:
    int std_udl_poll(operation op, short events, long timeout_ms) override {
        calls.push_back({op, events, timeout_ms});
        return ProtocolTarn::std_udl_poll(op, events, timeout_ms);
    }
    using Calls = std::vector<std::tuple<operation, short, long>>;
    Calls calls;
};

class ProtocolTest : public RixTest {
  protected:
    void SetUp() override {
        RixTest::SetUp();
        ASSERT_EQ(parse({"-t", "vm420"}), 0);
        Container::protocol = proto_ = new WaitSpy();
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, boot_), 0);
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, dump_), 0);
        Container::getStdBoot()->fd = boot_[0];
        Container::getStdDump()->fd = dump_[0];
        clear_logs();
    }

    void TearDown() override {
        Container::getStdBoot()->fd = Container::getStdDump()->fd = -1;
        Container::getStdDump()->log_fd = -1;
        extra_.insert(extra_.end(), {boot_[0], boot_[1], dump_[0], dump_[1]});
        for (int fd : extra_) {
            if (fd >= 0) {
                close(fd);
            }
        }
        RixTest::TearDown();
    }

    static void cp_send(int cp, const Bytes& msg) {
        ASSERT_EQ(send(cp, msg.data(), msg.size(), 0), static_cast<ssize_t>(msg.size()));
    }

    static Msgs cp_received(int cp) {
        Msgs out;
        uint8_t buf[64];
        ssize_t n;
        while ((n = recv(cp, buf, sizeof(buf), MSG_DONTWAIT)) >= 0) {
            out.emplace_back(buf, buf + n);
        }
        return out;
    }

    // A pipe end, the other end closed: the read end polls POLLHUP alone and
    // refuses writes, the write end polls POLLERR alone.
    int pipe_end(bool read_end) {
        int p[2];
        EXPECT_EQ(pipe2(p, O_CLOEXEC), 0);
        close(p[read_end ? 1 : 0]);
        extra_.push_back(p[read_end ? 0 : 1]);
        return extra_.back();
    }
    // A write-only file polls readable but refuses the read.
    int write_only() {
        extra_.push_back(open("/data/node", O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        EXPECT_GE(extra_.back(), 0);
        return extra_.back();
    }

    WaitSpy* proto_ = nullptr;
    int boot_[2] = {-1, -1};  // node, CP
    int dump_[2] = {-1, -1};
    std::vector<int> extra_;
};

TEST_F(ProtocolTest, ZeroWordsAreSkippedAndTheAnswerIsOneWholeWord) {
    // Request 0: nothing written, the answer is still awaited and checked,
    // on the dump node for any operation other than the boot.
    cp_send(dump_[1], le(0xAD00));
    EXPECT_EQ(proto_->std_udl_req_resp(static_cast<operation>(7), 0, 0xAD00), 0);
    EXPECT_TRUE(cp_received(dump_[1]).empty());
    EXPECT_EQ(kmsg(), "");

    // Expected 0: written, and a queued message is left unread.
    cp_send(dump_[1], le(0x1234));
    EXPECT_EQ(proto_->std_udl_req_resp(OPERATION_DUMP, 0x9D02, 0), 0);
    EXPECT_EQ(cp_received(dump_[1]), (Msgs{{0x02, 0x9D, 0, 0}}));
    uint32_t left = 0;
    EXPECT_EQ(recv(dump_[0], &left, sizeof(left), MSG_DONTWAIT), 4);
    EXPECT_EQ(left, 0x1234u);

    // Both 0: nothing at all.
    clear_logs();
    EXPECT_EQ(proto_->std_udl_req_resp(OPERATION_DUMP, 0, 0), 0);
    EXPECT_TRUE(cp_received(dump_[1]).empty());
    EXPECT_EQ(kmsg(), "");

    // A short answer is compared with its missing bytes as zero.
    cp_send(dump_[1], {0x00, 0xAD});
    EXPECT_EQ(proto_->std_udl_req_resp(OPERATION_DUMP, 0x9D00, 0xAD00), 0);
    // No mask on the upper half.
    cp_send(dump_[1], le(0x0001AD00));
    EXPECT_EQ(proto_->std_udl_req_resp(OPERATION_DUMP, 0, 0xAD00), -14);
    EXPECT_NE(kmsg().find("ERR! resp 0x1AD00 != exp 0xAD00\n"), std::string::npos);

    // The CP side stops sending: poll reports readable, the read returns 0.
    cp_received(dump_[1]);
    clear_logs();
    ASSERT_EQ(shutdown(dump_[1], SHUT_WR), 0);
    EXPECT_EQ(proto_->std_udl_req_resp(OPERATION_DUMP, 0x9D0D, 0xAD0D), -14);
    EXPECT_EQ(cp_received(dump_[1]), (Msgs{{0x0D, 0x9D, 0, 0}}));
    EXPECT_EQ(kmsg(), klog({request(0x9D0D), "std_udl_req_resp: ERR! resp 0x0 != exp 0xAD0D",
                            failed(0x9D0D, 0xAD0D)}));
    EXPECT_TRUE(cp_received(boot_[1]).empty());
}

TEST_F(ProtocolTest, FailedPollReportsTheEventsThatCameBack) {
    const int hung_up = pipe_end(true), erring = pipe_end(false);
    const int closed = dup(boot_[1]);  // a number no descriptor has
    close(closed);
    const struct {
        const char* what;
        int fd;
        int timeout_ms;
        std::string end;
    } cases[] = {
        {"POLLHUP alone", hung_up, udl::kPollTimeoutMs, " != revents 0x10"},
        {"POLLERR", erring, udl::kPollTimeoutMs, " != revents 0x8"},
        {"POLLNVAL", closed, udl::kPollTimeoutMs, " != revents 0x20"},
        {"nothing within the time given", boot_[0], 20, ", TIMEOUT"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Container::getStdBoot()->fd = c.fd;
        clear_logs();
        EXPECT_EQ(proto_->std_udl_poll(OPERATION_BOOT, POLLIN, c.timeout_ms), -5);
        EXPECT_EQ(kmsg(), klog({"std_udl_poll: ERR! poll fail (events 0x1" + c.end + ")"}));
    }

    // POLLHUP together with POLLIN counts as readable.
    Container::getStdBoot()->fd = boot_[0];
    close(boot_[1]);
    boot_[1] = -1;
    clear_logs();
    EXPECT_EQ(proto_->std_udl_poll(OPERATION_BOOT, POLLIN, 1000), 0);
    EXPECT_EQ(kmsg(), "");
}

TEST_F(ProtocolTest, FailedWriteAndReadPassTheCallResultUp) {
    // No poll follows a failed write.
    for (const char* what : {"write", "read"}) {
        SCOPED_TRACE(what);
        clear_logs();
        Container::getStdBoot()->fd = what[0] == 'w' ? pipe_end(true) : write_only();
        EXPECT_EQ(proto_->std_udl_req_resp(OPERATION_BOOT, 0x900D, 0xA00D), -1);
        EXPECT_EQ(kmsg(), klog({request(0x900D),
                                std::string("(ERR! Bad file descriptor) std_udl_req_resp: ERR! ") +
                                    what + " fail",
                                failed(0x900D, 0xA00D)}));
    }
    EXPECT_EQ(read_file("/data/node"), std::string("\x0D\x90\x00\x00", 4));
}

TEST_F(ProtocolTest, FrameReadReturnsOneMessageBoundedByTheBufferAndReportsFailures) {
    Bytes frame(20);
    for (size_t i = 0; i < frame.size(); ++i) {
        frame[i] = static_cast<uint8_t>(i + 1);
    }
    cp_send(dump_[1], frame);
    cp_send(dump_[1], Bytes(30, 0xEE));
    Bytes buf(udl::kMaxFrameSize, 0);
    EXPECT_EQ(proto_->std_ul_rx_frame(buf.data(), static_cast<unsigned>(buf.size())), 20);
    EXPECT_EQ(Bytes(buf.begin(), buf.begin() + 20), frame);
    EXPECT_EQ(proto_->calls, (WaitSpy::Calls{{OPERATION_DUMP, POLLIN, 30000}}));
    // A message longer than the buffer is cut to it, never past it.
    uint8_t small[12] = {};
    EXPECT_EQ(proto_->std_ul_rx_frame(small, 10), 10);
    EXPECT_EQ(small[9], 0xEE);
    EXPECT_EQ(small[10], 0);
    // An ended node reads 0 bytes; the caller decides what that means.
    ASSERT_EQ(shutdown(dump_[1], SHUT_WR), 0);
    EXPECT_EQ(proto_->std_ul_rx_frame(small, 10), 0);
    EXPECT_EQ(kmsg(), "");

    // Failures are errors copied to the dump log.
    const int dump_log = memfd_create("dumplog", MFD_CLOEXEC);
    ASSERT_GT(dump_log, 0);
    extra_.push_back(dump_log);
    Container::getStdDump()->log_fd = dump_log;

    Container::getStdDump()->fd = pipe_end(true);
    errno = 0;
    EXPECT_EQ(proto_->std_ul_rx_frame(small, sizeof(small)), -5);
    const std::string poll_err =
        std::string("(ERR! ") + strerror(0) + ") std_ul_rx_frame: ERR! DUMP std_udl_poll fail\n";

    Container::getStdDump()->fd = write_only();
    EXPECT_EQ(proto_->std_ul_rx_frame(small, sizeof(small)), -1);
    const std::string read_err =
        "(ERR! Bad file descriptor) std_ul_rx_frame: ERR! DUMP read fail\n";

    // Only these two error lines reach the dump log; the poll's own line does not.
    std::string copy(256, '\0');
    copy.resize(pread(dump_log, copy.data(), copy.size(), 0));
    EXPECT_EQ(copy, poll_err + read_err);
}

}  // namespace
