// The harness's one view of the virtual modem: how it is started, told things on its control
// socket, and how its trace reads. Everything that depends on vmodem's interface is here.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "process.h"

namespace systest {

class VirtualModem {
  public:
    // All paths are host paths under the test's work directory.
    VirtualModem(std::string binary, std::string dir) : binary_(binary), dir_(dir) {}

    // Writes the scenario, mounts the nodes under mount_dir() and waits until they are served.
    void start(const std::string& scenario);
    void stop();
    bool running() { return process_.running(); }

    std::string mount_dir() const { return dir_ + "/nodes"; }
    std::string trace_path() const { return dir_ + "/trace"; }
    // The modem memory, a sparse file: image chunks land at their m_offset.
    std::string memory_path() const { return dir_ + "/memory"; }

    // Sends one control command and returns the reply (without the final line feed).
    std::string control(const std::string& command) const;
    // Open descriptors per node as the driver counts them: {"boot": N, "dump": N, "memshare": N}.
    std::map<std::string, int> handles() const;

    std::string trace() const { return read_text(trace_path()); }
    // The trace lines of the requests ("ioctl NODE NAME args -> RESULT"), all or of one name.
    std::vector<std::string> requests(const std::string& name = "") const;

  private:
    std::string binary_;
    std::string dir_;
    Process process_;
};

}  // namespace systest
