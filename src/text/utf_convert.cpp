// Whole-text conversions between UTF-8 and UCS2. Both directions reserve
// the destination once, then copy runs of ASCII sixteen bytes (eight units)
// at a time and decode or encode the other characters one by one.
#include <string.h>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "qk/unicode.h"
#include "text/utf.h"

using namespace qk::text;

namespace {

// Decodes one multi-byte sequence at p (p < end, *p >= 0x80) into *out.
// False on a malformed sequence, p and out unmoved.
inline bool DecodeMultiByte(const UByte *&p, const UByte *end, UShort *out) {
    UInt b0 = p[0];
    if (b0 >= 0xC2 && b0 < 0xE0) {
        if (end - p < 2) return false;
        UInt b1 = p[1] ^ 0x80u;
        if (b1 > 0x3F) return false;
        *out = (UShort)(((b0 & 0x1Fu) << 6) | b1);
        p += 2;
        return true;
    }
    if (b0 >= 0xE0 && b0 < 0xF0) {
        if (end - p < 3) return false;
        UInt b1 = p[1] ^ 0x80u, b2 = p[2] ^ 0x80u;
        if ((b1 | b2) > 0x3F) return false;
        UInt c = ((b0 & 0x0Fu) << 12) | (b1 << 6) | b2;
        if (c < 0x800) return false;
        *out = (UShort)c;
        p += 3;
        return true;
    }
    return false;
}

// Decodes [p, end) to out, which has room for end - p units. Returns the
// position after the last unit written; `ok` false when it stopped at a
// malformed sequence.
UShort *DecodeText(const UByte *p, const UByte *end, UShort *out, bool &ok) {
#if defined(__SSE2__)
    const __m128i zero = _mm_setzero_si128();
    while (end - p >= 16) {
        __m128i bytes = _mm_loadu_si128((const __m128i *)p);
        // Sixteen units are stored whatever the count of ASCII bytes: out has
        // room for them, since it never runs ahead of p.
        _mm_storeu_si128((__m128i *)out, _mm_unpacklo_epi8(bytes, zero));
        _mm_storeu_si128((__m128i *)(out + 8), _mm_unpackhi_epi8(bytes, zero));
        unsigned high = (unsigned)_mm_movemask_epi8(bytes);
        if (high == 0) {
            p += 16;
            out += 16;
            continue;
        }
        unsigned ascii = (unsigned)__builtin_ctz(high);
        p += ascii;
        out += ascii;
        do {
            if (!DecodeMultiByte(p, end, out)) {
                ok = false;
                return out;
            }
            out++;
        } while (p < end && *p >= 0x80);
    }
#else
    while (end - p >= 8) {
        ULong word;
        memcpy(&word, p, 8);
        if ((word & 0x8080808080808080ull) == 0) {
            for (int i = 0; i < 8; i++) out[i] = p[i];
            p += 8;
            out += 8;
            continue;
        }
        while (*p < 0x80) *out++ = *p++;
        do {
            if (!DecodeMultiByte(p, end, out)) {
                ok = false;
                return out;
            }
            out++;
        } while (p < end && *p >= 0x80);
    }
#endif
    while (p < end) {
        if (*p < 0x80) {
            *out++ = *p++;
        } else if (DecodeMultiByte(p, end, out)) {
            out++;
        } else {
            ok = false;
            return out;
        }
    }
    ok = true;
    return out;
}

inline UByte *EncodeNonASCII(UByte *d, UInt c) {
    if (c < 0x800) {
        d[0] = (UByte)(0xC0 | (c >> 6));
        d[1] = (UByte)(0x80 | (c & 0x3F));
        return d + 2;
    }
    d[0] = (UByte)(0xE0 | (c >> 12));
    d[1] = (UByte)(0x80 | ((c >> 6) & 0x3F));
    d[2] = (UByte)(0x80 | (c & 0x3F));
    return d + 3;
}

#if defined(__SSE2__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
// Encodes one unit of any length without branches: the three forms are
// computed, one is chosen, and four bytes are stored. d must have room for
// four bytes.
inline UByte *EncodeAny(UByte *d, UInt c) {
    UInt two = 0x80C0u | (c >> 6) | ((c & 0x3F) << 8);
    UInt three = 0x8080E0u | (c >> 12) | (((c >> 6) & 0x3F) << 8) | ((c & 0x3F) << 16);
    UInt bytes = c < 0x80 ? c : two;
    bytes = c < 0x800 ? bytes : three;
    memcpy(d, &bytes, 4);
    return d + 1 + (c >= 0x80) + (c >= 0x800);
}
#endif

// Encodes [p, end) to out, which has room for three bytes a unit and one
// more.
UByte *EncodeText(const UShort *p, const UShort *end, UByte *out) {
#if defined(__SSE2__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    const __m128i highBits = _mm_set1_epi16((short)0xFF80);
    const __m128i zero = _mm_setzero_si128();
    // Blocks of eight units: all ASCII packed at once, any other encoded
    // unit by unit without branches. The stores beyond the written bytes
    // stay within the room of the units that remain.
    while (end - p >= 8) {
        __m128i units = _mm_loadu_si128((const __m128i *)p);
        __m128i isASCII = _mm_cmpeq_epi16(_mm_and_si128(units, highBits), zero);
        if (_mm_movemask_epi8(isASCII) == 0xFFFF) {
            _mm_storel_epi64((__m128i *)out, _mm_packus_epi16(units, units));
            out += 8;
        } else {
            for (int i = 0; i < 8; i++) out = EncodeAny(out, p[i]);
        }
        p += 8;
    }
#endif
    while (p < end) {
        UInt c = *p++;
        if (c < 0x80)
            *out++ = (UByte)c;
        else
            out = EncodeNonASCII(out, c);
    }
    return out;
}

}  // namespace

extern "C" {

int UTFPtrToUCS2String(const UByte *data, UInt length, UShortArray *destination, int append) {
    if (!append) destination->length = 0;
    if (length == 0) return 1;
    // A byte gives at most one unit.
    Reserve(destination, (ULong)destination->length + length);
    bool ok;
    UShort *end = DecodeText(data, data + length, destination->data + destination->length, ok);
    destination->length = (UInt)(end - destination->data);
    return ok;
}

int UTFStringToUCS2String(const ByteArray *string, UShortArray *destination, int append) {
    return UTFPtrToUCS2String(string->data, string->length, destination, append);
}

int UCS2PtrAppendToUTFString(const UShort *data, UInt length, ByteArray *destination) {
    // A unit gives at most three bytes, and the terminator follows.
    Reserve(destination, (ULong)destination->length + 3 * (ULong)length + 1);
    UByte *end = EncodeText(data, data + length, destination->data + destination->length);
    destination->length = (UInt)(end - destination->data);
    *end = 0;
    return 1;
}

int UCS2PtrToUTFString(const UShort *data, UInt length, ByteArray *destination) {
    destination->length = 0;
    return UCS2PtrAppendToUTFString(data, length, destination);
}

int UCS2StringAppendToUTFString(const UShortArray *string, ByteArray *destination) {
    return UCS2PtrAppendToUTFString(string->data, string->length, destination);
}

}  // extern "C"
