// Where local sockets live: "<dir>/qk.<base>.<name>.<port>", the directory
// taken from QK_SOCKET_DIR (or /tmp), the base name set for the process.
#include <stdlib.h>
#include <string.h>

#include <string>

#include "channel/channel_internal.h"
#include "qk/thread.h"

namespace {

constexpr size_t kBaseSize = 256;

Mutex baseLock = MUTEX_INITIALIZER;
char baseName[kBaseSize] = "sock";

}  // namespace

extern "C" {

// A longer base is cut to 255 bytes; none restores "sock".
QK_API void QKUnixSocketSetBase(const char *base) {
    if (base == nullptr) base = "sock";
    MutexLock(&baseLock);
    size_t length = strnlen(base, kBaseSize - 1);
    memcpy(baseName, base, length);
    baseName[length] = '\0';
    MutexUnlock(&baseLock);
}

QK_API size_t QKUnixSocketPath(const TCPAddr *addr, char *buffer, size_t size) {
    const char *directory = getenv("QK_SOCKET_DIR");
    if (directory == nullptr || directory[0] == '\0') directory = "/tmp";
    std::string path(directory);
    path += "/qk.";
    MutexLock(&baseLock);
    path += baseName;
    MutexUnlock(&baseLock);
    path += '.';
    path.append(addr->ip.u.name, strnlen(addr->ip.u.name, sizeof addr->ip.u.name));
    path += '.';
    path += std::to_string((unsigned)addr->port);
    if (size > 0) {
        size_t n = path.size() < size - 1 ? path.size() : size - 1;
        memcpy(buffer, path.data(), n);
        buffer[n] = '\0';
    }
    return path.size();
}

}  // extern "C"
