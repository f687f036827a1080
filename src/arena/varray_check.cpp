// The check that no two arrays share a block: every block of every array,
// and in the new generation every piece of the size-class free lists
// (r = 1), is collected as (block ID, array, block index, piece index, r),
// sorted, and neighbours that name the same block are reported.
#include <trio.h>

#include <algorithm>
#include <vector>

#include "arena/varray_internal.h"

using namespace qk::arena;

namespace {

struct Use {
    ULong blockID;
    Int array;  // -1 for a free list
    Int blockIndex;
    Int index;  // position in the array's or the free list's blocks
    Int r;      // 1: free
    bool operator<(const Use &o) const { return blockID < o.blockID; }
};

UInt Report(std::vector<Use> &uses) {
    std::sort(uses.begin(), uses.end());
    UInt clashes = 0;
    for (size_t i = 1; i < uses.size(); i++) {
        const Use &a = uses[i - 1], &b = uses[i];
        if (a.blockID != b.blockID) continue;
        clashes++;
        const char *format =
            a.r || b.r ? "r block clash !!!\n blockID = %d, %d\n arrayIndex = %d, %d\n "
                         "blockIndex = %d, %d\n index = %d, %d,\n r = %d, %d\n"
                       : "hard block clash !!!\n blockID = %d, %d\n arrayIndex = %d, %d\n "
                         "blockIndex = %d, %d\n index = %d, %d\n, r = %d, %d\n";
        trio_printf(format, (Int)a.blockID, (Int)b.blockID, a.array, b.array, a.blockIndex,
                    b.blockIndex, a.index, b.index, a.r, b.r);
    }
    return clashes;
}

}  // namespace

extern "C" {

QK_API UInt VMArenaCheck(VMArena *arena) {
    std::vector<Use> uses;
    VMArenaRW *rw = &arena->rw_gen;
    for (UInt id = 0; id < FArrayLength(rw->array); id++) {
        VMAArray *array = ArrayRecord(rw, id);
        for (UInt b = 0; b < FArrayLength(array->blockID); b++) {
            ULong blockID = BlockIDAt(array, b);
            if (blockID != INVALID_VMARENA_BLOCK_ID)
                uses.push_back({blockID, (Int)id, (Int)b, (Int)uses.size(), 0});
        }
    }
    MutexLock(&rw->mutex);
    for (UInt c = 0; c < kSizeClasses; c++) {
        for (UInt i = 0; i < ArrayLength(rw->freeBlock[c]); i++)
            uses.push_back({ArrayNth(rw->freeBlock[c], i), -1, (Int)c, (Int)i, 1});
    }
    MutexUnlock(&rw->mutex);
    return Report(uses);
}

QK_API UInt VMArenaCheckR(VMArena *arena) {
    std::vector<Use> uses;
    VMArenaR *r = &arena->r_gen;
    for (UInt id = 0; id < ArrayLength(r->length); id++) {
        for (UInt e = ArrayNth(r->start, id); e < ArrayNth(r->start, id + 1); e++) {
            ULong blockID = ArrayNth(r->blockID, e);
            if (blockID != INVALID_VMARENA_BLOCK_ID)
                uses.push_back({blockID, (Int)id, (Int)(e - ArrayNth(r->start, id)), (Int)e, 0});
        }
    }
    return Report(uses);
}

}  // extern "C"
