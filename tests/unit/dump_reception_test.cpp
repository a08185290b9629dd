// Dump reception into files that refuse their write or flush, which the bench's files never do,
// and the crash-reason text for every owner. The reception itself, byte by byte, and every kind
// of CP misbehaviour are seen through the real daemon by the crash scenarios.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
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

using DumpReceptionTest = RixTest;

TEST_F(DumpReceptionTest, FailedInfoOrDumpFileWriteOrFlushEndsTheReception) {
    ASSERT_EQ(parse({"-t", "vm420"}), 0);
    Container::protocol = new ProtocolTarn();
    debug_level = DBG_MID;
    std_dump* d = Container::getStdDump();
    // A read-only descriptor refuses the write (even of the crash reason that the socket leaves
    // empty); a pipe takes it but cannot be flushed. A failed flush of the dump file returns the
    // negated errno.
    const std::string info_fail = "std_dump_receive_cp_dump: ERR! std_ul_recv_info fail\n";
    const std::string data_fail = "std_dump_receive_cp_dump: ERR! std_ul_recv_data fail\n";
    const std::string step =
        "std_ul_recv_info: DUMP INFO saved\nstd_ul_recv_data: [step 1] num_frames = 1\n"
        "std_ul_recv_data: [step 1] command = 0xAD01\n";
    const struct {
        bool dump, pipe;
        int ret;
        std::string log;
    } cases[] = {
        {false, false, -1,
         "(ERR! Bad file descriptor) std_ul_recv_info: ERR! REASON write fail\n" + info_fail},
        {false, true, -1,
         "(ERR! Invalid argument) std_ul_recv_info: ERR! fsync(info_fd) fail (-1)\n" + info_fail},
        {true, false, -1,
         step + "(ERR! Bad file descriptor) std_ul_recv_data: ERR! [step 1] seq# 1 write fail\n" +
             data_fail},
        {true, true, -EINVAL,
         step + "std_ul_recv_data: [step 1] saved = 10\n"
                "(ERR! Invalid argument) std_dump_receive_cp_dump: ERR! fsync(dump_fd) fail\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.log);
        cp_peer::Node node;
        cp_peer::Bytes frame = cp_peer::raw(udl::ul_frame_header{0xAD01, 1, 1, 10});
        frame.resize(frame.size() + 10, 'p');
        node.give(cp_peer::le(0xAD00)).give(cp_peer::raw(udl::ul_info{10, 1, 1})).give({'x'});
        node.give(frame);
        memset(d, 0, sizeof(*d));
        strcpy(d->reason, "UMTS: ");
        d->fd = node.ap;
        const std::string log = dir_ + "/cpcrash_log";
        d->log_fd = open(log.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        int p[2] = {-1, -1};
        ASSERT_EQ(pipe2(p, O_CLOEXEC), 0);
        (c.dump ? d->dump_fd : d->info_fd) =
            c.pipe ? dup(p[1]) : open("/dev/null", O_RDONLY | O_CLOEXEC);
        (c.dump ? d->info_fd : d->dump_fd) =
            open((dir_ + "/writable").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        EXPECT_EQ(Container::protocol->std_dump_receive_cp_dump(), c.ret);
        EXPECT_EQ(read_file(log), c.log);
        for (int fd : {p[0], p[1], d->log_fd, d->info_fd, d->dump_fd}) {
            close(fd);
        }
        d->fd = d->log_fd = d->info_fd = d->dump_fd = -1;
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
