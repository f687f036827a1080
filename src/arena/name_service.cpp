// The array directory as a scan of the name table, array 0.
#include <string.h>

#include "arena/block_read.h"
#include "arena/name_service.h"
#include "arena/varray_internal.h"

namespace qk::arena {

bool NameServiceOpen(VMArena *arena) {
    NameService *names = &arena->nameService;
    names->mutex = MUTEX_INITIALIZER;
    ArrayInit(names->key);
    return true;
}

void NameServiceClose(VMArena *arena) {
    NameService *names = &arena->nameService;
    ArrayFree(names->key);
    MutexDestroy(&names->mutex);
}

// Names end in a NUL; the first is array 1's.
Int NameServiceFind(VMArena *arena, Int genID, const char *name, UInt length, UInt *count) {
    NameService *names = &arena->nameService;
    MutexLock(&names->mutex);
    ArrayClear(names->key);
    ArrayAppend(names->key, name, length);
    const UByte *key = names->key.data;
    Int result = kNoArray;
    UInt total = VMArenaArrayCount(arena, genID) > 0 ? VMAArrayReadLength(arena, 0, genID) : 0;
    Int arrayID = 1;
    UInt matched = 0;  // bytes of the current name that equal the key's
    bool differs = false;
    for (UInt i = 0; i < total && result == kNoArray;) {
        UInt end;
        const UByte *bytes = VMAArrayReadRange(arena, 0, ARENA_MAX_BLOCK_SIZE, i, 1, &end, genID);
        if (bytes == nullptr) {
            result = -1;
            break;
        }
        for (; i < end; i++, bytes++) {
            if (*bytes == 0) {
                if (!differs && matched == length) {
                    result = arrayID;
                    break;
                }
                arrayID++;
                matched = 0;
                differs = false;
            } else if (!differs && matched < length && key[matched] == *bytes) {
                matched++;
            } else {
                differs = true;
            }
        }
    }
    MutexUnlock(&names->mutex);
    if (count != nullptr) *count = (UInt)arrayID - 1;
    return result;
}

Int NameServiceAdd(VMArena *arena, const char *name, UInt length, UInt count, bool blockArray,
                   UInt blockSize) {
    static const char kEnd = 0;
    VMAArrayAppend_(arena, 0, ARENA_MAX_BLOCK_SIZE, name, length, NEWGEN, 1);
    VMAArrayAppend_(arena, 0, ARENA_MAX_BLOCK_SIZE, &kEnd, 1, NEWGEN, 1);
    Int ret0 = (Int)count + 1;
    Int ret = VMAArrayNew(arena, blockArray, blockSize, NEWGEN);
    // A freed array ID would be taken here: named arrays are never freed.
    VMA_CHECK(arena, ret0 == ret);
    return ret;
}

}  // namespace qk::arena
