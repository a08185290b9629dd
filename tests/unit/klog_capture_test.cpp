// Kernel ring-buffer captures where the daemon's own runs cannot take them: a refused read of
// the ring buffer, a link in place of the file, and the chips that never start a capture thread.
// Names, content and the free-space rule are checked on the daemon's captures in the system tests.
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "log/log.h"
#include "rix_test.h"

namespace {

namespace fs = std::filesystem;

const std::string kDir = "/data/vendor/log/rix";

// The files of the log directory, by name.
std::vector<std::string> captures() {
    std::vector<std::string> out;
    for (const auto& e : fs::directory_iterator(kDir)) {
        out.push_back(e.path().filename());
    }
    return out;
}

// Makes the calling thread's reads of the ring buffer fail with EPERM, whatever the host's
// dmesg_restrict: a seccomp filter belongs to the thread that loads it. Written with the kernel's
// own macros, as the test also builds for a device, where libseccomp is no platform library.
bool refuse_ring_buffer_in_this_thread() {
    sock_filter code[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_syslog, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    sock_fprog prog = {static_cast<unsigned short>(std::size(code)), code};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &prog) == 0;
}

// The phone has the parent of kDir; the capture makes only the last level.
using KlogCaptureTest = RixTest;

// The file is made, left empty and closed; the failure is an information line before the path.
TEST_F(KlogCaptureTest, RefusedRingBufferReadLeavesAnEmptyClosedFile) {
    fs::create_directories("/data/vendor/log");
    bool refused = false;
    std::thread([&] {
        refused = refuse_ring_buffer_in_this_thread();
        if (refused) {
            char name[] = "cpcrash_umts_klog_after";
            Log::save_logs(1, name);
        }
    }).join();
    ASSERT_TRUE(refused);
    const auto files = captures();
    ASSERT_EQ(files.size(), 1u);
    const std::string path = kDir + "/" + files[0];
    EXPECT_EQ(fs::file_size(path), 0u);
    EXPECT_NE(kmsg().find("<6>cpif: rix: dmesg_to_file: klogctl fail\n"
                          "<6>cpif: rix: _save_logs: " +
                          path + "\n"),
              std::string::npos)
        << kmsg();
    for (const auto& e : fs::directory_iterator("/proc/self/fd")) {
        std::error_code ec;
        EXPECT_NE(fs::read_symlink(e.path(), ec), path) << "the capture file is left open";
    }
}

// A link of the capture's name is not followed.
TEST_F(KlogCaptureTest, LinkInPlaceOfTheFileIsNotFollowed) {
    fs::create_directories(kDir);
    std::ofstream("/data/target") << "";
    // Every name the capture may pick in the seconds around now.
    for (time_t t = time(nullptr), end = t + 3; t <= end; ++t) {
        struct tm local;
        localtime_r(&t, &local);
        char name[64];
        strftime(name, sizeof(name), "cp_boot_umts_%Y%m%d%H%M_%S.log", &local);
        ASSERT_EQ(symlink("/data/target", (kDir + "/" + name).c_str()), 0);
    }
    char name[] = "cp_boot_umts";
    Log::save_logs(1, name);
    EXPECT_EQ(read_file("/data/target"), "") << kmsg();
}

// No thread at the low level nor on the excluded chips; the thread copies the name it is given.
TEST_F(KlogCaptureTest, ThreadedCaptureSkipsTheLowLevelAndTheExcludedChips) {
    fs::create_directories("/data/vendor/log");
    const mode_t old_umask = umask(002);  // as the daemon runs
    char name[64] = "cp_boot_umts";
    Log::save_logs_thread(1, name);  // at the low level
    debug_level = DBG_HIGH;
    for (const char* chip : {"tolvar410", "tolvar5120x", "tolvar41"}) {
        set_prop("ro.hardware.chipname", chip);
        Log::save_logs_thread(1, name);
    }
    memset(name, 'z', sizeof(name) - 1);
    // The capture logs its path when it is done.
    for (int i = 0; i < 500 && kmsg().find("_save_logs: /") == std::string::npos; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    umask(old_umask);
    const auto files = captures();
    ASSERT_EQ(files.size(), 1u) << kmsg();
    EXPECT_EQ(files[0].rfind("cp_boot_umts_", 0), 0u) << files[0];
    EXPECT_EQ(fs::status(kDir + "/" + files[0]).permissions(), fs::perms(0660));
}

}  // namespace
