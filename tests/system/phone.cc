#include "phone.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <thread>

namespace fs = std::filesystem;

namespace systest {

const LogLine kWaiting = info("status_loop", "Wait event from modem type: 1");
const LogLine kLoopExit = info("status_loop", "status loop exit");
const LogLine kCallBoot = info("main", "Call boot start");

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        out.push_back(line);
    }
    return out;
}

int count_prefix(const std::vector<std::string>& lines, const std::string& prefix) {
    return static_cast<int>(std::count_if(
        lines.begin(), lines.end(), [&](const std::string& l) { return l.rfind(prefix, 0) == 0; }));
}

namespace {

std::string read_host(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

int count_lines(const std::string& text, const std::string& wanted) {
    std::istringstream lines(text);
    std::string line;
    int n = 0;
    while (std::getline(lines, line)) {
        n += line == wanted;
    }
    return n;
}

std::string make_work_dir() {
    const char* base = std::getenv("RIX_SYSTEST_TMP");
    std::string pattern = std::string(base ? base : "/tmp") + "/rix-phone-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp " + pattern + " failed");
    }
    return pattern;
}

std::string trim(const std::string& s) {
    auto b = s.find_first_not_of(" \t");
    auto e = s.find_last_not_of(" \t\n");
    return b == std::string::npos ? "" : s.substr(b, e - b + 1);
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
    ASSERT_EQ(geteuid(), 0u) << "system tests run rix in vphone, which needs root "
                                "(mount and PID namespaces); run ctest as root";
    work_ = make_work_dir();
    fs::create_directories(root());
    modem_ = std::make_unique<VirtualModem>(VMODEM_BIN, work_ + "/modem");
}

void Phone::TearDown() {
    if (vphone_.started()) {
        vphone_.stop(SIGTERM, 3s);
    }
    if (modem_) {
        modem_->stop();
    }
    if (HasFailure()) {
        std::cerr << "phone kept for inspection: " << work_ << "\n"
                  << "  root: " << root() << " (dev/kmsg, dev/log/radio, dev/__properties__)\n"
                  << "  vmodem trace: " << modem_->trace_path() << "\n"
                  << "  rix/vphone output: " << output_path() << "\n";
        return;
    }
    std::error_code ec;
    fs::remove_all(work_, ec);
}

void Phone::set_property(const std::string& name, const std::string& value) {
    const std::string dir = root() + "/dev/__properties__";
    fs::create_directories(dir);
    // As the platform does: a reader sees the old value or the new one, never a part.
    const std::string tmp = dir + "/." + name + ".test";
    std::ofstream(tmp, std::ios::binary | std::ios::trunc) << value;
    fs::rename(tmp, dir + "/" + name);
}

void Phone::set_cmdline(const std::string& text) {
    fs::create_directories(root() + "/.vphone");
    std::ofstream(root() + "/.vphone/cmdline", std::ios::trunc) << text << "\n";
}

void Phone::write_file(const std::string& phone_path, const std::string& content) {
    fs::path path = root() + phone_path;
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

void Phone::build_modem(const std::vector<std::string>& parts, const std::vector<std::string>& nv) {
    partition_ = partition_path();
    nv_ = nv_path();
    std::vector<std::string> image = {MKMODEM_BIN, "image", partition_};
    image.insert(image.end(), parts.begin(), parts.end());
    std::vector<std::string> nv_file = {MKMODEM_BIN, "nv", nv_};
    nv_file.insert(nv_file.end(), nv.begin(), nv.end());
    for (const auto& argv : {image, nv_file}) {
        ASSERT_EQ(run(argv, work_ + "/mkmodem.out", 30s), 0)
            << "mkmodem failed: " << read_host(work_ + "/mkmodem.out");
    }
}

void Phone::start_modem(const std::string& scenario) {
    modem_->start(scenario);
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
    if (modem_->running()) {
        argv.insert(argv.end(), {"--modem-dir", modem_->mount_dir()});
    }
    for (const auto& node : sandbox.omit_nodes) {
        argv.insert(argv.end(), {"--omit-node", node});
    }
    if (!partition_.empty()) {
        argv.insert(argv.end(), {"--partition", partition_, "--nv", nv_});
    }
    if (!sandbox.log_tmpfs.empty()) {
        argv.insert(argv.end(), {"--log-tmpfs", sandbox.log_tmpfs});
    }
    if (!sandbox.faketime.empty()) {
        argv.insert(argv.end(), {"--faketime", sandbox.faketime});
    }
    argv.push_back("--");
    argv.insert(argv.end(), command.begin(), command.end());
    vphone_.start(argv, output_path());
}

std::string Phone::output() const {
    return read_host(output_path());
}

pid_t Phone::rix_pid() {
    if (rix_pid_ > 0) {
        return rix_pid_;
    }
    const std::string file = work_ + "/rix.pid";
    bool reported =
        eventually([&] { return read_host(file).find('\n') != std::string::npos; }, kWait);
    if (!reported) {
        throw std::runtime_error("vphone did not report the daemon's pid");
    }
    rix_pid_ = std::stoi(read_host(file));
    return rix_pid_;
}

std::string Phone::proc_status(const std::string& field) {
    std::istringstream lines(read_host("/proc/" + std::to_string(rix_pid()) + "/status"));
    std::string line;
    while (std::getline(lines, line)) {
        if (line.rfind(field + ":", 0) == 0) {
            return trim(line.substr(field.size() + 1));
        }
    }
    return "";
}

std::map<std::string, int> Phone::open_handles() {
    std::map<std::string, int> out;
    std::error_code ec;
    for (const auto& entry :
         fs::directory_iterator("/proc/" + std::to_string(rix_pid()) + "/fd", ec)) {
        auto target = fs::read_symlink(entry.path(), ec);
        if (!ec) {
            std::string t = target.string();
            if (t.rfind(root(), 0) == 0) {
                t = t.substr(root().size());
            }
            ++out[t];
        }
    }
    return out;
}

std::string Phone::read_file(const std::string& phone_path) const {
    return read_host(root() + phone_path);
}

bool Phone::exists(const std::string& phone_path) const {
    return fs::exists(root() + phone_path);
}

std::optional<std::string> Phone::property(const std::string& name) const {
    const std::string path = root() + "/dev/__properties__/" + name;
    if (!fs::exists(path)) {
        return std::nullopt;
    }
    return read_host(path);
}

int Phone::count(const LogLine& line) const {
    int k = count_lines(kmsg(), line.kernel);
    int a = count_lines(radio_log(), line.android);
    return k == a ? k : -1;
}

bool Phone::wait_logged(const LogLine& line, Millis timeout, int times) {
    return eventually(
        [&] {
            return count_lines(kmsg(), line.kernel) >= times &&
                   count_lines(radio_log(), line.android) >= times;
        },
        timeout);
}

bool Phone::wait_request(const std::string& name, Millis timeout) {
    return eventually([&] { return !modem_->requests(name).empty(); }, timeout);
}

bool Phone::wait_trace(const std::string& prefix, Millis timeout) {
    return eventually(
        [&] {
            std::istringstream lines(modem_->trace());
            std::string line;
            while (std::getline(lines, line)) {
                if (line.rfind(prefix, 0) == 0) {
                    return true;
                }
            }
            return false;
        },
        timeout);
}

bool Phone::wait_kmsg(const std::string& line, Millis timeout) {
    return eventually([&] { return count_lines(kmsg(), line) > 0; }, timeout);
}

bool Phone::wait_radio(const std::string& line, Millis timeout) {
    return eventually([&] { return count_lines(radio_log(), line) > 0; }, timeout);
}

bool Phone::wait_property(const std::string& name, const std::string& value, Millis timeout) {
    return eventually([&] { return property(name) == value; }, timeout);
}

}  // namespace systest
