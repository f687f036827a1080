// Reading blocks and arrays of either generation through the mappings.
//
// The old generation is read without a lock or a call into the bucket: its
// block addresses are resolved once and kept in r_gen.cache. The new
// generation's arrays keep the address of each block in their blockCache,
// bit 0 set when the block may be written in place in this generation.
#pragma once

#include "arena/arena_internal.h"

namespace qk::arena {

// Bit 0 of a blockCache entry: the block belongs to this generation.
constexpr uintptr_t kWritableTag = 1;

// The address of the piece named `id` in generation `genID`, for reading,
// and its size class's size in *size; none (size 0) for
// INVALID_VMARENA_BLOCK_ID or a block that does not exist.
QK_API UByte *VMArenaDataReadAddress(VMArena *arena, ULong id, Int genID, UInt *size);

// The number of arrays in a generation.
QK_API UInt VMArenaArrayCount(VMArena *arena, Int genID);
// Elements of array `id`; the ID must be in range.
QK_API UInt VMAArrayReadLength(VMArena *arena, Int id, Int genID);
// The address of element `index` of array `id`, with elements of `eltSize`
// bytes in blocks of `blockSize`; elements up to the exclusive *upBound lie
// after it without a gap. In the old generation the index may equal the
// length: *upBound is then the length, and the address none when the array
// has no block there, which is no error. Otherwise none means an index out
// of range or a block that cannot be reached, with the error state set.
QK_API const UByte *VMAArrayReadRange(VMArena *arena, Int id, UInt blockSize, UInt index,
                                      UInt eltSize, UInt *upBound, Int genID);

// Fills every array's blockCache from its block IDs, for reading.
QK_API void VMArenaFillBlockCaches(VMArena *arena);

}  // namespace qk::arena
