// Laying a run of elements out again: a block that an element outgrows is
// split, and neighbouring blocks that fit in fewer bytes are merged. The
// elements are copied out, laid into blocks greedily, and the first handles
// and the index that follow are fixed.
#include <string.h>

#include "collection/dbarray_internal.h"
#include "container/varint.h"
#include "qk/frame.h"

namespace qk::dbarray {

namespace {

// Entries of the index from the first handle of block `first` on.
void IndexRebuild(DBArrayBucket &bucket, UInt first) {
    UInt blocks = BlockCount(bucket, NEWGEN), length = VMAArrayLength(bucket.index, NEWGEN);
    UInt b = first, upBound;
    for (UInt i = (FirstHandle(bucket, first, NEWGEN) + 63) / 64; i < length; i++) {
        while (b + 1 < blocks && FirstHandle(bucket, b + 1, NEWGEN) <= 64 * i) b++;
        UInt *entry = VMAArrayRange(bucket.index, i, &upBound, NEWGEN, 0);
        DB_CHECK(bucket, entry != nullptr, "index[handle >> 6] < blockCount");
        *entry = b;
    }
}

// Writes elements [from, from + count) of `scratch` into `block`.
void BlockWrite(Block &block, const Scratch &scratch, UInt from, UInt count) {
    block.indexSize = block.dataSize = 0;
    for (UInt place = 0; place < count; place++) {
        const Span &e = scratch.elements[from + place];
        if (place != 0 && place % 8 == 0) block.SetIndexEntry(++block.indexSize, block.dataSize);
        UByte *at = block.Data() + block.dataSize;
        size_t n = VarIntWrite(at, kVarIntMaxSize, e.length);
        if (e.length > 0) memcpy(at + n, scratch.bytes.data() + e.offset, e.length);
        block.dataSize += (UInt)n + e.length;
    }
    qkassert(block.Used() <= block.size);
    block.StoreHeader();
}

// Blocks x and x + 1 as one, when that takes fewer bytes.
bool MergeGains(DBArrayBucket &bucket, UInt x) {
    if (x + 1 >= BlockCount(bucket, NEWGEN)) return false;
    Block a = BlockGet(bucket, x, NEWGEN, 1), b = BlockGet(bucket, x + 1, NEWGEN, 1);
    if (kHeaderSize + a.dataSize + b.dataSize > DBARRAY_MAX_BLOCK_SIZE) return false;
    UInt countA, countB;
    DB_CHECK(bucket, ElementCount(a, &countA) && ElementCount(b, &countB),
             "lastOffset == dataSize");
    UInt need = kHeaderSize + a.dataSize + b.dataSize + 2 * IndexEntriesFor(countA + countB);
    return need <= DBARRAY_MAX_BLOCK_SIZE && BlockRound(bucket, need) < a.size + b.size;
}

}  // namespace

void ScratchFill(DBArrayBucket &bucket, UInt first, UInt count, Scratch *out) {
    out->bytes.clear();
    out->elements.clear();
    for (UInt b = first; b < first + count; b++) {
        Block block = BlockGet(bucket, b, NEWGEN, 1);
        UInt n, length;
        for (UInt at = 0; at < block.dataSize; at += n + length) {
            DB_CHECK(bucket, ElementRead(block, at, &n, &length), "lastOffset == dataSize");
            out->elements.push_back({(UInt)out->bytes.size(), length});
            out->bytes.insert(out->bytes.end(), block.Data() + at + n,
                              block.Data() + at + n + length);
        }
    }
}

std::vector<UInt> Layout(const Scratch &scratch) {
    std::vector<UInt> counts;
    UInt used = kHeaderSize, place = 0;
    for (const Span &e : scratch.elements) {
        if (place > 0 && used + ElementCost(place, e.length) > DBARRAY_MAX_BLOCK_SIZE) {
            counts.push_back(place);
            used = kHeaderSize;
            place = 0;
        }
        used += ElementCost(place++, e.length);
    }
    if (place > 0) counts.push_back(place);
    return counts;
}

void Rewrite(DBArrayBucket &bucket, UInt first, UInt count, const Scratch &scratch) {
    VMArena *arena = bucket.array->arena;
    Int data = bucket.data.ids[NEWGEN];
    std::vector<UInt> counts = Layout(scratch);
    UInt m = (UInt)counts.size(), handle = FirstHandle(bucket, first, NEWGEN), s1, s2;
    qkassert(m > 0);
    for (; count < m; count++) {
        VMABlockArrayInsert_(arena, data, kMinBlock, DBARRAY_MAX_BLOCK_SIZE, first + count, NEWGEN);
        VMAArrayInsert(bucket.firstHandle, first + count, &handle, &s1, &s2);
    }
    for (; count > m; count--) {
        VMABlockArrayRemove_(arena, data, DBARRAY_MAX_BLOCK_SIZE, first + m, NEWGEN);
        VMAArrayRemove(bucket.firstHandle, first + m);
    }
    for (UInt i = 0, from = 0; i < m; from += counts[i++]) {
        UInt need = kHeaderSize + 2 * IndexEntriesFor(counts[i]);
        for (UInt e = 0; e < counts[i]; e++)
            need += ElementCost(0, scratch.elements[from + e].length);
        UInt size = BlockRound(bucket, need);
        UInt current;
        VMABlockArrayGet_(arena, data, first + i, NEWGEN, 1, &current);
        if (current != size)
            VMABlockArrayBlockGrowNth_(arena, data, size, DBARRAY_MAX_BLOCK_SIZE, first + i,
                                       NEWGEN);
        Block block = BlockFresh(bucket, first + i);
        BlockWrite(block, scratch, from, counts[i]);
        FirstHandleSet(bucket, first + i, handle + from);
    }
    IndexRebuild(bucket, first);
}

void Compact(DBArrayBucket &bucket, UInt b) {
    if (!bucket.array->compact) return;
    Scratch scratch;
    for (;;) {
        UInt x;
        if (b > 0 && MergeGains(bucket, b - 1))
            x = --b;
        else if (MergeGains(bucket, b))
            x = b;
        else
            return;
        ScratchFill(bucket, x, 2, &scratch);
        Rewrite(bucket, x, 2, scratch);
    }
}

}  // namespace qk::dbarray
