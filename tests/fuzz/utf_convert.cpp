// UTF-8 and UCS2 conversions both ways. The input read as UTF-8: the
// whole-text decoder and the one-character reader must agree up to the first
// malformed sequence, and valid text must count right, encode back to its
// own bytes and append behind other text. The input read as UCS2 units: the
// whole-text encoder must give what the one-character writer gives, and its
// output must decode to the same units.
#include <string.h>

#include <vector>

#include "fuzz_util.h"

namespace {

// memcmp that takes no pointer when there is nothing to compare.
bool Same(const void *a, const void *b, size_t bytes) {
    return bytes == 0 || memcmp(a, b, bytes) == 0;
}

void CheckUTF8(const UByte *data, UInt size) {
    UShortArray units = {};
    const bool valid = UTFPtrToUCS2String(data, size, &units, 0);
    const UByte *cursor = data;
    UInt count = 0;
    Int c;
    while ((c = ReadUTF8(&cursor, data + size)) >= 0) {
        FUZZ_CHECK(count < units.length && units.data[count] == c);
        count++;
    }
    FUZZ_CHECK(count == units.length && valid == (c == READ_EOF));
    FUZZ_CHECK(UTFPtrCharCount(data, size, &count) == valid);
    if (valid) {
        FUZZ_CHECK(count == units.length);
        ByteArray back = {};
        UCS2PtrToUTFString(units.data, units.length, &back);
        FUZZ_CHECK(back.length == size && Same(back.data, data, size));
        FUZZ_CHECK(back.data[size] == 0);
        ArrayFree(back);
    }
    // Appended behind a character of each length, the same units follow.
    static const UByte kPrefix[] = {'a', 0xC3, 0xA9, 0xE2, 0x82, 0xAC};
    UShortArray appended = {};
    UTFPtrToUCS2String(kPrefix, sizeof kPrefix, &appended, 0);
    FUZZ_CHECK(UTFPtrToUCS2String(data, size, &appended, 1) == valid && appended.length >= 3);
    FUZZ_CHECK(appended.length - 3 == units.length &&
               Same(appended.data + 3, units.data, units.length * sizeof(UShort)));
    ArrayFree(appended);
    ArrayFree(units);
}

void CheckUCS2(const UShort *units, UInt count) {
    ByteArray text = {};
    FUZZ_CHECK(UCS2PtrToUTFString(units, count, &text));
    std::vector<UByte> expected(3 * (size_t)count + 1);
    UByte *end = expected.data();
    for (UInt i = 0; i < count; i++) end = WriteUTF8(end, units[i]);
    const size_t length = (size_t)(end - expected.data());
    FUZZ_CHECK(text.length == length && Same(text.data, expected.data(), length));
    UShortArray back = {};
    FUZZ_CHECK(UTFPtrToUCS2String(text.data, text.length, &back, 0));
    FUZZ_CHECK(back.length == count && Same(back.data, units, count * sizeof(UShort)));
    ArrayFree(back);
    ArrayFree(text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    qkfuzz::Init();
    if (size > 1 << 20) return 0;
    CheckUTF8(data, (UInt)size);
    std::vector<UShort> units(size / 2 + 1);
    memcpy(units.data(), data, size / 2 * sizeof(UShort));
    CheckUCS2(units.data(), (UInt)(size / 2));
    return 0;
}
