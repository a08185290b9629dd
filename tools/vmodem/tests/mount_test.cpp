// Mounts the real vmodem binary for what the system scenarios do not drive: the daemon polls
// before it reads and only sends known codes, and the scenarios' harness does not check how
// vmodem ends (SIGTERM unmounts, removes the control socket and exits 0). Needs root and
// /dev/fuse; without them the test fails, it never skips.
#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>

#include "boot/cpif.h"

namespace {

TEST(MountedModem, ReadBlocksUntilTheAnswerUnknownCodesFailAndSigtermCleansUp) {
    ASSERT_EQ(geteuid(), 0u) << "mounting vmodem needs root";
    char tmpl[] = "/tmp/vmodem-test-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    const std::string dir = tmpl, mnt = dir + "/nodes", ctl = dir + "/ctl";
    std::filesystem::create_directory(mnt);
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t pid = fork();
    if (pid == 0) {
        execl(VMODEM_BINARY, "vmodem", "--mount", mnt.c_str(), "--control", ctl.c_str(),
              "--ready-fd", std::to_string(ready[1]).c_str(), nullptr);
        _exit(127);
    }
    close(ready[1]);
    char line[16] = {};
    EXPECT_EQ(read(ready[0], line, sizeof(line) - 1), 6);
    close(ready[0]);
    if (std::string(line) != "ready\n") {
        kill(pid, SIGKILL);
        FAIL() << "vmodem did not come up (it needs /dev/fuse)";
    }

    const int fd = open((mnt + "/umts_boot0").c_str(), O_RDWR);
    const int nonblocking = open((mnt + "/umts_boot0").c_str(), O_RDWR | O_NONBLOCK);
    EXPECT_TRUE(fd >= 0 && nonblocking >= 0) << strerror(errno);
    EXPECT_EQ(ioctl(fd, 0x6F99), -1);
    EXPECT_EQ(errno, ENOTTY);
    const int32_t mode = CP_BOOT_MODE_NORMAL;
    EXPECT_EQ(ioctl(fd, IOCTL_POWER_ON, nullptr), 0);
    EXPECT_EQ(ioctl(fd, IOCTL_START_CP_BOOTLOADER, &mode), 0);
    uint32_t word = 0;
    EXPECT_EQ(read(nonblocking, &word, 4), -1);
    EXPECT_EQ(errno, EAGAIN);
    auto reader = std::async(std::launch::async, [fd] {
        uint32_t answer = 0;
        return read(fd, &answer, 4) == 4 ? answer : 0u;
    });
    EXPECT_EQ(reader.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout)
        << "nothing to read yet";
    word = 0x900D;
    EXPECT_EQ(write(nonblocking, &word, 4), 4);
    EXPECT_EQ(reader.get(), 0xA00Du);
    close(nonblocking);
    close(fd);

    kill(pid, SIGTERM);
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    std::ifstream mounts("/proc/self/mounts");
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(mounts), {}).find(mnt), std::string::npos)
        << "still mounted";
    EXPECT_FALSE(std::filesystem::exists(ctl)) << "control socket left behind";
    std::filesystem::remove_all(dir);
}

}  // namespace
