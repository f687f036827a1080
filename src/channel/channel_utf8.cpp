// UTF-8 characters on a channel: 16-bit characters only, so sequences of
// one to three bytes; surrogates pass unchecked.
//
// A byte that should continue a sequence but does not is left unread: it may
// start the next character.
#include "channel/channel_internal.h"

using namespace qk::channel;

namespace {

// Reads one character. `remaining`, when given, is the number of bytes the
// field has left, counted down as bytes are taken; a field that runs out
// acts as the end of the file.
Int ReadCharacter(Channel *channel, UInt *remaining) {
    if (remaining != nullptr && *remaining == 0) return kEOF;
    int first = ChannelReadByte(channel);
    if (first < 0) return first;
    if (remaining != nullptr) (*remaining)--;
    if (first < 0x80) return first;
    if (first < 0xC0 || first >= 0xF0) return -4;
    int more = first < 0xE0 ? 1 : 2;
    UInt c = (UInt)first & (more == 1 ? 0x1Fu : 0x0Fu);
    for (int i = 0; i < more; i++) {
        if (remaining != nullptr && *remaining == 0) return -4;
        int next = ChannelPeekByte(channel);
        if (next == kEOF) return -4;
        if (next < 0) return next;
        if ((next & 0xC0) != 0x80) return -4;
        channel->readPos++;
        if (remaining != nullptr) (*remaining)--;
        c = (c << 6) | ((UInt)next & 0x3F);
    }
    if (c < (more == 1 ? 0x80u : 0x800u)) return -4;
    return (Int)c;
}

}  // namespace

extern "C" {

QK_API int ChannelReadUTF8(Channel *channel) {
    return ReadCharacter(channel, nullptr);
}

QK_API int ChannelReadUTF8Field(Channel *channel, UInt *remaining) {
    return ReadCharacter(channel, remaining);
}

QK_API int ChannelWriteUTF8(Channel *channel, UShort character) {
    UByte bytes[3];
    UInt n;
    if (character < 0x80) {
        bytes[0] = (UByte)character;
        n = 1;
    } else if (character < 0x800) {
        bytes[0] = (UByte)(0xC0 | (character >> 6));
        bytes[1] = (UByte)(0x80 | (character & 0x3F));
        n = 2;
    } else {
        bytes[0] = (UByte)(0xE0 | (character >> 12));
        bytes[1] = (UByte)(0x80 | ((character >> 6) & 0x3F));
        bytes[2] = (UByte)(0x80 | (character & 0x3F));
        n = 3;
    }
    return ChannelWriteBuf(channel, bytes, n);
}

}  // extern "C"
