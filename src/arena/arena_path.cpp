// Paths of the arena's files.
#include "arena/arena_path.h"

#include <trio.h>

#include "qk/frame.h"

namespace qk::arena {

bool FormatPath(char *buffer, const char *format, ...) {
    va_list args;
    va_start(args, format);
    int length = trio_vsnprintf(buffer, kPathSize, format, args);
    va_end(args);
    if (length >= 0 && (size_t)length < kPathSize) return true;
    QKErrorThrow(QK_ERR_INVALID, QK_DOMAIN_GENERAL, "path too long: \"%s\"", buffer);
    return false;
}

}  // namespace qk::arena
