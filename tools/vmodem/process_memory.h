// Access to the calling process's memory, the way a driver uses
// copy_from_user / copy_to_user: process_vm_readv / process_vm_writev on the
// pid that FUSE reports for the request.
#pragma once

#include <sys/types.h>

#include "modem.h"

namespace vmodem {

class ProcessMemory : public UserMemory {
  public:
    explicit ProcessMemory(pid_t pid) : pid_(pid) {}
    bool read(uint64_t addr, void* dst, size_t len) override;
    bool write(uint64_t addr, const void* src, size_t len) override;

  private:
    pid_t pid_;
};

}  // namespace vmodem
