// The FUSE low-level file system that serves the modem's three nodes and
// turns open/ioctl/poll/read/write/release into calls on the Modem. Reads
// with nothing to deliver are kept and answered when data arrives; pollers
// are woken with fuse_lowlevel_notify_poll.
#pragma once

#include <mutex>
#include <string>

#include "modem.h"

namespace vmodem {

// Serialises the Modem between the FUSE thread and the control thread.
struct Shared {
    Modem* modem = nullptr;
    std::mutex mu;
};

// Mounts at `dir`, then runs until SIGTERM/SIGINT or unmount. `on_mounted`
// runs once the mount exists (readiness signal). Returns the exit status.
int run_fuse(Shared& shared, const std::string& dir, bool debug, void (*on_mounted)(void*),
             void* ctx);

// Called by the control thread after it changed the Modem (under shared.mu):
// answers kept reads and wakes pollers on every node.
void wake_all_locked();

}  // namespace vmodem
