// The log facility where the daemon's runs do not show it: the dump-log copy at descriptor 1 and
// kprintf_deinit (an overlong text: DecisionsTest). The two usual forms are compared in both
// copies by every system test.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "core/rix.h"
#include "log/log.h"
#include "rix_test.h"

namespace {

using LogTest = RixTest;

// The dump-log copy, without "rix: ", goes to log_fd only while it is 1 or more: a daemon
// started without a standard output gets its dump log at descriptor 1.
TEST_F(LogTest, DumpLogCopyOnlyWhileLogFdIsOpen) {
    ASSERT_EQ(parse({"-t", "vm420"}), 0);
    std_dump* d = Container::getStdDump();
    const int file = memfd_create("dumplog", MFD_CLOEXEC);
    ASSERT_GT(file, 0);
    const int out = dup(1);
    ASSERT_EQ(dup2(file, 1), 1);
    for (int fd : {0, 1, -1}) {
        d->log_fd = fd;
        errno = EIO;
        LOGI_DUMP_AS("std_ul_recv_info", "log_fd %d\n", fd);
        LOGE_DUMP_AS("std_ul_rx_frame", "read fail\n");
        LOGI_AS("dump", "not for the dump log\n");
    }
    dup2(out, 1);
    close(out);
    d->log_fd = -1;
    std::string text(4096, '\0');
    text.resize(std::max<ssize_t>(pread(file, text.data(), text.size(), 0), 0));
    close(file);
    EXPECT_EQ(text,
              "std_ul_recv_info: log_fd 1\n"
              "(ERR! Input/output error) std_ul_rx_frame: read fail\n");
}

// Descriptor 1 is the standard output the daemon logs to before /dev/kmsg is open: kept.
TEST_F(LogTest, KprintfDeinitLeavesStandardOutputOpen) {
    kmsg_fd = 1;
    Log::kprintf_deinit();
    EXPECT_NE(fcntl(1, F_GETFD), -1);

    const int fd = dup(kmsg_capture_);
    kmsg_fd = fd;
    Log::kprintf_deinit();
    EXPECT_EQ(kmsg_fd, fd);  // the variable is not changed
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

}  // namespace
