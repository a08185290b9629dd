#include "phone.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

namespace fs = std::filesystem;

namespace systest {

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        out.push_back(line);
    }
    return out;
}

int count_prefix(const std::vector<std::string>& lines, const std::string& prefix) {
    return static_cast<int>(std::count_if(
        lines.begin(), lines.end(), [&](const std::string& l) { return l.rfind(prefix, 0) == 0; }));
}

namespace {

int count_lines(const std::string& text, const std::string& wanted) {
    auto lines = lines_of(text);
    return static_cast<int>(std::count(lines.begin(), lines.end(), wanted));
}

}  // namespace

LogLine info(const std::string& fn, const std::string& text) {
    return {"<6>cpif: rix: " + fn + ": " + text, "D/boot: rix: " + fn + ": " + text};
}

LogLine error(const std::string& err, const std::string& fn, const std::string& text) {
    std::string body = "rix: (ERR! " + err + ") " + fn + ": " + text;
    return {"<3>cpif: " + body, "E/boot: " + body};
}

void Phone::SetUp() {
    // The sandbox needs root; without it the test fails here, it never passes by skipping.
    ASSERT_EQ(geteuid(), 0u) << "system tests run rix in vphone, which needs root";
    const char* base = std::getenv("RIX_SYSTEST_TMP");
    work_ = std::string(base ? base : "/tmp") + "/rix-phone-XXXXXX";
    ASSERT_NE(mkdtemp(work_.data()), nullptr) << work_;
    fs::create_directories(root());
    modem_ = std::make_unique<VirtualModem>(VMODEM_BIN, work_ + "/modem");
}

void Phone::TearDown() {
    if (vphone_.started()) {
        vphone_.stop(SIGTERM, 3s);
    }
    modem_->stop();
    if (HasFailure()) {
        std::cerr << "phone kept for inspection: " << work_
                  << " (root/dev/kmsg, root/dev/log/radio, modem/trace, vphone.out)\n";
    } else {
        std::error_code ec;
        fs::remove_all(work_, ec);
    }
}

void Phone::set_property(const std::string& name, const std::string& value) {
    const std::string dir = root() + "/dev/__properties__";
    fs::create_directories(dir);
    // As the platform does: a reader sees the old value or the new one, never a part.
    std::ofstream(dir + "/.t." + name, std::ios::binary) << value;
    fs::rename(dir + "/.t." + name, dir + "/" + name);
}

void Phone::write_file(const std::string& phone_path, const std::string& content) {
    fs::path path = root() + phone_path;
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

void Phone::build_modem(const std::vector<std::string>& parts, const std::vector<std::string>& nv) {
    built_ = true;
    std::vector<std::string> image = {MKMODEM_BIN, "image", partition_path()};
    image.insert(image.end(), parts.begin(), parts.end());
    std::vector<std::string> nv_file = {MKMODEM_BIN, "nv", nv_path()};
    nv_file.insert(nv_file.end(), nv.begin(), nv.end());
    for (const auto& argv : {image, nv_file}) {
        ASSERT_EQ(run(argv, work_ + "/mkmodem.out", 30s), 0) << read_text(work_ + "/mkmodem.out");
    }
}

void Phone::start_rix(const std::vector<std::string>& args, const Sandbox& sandbox) {
    // The daemon must sit inside the root: the build tree is not mounted there.
    fs::create_directories(root() + "/system/bin");
    fs::copy_file(RIX_BIN, root() + "/system/bin/rix", fs::copy_options::overwrite_existing);
    std::vector<std::string> command = {"/system/bin/rix"};
    command.insert(command.end(), args.begin(), args.end());
    start_in_phone(command, sandbox);
}

void Phone::start_in_phone(const std::vector<std::string>& command, const Sandbox& sandbox) {
    std::vector<std::string> argv = {VPHONE_BIN, "--root", root(), "--pid-file",
                                     work_ + "/rix.pid"};
    auto add = [&argv](bool when, std::initializer_list<std::string> words) {
        argv.insert(argv.end(), when ? words : std::initializer_list<std::string>{});
    };
    add(modem_->running(), {"--modem-dir", modem_->mount_dir()});
    for (const auto& node : sandbox.omit_nodes) {
        add(true, {"--omit-node", node});
    }
    add(built_, {"--partition", partition_path(), "--nv", nv_path()});
    add(!sandbox.log_tmpfs.empty(), {"--log-tmpfs", sandbox.log_tmpfs});
    add(sandbox.faketime > 1, {"--faketime", std::to_string(sandbox.faketime)});
    add(true, {"--"});
    argv.insert(argv.end(), command.begin(), command.end());
    vphone_.start(argv, work_ + "/vphone.out");
}

void Phone::boot(const std::string& scenario, const std::vector<std::string>& args,
                 const std::string& level, const Sandbox& sandbox) {
    build_modem();
    start_modem(scenario);
    set_property("ro.boot.debug_level", level);
    set_property("vendor.rix.rfs_check_done", "1");
    start_rix(args.empty() ? std::vector<std::string>{"-d", "-t", "vm420"} : args, sandbox);
    ASSERT_TRUE(wait_logged(kWaiting, 60s)) << radio_log();
}

pid_t Phone::rix_pid() {
    const std::string file = work_ + "/rix.pid";
    eventually([&] { return read_text(file).find('\n') != std::string::npos; }, kWait);
    return std::atoi(read_text(file).c_str());
}

std::string Phone::proc_status(const std::string& field) {
    for (const auto& line : lines_of(read_text("/proc/" + std::to_string(rix_pid()) + "/status"))) {
        if (line.rfind(field + ":", 0) == 0) {
            return line.substr(line.find_first_not_of(" \t", field.size() + 1));
        }
    }
    return "";
}

std::map<std::string, int> Phone::open_handles() {
    std::map<std::string, int> out;
    std::error_code ec;
    for (const auto& entry :
         fs::directory_iterator("/proc/" + std::to_string(rix_pid()) + "/fd", ec)) {
        std::string target = fs::read_symlink(entry.path(), ec).string();
        if (!ec) {
            ++out[target.rfind(root(), 0) == 0 ? target.substr(root().size()) : target];
        }
    }
    return out;
}

std::optional<std::string> Phone::property(const std::string& name) const {
    if (!exists("/dev/__properties__/" + name)) {
        return std::nullopt;
    }
    return read_file("/dev/__properties__/" + name);
}

int Phone::count(const LogLine& line) const {
    int k = count_lines(kmsg(), line.kernel);
    return k == count_lines(radio_log(), line.android) ? k : -1;
}

std::vector<std::string> Phone::files(const std::string& prefix) const {
    std::vector<std::string> out;
    std::error_code ec;
    for (const auto& e : fs::directory_iterator(root() + kLogDir, ec)) {
        if (e.path().filename().string().rfind(prefix, 0) == 0) {
            out.push_back(e.path().filename().string());
        }
    }
    std::sort(out.begin(), out.end());
    return out;
}

bool Phone::wait_logged(const LogLine& line, Millis timeout, int times) {
    return eventually(
        [&] {
            return count_lines(kmsg(), line.kernel) >= times &&
                   count_lines(radio_log(), line.android) >= times;
        },
        timeout);
}

void Phone::expect_counts(const std::vector<std::pair<LogLine, int>>& lines) const {
    for (const auto& expected : lines) {
        const LogLine& line = expected.first;
        const int n = expected.second;
        eventually([&] { return count(line) >= n; }, kWait);
        EXPECT_EQ(count(line), n) << line.kernel;
    }
}

}  // namespace systest
