// The arena's allocator: pieces of 16 size classes carved from 8192-byte
// logical blocks. Each class keeps a stack of freed pieces and the logical
// block it is carving; a carved block stays in its class for good.
#include "arena/arena_internal.h"

using namespace qk::arena;

namespace {

UInt SizeClassOf(UInt size) {
    UInt sizeClass = 0;
    while (kSizes[sizeClass] < size) sizeClass++;
    return sizeClass;
}

void CheckWriter(VMArena *arena, Int genID) {
    qkassert(!arena->readOnly);
    qkassert(genID == NEWGEN);
}

}  // namespace

extern "C" {

const UInt VMArenaBlockSizes[16] = {64,  88,  112,  128,  160,  256,  312,  512,
                                    584, 744, 1024, 1632, 2048, 2728, 4096, 8192};

QK_API ULong VMArenaBlockNew(VMArena *arena, UInt size, UInt *actualSize, Int genID) {
    CheckWriter(arena, genID);
    if (size > ARENA_MAX_BLOCK_SIZE) {
        VMArenaTagCorrupted(arena);
        qkassert(size <= ARENA_MAX_BLOCK_SIZE);
    }
    UInt sizeClass = SizeClassOf(size);
    if (actualSize != nullptr) *actualSize = kSizes[sizeClass];
    VMArenaRW *rw = &arena->rw_gen;
    MutexLock(&rw->mutex);
    ULongArray *free = &rw->freeBlock[sizeClass];
    if (ArrayLength(*free) > 0) {
        ULong id = ArrayLast(*free);
        free->length--;
        MutexUnlock(&rw->mutex);
        return id;
    }
    VMArenaPartial *partial = &rw->partial[sizeClass];
    if (partial->block == 0xFFFFFFFFu) {
        UInt block = LocalBlockServerBlockNew(&arena->server);
        // The arena has no room left: the allocator's mutex stays held and
        // the arena gives out nothing more.
        if (block == INVALID_RAW_BLOCK_ID) return INVALID_VMARENA_BLOCK_ID;
        *partial = {block, 0};
    }
    ULong id = BlockIDMake(sizeClass, partial->slot, partial->block);
    if (++partial->slot == ARENA_MAX_BLOCK_SIZE / kSizes[sizeClass]) *partial = {0xFFFFFFFFu, 0};
    MutexUnlock(&rw->mutex);
    return id;
}

QK_API void VMArenaBlockFree(VMArena *arena, ULong id, Int genID) {
    CheckWriter(arena, genID);
    if (id == INVALID_VMARENA_BLOCK_ID) return;
    BlockRef ref = BlockIDDecode(id);
    qkassert(ref.logical < INVALID_RAW_BLOCK_ID);
    if (kSizes[ref.sizeClass] == ARENA_MAX_BLOCK_SIZE) {
        VMArenaDataBlockFree(arena, (UInt)ref.logical, genID);
        return;
    }
    VMArenaRW *rw = &arena->rw_gen;
    MutexLock(&rw->mutex);
    ArrayAdd(rw->freeBlock[ref.sizeClass], id);
    MutexUnlock(&rw->mutex);
}

QK_API UInt VMArenaDataBlockNew(VMArena *arena, Int genID) {
    CheckWriter(arena, genID);
    VMArenaRW *rw = &arena->rw_gen;
    MutexLock(&rw->mutex);
    UInt block = LocalBlockServerBlockNew(&arena->server);
    MutexUnlock(&rw->mutex);
    return block;
}

QK_API void VMArenaDataBlockFree(VMArena *arena, UInt block, Int genID) {
    CheckWriter(arena, genID);
    LocalBlockServerBlockFree(&arena->server, block);
}

}  // extern "C"
