// Mounts the real vmodem binary in a temporary directory and drives it with
// the system calls the daemon makes. Needs root and /dev/fuse; without them
// the tests fail, they never skip.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "boot/cpif.h"
#include "dump/udl.h"
#include "payload.h"

namespace {

class MountedModem : public ::testing::Test {
  protected:
    void start(const std::string& scenario) {
        ASSERT_EQ(access("/dev/fuse", R_OK | W_OK), 0) << "vmodem needs /dev/fuse";
        ASSERT_EQ(geteuid(), 0u) << "mounting vmodem needs root";
        char tmpl[] = "/tmp/vmodem-test-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        mount_ = dir_ + "/nodes";
        ASSERT_EQ(mkdir(mount_.c_str(), 0755), 0);
        std::ofstream(dir_ + "/scenario") << scenario;
        int ready[2];
        ASSERT_EQ(pipe(ready), 0);
        pid_ = fork();
        if (pid_ == 0) {
            close(ready[0]);
            std::string fd = std::to_string(ready[1]);
            std::string scen = dir_ + "/scenario", ctl = dir_ + "/ctl", trace = dir_ + "/trace",
                        mem = dir_ + "/memory";
            execl(VMODEM_BINARY, "vmodem", "--mount", mount_.c_str(), "--scenario", scen.c_str(),
                  "--control", ctl.c_str(), "--trace", trace.c_str(), "--memory", mem.c_str(),
                  "--ready-fd", fd.c_str(), nullptr);
            _exit(127);
        }
        close(ready[1]);
        char line[16] = {};
        ssize_t n = read(ready[0], line, sizeof(line) - 1);
        close(ready[0]);
        ASSERT_EQ(std::string(line, n > 0 ? n : 0), "ready\n") << "vmodem did not come up";
    }

    void TearDown() override {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            int status = 0;
            waitpid(pid_, &status, 0);
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
            std::ifstream mounts("/proc/self/mounts");
            std::string all((std::istreambuf_iterator<char>(mounts)), {});
            EXPECT_EQ(all.find(mount_), std::string::npos) << "still mounted";
        }
        if (!dir_.empty()) {
            std::string cmd = "rm -rf '" + dir_ + "'";
            // A mkdtemp directory: no outside text reaches the shell.
            EXPECT_EQ(system(cmd.c_str()), 0);  // NOLINT(cert-env33-c)
        }
    }

    int open_node(const char* name, int flags = O_RDWR) {
        return open((mount_ + "/" + name).c_str(), flags);
    }

    std::string control(const std::string& command) {
        int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        snprintf(addr.sun_path, sizeof(addr.sun_path), "%s/ctl", dir_.c_str());
        EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
        std::string msg = command + "\n", reply;
        EXPECT_EQ(write(fd, msg.data(), msg.size()), static_cast<ssize_t>(msg.size()));
        char c;
        while (read(fd, &c, 1) == 1 && c != '\n') {
            reply += c;
        }
        close(fd);
        return reply;
    }

    std::string trace() {
        std::ifstream in(dir_ + "/trace");
        return std::string((std::istreambuf_iterator<char>(in)), {});
    }

    // Release reaches the server after close() returns; give it a moment.
    std::string handles_when_closed() {
        std::string reply;
        for (int i = 0; i < 100; ++i) {
            reply = control("query handles");
            if (reply == "ok boot=0 dump=0 memshare=0") {
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return reply;
    }

    static bool wait_in(int fd, int ms = 5000) {
        pollfd p{fd, POLLIN, 0};
        return poll(&p, 1, ms) == 1 && (p.revents & POLLIN);
    }
    static uint32_t exchange(int fd, uint32_t word) {
        EXPECT_EQ(write(fd, &word, 4), 4);
        EXPECT_TRUE(wait_in(fd));
        uint32_t answer = 0;
        EXPECT_EQ(read(fd, &answer, 4), 4);
        return answer;
    }

    std::string dir_, mount_;
    pid_t pid_ = -1;
};

TEST_F(MountedModem, NormalBootThroughTheDeviceNodes) {
    start("security 2 11\n");
    int fd = open_node("umts_boot0");
    ASSERT_GE(fd, 0);
    EXPECT_EQ(control("query handles"), "ok boot=1 dump=0 memshare=0");
    EXPECT_EQ(ioctl(fd, IOCTL_GET_MODEM_STATE), 0);
    ASSERT_EQ(ioctl(fd, IOCTL_POWER_ON, nullptr), 0);
    security_req_args sec{2, 0, 0, 0};
    EXPECT_EQ(ioctl(fd, IOCTL_CHECK_SECURITY, &sec), 11);

    // A chunk travels from this process into modem memory.
    std::vector<uint8_t> chunk(udl::kImageChunkSize);
    payload::fill(payload::stream_seed(0, "BOOT"), 0, chunk.data(), chunk.size());
    cp_image img{reinterpret_cast<uintptr_t>(chunk.data()), 70000, 0x40000, 0x1000, 0,
                 static_cast<uint32_t>(chunk.size())};
    ASSERT_EQ(ioctl(fd, IOCTL_LOAD_CP_IMAGE, &img), 0);
    int mem = open((dir_ + "/memory").c_str(), O_RDONLY);
    std::vector<uint8_t> back(chunk.size());
    ASSERT_EQ(pread(mem, back.data(), back.size(), 0x40000), static_cast<ssize_t>(back.size()));
    close(mem);
    EXPECT_EQ(back, chunk);
    img.m_offset = 0xFFFFFFF0;
    EXPECT_EQ(ioctl(fd, IOCTL_LOAD_CP_IMAGE, &img), -1);
    EXPECT_EQ(errno, EINVAL);

    int32_t mode = CP_BOOT_MODE_NORMAL;
    ASSERT_EQ(ioctl(fd, IOCTL_START_CP_BOOTLOADER, &mode), 0);
    EXPECT_EQ(exchange(fd, 0x900D), 0xA00Du);
    EXPECT_EQ(exchange(fd, 0x9F00), 0xAF00u);
    EXPECT_EQ(ioctl(fd, IOCTL_COMPLETE_NORMAL_BOOTUP, nullptr), 0);
    EXPECT_EQ(ioctl(fd, IOCTL_GET_MODEM_STATE), 4);
    EXPECT_EQ(ioctl(fd, 0x6F99), -1);
    EXPECT_EQ(errno, ENOTTY);
    close(fd);
    EXPECT_EQ(handles_when_closed(), "ok boot=0 dump=0 memshare=0");

    std::string t = trace();
    EXPECT_NE(t.find("ioctl boot LOAD_CP_IMAGE size=0x11170 m_offset=0x40000 b_offset=0x1000 "
                     "mode=0 len=63488 -> 0\n"),
              std::string::npos)
        << t;
    size_t w = t.find("write boot 0x0000900D\n");
    ASSERT_NE(w, std::string::npos) << t;
    EXPECT_NE(t.find("\nread boot 0x0000A00D\n", w), std::string::npos) << t;
}

TEST_F(MountedModem, SecureBootFailureCodeReachesTheCallerUnchanged) {
    start("");
    int fd = open_node("umts_boot0");
    EXPECT_EQ(control("set result CHECK_SECURITY 0xCAE20020"), "ok");
    security_req_args sec{0, 1, 2, 0};
    EXPECT_EQ(ioctl(fd, IOCTL_CHECK_SECURITY, &sec), static_cast<int>(0xCAE20020u));
    EXPECT_EQ(control("set result POWER_ON -5"), "ok");
    EXPECT_EQ(ioctl(fd, IOCTL_POWER_ON, nullptr), -1);
    EXPECT_EQ(errno, EIO);
    close(fd);
}

TEST_F(MountedModem, CrashWakesAPollerWithHangUp) {
    start("");
    int fd = open_node("umts_boot0");
    ASSERT_EQ(ioctl(fd, IOCTL_POWER_ON, nullptr), 0);
    auto poller = std::async(std::launch::async, [fd] {
        pollfd p{fd, POLLHUP, 0};
        int n = poll(&p, 1, 10000);
        return n == 1 ? p.revents : -1;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(poller.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    EXPECT_EQ(control("crash 2"), "ok state=2");
    EXPECT_EQ(poller.get(), POLLHUP);
    EXPECT_EQ(ioctl(fd, IOCTL_GET_MODEM_STATE), 2);

    // A read of the answer word meanwhile fails the daemon's poll with only POLLHUP.
    pollfd p{fd, POLLIN, 0};
    EXPECT_EQ(poll(&p, 1, 100), 1);
    EXPECT_EQ(p.revents, POLLHUP);
    int32_t mode = CP_BOOT_MODE_NORMAL;
    ASSERT_EQ(ioctl(fd, IOCTL_POWER_RESET, &mode), 0);
    EXPECT_EQ(poll(&p, 1, 100), 0);
    close(fd);
}

TEST_F(MountedModem, BlockedReadIsAnsweredWhenTheWordArrives) {
    start("");
    int fd = open_node("umts_boot0");
    ioctl(fd, IOCTL_POWER_ON, nullptr);
    int32_t mode = CP_BOOT_MODE_NORMAL;
    ioctl(fd, IOCTL_START_CP_BOOTLOADER, &mode);
    auto reader = std::async(std::launch::async, [this] {
        int r = open_node("umts_boot0");
        uint32_t w = 0;
        ssize_t n = read(r, &w, 4);
        close(r);
        return n == 4 ? w : 0u;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(reader.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    uint32_t word = 0x900D;
    ASSERT_EQ(write(fd, &word, 4), 4);
    EXPECT_EQ(reader.get(), 0xA00Du);
    close(fd);
    int nb = open_node("umts_boot0", O_RDWR | O_NONBLOCK);
    uint32_t w;
    EXPECT_EQ(read(nb, &w, 4), -1);
    EXPECT_EQ(errno, EAGAIN);
    close(nb);
}

TEST_F(MountedModem, ShortDumpStageAndLogRegion) {
    start("dump_size 20000\ndump_steps 2\ndump_seed 3\ndump_reason oops\nregion shmem 5000\n");
    int boot = open_node("umts_boot0");
    int dump = open_node("umts_ramdump0");
    ASSERT_GE(dump, 0);

    cp_log_dump_info region{};
    std::strcpy(region.name, "shmem");
    ASSERT_EQ(ioctl(dump, IOCTL_GET_LOG_DUMP, &region), 0);
    EXPECT_EQ(region.size, 5000u);
    std::vector<uint8_t> got;
    uint8_t chunk[4096];
    while (got.size() < region.size) {
        ASSERT_TRUE(wait_in(dump));
        ssize_t n = read(dump, chunk, sizeof(chunk));
        ASSERT_GT(n, 0);
        got.insert(got.end(), chunk, chunk + n);
    }
    ASSERT_EQ(got.size(), 5000u);  // a shorter region must not be indexed below
    EXPECT_EQ(got[4999], payload::byte_at(payload::stream_seed(3, "shmem"), 4999));

    int32_t mode = CP_BOOT_MODE_DUMP;
    ASSERT_EQ(ioctl(boot, IOCTL_POWER_RESET, &mode), 0);
    ASSERT_EQ(ioctl(boot, IOCTL_START_CP_BOOTLOADER, &mode), 0);
    EXPECT_EQ(exchange(dump, 0x9D00), 0xAD00u);
    udl::ul_info info{};
    ASSERT_TRUE(wait_in(dump));
    ASSERT_EQ(read(dump, &info, sizeof(info)), 12);
    EXPECT_EQ(info.dump_size, 20000u);
    char reason[512] = {};
    ASSERT_TRUE(wait_in(dump));
    ASSERT_EQ(read(dump, reason, info.reason_len), 4);
    EXPECT_STREQ(reason, "oops");

    std::vector<uint8_t> payload_bytes;
    static udl::std_ul_frame frame;
    for (uint32_t step = 1; step <= info.num_steps; ++step) {
        uint32_t word = 0x9D00 | step;
        ASSERT_EQ(write(dump, &word, 4), 4);
        do {
            ASSERT_TRUE(wait_in(dump));
            ssize_t n = read(dump, &frame, sizeof(frame));
            ASSERT_EQ(n, static_cast<ssize_t>(16 + frame.header.size));
            EXPECT_EQ(frame.header.command, 0xAD00u | step);
            payload_bytes.insert(payload_bytes.end(), frame.payload,
                                 frame.payload + frame.header.size);
        } while (frame.header.curr_frame < frame.header.num_frames);
    }
    ASSERT_EQ(payload_bytes.size(), 20000u);
    for (size_t i = 0; i < payload_bytes.size(); ++i) {
        ASSERT_EQ(payload_bytes[i], payload::byte_at(3, i)) << i;
    }
    EXPECT_EQ(exchange(dump, 0x9D0D), 0xAD0Du);

    char text[515] = "UMTS: CP Crash by CP - oops";
    EXPECT_EQ(ioctl(dump, IOCTL_ENTER_UPLOAD_MODE, text), 0);
    std::string facts = control("query facts");
    EXPECT_NE(facts.find("upload=1 upload_text=\"UMTS: CP Crash by CP - oops\""), std::string::npos)
        << facts;
    close(dump);
    close(boot);
    EXPECT_EQ(handles_when_closed(), "ok boot=0 dump=0 memshare=0");
}

TEST_F(MountedModem, SrinfoAndBtlSizeThroughPointers) {
    start("btl_size 0\n");
    int boot = open_node("umts_boot0");
    srinfo_block block{};
    block.len = 4092;
    ASSERT_EQ(ioctl(boot, IOCTL_GET_SRINFO, &block), 0);
    uint32_t marker;
    std::memcpy(&marker, block.data + kSrinfoMarkerOffset, 4);
    EXPECT_EQ(marker, kSrinfoMarker);
    EXPECT_GT(block.len, 16u);
    EXPECT_EQ(block.data[16], '{');

    int mem = open_node("ramdump_memshare");
    int32_t size = 16 << 20;
    ASSERT_EQ(ioctl(mem, IOCTL_SET_BTL_SIZE, &size), 0);
    size = 0;
    ASSERT_EQ(ioctl(mem, IOCTL_GET_BTL_SIZE, &size), 0);
    EXPECT_EQ(size, 16 << 20);
    close(mem);
    close(boot);
}

}  // namespace
