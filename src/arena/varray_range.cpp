// The address of an element in either generation, and the block caches
// that let the element macros skip this call.
#include "arena/varray_internal.h"

using namespace qk::arena;

namespace {

void *Missing(ULong blockID, Int id) {
    QKErrorThrow(QK_ERR_FORMAT, QK_DOMAIN_GENERAL, "missing block %I64u of array %d", blockID, id);
    return nullptr;
}

UInt Bound(ULong end, UInt length) {
    return end < length ? (UInt)end : length;
}

// Readers of the old image may resolve the same entry at once: they all
// store the same address.
void *RangeOld(VMArena *arena, Int id, UInt perBlock, UInt index, UInt *upBound, UInt eltSize,
               bool prefetch) {
    VMAArrayOldChecked(arena, id);
    VMArenaR *r = &arena->r_gen;
    UInt length = ArrayNth(r->length, id);
    if (index > length) {
        QKErrorThrow(QK_ERR_INVALID, QK_DOMAIN_GENERAL,
                     "index = %d, length = %d, arrayID = %d, gen = OLD", index, length, id);
        return nullptr;
    }
    UInt block = index / perBlock, first = ArrayNth(r->start, id);
    if (block >= ArrayNth(r->start, id + 1) - first) {
        // The end of an array that fills its last block: nothing to read.
        *upBound = length;
        return index == length ? nullptr : Missing(INVALID_VMARENA_BLOCK_ID, id);
    }
    UInt entry = first + block;
    ULong blockID = ArrayNth(r->blockID, entry);
    if (prefetch) {
        VMArenaDataPrefetch(arena, blockID, OLDGEN);
        *upBound = Bound((ULong)(block + 1) * perBlock, length);
        return nullptr;
    }
    UInt size = kSizes[blockID & 15];
    uintptr_t address = __atomic_load_n(&r->cache.data[entry], __ATOMIC_RELAXED);
    if (address == 0) {
        address = (uintptr_t)VMArenaDataAcquire(arena, blockID, OLDGEN, 1, &size, nullptr);
        if (address == 0) return Missing(blockID, id);
        __atomic_store_n(&r->cache.data[entry], address, __ATOMIC_RELAXED);
    }
    *upBound = Bound((ULong)block * perBlock + size / eltSize, length);
    return (UByte *)address + (size_t)(index % perBlock) * eltSize;
}

void *RangeNew(VMArena *arena, Int id, UInt perBlock, UInt index, UInt *upBound, bool read,
               UInt eltSize, bool prefetch) {
    VMAArray *array = VMAArrayRecordChecked(arena, id);
    if (index >= array->length) {
        QKError("index = %d, length = %d, arrayID = %d, gen = NEW", index, array->length, id);
        VMA_CHECK(arena, index < array->length);
    }
    UInt block = index / perBlock;
    VMA_CHECK(arena, block < FArrayLength(array->blockID));
    ULong blockID = BlockIDAt(array, block);
    if (prefetch) {
        VMArenaDataPrefetch(arena, blockID, NEWGEN);
        *upBound = Bound((ULong)(block + 1) * perBlock, array->length);
        return nullptr;
    }
    UInt size;
    uintptr_t address = (uintptr_t)VMArenaDataAcquire(arena, blockID, NEWGEN, read, &size, nullptr);
    if (address == 0) return Missing(blockID, id);
    // A read keeps bit 0 of an entry that already names this block.
    uintptr_t *slot = BlockCacheSlot(array, block);
    uintptr_t entry = __atomic_load_n(slot, __ATOMIC_RELAXED);
    if (!read || (entry & ~kWritableTag) != address) entry = address | (read ? 0 : kWritableTag);
    __atomic_store_n(slot, entry, __ATOMIC_RELAXED);
    *upBound = Bound((ULong)block * perBlock + size / eltSize, array->length);
    return (UByte *)address + (size_t)(index % perBlock) * eltSize;
}

}  // namespace

extern "C" {

QK_API void *VMAArrayRange_(VMArena *arena, Int id, UInt blockSize, UInt index, UInt *upBound,
                            Int genID, int read, UInt eltSize, int prefetch) {
    qkassert(eltSize > 0 && eltSize <= blockSize);
    UInt perBlock = blockSize / eltSize;
    if (genID == OLDGEN) {
        qkassert(read);
        return RangeOld(arena, id, perBlock, index, upBound, eltSize, prefetch);
    }
    qkassert(genID == NEWGEN);
    return RangeNew(arena, id, perBlock, index, upBound, read, eltSize, prefetch);
}

QK_API void VMAArrayRelease_(VMArena *, Int, Int, int, void *, int) {}

QK_API UInt VMAArrayLength_(VMArena *arena, Int id, Int genID) {
    if (genID == OLDGEN) {
        VMAArrayOldChecked(arena, id);
        return ArrayNth(arena->r_gen.length, id);
    }
    return VMAArrayRecordChecked(arena, id)->length;
}

}  // extern "C"
