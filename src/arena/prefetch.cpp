// Reading ahead: the block of one piece, and what the allocator gives out
// next (the freed pieces of each class and the lowest free raw blocks of
// each bucket, which the next new blocks and copies take).
#include <stdlib.h>

#include <utility>
#include <vector>

#include "arena/arena_internal.h"

using namespace qk::arena;

namespace {

// A weak random number of 30 bits; the order of prefetching means nothing.
UInt RandomKey() {
    return ((UInt)rand() << 15) ^ (UInt)rand();
}

template <typename T>
void Shuffle(std::vector<T> *items) {
    for (size_t i = items->size(); i > 1; i--)
        std::swap((*items)[i - 1], (*items)[RandomKey() % i]);
}

void PrefetchRawBlocks(LocalBlockServer0 *s, UInt count) {
    LocalBlockServer0RW *rw = &s->rw_gen;
    MutexLock(&rw->mutex);
    UInt length = ArrayLength(rw->freeRawBlocksOld);
    UInt first = count < length ? length - count : 0;
    std::vector<UInt> raw(rw->freeRawBlocksOld.data + first, rw->freeRawBlocksOld.data + length);
    Shuffle(&raw);
    for (UInt id : raw) MemoryMappingPrefetch(&s->mapping, id);
    MutexUnlock(&rw->mutex);
}

}  // namespace

extern "C" {

QK_API void VMArenaDataPrefetch(VMArena *arena, ULong id, Int genID) {
    if (id == INVALID_VMARENA_BLOCK_ID) return;
    UInt index;
    LocalBlockServer0 *s =
        LocalBlockServerBucket(&arena->server, BlockIDDecode(id).logical, &index);
    if (s == nullptr) return;
    if (genID != NEWGEN) {
        UInt raw = LocalBlockServer0RawID(s, index, genID);
        if (raw != INVALID_RAW_BLOCK_ID) MemoryMappingPrefetch(&s->mapping, raw);
        return;
    }
    MutexLock(&s->rw_gen.mutex);
    if (index < FArrayLength(s->rw_gen.map)) {
        UInt raw = FArrayNth(s->rw_gen.map, UInt, index);
        if (raw != INVALID_RAW_BLOCK_ID) MemoryMappingPrefetch(&s->mapping, raw);
    }
    MutexUnlock(&s->rw_gen.mutex);
}

QK_API void VMArenaFreePrefetch(VMArena *arena, UInt bytes) {
    std::vector<ULong> pieces;
    VMArenaRW *rw = &arena->rw_gen;
    MutexLock(&rw->mutex);
    for (UInt c = 0; c + 1 < kSizeClasses; c++) {
        ULong counted = 0;
        for (UInt i = ArrayLength(rw->freeBlock[c]); i > 0 && counted < bytes; i--) {
            pieces.push_back(ArrayNth(rw->freeBlock[c], i - 1));
            counted += kSizes[c];
        }
    }
    MutexUnlock(&rw->mutex);
    for (ULong id : pieces) VMArenaDataPrefetch(arena, id, NEWGEN);
    UInt count = ArrayLength(arena->server.buckets);
    if (count == 0) return;
    std::vector<LocalBlockServer0 *> buckets(arena->server.buckets.data,
                                             arena->server.buckets.data + count);
    Shuffle(&buckets);
    for (LocalBlockServer0 *s : buckets) PrefetchRawBlocks(s, bytes / count / s->blockSize);
}

}  // extern "C"
