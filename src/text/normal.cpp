// Normal form: full decomposition without combining marks, lowered. The
// character-level operation, and the text operations built on it.
#include "qk/normal.h"

#include "qk/frame.h"
#include "qk/unicode.h"
#include "text/tables.h"
#include "text/utf.h"

using namespace qk::text;

namespace qk::text {

namespace {

inline UShort MapCode(UInt code) {
    return code > 0xFFFF ? 0xFFFD : ToLower(code);
}

}  // namespace

UInt NormalForm(UInt code, UShort *out) {
    const UInt *d = Decomposition(code);
    if (!d) {
        out[0] = MapCode(code);
        return 1;
    }
    UInt n = 0;
    for (; *d; d++) {
        if (!IsMark(*d)) out[n++] = MapCode(*d);
    }
    return n;
}

}  // namespace qk::text

namespace {

// Appends the normal form of a UCS2 text, without terminator.
void AppendNormalUnits(UShortArray *array, const UShort *data, UInt length) {
    for (UInt i = 0; i < length; i++) {
        Reserve(array, (ULong)array->length + kNormalBufferLength);
        array->length += NormalForm(data[i], array->data + array->length);
    }
}

void TerminateUnits(UShortArray *array) {
    Reserve(array, (ULong)array->length + 1);
    array->data[array->length] = 0;
}

void AppendNormalUTF(ByteArray *array, UInt code) {
    UShort units[kNormalBufferLength];
    UInt n = NormalForm(code, units);
    for (UInt i = 0; i < n; i++) AppendUTF8(array, units[i]);
}

// The normal form of a UTF text as a stream of units, for comparison.
class NormalStream {
  public:
    NormalStream(const UByte *data, UInt length) : p_(data), end_(data + length) {}

    // The next unit, or -1 at the end of the text.
    Int Next() {
        constexpr int FALSE = 0;
        while (position_ == count_) {
            Int c = DecodeUTF8(p_, end_);
            if (c == READ_EOF) return -1;
            if (c < 0) qkassert(FALSE);
            count_ = NormalForm((UInt)c, units_);
            position_ = 0;
        }
        return units_[position_++];
    }

  private:
    const UByte *p_, *end_;
    UShort units_[kNormalBufferLength];
    UInt position_ = 0, count_ = 0;
};

}  // namespace

extern "C" {

void C2UToNormal(UShortArray *array, UInt code) {
    Reserve(array, (ULong)array->length + kNormalBufferLength + 1);
    array->length += NormalForm(code, array->data + array->length);
    array->data[array->length] = 0;
}

void C2UToNormalUTF(ByteArray *array, UInt code) {
    AppendNormalUTF(array, code);
    TerminateUTF8(array);
}

void C2UToNormalString(UShortArray *array, const UShortArray *string) {
    AppendNormalUnits(array, string->data, string->length);
    TerminateUnits(array);
}

void UCS2CharNormalize(UShort character, UShortArray *destination, int append) {
    if (!append) destination->length = 0;
    C2UToNormal(destination, character);
}

void UCS2CharNormalizeToUTF(UShort character, ByteArray *destination, int append) {
    if (!append) destination->length = 0;
    C2UToNormalUTF(destination, character);
}

int UTFPtrNormalize(const UByte *data, UInt length, ByteArray *destination, int append) {
    if (!append) destination->length = 0;
    const UByte *p = data, *end = data + length;
    Int c;
    while ((c = DecodeUTF8(p, end)) >= 0) AppendNormalUTF(destination, (UInt)c);
    TerminateUTF8(destination);
    return c == READ_EOF;
}

int UTFStringNormalize(const ByteArray *string, ByteArray *destination, int append) {
    return UTFPtrNormalize(string->data, string->length, destination, append);
}

int UTFPtrNormalizeToUCS2String(const UByte *data, UInt length, UShortArray *destination,
                                int append) {
    if (!append) destination->length = 0;
    const UByte *p = data, *end = data + length;
    Int c;
    while ((c = DecodeUTF8(p, end)) >= 0) {
        Reserve(destination, (ULong)destination->length + kNormalBufferLength);
        destination->length += NormalForm((UInt)c, destination->data + destination->length);
    }
    TerminateUnits(destination);
    return c == READ_EOF;
}

int UCS2PtrNormalize(const UShort *data, UInt length, UShortArray *destination, int append) {
    if (!append) destination->length = 0;
    AppendNormalUnits(destination, data, length);
    TerminateUnits(destination);
    return 1;
}

int UCS2StringNormalize(const UShortArray *string, UShortArray *destination, int append) {
    return UCS2PtrNormalize(string->data, string->length, destination, append);
}

int UTFPtrNormCompare(const UByte *a, UInt aLength, const UByte *b, UInt bLength) {
    NormalStream sa(a, aLength), sb(b, bLength);
    for (;;) {
        Int ua = sa.Next(), ub = sb.Next();
        if (ua != ub) return 0;
        if (ua < 0) return 1;
    }
}

}  // extern "C"
