// Obfuscation of a channel's bytes: one keystream per direction, both
// starting from the same key. The write side scrambles its buffer when it
// flushes, the read side right after each system read (channel_read.cpp,
// channel_write.cpp), so that the buffers hold plain bytes; only what a
// failed flush could not send stays in the write buffer already scrambled.
#include "channel/channel_internal.h"

extern "C" {

QK_API void ChannelSetObfuscationKey(Channel *channel, ULong key) {
    if (key == ~(ULong)0) {
        channel->obfuscated = 0;
        return;
    }
    channel->obfuscated = 1;
    channel->readKey = key;
    channel->writeKey = key;
}

}  // extern "C"
