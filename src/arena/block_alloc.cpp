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

// The allocator's own table, for the element macros of the public header.
const UInt VMArenaBlockSizes[16] = {
    kSizes[0], kSizes[1], kSizes[2],  kSizes[3],  kSizes[4],  kSizes[5],  kSizes[6],  kSizes[7],
    kSizes[8], kSizes[9], kSizes[10], kSizes[11], kSizes[12], kSizes[13], kSizes[14], kSizes[15]};
static_assert(sizeof VMArenaBlockSizes / sizeof *VMArenaBlockSizes == kSizeClasses);

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
