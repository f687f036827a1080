// Paths that the arena builds: each lives in a buffer of 262 bytes.
#pragma once

#include <stdarg.h>

#include "qk/types.h"

namespace qk::arena {

constexpr size_t kPathSize = 262;

// Formats a path into a buffer of kPathSize bytes; false, with the error
// state set, when it does not fit.
QK_API bool FormatPath(char *buffer, const char *format, ...);

}  // namespace qk::arena
