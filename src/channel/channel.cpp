// The life of a channel object and its settings: making and closing it,
// time-outs and the blocking mode they imply, wrapping a descriptor,
// dropping a connection, the addresses of its ends, and closing the write
// side.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "channel/channel_internal.h"
#include "channel/tls_internal.h"
#include "qk/memory.h"

using namespace qk::channel;

namespace {

// Closes the descriptor when the channel owns it; errors are left to the
// caller through the result: true, or false with errno set by close.
bool CloseDescriptor(Channel *channel) {
    int fd = channel->fd;
    bool own = channel->own;
    channel->fd = -1;
    channel->crtFd = -1;
    if (fd < 0 || !own) return true;
    // After EINTR the descriptor is gone all the same.
    return close(fd) == 0 || errno == EINTR;
}

}  // namespace

namespace qk::channel {

bool SetNonBlocking(int fd, bool nonBlocking) {
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0) {
        QKSetLastErrorFromErrno();
        return false;
    }
    int wanted = nonBlocking ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK);
    if (wanted != flags && fcntl(fd, F_SETFL, wanted) != 0) {
        QKSetLastErrorFromErrno();
        return false;
    }
    return true;
}

bool ApplyBlockingMode(Channel *channel) {
    return SetNonBlocking(channel->fd, channel->readTimeout >= 0 || channel->writeTimeout >= 0);
}

}  // namespace qk::channel

extern "C" {

QK_API Channel *ChannelNew(Int readTimeout, Int writeTimeout) {
    return ChannelNewEx(readTimeout, writeTimeout, -1);
}

// The buffers are left as they come: positions say what they hold.
QK_API Channel *ChannelNewEx(Int readTimeout, Int writeTimeout, Int connectTimeout) {
    Channel *channel = static_cast<Channel *>(Allocate(sizeof(Channel), nullptr));
    channel->fd = -1;
    channel->readTimeout = readTimeout;
    channel->writeTimeout = writeTimeout;
    channel->connectTimeout = connectTimeout;
    channel->portMin = 0;
    channel->portMax = 0;
    channel->portNext = 0;
    channel->own = 0;
    channel->crtFd = -1;
    channel->isSocket = 0;
    channel->sslConfig = nullptr;
    channel->sslExtra = nullptr;
    channel->ssl = nullptr;
    channel->isPipe = 0;
    channel->obfuscated = 0;
    channel->readKey = ~(ULong)0;
    channel->writeKey = ~(ULong)0;
    ResetPositions(channel);
    return channel;
}

QK_API int ChannelClose(Channel *channel) {
    if (channel == nullptr) return 1;
    if (channel->fd >= 0 && channel->writePos > 0 && !ChannelFlush(channel)) {
        KeepingError([channel] {
            qk::tls::End(channel, false);
            CloseDescriptor(channel);
        });
        UnAllocate(channel->sslExtra);
        UnAllocate(channel);
        return 0;
    }
    int result = 1;
    if (channel->ssl != nullptr) qk::tls::End(channel, true);
    if (!CloseDescriptor(channel)) {
        QKSetLastErrorFromErrno();
        result = 0;
    }
    UnAllocate(channel->sslExtra);
    UnAllocate(channel);
    return result;
}

QK_API size_t ChannelGetMemorySize(const Channel *channel) {
    if (channel == nullptr) return 0;
    size_t size = sizeof(Channel);
    if (channel->ssl != nullptr) size += qk::tls::MemorySize(channel);
    return size;
}

QK_API Int ChannelSetReadTimeout(Channel *channel, Int timeout) {
    Int old = channel->readTimeout;
    channel->readTimeout = timeout;
    if (channel->fd >= 0 && IsStream(channel))
        KeepingError([channel] { ApplyBlockingMode(channel); });
    return old;
}

QK_API Int ChannelSetWriteTimeout(Channel *channel, Int timeout) {
    Int old = channel->writeTimeout;
    channel->writeTimeout = timeout;
    if (channel->fd >= 0 && IsStream(channel))
        KeepingError([channel] { ApplyBlockingMode(channel); });
    return old;
}

QK_API void ChannelSetConnectTimeout(Channel *channel, Int timeout) {
    channel->connectTimeout = timeout;
}

QK_API void ChannelSetOutboundPortRange(Channel *channel, UShort min, UShort max) {
    qkassert(min <= max);
    channel->portMin = min;
    channel->portMax = max;
    channel->portNext = min;
}

QK_API int ChannelSetFD(Channel *channel, int descriptor, int own) {
    if (descriptor < 0) {
        errno = EINVAL;
        return 0;
    }
    struct stat status;
    if (fstat(descriptor, &status) != 0) {
        QKSetLastErrorFromErrno();
        return 0;
    }
    ChannelDisconnect(channel);
    channel->fd = descriptor;
    channel->own = own ? 1 : 0;
    channel->crtFd = own ? descriptor : -1;
    // A socket handed over by the caller is a socket like any other: it
    // waits, selects and shuts down as one.
    channel->isSocket = S_ISSOCK(status.st_mode) ? 1 : 0;
    channel->isPipe = 0;
    ResetPositions(channel);
    if (channel->isSocket && !ApplyBlockingMode(channel)) {
        channel->fd = -1;
        channel->crtFd = -1;
        return 0;
    }
    return 1;
}

QK_API void ChannelDisconnect(Channel *channel) {
    KeepingError([channel] {
        qk::tls::End(channel, false);
        CloseDescriptor(channel);
    });
    ResetPositions(channel);
}

QK_API int ChannelConnected(const Channel *channel) {
    return channel->fd >= 0;
}

QK_API int ChannelIsSocket(const Channel *channel) {
    return channel->isSocket;
}

QK_API int ChannelGetAddr(Channel *channel, TCPAddr *addr, int peer) {
    if (channel->fd < 0) {
        errno = EINVAL;
        return 0;
    }
    struct sockaddr_storage storage;
    socklen_t length = sizeof storage;
    auto *address = reinterpret_cast<struct sockaddr *>(&storage);
    int done = peer ? getpeername(channel->fd, address, &length)
                    : getsockname(channel->fd, address, &length);
    if (done != 0) {
        QKSetLastErrorFromErrno();
        return 0;
    }
    if (storage.ss_family != AF_INET) {
        errno = EINVAL;
        return 0;
    }
    const auto *inet = reinterpret_cast<const struct sockaddr_in *>(&storage);
    memset(addr, 0, sizeof *addr);
    addr->ip.family = QK_FAMILY_IPV4;
    addr->ip.u.addr4 = ntohl(inet->sin_addr.s_addr);
    addr->port = ntohs(inet->sin_port);
    return 1;
}

// What waits in the write buffer leaves first, so that the peer gets all of
// it before the end of the stream.
QK_API int ChannelShutdown(Channel *channel) {
    if (channel->isPipe) {
        QKErrorThrow(QK_ERR_INVALID, QK_DOMAIN_GENERAL, "ChannelShutdown: operation not supported");
        return 0;
    }
    if (!ChannelFlush(channel)) return 0;
    if (channel->fd < 0) {
        errno = EINVAL;
        return 0;
    }
    if (channel->ssl != nullptr) qk::tls::End(channel, true);
    if (shutdown(channel->fd, SHUT_WR) != 0) {
        QKSetLastErrorFromErrno();
        return 0;
    }
    return 1;
}

QK_API int ChannelImpersonateNamedPipeClient(Channel *) {
    QKErrorThrow(QK_ERR_NOT_SUPPORTED, QK_DOMAIN_GENERAL, "not supported");
    return 0;
}

}  // extern "C"
