// The phone's group database as init leaves it, shared by the sandbox and the
// fuzzers: both resolve the group "log" from files, never through the host's
// name services.
#pragma once

namespace vphone {

inline constexpr char kGroupFile[] = "root:x:0:\nradio:x:1001:\nlog:x:1007:\n";
inline constexpr char kNsswitchFile[] = "passwd: files\ngroup: files\n";

}  // namespace vphone
