// Channels, private to their sources: the read and write primitives that
// every buffered call ends in, the waits behind them, the keystream of
// obfuscated channels, and the small helpers that connecting and opening
// share.
#pragma once

#include <errno.h>
#include <string.h>

#include "frame/fingerprint_internal.h"
#include "qk/channel.h"
#include "qk/frame.h"

namespace qk::channel {

// Read codes of the primitives (see the public header).
enum : int { kEOF = -1, kError = -2, kTimeout = -3 };

// A descriptor that moves bytes with recv and send: a TCP socket, a local
// socket, or any socket wrapped by ChannelSetFD.
inline bool IsStream(const Channel *channel) {
    return channel->isSocket || channel->isPipe;
}

// Puts a descriptor in non-blocking mode or takes it out: true, or false
// with errno -1.
bool SetNonBlocking(int fd, bool nonBlocking);

// Brings a connected stream to the mode its time-outs ask for: non-blocking
// exactly when a read or write time-out is at or above 0.
bool ApplyBlockingMode(Channel *channel);

// Forgets what the buffers hold.
inline void ResetPositions(Channel *channel) {
    channel->readPos = 0;
    channel->readEnd = 0;
    channel->writePos = 0;
    channel->writeScrambled = 0;
}

// Waits until `fd` is ready for reading or writing, or shows an error or
// hang-up (which also count as ready: the next call tells what happened).
// `milliseconds` below 0 waits without limit. 1 when ready; 0 on time-out,
// with (2, 2) `timeoutText` thrown; -1 with errno -1 when the wait failed.
int WaitReady(int fd, bool forWrite, Long milliseconds, const char *timeoutText);

// The wait of a read or write primitive that found the descriptor not
// ready: a socket waits SocketWait's way (the time-out in whole seconds), a
// local socket its own way (reads in milliseconds, writes in seconds). 1
// ready, kTimeout, or kError.
int WaitChannel(Channel *channel, bool forWrite);

// Reads into `buffer` up to `size` bytes: with `full`, until `size` bytes
// have come; else stops after the first read that gave any. Without
// `block`, a descriptor that is not ready gives kTimeout at once, with no
// error set. What came is descrambled on an obfuscated channel and counted
// in *count, also when the read ends in failure. 0 on success, else a read
// code.
int Read(Channel *channel, void *buffer, UInt size, bool full, UInt *count, bool block);

// Writes all `size` bytes: 1, or 0 with the error state set and, in
// *written when given, how many left before the failure.
int Write(Channel *channel, const void *buffer, size_t size, size_t *written = nullptr);

// Fills the empty read buffer with one read: 0 or a read code.
int Fill(Channel *channel);

// The obfuscation keystream: each byte is XORed with the top 8 bits of the
// key, and the key moves on by the fingerprint of one zero byte.
inline ULong NextKey(ULong key) {
    key = (key >> 8) ^ qk::fingerprint::kTables.t[7][key & 255];
    if (key & 1) key ^= qk::fingerprint::kPolynomial;
    return key;
}

inline void Scramble(ULong *key, UByte *bytes, size_t size) {
    ULong k = *key;
    for (size_t i = 0; i < size; i++) {
        bytes[i] ^= (UByte)(k >> 56);
        k = NextKey(k);
    }
    *key = k;
}

// Runs `release` with the thread's error state kept as it stands.
template <typename F>
void KeepingError(F release) {
    if (errno == -2) {
        QKErrorSave();
        release();
        QKErrorRestore();
    } else {
        int savedErrno = errno;
        int savedLastError = QKGetLastError();
        release();
        QKSetLastError(savedLastError);
        errno = savedErrno;
    }
}

// Appends text to a byte Array, keeping a zero behind its length.
inline void AppendText(ByteArray *array, const char *text, size_t length) {
    ArrayEnsure(*array, array->length + length + 1);
    memcpy(array->data + array->length, text, length);
    array->length += (UInt)length;
    array->data[array->length] = 0;
}

// Throws (7, 2) "read EOF" when `code` is the end of file; the other codes
// have set the error state already. Returns 0 for the caller to pass on.
int FailRead(int code);

}  // namespace qk::channel
