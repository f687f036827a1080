// Changing an array's elements: append, insert, remove, overwrite, copy,
// and the length and blocks as a whole. All of it in the new generation;
// each write goes through the block cache, so that a block of the old
// image is copied once at its first write.
#include "arena/varray_internal.h"

using namespace qk::arena;

namespace {

VMAArray *Writable(VMArena *arena, Int id, Int genID) {
    qkassert(genID == NEWGEN && !arena->readOnly);
    return VMAArrayRecordChecked(arena, id);
}

UByte *Chunk(VMArena *arena, Int id, UInt blockSize, UInt index, UInt *end, UInt eltSize) {
    UByte *p = (UByte *)VMAArrayRangeFast_(arena, id, blockSize, index, end, NEWGEN, 0, eltSize);
    qkassert(p != NULL);
    return p;
}

}  // namespace

extern "C" {

QK_API void VMAArrayFree(VMArena *arena, Int id, Int genID) {
    VMAArray *array = Writable(arena, id, genID);
    VMAArrayFreeBlocks(arena, array);
    array->type = EMPTY_ARRAY_TYPE;
    MutexLock(&arena->rw_gen.mutex);
    ArrayAdd(arena->rw_gen.freeArrays, (UInt)id);
    MutexUnlock(&arena->rw_gen.mutex);
}

QK_API void VMAArrayClear_(VMArena *arena, Int id, Int genID) {
    VMAArray *array = Writable(arena, id, genID);
    VMAArrayFreeBlocks(arena, array);
    if (array->type != FULL_BLOCK_ARRAY_TYPE) array->type = EMPTY_ARRAY_TYPE;
}

QK_API void VMAArrayLengthSet_(VMArena *arena, Int id, UInt length, Int genID) {
    Writable(arena, id, genID)->length = length;
}

QK_API int VMAArrayAppend_(VMArena *arena, Int id, UInt blockSize, const void *data, UInt count,
                           Int genID, UInt eltSize) {
    VMAArray *array = Writable(arena, id, genID);
    UInt start = array->length;
    qkassert((ULong)start + count <= 0xFFFFFFFFull);
    if (!VMAArrayEnsureCapacity_(arena, id, blockSize, start + count, genID, 0, eltSize)) return 0;
    array->length = start + count;
    return VMAArrayTransfer(arena, id, blockSize, start, (UByte *)data, count, genID, eltSize,
                            true);
}

QK_API int VMAArraySetRange_(VMArena *arena, Int id, UInt blockSize, UInt start, const void *data,
                             UInt count, Int genID, UInt eltSize) {
    VMAArray *array = Writable(arena, id, genID);
    VMA_CHECK(arena, (ULong)start + count <= array->length);
    return VMAArrayTransfer(arena, id, blockSize, start, (UByte *)data, count, genID, eltSize,
                            true);
}

// Grows by one, then walks from `index` to the end chunk by chunk: each
// chunk's last element is saved, the rest moves up by one, and the element
// carried from the chunk before takes the first place.
QK_API int VMAArrayInsert_(VMArena *arena, Int id, UInt blockSize, UInt index, const void *element,
                           void *scratch1, void *scratch2, Int genID, UInt eltSize) {
    VMAArray *array = Writable(arena, id, genID);
    VMA_CHECK(arena, index <= array->length);
    if (!VMAArrayAppend_(arena, id, blockSize, element, 1, genID, eltSize)) return 0;
    memcpy(scratch1, element, eltSize);
    void *carried = scratch1, *saved = scratch2;
    for (UInt i = index, end; i < array->length; i = end) {
        UByte *p = Chunk(arena, id, blockSize, i, &end, eltSize);
        size_t rest = (size_t)(end - i - 1) * eltSize;
        memcpy(saved, p + rest, eltSize);
        memmove(p + eltSize, p, rest);
        memcpy(p, carried, eltSize);
        void *swap = carried;
        carried = saved;
        saved = swap;
    }
    return 1;
}

// Walks from `index` to the end: each chunk moves down by one, and its first
// element goes to the last place of the chunk before.
QK_API int VMAArrayRemove_(VMArena *arena, Int id, UInt blockSize, UInt index, Int genID,
                           UInt eltSize) {
    VMAArray *array = Writable(arena, id, genID);
    VMA_CHECK(arena, index < array->length);
    UByte *lastPlace = nullptr;
    for (UInt i = index, end; i < array->length; i = end) {
        UByte *p = Chunk(arena, id, blockSize, i, &end, eltSize);
        if (lastPlace != nullptr) memcpy(lastPlace, p, eltSize);
        size_t rest = (size_t)(end - i - 1) * eltSize;
        memmove(p, p + eltSize, rest);
        lastPlace = p + rest;
    }
    array->length--;
    return 1;
}

QK_API int VMAArrayCopy_(VMArena *arena, Int destID, Int srcID, UInt blockSize, Int genID,
                         UInt eltSize, int append) {
    qkassert(destID != srcID);
    VMAArray *dest = Writable(arena, destID, genID);
    VMAArray *src = VMAArrayRecordChecked(arena, srcID);
    if (!append) VMAArrayClear_(arena, destID, genID);
    UInt at = dest->length, count = src->length;
    qkassert((ULong)at + count <= 0xFFFFFFFFull);
    if (!VMAArrayEnsureCapacity_(arena, destID, blockSize, at + count, genID, 0, eltSize)) return 0;
    dest->length = at + count;
    for (UInt i = 0, end; i < count; i = end) {
        const UByte *p =
            (const UByte *)VMAArrayRangeFast_(arena, srcID, blockSize, i, &end, NEWGEN, 1, eltSize);
        if (p == nullptr) return 0;
        if (!VMAArrayTransfer(arena, destID, blockSize, at + i, (UByte *)p, end - i, genID, eltSize,
                              true))
            return 0;
    }
    return 1;
}

}  // extern "C"
