// Appending an element to a bucket: into the last block, grown to its next
// size class when it must be, or into a new block at the end.
#include <string.h>

#include "collection/dbarray_internal.h"
#include "container/varint.h"
#include "qk/frame.h"

using namespace qk;
using namespace qk::dbarray;

namespace qk::dbarray {

Block BlockResize(DBArrayBucket &bucket, UInt b, UInt size) {
    Block old = BlockGet(bucket, b, NEWGEN, 1);
    UByte index[DBARRAY_MAX_BLOCK_SIZE];
    UInt indexBytes = 2 * old.indexSize;
    memcpy(index, old.base + old.size - indexBytes, indexBytes);
    UInt actual = VMABlockArrayBlockGrowNth_(bucket.array->arena, bucket.data.ids[NEWGEN], size,
                                             DBARRAY_MAX_BLOCK_SIZE, b, NEWGEN);
    qkassert(actual >= kHeaderSize + old.dataSize + indexBytes);
    Block block = BlockGet(bucket, b, NEWGEN, 0);
    memcpy(block.base + block.size - indexBytes, index, indexBytes);
    return block;
}

}  // namespace qk::dbarray

namespace {

// A new block at the end of the bucket, whose first handle is `handle`.
void BlockAppend(DBArrayBucket &bucket, UInt handle, UInt need) {
    UInt blocks = BlockCount(bucket, NEWGEN);
    VMABlockArrayInsert_(bucket.array->arena, bucket.data.ids[NEWGEN], BlockRound(bucket, need),
                         DBARRAY_MAX_BLOCK_SIZE, blocks, NEWGEN);
    BlockFresh(bucket, blocks).StoreHeader();
    VMAArrayAppend(bucket.firstHandle, &handle, 1);
}

}  // namespace

extern "C" QK_API UInt DBArrayAdd(DBArray *array, UInt bucket, const void *data, UInt length,
                                  Int genID) {
    qkassert(genID == NEWGEN);
    if (length > DBARRAY_MAX_ELEMENT_SIZE) {
        QKErrorThrow(QK_ERR_INVALID, QK_DOMAIN_GENERAL,
                     "element of %u bytes: a database array takes at most %u", length,
                     (UInt)DBARRAY_MAX_ELEMENT_SIZE);
        return DBARRAY_NO_HANDLE;
    }
    DBArrayBucket &b = BucketOf(array, bucket);
    UInt blocks = BlockCount(b, NEWGEN), handle = 0, last = 0, place = 0, added = 0;
    Block block{};
    bool needBlock = blocks == 0;
    if (VMAArrayLength(b.index, NEWGEN) == 0) {
        static const UInt kFirst = 0;
        DB_CHECK(b, needBlock, "index != empty");
        VMAArrayAppend(b.index, &kFirst, 1);
    } else {
        last = blocks - 1;
        block = BlockGet(b, last, NEWGEN, 0);
        DB_CHECK(b, ElementCount(block, &place), "lastOffset == dataSize");
        handle = FirstHandle(b, last, NEWGEN) + place;
    }
    for (;;) {
        if (needBlock) {
            DB_CHECK(b, added < 2, "addedBlockCounter < 2");
            BlockAppend(b, handle, kHeaderSize + ElementCost(0, length));
            added++;
            last = BlockCount(b, NEWGEN) - 1;
            block = BlockGet(b, last, NEWGEN, 0);
            place = 0;
            needBlock = false;
        }
        UInt need = block.Used() + ElementCost(place, length);
        if (need <= block.size) break;
        if (need <= DBARRAY_MAX_BLOCK_SIZE) {
            block = BlockResize(b, last, BlockRound(b, need));
            break;
        }
        needBlock = true;
    }
    if (place != 0 && place % 8 == 0) {
        block.indexSize++;
        block.SetIndexEntry(block.indexSize, block.dataSize);
    }
    UByte *at = block.Data() + block.dataSize;
    size_t n = VarIntWrite(at, kVarIntMaxSize, length);
    if (length > 0) memcpy(at + n, data, length);
    block.dataSize += (UInt)n + length;
    block.StoreHeader();
    if (handle / 64 >= VMAArrayLength(b.index, NEWGEN)) VMAArrayAppend(b.index, &last, 1);
    if (array->compact && last > 0) Compact(b, last - 1);
    return handle;
}
