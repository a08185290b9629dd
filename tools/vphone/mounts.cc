#include "mounts.h"

#include <sys/mount.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "layout.h"

namespace fs = std::filesystem;

namespace vphone {
namespace {

void do_mount(const std::string& source, const std::string& target, const char* type,
              unsigned long flags, const std::string& data = "") {
    if (mount(source.c_str(), target.c_str(), type, flags, data.empty() ? nullptr : data.c_str()) !=
        0) {
        throw std::runtime_error("mount " + source + " on " + target + ": " + std::strerror(errno));
    }
}

void bind(const std::string& source, const std::string& target, bool read_only = false) {
    do_mount(source, target, nullptr, MS_BIND | MS_REC);
    if (read_only) {
        do_mount("none", target, nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY | MS_REC);
    }
}

void mount_dev(const Options& o) {
    const std::string dev = o.root + "/dev";
    for (const char* node : {"null", "zero", "urandom"}) {
        bind(std::string("/dev/") + node, dev + "/" + node);
    }
    if (!o.modem_dir.empty()) {
        for (const auto& node : kModemNodes) {
            bool omitted = std::find(o.omit.begin(), o.omit.end(), node) != o.omit.end();
            if (!omitted && fs::exists(o.modem_dir + "/" + node)) {
                bind(o.modem_dir + "/" + node, dev + "/" + node);
            }
        }
    }
    if (!o.partition.empty()) {
        bind(o.partition, dev + "/block/by-name/modem");
    }
}

void mount_system(const std::string& root) {
    for (const auto& dir : kSystemDirs) {
        std::error_code ec;
        auto status = fs::symlink_status(dir, ec);
        if (!ec && fs::is_directory(status)) {
            bind(dir, root + dir, true);
        }
    }
}

void mount_proc(const Options& o) {
    const std::string proc = o.root + "/proc";
    do_mount("proc", proc, "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC);
    bind(cmdline_file(o.root), proc + "/cmdline");
}

void mount_log_tmpfs(const Options& o) {
    if (o.log_tmpfs.empty()) {
        return;
    }
    std::string data = "size=" + o.log_tmpfs + ",mode=0775,uid=" + std::to_string(kRadioUid) +
                       ",gid=" + std::to_string(kLogGid);
    do_mount("tmpfs", o.root + "/data/vendor/log/rix", "tmpfs", MS_NOSUID | MS_NODEV, data);
}

}  // namespace

void mount_sandbox(const Options& o) {
    do_mount("none", "/", nullptr, MS_REC | MS_PRIVATE);
    mount_dev(o);
    mount_system(o.root);
    mount_proc(o);
    mount_log_tmpfs(o);
}

}  // namespace vphone
