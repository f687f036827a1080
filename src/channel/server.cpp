// TCP servers: a listening socket that hands each accepted connection to a
// channel the caller owns, so that a server allocates no buffers per
// connection. Local (family 3) servers share the accept path; their
// opening and closing are in local_server.cpp.
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "channel/channel_internal.h"
#include "channel/server_internal.h"
#include "frame/file_internal.h"
#include "qk/frame.h"
#include "qk/memory.h"

namespace {

constexpr int kBacklog = 10000;

bool IsLocal(const TCPServer *server) {
    return server->addr.ip.family == QK_FAMILY_LOCAL;
}

// A listening IPv4 socket on `addr`: the descriptor, or -1 with errno -1.
int ListenIPv4(const TCPAddr &addr) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        QKSetLastErrorFromErrno();
        return -1;
    }
    int one = 1;
    struct sockaddr_in address;
    memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_port = htons(addr.port);
    address.sin_addr.s_addr = htonl(addr.ip.u.addr4);
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) != 0 ||
        bind(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof address) != 0 ||
        listen(fd, kBacklog) != 0) {
        QKSetLastErrorFromErrno();
        qk::CloseKeepingError(fd);
        return -1;
    }
    return fd;
}

// Socket options of an accepted TCP connection. They cannot fail on a
// connected TCP socket, so their results are not looked at.
void SetConnectionOptions(int fd) {
    int one = 1;
    (void)setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &one, sizeof one);
    (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

bool SetNonBlocking(int fd) {
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) {
        QKSetLastErrorFromErrno();
        return false;
    }
    return true;
}

}  // namespace

extern "C" {

QK_API TCPServer *TCPServerOpen(TCPAddr addr) {
    TCPServer *server = AllocateZero(TCPServer);
    server->fd = -1;
    server->addr = addr;
    bool ok;
    if (IsLocal(server)) {
        ok = qk::server::OpenLocal(server);
    } else if (addr.ip.family != QK_FAMILY_IPV4) {
        qk::SetSystemError(EAFNOSUPPORT);
        ok = false;
    } else {
        server->fd = ListenIPv4(addr);
        ok = server->fd >= 0;
    }
    if (!ok) {
        UnAllocate(server);
        return nullptr;
    }
    return server;
}

QK_API int TCPServerAccept(TCPServer *server, Channel *channel) {
    ChannelDisconnect(channel);
    int fd;
    do {
        fd = accept4(server->fd, nullptr, nullptr, SOCK_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        QKSetLastErrorFromErrno();
        return 0;
    }
    const bool local = IsLocal(server);
    if (!local) SetConnectionOptions(fd);
    if ((channel->readTimeout >= 0 || channel->writeTimeout >= 0) && !SetNonBlocking(fd)) {
        qk::CloseKeepingError(fd);
        return 0;
    }
    channel->fd = fd;
    channel->own = 1;
    channel->crtFd = -1;
    // A local connection is marked as a pipe; its reads and writes follow
    // the socket path all the same.
    channel->isSocket = local ? 0 : 1;
    channel->isPipe = local ? 1 : 0;
    qk::channel::ResetPositions(channel);
    // Local connections stay plain, as the channel's connect leaves them.
    if (!local && channel->sslConfig != nullptr && !ChannelStartSSL(channel, 1)) {
        QKErrorSave();
        ChannelDisconnect(channel);
        QKErrorRestore();
        return 0;
    }
    return 1;
}

QK_API int TCPServerClose(TCPServer *server) {
    if (server == nullptr) return 1;
    int result = 1;
    if (server->fd >= 0 && close(server->fd) != 0) {
        QKSetLastErrorFromErrno();
        result = 0;
    }
    if (IsLocal(server)) qk::server::CloseLocal(server);
    UnAllocate(server);
    return result;
}

QK_API int TCPServerGetAddr(TCPServer *server, TCPAddr *addr) {
    if (IsLocal(server)) {
        *addr = server->addr;
        return 1;
    }
    struct sockaddr_in address;
    socklen_t length = sizeof address;
    if (getsockname(server->fd, reinterpret_cast<struct sockaddr *>(&address), &length) != 0) {
        QKSetLastErrorFromErrno();
        return 0;
    }
    memset(addr, 0, sizeof *addr);
    addr->ip.family = QK_FAMILY_IPV4;
    addr->ip.u.addr4 = ntohl(address.sin_addr.s_addr);
    addr->port = ntohs(address.sin_port);
    return 1;
}

}  // extern "C"
