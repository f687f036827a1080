// The operator's views of a database array: a check that walks every block
// and reports each inconsistency instead of stopping on it, and the bytes in
// use.
#include <trio.h>

#include "collection/dbarray_internal.h"

using namespace qk::dbarray;

namespace {

UInt ArrayAt(UIntHandle &array, UInt i, Int genID) {
    UInt upBound;
    const UInt *p = VMAArrayRange(array, i, &upBound, genID, 1);
    return p != nullptr && i < upBound ? *p : DBARRAY_NO_HANDLE;
}

UInt CheckBucket(DBArrayBucket &bucket, UInt index, Int genID) {
    UInt blocks = BlockCount(bucket, genID), faults = 0, handle = 0;
    trio_printf("bucketIndex = %d: blockCount = %d\n", (Int)index, (Int)blocks);
    if (blocks == 0) return 0;
    if (VMAArrayLength(bucket.firstHandle, genID) != blocks) {
        trio_printf("firstHandle has %u entries for %u blocks\n",
                    VMAArrayLength(bucket.firstHandle, genID), blocks);
        return 1;
    }
    std::vector<UInt> first(blocks);
    for (UInt b = 0; b < blocks; b++) {
        UInt size, count = 0;
        auto *base = (UByte *)VMABlockArrayGet_(bucket.data.arena, bucket.data.ids[genID], b, genID,
                                                1, &size);
        Block block;
        first[b] = ArrayAt(bucket.firstHandle, b, genID);
        if (!BlockOpen(base, size, &block)) {
            trio_printf("block %u: header does not fit in %u bytes\n", b, size);
            faults++;
        } else if (!BlockValid(block, &count) || count == 0) {
            trio_printf("block %u: elements or in-block index inconsistent\n", b);
            faults++;
        }
        if (first[b] != handle) {
            trio_printf("block %u: first handle %u, expected %u\n", b, first[b], handle);
            faults++;
        }
        handle += count;
    }
    UInt entries = VMAArrayLength(bucket.index, genID);
    if (entries != (handle + 63) / 64) {
        trio_printf("index has %u entries for %u handles\n", entries, handle);
        faults++;
    }
    for (UInt i = 0, b = 0; i < entries; i++) {
        while (b + 1 < blocks && first[b + 1] <= 64 * i) b++;
        UInt entry = ArrayAt(bucket.index, i, genID);
        if (entry != b) {
            trio_printf("index %u: block %u, expected %u\n", i, entry, b);
            faults++;
        }
    }
    return faults;
}

}  // namespace

extern "C" {

QK_API UInt DBArrayCheck(DBArray *array, Int genID) {
    UInt faults = 0;
    for (UInt b = 0; b < array->buckets.size(); b++)
        faults += CheckBucket(array->buckets[b], b, genID);
    trio_printf("Done !\n");
    return faults;
}

QK_API ULong DBArrayUsage(DBArray *array, Int genID, ULong *dataBytes) {
    ULong total = 0, data = 0;
    for (DBArrayBucket &bucket : array->buckets) {
        for (UInt b = 0, blocks = BlockCount(bucket, genID); b < blocks; b++) {
            Block block = BlockGet(bucket, b, genID, 1);
            total += block.size;
            data += block.dataSize;
        }
    }
    if (dataBytes != nullptr) *dataBytes = data;
    return total;
}

}  // extern "C"
