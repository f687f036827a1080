// Bringing arrays into memory: a whole array at once, or the arrays that a
// collection registered, touched on demand. Touching reads one byte per
// page.
#include "arena/varray_internal.h"
#include "qk/memory.h"

using namespace qk::arena;

namespace {

ULong Touch(const void *address, size_t bytes) {
    size_t page = PageSize();
    for (size_t at = 0; at < bytes; at += page) {
        UByte byte = *((const volatile UByte *)address + at);
        (void)byte;
    }
    return bytes;
}

void TouchArray(VMArena *arena, const VMArenaLoadInfo &info) {
    VMAArray *array = VMAArrayRecordChecked(arena, info.arrayID);
    auto touch = [](void *pointer, UInt, size_t size, int *, void *) { Touch(pointer, size); };
    if (info.loadData) FArrayExec(array->blockID, ULong, touch, nullptr);
    if (info.loadCache) FArrayExec(array->blockCache, uintptr_t, touch, nullptr);
    if (!info.loadContent) return;
    for (UInt b = 0; b < FArrayLength(array->blockCache) && b < FArrayLength(array->blockID); b++) {
        uintptr_t entry = *BlockCacheSlot(array, b);
        if (entry != 0) Touch((void *)(entry & ~kWritableTag), kSizes[BlockIDAt(array, b) & 15]);
    }
}

}  // namespace

extern "C" {

QK_API ULong VMAArrayLoad_(VMArena *arena, Int id, UInt blockSize, Int genID, UInt eltSize,
                           int prefetchOnly) {
    UInt length = VMAArrayLength_(arena, id, genID);
    for (UInt i = 0, end; i < length; i = end)
        VMAArrayRange_(arena, id, blockSize, i, &end, genID, 1, eltSize, 1);
    ULong bytes = 0;
    if (prefetchOnly) return (ULong)length * eltSize;
    for (UInt i = 0, end; i < length; i = end) {
        const void *p = VMAArrayRangeFast_(arena, id, blockSize, i, &end, genID, 1, eltSize);
        if (p == nullptr) break;
        bytes += Touch(p, (size_t)(end - i) * eltSize);
    }
    return bytes;
}

QK_API ULong VMAArrayLock_(VMArena *, Int, UInt) {
    return 0;
}

QK_API void VMArenaArrayLoadRegister_(VMArena *arena, int loadData, int loadCache, int loadContent,
                                      Int id, Int genID) {
    qkassert(genID == NEWGEN);
    ArrayAdd(arena->loadInfo,
             (VMArenaLoadInfo{loadData != 0, loadCache != 0, loadContent != 0, id, genID}));
}

QK_API void VMArenaMemoryLoadCB(VMArena *arena) {
    RWLockAcquireRead(&arena->rw_gen.lock);
    for (UInt i = 0; i < ArrayLength(arena->loadInfo); i++)
        TouchArray(arena, ArrayNth(arena->loadInfo, i));
    RWLockRelease(&arena->rw_gen.lock);
}

}  // extern "C"
