// Reading from a channel: the read primitive over the descriptor or the TLS
// session, the buffer it fills, and the buffered reads of bytes, blocks and
// lines.
#include <errno.h>
#include <string.h>
#include <unistd.h>

#include "channel/channel_internal.h"
#include "channel/tls_internal.h"

namespace qk::channel {

int Read(Channel *channel, void *buffer, UInt size, bool full, UInt *count, bool block) {
    *count = 0;
    if (channel->fd < 0) {
        errno = EINVAL;
        return kError;
    }
    UByte *bytes = static_cast<UByte *>(buffer);
    UInt done = 0;
    int result = 0;
    while (done < size) {
        size_t want = size - done;
        if (want > CHANNEL_MAX_TRANSFER) want = CHANNEL_MAX_TRANSFER;
        long got;
        if (channel->ssl != nullptr) {
            got = qk::tls::Read(channel, bytes + done, want);
            if (got == qk::tls::kWantRead || got == qk::tls::kWantWrite) {
                if (!block) {
                    result = kTimeout;
                    break;
                }
                int ready = WaitChannel(channel, got == qk::tls::kWantWrite);
                if (ready != 1) {
                    result = ready;
                    break;
                }
                continue;
            }
            if (got < 0) {
                result = kError;
                break;
            }
        } else {
            got = read(channel->fd, bytes + done, want);
            if (got < 0) {
                if (errno == EINTR) continue;
                if (errno == EAGAIN || errno == EWOULDBLOCK) {
                    if (!block) {
                        result = kTimeout;
                        break;
                    }
                    int ready = WaitChannel(channel, false);
                    if (ready != 1) {
                        result = ready;
                        break;
                    }
                    continue;
                }
                QKSetLastErrorFromErrno();
                result = kError;
                break;
            }
        }
        if (got == 0) {
            errno = 0;
            result = kEOF;
            break;
        }
        if (channel->obfuscated) Scramble(&channel->readKey, bytes + done, (size_t)got);
        done += (UInt)got;
        if (!full) break;
    }
    *count = done;
    return result;
}

int Fill(Channel *channel) {
    channel->readPos = 0;
    channel->readEnd = 0;
    UInt count;
    int result = Read(channel, channel->readBuffer, CHANNEL_BUFFER_SIZE, false, &count, true);
    channel->readEnd = (Int)count;
    return count > 0 ? 0 : result;
}

int FailRead(int code) {
    if (code == kEOF) QKErrorThrow(QK_ERR_EOF, QK_DOMAIN_GENERAL, "read EOF");
    return 0;
}

}  // namespace qk::channel

using namespace qk::channel;

namespace {

// Makes room for `extra` more bytes and the terminator behind them.
inline void Reserve(ByteArray *array, UInt extra) {
    ArrayEnsure(*array, array->length + extra + 1);
}

inline void Terminate(ByteArray *array) {
    array->data[array->length] = 0;
}

}  // namespace

extern "C" {

QK_API int ChannelReadByte_(Channel *channel, int peek) {
    if (channel->readPos >= channel->readEnd) {
        int result = Fill(channel);
        if (result < 0) return result;
    }
    int byte = channel->readBuffer[channel->readPos];
    if (!peek) channel->readPos++;
    return byte;
}

QK_API int ChannelReadBuf(Channel *channel, void *buffer, UInt size, UInt *count) {
    UByte *bytes = static_cast<UByte *>(buffer);
    UInt done = (UInt)(channel->readEnd - channel->readPos);
    if (done > size) done = size;
    if (done > 0) {
        memcpy(bytes, channel->readBuffer + channel->readPos, done);
        channel->readPos += (Int)done;
    }
    int result = 0;
    UInt rest = size - done;
    if (rest > CHANNEL_BUFFER_SIZE) {
        // Large reads land in the caller's memory.
        UInt got;
        result = Read(channel, bytes + done, rest, true, &got, true);
        done += got;
    } else {
        while (done < size) {
            result = Fill(channel);
            if (result < 0) break;
            UInt n = (UInt)channel->readEnd;
            if (n > size - done) n = size - done;
            memcpy(bytes + done, channel->readBuffer, n);
            channel->readPos = (Int)n;
            done += n;
        }
    }
    if (count != nullptr) *count = done;
    return result;
}

// Works through the buffer a stretch at a time: the bytes up to the next LF
// are copied without their CRs, as long as `max` allows.
QK_API int ChannelReadLine(Channel *channel, ByteArray *array, UInt max) {
    array->length = 0;
    Reserve(array, 0);
    Terminate(array);
    for (;;) {
        if (channel->readPos >= channel->readEnd) {
            int result = Fill(channel);
            if (result < 0) {
                Terminate(array);
                return FailRead(result);
            }
        }
        UByte *start = channel->readBuffer + channel->readPos;
        UByte *end = channel->readBuffer + channel->readEnd;
        UByte *newline = static_cast<UByte *>(memchr(start, '\n', (size_t)(end - start)));
        UByte *stop = newline != nullptr ? newline : end;
        UByte *p = start;
        while (p < stop) {
            UByte *cr = static_cast<UByte *>(memchr(p, '\r', (size_t)(stop - p)));
            UByte *piece = cr != nullptr ? cr : stop;
            UInt n = (UInt)(piece - p);
            bool full = false;
            if (max != 0 && n >= max - array->length) {
                n = max - array->length;
                full = true;
            }
            Reserve(array, n);
            memcpy(array->data + array->length, p, n);
            array->length += n;
            p += n;
            if (full) {
                channel->readPos = (Int)(p - channel->readBuffer);
                Terminate(array);
                return 1;
            }
            if (cr != nullptr) p++;
        }
        if (newline != nullptr) {
            channel->readPos = (Int)(newline + 1 - channel->readBuffer);
            Terminate(array);
            return 1;
        }
        channel->readPos = channel->readEnd;
    }
}

}  // extern "C"
