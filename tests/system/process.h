// A child process of the harness, its output appended to a file.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace systest {

class Process {
  public:
    Process() = default;
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    ~Process();

    void start(const std::vector<std::string>& argv, const std::string& output);
    bool started() const { return pid_ > 0; }
    // True while the process has not ended (it is reaped once it has).
    bool running();
    // Waits up to `timeout` for the end; the exit code (128 + N for signal N) or nothing.
    std::optional<int> wait(std::chrono::milliseconds timeout);
    // Sends `sig`, waits up to `grace`, then kills it; returns the exit code.
    int stop(int sig, std::chrono::milliseconds grace);

  private:
    bool reap(bool block);

    pid_t pid_ = -1;
    std::optional<int> code_;
};

// Polls `done` every 20 ms until it is true or `timeout` passed; true when it came in time.
template <typename F>
bool eventually(F done, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

// The whole content of a host file ("" when it cannot be read).
std::string read_text(const std::string& path);

// Runs a command to its end (at most `timeout`); returns its exit code, or -1 on time-out.
int run(const std::vector<std::string>& argv, const std::string& output,
        std::chrono::milliseconds timeout);

}  // namespace systest
