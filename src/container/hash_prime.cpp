// The primes behind the slot counts, the default hash of the tables, and
// the memory of the tables: heap blocks, or anonymous mappings for tables
// made with `mapped`.
#include <string.h>

#include "container/hash_internal.h"

namespace qk::hash {

namespace {

#include "container/generated/primes.inc"

}  // namespace

UInt Prime(ULong n) {
    // The first entry at or above n.
    UInt low = 0, high = QK_PRIME_COUNT;
    while (low < high) {
        UInt middle = (low + high) / 2;
        if (kPrimes[middle] < n)
            low = middle + 1;
        else
            high = middle;
    }
    if (low == QK_PRIME_COUNT) QKFatal("Prime(): argument too large");
    return kPrimes[low];
}

bool IsTablePrime(ULong n) {
    if (n == 0 || n > kPrimes[QK_PRIME_COUNT - 1]) return false;
    return Prime(n) == n;
}

void *TableAllocate(size_t size, bool mapped) {
    if (!mapped) return Allocate(size ? size : 1, NULL);
    void *pointer = MemoryMap(size ? size : 1);
    if (pointer == NULL) QKFatal(":hashtable: memory allocation failed: size=%I64u", (ULong)size);
    return pointer;
}

void *TableReallocate(void *pointer, size_t oldSize, size_t newSize, bool mapped) {
    if (!mapped) return Allocate(newSize ? newSize : 1, pointer);
    void *result = MemoryRemap(pointer, oldSize ? oldSize : 1, newSize ? newSize : 1);
    if (result == NULL)
        QKFatal(":hashtable: memory reallocation failed: size=%I64u", (ULong)newSize);
    return result;
}

void TableDeallocate(void *pointer, size_t size, bool mapped) {
    if (pointer == NULL) return;
    if (!mapped) {
        UnAllocate(pointer);
    } else if (!MemoryUnmap(pointer, size ? size : 1)) {
        QKFatal(":hashtable: memory deallocation failed: size=%I64u", (ULong)size);
    }
}

}  // namespace qk::hash

namespace {

// Powers of 257 modulo 2^32.
constexpr UInt Power257(int k) {
    return k == 0 ? 1u : 257u * Power257(k - 1);
}

}  // namespace

// The sum of byte[i] * 257^i. Blocks of eight bytes, from the last, take the
// hash times 257^8 and add their own sum, whose eight products do not wait
// on each other.
extern "C" QK_API UInt HashBytes(const void *bytes, UInt size) {
    const UByte *p = (const UByte *)bytes;
    UInt hash = 0;
    UInt head = size % 8;
    for (UInt end = size; end > head; end -= 8) {
        const UByte *b = p + end - 8;
        UInt block = b[0] + b[1] * Power257(1) + b[2] * Power257(2) + b[3] * Power257(3) +
                     b[4] * Power257(4) + b[5] * Power257(5) + b[6] * Power257(6) +
                     b[7] * Power257(7);
        hash = hash * Power257(8) + block;
    }
    while (head > 0) hash = hash * 257 + p[--head];
    return hash;
}
