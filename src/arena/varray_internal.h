// What the array operations share: the checked access to an array's record
// in either generation, its capacity, and the growth of its block list.
#pragma once

#include "arena/arena_internal.h"
#include "arena/block_read.h"

// An impossible state of the arrays: a writable arena is tagged `corrupted`,
// then the assertion ends the process.
#define VMA_CHECK(arena, expression) \
    ((expression) ? (void)0          \
                  : (VMArenaTagCorrupted(arena), qkassert_(#expression, __FILE__, __LINE__)))

namespace qk::arena {

// The new generation's record of array `id`; the ID and the type must be
// valid.
QK_API VMAArray *VMAArrayRecordChecked(VMArena *arena, Int id);
// The same checks on the old generation's tables.
QK_API void VMAArrayOldChecked(VMArena *arena, Int id);

// Elements that the array's blocks hold.
QK_API UInt VMAArrayCapacity(const VMAArray *array, UInt blockSize, UInt eltSize);
// A new block of at least `size` bytes in the new generation, acquired for
// writing: its block cache entry (address and write tag); its ID and class
// size in `id` and `actual`. Growing has no soft failure.
QK_API uintptr_t VMAArrayNewBlock(VMArena *arena, UInt size, ULong *id, UInt *actual);
// Appends a new block of at least `size` bytes to the array's lists, its
// cache entry writable; returns the block's class size. Growing has no soft
// failure.
QK_API UInt VMAArrayAddBlock(VMArena *arena, VMAArray *array, UInt size);
// Frees every block of the array and empties its lists.
QK_API void VMAArrayFreeBlocks(VMArena *arena, VMAArray *array);

inline uintptr_t *BlockCacheSlot(VMAArray *array, UInt block) {
    return &FArrayNth(array->blockCache, uintptr_t, block);
}
inline ULong &BlockIDAt(VMAArray *array, UInt block) {
    return FArrayNth(array->blockID, ULong, block);
}

// Copies `count` elements between the array and `buffer`, chunk by chunk:
// into the array when `write`, out of it otherwise.
QK_API bool VMAArrayTransfer(VMArena *arena, Int id, UInt blockSize, UInt start, UByte *buffer,
                             UInt count, Int genID, UInt eltSize, bool write);

}  // namespace qk::arena
