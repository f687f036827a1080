// The serial forms of an FArray on a channel: an 8-byte little-endian count,
// then the elements in order, as raw bytes or each by its writer.
//
// Writing walks data0 and then the fragments in order. Reading puts all the
// elements in one new data0 block, allocated through the array's callback
// after the old block went back through its own; the fragments stay, so that
// later appends land in them. The block grows as the elements come, so that
// a damaged count costs no more memory than the channel delivers.
#include <string.h>

#include "channel/channel_internal.h"

using namespace qk::channel;

namespace {

// The most bytes handed to one buffered call.
constexpr size_t kPiece = 1u << 30;
// The most elements of the first round of a read; each round then doubles.
constexpr UInt kFirstElements = 1u << 16;

ULong FragmentElements(const FArray *array, unsigned k) {
    return k < 2 ? (ULong)array->blockSize : (ULong)array->blockSize << (k - 1);
}

// Calls fn(pointer, count) for each stretch of elements in order; stops at
// the first call that returns 0.
template <typename Fn>
int ForEachStretch(const FArray *array, Fn fn) {
    const UInt len = array->length;
    ULong check = array->length0 < len ? array->length0 : len;
    if (check > 0 && !fn(static_cast<const char *>(array->data0), (UInt)check)) return 0;
    for (unsigned k = 0; k < FARRAY_FRAGMENTS && check < len; k++) {
        if (array->data[k] == nullptr) break;
        ULong n = FragmentElements(array, k);
        if (n > len - check) n = len - check;
        if (!fn(static_cast<const char *>(array->data[k]), (UInt)n)) return 0;
        check += n;
    }
    qkassert(check == len);
    return 1;
}

int WriteBytes(Channel *channel, const char *bytes, size_t size) {
    while (size > 0) {
        size_t n = size < kPiece ? size : kPiece;
        if (!ChannelWriteBuf(channel, bytes, (UInt)n)) return 0;
        bytes += n;
        size -= n;
    }
    return 1;
}

int ReadBytes(Channel *channel, char *bytes, size_t size) {
    while (size > 0) {
        size_t n = size < kPiece ? size : kPiece;
        int result = ChannelReadBuf(channel, bytes, (UInt)n, nullptr);
        if (result != 0) return FailRead(result);
        bytes += n;
        size -= n;
    }
    return 1;
}

// Reads the count, then the elements in rounds into data0, which grows to
// hold each round; the array holds no element until all have come.
// fill(block, count, &read) returns 1, or 0 with the number of elements read
// in full in `read`.
template <typename Fill>
int Read(FArray *array, Channel *channel, size_t eltSize, const char *file, int line, Fill fill) {
    ULong count;
    if (!ChannelReadULongLE(channel, &count)) return 0;
    if (count > 0xFFFFFFFFu) {
        QKErrorThrow(QK_ERR_FORMAT, QK_DOMAIN_GENERAL, "protocol error");
        return 0;
    }
    array->length = 0;
    if (array->data0 != nullptr) {
        int ok = 1;
        if (array->free != nullptr)
            array->free(array->data0, 0, (size_t)array->length0 * eltSize, &ok, array->userData);
        if (!ok) return 0;
        array->data0 = nullptr;
    }
    array->length0 = 0;
    for (UInt have = 0; have < count; have = array->length0) {
        ULong room = have == 0 ? kFirstElements : 2 * (ULong)have;
        if (room > count) room = count;
        int ok = 1;
        void *block =
            array->alloc(array->data0, (size_t)room * eltSize, &ok, array->userData, file, line);
        if (!ok) return 0;
        array->data0 = block;
        array->length0 = (UInt)room;
        UInt read = 0;
        if (!fill(static_cast<char *>(block) + (size_t)have * eltSize, (UInt)room - have, &read)) {
            array->length = have + read;
            return 0;
        }
    }
    array->length = (UInt)count;
    return 1;
}

}  // namespace

extern "C" {

QK_API int FArrayWriteRaw_(const FArray *array, Channel *channel, size_t eltSize) {
    if (!ChannelWriteULongLE(channel, array->length)) return 0;
    return ForEachStretch(array, [channel, eltSize](const char *elements, UInt count) {
        return WriteBytes(channel, elements, (size_t)count * eltSize);
    });
}

QK_API int FArrayWrite_(const FArray *array, Channel *channel, void *userData,
                        FArrayWriteElementFn writeElement, size_t eltSize) {
    if (!ChannelWriteULongLE(channel, array->length)) return 0;
    return ForEachStretch(array, [&](const char *elements, UInt count) {
        for (UInt i = 0; i < count; i++) {
            if (!writeElement(channel, elements + (size_t)i * eltSize, userData)) return 0;
        }
        return 1;
    });
}

QK_API int FArrayReadRaw_(FArray *array, Channel *channel, size_t eltSize, const char *file,
                          int line) {
    return Read(array, channel, eltSize, file, line, [&](char *block, UInt count, UInt *) {
        return ReadBytes(channel, block, (size_t)count * eltSize);
    });
}

// Each element is zeroed before its reader sees it.
QK_API int FArrayRead_(FArray *array, Channel *channel, void *userData,
                       FArrayReadElementFn readElement, size_t eltSize, const char *file,
                       int line) {
    return Read(array, channel, eltSize, file, line, [&](char *block, UInt count, UInt *read) {
        for (UInt i = 0; i < count; i++) {
            char *element = block + (size_t)i * eltSize;
            memset(element, 0, eltSize);
            if (!readElement(channel, element, userData)) {
                *read = i;
                return 0;
            }
        }
        return 1;
    });
}

}  // extern "C"
