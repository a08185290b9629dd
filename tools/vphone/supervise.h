// Process handling of vphone: signal forwarding, the namespace's init, exit statuses.
#pragma once

#include <sys/types.h>

namespace vphone {

// Forwards SIGTERM, SIGINT, SIGHUP and SIGQUIT received by this process to `target`.
void forward_signals_to(pid_t target);

// Waits for `child`, reaping any other child that ends meanwhile (as pid 1 must).
// Returns the child's status as an exit code: its exit status, or 128 + the signal.
int wait_for(pid_t child);

}  // namespace vphone
