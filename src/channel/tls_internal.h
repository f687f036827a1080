// The TLS layer as the channel's read and write primitives see it. A channel
// with a live session (`channel->ssl` set) moves its bytes through these
// calls instead of recv and send; everything else about the channel (time
// outs, waits, buffering, obfuscation) stays in the channel code.
#pragma once

#include <stddef.h>

#include "qk/channel.h"

namespace qk::tls {

// Results of Read and Write.
enum : long {
    kWantRead = -10,   // the session needs the socket readable: wait and retry
    kWantWrite = -11,  // the session needs the socket writable: wait and retry
    kFailed = -12,     // error state set: (5, 2) "SSL_read() failed, error=%d"
                       // or the library's reason
};

// Moves up to `size` bytes. More than 0: bytes moved; 0 on Read: the peer
// closed the session (end of file); or one of the codes above.
long Read(Channel *channel, void *buffer, size_t size);
long Write(Channel *channel, const void *buffer, size_t size);

// True when the session holds decrypted bytes that a Read returns without
// touching the socket.
bool Pending(const Channel *channel);

// Ends the session: with `polite`, sends the close alert first (ignoring its
// failure); always frees the session and sets `channel->ssl` to none.
void End(Channel *channel, bool polite);

// What the live session holds in memory, for ChannelGetMemorySize.
size_t MemorySize(const Channel *channel);

}  // namespace qk::tls
