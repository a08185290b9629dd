#include "control_socket.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <vector>

#include "control.h"

namespace vmodem {

namespace {
constexpr size_t kMaxLine = 4096;
}

ControlSocket::~ControlSocket() {
    stop();
}

bool ControlSocket::start(const std::string& path, Shared& shared) {
    shared_ = &shared;
    path_ = path;
    sockaddr_un addr{};
    if (path.size() >= sizeof(addr.sun_path)) {
        return false;
    }
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    unlink(path.c_str());
    listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listen_fd_ < 0 || bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        listen(listen_fd_, 16) != 0 || pipe2(stop_pipe_, O_CLOEXEC) != 0) {
        return false;
    }
    // The FUSE thread takes SIGTERM/SIGINT; this one must not.
    sigset_t block, old;
    sigemptyset(&block);
    sigaddset(&block, SIGTERM);
    sigaddset(&block, SIGINT);
    sigaddset(&block, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &block, &old);
    thread_ = std::thread([this] { loop(); });
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    return true;
}

void ControlSocket::stop() {
    if (thread_.joinable()) {
        char c = 'q';
        ssize_t ignored = write(stop_pipe_[1], &c, 1);
        (void)ignored;
        thread_.join();
    }
    for (int* fd : {&listen_fd_, &stop_pipe_[0], &stop_pipe_[1]}) {
        if (*fd >= 0) {
            close(*fd);
            *fd = -1;
        }
    }
    if (!path_.empty()) {
        unlink(path_.c_str());
        path_.clear();
    }
}

void ControlSocket::serve(int fd, std::string& pending) {
    size_t nl;
    while ((nl = pending.find('\n')) != std::string::npos) {
        std::string line = pending.substr(0, nl);
        pending.erase(0, nl + 1);
        std::string reply;
        {
            std::lock_guard lock(shared_->mu);
            reply = control_command(*shared_->modem, line);
            wake_all_locked();
        }
        reply += '\n';
        ssize_t ignored = send(fd, reply.data(), reply.size(), MSG_NOSIGNAL);
        (void)ignored;
    }
}

void ControlSocket::loop() {
    std::map<int, std::string> clients;
    for (;;) {
        std::vector<pollfd> fds = {{stop_pipe_[0], POLLIN, 0}, {listen_fd_, POLLIN, 0}};
        for (auto& [fd, buf] : clients) {
            fds.push_back({fd, POLLIN, 0});
        }
        if (poll(fds.data(), fds.size(), -1) < 0) {
            continue;
        }
        if (fds[0].revents) {
            break;
        }
        if (fds[1].revents & POLLIN) {
            int c = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (c >= 0) {
                clients[c];
            }
        }
        for (size_t i = 2; i < fds.size(); ++i) {
            if (!fds[i].revents) {
                continue;
            }
            char buf[1024];
            ssize_t n = recv(fds[i].fd, buf, sizeof(buf), 0);
            std::string& pending = clients[fds[i].fd];
            if (n > 0) {
                pending.append(buf, static_cast<size_t>(n));
                serve(fds[i].fd, pending);
            }
            if (n <= 0 || pending.size() > kMaxLine) {
                close(fds[i].fd);
                clients.erase(fds[i].fd);
            }
        }
    }
    for (auto& [fd, buf] : clients) {
        close(fd);
    }
}

}  // namespace vmodem
