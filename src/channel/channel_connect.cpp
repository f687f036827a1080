// Connecting a channel: a TCP connection to an IPv4 address, with an
// optional outbound port range and a connect time-out, or a local stream
// socket named by the address.
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include "channel/channel_internal.h"
#include "frame/file_internal.h"

using namespace qk::channel;

namespace {

// How long a connect to a busy local socket sleeps before it tries again.
constexpr long kBusyRetryNanos = 10 * 1000 * 1000;

Long NowMillis() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (Long)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

// Binds the socket to the next free port of the channel's outbound range.
// A failure is reported as a message and the connection goes on without a
// bound port; the thread's error state is left as it was.
void BindOutbound(Channel *channel, int fd) {
    const int savedErrno = errno;
    const int savedLastError = QKGetLastError();
    const UShort min = channel->portMin;
    const UShort max = channel->portMax;
    const UInt range = (UInt)(max - min) + 1;
    for (UInt tried = 0;; tried++) {
        if (tried == range) {
            QKSetLastError(EADDRINUSE);
            errno = -1;
            QKMessageSys(3, "could not bind to any port in range [%u,%u]", (unsigned)min,
                         (unsigned)max);
            break;
        }
        UShort port = channel->portNext;
        channel->portNext = (port >= max || port < min) ? min : (UShort)(port + 1);
        struct sockaddr_in local;
        memset(&local, 0, sizeof local);
        local.sin_family = AF_INET;
        local.sin_port = htons(port);
        local.sin_addr.s_addr = htonl(INADDR_ANY);
        if (bind(fd, reinterpret_cast<struct sockaddr *>(&local), sizeof local) == 0) break;
        if (errno == EADDRINUSE) continue;
        QKSetLastErrorFromErrno();
        QKMessageSys(3, "could not bind to local port %u", (unsigned)port);
        break;
    }
    QKSetLastError(savedLastError);
    errno = savedErrno;
}

int Fail(int fd) {
    qk::CloseKeepingError(fd);
    return 0;
}

int ConnectTCP(Channel *channel, const TCPAddr &addr) {
    const bool limited = channel->connectTimeout >= 0;
    const bool nonBlocking = channel->readTimeout >= 0 || channel->writeTimeout >= 0;
    if (addr.ip.family != QK_FAMILY_IPV4) {
        qk::SetSystemError(EAFNOSUPPORT);
        return 0;
    }
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        QKSetLastErrorFromErrno();
        QKErrorRethrow("error creating socket");
        return 0;
    }
    if (channel->portMin != 0) BindOutbound(channel, fd);
    if (limited && !SetNonBlocking(fd, true)) return Fail(fd);
    struct sockaddr_in peer;
    memset(&peer, 0, sizeof peer);
    peer.sin_family = AF_INET;
    peer.sin_port = htons(addr.port);
    peer.sin_addr.s_addr = htonl(addr.ip.u.addr4);
    if (connect(fd, reinterpret_cast<struct sockaddr *>(&peer), sizeof peer) != 0) {
        // An interrupted blocking connect goes on in the background: it is
        // waited for like a non-blocking one, without limit.
        if (errno != EINPROGRESS && errno != EINTR && errno != EAGAIN) {
            QKSetLastErrorFromErrno();
            return Fail(fd);
        }
        // The limit counts in whole seconds, as SocketWait's does.
        Long wait = limited ? (Long)channel->connectTimeout * 1000 : -1;
        if (WaitReady(fd, true, wait, "connect failed: timeout") <= 0) return Fail(fd);
        int error = 0;
        socklen_t length = sizeof error;
        if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0) {
            QKSetLastErrorFromErrno();
            return Fail(fd);
        }
        if (error != 0) {
            qk::SetSystemError(error);
            return Fail(fd);
        }
    }
    // Neither option can fail on a connected TCP socket.
    int one = 1;
    (void)setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &one, sizeof one);
    (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    if (limited != nonBlocking && !SetNonBlocking(fd, nonBlocking)) return Fail(fd);
    channel->fd = fd;
    if (channel->sslConfig != nullptr && !ChannelStartSSL(channel, 0)) {
        channel->fd = -1;
        return Fail(fd);
    }
    return 1;
}

// A local socket whose server has a full backlog is busy: unless the
// connect time-out is 0, the connect is tried again until it passes (the
// time-out counted in seconds) or without limit.
int ConnectLocal(Channel *channel, const TCPAddr &addr) {
    struct sockaddr_un peer;
    memset(&peer, 0, sizeof peer);
    peer.sun_family = AF_UNIX;
    size_t length = QKUnixSocketPath(&addr, peer.sun_path, sizeof peer.sun_path);
    if (length >= sizeof peer.sun_path) {
        QKErrorThrow(QK_ERR_INVALID, QK_DOMAIN_GENERAL, "socket name too long");
        return 0;
    }
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        QKSetLastErrorFromErrno();
        QKErrorRethrow("error creating socket");
        return 0;
    }
    // Non-blocking while connecting, so that a busy server shows at once.
    if (!SetNonBlocking(fd, true)) return Fail(fd);
    const Int timeout = channel->connectTimeout;
    const Long deadline = timeout > 0 ? NowMillis() + (Long)timeout * 1000 : -1;
    while (connect(fd, reinterpret_cast<struct sockaddr *>(&peer), sizeof peer) != 0) {
        if (errno == EINTR) continue;
        if (errno != EAGAIN || timeout == 0) {
            QKSetLastErrorFromErrno();
            return Fail(fd);
        }
        if (deadline >= 0 && NowMillis() >= deadline) {
            QKErrorThrow(QK_ERR_TIMEOUT, QK_DOMAIN_GENERAL, "connect failed: timeout");
            return Fail(fd);
        }
        struct timespec pause = {0, kBusyRetryNanos};
        nanosleep(&pause, nullptr);
    }
    if (!SetNonBlocking(fd, channel->readTimeout >= 0 || channel->writeTimeout >= 0))
        return Fail(fd);
    channel->fd = fd;
    channel->isSocket = 0;
    channel->isPipe = 1;
    return 1;
}

// Drops what the channel had and sets it up for a new connection.
void Reset(Channel *channel) {
    ChannelDisconnect(channel);
    channel->own = 1;
    channel->crtFd = -1;
    channel->isSocket = 1;
    channel->isPipe = 0;
    ResetPositions(channel);
}

}  // namespace

extern "C" {

QK_API int ChannelConnect(Channel *channel, TCPAddr addr) {
    Reset(channel);
    if (addr.ip.family == QK_FAMILY_LOCAL) return ConnectLocal(channel, addr);
    return ConnectTCP(channel, addr);
}

// Open flags have no meaning for a local socket here: the descriptor is
// always close-on-exec, and its blocking mode follows the time-outs.
QK_API int ChannelConnectNamedPipeWithFlags(Channel *channel, TCPAddr addr, UInt flags) {
    (void)flags;
    if (addr.ip.family != QK_FAMILY_LOCAL) {
        errno = EINVAL;
        return 0;
    }
    Reset(channel);
    return ConnectLocal(channel, addr);
}

}  // extern "C"
