// Writing to a channel: the write primitive over the descriptor or the TLS
// session, the flush of the write buffer, and the buffered writes of bytes
// and numbers as text.
#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <trio.h>

#include "channel/channel_internal.h"
#include "channel/tls_internal.h"

namespace {

// Room that a number written as text may take in the write buffer.
constexpr UInt kTextRoom = 30;

}  // namespace

namespace qk::channel {

int Write(Channel *channel, const void *buffer, size_t size, size_t *written) {
    if (channel->fd < 0) {
        errno = EINVAL;
        return 0;
    }
    const UByte *bytes = static_cast<const UByte *>(buffer);
    size_t done = 0;
    if (written) *written = 0;
    const bool stream = IsStream(channel);
    while (done < size) {
        size_t want = size - done;
        if (want > CHANNEL_MAX_TRANSFER) want = CHANNEL_MAX_TRANSFER;
        long sent;
        if (channel->ssl != nullptr) {
            sent = qk::tls::Write(channel, bytes + done, want);
            if (sent == qk::tls::kWantRead || sent == qk::tls::kWantWrite) {
                if (WaitChannel(channel, sent == qk::tls::kWantWrite) != 1) return 0;
                continue;
            }
            if (sent < 0) return 0;
        } else {
            // A peer that went away gives EPIPE, not a signal.
            sent = stream ? send(channel->fd, bytes + done, want, MSG_NOSIGNAL)
                          : write(channel->fd, bytes + done, want);
            if (sent < 0) {
                if (errno == EINTR) continue;
                if (errno == EAGAIN || errno == EWOULDBLOCK) {
                    if (WaitChannel(channel, true) != 1) return 0;
                    continue;
                }
                QKSetLastErrorFromErrno();
                return 0;
            }
        }
        done += (size_t)sent;
        if (written) *written = done;
    }
    return 1;
}

}  // namespace qk::channel

using namespace qk::channel;

namespace {

// Makes room for a number as text: 1, or 0 when the flush failed.
inline int TextRoom(Channel *channel) {
    if (channel->writePos > CHANNEL_BUFFER_SIZE - kTextRoom) return ChannelFlush(channel);
    return 1;
}

// Writes the digits of `value` in base 10 or 16 (lower case), at least
// `width` of them, behind an optional minus sign.
int WriteNumber(Channel *channel, ULong value, bool negative, unsigned base, int width) {
    if (!TextRoom(channel)) return 0;
    char digits[24];
    int n = 0;
    do {
        digits[n++] = "0123456789abcdef"[value % base];
        value /= base;
    } while (value != 0);
    while (n < width) digits[n++] = '0';
    UByte *out = channel->writeBuffer + channel->writePos;
    int length = 0;
    if (negative) out[length++] = '-';
    while (n > 0) out[length++] = (UByte)digits[--n];
    channel->writePos += (UInt)length;
    return 1;
}

int WriteSigned(Channel *channel, Long value) {
    ULong magnitude = value < 0 ? 0 - (ULong)value : (ULong)value;
    return WriteNumber(channel, magnitude, value < 0, 10, 1);
}

}  // namespace

extern "C" {

// A failed write keeps what did not leave at the buffer's start, already
// obfuscated, so that a later flush sends each byte once and scrambles it
// once.
QK_API int ChannelFlush(Channel *channel) {
    UInt size = channel->writePos;
    if (size == 0) return 1;
    UInt done = channel->writeScrambled;
    if (channel->obfuscated && done < size)
        Scramble(&channel->writeKey, channel->writeBuffer + done, size - done);
    size_t written;
    int ok = Write(channel, channel->writeBuffer, size, &written);
    UInt left = ok ? 0 : size - (UInt)written;
    if (left) memmove(channel->writeBuffer, channel->writeBuffer + written, left);
    channel->writePos = left;
    channel->writeScrambled = channel->obfuscated ? left : 0;
    return ok;
}

QK_API int ChannelSync(Channel *channel) {
    if (!ChannelFlush(channel)) return 0;
    if (IsStream(channel)) return 1;
    if (fsync(channel->fd) != 0 && errno != EINVAL && errno != EROFS) {
        QKSetLastErrorFromErrno();
        return 0;
    }
    return 1;
}

QK_API int ChannelWriteBuf(Channel *channel, const void *buffer, UInt size) {
    const UByte *bytes = static_cast<const UByte *>(buffer);
    if (size > CHANNEL_BUFFER_SIZE && !channel->obfuscated) {
        // Large writes leave from the caller's memory.
        if (!ChannelFlush(channel)) return 0;
        return Write(channel, bytes, size);
    }
    while (size > 0) {
        UInt room = CHANNEL_BUFFER_SIZE - channel->writePos;
        if (room == 0) {
            if (!ChannelFlush(channel)) return 0;
            room = CHANNEL_BUFFER_SIZE;
        }
        UInt n = size < room ? size : room;
        memcpy(channel->writeBuffer + channel->writePos, bytes, n);
        channel->writePos += n;
        bytes += n;
        size -= n;
    }
    return 1;
}

QK_API int ChannelWriteString(Channel *channel, const char *text) {
    return ChannelWriteBuf(channel, text, (UInt)strlen(text));
}

QK_API int ChannelWriteInt(Channel *channel, Int value) {
    return WriteSigned(channel, value);
}

QK_API int ChannelWriteUInt(Channel *channel, UInt value) {
    return WriteNumber(channel, value, false, 10, 1);
}

QK_API int ChannelWriteLong(Channel *channel, Long value) {
    return WriteSigned(channel, value);
}

QK_API int ChannelWriteULong(Channel *channel, ULong value) {
    return WriteNumber(channel, value, false, 10, 1);
}

QK_API int ChannelWriteHexInt(Channel *channel, UInt value) {
    return WriteNumber(channel, value, false, 16, 8);
}

QK_API int ChannelWriteHexLong(Channel *channel, ULong value) {
    return WriteNumber(channel, value, false, 16, 16);
}

QK_API int ChannelWriteDouble(Channel *channel, double value) {
    if (!TextRoom(channel)) return 0;
    char text[64];
    int n = trio_snprintf(text, sizeof text, "%.5g", value);
    qkassert(n <= 30);
    memcpy(channel->writeBuffer + channel->writePos, text, (size_t)n);
    channel->writePos += (UInt)n;
    return 1;
}

}  // extern "C"
