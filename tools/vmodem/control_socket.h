// The control socket: a Unix stream socket that takes line commands (see
// control.h) from any number of clients and answers each with one line.
#pragma once

#include <string>
#include <thread>

#include "fuse_server.h"

namespace vmodem {

class ControlSocket {
  public:
    ~ControlSocket();
    // Binds path (an old socket file is replaced); false on failure.
    bool start(const std::string& path, Shared& shared);
    void stop();

  private:
    void loop();
    void serve(int fd, std::string& pending);

    Shared* shared_ = nullptr;
    std::string path_;
    int listen_fd_ = -1;
    int stop_pipe_[2] = {-1, -1};
    std::thread thread_;
};

}  // namespace vmodem
