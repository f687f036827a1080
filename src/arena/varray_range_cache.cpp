// Ranges that span blocks: a caller that needs [start, end) in one piece
// gets the array's own memory when the range lies in one block, else a copy
// in the cache's buffer, written back on release when it was taken for
// writing.
#include "arena/varray_internal.h"
#include "qk/memory.h"

using namespace qk::arena;

struct VMAArrayRangeCache {
    VMArena *arena;
    Int id;
    UInt start;
    UInt end;
    Int genID;
    UInt eltSize;
    UInt blockSize;
    bool todo;  // the buffer holds a write not yet given back
    ByteArray buffer;
};

extern "C" {

QK_API VMAArrayRangeCache *VMAArrayRangeCacheNew(VMArena *arena) {
    auto *cache = AllocateZero(VMAArrayRangeCache);
    cache->arena = arena;
    return cache;
}

QK_API void VMAArrayRangeCacheFree(VMAArrayRangeCache *cache) {
    if (cache == nullptr) return;
    ArrayFree(cache->buffer);
    UnAllocate(cache);
}

QK_API void VMAArrayRangeCacheSetTodo(VMAArrayRangeCache *cache, int todo) {
    cache->todo = todo != 0;
}

QK_API void *VMAArrayRangeAcquire_(VMArena *arena, Int id, UInt blockSize, UInt start, UInt end,
                                   Int genID, int read, UInt eltSize, VMAArrayRangeCache *cache) {
    qkassert(start <= end);
    UInt upBound;
    void *address = VMAArrayRangeFast_(arena, id, blockSize, start, &upBound, genID, read, eltSize);
    if (address == nullptr || upBound >= end) return address;
    if (!read) {
        *cache = {arena, id, start, end, genID, eltSize, blockSize, true, cache->buffer};
    }
    ArraySetLength(cache->buffer, (size_t)(end - start) * eltSize);
    if (!VMAArrayTransfer(arena, id, blockSize, start, cache->buffer.data, end - start, genID,
                          eltSize, false))
        return nullptr;
    return cache->buffer.data;
}

QK_API int VMAArrayRangeRelease_(VMAArrayRangeCache *cache) {
    if (!cache->todo) return 1;
    cache->todo = false;
    return VMAArrayTransfer(cache->arena, cache->id, cache->blockSize, cache->start,
                            cache->buffer.data, cache->end - cache->start, cache->genID,
                            cache->eltSize, true);
}

}  // extern "C"
