#include "layout.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "phone_files.h"

namespace fs = std::filesystem;

namespace vphone {

const std::vector<std::string> kModemNodes = {"umts_boot0", "umts_ramdump0", "ramdump_memshare"};
const std::vector<std::string> kSystemDirs = {"/usr",    "/lib", "/lib64", "/lib32",
                                              "/libx32", "/bin", "/sbin"};

namespace {

[[noreturn]] void fail(const std::string& what, const std::string& path) {
    throw std::runtime_error(what + " " + path + ": " + std::strerror(errno));
}

void own(const std::string& path, unsigned uid, unsigned gid, mode_t mode) {
    if (chown(path.c_str(), uid, gid) != 0) {
        fail("chown", path);
    }
    if (chmod(path.c_str(), mode) != 0) {
        fail("chmod", path);
    }
}

void make_dir(const std::string& path, unsigned uid, unsigned gid, mode_t mode) {
    std::error_code ec;
    fs::create_directories(path, ec);
    if (ec) {
        throw std::runtime_error("mkdir " + path + ": " + ec.message());
    }
    own(path, uid, gid, mode);
}

void write_text(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    if (!out) {
        fail("write", path);
    }
}

// A file that must exist; its content is kept when it does.
void make_file(const std::string& path, unsigned uid, unsigned gid, mode_t mode,
               const std::string& initial = "") {
    if (!fs::exists(path)) {
        write_text(path, initial);
    }
    own(path, uid, gid, mode);
}

void copy_file(const std::string& from, const std::string& to) {
    std::error_code ec;
    fs::copy_file(from, to, fs::copy_options::overwrite_existing, ec);
    if (ec) {
        throw std::runtime_error("copy " + from + " to " + to + ": " + ec.message());
    }
}

// An empty file to bind a host file over; reported when this run created it.
void mount_point(const std::string& path, std::vector<std::string>& created) {
    if (fs::exists(path)) {
        return;
    }
    write_text(path, "");
    created.push_back(path);
}

void build_dev(const Options& o, std::vector<std::string>& created) {
    const std::string dev = o.root + "/dev";
    make_dir(dev, 0, 0, 0755);
    make_dir(dev + "/block/by-name", 0, 0, 0755);
    make_dir(dev + "/__properties__", kRadioUid, kRadioUid, 0775);
    make_dir(dev + "/log", kRadioUid, kLogGid, 0775);
    for (const char* buffer : {"radio", "main", "restorecon"}) {
        make_file(dev + "/log/" + buffer, kRadioUid, kLogGid, 0664);
    }
    // The kernel log capture holds this run only: the daemon writes it from offset 0.
    write_text(dev + "/kmsg", "");
    own(dev + "/kmsg", kRadioUid, kLogGid, 0664);
    for (const char* node : {"null", "zero", "urandom"}) {
        make_file(dev + "/" + node, 0, 0, 0666);
    }
    if (!o.modem_dir.empty()) {
        for (const auto& node : kModemNodes) {
            bool omitted = std::find(o.omit.begin(), o.omit.end(), node) != o.omit.end();
            if (!omitted && fs::exists(o.modem_dir + "/" + node)) {
                mount_point(dev + "/" + node, created);
            }
        }
    }
    if (!o.partition.empty()) {
        mount_point(dev + "/block/by-name/modem", created);
    }
}

void build_etc(const std::string& root) {
    const std::string etc = root + "/etc";
    make_dir(etc, 0, 0, 0755);
    write_text(etc + "/group", kGroupFile);
    write_text(etc + "/passwd", "root:x:0:0:root:/:/bin/sh\nradio:x:1001:1001::/:/bin/false\n");
    write_text(etc + "/nsswitch.conf", kNsswitchFile);
    for (const char* name : {"/etc/ld.so.cache", "/etc/localtime"}) {
        if (fs::exists(name)) {
            copy_file(name, root + name);
        }
    }
}

void build_system_dirs(const std::string& root) {
    for (const auto& dir : kSystemDirs) {
        std::error_code ec;
        auto status = fs::symlink_status(dir, ec);
        if (ec || !fs::exists(status)) {
            continue;
        }
        const std::string target = root + dir;
        if (fs::is_symlink(status)) {
            if (!fs::is_symlink(fs::symlink_status(target, ec))) {
                fs::create_symlink(fs::read_symlink(dir), target);
            }
        } else {
            make_dir(target, 0, 0, 0755);
        }
    }
}

void build_data(const Options& o) {
    const std::string& r = o.root;
    make_dir(r + "/data/vendor", 0, 0, 0755);
    make_dir(r + "/data/vendor/log/rix", kRadioUid, kLogGid, 0775);
    make_dir(r + "/data/vendor/ramdump", kRadioUid, kLogGid, 0775);
    make_dir(r + "/mnt/vendor/efs", kRadioUid, kRadioUid, 0771);
    make_dir(r + "/efs", kRadioUid, kRadioUid, 0771);
    if (!o.nv.empty()) {
        copy_file(o.nv, r + "/mnt/vendor/efs/nv_data.bin");
        own(r + "/mnt/vendor/efs/nv_data.bin", kRadioUid, kRadioUid, 0660);
    }
    if (!o.factory.empty()) {
        copy_file(o.factory, r + "/efs/factory.prop");
    }
    make_file(r + "/efs/factory.prop", kRadioUid, kRadioUid, 0644);
}

void build_sys(const std::string& root) {
    make_dir(root + "/sys/power", kRadioUid, kRadioUid, 0775);
    make_file(root + "/sys/power/wake_lock", kRadioUid, kRadioUid, 0664);
    make_file(root + "/sys/power/wake_unlock", kRadioUid, kRadioUid, 0664);
    make_dir(root + "/sys/devices/platform/cpif/sim", kRadioUid, kRadioUid, 0775);
    make_file(root + "/sys/devices/platform/cpif/sim/ds_detect", kRadioUid, kRadioUid, 0664);
}

void build_proc(const Options& o) {
    make_dir(o.root + "/proc", 0, 0, 0555);
    make_dir(o.root + "/.vphone", 0, 0, 0755);
    const std::string file = cmdline_file(o.root);
    if (o.cmdline_set) {
        write_text(file, o.cmdline + "\n");
    } else if (!fs::exists(file)) {
        write_text(file, "\n");
    }
    own(file, 0, 0, 0444);
}

}  // namespace

std::string cmdline_file(const std::string& root) {
    return root + "/.vphone/cmdline";
}

void write_property(const std::string& root, const std::string& name, const std::string& value) {
    const std::string dir = root + "/dev/__properties__";
    const std::string tmp = dir + "/." + name + ".tmp";
    write_text(tmp, value);
    own(tmp, kRadioUid, kRadioUid, 0664);
    if (rename(tmp.c_str(), (dir + "/" + name).c_str()) != 0) {
        fail("rename", tmp);
    }
}

std::vector<std::string> build_layout(const Options& o) {
    std::vector<std::string> created;
    make_dir(o.root, 0, 0, 0755);
    build_dev(o, created);
    build_etc(o.root);
    build_system_dirs(o.root);
    build_data(o);
    build_sys(o.root);
    build_proc(o);
    make_dir(o.root + "/tmp", 0, 0, 01777);
    for (const auto& [name, value] : o.props) {
        write_property(o.root, name, value);
    }
    return created;
}

}  // namespace vphone
