// Addresses of pieces and logical blocks in either generation. In mapped
// mode an address stays good until the next memory commit, and a release
// has nothing to do.
#include "arena/arena_internal.h"

using namespace qk::arena;

extern "C" {

QK_API void *VMArenaDataBlockAcquire(VMArena *arena, UInt block, Int genID, int read) {
    UInt index;
    LocalBlockServer0 *s = LocalBlockServerBucket(&arena->server, block, &index);
    if (s == nullptr) return nullptr;
    return LocalBlockServer0BlockReach(s, index, genID, read != 0);
}

QK_API void *VMArenaDataAcquire(VMArena *arena, ULong id, Int genID, int read, UInt *size,
                                UInt *sizeClass) {
    if (size != nullptr) *size = 0;
    if (id == INVALID_VMARENA_BLOCK_ID) return nullptr;
    BlockRef ref = BlockIDDecode(id);
    UInt pieceSize = kSizes[ref.sizeClass];
    UInt index;
    LocalBlockServer0 *s = LocalBlockServerBucket(&arena->server, ref.logical, &index);
    if (s == nullptr || (ULong)(ref.slot + 1) * pieceSize > ARENA_MAX_BLOCK_SIZE) return nullptr;
    UByte *block = LocalBlockServer0BlockReach(s, index, genID, read != 0);
    if (block == nullptr) return nullptr;
    if (size != nullptr) *size = pieceSize;
    if (sizeClass != nullptr) *sizeClass = ref.sizeClass;
    return block + (size_t)ref.slot * pieceSize;
}

QK_API void VMArenaDataRelease(VMArena *, Int, int, void *, int) {}

QK_API UInt VMABlockInfoGet(VMArena *arena, UInt block, Int genID, UInt *bucket) {
    UInt index;
    LocalBlockServer0 *s = LocalBlockServerBucket(&arena->server, block, &index);
    if (bucket != nullptr) *bucket = block & ((1u << arena->server.bucketBits) - 1);
    if (s == nullptr) return INVALID_RAW_BLOCK_ID;
    return LocalBlockServer0RawID(s, index, genID);
}

}  // extern "C"
