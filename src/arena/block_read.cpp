// The read paths of both generations.
#include "arena/block_read.h"

namespace qk::arena {
namespace {

// The address of logical block `logical` in generation `genID`, or none.
// The new generation's map and read-write part change under the bucket's
// mutex; the old generation's only while readers are stopped.
UByte *LogicalBlock(VMArena *arena, ULong logical, Int genID) {
    LocalBlockServer *set = &arena->server;
    if (logical > 0xFFFFFFFFull) return nullptr;
    UInt b = (UInt)logical & ((1u << set->bucketBits) - 1);
    UInt index = (UInt)logical >> set->bucketBits;
    if (b >= ArrayLength(set->buckets)) return nullptr;
    LocalBlockServer0 *s = ArrayNth(set->buckets, b);
    if (genID == OLDGEN) {
        if (index >= FArrayLength(s->r_gen)) return nullptr;
        UInt raw = FArrayNth(s->r_gen, UInt, index);
        return raw == INVALID_RAW_BLOCK_ID ? nullptr
                                           : MemoryMappingRawBlockGet(&s->mapping, raw, false);
    }
    MutexLock(&s->rw_gen.mutex);
    UInt raw = index < FArrayLength(s->rw_gen.map) ? FArrayNth(s->rw_gen.map, UInt, index)
                                                   : INVALID_RAW_BLOCK_ID;
    UByte *block =
        raw == INVALID_RAW_BLOCK_ID ? nullptr : MemoryMappingRawBlockGet(&s->mapping, raw, false);
    MutexUnlock(&s->rw_gen.mutex);
    return block;
}

const UByte *Fail(const char *format, UInt index, UInt length, Int id) {
    QKErrorThrow(QK_ERR_INVALID, QK_DOMAIN_GENERAL, format, index, length, id);
    return nullptr;
}

const UByte *MissingBlock(ULong blockID, Int id) {
    QKErrorThrow(QK_ERR_FORMAT, QK_DOMAIN_GENERAL, "missing block %I64u of array %d", blockID, id);
    return nullptr;
}

const UByte *ReadOld(VMArena *arena, Int id, UInt blockSize, UInt index, UInt eltSize,
                     UInt *upBound) {
    VMArenaR *r = &arena->r_gen;
    if (id < 0 || (UInt)id >= ArrayLength(r->length) ||
        ArrayNth(r->type, id) == TWO_PART_ARRAY_TYPE) {
        QKErrorThrow(QK_ERR_INVALID, QK_DOMAIN_GENERAL, "invalid array %d, gen = OLD", id);
        return nullptr;
    }
    UInt length = ArrayNth(r->length, id);
    if (index > length)
        return Fail("index = %d, length = %d, arrayID = %d, gen = OLD", index, length, id);
    UInt perBlock = blockSize / eltSize;
    UInt block = index / perBlock;
    UInt first = ArrayNth(r->start, id);
    if (block >= ArrayNth(r->start, id + 1) - first) {
        *upBound = length;
        if (index == length) return nullptr;
        return MissingBlock(INVALID_VMARENA_BLOCK_ID, id);
    }
    UInt entry = first + block;
    ULong blockID = ArrayNth(r->blockID, entry);
    // Readers may resolve the same entry at once; they all store the same
    // address.
    uintptr_t address = __atomic_load_n(&r->cache.data[entry], __ATOMIC_RELAXED);
    UInt size = kSizes[blockID & 15];
    if (address == 0) {
        address = (uintptr_t)VMArenaDataReadAddress(arena, blockID, OLDGEN, &size);
        if (address == 0) return MissingBlock(blockID, id);
        __atomic_store_n(&r->cache.data[entry], address, __ATOMIC_RELAXED);
    }
    ULong end = (ULong)block * perBlock + size / eltSize;
    *upBound = end < length ? (UInt)end : length;
    return (const UByte *)address + (size_t)(index % perBlock) * eltSize;
}

const UByte *ReadNew(VMArena *arena, Int id, UInt blockSize, UInt index, UInt eltSize,
                     UInt *upBound) {
    VMArenaRW *rw = &arena->rw_gen;
    if (id < 0 || (UInt)id >= FArrayLength(rw->array)) {
        QKErrorThrow(QK_ERR_INVALID, QK_DOMAIN_GENERAL, "invalid array %d, gen = NEW", id);
        return nullptr;
    }
    VMAArray *array = ArrayRecord(rw, (UInt)id);
    if (index >= array->length)
        return Fail("index = %d, length = %d, arrayID = %d, gen = NEW", index, array->length, id);
    UInt perBlock = blockSize / eltSize;
    UInt block = index / perBlock;
    if (block >= FArrayLength(array->blockID)) return MissingBlock(INVALID_VMARENA_BLOCK_ID, id);
    ULong blockID = FArrayNth(array->blockID, ULong, block);
    uintptr_t address = 0;
    if (block < FArrayLength(array->blockCache))
        address = FArrayNth(array->blockCache, uintptr_t, block) & ~kWritableTag;
    UInt size = kSizes[blockID & 15];
    if (address == 0) {
        address = (uintptr_t)VMArenaDataReadAddress(arena, blockID, NEWGEN, &size);
        if (address == 0) return MissingBlock(blockID, id);
    }
    ULong end = (ULong)block * perBlock + size / eltSize;
    *upBound = end < array->length ? (UInt)end : array->length;
    return (const UByte *)address + (size_t)(index % perBlock) * eltSize;
}

}  // namespace

UByte *VMArenaDataReadAddress(VMArena *arena, ULong id, Int genID, UInt *size) {
    *size = 0;
    if (id == INVALID_VMARENA_BLOCK_ID) return nullptr;
    BlockRef ref = BlockIDDecode(id);
    UByte *block = LogicalBlock(arena, ref.logical, genID);
    UInt pieceSize = kSizes[ref.sizeClass];
    if (block == nullptr || (ULong)(ref.slot + 1) * pieceSize > ARENA_MAX_BLOCK_SIZE)
        return nullptr;
    *size = pieceSize;
    return block + (size_t)ref.slot * pieceSize;
}

UInt VMArenaArrayCount(VMArena *arena, Int genID) {
    return genID == OLDGEN ? ArrayLength(arena->r_gen.length) : FArrayLength(arena->rw_gen.array);
}

UInt VMAArrayReadLength(VMArena *arena, Int id, Int genID) {
    qkassert(id >= 0 && (UInt)id < VMArenaArrayCount(arena, genID));
    if (genID == OLDGEN) return ArrayNth(arena->r_gen.length, id);
    return ArrayRecord(&arena->rw_gen, (UInt)id)->length;
}

const UByte *VMAArrayReadRange(VMArena *arena, Int id, UInt blockSize, UInt index, UInt eltSize,
                               UInt *upBound, Int genID) {
    qkassert(eltSize > 0 && eltSize <= blockSize);
    if (genID == OLDGEN) return ReadOld(arena, id, blockSize, index, eltSize, upBound);
    return ReadNew(arena, id, blockSize, index, eltSize, upBound);
}

void VMArenaFillBlockCaches(VMArena *arena) {
    VMArenaRW *rw = &arena->rw_gen;
    for (UInt i = 0; i < FArrayLength(rw->array); i++) {
        VMAArray *array = ArrayRecord(rw, i);
        UInt count = FArrayLength(array->blockID);
        FArrayFree(array->blockCache, uintptr_t);
        FArrayInitHeap(array->blockCache, array->blockID.blockSize);
        if (count == 0) continue;
        FArrayEnsureCapacity0(array->blockCache, uintptr_t, count);
        array->blockCache.length = count;
        for (UInt b = 0; b < count; b++) {
            UInt size;
            ULong id = FArrayNth(array->blockID, ULong, b);
            FArrayNth(array->blockCache, uintptr_t, b) =
                (uintptr_t)VMArenaDataReadAddress(arena, id, NEWGEN, &size);
        }
    }
}

}  // namespace qk::arena
