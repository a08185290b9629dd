// Choices the daemon makes where its flow leaves room: a message reaches the kernel log as one
// record cut to fit, and the NV validation wait.
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <tuple>
#include <vector>

#include "boot/boot_dump.h"
#include "log/log.h"
#include "platform/properties.h"
#include "rix_test.h"

namespace {

using DecisionsTest = RixTest;

// Each copy of a message is one write: the kernel makes one record of it, so a line is never
// split, embedded newlines included. An overlong text is cut to fit, never overflowed.
TEST_F(DecisionsTest, KernelCopyIsOneRecordPerMessageCutToFit) {
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sv), 0);
    kmsg_fd = sv[0];
    errno = ENOENT;
    LOGE_AS("status_loop", "%s open fail\n", "/dev/umts_boot0");
    LOGI_AS("main", "\n\n ---- upload ----\n\n");
    LOGI_AS("main", "%s\n", std::string(10000, 'a').c_str());
    kmsg_fd = kmsg_capture_;
    close(sv[0]);

    std::vector<std::string> records;
    char buf[4096];
    for (ssize_t n; (n = recv(sv[1], buf, sizeof(buf), MSG_DONTWAIT)) > 0;) {
        records.emplace_back(buf, static_cast<size_t>(n));
    }
    close(sv[1]);
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[2].rfind("<6>cpif: rix: main: aaaa", 0), 0u);
    EXPECT_GT(records[2].size(), 1000u);
    EXPECT_LT(records[2].size(), 4096u);
    records.pop_back();
    EXPECT_EQ(records,
              (std::vector<std::string>{
                  "<3>cpif: rix: (ERR! No such file or directory) status_loop: /dev/umts_boot0 "
                  "open fail\n",
                  "<6>cpif: rix: main: \n\n ---- upload ----\n\n"}));
}

// The NV validation wait reads the property 50 times, each read followed by a pause: a "1" set
// during the 50th pause is too late, one set during the 49th is seen.
int g_pauses = 0;
int g_set_at = 0;
void counting_pause() {
    if (++g_pauses == g_set_at) {
        property_set("vendor.rix.rfs_check_done", "1");
    }
}

TEST_F(DecisionsTest, NvValidationWaitReadsFiftyTimes) {
    for (auto [set_at, outcome, pauses] :
         {std::tuple{49, "done", 49}, {50, "TIMEOUT", 50}, {0, "TIMEOUT", 50}}) {
        set_prop("vendor.rix.rfs_check_done", "0");
        g_pauses = 0;
        g_set_at = set_at;
        EXPECT_STREQ(wait_nv_validation(counting_pause), outcome) << set_at;
        EXPECT_EQ(g_pauses, pauses) << set_at;
    }
}

}  // namespace
