// Shared fixture of the unit tests: a private property directory and log
// buffer directory, the kernel log copy captured in a file, a kernel command
// line under the test's control, the daemon's globals reset, and empty
// phone directories (/data, /efs, /mnt/vendor, /sys/power with wake_lock and
// wake_unlock, /sys/devices/platform) private to the test process.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

// The whole content of a file ("" when it cannot be read).
std::string read_file(const std::string& path);

class RixTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    void set_prop(const std::string& key, const std::string& value) {
        std::ofstream(prop_dir_ + "/" + key, std::ios::binary) << value;
    }
    std::string prop(const std::string& key) const;  // "<unset>" when missing
    void set_cmdline(const std::string& text);

    // Everything the kernel log copy received; the Android radio and main log buffers.
    std::string kmsg() const { return read_file("/proc/self/fd/" + std::to_string(kmsg_capture_)); }
    std::string radio() const { return read_file(log_dir_ + "/radio"); }
    std::string main_log() const { return read_file(log_dir_ + "/main"); }
    void clear_logs();

    // Runs Container::parseArgs on "rix" followed by args.
    int parse(const std::vector<std::string>& args);

    std::string dir_;
    std::string prop_dir_;
    std::string log_dir_;
    int kmsg_capture_ = -1;
};
