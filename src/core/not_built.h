// Marks an operation whose work is not in this build yet: it says so in one
// line and its caller takes the failure path.
#pragma once

#include "log/log.h"

#define NOT_BUILT() LOGI("ERR! not available in this build\n")
