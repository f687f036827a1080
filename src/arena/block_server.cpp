// Logical blocks in a bucket: raw blocks given out lowest first, logical
// blocks reused last freed first, and the copy of an old generation's block
// at the first write in a new generation, so that the committed image is
// never written.
#include <string.h>

#include <algorithm>
#include <functional>

#include "arena/arena_internal.h"
#include "qk/memory.h"

namespace qk::arena {
namespace {

UByte &FlagOf(LocalBlockServer0RW *rw, UInt index) {
    return FArrayNth(rw->mapFlags, UByte, index);
}

UInt &RawOf(LocalBlockServer0RW *rw, UInt index) {
    return FArrayNth(rw->map, UInt, index);
}

// Puts a raw block back among those free in both generations, keeping the
// list in descending order so that the lowest block goes out first.
void FreeRawOld(LocalBlockServer0RW *rw, UInt raw) {
    UIntArray *list = &rw->freeRawBlocksOld;
    UInt *end = list->data + list->length;
    UInt at = (UInt)(std::lower_bound(list->data, end, raw, std::greater<UInt>()) - list->data);
    qkassert(at == list->length || list->data[at] != raw);
    ArrayAdd(*list, 0);
    memmove(list->data + at + 1, list->data + at, (size_t)(list->length - 1 - at) * sizeof(UInt));
    list->data[at] = raw;
}

}  // namespace

UInt LocalBlockServer0FreeBlockGetOld(LocalBlockServer0 *s) {
    UIntArray *list = &s->rw_gen.freeRawBlocksOld;
    if (ArrayLength(*list) == 0) return INVALID_RAW_BLOCK_ID;
    UInt raw = ArrayLast(*list);
    list->length--;
    return raw;
}

UInt LocalBlockServer0RawBlockNew(LocalBlockServer0 *s) {
    qkassert(!s->readOnly);
    UInt raw = LocalBlockServer0FreeBlockGetOld(s);
    if (raw != INVALID_RAW_BLOCK_ID) return raw;
    // None free: one more block at the end of the read-write part.
    MemoryMapping *m = &s->mapping;
    UInt used = m->rwLength;
    if ((ULong)m->rsize + used + s->blockSize > 0xFFFFFFFFull ||
        !MemoryMappingRawEnsureRWCapacity(m, used + s->blockSize)) {
        QKErrorRethrow("MemoryMappingRawEnsureRWCapacity failed");
        return INVALID_RAW_BLOCK_ID;
    }
    MemoryMappingSetRWLength(m, used + s->blockSize);
    return m->rsize / s->blockSize + used / s->blockSize;
}

UInt LocalBlockServer0BlockNew(LocalBlockServer0 *s) {
    LocalBlockServer0RW *rw = &s->rw_gen;
    UInt raw = LocalBlockServer0RawBlockNew(s);
    if (raw == INVALID_RAW_BLOCK_ID) return INVALID_RAW_BLOCK_ID;
    UInt blockID;
    if (ArrayLength(rw->freeBlock) > 0) {
        blockID = ArrayLast(rw->freeBlock);
        rw->freeBlock.length--;
    } else {
        UInt none = INVALID_RAW_BLOCK_ID;
        UByte flag = 0;
        int ok = 1;
        Long b1 = FArrayAdd(rw->map, &none, &ok);
        Long b2 = ok ? FArrayAdd(rw->mapFlags, &flag, &ok) : -1;
        if (!ok) {
            if (b1 >= 0 && b2 < 0) rw->map.length--;
            FreeRawOld(rw, raw);
            QKErrorRethrow("Cannot create new logical block: out of memory");
            return INVALID_RAW_BLOCK_ID;
        }
        blockID = (UInt)b1;
        qkassert(b2 == blockID);
    }
    if (!(FlagOf(rw, blockID) & MAP_FLAG_NEW)) ArrayAdd(rw->modified, blockID);
    FlagOf(rw, blockID) = MAP_FLAG_NEW;
    RawOf(rw, blockID) = raw;
    return blockID;
}

void LocalBlockServer0BlockFree(LocalBlockServer0 *s, UInt index) {
    qkassert(!s->readOnly);
    LocalBlockServer0RW *rw = &s->rw_gen;
    qkassert(index < FArrayLength(rw->map));
    UInt raw = RawOf(rw, index);
    qkassert(raw != INVALID_RAW_BLOCK_ID);
    ArrayAdd(rw->freeBlock, index);
    UByte &flag = FlagOf(rw, index);
    if (flag & MAP_FLAG_OLD) {
        // The committed image may still read it.
        ArrayAdd(rw->freeRawBlocksNew, raw);
    } else {
        FreeRawOld(rw, raw);
    }
    RawOf(rw, index) = INVALID_RAW_BLOCK_ID;
    flag |= MAP_FLAG_FREED;
}

UByte *LocalBlockServer0BlockReach(LocalBlockServer0 *s, UInt index, Int genID, bool read) {
    MemoryMapping *m = &s->mapping;
    if (genID != NEWGEN) {
        qkassert(read);
        if (index >= FArrayLength(s->r_gen)) return nullptr;
        UInt raw = FArrayNth(s->r_gen, UInt, index);
        return raw == INVALID_RAW_BLOCK_ID ? nullptr : MemoryMappingRawBlockGet(m, raw, false);
    }
    LocalBlockServer0RW *rw = &s->rw_gen;
    MutexLock(&rw->mutex);
    UByte *block = nullptr;
    UInt raw = index < FArrayLength(rw->map) ? RawOf(rw, index) : INVALID_RAW_BLOCK_ID;
    if (raw == INVALID_RAW_BLOCK_ID) {
        // no such block
    } else if (read || BlockIsInMemory(FlagOf(rw, index))) {
        block = MemoryMappingRawBlockGet(m, raw, false);
    } else {
        // The first write to a block of the committed image in this
        // generation: the new generation goes on in a copy.
        qkassert(!s->readOnly);
        UInt copy = LocalBlockServer0RawBlockNew(s);
        if (copy != INVALID_RAW_BLOCK_ID) {
            RawOf(rw, index) = copy;
            const UByte *from = MemoryMappingRawBlockGet(m, raw, true);
            block = MemoryMappingRawBlockGet(m, copy, true);
            memcpy(block, from, s->blockSize);
            ArrayAdd(rw->freeRawBlocksNew, raw);
            if (!(FlagOf(rw, index) & MAP_FLAG_NEW)) ArrayAdd(rw->modified, index);
            FlagOf(rw, index) = MAP_FLAG_NEW;
        }
    }
    MutexUnlock(&rw->mutex);
    return block;
}

UInt LocalBlockServer0RawID(LocalBlockServer0 *s, UInt index, Int genID) {
    if (genID != NEWGEN)
        return index < FArrayLength(s->r_gen) ? FArrayNth(s->r_gen, UInt, index)
                                              : INVALID_RAW_BLOCK_ID;
    MutexLock(&s->rw_gen.mutex);
    UInt raw =
        index < FArrayLength(s->rw_gen.map) ? RawOf(&s->rw_gen, index) : INVALID_RAW_BLOCK_ID;
    MutexUnlock(&s->rw_gen.mutex);
    return raw;
}

LocalBlockServer0 *LocalBlockServerBucket(LocalBlockServer *set, ULong logical, UInt *index) {
    if (logical > 0xFFFFFFFFull) return nullptr;
    UInt b = (UInt)logical & ((1u << set->bucketBits) - 1);
    if (b >= ArrayLength(set->buckets)) return nullptr;
    *index = (UInt)logical >> set->bucketBits;
    return ArrayNth(set->buckets, b);
}

// The caller holds the arena's allocator mutex, which guards `next`.
UInt LocalBlockServerBlockNew(LocalBlockServer *set) {
    UInt count = ArrayLength(set->buckets);
    UInt b = set->next;
    set->next = (b + 1) % count;
    LocalBlockServer0 *s = ArrayNth(set->buckets, b);
    MutexLock(&s->rw_gen.mutex);
    UInt index = LocalBlockServer0BlockNew(s);
    MutexUnlock(&s->rw_gen.mutex);
    if (index == INVALID_RAW_BLOCK_ID) return INVALID_RAW_BLOCK_ID;
    qkassert(((ULong)index << set->bucketBits | b) < INVALID_RAW_BLOCK_ID);
    return index << set->bucketBits | b;
}

void LocalBlockServerBlockFree(LocalBlockServer *set, UInt logical) {
    UInt index;
    LocalBlockServer0 *s = LocalBlockServerBucket(set, logical, &index);
    qkassert(s != NULL);
    MutexLock(&s->rw_gen.mutex);
    LocalBlockServer0BlockFree(s, index);
    MutexUnlock(&s->rw_gen.mutex);
}

}  // namespace qk::arena
