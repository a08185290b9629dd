#include "virtual_modem.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace systest {

void VirtualModem::start(const std::string& scenario) {
    fs::create_directories(mount_dir());
    const std::string ready = dir_ + "/ready";
    std::ofstream(dir_ + "/scenario") << scenario;
    process_.start({binary_, "--mount", mount_dir(), "--scenario", dir_ + "/scenario", "--control",
                    dir_ + "/control.sock", "--trace", trace_path(), "--memory", memory_path(),
                    "--ready-file", ready},
                   dir_ + "/vmodem.out");
    eventually([&] { return fs::exists(ready) || !process_.running(); }, std::chrono::seconds(10));
    if (!fs::exists(ready)) {
        throw std::runtime_error("vmodem did not start: " + read_text(dir_ + "/vmodem.out"));
    }
}

void VirtualModem::stop() {
    if (process_.started()) {
        process_.stop(SIGTERM, std::chrono::milliseconds(3000));
    }
    // A no-op when vmodem unmounted the nodes itself.
    std::string cmd = "fusermount3 -u -z '" + mount_dir() + "' 2>/dev/null";
    (void)!std::system(cmd.c_str());
}

std::string VirtualModem::control(const std::string& command) const {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    const std::string path = dir_ + "/control.sock";
    std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    timeval tv = {5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    const std::string line = command + "\n";
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        close(fd);
        throw std::runtime_error("cannot send " + command + " to vmodem at " + path);
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
    std::map<std::string, int> out;
    std::istringstream fields(control("query handles"));
    std::string field;
    while (fields >> field) {
        auto eq = field.find('=');
        if (eq != std::string::npos) {
            out[field.substr(0, eq)] = std::stoi(field.substr(eq + 1));
        }
    }
    return out;
}

std::vector<std::string> VirtualModem::requests(const std::string& name) const {
    std::vector<std::string> out;
    std::istringstream lines(trace());
    std::string line, kind, node, request;
    while (std::getline(lines, line)) {
        // Unknown codes show as hex, not as a name.
        std::istringstream words(line);
        if (words >> kind >> node >> request && kind == "ioctl" && request.rfind("0x", 0) != 0 &&
            (name.empty() || request == name)) {
            out.push_back(line);
        }
    }
    return out;
}

}  // namespace systest
