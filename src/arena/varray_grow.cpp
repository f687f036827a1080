// Growth of an array's blocks. A plain array grows by size classes while it
// is small (type 2: its last block is of the smallest class that holds the
// capacity asked for) and by whole 8192-byte blocks once it is asked for
// three blocks' worth (type 1). The last block of a type 2 array is set
// aside on each growth and its elements copied into the new blocks, so that
// thousands of tiny arrays cost little. A block array (type 4) grows by
// blocks of its own size.
#include "arena/varray_internal.h"

using namespace qk::arena;

namespace {

// The last block of a partial array, taken off the array during growth.
struct SetAside {
    ULong id = INVALID_VMARENA_BLOCK_ID;
    const UByte *address = nullptr;
    UInt first = 0;  // its first element
    UInt end = 0;    // one past its last element in use
};

SetAside TakeLastBlock(VMArena *arena, VMAArray *array, UInt perBlock, UInt eltSize) {
    SetAside aside;
    UInt blocks = FArrayLength(array->blockID);
    aside.id = BlockIDAt(array, blocks - 1);
    UInt size;
    aside.address = (const UByte *)VMArenaDataAcquire(arena, aside.id, NEWGEN, 1, &size, nullptr);
    VMA_CHECK(arena, aside.address != nullptr);
    aside.first = (blocks - 1) * perBlock;
    ULong end = (ULong)aside.first + size / eltSize;
    aside.end = end < array->length ? (UInt)end : array->length;
    array->blockID.length--;
    array->blockCache.length--;
    return aside;
}

}  // namespace

extern "C" QK_API int VMAArrayEnsureCapacity_(VMArena *arena, Int id, UInt blockSize, UInt capacity,
                                              Int genID, int read, UInt eltSize) {
    qkassert(genID == NEWGEN && !read && !arena->readOnly);
    qkassert(eltSize > 0 && eltSize <= blockSize);
    VMAArray *array = VMAArrayRecordChecked(arena, id);
    UInt have = VMAArrayCapacity(array, blockSize, eltSize);
    if (capacity <= have) return 1;
    UInt perBlock = blockSize / eltSize;
    UByte target;
    if (array->type == FULL_BLOCK_ARRAY_TYPE) {
        VMA_CHECK(arena, (1u << array->log2size) == blockSize);
        target = FULL_BLOCK_ARRAY_TYPE;
    } else {
        target = capacity >= 3ull * perBlock ? FULL_ARRAY_TYPE : PARTIAL_ARRAY_TYPE;
    }
    SetAside aside;
    if (array->type == PARTIAL_ARRAY_TYPE && FArrayLength(array->blockID) > 0) {
        aside = TakeLastBlock(arena, array, perBlock, eltSize);
        have = aside.first;
    }
    if (target == PARTIAL_ARRAY_TYPE) {
        for (; (ULong)have + perBlock < capacity; have += perBlock)
            VMAArrayAddBlock(arena, array, blockSize);
        have += VMAArrayAddBlock(arena, array, (capacity - have) * eltSize) / eltSize;
    } else {
        for (; have < capacity; have += perBlock) VMAArrayAddBlock(arena, array, blockSize);
    }
    array->type = target;
    if (aside.id != INVALID_VMARENA_BLOCK_ID) {
        bool success = VMAArrayTransfer(arena, id, blockSize, aside.first, (UByte *)aside.address,
                                        aside.end - aside.first, NEWGEN, eltSize, true);
        qkassert(success);
        VMArenaBlockFree(arena, aside.id, NEWGEN);
    }
    return 1;
}
