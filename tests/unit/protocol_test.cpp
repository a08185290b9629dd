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
#include "cp_peer.h"
#include "dump/protocol.h"
#include "dump/udl.h"
#include "rix_test.h"

namespace {

using cp_peer::Bytes;
using cp_peer::le;
using Words = std::vector<uint32_t>;

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

class ProtocolTest : public RixTest {
  protected:
    void SetUp() override {
        RixTest::SetUp();
        ASSERT_EQ(parse({"-t", "vm420"}), 0);
        Container::protocol = proto_ = new ProtocolTarn();
        Container::getStdBoot()->fd = boot_.ap;
        Container::getStdDump()->fd = dump_.ap;
        clear_logs();
    }

    void TearDown() override {
        Container::getStdBoot()->fd = Container::getStdDump()->fd = -1;
        Container::getStdDump()->log_fd = -1;
        for (int fd : extra_) {
            close(fd);
        }
        RixTest::TearDown();
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

    ProtocolTarn* proto_ = nullptr;
    cp_peer::Node boot_, dump_;
    std::vector<int> extra_;
};

TEST_F(ProtocolTest, ZeroWordsAreSkippedAndTheAnswerIsOneWholeWord) {
    // Request 0: nothing written, the answer is still awaited and checked,
    // on the dump node for any operation other than the boot.
    dump_.give(le(0xAD00));
    EXPECT_EQ(proto_->std_udl_req_resp(static_cast<operation>(7), 0, 0xAD00), 0);
    // Expected 0: written, and a queued message is left unread. Both 0: nothing at all.
    dump_.give(le(0x1234));
    EXPECT_EQ(proto_->std_udl_req_resp(OPERATION_DUMP, 0x9D02, 0), 0);
    EXPECT_EQ(proto_->std_udl_req_resp(OPERATION_DUMP, 0, 0), 0);
    EXPECT_EQ(dump_.unread(), 1);

    // A short answer is compared with its missing bytes as zero; no mask on the upper half.
    dump_.give({0x00, 0xAD});
    EXPECT_EQ(proto_->std_udl_req_resp(OPERATION_DUMP, 0x9D00, 0xAD00), 0);
    dump_.give(le(0x0001AD00));
    EXPECT_EQ(proto_->std_udl_req_resp(OPERATION_DUMP, 0, 0xAD00), -14);

    // The CP side stops sending: poll reports readable, the read returns 0.
    ASSERT_EQ(shutdown(dump_.cp, SHUT_WR), 0);
    EXPECT_EQ(proto_->std_udl_req_resp(OPERATION_DUMP, 0x9D0D, 0xAD0D), -14);
    EXPECT_EQ(dump_.words(), (Words{0x9D02, 0x9D00, 0x9D0D}));
    EXPECT_TRUE(boot_.words().empty());
    EXPECT_EQ(kmsg(), klog({request(0x9D02), request(0x9D00),
                            "std_udl_req_resp: ERR! resp 0x1AD00 != exp 0xAD00", failed(0, 0xAD00),
                            request(0x9D0D), "std_udl_req_resp: ERR! resp 0x0 != exp 0xAD0D",
                            failed(0x9D0D, 0xAD0D)}));
}

TEST_F(ProtocolTest, FailedPollReportsTheEventsThatCameBack) {
    const int hung_up = pipe_end(true), erring = pipe_end(false);
    const int closed = dup(boot_.cp);  // a number no descriptor has
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
        {"nothing within the time given", boot_.ap, 20, ", TIMEOUT"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Container::getStdBoot()->fd = c.fd;
        clear_logs();
        EXPECT_EQ(proto_->std_udl_poll(OPERATION_BOOT, POLLIN, c.timeout_ms), -5);
        EXPECT_EQ(kmsg(), klog({"std_udl_poll: ERR! poll fail (events 0x1" + c.end + ")"}));
    }

    // POLLHUP together with POLLIN counts as readable.
    Container::getStdBoot()->fd = boot_.ap;
    ASSERT_EQ(shutdown(boot_.cp, SHUT_RDWR), 0);
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
    // One message per read, cut to the buffer, never past it; an ended node reads 0 bytes.
    dump_.give(Bytes(20, 0xAA)).give(Bytes(30, 0xEE));
    uint8_t buf[32] = {};
    EXPECT_EQ(proto_->std_ul_rx_frame(buf, sizeof(buf)), 20);
    EXPECT_EQ(proto_->std_ul_rx_frame(buf, 10), 10);
    EXPECT_EQ(std::string(buf, buf + 21),
              std::string(10, '\xEE') + std::string(10, '\xAA') + std::string(1, '\0'));
    ASSERT_EQ(shutdown(dump_.cp, SHUT_WR), 0);
    EXPECT_EQ(proto_->std_ul_rx_frame(buf, 10), 0);

    // Failures are errors copied to the dump log; the poll's own line is not.
    const int dump_log = memfd_create("dumplog", MFD_CLOEXEC);
    ASSERT_GT(dump_log, 0);
    extra_.push_back(dump_log);
    Container::getStdDump()->log_fd = dump_log;
    Container::getStdDump()->fd = pipe_end(true);
    errno = 0;
    EXPECT_EQ(proto_->std_ul_rx_frame(buf, sizeof(buf)), -5);
    Container::getStdDump()->fd = write_only();
    EXPECT_EQ(proto_->std_ul_rx_frame(buf, sizeof(buf)), -1);
    std::string copy(256, '\0');
    copy.resize(pread(dump_log, copy.data(), copy.size(), 0));
    EXPECT_EQ(copy, std::string("(ERR! ") + strerror(0) +
                        ") std_ul_rx_frame: ERR! DUMP std_udl_poll fail\n"
                        "(ERR! Bad file descriptor) std_ul_rx_frame: ERR! DUMP read fail\n");
}

}  // namespace
