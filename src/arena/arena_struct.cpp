// The arena's generations in memory: making and freeing their arrays, and
// the records of new arrays.
#include <string.h>

#include "arena/arena_internal.h"
#include "qk/memory.h"

namespace {

// First capacities of the per-array fragments and of the array table.
constexpr UInt kBlockFragment = 256;
constexpr UInt kArrayFragment = 256;

}  // namespace

namespace qk::arena {

void VMArenaRWInit(VMArenaRW *rw) {
    memset(rw, 0, sizeof *rw);
    rw->mutex = MUTEX_INITIALIZER;
    for (UInt c = 0; c < kSizeClasses; c++) rw->partial[c] = {0xFFFFFFFFu, 0};
    FArrayInitHeap(rw->array, kArrayFragment);
    RWLockInit(&rw->lock);
}

void VMArenaRWClear(VMArenaRW *rw) {
    for (UInt i = 0; i < FArrayLength(rw->array); i++) VMAArrayRecordFree(ArrayRecord(rw, i));
    FArrayFree(rw->array, VMAArray);
    FArrayInitHeap(rw->array, kArrayFragment);
    for (UInt c = 0; c < kSizeClasses; c++) {
        ArrayFree(rw->freeBlock[c]);
        rw->partial[c] = {0xFFFFFFFFu, 0};
    }
    ArrayFree(rw->freeArrays);
}

void VMArenaRWFree(VMArenaRW *rw) {
    VMArenaRWClear(rw);
    FArrayFree(rw->array, VMAArray);
    RWLockDestroy(&rw->lock);
    MutexDestroy(&rw->mutex);
}

void VMArenaRInit(VMArenaR *r) {
    memset(r, 0, sizeof *r);
}

void VMArenaRFree(VMArenaR *r) {
    ArrayFree(r->cache);
    ArrayFree(r->blockID);
    ArrayFree(r->start);
    ArrayFree(r->length);
    ArrayFree(r->type);
}

void VMArenaLoadInfoInit(VMArena *arena) {
    ArrayInit(arena->loadInfo);
}

void VMArenaLoadInfoFree(VMArena *arena) {
    ArrayFree(arena->loadInfo);
}

void VMAArrayRecordInit(VMAArray *array, UByte type, UByte log2size) {
    memset(array, 0, sizeof *array);
    FArrayInitHeap(array->blockCache, kBlockFragment);
    FArrayInitHeap(array->blockID, kBlockFragment);
    array->type = type;
    array->log2size = log2size;
}

void VMAArrayRecordFree(VMAArray *array) {
    FArrayFree(array->blockCache, uintptr_t);
    FArrayFree(array->blockID, ULong);
}

}  // namespace qk::arena

using namespace qk::arena;

extern "C" QK_API Int VMAArrayNew(VMArena *arena, int blockArray, UInt blockSize, Int genID) {
    qkassert(genID == NEWGEN);
    qkassert(!arena->readOnly);
    UByte log2size = 13, type = EMPTY_ARRAY_TYPE;
    if (blockArray) {
        log2size = 0;
        while ((1u << log2size) < blockSize) log2size++;
        qkassert((1u << log2size) == blockSize && blockSize <= ARENA_MAX_BLOCK_SIZE);
        type = FULL_BLOCK_ARRAY_TYPE;
    }
    VMArenaRW *rw = &arena->rw_gen;
    MutexLock(&rw->mutex);
    Int id;
    if (ArrayLength(rw->freeArrays) > 0) {
        id = (Int)ArrayLast(rw->freeArrays);
        rw->freeArrays.length--;
        VMAArray *array = ArrayRecord(rw, (UInt)id);
        VMAArrayRecordFree(array);
        VMAArrayRecordInit(array, type, log2size);
    } else {
        VMAArray array;
        VMAArrayRecordInit(&array, type, log2size);
        int ok = 1;
        id = (Int)FArrayAdd(rw->array, &array, &ok);
        qkassert(ok);
    }
    MutexUnlock(&rw->mutex);
    return id;
}
