// Choices the daemon makes where its flow leaves room: a message reaches the kernel log as one
// record, the NV validation wait, a missing wake-lock file, and a dump attempt never keeps the
// tail of an earlier attempt's files.
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include "boot/boot_dump.h"
#include "core/rix.h"
#include "log/log.h"
#include "platform/properties.h"
#include "rix_test.h"

namespace {

using DecisionsTest = RixTest;

// Each copy of a message is one write: the kernel makes one record of it, so a line is never
// split, embedded newlines included.
TEST_F(DecisionsTest, KernelCopyIsOneRecordPerMessage) {
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sv), 0);
    kmsg_fd = sv[0];
    errno = ENOENT;
    LOGE_AS("status_loop", "%s open fail\n", "/dev/umts_boot0");
    LOGI_AS("main", "\n\n ---- upload ----\n\n");
    LOGI_AS("CsumCheckForFile", "%s checksum : %s", "/mnt/vendor/efs/nv_data.bin", "verified");
    kmsg_fd = kmsg_capture_;
    close(sv[0]);

    std::vector<std::string> records;
    char buf[4096];
    for (ssize_t n; (n = recv(sv[1], buf, sizeof(buf), MSG_DONTWAIT)) > 0;) {
        records.emplace_back(buf, static_cast<size_t>(n));
    }
    close(sv[1]);
    EXPECT_EQ(records,
              (std::vector<std::string>{
                  "<3>cpif: rix: (ERR! No such file or directory) status_loop: /dev/umts_boot0 "
                  "open fail\n",
                  "<6>cpif: rix: main: \n\n ---- upload ----\n\n",
                  "<6>cpif: rix: CsumCheckForFile: /mnt/vendor/efs/nv_data.bin checksum : "
                  "verified"}));
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

// A wake-lock file that cannot be opened (a development system) costs one error line and
// nothing else: the release still goes to its own file.
TEST_F(DecisionsTest, UnopenableWakeLockIsOnlyLogged) {
    ASSERT_EQ(parse({"-t", "vm420"}), 0);
    std::filesystem::remove("/sys/power/wake_lock");
    std::filesystem::create_directory("/sys/power/wake_lock");
    auto* bd = static_cast<BootDumpQuoll*>(Container::bootDump);
    clear_logs();
    bd->boot_wake_lock(1);
    bd->boot_wake_lock(0);
    EXPECT_EQ(kmsg(),
              "<3>cpif: rix: (ERR! Is a directory) boot_wake_lock: user wake_lock open fail\n"
              "<6>cpif: rix: boot_wake_lock: /sys/power/wake_unlock/vm420\n");
    EXPECT_EQ(read_file("/sys/power/wake_unlock"), "vm420");
    std::filesystem::remove("/sys/power/wake_lock");
}

class DumpFilesTest : public RixTest {
  protected:
    void SetUp() override {
        RixTest::SetUp();
        std::filesystem::create_directories(kLogDir);
        // Room enough for the free-space rule, whatever the host has.
        ASSERT_EQ(mount("tmpfs", kLogDir, "tmpfs", 0, "size=1g"), 0);
        mounted_ = true;
    }
    void TearDown() override {
        if (mounted_) {
            umount(kLogDir);
        }
        RixTest::TearDown();
    }
    bool mounted_ = false;
};

std::string stamp_at(time_t t) {
    tm local = {};
    localtime_r(&t, &local);
    char buf[64];
    strftime(buf, sizeof(buf), "%Y%m%d-%H%M_%S", &local);
    return buf;
}

// A second attempt within the same second reuses the file names; it starts the files empty
// instead of writing over the start of the earlier ones.
TEST_F(DumpFilesTest, AttemptInTheSameSecondStartsItsFilesEmpty) {
    ASSERT_EQ(parse({"-t", "vm420"}), 0);
    debug_level = DBG_MID;
    // A plain file stands in for the dump node: the version request fails, nothing else.
    std::ofstream("/data/ramdump_node").close();
    snprintf(rix_args.dump_node, sizeof(rix_args.dump_node), "%s", "/data/ramdump_node");

    const std::string stale(10000, 'z');
    const time_t now = time(nullptr);
    for (time_t t = now; t <= now + 2; t++) {
        const std::string s = stamp_at(t);
        for (const std::string& name :
             {"cpcrash_umts_log_" + s, "cpcrash_umts_info_vm420_" + s, "cpcrash_umts_dump_" + s}) {
            std::ofstream(std::string(kLogDir) + "/" + name + ".log") << stale;
        }
    }
    BootDump* bd = Container::bootDump;
    ASSERT_TRUE(bd->std_dump_prepare_args()) << kmsg();
    const std_dump* d = bd->getStdDump();
    struct stat info = {}, dump = {};
    ASSERT_EQ(fstat(d->info_fd, &info) + fstat(d->dump_fd, &dump), 0);
    EXPECT_EQ(info.st_size + dump.st_size, 0);
    // The files are write-only: the log is read back through its name.
    const std::string log = read_file("/proc/self/fd/" + std::to_string(d->log_fd));
    EXPECT_EQ(log.find('z'), std::string::npos) << log;
    EXPECT_NE(log.find("opened (fd "), std::string::npos) << log;
    bd->std_dump_close_args();
}

}  // namespace
