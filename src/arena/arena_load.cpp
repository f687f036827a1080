// Bringing an arena's data into memory, and the advice of its mappings.
#include "arena/arena_internal.h"
#include "qk/memory.h"

using namespace qk::arena;

namespace {

// Reads one byte of each page of the block.
void Touch(const UByte *block, UInt size) {
    size_t page = PageSize();
    for (size_t at = 0; at < size; at += page) {
        UByte byte = *(const volatile UByte *)(block + at);
        (void)byte;
    }
}

void TouchMap(LocalBlockServer0 *s, FArray *map) {
    for (UInt i = 0; i < FArrayLength(*map); i++) {
        UInt raw = FArrayNth(*map, UInt, i);
        if (raw == INVALID_RAW_BLOCK_ID) continue;
        const UByte *block = MemoryMappingRawBlockGet(&s->mapping, raw, false);
        if (block != nullptr) Touch(block, s->blockSize);
    }
}

}  // namespace

extern "C" {

QK_API int VMArenaLoad(VMArena *arena, const Int *genID) {
    RWLockAcquireRead(&arena->oldGenLock);
    for (UInt b = 0; b < ArrayLength(arena->server.buckets); b++) {
        LocalBlockServer0 *s = ArrayNth(arena->server.buckets, b);
        if (*genID == OLDGEN) {
            TouchMap(s, &s->r_gen);
        } else {
            MutexLock(&s->rw_gen.mutex);
            TouchMap(s, &s->rw_gen.map);
            MutexUnlock(&s->rw_gen.mutex);
        }
    }
    RWLockRelease(&arena->oldGenLock);
    return 1;
}

QK_API int VMArenaMemoryAdvise(VMArena *arena, int advice) {
    for (UInt b = 0; b < ArrayLength(arena->server.buckets); b++)
        MemoryMappingAdvise(&ArrayNth(arena->server.buckets, b)->mapping, advice);
    return 1;
}

// The mappings are shared with the file: the system writes them back by
// itself, and a commit syncs what it needs.
QK_API int VMArenaMSync(VMArena *) {
    return 1;
}

}  // extern "C"
