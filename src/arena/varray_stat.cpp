// The operator's report on an arena's arrays: per array its name, length,
// blocks and the bytes its blocks hold against those in use.
#include <trio.h>

#include <string>

#include "arena/varray_internal.h"

using namespace qk::arena;

namespace {

// Array `id`'s name in the table of array 0, or "".
std::string NameOf(VMArena *arena, UInt id) {
    std::string name;
    UInt length = VMAArrayReadLength(arena, 0, NEWGEN), arrayID = 1;
    for (UInt i = 0, end; i < length && arrayID <= id; i = end) {
        const UByte *p = VMAArrayReadRange(arena, 0, ARENA_MAX_BLOCK_SIZE, i, 1, &end, NEWGEN);
        if (p == nullptr) break;
        for (UInt k = i; k < end && arrayID <= id; k++, p++) {
            if (*p == 0) {
                arrayID++;
            } else if (arrayID == id) {
                name += (char)*p;
            }
        }
    }
    return name;
}

}  // namespace

extern "C" QK_API void VMAArenaStatPrint(VMArena *arena, int detail) {
    VMArenaRW *rw = &arena->rw_gen;
    ULong total = 0;
    for (UInt id = 0; id < FArrayLength(rw->array); id++) {
        VMAArray *array = ArrayRecord(rw, id);
        ULong blocks = FArrayLength(array->blockID), size = 0, largest = 0;
        for (UInt b = 0; b < blocks; b++) {
            ULong blockID = BlockIDAt(array, b);
            ULong bytes = blockID == INVALID_VMARENA_BLOCK_ID ? 0 : kSizes[blockID & 15];
            size += bytes;
            if (bytes > largest) largest = bytes;
        }
        // The element size is the collection's: `touched` counts the length
        // in bytes for byte arrays and block arrays, elements otherwise.
        ULong touched = array->length;
        trio_printf("# id = %d\n", (Int)id);
        trio_printf("name = \"%s\"\n", NameOf(arena, id).c_str());
        trio_printf("length = %d\n", (Int)array->length);
        trio_printf("block count = %I64u, ", blocks);
        trio_printf("max block size = %I64u, ", largest);
        trio_printf("average per block = %I64u\n", blocks ? size / blocks : 0);
        if (size > 0) {
            trio_printf("size = %I64u, touched = %I64u, %f %%\n", size, touched,
                        100.0 * (double)touched / (double)size);
        } else {
            trio_printf("size = %I64u, touched = %I64u\n", size, touched);
        }
        total += size;
    }
    trio_printf("totalSize = %I64u\n", total);
    if (!detail) return;
    trio_printf("Dumping free lists\n");
    MutexLock(&rw->mutex);
    for (UInt c = 0; c < kSizeClasses; c++)
        trio_printf("size = %d, free = %d\n", (Int)kSizes[c], (Int)ArrayLength(rw->freeBlock[c]));
    MutexUnlock(&rw->mutex);
    for (UInt b = 0; b < ArrayLength(arena->server.buckets); b++)
        LocalBlockServer0StatPrint(ArrayNth(arena->server.buckets, b));
}
