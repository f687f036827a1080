// Changing an element's length in place: the bytes behind it move, and the
// in-block index entries behind it with them. A block that the element
// outgrows moves to a larger size class, and past the largest it is split.
#include <string.h>

#include "collection/dbarray_internal.h"
#include "container/varint.h"
#include "qk/frame.h"

using namespace qk;
using namespace qk::dbarray;

namespace {

// The element at `place`, at data offset `offset` with a length number of
// `n0` bytes and `l0` bytes, becomes `l1` bytes long; the block has room.
void ResizeInPlace(Block &block, UInt place, UInt offset, UInt n0, UInt l0, UInt l1) {
    UByte *data = block.Data();
    UInt n1 = (UInt)VarIntSize(l1), keep = l0 < l1 ? l0 : l1;
    UInt tailFrom = offset + n0 + l0, tailTo = offset + n1 + l1;
    UInt tail = block.dataSize - tailFrom;
    Int delta = (Int)tailTo - (Int)tailFrom;
    // Growing, the tail moves out of the way first; shrinking, it follows.
    if (delta > 0) memmove(data + tailTo, data + tailFrom, tail);
    memmove(data + offset + n1, data + offset + n0, keep);
    if (delta < 0) memmove(data + tailTo, data + tailFrom, tail);
    memset(data + offset + n1 + keep, 0, l1 - keep);
    VarIntWrite(data + offset, n1, l1);
    for (UInt k = place / 8 + 1; k <= block.indexSize; k++)
        block.SetIndexEntry(k, block.IndexEntry(k) + delta);
    block.dataSize += delta;
    block.StoreHeader();
}

}  // namespace

extern "C" {

QK_API int DBArrayLengthSet(DBArray *array, UInt bucket, UInt handle, Int genID, UInt length) {
    qkassert(genID == NEWGEN);
    DBArrayBucket &b = BucketOf(array, bucket);
    UInt blockIndex, place, offset, n0, l0;
    if (length > DBARRAY_MAX_ELEMENT_SIZE) {
        QKErrorThrow(QK_ERR_INVALID, QK_DOMAIN_GENERAL,
                     "element of %u bytes: a database array takes at most %u", length,
                     (UInt)DBARRAY_MAX_ELEMENT_SIZE);
        return 0;
    }
    Block block;
    if (!ElementLocate(b, handle, NEWGEN, 0, &block, &blockIndex, &offset)) {
        QKErrorThrow(QK_ERR_INVALID, QK_DOMAIN_GENERAL, "no element %u in bucket %u", handle,
                     bucket);
        return 0;
    }
    DB_CHECK(b, ElementRead(block, offset, &n0, &l0), "offset < dataSize");
    place = handle - FirstHandle(b, blockIndex, NEWGEN);
    if (l0 == length) return 1;
    Int delta = (Int)(VarIntSize(length) + length) - (Int)(n0 + l0);
    UInt need = (UInt)((Int)block.Used() + delta);
    if (need <= block.size) {
        ResizeInPlace(block, place, offset, n0, l0, length);
    } else if (need <= DBARRAY_MAX_BLOCK_SIZE) {
        block = BlockResize(b, blockIndex, BlockRound(b, need));
        ResizeInPlace(block, place, offset, n0, l0, length);
    } else {
        Scratch scratch;
        ScratchFill(b, blockIndex, 1, &scratch);
        Span &e = scratch.elements[place];
        if (length > e.length) {
            // The element's bytes go to the end, where they can grow.
            scratch.bytes.insert(scratch.bytes.end(), scratch.bytes.begin() + e.offset,
                                 scratch.bytes.begin() + e.offset + e.length);
            e.offset = (UInt)scratch.bytes.size() - e.length;
            scratch.bytes.resize(scratch.bytes.size() + length - e.length, 0);
        }
        e.length = length;
        Rewrite(b, blockIndex, 1, scratch);
    }
    if (delta < 0) Compact(b, blockIndex);
    return 1;
}

QK_API int DBArraySet(DBArray *array, UInt bucket, UInt handle, Int genID, const void *data,
                      UInt length) {
    if (!DBArrayLengthSet(array, bucket, handle, genID, length)) return 0;
    UInt dataLength;
    void *at = DBArrayGet(array, bucket, handle, genID, 0, &dataLength);
    DB_CHECK(BucketOf(array, bucket), dataLength == length, "dataLength == newDataLength");
    if (length > 0) memcpy(at, data, length);
    DBArrayRelease(array, genID, 0, at);
    return 1;
}

}  // extern "C"
