// Line commands of the control socket; each gets a one-line reply that
// starts with "ok" or "err". README.md lists them.
#pragma once

#include <string>
#include <string_view>

#include "modem.h"

namespace vmodem {

std::string control_command(Modem& modem, std::string_view line);

}  // namespace vmodem
