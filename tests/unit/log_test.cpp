// The message forms: kernel copy, radio copy and the dump-log copy.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "core/rix.h"
#include "log/log.h"
#include "rix_test.h"

namespace {

class LogTest : public RixTest {
  protected:
    std::string fd_text(int fd) {
        std::string out(4096, '\0');
        ssize_t n = pread(fd, out.data(), out.size(), 0);
        out.resize(n > 0 ? n : 0);
        return out;
    }
};

TEST_F(LogTest, InformationAndErrorForms) {
    errno = ENOENT;
    LOGI_AS("main", "Modem type = %d\n", 1);
    LOGE_AS("status_loop", "%s open fail\n", "/dev/umts_boot0");
    EXPECT_EQ(kmsg(),
              "<6>cpif: rix: main: Modem type = 1\n"
              "<3>cpif: rix: (ERR! No such file or directory) status_loop: /dev/umts_boot0 open "
              "fail\n");
    EXPECT_EQ(radio(),
              "D/boot: rix: main: Modem type = 1\n"
              "E/boot: rix: (ERR! No such file or directory) status_loop: /dev/umts_boot0 open "
              "fail\n");
}

TEST_F(LogTest, TextsKeepTheirOwnNewlines) {
    LOGE_AS("main", "goto skip cpboot");
    LOGI_AS("main", "\n\n ---- upload ----\n\n");
    const std::string k = kmsg();
    EXPECT_NE(k.find(") main: goto skip cpboot<6>cpif: rix: main: \n\n ---- upload ----\n\n"),
              std::string::npos);
}

TEST_F(LogTest, ErrnoIsReadAfreshForEachCopy) {
    // The kernel copy fails on a closed descriptor, which leaves EBADF for
    // the radio copy to report.
    kmsg_fd = -1;
    errno = ENOENT;
    LOGE_AS("shutdown", "%s open fail\n", "/dev/x");
    EXPECT_EQ(radio(), "E/boot: rix: (ERR! Bad file descriptor) shutdown: /dev/x open fail\n");

    // errno 0 prints the platform's text for 0.
    kmsg_fd = kmsg_capture_;
    clear_logs();
    errno = 0;
    LOGE_AS("main", "adjust btl ramsize fail\n");
    EXPECT_EQ(kmsg(), std::string("<3>cpif: rix: (ERR! ") + strerror(0) +
                          ") main: adjust btl ramsize fail\n");
}

TEST_F(LogTest, DumpLogCopyOnlyWhileLogFdIsOpen) {
    ASSERT_EQ(parse({"-t", "vm420"}), 0);
    std_dump* d = Container::getStdDump();
    int file = memfd_create("dumplog", MFD_CLOEXEC);
    ASSERT_GT(file, 0);

    d->log_fd = 0;  // as the constructor leaves it: no dump log
    LOGI_DUMP_AS("std_ul_recv_info", "dump_size : %u\n", 7u);
    d->log_fd = file;
    errno = EIO;
    LOGI_DUMP_AS("std_ul_recv_info", "DUMP INFO saved\n");
    LOGE_DUMP_AS("std_ul_rx_frame", "ERR! DUMP read fail\n");
    LOGI_AS("dump", "not for the dump log\n");
    // A daemon started without a standard output gets its dump log at descriptor 1.
    const int out = dup(1);
    ASSERT_EQ(dup2(file, 1), 1);
    d->log_fd = 1;
    LOGI_DUMP_AS("std_ul_recv_data", "[step 1] saved = 7\n");
    dup2(out, 1);
    close(out);
    d->log_fd = -1;
    LOGI_DUMP_AS("dump", "closed\n");

    EXPECT_EQ(fd_text(file),
              "std_ul_recv_info: DUMP INFO saved\n"
              "(ERR! Input/output error) std_ul_rx_frame: ERR! DUMP read fail\n"
              "std_ul_recv_data: [step 1] saved = 7\n");
    // The two usual copies are always written.
    const std::string k = kmsg();
    EXPECT_NE(k.find("<6>cpif: rix: std_ul_recv_info: dump_size : 7\n"), std::string::npos);
    EXPECT_NE(k.find("<6>cpif: rix: dump: closed\n"), std::string::npos);
    EXPECT_NE(radio().find("D/boot: rix: std_ul_recv_info: DUMP INFO saved\n"), std::string::npos);
    d->log_fd = -1;
    close(file);
}

TEST_F(LogTest, OverlongTextIsCutNotOverflowed) {
    std::string big(10000, 'a');
    LOGI_AS("main", "%s\n", big.c_str());
    const std::string k = kmsg();
    EXPECT_GT(k.size(), 1000u);
    EXPECT_LT(k.size(), 4096u);
    EXPECT_EQ(k.rfind("<6>cpif: rix: main: aaaa", 0), 0u);
}

TEST_F(LogTest, KprintfDeinitLeavesStandardOutputOpen) {
    kmsg_fd = 1;
    Log::kprintf_deinit();
    EXPECT_NE(fcntl(1, F_GETFD), -1);

    int fd = dup(kmsg_capture_);
    kmsg_fd = fd;
    Log::kprintf_deinit();
    EXPECT_EQ(kmsg_fd, fd);  // the variable is not changed
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(errno, EBADF);
}

}  // namespace
