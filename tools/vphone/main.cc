// vphone: runs a command inside a sandbox laid out like the phone (see docs/test-bench.md).
#include <fcntl.h>
#include <glob.h>
#include <grp.h>
#include <sched.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <string>
#include <vector>

#include "layout.h"
#include "mounts.h"
#include "options.h"
#include "supervise.h"

namespace {

constexpr int kOwnFailure = 125;

[[noreturn]] void die(const std::string& what) {
    std::fprintf(stderr, "vphone: %s\n", what.c_str());
    std::fflush(stderr);
    _exit(kOwnFailure);
}

void require_root() {
    if (geteuid() == 0) {
        return;
    }
    die("must run as root (effective uid is " + std::to_string(geteuid()) +
        "): it creates mount and PID namespaces, mounts procfs and tmpfs, bind-mounts device "
        "nodes and hands files to uid 1001. Run it with sudo or as root; nothing was started.");
}

std::string find_libfaketime() {
    glob_t g = {};
    std::string found;
    if (glob("/usr/lib/*/faketime/libfaketime.so.1", 0, nullptr, &g) == 0 && g.gl_pathc > 0) {
        found = g.gl_pathv[0];
    }
    globfree(&g);
    if (found.empty()) {
        die("--faketime needs libfaketime (Debian package libfaketime), not found under "
            "/usr/lib/*/faketime/");
    }
    return found;
}

std::vector<std::string> command_environment(const vphone::Options& o) {
    std::vector<std::string> env = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "HOME=/"};
    for (const char* name : {"UBSAN_OPTIONS", "LSAN_OPTIONS", "TZ"}) {
        if (const char* value = std::getenv(name)) {
            env.push_back(std::string(name) + "=" + value);
        }
    }
    const char* asan = std::getenv("ASAN_OPTIONS");
    std::string asan_options = asan ? asan : "";
    if (!o.faketime.empty()) {
        env.push_back("LD_PRELOAD=" + find_libfaketime());
        env.push_back("FAKETIME=+0 x" + o.faketime);
        // The preloaded library comes before the sanitizer runtime; tell ASan that is fine.
        asan_options += (asan_options.empty() ? "" : ":") + std::string("verify_asan_link_order=0");
    }
    if (!asan_options.empty()) {
        env.push_back("ASAN_OPTIONS=" + asan_options);
    }
    env.insert(env.end(), o.env.begin(), o.env.end());
    return env;
}

std::vector<char*> c_strings(std::vector<std::string>& items) {
    std::vector<char*> out;
    for (auto& s : items) {
        out.push_back(s.data());
    }
    out.push_back(nullptr);
    return out;
}

// The host pid: /proc is still the host's procfs here, so "self" names our host pid. The line
// feed that completes the file comes from init once the command runs (see run_init).
void write_host_pid(int pid_fd) {
    if (pid_fd < 0) {
        return;
    }
    char buf[32] = {};
    ssize_t n = readlink("/proc/self", buf, sizeof buf - 1);
    if (n <= 0) {
        die(std::string("cannot read the host pid: ") + std::strerror(errno));
    }
    if (write(pid_fd, buf, static_cast<size_t>(n)) != n) {
        die(std::string("cannot write the pid file: ") + std::strerror(errno));
    }
    close(pid_fd);
}

// Waits until the command has replaced the forked copy of vphone (the pipe's write end closes on
// exec, or when the child dies), then completes the pid file: a reader who waits for the line
// feed never finds vphone's own command line under that pid.
void complete_pid_file(int ready, int pid_fd) {
    char c;
    while (read(ready, &c, 1) < 0 && errno == EINTR) {
    }
    close(ready);
    if (pid_fd >= 0) {
        if (write(pid_fd, "\n", 1) != 1) {
            die(std::string("cannot write the pid file: ") + std::strerror(errno));
        }
        close(pid_fd);
    }
}

[[noreturn]] void exec_command(const vphone::Options& o, int pid_fd) {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    write_host_pid(pid_fd);
    if (chroot(o.root.c_str()) != 0 || chdir("/") != 0) {
        die("chroot " + o.root + ": " + std::strerror(errno));
    }
    // The platform starts the daemon as root with the groups radio and log,
    // which it keeps when it later drops to the radio user.
    const gid_t groups[] = {1001, 1007};
    if (setgroups(2, groups) != 0) {
        die(std::string("setgroups: ") + std::strerror(errno));
    }
    std::vector<std::string> args = o.command;
    std::vector<std::string> env = command_environment(o);
    execve(args[0].c_str(), c_strings(args).data(), c_strings(env).data());
    std::fprintf(stderr, "vphone: cannot run %s inside the phone: %s\n", args[0].c_str(),
                 std::strerror(errno));
    _exit(127);
}

// Pid 1 of the sandbox: when it ends, the kernel kills everything left in the namespace.
[[noreturn]] void run_init(const vphone::Options& o, int pid_fd) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (unshare(CLONE_NEWNS) != 0) {
        die(std::string("cannot create a mount namespace: ") + std::strerror(errno));
    }
    try {
        vphone::mount_sandbox(o);
    } catch (const std::exception& e) {
        die(e.what());
    }
    int ready[2];
    if (pipe2(ready, O_CLOEXEC) != 0) {
        die(std::string("pipe: ") + std::strerror(errno));
    }
    pid_t command = fork();
    if (command < 0) {
        die(std::string("fork: ") + std::strerror(errno));
    }
    if (command == 0) {
        close(ready[0]);
        exec_command(o, pid_fd);
    }
    close(ready[1]);
    complete_pid_file(ready[0], pid_fd);
    vphone::forward_signals_to(command);
    _exit(vphone::wait_for(command));
}

int open_pid_file(const std::string& path) {
    if (path.empty()) {
        return -1;
    }
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        die("cannot open the pid file " + path + ": " + std::strerror(errno));
    }
    return fd;
}

// Forks the sandbox's init into a new PID namespace. This process goes back to its own
// namespace for later children: once init is gone, a fork in the dead namespace would fail
// (LeakSanitizer forks at exit, for one).
pid_t fork_init(const vphone::Options& o, int pid_fd) {
    int own = open("/proc/self/ns/pid", O_RDONLY | O_CLOEXEC);
    if (own < 0 || unshare(CLONE_NEWPID) != 0) {
        die(std::string("cannot create a PID namespace: ") + std::strerror(errno));
    }
    pid_t init = fork();
    if (init < 0) {
        die(std::string("fork: ") + std::strerror(errno));
    }
    if (init == 0) {
        close(own);
        run_init(o, pid_fd);
    }
    if (setns(own, CLONE_NEWPID) != 0) {
        die(std::string("cannot return to the host PID namespace: ") + std::strerror(errno));
    }
    close(own);
    return init;
}

void remove_mount_points(const std::vector<std::string>& paths) {
    for (const auto& path : paths) {
        unlink(path.c_str());
    }
}

}  // namespace

int main(int argc, char** argv) {
    vphone::Options o = vphone::parse_options(argc, argv);
    require_root();
    o.root = std::filesystem::absolute(o.root).lexically_normal().string();
    std::vector<std::string> created;
    try {
        created = vphone::build_layout(o);
    } catch (const std::exception& e) {
        die(std::string("cannot lay out the phone root: ") + e.what());
    }
    int pid_fd = open_pid_file(o.pid_file);
    pid_t init = fork_init(o, pid_fd);
    if (pid_fd >= 0) {
        close(pid_fd);
    }
    vphone::forward_signals_to(init);
    int code = vphone::wait_for(init);
    remove_mount_points(created);
    return code;
}
