// Private interfaces of the hash tables and dictionaries.
#pragma once

#include <string.h>

#include "frame/endian.h"
#include "qk/qkcommon.h"

namespace qk::hash {

// Files that say `using namespace qk::hash` see the codec too.
using qk::LoadLE16;
using qk::LoadLE32;
using qk::LoadLE64;
using qk::StoreLE;

// x modulo d for a 32-bit x, with magic = 2^64 / d rounded up (d >= 1):
// two multiplications instead of a division.
inline UInt FastMod(UInt x, UInt d, ULong magic) {
    ULong low = magic * x;
    return (UInt)(((unsigned __int128)low * d) >> 64);
}
inline ULong FastModMagic(UInt d) {
    return ~(ULong)0 / d + 1;
}

// ---- Primes ----

// The smallest prime of the table at or above `n`; beyond the table, fatal
// "Prime(): argument too large".
UInt Prime(ULong n);
// True when `n` is one of the table's primes.
bool IsTablePrime(ULong n);

// ---- Memory of the tables: heap, or anonymous mappings when `mapped` ----

void *TableAllocate(size_t size, bool mapped);
void *TableReallocate(void *pointer, size_t oldSize, size_t newSize, bool mapped);
void TableDeallocate(void *pointer, size_t size, bool mapped);

// ---- The table core, shared by HashTable (`del` false: linear probing,
// no removal) and HashDelTable (`del` true: double hashing, removal). ----

void TableInit(HashTable *t, UInt capacity, HashTableHashFn hash, void *userData,
               HashTableCompareFn compare, UInt keyOffset, UInt lengthWidth, int mapped);
// Frees the memory of the table, not the object.
void TableRelease(HashTable *t);
void TableClear(HashTable *t);
void TableCopy(HashTable *target, const HashTable *source);

// The key of the entry at `offset`, and its size.
const UByte *TableEntryKey(const HashTable *t, UInt offset, UInt *size);
// The size in bytes of the entry at `offset`.
UInt TableEntrySize(const HashTable *t, UInt offset);

void *TableFind(HashTable *t, UInt *deleted, const void *key, UInt size, const void *entry,
                int *found, void *hashArg);
int TableRemove(HashTable *t, UInt *deleted, const void *key, UInt size, void *hashArg);
void TableGrow(HashTable *t, UInt *deleted, double factor, void *hashArg);

// The offsets of the live entries at or after `offset`, in order of
// insertion, appended to `out`.
void TableLiveOffsets(const HashTable *t, bool del, UInt offset, UIntArray *out);
// Removed slots of a HashDelTable become empty; live entries stay put.
void ClearRemovedSlots(HashTable *t, UInt *deleted, void *hashArg);
int TableEnumerate(HashTable *t, bool del, UInt offset, HashTableCallback callback, void *userData);
UInt TableSelect(HashTable *t, bool del, UInt offset, HashTablePredicate predicate, void *userData,
                 UIntArray *array);
void TableSort(HashTable *t, HashTableSortFn compare, UIntArray *entries);
void *TableGetIndex(const HashTable *t, UInt index);

// The serial form: appended to `out`; read from memory (the bytes read, or
// 0 with the error state set and `t` unchanged); with `exact`, the form must
// take all `size` bytes.
void TableSerialize(const HashTable *t, ByteArray *out);
size_t TableDeserialize(HashTable *t, UInt *deleted, const UByte *data, size_t size, bool exact);

// ---- HashDict ----

enum class DictKind : UByte {
    kOwned,    // holds its image in heap memory (built or read)
    kInPlace,  // reads memory of the caller's (HashDictMMRead)
    kMapped,   // reads a mapped file (HashDictOpen)
};

// Header fields of an image.
constexpr size_t kDictHeaderSize = HASHDICT_HEADER_SIZE;
constexpr size_t kDictMapSize = 256 * 2;
constexpr UInt kDictMaxProbe = 8;
constexpr UInt kDictMaxLength = 0xFFFF;
// The most vertices a dictionary may have: sums of two vertex numbers must
// stay within 32 bits.
constexpr ULong kDictMaxVertices = 0x7FFFFFFF;

// The size in bytes of `count` numbers bit-packed at `width` bits into
// 64-bit words.
inline ULong PackedSize(ULong count, UInt width) {
    return (count * width + 63) / 64 * 8;
}

// The number packed at index `i`.
inline UInt PackedGet(const UByte *words, ULong i, UInt width) {
    ULong bit = i * width;
    const UByte *word = words + (bit >> 6) * 8;
    UInt shift = (UInt)(bit & 63);
    ULong value = LoadLE64(word) >> shift;
    if (shift + width > 64) value |= LoadLE64(word + 8) << (64 - shift);
    return (UInt)(value & (((ULong)1 << width) - 1));
}

}  // namespace qk::hash

// Layout of a dictionary handle. Every pointer points into the image.
struct HashDict {
    const UByte *h_image;  // the 48-byte header, then the sections
    size_t h_imageSize;
    UInt h_n;         // keys
    UInt h_m;         // vertices
    UInt h_longest;   // longest key
    UInt h_width;     // bits of a value
    UInt h_alphabet;  // distinct bytes of the keys
    UInt h_probeBytes;
    short h_map[256];  // letter number of each byte, -1 when in no key
    const UByte *h_random;
    const UByte *h_values;
    const UByte *h_probes;
    ULong h_magic[3];  // for reductions modulo m, m - 1 and m - 2
    qk::hash::DictKind h_kind;
    int h_created;   // made by HashDictBuild
    void *h_file;    // the mapped file of HashDictOpen
    UInt h_retries;  // random tables tried in vain by the build
};

namespace qk::hash {

// The three distinct vertices (1 to m) of a key, or false when the key is
// longer than the longest or has a byte that no key has. The sums of the
// random numbers run modulo m, m - 1 and m - 2 (reduced once at the end,
// which gives what reducing at each step would); the second and third
// vertices are offsets from the first, so that the three never meet.
inline bool DictVertices(const HashDict *hdict, const UByte *bytes, UInt size, UInt v[3]) {
    if (size > hdict->h_longest) return false;
    const size_t stride = (size_t)hdict->h_alphabet * 12;
    const UByte *row = hdict->h_random;
    ULong a0 = 0, a1 = 0, a2 = 0;
    for (UInt i = 0; i < size; i++, row += stride) {
        int letter = hdict->h_map[bytes[i]];
        if (letter < 0) return false;
        const UByte *t = row + (size_t)letter * 12;
        a0 += LoadLE32(t);
        a1 += LoadLE32(t + 4);
        a2 += LoadLE32(t + 8);
    }
    const UInt m = hdict->h_m;
    UInt s0, s1, s2;
    if ((a0 | a1 | a2) >> 32 == 0) {
        s0 = FastMod((UInt)a0, m, hdict->h_magic[0]);
        s1 = FastMod((UInt)a1, m - 1, hdict->h_magic[1]);
        s2 = FastMod((UInt)a2, m - 2, hdict->h_magic[2]);
    } else {
        s0 = (UInt)(a0 % m);
        s1 = (UInt)(a1 % (m - 1));
        s2 = (UInt)(a2 % (m - 2));
    }
    v[0] = s0 + 1;
    UInt u = s1 + s0 + 1;
    v[1] = (u >= m ? u - m : u) + 1;
    UInt w = s2 + s0 + 1;
    if (w >= u) w++;
    v[2] = (w >= m ? w - m : w) + 1;
    return true;
}

// The probe of a key: p = p * 257 + byte over all its bytes, kept to
// `probeBytes` bytes.
inline ULong DictProbe(const UByte *bytes, UInt size, UInt probeBytes) {
    ULong mask = probeBytes >= 8 ? ~(ULong)0 : ((ULong)1 << (8 * probeBytes)) - 1;
    ULong p = 0;
    for (UInt i = 0; i < size; i++) p = (p * 257 + bytes[i]) & mask;
    return p;
}

// A handle of the given kind, all fields zero.
HashDict *DictNewHandle(DictKind kind);
// Checks an image of `size` bytes and fills `hdict`'s fields from it. 1, or
// 0 with (3, 2) thrown.
int DictDecode(HashDict *hdict, const UByte *image, size_t size);
// Reads the file form at `data` (an 8-byte length, then the image) within
// `size` bytes. 1, or 0 with (3, 2) thrown.
int DictDecodeFileForm(HashDict *hdict, const UByte *data, size_t size);
// Appends the file form to `out`, each element's bytes reversed with
// `swapped`.
void DictAppendFileForm(const HashDict *hdict, ByteArray *out, bool swapped);

// The number of failed tries after which a build tries once more and then
// gives up: 1000 by default, so that the 1001st failure ends it. Tests lower
// it. Returns the previous number.
QK_API UInt HashDictSetRetryLimit(UInt retries);

}  // namespace qk::hash
