#include "rix_test.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "core/rix.h"
#include "log/log.h"

namespace {

// The daemon reads the real "/proc/cmdline". The tests give it their own in
// a private mount namespace: one file bind-mounted over it for the whole run,
// rewritten in place by each test. This needs root; without it the tests
// that depend on the command line fail loudly.
// One file per test process: ctest runs several at once.
const std::string kCmdlineFile = "/tmp/rix-unit-cmdline." + std::to_string(getpid());
const char* const kPhoneDirs[] = {"/data", "/efs", "/mnt/vendor", "/sys/power",
                                  "/sys/devices/platform"};

class CmdlineEnvironment : public ::testing::Environment {
  public:
    void SetUp() override {
        std::ofstream(kCmdlineFile) << "";
        ASSERT_EQ(unshare(CLONE_NEWNS), 0) << "unit tests need root for a private mount namespace";
        ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
        ASSERT_EQ(mount(kCmdlineFile.c_str(), "/proc/cmdline", nullptr, MS_BIND, nullptr), 0)
            << "cannot bind a file over /proc/cmdline";
        // The phone paths the daemon opens get empty file systems of their
        // own, so no test ever touches the host's.
        for (const char* dir : kPhoneDirs) {
            std::error_code ec;
            std::filesystem::create_directories(dir, ec);
            ASSERT_EQ(mount("tmpfs", dir, "tmpfs", 0, "mode=0755"), 0) << dir;
        }
    }
    void TearDown() override { std::filesystem::remove(kCmdlineFile); }
};

const auto* const kEnv = ::testing::AddGlobalTestEnvironment(new CmdlineEnvironment);

}  // namespace

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void RixTest::SetUp() {
    char tmpl[] = "/tmp/rix-unit-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    prop_dir_ = dir_ + "/props";
    log_dir_ = dir_ + "/log";
    std::filesystem::create_directory(prop_dir_);
    std::filesystem::create_directory(log_dir_);
    setenv("RIX_PROPERTY_DIR", prop_dir_.c_str(), 1);
    setenv("RIX_LOG_DIR", log_dir_.c_str(), 1);
    kmsg_capture_ = memfd_create("kmsg", MFD_CLOEXEC);
    ASSERT_GE(kmsg_capture_, 0);
    // Capture threads log at the same time as the test's thread. Each write
    // to the phone's /dev/kmsg is a record of its own; appending keeps two
    // lines from landing at one file offset here.
    ASSERT_EQ(fcntl(kmsg_capture_, F_SETFL, O_APPEND), 0);
    kmsg_fd = kmsg_capture_;
    Container::reset();
    debug_level = 0;
    cp_debug = 0;
    set_cmdline("");
    for (const char* dir : kPhoneDirs) {
        for (const auto& e : std::filesystem::directory_iterator(dir)) {
            std::filesystem::remove_all(e.path());
        }
    }
    std::ofstream("/sys/power/wake_lock") << "";
    std::ofstream("/sys/power/wake_unlock") << "";
}

void RixTest::TearDown() {
    Container::reset();
    kmsg_fd = 1;
    close(kmsg_capture_);
    std::filesystem::remove_all(dir_);
}

std::string RixTest::prop(const std::string& key) const {
    std::string path = prop_dir_ + "/" + key;
    return std::filesystem::exists(path) ? read_file(path) : "<unset>";
}

void RixTest::set_cmdline(const std::string& text) {
    // Same inode: the bind mount keeps pointing at it.
    std::ofstream(kCmdlineFile, std::ios::binary | std::ios::trunc) << text;
}

void RixTest::clear_logs() {
    ASSERT_EQ(ftruncate(kmsg_capture_, 0), 0);
    ASSERT_EQ(lseek(kmsg_capture_, 0, SEEK_SET), 0);
    std::filesystem::remove(log_dir_ + "/radio");
    std::filesystem::remove(log_dir_ + "/main");
}

int RixTest::parse(const std::vector<std::string>& args) {
    std::vector<std::string> storage = {"rix"};
    storage.insert(storage.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& s : storage) {
        argv.push_back(s.data());
    }
    argv.push_back(nullptr);
    return Container::parseArgs(static_cast<int>(storage.size()), argv.data());
}
