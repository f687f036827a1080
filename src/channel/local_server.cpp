// Local (family 3) listening sockets: an AF_UNIX stream socket at the path
// that QKUnixSocketPath gives for the address. Only the same user may
// connect by default: the socket file is made under a umask of 077 and then
// given the mode set by QKSetNamedPipeSecurityDescriptor (0600 unless told).
//
// A lock on "<path>.lock" is taken before anything else and held while the
// server lives. A second server on the same name therefore fails cleanly
// instead of removing the first one's socket file, and a socket file left
// by a server that died is known to be stale and is removed before bind.
// Lock files stay behind: removing a lock file that others may be opening
// would let two servers hold "the" lock at once.
#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>

#include <trio.h>

#include "channel/channel_internal.h"
#include "channel/server_internal.h"
#include "frame/file_internal.h"
#include "qk/frame.h"
#include "qk/thread.h"

namespace {

using qk::channel::KeepingError;

constexpr UInt kDefaultMode = 0600;
constexpr int kBacklog = 10000;

std::atomic<UInt> socketMode{kDefaultMode};

// The umask is process-wide: binds of local sockets take turns.
Mutex umaskLock = MUTEX_INITIALIZER;

void UnlinkKeepingError(const char *path) {
    KeepingError([path] { unlink(path); });
}

// Binds `fd` to `address` so that the file is never open to others, then
// gives it the configured mode.
bool BindPrivately(int fd, const struct sockaddr_un &address) {
    MutexLock(&umaskLock);
    mode_t old = umask(077);
    int bound = bind(fd, reinterpret_cast<const struct sockaddr *>(&address), sizeof address);
    int error = errno;
    umask(old);
    MutexUnlock(&umaskLock);
    if (bound != 0) {
        errno = error;
        QKSetLastErrorFromErrno();
        return false;
    }
    if (chmod(address.sun_path, (mode_t)socketMode.load()) != 0) {
        QKSetLastErrorFromErrno();
        UnlinkKeepingError(address.sun_path);
        return false;
    }
    return true;
}

void ReleaseLock(TCPServer *server) {
    if (server->lock == nullptr) return;
    FileLock *lock = server->lock;
    server->lock = nullptr;
    KeepingError([lock] { FileLockRelease(lock); });
}

}  // namespace

namespace qk::server {

bool OpenLocal(TCPServer *server) {
    struct sockaddr_un address;
    memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    size_t length = QKUnixSocketPath(&server->addr, address.sun_path, sizeof address.sun_path);
    if (length >= sizeof address.sun_path) {
        QKErrorThrow(QK_ERR_INVALID, QK_DOMAIN_GENERAL, "socket name too long");
        return false;
    }
    memcpy(server->path, address.sun_path, length + 1);

    char lockPath[sizeof address.sun_path + 8];
    trio_snprintf(lockPath, sizeof lockPath, "%s.lock", server->path);
    server->lock = FileLockAcquire(nullptr, lockPath, 1);
    if (server->lock == nullptr) {
        if (errno == EBUSY) {
            QKErrorRethrow("local socket \"%s\" is in use by another server", server->path);
        } else {
            QKErrorRethrow("cannot lock local socket \"%s\"", server->path);
        }
        return false;
    }

    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        QKSetLastErrorFromErrno();
        ReleaseLock(server);
        return false;
    }
    // Under the lock, a socket file at the path is a dead server's. Anything
    // else there is left alone, and bind reports it.
    KeepingError([server] {
        struct stat status;
        if (lstat(server->path, &status) == 0 && S_ISSOCK(status.st_mode)) unlink(server->path);
    });
    if (!BindPrivately(fd, address)) {
        qk::CloseKeepingError(fd);
        ReleaseLock(server);
        return false;
    }
    if (listen(fd, kBacklog) != 0) {
        QKSetLastErrorFromErrno();
        qk::CloseKeepingError(fd);
        UnlinkKeepingError(server->path);
        ReleaseLock(server);
        return false;
    }
    server->fd = fd;
    return true;
}

void CloseLocal(TCPServer *server) {
    // The socket file goes while the lock is still held, so that a successor's
    // file is never removed.
    if (server->path[0] != '\0') UnlinkKeepingError(server->path);
    ReleaseLock(server);
}

}  // namespace qk::server

extern "C" {

QK_API void QKSetNamedPipeSecurityDescriptor(const UInt *mode) {
    socketMode.store(mode != nullptr ? (*mode & 07777) : kDefaultMode);
}

}  // extern "C"
