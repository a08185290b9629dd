#include "process.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace systest {

Process::~Process() {
    stop(SIGKILL, std::chrono::milliseconds(2000));
}

void Process::start(const std::vector<std::string>& argv, const std::string& output) {
    std::vector<char*> args;
    for (const auto& a : argv) {
        args.push_back(const_cast<char*>(a.c_str()));
    }
    args.push_back(nullptr);
    const int out = open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    const pid_t parent = getpid();
    const pid_t pid = out < 0 ? -1 : fork();
    if (pid < 0) {
        throw std::runtime_error("cannot start " + argv[0] + ": " + std::strerror(errno));
    }
    if (pid == 0) {
        // A test binary killed on a time-out must not leave a modem or a phone behind.
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() == parent && dup2(open("/dev/null", O_RDONLY), 0) == 0) {
            dup2(out, 1);
            dup2(out, 2);
            execv(args[0], args.data());
            dprintf(2, "cannot start %s: %s\n", args[0], std::strerror(errno));
        }
        _exit(127);
    }
    close(out);
    pid_ = pid;
    code_.reset();
}

bool Process::reap(bool block) {
    if (pid_ <= 0 || code_) {
        return true;
    }
    int status = 0;
    pid_t r = waitpid(pid_, &status, block ? 0 : WNOHANG);
    if (r == pid_) {
        code_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    return r == pid_;
}

bool Process::running() {
    return pid_ > 0 && !reap(false);
}

std::optional<int> Process::wait(std::chrono::milliseconds timeout) {
    return eventually([&] { return reap(false); }, timeout) ? code_ : std::nullopt;
}

int Process::stop(int sig, std::chrono::milliseconds grace) {
    if (pid_ <= 0) {
        return -1;
    }
    if (!reap(false)) {
        kill(pid_, sig);
        if (!wait(grace)) {
            kill(pid_, SIGKILL);
            reap(true);
        }
    }
    return *code_;
}

std::string read_text(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

int run(const std::vector<std::string>& argv, const std::string& output,
        std::chrono::milliseconds timeout) {
    Process p;
    p.start(argv, output);
    auto code = p.wait(timeout);
    return code ? *code : (p.stop(SIGKILL, std::chrono::milliseconds(1000)), -1);
}

}  // namespace systest
