// The operating system's last error of each thread. A failing system call
// stores its errno here and sets errno to -1, so that the error survives the
// runtime calls that clean up after it.
#include <errno.h>

#include "frame/internal.h"

namespace {
thread_local int lastError = 0;
}

extern "C" {

QK_API int QKGetLastError(void) {
    return lastError;
}

QK_API void QKSetLastError(int error) {
    lastError = error;
}

QK_API void QKSetLastErrorFromErrno(void) {
    lastError = errno;
    errno = -1;
}

}  // extern "C"
