// The database array's structures: the codec of one block, and the reads
// and moves of a bucket's blocks that its operations share.
#pragma once

#include <vector>

#include "collection/corrupt.h"
#include "frame/endian.h"
#include "qk/dbarray.h"

namespace qk::dbarray {

constexpr UInt kHeaderSize = 4;
constexpr UInt kMinBlock = 64;

// A block as read: its memory and size, and the two header fields.
struct Block {
    UByte *base;
    UInt size;
    UInt indexSize;
    UInt dataSize;

    UByte *Data() const { return base + kHeaderSize; }
    UInt Used() const { return kHeaderSize + dataSize + 2 * indexSize; }
    // Entry k (from 1) of the in-block index.
    UInt IndexEntry(UInt k) const;
    void SetIndexEntry(UInt k, UInt offset);
    void StoreHeader();
};

// Reads the header of a block of `size` bytes; false when the fields do not
// fit in the block.
inline bool BlockOpen(UByte *base, UInt size, Block *out) {
    *out = {base, size, 0, 0};
    if (base == nullptr || size < kHeaderSize) return false;
    out->indexSize = LoadLE16(base);
    out->dataSize = LoadLE16(base + 2);
    return out->Used() <= size;
}
// The in-block index entries that a block of `count` elements has.
inline UInt IndexEntriesFor(UInt count) {
    return count == 0 ? 0 : (count - 1) / 8;
}
// The bytes that an element of `length` bytes takes at `place` of a block:
// its length number, its bytes, and an index entry at each eighth place.
UInt ElementCost(UInt place, UInt length);
// Reads the element at data offset `offset`: the bytes of its length number
// and its length. False when it does not lie whole in the data.
QK_API bool ElementRead(const Block &block, UInt offset, UInt *numberSize, UInt *length);
// The data offset of the element at `place`, through the in-block index
// and at most seven steps. False when the block has no such place or its
// contents are inconsistent.
bool ElementFind(const Block &block, UInt place, UInt *offset);
// The number of elements; false when the walk does not end on dataSize.
bool ElementCount(const Block &block, UInt *count);
// The whole check: header, every element, and every index entry where its
// element starts. The number of elements in *count.
QK_API bool BlockValid(const Block &block, UInt *count);

// An element's place in the scratch copy of a run of blocks.
struct Span {
    UInt offset;  // in Scratch::bytes
    UInt length;
};
struct Scratch {
    std::vector<UByte> bytes;
    std::vector<Span> elements;
};

}  // namespace qk::dbarray

typedef VMAARRAY(UInt) UIntHandle;

struct DBArrayBucket {
    VMAArrayHandle data;  // block array, blocks of up to 4096 bytes
    UIntHandle index;
    UIntHandle firstHandle;
    DBArray *array;
};

struct DBArray {
    VMArena *arena;
    std::vector<DBArrayBucket> buckets;
    int compact;
    UInt maxBlocks;
};

namespace qk::dbarray {

#define DB_CHECK(bucket, expression, text) COLL_CHECK((bucket).array->arena, expression, text)

QK_API DBArrayBucket &BucketOf(DBArray *array, UInt bucket);
UInt BlockCount(DBArrayBucket &bucket, Int genID);
// Block `b` of the bucket, its header checked; `read` 0 makes it writable.
QK_API Block BlockGet(DBArrayBucket &bucket, UInt b, Int genID, int read);
// Block `b` (NEWGEN) to be written whole: its header is not read.
QK_API Block BlockFresh(DBArrayBucket &bucket, UInt b);
UInt FirstHandle(DBArrayBucket &bucket, UInt b, Int genID);
void FirstHandleSet(DBArrayBucket &bucket, UInt b, UInt handle);
// The number of elements in the bucket.
UInt BucketSize(DBArrayBucket &bucket, Int genID);
// The block and place where `handle` lies or would lie; false when the
// index does not reach it. In the last block the place may lie past its
// elements.
bool Locate(DBArrayBucket &bucket, UInt handle, Int genID, UInt *block, UInt *place);
// Block, block index and data offset of the element `handle`; false when
// the bucket has no such handle.
bool ElementLocate(DBArrayBucket &bucket, UInt handle, Int genID, int read, Block *block,
                   UInt *blockIndex, UInt *offset);
// The size of a new block that takes `need` bytes.
QK_API UInt BlockRound(DBArrayBucket &bucket, UInt need);
// Moves block `b` to one of `size` bytes, with its in-block index at the
// new end.
Block BlockResize(DBArrayBucket &bucket, UInt b, UInt size);
// Copies the elements of blocks [first, first + count) into `out`.
void ScratchFill(DBArrayBucket &bucket, UInt first, UInt count, Scratch *out);
// The elements of `scratch` laid out in blocks, greedily: the number of
// elements of each block.
std::vector<UInt> Layout(const Scratch &scratch);
// Replaces blocks [first, first + count) by the elements of `scratch`,
// fixing the first handles and the index.
void Rewrite(DBArrayBucket &bucket, UInt first, UInt count, const Scratch &scratch);
// With compaction on, merges block `b` with a neighbour while that takes
// fewer bytes.
void Compact(DBArrayBucket &bucket, UInt b);

}  // namespace qk::dbarray
