// Mounts of the sandbox, made inside its own mount namespace so the host never sees them.
#pragma once

#include "options.h"

namespace vphone {

// Makes the mount tree private and mounts /dev nodes, the virtual modem, the partition,
// the system directories, procfs with its command line and the optional log tmpfs under
// the root. Must run as pid 1 of the new PID namespace (procfs shows that namespace).
// Throws std::runtime_error on failure.
void mount_sandbox(const Options& o);

}  // namespace vphone
