// Array records: checked access, capacity, and the block lists.
#include "arena/varray_internal.h"

namespace qk::arena {

VMAArray *VMAArrayRecordChecked(VMArena *arena, Int id) {
    VMA_CHECK(arena, id >= 0 && (UInt)id < FArrayLength(arena->rw_gen.array));
    VMAArray *array = ArrayRecord(&arena->rw_gen, (UInt)id);
    VMA_CHECK(arena, array->type < TWO_PART_ARRAY_TYPE || array->type == FULL_BLOCK_ARRAY_TYPE);
    return array;
}

void VMAArrayOldChecked(VMArena *arena, Int id) {
    VMArenaR *r = &arena->r_gen;
    VMA_CHECK(arena, id >= 0 && (UInt)id < ArrayLength(r->length));
    VMA_CHECK(arena, ArrayNth(r->type, id) < TWO_PART_ARRAY_TYPE ||
                         ArrayNth(r->type, id) == FULL_BLOCK_ARRAY_TYPE);
}

UInt VMAArrayCapacity(const VMAArray *array, UInt blockSize, UInt eltSize) {
    UInt blocks = FArrayLength(array->blockID), perBlock = blockSize / eltSize;
    if (array->type == EMPTY_ARRAY_TYPE || blocks == 0) return 0;
    if (array->type != PARTIAL_ARRAY_TYPE) return blocks * perBlock;
    ULong last = FArrayNth(array->blockID, ULong, blocks - 1);
    return (blocks - 1) * perBlock + kSizes[last & 15] / eltSize;
}

uintptr_t VMAArrayNewBlock(VMArena *arena, UInt size, ULong *id, UInt *actual) {
    *id = VMArenaBlockNew(arena, size, actual, NEWGEN);
    bool success = *id != INVALID_VMARENA_BLOCK_ID;
    qkassert(success);
    // A piece taken from a free list may lie in a block of the old image:
    // acquiring it for writing copies that block now.
    void *range = VMArenaDataAcquire(arena, *id, NEWGEN, 0, nullptr, nullptr);
    qkassert(range != NULL);
    return (uintptr_t)range | kWritableTag;
}

UInt VMAArrayAddBlock(VMArena *arena, VMAArray *array, UInt size) {
    UInt actual;
    ULong id;
    uintptr_t entry = VMAArrayNewBlock(arena, size, &id, &actual);
    int ok = 1;
    FArrayAdd(array->blockID, &id, &ok);
    FArrayAdd(array->blockCache, &entry, &ok);
    qkassert(ok);
    return actual;
}

void VMAArrayFreeBlocks(VMArena *arena, VMAArray *array) {
    for (UInt b = 0; b < FArrayLength(array->blockID); b++)
        VMArenaBlockFree(arena, BlockIDAt(array, b), NEWGEN);
    VMAArrayRecordFree(array);
    VMAArrayRecordInit(array, array->type, array->log2size);
}

bool VMAArrayTransfer(VMArena *arena, Int id, UInt blockSize, UInt start, UByte *buffer, UInt count,
                      Int genID, UInt eltSize, bool write) {
    for (UInt i = start, end; i < start + count; i = end) {
        UByte *p =
            (UByte *)VMAArrayRangeFast_(arena, id, blockSize, i, &end, genID, !write, eltSize);
        if (p == nullptr) return false;
        if (end > start + count) end = start + count;
        size_t bytes = (size_t)(end - i) * eltSize;
        if (write) {
            memcpy(p, buffer, bytes);
        } else {
            memcpy(buffer, p, bytes);
        }
        buffer += bytes;
    }
    return true;
}

}  // namespace qk::arena
