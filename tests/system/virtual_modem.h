// The harness's one view of the virtual modem: how it is started, how it is told things on its
// control socket and how its trace reads. Everything that depends on vmodem's interface is here.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "process.h"

namespace systest {

// One request as the trace records it.
struct TraceRequest {
    std::string name;  // without the IOCTL_ prefix, e.g. "SET_BTL_SIZE"
    std::string line;  // the whole trace line, for messages and argument checks
    long result = 0;   // what the driver returned
};

class VirtualModem {
  public:
    // All paths are host paths under the test's work directory.
    VirtualModem(std::string binary, std::string dir);

    // Writes the scenario, mounts the nodes under mount_dir() and waits until they are served.
    void start(const std::string& scenario);
    // Unmounts and ends the server.
    void stop();
    bool running() { return process_.running(); }

    std::string mount_dir() const { return dir_ + "/nodes"; }
    std::string trace_path() const { return dir_ + "/trace"; }
    // The modem memory, a sparse file: image chunks land at their m_offset.
    std::string memory_path() const { return dir_ + "/memory"; }
    std::string output_path() const { return dir_ + "/vmodem.out"; }

    // Sends one control command and returns the reply (without the final line feed).
    std::string control(const std::string& command) const;
    // Open descriptors per node as the driver counts them: {"boot": N, "dump": N, "memshare": N}.
    std::map<std::string, int> handles() const;
    // Makes GET_MODEM_STATE answer `state` and wakes the boot node's pollers with POLLHUP.
    void hang_up(int state) const;

    // The trace as it stands.
    std::string trace() const;
    std::vector<TraceRequest> requests() const;
    std::vector<TraceRequest> requests(const std::string& name) const;

  private:
    std::string binary_;
    std::string dir_;
    Process process_;
};

// True when the request's trace line shows `value` as its argument (decimal or hexadecimal).
bool carries(const TraceRequest& request, unsigned long value);

// True when `line` is a trace line of a request; fills `request` from it.
bool parse_trace_request(const std::string& line, TraceRequest& request);

}  // namespace systest
