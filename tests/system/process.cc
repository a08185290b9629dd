#include "process.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace systest {

namespace {

int code_of(int status) {
    if (WIFEXITED(status)) {
        return WEXITSTATUS(status);
    }
    return 128 + WTERMSIG(status);
}

}  // namespace

Process::~Process() {
    if (pid_ > 0 && !code_) {
        stop(SIGKILL, std::chrono::milliseconds(2000));
    }
}

void Process::start(const std::vector<std::string>& argv, const std::string& output) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, output.c_str(), O_WRONLY | O_CREAT | O_APPEND,
                                     0644);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    std::vector<char*> args;
    for (const auto& a : argv) {
        args.push_back(const_cast<char*>(a.c_str()));
    }
    args.push_back(nullptr);
    int err = posix_spawn(&pid_, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (err != 0) {
        pid_ = -1;
        throw std::runtime_error("cannot start " + argv[0] + ": " + std::strerror(err));
    }
    code_.reset();
}

bool Process::reap(bool block) {
    if (pid_ <= 0 || code_) {
        return true;
    }
    int status = 0;
    pid_t r = waitpid(pid_, &status, block ? 0 : WNOHANG);
    if (r == pid_) {
        code_ = code_of(status);
        return true;
    }
    return false;
}

bool Process::running() {
    return pid_ > 0 && !reap(false);
}

std::optional<int> Process::wait(std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!reap(false)) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return std::nullopt;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return code_;
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

int run(const std::vector<std::string>& argv, const std::string& output,
        std::chrono::milliseconds timeout) {
    Process p;
    p.start(argv, output);
    auto code = p.wait(timeout);
    if (!code) {
        p.stop(SIGKILL, std::chrono::milliseconds(1000));
        return -1;
    }
    return *code;
}

}  // namespace systest
