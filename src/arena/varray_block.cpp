// Block arrays (type 4): the unit of access is a block of the array's own
// size class or smaller, and an array's `length` counts its largest block
// size per block. A place may hold no block (INVALID_VMARENA_BLOCK_ID).
#include "arena/varray_internal.h"

using namespace qk::arena;

namespace {

VMAArray *BlockArray(VMArena *arena, Int id, Int genID) {
    qkassert(genID == NEWGEN);
    VMAArray *array = VMAArrayRecordChecked(arena, id);
    VMA_CHECK(arena, array->type == FULL_BLOCK_ARRAY_TYPE);
    return array;
}

// The old image's entry of a block.
UInt OldEntry(VMArena *arena, Int id, UInt blockIndex) {
    VMAArrayOldChecked(arena, id);
    UInt first = ArrayNth(arena->r_gen.start, id);
    VMA_CHECK(arena, blockIndex < ArrayNth(arena->r_gen.start, id + 1) - first);
    return first + blockIndex;
}

// Opens place `at` in both of the array's lists.
void OpenPlace(VMAArray *array, UInt at) {
    int ok = 1;
    ULong id = INVALID_VMARENA_BLOCK_ID;
    uintptr_t entry = 0;
    FArrayAdd(array->blockID, &id, &ok);
    FArrayAdd(array->blockCache, &entry, &ok);
    qkassert(ok);
    for (UInt b = FArrayLength(array->blockID) - 1; b > at; b--) {
        BlockIDAt(array, b) = BlockIDAt(array, b - 1);
        *BlockCacheSlot(array, b) = *BlockCacheSlot(array, b - 1);
    }
}

void ClosePlace(VMAArray *array, UInt at) {
    for (UInt b = at; b + 1 < FArrayLength(array->blockID); b++) {
        BlockIDAt(array, b) = BlockIDAt(array, b + 1);
        *BlockCacheSlot(array, b) = *BlockCacheSlot(array, b + 1);
    }
    array->blockID.length--;
    array->blockCache.length--;
}

// A new block of `size` bytes for place `at`, written in place; none for 0.
UInt PutNewBlock(VMArena *arena, VMAArray *array, UInt at, UInt size) {
    if (size == 0) {
        BlockIDAt(array, at) = INVALID_VMARENA_BLOCK_ID;
        *BlockCacheSlot(array, at) = 0;
        return 0;
    }
    UInt actual;
    *BlockCacheSlot(array, at) = VMAArrayNewBlock(arena, size, &BlockIDAt(array, at), &actual);
    return actual;
}

}  // namespace

extern "C" {

QK_API UInt VMABlockArrayBlockCount_(VMArena *arena, Int id, Int genID) {
    if (genID == OLDGEN) {
        VMAArrayOldChecked(arena, id);
        return ArrayNth(arena->r_gen.start, id + 1) - ArrayNth(arena->r_gen.start, id);
    }
    return FArrayLength(VMAArrayRecordChecked(arena, id)->blockID);
}

QK_API ULong VMABlockArrayBlockIDGet_(VMArena *arena, Int id, UInt blockIndex, Int genID) {
    if (genID == OLDGEN) return ArrayNth(arena->r_gen.blockID, OldEntry(arena, id, blockIndex));
    VMAArray *array = VMAArrayRecordChecked(arena, id);
    VMA_CHECK(arena, blockIndex < FArrayLength(array->blockID));
    return BlockIDAt(array, blockIndex);
}

QK_API void *VMABlockArrayGet_(VMArena *arena, Int id, UInt blockIndex, Int genID, int read,
                               UInt *size) {
    ULong blockID = VMABlockArrayBlockIDGet_(arena, id, blockIndex, genID);
    *size = blockID == INVALID_VMARENA_BLOCK_ID ? 0 : kSizes[blockID & 15];
    uintptr_t *slot;
    if (genID == OLDGEN) {
        qkassert(read);
        slot = &arena->r_gen.cache.data[OldEntry(arena, id, blockIndex)];
    } else {
        slot = BlockCacheSlot(ArrayRecord(&arena->rw_gen, (UInt)id), blockIndex);
    }
    uintptr_t entry = __atomic_load_n(slot, __ATOMIC_RELAXED);
    if (entry != 0 && (read || (entry & kWritableTag))) return (void *)(entry & ~kWritableTag);
    void *address = VMArenaDataAcquire(arena, blockID, genID, read, size, nullptr);
    if (address != nullptr)
        __atomic_store_n(slot, (uintptr_t)address | (read ? 0 : kWritableTag), __ATOMIC_RELAXED);
    return address;
}

QK_API void VMABlockArrayPrefetch(VMArena *arena, Int id, UInt blockIndex, Int genID) {
    VMArenaDataPrefetch(arena, VMABlockArrayBlockIDGet_(arena, id, blockIndex, genID), genID);
}

QK_API int VMABlockArrayInsert_(VMArena *arena, Int id, UInt size, UInt maxBlockSize,
                                UInt blockIndex, Int genID) {
    VMAArray *array = BlockArray(arena, id, genID);
    VMA_CHECK(arena, blockIndex <= FArrayLength(array->blockID) && size <= maxBlockSize);
    OpenPlace(array, blockIndex);
    PutNewBlock(arena, array, blockIndex, size);
    array->length += maxBlockSize;
    return 1;
}

QK_API int VMABlockArrayRemove_(VMArena *arena, Int id, UInt maxBlockSize, UInt blockIndex,
                                Int genID) {
    VMAArray *array = BlockArray(arena, id, genID);
    VMA_CHECK(arena, blockIndex < FArrayLength(array->blockID));
    VMArenaBlockFree(arena, BlockIDAt(array, blockIndex), NEWGEN);
    ClosePlace(array, blockIndex);
    array->length -= maxBlockSize;
    return 1;
}

QK_API UInt VMABlockArrayBlockGrowNth_(VMArena *arena, Int id, UInt newSize, UInt maxBlockSize,
                                       UInt blockIndex, Int genID) {
    VMAArray *array = BlockArray(arena, id, genID);
    VMA_CHECK(arena, blockIndex < FArrayLength(array->blockID) && newSize <= maxBlockSize);
    ULong old = BlockIDAt(array, blockIndex);
    UInt oldSize = 0;
    const void *from = VMArenaDataAcquire(arena, old, NEWGEN, 1, &oldSize, nullptr);
    UInt actual = PutNewBlock(arena, array, blockIndex, newSize);
    if (from != nullptr && actual > 0)
        memcpy((void *)(*BlockCacheSlot(array, blockIndex) & ~kWritableTag), from,
               oldSize < actual ? oldSize : actual);
    VMArenaBlockFree(arena, old, NEWGEN);
    return actual;
}

QK_API UInt VMABlockArrayBlockRound_(VMArena *arena, UInt size, UInt maxBlockSize) {
    VMA_CHECK(arena, size <= maxBlockSize);
    UInt sizeClass = 0;
    while (kSizes[sizeClass] < size) sizeClass++;
    return kSizes[sizeClass];
}

}  // extern "C"
