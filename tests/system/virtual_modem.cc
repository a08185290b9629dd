#include "virtual_modem.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <strings.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace fs = std::filesystem;

namespace systest {

namespace {

const std::set<std::string> kRequestNames = {
    "POWER_ON",
    "POWER_OFF",
    "POWER_RESET",
    "START_CP_BOOTLOADER",
    "COMPLETE_NORMAL_BOOTUP",
    "GET_MODEM_STATE",
    "SET_MINIDUMP_MODE",
    "ENTER_UPLOAD_MODE",
    "TRIGGER_AP_WDTRESET",
    "LOAD_CP_IMAGE",
    "GET_SRINFO",
    "SET_SRINFO",
    "NOTIFY_BOOTUP_FAIL",
    "NOTIFY_BOOTUP_DONE",
    "GET_LOG_DUMP",
    "CHECK_SECURITY",
    "GET_CP_CRASH_REASON",
    "GET_CPIF_VERSION",
    "GET_RFBOARD_DISCONNECT",
    "GET_NUM_LOG_DUMP",
    "GET_BTL_SIZE",
    "SET_BTL_SIZE",
};

std::string control_socket(const std::string& dir) {
    return dir + "/control.sock";
}

std::string read_all(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool mounted(const std::string& dir) {
    std::ifstream mounts("/proc/self/mounts");
    std::string device, point;
    std::string rest;
    while (mounts >> device >> point && std::getline(mounts, rest)) {
        if (point == dir) {
            return true;
        }
    }
    return false;
}

int connect_to(const std::string& path) {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) {
        close(fd);
        throw std::runtime_error("control socket path too long: " + path);
    }
    std::memcpy(addr.sun_path, path.c_str(), path.size());
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        int err = errno;
        close(fd);
        throw std::runtime_error("cannot reach vmodem at " + path + ": " + std::strerror(err));
    }
    timeval tv = {5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    return fd;
}

}  // namespace

bool parse_trace_request(const std::string& line, TraceRequest& request) {
    // "ioctl NODE NAME [args] -> RESULT [detail]"; unknown codes show as hex, not a name.
    std::istringstream words(line);
    std::string kind, node, name;
    if (!(words >> kind >> node >> name) || kind != "ioctl" || !kRequestNames.count(name)) {
        return false;
    }
    auto arrow = line.find(" -> ");
    if (arrow == std::string::npos) {
        return false;
    }
    request.name = name;
    request.line = line;
    request.result = std::strtol(line.c_str() + arrow + 4, nullptr, 0);
    return true;
}

VirtualModem::VirtualModem(std::string binary, std::string dir)
    : binary_(std::move(binary)), dir_(std::move(dir)) {}

void VirtualModem::start(const std::string& scenario) {
    fs::create_directories(mount_dir());
    const std::string scenario_path = dir_ + "/scenario";
    const std::string ready = dir_ + "/ready";
    std::ofstream(scenario_path) << scenario;
    process_.start({binary_, "--mount", mount_dir(), "--scenario", scenario_path, "--control",
                    control_socket(dir_), "--trace", trace_path(), "--memory", memory_path(),
                    "--ready-file", ready},
                   output_path());
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!fs::exists(ready)) {
        if (!process_.running()) {
            throw std::runtime_error("vmodem ended at start (exit " +
                                     std::to_string(process_.exit_code().value_or(-1)) +
                                     "): " + read_all(output_path()));
        }
        if (std::chrono::steady_clock::now() > deadline) {
            throw std::runtime_error("vmodem did not mount " + mount_dir() + " within 10 s");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

void VirtualModem::stop() {
    if (process_.started()) {
        process_.stop(SIGTERM, std::chrono::milliseconds(3000));
    }
    if (mounted(mount_dir())) {
        std::string cmd = "fusermount3 -u -z '" + mount_dir() + "' 2>/dev/null";
        (void)std::system(cmd.c_str());
    }
}

std::string VirtualModem::control(const std::string& command) const {
    int fd = connect_to(control_socket(dir_));
    std::string line = command + "\n";
    if (write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        close(fd);
        throw std::runtime_error("cannot send control command " + command);
    }
    std::string reply;
    char c;
    while (read(fd, &c, 1) == 1 && c != '\n') {
        reply += c;
    }
    close(fd);
    return reply;
}

std::map<std::string, int> VirtualModem::handles() const {
    std::string reply = control("query handles");
    if (reply.rfind("ok", 0) != 0) {
        throw std::runtime_error("vmodem: query handles: " + reply);
    }
    std::map<std::string, int> out;
    std::istringstream fields(reply.substr(2));
    std::string field;
    while (fields >> field) {
        auto eq = field.find('=');
        if (eq != std::string::npos) {
            out[field.substr(0, eq)] = std::stoi(field.substr(eq + 1));
        }
    }
    return out;
}

void VirtualModem::hang_up(int state) const {
    std::string reply = control("hangup " + std::to_string(state));
    if (reply.rfind("ok", 0) != 0) {
        throw std::runtime_error("vmodem refused hangup " + std::to_string(state) + ": " + reply);
    }
}

bool carries(const TraceRequest& request, unsigned long value) {
    char hex[32];
    std::snprintf(hex, sizeof hex, "0x%lx", value);
    std::string dec = std::to_string(value);
    std::string token;
    std::istringstream words(request.line);
    while (words >> token) {
        for (char& c : token) {
            if (c == '=' || c == ',' || c == '(' || c == ')' || c == ':') {
                c = ' ';
            }
        }
        std::istringstream parts(token);
        std::string part;
        while (parts >> part) {
            if (part == dec || strcasecmp(part.c_str(), hex) == 0) {
                return true;
            }
        }
    }
    return false;
}

std::string VirtualModem::trace() const {
    return read_all(trace_path());
}

std::vector<TraceRequest> VirtualModem::requests() const {
    std::vector<TraceRequest> out;
    std::istringstream lines(trace());
    std::string line;
    while (std::getline(lines, line)) {
        TraceRequest request;
        if (parse_trace_request(line, request)) {
            out.push_back(request);
        }
    }
    return out;
}

std::vector<TraceRequest> VirtualModem::requests(const std::string& name) const {
    std::vector<TraceRequest> out;
    for (auto& r : requests()) {
        if (r.name == name) {
            out.push_back(r);
        }
    }
    return out;
}

}  // namespace systest
