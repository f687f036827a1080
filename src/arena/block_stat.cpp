// The counts of a bucket's lists, printed for the operator.
#include <trio.h>

#include "arena/arena_internal.h"

namespace qk::arena {

void LocalBlockServer0StatPrint(LocalBlockServer0 *s) {
    LocalBlockServer0RW *rw = &s->rw_gen;
    MutexLock(&rw->mutex);
    Int used = 0, maxRaw = -1;
    for (UInt i = 0; i < FArrayLength(rw->map); i++) {
        UInt raw = FArrayNth(rw->map, UInt, i);
        if (raw == INVALID_RAW_BLOCK_ID) continue;
        used++;
        if ((Int)raw > maxRaw) maxRaw = (Int)raw;
    }
    Int total = (Int)(((ULong)s->mapping.rsize + s->mapping.rwLength) / s->blockSize);
    trio_printf("freeRawBlock old = %d, new = %d, freeBlock = %d\n",
                (Int)ArrayLength(rw->freeRawBlocksOld), (Int)ArrayLength(rw->freeRawBlocksNew),
                (Int)ArrayLength(rw->freeBlock));
    trio_printf("max used raw id %d\n", maxRaw);
    trio_printf("used raw blocks = %d, total raw block = %d\n", used, total);
    MutexUnlock(&rw->mutex);
}

}  // namespace qk::arena
