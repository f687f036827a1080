// Serial forms on a channel: integers little-endian byte by byte whatever
// the host, a byte Array as a 4-byte length and its bytes, an Array of
// elements as a 4-byte count and each element by its writer.
//
// A read that meets the end of the stream throws (7, 2) "read EOF".
#include <string.h>

#include "channel/channel_internal.h"

using namespace qk::channel;

namespace {

// The most elements an Array read from a stream may hold: what the arrays
// can grow to. A larger count is no valid stream.
constexpr ULong kMaxCount = 0x7FFFFFFFu;
// The most bytes of the first piece of a byte Array's read; each piece then
// doubles what came, so that a damaged length costs no more memory than the
// stream delivers.
constexpr UInt kFirstPiece = 1u << 16;

bool CountFits(ULong count) {
    if (count <= kMaxCount) return true;
    QKErrorThrow(QK_ERR_FORMAT, QK_DOMAIN_GENERAL, "protocol error");
    return false;
}

}  // namespace

extern "C" {

QK_API int ChannelWriteIntegerLE(Channel *channel, ULong value, UInt len) {
    qkassert(len <= sizeof(ULong));
    if (channel->writePos + len > CHANNEL_BUFFER_SIZE && !ChannelFlush(channel)) return 0;
    UByte *out = channel->writeBuffer + channel->writePos;
    for (UInt i = 0; i < len; i++) out[i] = (UByte)(value >> (8 * i));
    channel->writePos += len;
    return 1;
}

QK_API int ChannelReadIntegerLE(Channel *channel, ULong *value, UInt len) {
    qkassert(len <= sizeof(ULong));
    ULong result = 0;
    for (UInt i = 0; i < len; i++) {
        int byte = ChannelReadByte(channel);
        if (byte < 0) return FailRead(byte);
        result |= (ULong)byte << (8 * i);
    }
    *value = result;
    return 1;
}

QK_API int ChannelWriteUIntLE(Channel *channel, UInt value) {
    return ChannelWriteIntegerLE(channel, value, 4);
}

QK_API int ChannelWriteULongLE(Channel *channel, ULong value) {
    return ChannelWriteIntegerLE(channel, value, 8);
}

QK_API int ChannelReadUIntLE(Channel *channel, UInt *value) {
    ULong v;
    if (!ChannelReadIntegerLE(channel, &v, 4)) return 0;
    *value = (UInt)v;
    return 1;
}

QK_API int ChannelReadULongLE(Channel *channel, ULong *value) {
    return ChannelReadIntegerLE(channel, value, 8);
}

QK_API int ChannelWriteByteArray(Channel *channel, const void *byteArray) {
    const ByteArray *array = static_cast<const ByteArray *>(byteArray);
    return ChannelWriteIntegerLE(channel, array->length, 4) &&
           ChannelWriteBuf(channel, array->data, array->length);
}

// The array keeps a zero behind its length; on failure it holds what came.
QK_API int ChannelReadByteArray(Channel *channel, void *byteArray) {
    ByteArray *array = static_cast<ByteArray *>(byteArray);
    ULong length;
    if (!ChannelReadIntegerLE(channel, &length, 4) || !CountFits(length)) return 0;
    array->length = 0;
    int result = 0;
    do {
        UInt piece = array->length > kFirstPiece ? array->length : kFirstPiece;
        if (piece > length - array->length) piece = (UInt)(length - array->length);
        ArrayEnsure(*array, array->length + piece + 1);
        UInt count = 0;
        result = ChannelReadBuf(channel, array->data + array->length, piece, &count);
        array->length += count;
    } while (result == 0 && array->length < length);
    array->data[array->length] = 0;
    return result == 0 ? 1 : FailRead(result);
}

QK_API int ChannelWriteArray_(Channel *channel, const void *array, size_t eltSize,
                              ChannelWriteElementFn write, void *userData) {
    const Array *a = static_cast<const Array *>(array);
    if (!ChannelWriteIntegerLE(channel, a->length, 4)) return 0;
    const char *element = static_cast<const char *>(a->data);
    for (UInt i = 0; i < a->length; i++, element += eltSize) {
        if (!write(channel, element, userData)) return 0;
    }
    return 1;
}

// Each element is zeroed before its reader sees it. On failure the array
// holds the elements read in full.
QK_API int ChannelReadArray_(Channel *channel, void *array, size_t eltSize,
                             ChannelReadElementFn read, void *userData, const char *file,
                             int line) {
    Array *a = static_cast<Array *>(array);
    ULong count;
    if (!ChannelReadIntegerLE(channel, &count, 4) || !CountFits(count)) return 0;
    a->length = 0;
    if (a->capacity < count) ArrayGrowExact_(a, (UInt)count, eltSize, file, line);
    for (UInt i = 0; i < count; i++) {
        char *element = static_cast<char *>(a->data) + (size_t)i * eltSize;
        memset(element, 0, eltSize);
        if (!read(channel, element, userData)) return 0;
        a->length = i + 1;
    }
    return 1;
}

}  // extern "C"
