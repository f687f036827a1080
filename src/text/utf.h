// Inline UTF-8 decoding and encoding, and the growth of destination arrays,
// shared by the conversions of the text subsystem.
#pragma once

#include "qk/array.h"
#include "qk/frame.h"
#include "qk/unicode.h"

namespace qk::text {

// ReadUTF8 with the cursor by reference. On a malformed sequence the cursor
// is left within the sequence, never past the byte that made it malformed.
inline Int DecodeUTF8(const UByte *&p, const UByte *end) {
    if (p >= end) return READ_EOF;
    UInt b0 = *p;
    if (b0 < 0x80) {
        p++;
        return (Int)b0;
    }
    // A continuation byte first, or a four-byte (or longer) lead: malformed.
    if (b0 < 0xC0 || b0 >= 0xF0) return READ_MALFORMED;
    if (end - p < 2 || (p[1] & 0xC0) != 0x80) {
        p++;
        return READ_MALFORMED;
    }
    UInt b1 = p[1] & 0x3Fu;
    if (b0 < 0xE0) {
        UInt c = ((b0 & 0x1Fu) << 6) | b1;
        if (c < 0x80) return READ_MALFORMED;
        p += 2;
        return (Int)c;
    }
    if (end - p < 3 || (p[2] & 0xC0) != 0x80) {
        p += 2;
        return READ_MALFORMED;
    }
    UInt c = ((b0 & 0x0Fu) << 12) | (b1 << 6) | (p[2] & 0x3Fu);
    if (c < 0x800) return READ_MALFORMED;
    p += 3;
    return (Int)c;
}

inline UByte *EncodeUTF8(UByte *d, UInt c) {
    if (c < 0x80) {
        *d++ = (UByte)c;
    } else if (c < 0x800) {
        *d++ = (UByte)(0xC0 | (c >> 6));
        *d++ = (UByte)(0x80 | (c & 0x3F));
    } else {
        *d++ = (UByte)(0xE0 | (c >> 12));
        *d++ = (UByte)(0x80 | ((c >> 6) & 0x3F));
        *d++ = (UByte)(0x80 | (c & 0x3F));
    }
    return d;
}

// Makes room for `count` elements in all, in one reallocation, keeping the
// arrays' growth by doubling from 4.
template <typename A>
inline void Reserve(A *a, ULong count) {
    if (count <= a->capacity) return;
    qkassert(count <= 0xFFFFFFFFu);
    ULong capacity = a->capacity ? a->capacity : 4;
    while (capacity < count) capacity *= 2;
    if (capacity > 0xFFFFFFFFu) capacity = count;
    ArrayGrowExact_(a, (UInt)capacity, sizeof(*a->data), __FILE__, __LINE__);
}

// Appends one character to a UTF string: room for three more bytes, one
// character written, the length set from the returned position. No
// terminator is written or counted.
inline void AppendUTF8(ByteArray *a, UInt c) {
    if (a->capacity < (ULong)a->length + 3) Reserve(a, (ULong)a->length + 3);
    a->length = (UInt)(EncodeUTF8(a->data + a->length, c) - a->data);
}

// Writes the terminator beyond the length of a UTF string.
inline void TerminateUTF8(ByteArray *a) {
    if (a->capacity < (ULong)a->length + 1) Reserve(a, (ULong)a->length + 1);
    a->data[a->length] = 0;
}

inline void AppendUnit(UShortArray *a, UShort c) {
    if (a->length == a->capacity) Reserve(a, (ULong)a->length + 1);
    a->data[a->length++] = c;
}

// The normal form of one code (normal.cpp): writes it to `out`, which has
// room for kNormalBufferLength units, and returns its length.
UInt NormalForm(UInt code, UShort *out);

}  // namespace qk::text
