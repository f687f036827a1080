// Waiting for descriptors: the wait behind every blocked read or write,
// SocketWait, and ChannelSelect over several channels. All of it is poll, so
// that no descriptor number is too large to wait on.
#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <time.h>

#include "channel/channel_internal.h"

namespace {

// The most ChannelSelect waits on at once.
constexpr UInt kSelectMax = 64;

Long NowMillis() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (Long)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

// poll that resumes after a signal with the time that is left: the number
// of ready entries, 0 on time-out, -1 with errno on failure.
int PollFor(struct pollfd *entries, nfds_t count, Long milliseconds) {
    const Long deadline = milliseconds >= 0 ? NowMillis() + milliseconds : -1;
    for (;;) {
        int wait = -1;
        if (deadline >= 0) {
            Long left = deadline - NowMillis();
            if (left < 0) left = 0;
            wait = left > INT_MAX ? INT_MAX : (int)left;
        }
        int ready = poll(entries, count, wait);
        if (ready >= 0) {
            // A wait cut short by the INT_MAX limit goes on.
            if (ready == 0 && deadline >= 0 && NowMillis() < deadline) continue;
            return ready;
        }
        if (errno != EINTR) return -1;
    }
}

}  // namespace

namespace qk::channel {

int WaitReady(int fd, bool forWrite, Long milliseconds, const char *timeoutText) {
    struct pollfd entry;
    entry.fd = fd;
    entry.events = forWrite ? POLLOUT : POLLIN;
    entry.revents = 0;
    int ready = PollFor(&entry, 1, milliseconds);
    if (ready < 0) {
        QKSetLastErrorFromErrno();
        return -1;
    }
    if (ready == 0) {
        QKErrorThrow(QK_ERR_TIMEOUT, QK_DOMAIN_GENERAL, "%s", timeoutText);
        return 0;
    }
    return 1;
}

int WaitChannel(Channel *channel, bool forWrite) {
    int ready;
    if (channel->isPipe) {
        // A local socket waits for reading in milliseconds and for writing in
        // seconds.
        if (forWrite) {
            Int timeout = channel->writeTimeout;
            ready = WaitReady(channel->fd, true, timeout < 0 ? -1 : (Long)timeout * 1000,
                              "write timeout");
        } else {
            Int timeout = channel->readTimeout;
            ready = WaitReady(channel->fd, false, timeout < 0 ? -1 : timeout, "read timeout");
        }
    } else {
        ready = SocketWait(channel->fd, forWrite,
                           forWrite ? channel->writeTimeout : channel->readTimeout);
        if (ready == 0) return errno == -2 ? kTimeout : kError;
        return 1;
    }
    if (ready > 0) return 1;
    return ready == 0 ? kTimeout : kError;
}

}  // namespace qk::channel

extern "C" {

// The time-out is a number of whole seconds, whatever the callers meant.
QK_API int SocketWait(int socket, int forWrite, Int timeout) {
    Long milliseconds = timeout < 0 ? -1 : (Long)timeout * 1000;
    return qk::channel::WaitReady(socket, forWrite != 0, milliseconds, "timeout") > 0 ? 1 : 0;
}

QK_API Int ChannelSelect(Channel **channels, UInt count, Int milliseconds) {
    for (UInt i = 0; i < count; i++) {
        const Channel *channel = channels[i];
        if (channel == nullptr) continue;
        if (!channel->isSocket) {
            QKErrorThrow(EINVAL, QK_DOMAIN_RUNTIME,
                         "Illegal ChannelSelect on a non-socket channel");
            return -1;
        }
        if (channel->ssl != nullptr) {
            QKErrorThrow(EINVAL, QK_DOMAIN_RUNTIME, "Illegal ChannelSelect on a SSL channel");
            return -1;
        }
    }
    // What is buffered is read without asking the system.
    for (UInt i = 0; i < count; i++) {
        const Channel *channel = channels[i];
        if (channel != nullptr && channel->readPos < channel->readEnd) return (Int)i;
    }
    struct pollfd entries[kSelectMax];
    UInt owners[kSelectMax];
    nfds_t used = 0;
    for (UInt i = 0; i < count && used < kSelectMax; i++) {
        const Channel *channel = channels[i];
        if (channel == nullptr || channel->fd < 0) continue;
        entries[used].fd = channel->fd;
        entries[used].events = POLLIN | POLLPRI;
        entries[used].revents = 0;
        owners[used] = i;
        used++;
    }
    if (used == 0) {
        QKErrorThrow(QK_ERR_FAILURE, QK_DOMAIN_GENERAL, "ChannelSelect: empty channel array");
        return -1;
    }
    int ready = PollFor(entries, used, milliseconds < 0 ? -1 : milliseconds);
    if (ready < 0) {
        QKSetLastErrorFromErrno();
        return -1;
    }
    if (ready == 0) {
        QKErrorThrow(QK_ERR_TIMEOUT, QK_DOMAIN_GENERAL, "timeout");
        return -1;
    }
    for (nfds_t k = 0; k < used; k++) {
        if (entries[k].revents != 0) return (Int)owners[k];
    }
    return -1;
}

}  // extern "C"
