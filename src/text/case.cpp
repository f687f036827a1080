// Case mapping of texts, character by character, through the case tables.
// A character's case mapping is always one character.
#include <string.h>

#include "qk/unicode.h"
#include "text/tables.h"
#include "text/utf.h"

using namespace qk::text;

namespace {

using MapFn = UShort (*)(UInt);

// Maps a UTF text into a UTF string; stops at a malformed sequence, keeping
// the output of what came before it.
template <MapFn Map>
int MapUTF(const UByte *data, UInt length, ByteArray *destination, int append) {
    if (!append) destination->length = 0;
    const UByte *p = data, *end = data + length;
    int ok = 1;
    for (;;) {
        Int c = DecodeUTF8(p, end);
        if (c < 0) {
            ok = c == READ_EOF;
            break;
        }
        AppendUTF8(destination, Map((UInt)c));
    }
    TerminateUTF8(destination);
    return ok;
}

}  // namespace

extern "C" {

UShort UCS2CharToLower(UShort character) {
    return ToLower(character);
}

UShort UCS2CharToUpper(UShort character) {
    return ToUpper(character);
}

int UCS2PtrUTFLowercase(const UShort *data, UInt length, ByteArray *destination) {
    destination->length = 0;
    for (UInt i = 0; i < length; i++) AppendUTF8(destination, ToLower(data[i]));
    TerminateUTF8(destination);
    return 1;
}

int UTFPtrLowercase(const UByte *data, UInt length, ByteArray *destination, int append) {
    return MapUTF<ToLower>(data, length, destination, append);
}

int UTFStringLowercase(const ByteArray *string, ByteArray *destination, int append) {
    return MapUTF<ToLower>(string->data, string->length, destination, append);
}

int UTFStringToUpper(const ByteArray *string, ByteArray *destination, int append) {
    return MapUTF<ToUpper>(string->data, string->length, destination, append);
}

int UTFStringFirstCapitalize(const ByteArray *string, ByteArray *destination, int append) {
    if (!append) destination->length = 0;
    const UByte *p = string->data, *end = p + string->length;
    Int c = DecodeUTF8(p, end);
    int ok = c != READ_MALFORMED;
    if (c >= 0) {
        AppendUTF8(destination, ToUpper((UInt)c));
        // The rest is copied as it is.
        UInt rest = (UInt)(end - p);
        Reserve(destination, (ULong)destination->length + rest + 1);
        if (rest) memcpy(destination->data + destination->length, p, rest);
        destination->length += rest;
    }
    TerminateUTF8(destination);
    return ok;
}

int UCS2PtrLowercase(const UShort *data, UInt length, UShortArray *destination, int append) {
    if (!append) destination->length = 0;
    Reserve(destination, (ULong)destination->length + length);
    UShort *out = destination->data + destination->length;
    for (UInt i = 0; i < length; i++) out[i] = ToLower(data[i]);
    destination->length += length;
    return 1;
}

int UCS2StringLowercase(const UShortArray *string, UShortArray *destination, int append) {
    return UCS2PtrLowercase(string->data, string->length, destination, append);
}

int UTFStringLowerToAnyCompare(const UByte *lower, UInt lowerLength, const UByte *any,
                               UInt anyLength) {
    const UByte *p0 = lower, *end0 = lower + lowerLength;
    const UByte *p1 = any, *end1 = any + anyLength;
    for (;;) {
        Int c0 = ReadUTF8(&p0, end0);
        Int c1 = ReadUTF8(&p1, end1);
        if (c0 < 0) {
            qkassert(c0 == READ_EOF);
            if (c1 < 0) qkassert(c1 == READ_EOF);
            return c1 == READ_EOF;
        }
        if (c1 < 0) {
            qkassert(c1 == READ_EOF);
            return 0;
        }
        if ((UInt)c0 != ToLower((UInt)c1)) return 0;
    }
}

}  // extern "C"
