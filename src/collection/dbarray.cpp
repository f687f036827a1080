// Opening a database array, and the reads of its buckets: sizes, the block
// of a handle, an element's bytes.
#include <stdio.h>
#include <string.h>

#include "collection/dbarray_internal.h"
#include "collection/path.h"
#include "qk/frame.h"

using namespace qk::dbarray;

namespace qk::dbarray {

DBArrayBucket &BucketOf(DBArray *array, UInt bucket) {
    qkassert(bucket < array->buckets.size());
    return array->buckets[bucket];
}

UInt BlockCount(DBArrayBucket &bucket, Int genID) {
    if (!VMAArrayExists(bucket.data, genID)) return 0;
    return VMABlockArrayBlockCount_(bucket.data.arena, bucket.data.ids[genID], genID);
}

Block BlockGet(DBArrayBucket &bucket, UInt b, Int genID, int read) {
    UInt size;
    auto *base = (UByte *)VMABlockArrayGet_(bucket.data.arena, bucket.data.ids[genID], b, genID,
                                            read, &size);
    Block block;
    DB_CHECK(bucket, BlockOpen(base, size, &block),
             "(indexSize * sizeof(UShort) + dataSize + HEADER_SIZE) <= blockSize");
    return block;
}

Block BlockFresh(DBArrayBucket &bucket, UInt b) {
    UInt size;
    auto *base =
        (UByte *)VMABlockArrayGet_(bucket.data.arena, bucket.data.ids[NEWGEN], b, NEWGEN, 0, &size);
    DB_CHECK(bucket, base != nullptr, "block != NULL");
    return {base, size, 0, 0};
}

UInt FirstHandle(DBArrayBucket &bucket, UInt b, Int genID) {
    UInt upBound;
    const UInt *p = VMAArrayRange(bucket.firstHandle, b, &upBound, genID, 1);
    DB_CHECK(bucket, p != nullptr && b < upBound, "block < firstHandleLength");
    return *p;
}

void FirstHandleSet(DBArrayBucket &bucket, UInt b, UInt handle) {
    UInt upBound;
    UInt *p = VMAArrayRange(bucket.firstHandle, b, &upBound, NEWGEN, 0);
    DB_CHECK(bucket, p != nullptr, "block < firstHandleLength");
    *p = handle;
}

UInt BucketSize(DBArrayBucket &bucket, Int genID) {
    UInt blocks = BlockCount(bucket, genID), count;
    if (blocks == 0) return 0;
    DB_CHECK(bucket, VMAArrayLength(bucket.firstHandle, genID) == blocks,
             "blockCount == firstHandleLength");
    Block last = BlockGet(bucket, blocks - 1, genID, 1);
    DB_CHECK(bucket, ElementCount(last, &count), "lastOffset == dataSize");
    return FirstHandle(bucket, blocks - 1, genID) + count;
}

bool Locate(DBArrayBucket &bucket, UInt handle, Int genID, UInt *block, UInt *place) {
    if (!VMAArrayExists(bucket.index, genID)) return false;
    UInt entries = VMAArrayLength(bucket.index, genID), i = handle / 64, upBound;
    if (i >= entries) return false;
    UInt blocks = BlockCount(bucket, genID);
    const UInt *entry = VMAArrayRange(bucket.index, i, &upBound, genID, 1);
    DB_CHECK(bucket, entry != nullptr && *entry < blocks, "index[handle >> 6] < blockCount");
    // The block lies between this entry's and the next one's: the last of
    // them whose first handle is not above `handle`, found by halves where
    // the first handles lie together, and by steps beyond.
    UInt base = entry[0], lo = base;
    UInt hi = i + 1 == entries ? blocks - 1 : i + 1 < upBound ? entry[1] : base;
    const UInt *first = VMAArrayRange(bucket.firstHandle, base, &upBound, genID, 1);
    DB_CHECK(bucket, first != nullptr && first[0] <= handle, "firstHandle[block] <= handle");
    if (hi >= upBound) hi = upBound - 1;
    while (lo < hi) {
        UInt mid = lo + (hi - lo + 1) / 2;
        if (first[mid - base] <= handle)
            lo = mid;
        else
            hi = mid - 1;
    }
    UInt b = lo, start = FirstHandle(bucket, b, genID), next;
    while (b + 1 < blocks && (next = FirstHandle(bucket, b + 1, genID)) <= handle) {
        b++;
        start = next;
    }
    *block = b;
    *place = handle - start;
    return true;
}

bool ElementLocate(DBArrayBucket &bucket, UInt handle, Int genID, int read, Block *block,
                   UInt *blockIndex, UInt *offset) {
    UInt place, count;
    if (!Locate(bucket, handle, genID, blockIndex, &place)) return false;
    *block = BlockGet(bucket, *blockIndex, genID, read);
    if (ElementFind(*block, place, offset)) return true;
    // Past the last element of the last block: a handle not given yet.
    DB_CHECK(bucket, *blockIndex + 1 == BlockCount(bucket, genID), "offset < dataSize");
    DB_CHECK(bucket, ElementCount(*block, &count), "lastOffset == dataSize");
    DB_CHECK(bucket, place >= count, "offset < dataSize");
    return false;
}

UInt BlockRound(DBArrayBucket &bucket, UInt need) {
    if (bucket.array->maxBlocks) return DBARRAY_MAX_BLOCK_SIZE;
    return VMABlockArrayBlockRound_(bucket.array->arena, need < kMinBlock ? kMinBlock : need,
                                    DBARRAY_MAX_BLOCK_SIZE);
}

}  // namespace qk::dbarray

namespace {

bool OpenBucket(DBArray *array, char *path, int linear, int *create, int newGenOnly, UInt b,
                DBArrayBucket *out) {
    char names[3][24];
    snprintf(names[0], sizeof names[0], "data%04x", b);
    snprintf(names[1], sizeof names[1], "index%04x", b);
    snprintf(names[2], sizeof names[2], "firstHandle%04x", b);
    int made[3] = {*create, *create, *create};
    out->array = array;
    bool ok = VMABlockArrayInitFromPath_(array->arena, &made[0], newGenOnly, DBARRAY_MAX_BLOCK_SIZE,
                                         path, "dbarray", names[0], linear, &out->data) &&
              VMAArrayInitFromPath_(array->arena, &made[1], newGenOnly, 0, 0, path, "dbarray",
                                    names[1], linear, (VMAArrayHandle *)&out->index) &&
              VMAArrayInitFromPath_(array->arena, &made[2], newGenOnly, 0, 0, path, "dbarray",
                                    names[2], linear, (VMAArrayHandle *)&out->firstHandle);
    *create = made[0] || made[1] || made[2];
    return ok;
}

// The number of buckets of an array that exists: its data<b> arrays.
UInt ExistingBuckets(VMArena *arena, char *path, int linear) {
    char name[24];
    Int id;
    UInt count = 0;
    while (count < DBARRAY_MAX_BUCKETS) {
        snprintf(name, sizeof name, "data%04x", count);
        if (!VMAArrayLookupFromPath(arena, NEWGEN, path, "dbarray", name, linear, &id)) break;
        count++;
    }
    return count;
}

}  // namespace

extern "C" {

QK_API DBArray *DBArrayNew_(VMArena *arena, char *path, const char *name, int linear, int *create,
                            int newGenOnly, UInt bucketCount) {
    qkassert(bucketCount <= DBARRAY_MAX_BUCKETS);
    size_t keep;
    if (!qk::collection::PathEnter(path, name, "/", "array", &keep)) return nullptr;
    UInt existing = ExistingBuckets(arena, path, linear);
    int made = 0;
    auto *array = new DBArray{arena, {}, 1, 0};
    if (existing > 0 || *create) {
        array->buckets.resize(existing > 0 ? existing : bucketCount);
        bool ok = !array->buckets.empty();
        for (UInt b = 0; ok && b < array->buckets.size(); b++) {
            int one = *create;
            ok = OpenBucket(array, path, linear, &one, newGenOnly, b, &array->buckets[b]);
            made |= one;
        }
        if (!ok) array->buckets.clear();
    }
    path[keep] = 0;
    *create = made;
    if (array->buckets.empty()) {
        delete array;
        return nullptr;
    }
    return array;
}

QK_API DBArray *DBArrayNew(VMArena *arena, char *path, const char *name, int *create,
                           int newGenOnly, UInt bucketCount) {
    return DBArrayNew_(arena, path, name, 0, create, newGenOnly, bucketCount);
}

QK_API void DBArrayFree(DBArray *array) {
    delete array;
}

QK_API void DBArrayCommit(DBArray *array) {
    for (DBArrayBucket &bucket : array->buckets) {
        bucket.data.ids[OLDGEN] = bucket.data.ids[NEWGEN];
        bucket.index.ids[OLDGEN] = bucket.index.ids[NEWGEN];
        bucket.firstHandle.ids[OLDGEN] = bucket.firstHandle.ids[NEWGEN];
    }
}

QK_API void DBArrayClear(DBArray *array, Int genID) {
    qkassert(genID == NEWGEN);
    for (DBArrayBucket &bucket : array->buckets) {
        VMAArrayClear_(array->arena, bucket.data.ids[NEWGEN], NEWGEN);
        VMAArrayClear(bucket.index);
        VMAArrayClear(bucket.firstHandle);
    }
}

QK_API int DBArrayMSync(DBArray *array) {
    return VMArenaMSync(array->arena);
}

QK_API void DBArraySetCompact(DBArray *array, int compact) {
    array->compact = compact;
}

QK_API void DBArraySetMaxBlocks(DBArray *array, UInt maxBlocks) {
    array->maxBlocks = maxBlocks;
}

QK_API UInt DBArrayBucketCount(DBArray *array) {
    return (UInt)array->buckets.size();
}

QK_API UInt DBArraySize(DBArray *array, UInt bucket, Int genID) {
    return BucketSize(BucketOf(array, bucket), genID);
}

QK_API void *DBArrayGet(DBArray *array, UInt bucket, UInt handle, Int genID, int read,
                        UInt *length) {
    qkassert(read || genID == NEWGEN);
    DBArrayBucket &b = BucketOf(array, bucket);
    UInt blockIndex, offset, n;
    Block block;
    *length = 0;
    if (!ElementLocate(b, handle, genID, read, &block, &blockIndex, &offset)) return nullptr;
    DB_CHECK(b, ElementRead(block, offset, &n, length), "offset < dataSize");
    return block.Data() + offset + n;
}

QK_API void DBArrayRelease(DBArray *array, Int genID, int read, void *address) {
    if (address != nullptr) VMArenaDataRelease(array->arena, genID, read, address, 0);
}

QK_API void DBArrayPrefetch(DBArray *array, UInt bucket, UInt handle, Int genID) {
    DBArrayBucket &b = BucketOf(array, bucket);
    UInt block, place;
    if (Locate(b, handle, genID, &block, &place))
        VMABlockArrayPrefetch(array->arena, b.data.ids[genID], block, genID);
}

// A mapped arena has no page cache lock to take: the same as a prefetch.
QK_API void DBArrayPrefetchLocked(DBArray *array, UInt bucket, UInt handle, Int genID) {
    DBArrayPrefetch(array, bucket, handle, genID);
}

QK_API uintptr_t DBArrayHintGet(DBArray *array, UInt bucket, UInt handle, Int genID) {
    DBArrayBucket &b = BucketOf(array, bucket);
    UInt blockIndex, offset;
    Block block;
    if (!ElementLocate(b, handle, genID, 1, &block, &blockIndex, &offset)) return 0;
    return (uintptr_t)block.base;
}

QK_API void DBArrayLoadRegister(DBArray *array, int loadData, int loadCache, int loadContent) {
    for (DBArrayBucket &b : array->buckets) {
        VMArenaArrayLoadRegister_(array->arena, loadData, loadCache, loadContent,
                                  b.data.ids[NEWGEN], NEWGEN);
        VMArenaArrayLoadRegister_(array->arena, loadData, loadCache, loadContent,
                                  b.index.ids[NEWGEN], NEWGEN);
        VMArenaArrayLoadRegister_(array->arena, loadData, loadCache, loadContent,
                                  b.firstHandle.ids[NEWGEN], NEWGEN);
    }
}

QK_API ULong DBArrayIndexLoad(DBArray *array, Int genID) {
    ULong bytes = 0;
    for (DBArrayBucket &b : array->buckets) {
        if (!VMAArrayExists(b.index, genID)) continue;
        bytes += VMAArrayLoad_(array->arena, b.index.ids[genID], ARENA_MAX_BLOCK_SIZE, genID, 4, 0);
        bytes += VMAArrayLoad_(array->arena, b.firstHandle.ids[genID], ARENA_MAX_BLOCK_SIZE, genID,
                               4, 0);
    }
    return bytes;
}

}  // extern "C"
