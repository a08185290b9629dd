// The phone's file tree on the host: made before the sandbox starts and left in place after it.
#pragma once

#include <string>
#include <vector>

#include "options.h"

namespace vphone {

inline constexpr unsigned kRadioUid = 1001;
inline constexpr unsigned kLogGid = 1007;

// The driver nodes that a virtual modem serves, by their /dev names.
extern const std::vector<std::string> kModemNodes;

// The host system directories that are bind-mounted read-only (or copied as symlinks).
extern const std::vector<std::string> kSystemDirs;

// Creates every directory and file of the layout that is missing, hands the ones the daemon
// writes after dropping root to the radio user, and applies the options' files and properties.
// Returns the mount points it created for this run only (to be removed again afterwards).
// Throws std::runtime_error with a readable text on failure.
std::vector<std::string> build_layout(const Options& o);

// Path of the file that is bind-mounted over /proc/cmdline.
std::string cmdline_file(const std::string& root);

// Writes one property file the way the platform stand-in does: value only, temp file and rename.
void write_property(const std::string& root, const std::string& name, const std::string& value);

}  // namespace vphone
