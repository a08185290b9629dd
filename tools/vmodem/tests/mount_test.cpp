// Mounts the real vmodem binary for what the system scenarios do not drive: the daemon polls
// before it reads and only sends known codes, and the scenarios' harness does not check how
// vmodem ends. Needs root and /dev/fuse; without them the test fails, it never skips.
#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <string>

#include "boot/cpif.h"

namespace {

using namespace std::chrono_literals;

class MountedModem : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(access("/dev/fuse", R_OK | W_OK), 0) << "vmodem needs /dev/fuse";
        ASSERT_EQ(geteuid(), 0u) << "mounting vmodem needs root";
        char tmpl[] = "/tmp/vmodem-test-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        mount_ = dir_ + "/nodes";
        ASSERT_EQ(mkdir(mount_.c_str(), 0755), 0);
        int ready[2];
        ASSERT_EQ(pipe(ready), 0);
        pid_ = fork();
        if (pid_ == 0) {
            close(ready[0]);
            const std::string fd = std::to_string(ready[1]), ctl = dir_ + "/ctl";
            execl(VMODEM_BINARY, "vmodem", "--mount", mount_.c_str(), "--control", ctl.c_str(),
                  "--ready-fd", fd.c_str(), nullptr);
            _exit(127);
        }
        close(ready[1]);
        char line[16] = {};
        const ssize_t n = read(ready[0], line, sizeof(line) - 1);
        close(ready[0]);
        ASSERT_EQ(std::string(line, n > 0 ? n : 0), "ready\n") << "vmodem did not come up";
    }

    // SIGTERM unmounts, removes the control socket and exits 0.
    void TearDown() override {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            int status = 0;
            waitpid(pid_, &status, 0);
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
            std::ifstream mounts("/proc/self/mounts");
            const std::string all((std::istreambuf_iterator<char>(mounts)), {});
            EXPECT_EQ(all.find(mount_), std::string::npos) << "still mounted";
            EXPECT_FALSE(std::filesystem::exists(dir_ + "/ctl")) << "control socket left behind";
        }
        std::error_code ignored;
        std::filesystem::remove_all(dir_, ignored);
    }

    std::string dir_, mount_;
    pid_t pid_ = -1;
};

TEST_F(MountedModem, ReadBlocksUntilTheAnswerAndUnknownCodesFail) {
    const std::string boot = mount_ + "/umts_boot0";
    const int fd = open(boot.c_str(), O_RDWR);
    const int nonblocking = open(boot.c_str(), O_RDWR | O_NONBLOCK);
    ASSERT_TRUE(fd >= 0 && nonblocking >= 0) << strerror(errno);
    EXPECT_EQ(ioctl(fd, 0x6F99), -1);
    EXPECT_EQ(errno, ENOTTY);
    ASSERT_EQ(ioctl(fd, IOCTL_POWER_ON, nullptr), 0);
    const int32_t mode = CP_BOOT_MODE_NORMAL;
    ASSERT_EQ(ioctl(fd, IOCTL_START_CP_BOOTLOADER, &mode), 0);

    uint32_t word = 0;
    EXPECT_EQ(read(nonblocking, &word, 4), -1);
    EXPECT_EQ(errno, EAGAIN);
    auto reader = std::async(std::launch::async, [fd] {
        uint32_t answer = 0;
        return read(fd, &answer, 4) == 4 ? answer : 0u;
    });
    EXPECT_EQ(reader.wait_for(200ms), std::future_status::timeout) << "nothing to read yet";
    word = 0x900D;
    ASSERT_EQ(write(nonblocking, &word, 4), 4);
    EXPECT_EQ(reader.get(), 0xA00Du);
    close(nonblocking);
    close(fd);
}

}  // namespace
