// Kernel ring-buffer captures: file name, content, mode and group, the
// synchronous and the threaded form, and every way a capture can fail.
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/klog.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "log/log.h"
#include "rix_test.h"

namespace {

namespace fs = std::filesystem;

const std::string kDir = "/data/vendor/log/rix";
constexpr gid_t kLogGid = 1007;

std::vector<std::string> captures(const std::string& name) {
    std::vector<std::string> out;
    std::error_code ec;
    for (const auto& e : fs::directory_iterator(kDir, ec)) {
        const std::string file = e.path().filename();
        if (file.rfind(name + "_", 0) == 0) {
            out.push_back(e.path());
        }
    }
    std::sort(out.begin(), out.end());
    return out;
}

bool wait_until(const std::function<bool()>& done, int ms = 5000) {
    for (int waited = 0; waited < ms; waited += 10) {
        if (done()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return done();
}

// Puts a line of our own into the kernel ring buffer.
std::string ring_marker(const std::string& tag) {
    const std::string text =
        "rix-unit " + tag + " " + std::to_string(getpid()) + " " + std::to_string(time(nullptr));
    std::ofstream("/dev/kmsg") << text << "\n";
    return text;
}

int ring_size() {
    static char buf[512 * 1024];
    return klogctl(3, buf, sizeof(buf));
}

// Each capture file of the test is one of the names for the seconds around
// it; the test prepares all of them so the capture meets its own.
std::vector<std::string> names_around_now(const std::string& name) {
    std::vector<std::string> out;
    for (time_t t = time(nullptr), end = t + 3; t <= end; ++t) {
        struct tm local;
        localtime_r(&t, &local);
        char stamp[20];
        strftime(stamp, sizeof(stamp), "%Y%m%d%H%M_%S", &local);
        out.push_back(kDir + "/" + name + "_" + stamp + ".log");
    }
    return out;
}

// A group database of the test's own with a "log" group, over /etc/group.
struct LogGroup {
    LogGroup() {
        std::ofstream(file) << "root:x:0:\nlog:x:" << kLogGid << ":\n";
        mounted = mount(file.c_str(), "/etc/group", nullptr, MS_BIND, nullptr) == 0;
    }
    ~LogGroup() {
        if (mounted) {
            umount2("/etc/group", MNT_DETACH);
        }
        unlink(file.c_str());
    }
    std::string file = "/tmp/rix-unit-group-" + std::to_string(getpid());
    bool mounted = false;
};

class KlogCaptureTest : public RixTest {
  protected:
    void SetUp() override {
        RixTest::SetUp();
        old_umask_ = umask(002);
        // The phone has the parent; the capture makes only the last level.
        fs::create_directories("/data/vendor/log");
    }
    void TearDown() override {
        umask(old_umask_);
        RixTest::TearDown();
    }

    std::string save(const std::string& name) {
        std::string copy = name;
        Log::save_logs(1, copy.data());
        return kmsg();
    }

    static std::string path_line(const std::string& path) {
        return "<6>cpif: rix: _save_logs: " + path + "\n";
    }

    // One capture file of its size, its path reported right after `line`.
    void expect_one_capture(const std::string& name, uintmax_t size, const std::string& line) {
        const auto files = captures(name);
        ASSERT_EQ(files.size(), 1u);
        EXPECT_EQ(fs::file_size(files[0]), size);
        EXPECT_NE(kmsg().find(line + path_line(files[0])), std::string::npos) << kmsg();
    }

    mode_t old_umask_ = 0;
};

// The synchronous form, whatever the debug level, appends the ring text and
// one zero byte to the file of its name and time, made if need be (see the
// threaded test), never truncated.
TEST_F(KlogCaptureTest, SynchronousCaptureIsRingTextAndOneZeroByte) {
    fs::create_directories(kDir);
    const auto prepared = names_around_now("cpcrash_umts_klog_before");
    for (const auto& p : prepared) {
        std::ofstream(p) << "EARLIER\n";
    }
    const std::string marker = ring_marker("sync");
    debug_level = DBG_LOW;
    const std::string log = save("cpcrash_umts_klog_before");
    int grown = 0;
    for (const auto& p : prepared) {
        const std::string content = read_file(p);
        ASSERT_EQ(content.rfind("EARLIER\n", 0), 0u) << p;
        if (content.size() > 8) {
            ++grown;
            EXPECT_EQ(std::count(content.begin(), content.end(), '\0'), 1);
            EXPECT_EQ(content.back(), '\0');
            EXPECT_NE(content.find(marker), std::string::npos);
            EXPECT_NE(log.find("<6>cpif: rix: _save_logs: save dmesg begin...\n" + path_line(p)),
                      std::string::npos)
                << log;
        }
    }
    EXPECT_EQ(grown, 1);
}

TEST_F(KlogCaptureTest, FileThatCannotTakeTheCopyIsReportedWithItsPath) {
    fs::create_directories(kDir);
    // Prepares every name the capture may pick, captures, and tells whether
    // the error line and the path line came for one of them.
    auto reported = [&](const std::string& name,
                        const std::function<void(const std::string&)>& make,
                        const std::string& error) {
        const auto paths = names_around_now(name);
        for (const auto& p : paths) {
            make(p);
        }
        const std::string log = save(name);
        return std::any_of(paths.begin(), paths.end(), [&](const std::string& p) {
            return log.find("<3>cpif: rix: (ERR! " + error + p + "\n" + path_line(p)) !=
                   std::string::npos;
        });
    };
    const std::string target = "/data/target";
    std::ofstream(target) << "";
    EXPECT_TRUE(reported(
        "cpcrash_umts_dump_fail",
        [&](const std::string& p) { ASSERT_EQ(symlink(target.c_str(), p.c_str()), 0); },
        "Too many levels of symbolic links) dmesg_to_file: file open fail "))
        << kmsg();
    EXPECT_EQ(read_file(target), "");

    // A reader lets the capture's open of a FIFO go through at once.
    std::vector<int> readers;
    EXPECT_TRUE(reported(
        "cp_boot_umts",
        [&](const std::string& p) {
            ASSERT_EQ(mkfifo(p.c_str(), 0660), 0);
            readers.push_back(open(p.c_str(), O_RDONLY | O_NONBLOCK));
            ASSERT_GE(readers.back(), 0);
        },
        "Illegal seek) dmesg_to_file: lseek fail "))
        << kmsg();
    for (int r : readers) {
        char c;
        EXPECT_LE(read(r, &c, 1), 0) << "nothing may be written";
        close(r);
    }
}

// Drops the calling thread's right to read the kernel log.
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

// Whether this process still holds a descriptor of `path`.
bool held_open(const std::string& path) {
    for (const auto& e : fs::directory_iterator("/proc/self/fd")) {
        std::error_code ec;
        if (fs::read_symlink(e.path(), ec) == path) {
            return true;
        }
    }
    return false;
}

TEST_F(KlogCaptureTest, RefusedRingBufferReadLeavesAnEmptyFile) {
    bool refused = false;
    std::thread([&] {
        refused = refuse_ring_buffer_in_this_thread();
        if (refused) {
            save("cpcrash_umts_klog_after");
        }
    }).join();
    ASSERT_TRUE(refused);
    expect_one_capture("cpcrash_umts_klog_after", 0, "<6>cpif: rix: dmesg_to_file: klogctl fail\n");
    for (const auto& e : fs::directory_iterator(kDir)) {
        EXPECT_FALSE(held_open(e.path().string())) << e.path();
    }

    // The main thread kept the right and still reads it.
    ASSERT_GT(ring_size(), 0);
}

TEST_F(KlogCaptureTest, FailedWriteKeepsWhatWasWritten) {
    constexpr rlim_t kLimit = 4096;
    // The ring must hold more than the limit lets through.
    for (int i = 0; i < 64 && ring_size() < 4 * static_cast<int>(kLimit); ++i) {
        ring_marker(std::string(200, 'x'));
    }
    ASSERT_GE(ring_size(), 4 * static_cast<int>(kLimit));
    fs::create_directories(kDir);

    struct rlimit old_limit;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old_limit), 0);
    struct rlimit limit = old_limit;
    limit.rlim_cur = kLimit;
    auto old_handler = signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    save("cpcrash_umts_klog_before");
    setrlimit(RLIMIT_FSIZE, &old_limit);
    signal(SIGXFSZ, old_handler);

    // The first write stops short at the limit, the next one fails.
    expect_one_capture("cpcrash_umts_klog_before", kLimit,
                       "<3>cpif: rix: (ERR! File too large) dmesg_to_file: write fail\n");
}

TEST_F(KlogCaptureTest, NoCaptureWithoutFreeSpaceOrLogDirectory) {
    auto no_capture = [&](const char* what, const std::string& line) {
        SCOPED_TRACE(what);
        clear_logs();
        const std::string log = save("cpcrash_umts_klog_before");
        std::error_code ec;
        EXPECT_TRUE(!fs::exists(kDir) || fs::is_empty(kDir, ec));
        EXPECT_NE(log.find(line), std::string::npos) << log;
        EXPECT_EQ(log.find("save dmesg begin..."), std::string::npos) << log;
        EXPECT_EQ(log.find("_save_logs:"), std::string::npos) << log;
    };
    fs::create_directories(kDir);
    ASSERT_EQ(mount("tmpfs", kDir.c_str(), "tmpfs", 0, "size=1m"), 0);
    no_capture("under 500 MB free", "freespace is under 500 MB\n");
    umount2(kDir.c_str(), MNT_DETACH);

    fs::remove_all("/data/vendor");
    no_capture("no log directory", "create_directory: log path create fail err=-1\n");
    EXPECT_FALSE(fs::exists(kDir));
}

TEST_F(KlogCaptureTest, ThreadedCapturesWriteTheirOwnFilesExceptAtLowLevelOrOnExcludedChips) {
    LogGroup group;
    ASSERT_TRUE(group.mounted);
    debug_level = DBG_LOW;
    char low[] = "low_umts";
    Log::save_logs_thread(1, low);
    debug_level = DBG_HIGH;
    char chip410[] = "rix_only_umts";
    set_prop("ro.hardware.chipname", "tolvar410");
    Log::save_logs_thread(1, chip410);
    char chip5120[] = "chip5120_umts";
    set_prop("ro.hardware.chipname", "tolvar5120x");
    Log::save_logs_thread(1, chip5120);

    // A name shorter than an excluded model is not that model.
    set_prop("ro.hardware.chipname", "tolvar41");
    char name[64] = "cp_boot_umts";
    Log::save_logs_thread(1, name);
    // The thread works on its own copy of the name.
    debug_level = DBG_MID;
    snprintf(name, sizeof(name), "%s", "cp_boot_done_umts");
    Log::save_logs_thread(1, name);
    memset(name, 'z', sizeof(name) - 1);

    auto done = [&](const std::string& n) {
        const auto files = captures(n);
        return files.size() == 1 && kmsg().find(path_line(files[0])) != std::string::npos;
    };
    ASSERT_TRUE(wait_until([&] { return done("cp_boot_umts") && done("cp_boot_done_umts"); }))
        << kmsg();
    for (const char* n : {"cp_boot_umts", "cp_boot_done_umts"}) {
        const std::string path = captures(n)[0];
        EXPECT_EQ(path.size(), kDir.size() + strlen(n) + 21) << path;  // "/<n>_%Y%m%d%H%M_%S.log"
        const std::string content = read_file(path);
        EXPECT_EQ(std::count(content.begin(), content.end(), '\0'), 1) << n;
        EXPECT_EQ(content.back(), '\0') << n;
        struct stat st;
        ASSERT_EQ(stat(path.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, 0660u);
        EXPECT_EQ(st.st_gid, kLogGid);
    }
    // Give a wrongly started capture time to show itself.
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_EQ(std::distance(fs::directory_iterator(kDir), fs::directory_iterator()), 2);
    const std::string log = kmsg();
    size_t begins = 0;
    for (size_t at = log.find("save dmesg begin"); at != std::string::npos;
         at = log.find("save dmesg begin", at + 1)) {
        ++begins;
    }
    EXPECT_EQ(begins, 2u) << log;
}

}  // namespace
