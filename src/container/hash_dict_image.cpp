// The HashDict image and its memory forms.
//
// Image, little-endian with fixed widths:
//
//   0  4  number of keys n            16  8  bytes of the byte map (512)
//   4  4  number of vertices m        24  8  bytes of the random table
//   8  2  longest key                 32  8  bytes of the values
//  10  2  bits of a value             40  8  bytes of the probes
//  12  2  size of the alphabet
//  14  2  probe bytes (0 to 8)
//  48     byte map: 256 signed 16-bit letter numbers, -1 for a byte in no key
//         random table: 32-bit numbers below m, by position, letter, 0 to 2
//         values: m + 1 numbers bit-packed from bit 0 of 64-bit words
//         probes: n groups of probe bytes
//
// The file form, which is also the memory form, puts the image's length in
// 8 bytes in front of it.
#include <string.h>

#include "container/hash_internal.h"

namespace qk::hash {

namespace {

int Malformed(const char *what) {
    QKErrorThrow(QK_ERR_FORMAT, QK_DOMAIN_GENERAL, "bad format: hash dictionary %s", what);
    return 0;
}

// Appends `width` bytes of `p`, reversed when `swapped`.
void AppendElement(ByteArray *out, const UByte *p, UInt width, bool swapped) {
    UByte *q = out->data + out->length;
    for (UInt i = 0; i < width; i++) q[i] = swapped ? p[width - 1 - i] : p[i];
    out->length += width;
}

void AppendElements(ByteArray *out, const UByte *p, ULong bytes, UInt width, bool swapped) {
    if (!swapped || width <= 1) {
        ArrayAppend(*out, p, (UInt)bytes);
        return;
    }
    for (ULong i = 0; i < bytes; i += width) AppendElement(out, p + i, width, true);
}

}  // namespace

HashDict *DictNewHandle(DictKind kind) {
    HashDict *hdict = (HashDict *)Allocate(sizeof(HashDict), NULL);
    memset(hdict, 0, sizeof *hdict);
    hdict->h_kind = kind;
    return hdict;
}

int DictDecode(HashDict *hdict, const UByte *image, size_t size) {
    if (size < kDictHeaderSize) return Malformed("shorter than its header");
    UInt n = LoadLE32(image);
    UInt m = LoadLE32(image + 4);
    UInt longest = LoadLE16(image + 8);
    UInt width = LoadLE16(image + 10);
    UInt alphabet = LoadLE16(image + 12);
    UInt probeBytes = LoadLE16(image + 14);
    ULong mapSize = LoadLE64(image + 16);
    ULong randomSize = LoadLE64(image + 24);
    ULong valuesSize = LoadLE64(image + 32);
    ULong probesSize = LoadLE64(image + 40);
    if (m < 5 || m > kDictMaxVertices || n >= m) return Malformed("vertices");
    if (width < 1 || width > 32 || alphabet > 256 || probeBytes > kDictMaxProbe)
        return Malformed("parameters");
    if (mapSize != kDictMapSize || randomSize != (ULong)alphabet * 3 * longest * 4 ||
        valuesSize != PackedSize((ULong)m + 1, width) || probesSize != (ULong)n * probeBytes)
        return Malformed("section sizes");
    ULong total = kDictHeaderSize + mapSize + randomSize + valuesSize + probesSize;
    if (total > size) return Malformed("shorter than its sections");

    // Letters are numbered by byte value.
    const UByte *map = image + kDictHeaderSize;
    int letters = 0;
    for (UInt b = 0; b < 256; b++) {
        int letter = (short)LoadLE16(map + 2 * b);
        if (letter != -1 && letter != letters) return Malformed("byte map");
        if (letter != -1) letters++;
        hdict->h_map[b] = (short)letter;
    }
    if ((UInt)letters != alphabet) return Malformed("byte map");
    const UByte *random = map + mapSize;
    for (ULong i = 0; i < randomSize; i += 4) {
        if (LoadLE32(random + i) >= m) return Malformed("random table");
    }
    hdict->h_image = image;
    hdict->h_imageSize = (size_t)total;
    hdict->h_n = n;
    hdict->h_m = m;
    hdict->h_longest = longest;
    hdict->h_width = width;
    hdict->h_alphabet = alphabet;
    hdict->h_probeBytes = probeBytes;
    hdict->h_random = random;
    hdict->h_values = random + randomSize;
    hdict->h_probes = hdict->h_values + valuesSize;
    for (UInt k = 0; k < 3; k++) hdict->h_magic[k] = FastModMagic(m - k);
    return 1;
}

int DictDecodeFileForm(HashDict *hdict, const UByte *data, size_t size) {
    if (size < HASHDICT_LENGTH_SIZE) return Malformed("length missing");
    ULong length = LoadLE64(data);
    if (length > size - HASHDICT_LENGTH_SIZE) return Malformed("longer than its memory");
    return DictDecode(hdict, data + HASHDICT_LENGTH_SIZE, (size_t)length);
}

void DictAppendFileForm(const HashDict *hdict, ByteArray *out, bool swapped) {
    ULong size = hdict->h_imageSize;
    ArrayEnsure(*out, out->length + HASHDICT_LENGTH_SIZE + size);
    UByte length[8];
    StoreLE(length, size, 8);
    AppendElement(out, length, 8, swapped);
    const UByte *p = hdict->h_image;
    static const UByte kHeaderWidths[] = {4, 4, 2, 2, 2, 2, 8, 8, 8, 8};
    for (UByte width : kHeaderWidths) {
        AppendElement(out, p, width, swapped);
        p += width;
    }
    AppendElements(out, p, kDictMapSize, 2, swapped);
    p += kDictMapSize;
    ULong randomSize = (ULong)hdict->h_alphabet * 3 * hdict->h_longest * 4;
    AppendElements(out, p, randomSize, 4, swapped);
    p += randomSize;
    ULong valuesSize = PackedSize((ULong)hdict->h_m + 1, hdict->h_width);
    AppendElements(out, p, valuesSize, 8, swapped);
    p += valuesSize;
    AppendElements(out, p, (ULong)hdict->h_n * hdict->h_probeBytes, hdict->h_probeBytes, swapped);
}

}  // namespace qk::hash

using namespace qk::hash;

extern "C" {

QK_API UInt HashDictSize(const HashDict *hdict) {
    return hdict->h_n;
}

QK_API UInt HashDictMaxLength(const HashDict *hdict) {
    return hdict->h_longest;
}

QK_API const void *HashDictImage(const HashDict *hdict, size_t *size) {
    if (size) *size = hdict->h_imageSize;
    return hdict->h_image;
}

QK_API ULong HashDictFileSize(const HashDict *hdict) {
    return HASHDICT_LENGTH_SIZE + (ULong)hdict->h_imageSize;
}

QK_API void HashDictFree(HashDict *hdict) {
    if (!hdict) return;
    qkassert(hdict->h_kind == DictKind::kOwned);
    UnAllocate((void *)hdict->h_image);
    UnAllocate(hdict);
}

QK_API void HashDictMMFree(HashDict *hdict) {
    if (!hdict) return;
    qkassert(hdict->h_kind == DictKind::kInPlace);
    UnAllocate(hdict);
}

QK_API void HashDictMemClose(HashDict *hdict) {
    if (!hdict) return;
    switch (hdict->h_kind) {
        case DictKind::kOwned:
            HashDictFree(hdict);
            break;
        case DictKind::kInPlace:
            HashDictMMFree(hdict);
            break;
        case DictKind::kMapped:
            HashDictClose(hdict);
            break;
    }
}

QK_API void HashDictMMWrite(const HashDict *hdict, ByteArray *out) {
    while (out->length % 8) ArrayAdd(*out, 0);
    DictAppendFileForm(hdict, out, false);
}

QK_API void HashDictMMWriteSwapped(const HashDict *hdict, ByteArray *out) {
    while (out->length % 8) ArrayAdd(*out, 0);
    DictAppendFileForm(hdict, out, true);
}

QK_API HashDict *HashDictMMRead(const void *base, size_t *offset, size_t size) {
    size_t start = (*offset + 7) & ~(size_t)7;
    if (*offset > size || start > size) {
        Malformed("past the end of its memory");
        return NULL;
    }
    HashDict *hdict = DictNewHandle(DictKind::kInPlace);
    if (!DictDecodeFileForm(hdict, (const UByte *)base + start, size - start)) {
        UnAllocate(hdict);
        return NULL;
    }
    *offset = start + HASHDICT_LENGTH_SIZE + LoadLE64((const UByte *)base + start);
    return hdict;
}

}  // extern "C"
