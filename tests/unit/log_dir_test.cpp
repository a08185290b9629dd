// The log directory: creation with mode, label and group, the race with another creator, a file
// in its place, and the 500 MB free-space rule at its exact limit on file systems mounted for the
// test.
#include <grp.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "log/log.h"
#include "rix_test.h"

// glibc's getgrnam hands every caller the same storage, which another thread's
// lookup may have just filled with a different group. Here it always has: the
// daemon must look the group up into storage of its own.
extern "C" struct group* getgrnam(const char*) {
    static char name[] = "other";
    static struct group other = {name, nullptr, 4242, nullptr};
    return &other;
}

namespace {

const char kRix[] = "/data/vendor/log/rix";

// What is at `path`: its kind, mode and group.
std::string what(const char* path) {
    struct stat st;
    if (lstat(path, &st) != 0) {
        return "nothing";
    }
    char out[64];
    snprintf(out, sizeof(out), "%s %04o gid %d",
             S_ISDIR(st.st_mode) ? "dir" : (S_ISREG(st.st_mode) ? "file" : "link"),
             st.st_mode & 07777, static_cast<int>(st.st_gid));
    return out;
}

class LogDirTest : public RixTest {
  protected:
    void SetUp() override {
        RixTest::SetUp();
        old_umask_ = umask(002);  // as the daemon runs
        std::ofstream(group_) << "";
        ASSERT_EQ(mount(group_.c_str(), "/etc/group", nullptr, MS_BIND, nullptr), 0);
    }
    void TearDown() override {
        umount2(kRix, MNT_DETACH);
        umount("/etc/group");
        unlink(group_.c_str());
        umask(old_umask_);
        snprintf(log_dir, sizeof(log_dir), "%s", kRix);
        RixTest::TearDown();
    }

    // The platform's group database for this test, bind-mounted over /etc/group.
    const std::string group_ = "/tmp/rix-unit-group-" + std::to_string(getpid());
    mode_t old_umask_ = 022;
};

TEST_F(LogDirTest, MadeOnceGivenToTheLogGroupAndRefusedUnder500Mb) {
    // tmpfs counts free space in pages: 128000 pages of 4 KiB are exactly
    // 500 MB; one page less truncates to 124 blocks of 1024, 496 MB.
    ASSERT_EQ(sysconf(_SC_PAGESIZE), 4096) << "the sizes below assume 4 KiB pages";
    const std::string prefix = "<6>cpif: rix: ", rix = "/data/vendor/log/rix";
    const std::string made = prefix + "create_directory: log path (" + rix + ") created\n";
    const auto small_fs = [](const char* size) {
        return [size] {
            mkdir(kRix, 0775);
            ASSERT_EQ(mount("tmpfs", kRix, "tmpfs", 0, (std::string("size=") + size).c_str()), 0);
        };
    };
    // The tests run as root: what the daemon makes without the group change has gid 0.
    const struct {
        const char* label;
        std::function<void()> prepare;
        bool log_group;
        const char* space_at;  // log_dir, where the free space is measured; nullptr: not measured
        int ret;
        std::string log;
        bool labelled;
        std::string after;
    } cases[] = {
        // clang-format off
        // Always made at the fixed path; the space is measured on log_dir.
        {"made", [] {}, true, "/data/none", -1,
         made + "<3>cpif: rix: (ERR! No such file or directory) check_fs_log_directory: statfs failed\n", true, "dir 0775 gid 1007"},
        {"no log group", [] {}, false, kRix, 0, made, true, "dir 0775 gid 0"},
        {"existing: given to the group again, nothing else", [] { mkdir(kRix, 0700); }, true, kRix, 0, "", false, "dir 0700 gid 1007"},
        // A dangling link: the status query fails but mkdir finds the name taken (EEXIST), as
        // when a capture thread made the directory in between. The group change then fails.
        {"lost race", [] { symlink("/data/gone", kRix); }, true, nullptr, 0,
         made + prefix + "switch_group_log: log path(" + rix + ") gid(1007) set err(-1)\n", true, "link 0777 gid 0"},
        // Only the last component is made: without its parent, creation fails.
        {"no parent", [] { std::filesystem::remove_all("/data/vendor"); }, true, kRix, -1,
         "<3>cpif: rix: (ERR! No such file or directory) create_directory: log path create fail err=-1\n", false, "nothing"},
        {"exactly 500 MB", small_fs("512000k"), true, kRix, 0, "", false, "dir 1777 gid 1007"},
        {"one page less", small_fs("511996k"), true, kRix, -28,
         prefix + "check_fs_log_directory: Block size: 4096, Free Block: 127999, Free Size: 496 MB\n" + prefix +
             "check_fs_log_directory: " + rix + ": freespace is under 500 MB\n", false, "dir 1777 gid 1007"},
        // clang-format on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        std::filesystem::remove_all("/data/vendor");
        std::filesystem::create_directories("/data/vendor/log");
        std::ofstream(group_) << "root:x:0:\n" << (c.log_group ? "log:x:1007:\n" : "");
        std::ofstream(log_dir_ + "/restorecon") << "";
        c.prepare();
        clear_logs();
        if (c.space_at != nullptr) {
            snprintf(log_dir, sizeof(log_dir), "%s", c.space_at);
            EXPECT_EQ(Log::create_log_directory(), c.ret);
        } else {
            EXPECT_EQ(Log::create_directory(kRix), c.ret);
        }
        EXPECT_EQ(kmsg(), c.log);
        EXPECT_EQ(read_file(log_dir_ + "/restorecon"), c.labelled ? rix + "\n" : "");
        EXPECT_EQ(what(kRix), c.after);
        umount2(kRix, MNT_DETACH);
    }
}

}  // namespace
