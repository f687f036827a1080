// Rewriting a buffer around one change, in one pass: the bytes outside the
// changed region and the enclosing size fields are copied as they are.
#include "collection/pictree_internal.h"
#include "container/varint.h"

namespace qk::pictree {

namespace {

// Writes `value` in front of `at` in `bytes`, moving `at` back.
void Prepend(UByte *bytes, size_t &at, ULong value) {
    size_t size = VarIntSize(value);
    at -= size;
    VarIntWrite(bytes + at, size, value);
}

}  // namespace

void Rewrite(const UByte *buffer, UInt length, Entry *enclosing, UInt count, UInt from, UInt to,
             const ByteArray &replacement, ByteArray &out) {
    // From the innermost entry out: each size grows by what the entries
    // inside it gained, their size fields' widths included.
    Long delta = (Long)replacement.length - (Long)(to - from);
    for (UInt i = count; i-- > 0;) {
        Entry &entry = enclosing[i];
        entry.newSize = (UInt)(entry.size + delta);
        delta += (Long)VarIntSize(entry.newSize) - entry.sizeLength;
    }
    ArraySetLength(out, length + delta);
    UByte *write = out.data;
    UInt copied = 0;
    auto copyUpTo = [&](UInt at) {
        if (at > copied) memcpy(write, buffer + copied, at - copied);
        write += at - copied;
        copied = at;
    };
    for (UInt i = 0; i < count; i++) {
        copyUpTo(enclosing[i].sizeAt);
        write += VarIntWrite(write, kVarIntMaxSize, enclosing[i].newSize);
        copied += enclosing[i].sizeLength;
    }
    copyUpTo(from);
    if (replacement.length > 0) memcpy(write, replacement.data, replacement.length);
    write += replacement.length;
    copied = to;
    copyUpTo(length);
}

void Chain(const UInt *key, UInt first, UInt keyLength, ULong data, ByteArray &out) {
    // Written backwards from the end of room enough, innermost entry first,
    // so that each size is known when it is written; then moved to the start.
    size_t room = (keyLength - first) * (2 * kVarIntMaxSize + 1) + kVarIntMaxSize, at = room;
    ArraySetLength(out, room);
    for (UInt i = keyLength; i-- > first;) {
        Prepend(out.data, at, i + 1 == keyLength ? data : EMPTY_NODE_DATA);
        Prepend(out.data, at, room - at);
        Prepend(out.data, at, key[i]);
    }
    memmove(out.data, out.data + at, room - at);
    out.length = (UInt)(room - at);
}

}  // namespace qk::pictree
