// The commit of one bucket: the new generation moves towards low raw
// blocks, the committed size is fixed and padded to whole file blocks,
// every raw block is accounted for, and the data and both index files reach
// the disk.
#include <string.h>

#include <algorithm>
#include <functional>
#include <initializer_list>

#include "arena/arena_internal.h"
#include "qk/frame.h"

namespace qk::arena {
namespace {

UInt &RawOf(LocalBlockServer0RW *rw, UInt index) {
    return FArrayNth(rw->map, UInt, index);
}

void SortDescending(UIntArray *list) {
    std::sort(list->data, list->data + list->length, std::greater<UInt>());
}

void AppendAll(UIntArray *to, const UIntArray *from) {
    if (from->length > 0) ArrayAppend(*to, from->data, from->length);
}

// Sorted in descending order; a raw block free twice is a broken invariant.
void SortFreeOld(LocalBlockServer0RW *rw) {
    SortDescending(&rw->freeRawBlocksOld);
    for (UInt i = 1; i < ArrayLength(rw->freeRawBlocksOld); i++)
        qkassert(ArrayNth(rw->freeRawBlocksOld, i - 1) != ArrayNth(rw->freeRawBlocksOld, i));
}

// Moves blocks of this generation from the top of the file into the lowest
// raw blocks that are free in both generations. A vacated block becomes free
// only after the walk, so the walk ends even when everything moves.
void Compact(LocalBlockServer0 *s) {
    LocalBlockServer0RW *rw = &s->rw_gen;
    std::sort(rw->modified.data, rw->modified.data + rw->modified.length,
              [rw](UInt a, UInt b) { return RawOf(rw, a) > RawOf(rw, b); });
    UIntArray freeRawBlocksOldNext = {};
    for (UInt i = 0; i < ArrayLength(rw->modified); i++) {
        UInt index = ArrayNth(rw->modified, i);
        if (FArrayNth(rw->mapFlags, UByte, index) & MAP_FLAG_FREED) {
            RawOf(rw, index) = INVALID_RAW_BLOCK_ID;
            continue;
        }
        UInt free = LocalBlockServer0FreeBlockGetOld(s);
        if (free == INVALID_RAW_BLOCK_ID) break;
        UInt raw = RawOf(rw, index);
        if (raw < free) {
            ArrayAdd(rw->freeRawBlocksOld, free);
            break;
        }
        memcpy(MemoryMappingRawBlockGet(&s->mapping, free, true),
               MemoryMappingRawBlockGet(&s->mapping, raw, true), s->blockSize);
        ArrayAdd(freeRawBlocksOldNext, raw);
        RawOf(rw, index) = free;
    }
    AppendAll(&rw->freeRawBlocksOld, &freeRawBlocksOldNext);
    ArrayFree(freeRawBlocksOldNext);
}

// One above the highest raw block that either generation names.
UInt MaxRawID(LocalBlockServer0 *s) {
    UInt max = 0;
    for (FArray *map : {&s->rw_gen.map, &s->r_gen}) {
        for (UInt i = 0; i < FArrayLength(*map); i++) {
            UInt raw = FArrayNth(*map, UInt, i);
            if (raw != INVALID_RAW_BLOCK_ID && raw + 1 > max) max = raw + 1;
        }
    }
    return max;
}

// Forgets the free blocks beyond the committed size.
void DropBeyond(LocalBlockServer0RW *rw, UInt maxRawID) {
    UIntArray *list = &rw->freeRawBlocksOld;
    UInt kept = 0;
    for (UInt i = 0; i < list->length; i++) {
        if (list->data[i] < maxRawID) list->data[kept++] = list->data[i];
    }
    list->length = kept;
    UInt add = 0;
    for (UInt i = 0; i < ArrayLength(rw->freeRawBlocksNew); i++) {
        UInt rawID = ArrayNth(rw->freeRawBlocksNew, i);
        if (rawID >= maxRawID) {
            QKMessage(3, "*** invalid rawID in freeRawBlocksNew: rawID=%I64u maxRawID=%I64u",
                      (ULong)rawID, (ULong)maxRawID);
        } else {
            add++;
        }
    }
    qkassert(add == ArrayLength(rw->freeRawBlocksNew));
}

// Every raw block below the committed size is in use or free; a block that
// no list names (a leak) is made free again.
void Account(LocalBlockServer0 *s, ULong finalRSize) {
    LocalBlockServer0RW *rw = &s->rw_gen;
    UInt totCount = 0;
    for (UInt i = 0; i < FArrayLength(rw->map); i++)
        if (RawOf(rw, i) != INVALID_RAW_BLOCK_ID) totCount++;
    UInt freeNew = ArrayLength(rw->freeRawBlocksNew);
    UInt freeOld = ArrayLength(rw->freeRawBlocksOld);
    if ((ULong)(totCount + freeNew + freeOld) * s->blockSize == finalRSize) return;
    QKMessage(3, "VM: Block count must be fixed !");
    QKMessage(3, "VM: totCount = %d", totCount);
    QKMessage(3, "VM: freeNew = %d", freeNew);
    QKMessage(3, "VM: freeOld = %d", freeOld);
    QKMessage(3, "VM: finalRSize = %I64u", finalRSize);
    ByteArray free = {};
    UInt count = (UInt)(finalRSize / s->blockSize);
    ArraySetLength(free, count);
    if (count > 0) memset(free.data, 0, count);
    for (UInt i = 0; i < FArrayLength(rw->map); i++) {
        UInt *rawBid = &RawOf(rw, i);
        if (*rawBid == INVALID_RAW_BLOCK_ID) continue;
        qkassert(*rawBid < count);
        qkassert(0 == ArrayNth(free, *rawBid));
        ArrayNth(free, *rawBid) = 1;
    }
    for (const UIntArray *list : {&rw->freeRawBlocksOld, &rw->freeRawBlocksNew}) {
        for (UInt i = 0; i < list->length; i++) {
            UInt rawBid = list->data[i];
            qkassert(rawBid < count);
            qkassert(0 == ArrayNth(free, rawBid));
            ArrayNth(free, rawBid) = 1;
        }
    }
    for (UInt i = 0; i < FArrayLength(s->r_gen); i++) {
        UInt *rawBid = &FArrayNth(s->r_gen, UInt, i);
        if (*rawBid == INVALID_RAW_BLOCK_ID) continue;
        qkassert(1 == ArrayNth(free, *rawBid));
    }
    for (UInt raw = 0; raw < count; raw++)
        if (ArrayNth(free, raw) == 0) ArrayAdd(rw->freeRawBlocksOld, raw);
    ArrayFree(free);
}

}  // namespace

bool LocalBlockServer0FlushFileExec(LocalBlockServer0 *s) {
    qkassert(!s->readOnly);
    LocalBlockServer0RW *rw = &s->rw_gen;
    MutexLock(&rw->mutex);
    SortFreeOld(rw);
    bool modified = ArrayLength(rw->modified) > 0;
    Compact(s);
    UInt maxRawID = MaxRawID(s);
    DropBeyond(rw, maxRawID);
    // The committed size is a whole number of file blocks; the padding is
    // free in both generations.
    ULong finalRSize = (ULong)maxRawID * s->blockSize;
    while (finalRSize % s->fileBlockSize != 0) {
        ArrayAdd(rw->freeRawBlocksOld, (UInt)(finalRSize / s->blockSize));
        maxRawID++;
        finalRSize += s->blockSize;
    }
    qkassert(finalRSize <= 0xFFFFFFFFull);
    Account(s, finalRSize);
    SortFreeOld(rw);
    if (ArrayCapacity(rw->modified) > QK_ARRAY_KEEP_LIMIT) {
        ArrayFree(rw->modified);
    } else {
        ArrayClear(rw->modified);
    }
    // Every block now belongs to the committed image.
    for (UInt i = 0; i < FArrayLength(rw->mapFlags); i++)
        FArrayNth(rw->mapFlags, UByte, i) = MAP_FLAG_OLD;
    s->mapping.finalRSize = (UInt)finalRSize;
    bool ok = MemoryMappingFlush(&s->mapping);
    if (!ok) {
        QKErrorRethrow("LocalBlockServer0FlushFileExec: could not flush mapping");
    } else {
        if (modified) MemoryMappingSetModificationDate(&s->mapping);
        // The index describes the moment after the commit, when the blocks
        // that only the old image used are free.
        AppendAll(&rw->freeRawBlocksOld, &rw->freeRawBlocksNew);
        SortFreeOld(rw);
        ArrayClear(rw->freeRawBlocksNew);
    }
    MutexUnlock(&rw->mutex);
    return ok && IndexFileFlushNew(s, s->flushedSerialNew, (UInt)finalRSize) &&
           IndexFileFlushOld(s, s->flushedSerialOld);
}

}  // namespace qk::arena
