// Variable-length unsigned numbers: groups of 7 bits, the lowest group
// first; each byte holds its group shifted left by one, with bit 0 set when
// another byte follows. A 64-bit number takes 1 to 10 bytes.
//
// The hash tables keep key lengths in this form, and the persistent trees
// and the box log write their numbers with it.
#pragma once

#include <stddef.h>

#include "qk/types.h"

namespace qk {

// The most bytes a 64-bit number takes.
constexpr size_t kVarIntMaxSize = 10;

// The number of bytes `value` takes.
QK_API size_t VarIntSize(ULong value);

// Writes `value` at `out`, which has room for `capacity` bytes. Returns the
// bytes written, or 0 (and writes nothing) when they do not fit.
QK_API size_t VarIntWrite(UByte *out, size_t capacity, ULong value);

// VarIntRead's general case, out of line.
QK_API size_t VarIntReadLong(const UByte *in, size_t available, ULong *value);

// Reads a number from at most `available` bytes at `in`. Returns the bytes
// read, or 0 when the number is cut short, takes more than 10 bytes, or
// does not fit in 64 bits; `*value` is then left alone. Numbers of one and
// two bytes, most of those in the trees' buffers, are read inline.
inline size_t VarIntRead(const UByte *in, size_t available, ULong *value) {
    if (available > 0 && !(in[0] & 1)) {
        *value = in[0] >> 1;
        return 1;
    }
    if (available > 1 && !(in[1] & 1)) {
        *value = (ULong)(in[0] >> 1) | (ULong)(in[1] >> 1) << 7;
        return 2;
    }
    return VarIntReadLong(in, available, value);
}

// The same for numbers known to be whole and no wider than 32 bits, as in
// memory that this process wrote itself: no bounds, no checks.
inline UInt VarIntReadTrusted32(const UByte *in, size_t *length) {
    UInt value = 0;
    size_t i = 0;
    UInt shift = 0;
    for (;;) {
        UByte b = in[i++];
        value |= (UInt)(b >> 1) << shift;
        if (!(b & 1)) break;
        shift += 7;
    }
    *length = i;
    return value;
}

}  // namespace qk
