// The log directory: creation with mode, label and group, the race with
// another creator, a file in its place, and the 500 MB free-space rule on
// small file systems mounted for the test.
#include <grp.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "core/util.h"
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
constexpr gid_t kLogGid = 1007;

class LogDirTest : public RixTest {
  protected:
    void SetUp() override {
        RixTest::SetUp();
        old_umask_ = umask(002);  // as the daemon runs
        snprintf(log_dir, sizeof(log_dir), "%s", kRix);
        std::filesystem::create_directories("/data/vendor/log");
    }

    void TearDown() override {
        for (auto it = mounts_.rbegin(); it != mounts_.rend(); ++it) {
            umount(it->c_str());
        }
        umask(old_umask_);
        snprintf(log_dir, sizeof(log_dir), "%s", kRix);
        RixTest::TearDown();
    }

    // The platform's group database for this test: with or without "log".
    void groups(bool with_log) {
        const std::string path = dir_ + "/group";
        std::ofstream(path) << "root:x:0:\n" << (with_log ? "log:x:1007:\n" : "radio:x:1001:\n");
        ASSERT_EQ(mount(path.c_str(), "/etc/group", nullptr, MS_BIND, nullptr), 0);
        mounts_.push_back("/etc/group");
    }

    void small_fs(const char* at, const std::string& size) {
        std::filesystem::create_directories(at);
        ASSERT_EQ(mount("tmpfs", at, "tmpfs", 0, ("size=" + size).c_str()), 0) << at;
        mounts_.push_back(at);
    }

    std::string restorecon() const { return read_file(log_dir_ + "/restorecon"); }

    mode_t old_umask_ = 022;
    std::vector<std::string> mounts_;
};

TEST_F(LogDirTest, CreatesTheDirectoryWithModeLabelAndGroup) {
    groups(true);
    EXPECT_EQ(Log::create_log_directory(), 0);
    struct stat st;
    ASSERT_EQ(stat(kRix, &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(st.st_mode & 07777, 0775u);
    EXPECT_EQ(st.st_gid, kLogGid);
    EXPECT_EQ(st.st_uid, getuid());
    EXPECT_EQ(restorecon(), "/data/vendor/log/rix\n");
    EXPECT_EQ(kmsg(), "<6>cpif: rix: create_directory: log path (/data/vendor/log/rix) created\n");
}

TEST_F(LogDirTest, ExistingDirectoryIsOnlyGivenToTheGroupAgain) {
    groups(true);
    ASSERT_EQ(mkdir(kRix, 0700), 0);
    ASSERT_EQ(chown(kRix, 0, 0), 0);
    EXPECT_EQ(Log::create_directory(kRix), 0);
    struct stat st;
    ASSERT_EQ(stat(kRix, &st), 0);
    EXPECT_EQ(st.st_gid, kLogGid);
    EXPECT_EQ(st.st_mode & 07777, 0700u);  // the mode is left alone
    EXPECT_EQ(restorecon(), "");
    EXPECT_EQ(kmsg(), "");
}

TEST_F(LogDirTest, LosingTheCreationRaceCountsAsCreated) {
    // A dangling link: the status query fails but mkdir finds the name taken
    // (EEXIST), as when another thread made the directory in between.
    groups(true);
    ASSERT_EQ(symlink("/data/gone", kRix), 0);
    EXPECT_EQ(Log::create_directory(kRix), 0);
    EXPECT_EQ(restorecon(), "/data/vendor/log/rix\n");
    // The group change then fails on the dangling link: logged only.
    EXPECT_EQ(kmsg(),
              "<6>cpif: rix: create_directory: log path (/data/vendor/log/rix) created\n"
              "<6>cpif: rix: switch_group_log: log path(/data/vendor/log/rix) gid(1007) set "
              "err(-1)\n");
}

TEST_F(LogDirTest, WithoutALogGroupNothingIsChangedOrLogged) {
    groups(false);
    EXPECT_EQ(Log::create_log_directory(), 0);
    struct stat st;
    ASSERT_EQ(stat(kRix, &st), 0);
    EXPECT_EQ(st.st_gid, getgid());
    EXPECT_EQ(kmsg(), "<6>cpif: rix: create_directory: log path (/data/vendor/log/rix) created\n");

    std::ofstream("/data/file") << "";
    clear_logs();
    Util::switch_group_log(const_cast<char*>("/data/file"));
    EXPECT_EQ(kmsg(), "");
}

TEST_F(LogDirTest, FileInPlaceOfTheDirectoryIsRefusedBeforeAnySpaceCheck) {
    std::ofstream(kRix) << "";
    // A space check would fail loudly on this log_dir.
    snprintf(log_dir, sizeof(log_dir), "/data/none");
    EXPECT_EQ(Log::create_log_directory(), -14);
    EXPECT_EQ(kmsg(),
              "<6>cpif: rix: create_directory: (/data/vendor/log/rix) is not a directory\n");
    EXPECT_EQ(restorecon(), "");
}

TEST_F(LogDirTest, CreationFailureIsAnErrorWithTheCallResult) {
    // Only the last component is made: without its parent, creation fails.
    std::filesystem::remove_all("/data/vendor");
    EXPECT_EQ(Log::create_log_directory(), -1);
    EXPECT_EQ(kmsg(),
              "<3>cpif: rix: (ERR! No such file or directory) create_directory: log path create "
              "fail err=-1\n");
    EXPECT_FALSE(std::filesystem::exists("/data/vendor"));
}

TEST_F(LogDirTest, CreationUsesTheFixedPathAndTheSpaceCheckUsesLogDir) {
    snprintf(log_dir, sizeof(log_dir), "/data/none");
    EXPECT_EQ(Log::create_log_directory(), -1);
    EXPECT_TRUE(std::filesystem::is_directory(kRix));
    const std::string k = kmsg();
    EXPECT_NE(k.find("<6>cpif: rix: create_directory: log path (/data/vendor/log/rix) created\n"),
              std::string::npos);
    EXPECT_NE(k.find("<3>cpif: rix: (ERR! No such file or directory) check_fs_log_directory: "
                     "statfs failed\n"),
              std::string::npos);
}

TEST_F(LogDirTest, FreeSpaceOfExactly500MbIsEnoughLessIsNoSpace) {
    // tmpfs counts free space in pages: 128000 pages of 4 KiB are exactly
    // 500 MB; one page less truncates to 124 blocks of 1024, 496 MB.
    ASSERT_EQ(sysconf(_SC_PAGESIZE), 4096) << "the sizes below assume 4 KiB pages";
    const std::string under =
        "<6>cpif: rix: check_fs_log_directory: /data/vendor/log/rix: "
        "freespace is under 500 MB\n";
    const struct {
        const char* size;
        int ret;
        std::string log;
    } cases[] = {
        {"512000k", 0, ""},
        {"511996k", -28,
         "<6>cpif: rix: check_fs_log_directory: Block size: 4096, Free Block: "
         "127999, Free Size: 496 MB\n" +
             under},
        {"1m", -28,
         "<6>cpif: rix: check_fs_log_directory: Block size: 4096, Free Block: 256, "
         "Free Size: 0 MB\n" +
             under},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.size);
        small_fs(kRix, c.size);
        clear_logs();
        // The directory is there already: no creation line.
        EXPECT_EQ(Log::create_log_directory(), c.ret);
        EXPECT_EQ(kmsg(), c.log);
        umount(kRix);
        mounts_.pop_back();
    }
}

}  // namespace
