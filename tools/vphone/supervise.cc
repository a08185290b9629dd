#include "supervise.h"

#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <initializer_list>

namespace vphone {
namespace {

volatile sig_atomic_t g_target = 0;

void forward(int sig) {
    if (g_target > 0) {
        kill(static_cast<pid_t>(g_target), sig);
    }
}

}  // namespace

void forward_signals_to(pid_t target) {
    g_target = target;
    struct sigaction sa = {};
    sa.sa_handler = forward;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART;
    for (int sig : {SIGTERM, SIGINT, SIGHUP, SIGQUIT}) {
        sigaction(sig, &sa, nullptr);
    }
}

int wait_for(pid_t child) {
    for (;;) {
        int status = 0;
        pid_t pid = waitpid(-1, &status, 0);
        if (pid < 0) {
            if (errno == EINTR) {
                continue;
            }
            return 125;  // the child is gone without a status: cannot happen unless reaped
                         // elsewhere
        }
        if (pid != child) {
            continue;
        }
        if (WIFEXITED(status)) {
            return WEXITSTATUS(status);
        }
        if (WIFSIGNALED(status)) {
            return 128 + WTERMSIG(status);
        }
    }
}

}  // namespace vphone
