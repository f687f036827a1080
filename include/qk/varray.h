/*
 * Arena arrays: growable arrays of fixed-size elements stored in the blocks
 * of a VMArena, known by a small ID and by a path name, with a view in each
 * generation.
 *
 * Types of an array (stored in the arena's files):
 *   0 empty          no blocks
 *   1 full           every block 8192 bytes
 *   2 partial        every block full but the last, whose size class fits
 *                    the capacity asked for
 *   3 two-part       never made; every access path refuses it
 *   4 block array    blocks of at most 1 << log2size bytes, one per unit
 * A plain array moves 0 -> 2 -> 1 as it grows: it becomes full when asked
 * for three blocks' worth of elements. A block array is type 4 from the
 * start.
 *
 * Array 0 holds the names: each a path ("dir/name") followed by a NUL, the
 * first being array 1's, the next array 2's, and so on.
 *
 * Generations: NEWGEN is the writer's, OLDGEN the committed image that
 * readers walk under VMArenaOldGenAcquire. A write in NEWGEN copies the
 * block that it touches once per generation (the old image keeps its
 * bytes). An array made in this generation has ID -2 in OLDGEN until the
 * next commit.
 *
 * Addresses: VMAArrayRange_ gives the address of an element and, in
 * *upBound, the end of the stretch of elements that follow it without a
 * gap. Each array keeps its blocks' addresses in a block cache, with bit 0
 * set for a block that may be written in place in this generation; the
 * macros below read elements through that cache without a call, and call
 * VMAArrayRange_ only when the cache cannot answer.
 *
 * This arena works in memory-mapped mode only (no page cache): an address
 * stays good until the next memory commit, VMAArrayRelease_ has nothing to
 * give back, and VMAArrayLock_ has nothing to pin.
 *
 * Errors follow the library's contract: a failing return, the reason in the
 * thread's error state. An array ID, index or type out of range in a place
 * where it cannot be is corruption: a writable arena is tagged `corrupted`
 * and the process ends on the assertion.
 */
#ifndef QK_VARRAY_H
#define QK_VARRAY_H

#include "qk/arena.h"
#include "qk/array.h"
#include "qk/types.h"

QK_BEGIN_DECLS

enum {
    EMPTY_ARRAY_TYPE = 0,
    FULL_ARRAY_TYPE = 1,
    PARTIAL_ARRAY_TYPE = 2,
    TWO_PART_ARRAY_TYPE = 3,
    FULL_BLOCK_ARRAY_TYPE = 4
};

/* The ID of an array that does not exist in a generation. */
#define VMA_NO_ARRAY (-2)
/* Size of the path buffers that name arrays. */
#define VMARENA_PATH_SIZE 262

/* The sizes of the 16 block classes; an arena block ID's low 4 bits. */
QK_API extern const UInt VMArenaBlockSizes[16];

typedef QK_ARRAY(uintptr_t) AddressArray;

/* One array of the new generation. */
typedef struct VMAArray {
    FArray blockCache; /* uintptr_t per block: its address, bit 0 set when writable */
    FArray blockID;    /* ULong per block */
    UInt length;       /* elements */
    UByte type;
    UByte log2size; /* log2 of the block size */
    UInt reserved;
} VMAArray;

/* The old generation: every array's block IDs one after the other, where
 * each array begins, and per array its length and type. `cache` holds one
 * address per block ID once resolved, else 0; readers fill it at once and
 * all store the same value, so it is read and written atomically. */
typedef struct VMArenaR {
    AddressArray cache;
    ULongArray blockID;
    UIntArray start; /* arrayCount + 1 entries, the first 0 */
    UIntArray length;
    ByteArray type;
} VMArenaR;

/* What the element macros read; the first member of every VMArena. */
typedef struct VMArenaView {
    VMArenaR *oldGen;
    FArray *newArrays; /* VMAArray */
} VMArenaView;

/* The typed handle of an array: the arena, the array's ID in NEWGEN and in
 * OLDGEN (ids[genID]), and the element type through `t` (never set). */
#define VMAARRAY(T)     \
    struct {            \
        VMArena *arena; \
        Int ids[2];     \
        T *t;           \
    }
typedef VMAARRAY(void) VMAArrayHandle;

/* ---- Arrays by ID ---- */

/* A new array's ID (NEWGEN only): a freed ID if any, else the next. A plain
 * array has blocks of 8192 bytes and type 0; a block array blocks of
 * `blockSize`, a power of two, and type 4. */
QK_API Int VMAArrayNew(VMArena *arena, int blockArray, UInt blockSize, Int genID);
/* Frees the array's blocks and its ID. */
QK_API void VMAArrayFree(VMArena *arena, Int id, Int genID);
/* Frees the blocks; length 0; type 0 unless it is 4. */
QK_API void VMAArrayClear_(VMArena *arena, Int id, Int genID);
QK_API UInt VMAArrayLength_(VMArena *arena, Int id, Int genID);
/* NEWGEN only; no block changes. */
QK_API void VMAArrayLengthSet_(VMArena *arena, Int id, UInt length, Int genID);
/* The address of element `index` and the end of its contiguous stretch.
 * OLDGEN allows `index` equal to the length (for the caller that asks for
 * the end of an array) and needs `read`; NEWGEN does not, and a write
 * (`read` 0) there copies the block once per generation. With `prefetch`
 * the block is only brought in: the result is none and *upBound the end of
 * the block's elements. */
QK_API void *VMAArrayRange_(VMArena *arena, Int id, UInt blockSize, UInt index, UInt *upBound,
                            Int genID, int read, UInt eltSize, int prefetch);
/* Ends a range: nothing to do in mapped mode. */
QK_API void VMAArrayRelease_(VMArena *arena, Int id, Int genID, int read, void *address, int hint);
/* Grows the blocks to hold `capacity` elements (NEWGEN, `read` 0). */
QK_API int VMAArrayEnsureCapacity_(VMArena *arena, Int id, UInt blockSize, UInt capacity, Int genID,
                                   int read, UInt eltSize);
QK_API int VMAArrayAppend_(VMArena *arena, Int id, UInt blockSize, const void *data, UInt count,
                           Int genID, UInt eltSize);
/* Inserts `element` at `index`, moving the rest up by one; `scratch1` and
 * `scratch2` are two elements of working memory. */
QK_API int VMAArrayInsert_(VMArena *arena, Int id, UInt blockSize, UInt index, const void *element,
                           void *scratch1, void *scratch2, Int genID, UInt eltSize);
QK_API int VMAArrayRemove_(VMArena *arena, Int id, UInt blockSize, UInt index, Int genID,
                           UInt eltSize);
/* Copies every element of `srcID` to `destID`, emptying it first unless
 * `append`. */
QK_API int VMAArrayCopy_(VMArena *arena, Int destID, Int srcID, UInt blockSize, Int genID,
                         UInt eltSize, int append);
/* Overwrites `count` elements from `start`, which must lie inside the array. */
QK_API int VMAArraySetRange_(VMArena *arena, Int id, UInt blockSize, UInt start, const void *data,
                             UInt count, Int genID, UInt eltSize);
/* Brings every block in and, unless `prefetchOnly`, touches each; the bytes
 * of the array's elements. */
QK_API ULong VMAArrayLoad_(VMArena *arena, Int id, UInt blockSize, Int genID, UInt eltSize,
                           int prefetchOnly);
/* Pins pages of a page cache; a mapped arena pins nothing: 0. */
QK_API ULong VMAArrayLock_(VMArena *arena, Int id, UInt eltSize);

/* ---- Ranges that span blocks ---- */

typedef struct VMAArrayRangeCache VMAArrayRangeCache;
QK_API VMAArrayRangeCache *VMAArrayRangeCacheNew(VMArena *arena);
QK_API void VMAArrayRangeCacheFree(VMAArrayRangeCache *cache);
QK_API void VMAArrayRangeCacheSetTodo(VMAArrayRangeCache *cache, int todo);
/* An address from which [start, end) can be read contiguously: the array's
 * own memory when the range lies in one block, else the cache's buffer,
 * which a write (`read` 0) gives back with VMAArrayRangeRelease_. */
QK_API void *VMAArrayRangeAcquire_(VMArena *arena, Int id, UInt blockSize, UInt start, UInt end,
                                   Int genID, int read, UInt eltSize, VMAArrayRangeCache *cache);
QK_API int VMAArrayRangeRelease_(VMAArrayRangeCache *cache);

/* ---- Names ---- */

/* The ID of the array `name` (`length` bytes), or -2. With *create set
 * (NEWGEN, writable arena) a missing array is made; *create then tells
 * whether it was. `linear` asks for the scan of the name table; the arena
 * has no other name service yet, so both forms scan. */
QK_API Int VMAArrayFind(VMArena *arena, Int genID, const char *name, UInt length, int linear,
                        int *create, int blockArray, UInt blockSize);
/* The array named by `path`'s content followed by `str1` and, when given,
 * '/' and `str2`; never creates. `path` is a buffer of VMARENA_PATH_SIZE
 * bytes and keeps its content. */
QK_API int VMAArrayLookupFromPath(VMArena *arena, Int genID, char *path, const char *str1,
                                  const char *str2, int linear, Int *id);
/* Finds (with *create, makes) the array in both generations and fills the
 * handle; with `newGenOnly` (a store made in this generation) the OLDGEN ID
 * is the NEWGEN one. 0 when the array is missing and not made. */
QK_API int VMAArrayInitFromPath_(VMArena *arena, int *create, int newGenOnly, int blockArray,
                                 UInt blockSize, char *path, const char *str1, const char *str2,
                                 int linear, VMAArrayHandle *handle);
QK_API int VMAArrayInitFromPath(VMArena *arena, int *create, int newGenOnly, int blockArray,
                                UInt blockSize, char *path, const char *str1, const char *str2,
                                VMAArrayHandle *handle);
QK_API int VMABlockArrayInitFromPath_(VMArena *arena, int *create, int newGenOnly, UInt blockSize,
                                      char *path, const char *str1, const char *str2, int linear,
                                      VMAArrayHandle *handle);
QK_API int VMABlockArrayInitFromPath(VMArena *arena, int *create, int newGenOnly, UInt blockSize,
                                     char *path, const char *str1, const char *str2,
                                     VMAArrayHandle *handle);

/* ---- Block arrays: one block per unit, `length` counts maxBlockSize per
 * block ---- */

QK_API UInt VMABlockArrayBlockCount_(VMArena *arena, Int id, Int genID);
QK_API ULong VMABlockArrayBlockIDGet_(VMArena *arena, Int id, UInt blockIndex, Int genID);
/* The block's address and (in *size) its class size; none for an empty
 * place. */
QK_API void *VMABlockArrayGet_(VMArena *arena, Int id, UInt blockIndex, Int genID, int read,
                               UInt *size);
QK_API void VMABlockArrayPrefetch(VMArena *arena, Int id, UInt blockIndex, Int genID);
/* Inserts a block of `size` bytes (0: an empty place) at `blockIndex`. */
QK_API int VMABlockArrayInsert_(VMArena *arena, Int id, UInt size, UInt maxBlockSize,
                                UInt blockIndex, Int genID);
QK_API int VMABlockArrayRemove_(VMArena *arena, Int id, UInt maxBlockSize, UInt blockIndex,
                                Int genID);
/* Moves the block to one of `newSize` bytes, keeping the smaller of both
 * sizes' bytes; the new class size, 0 on failure. */
QK_API UInt VMABlockArrayBlockGrowNth_(VMArena *arena, Int id, UInt newSize, UInt maxBlockSize,
                                       UInt blockIndex, Int genID);
/* The class size for `size`; above `maxBlockSize` is fatal. */
QK_API UInt VMABlockArrayBlockRound_(VMArena *arena, UInt size, UInt maxBlockSize);

/* ---- Loading, statistics, checks ---- */

/* Records an array (NEWGEN) whose block ID list (`loadData`), block cache
 * (`loadCache`) and blocks (`loadContent`) VMArenaMemoryLoadCB touches. */
QK_API void VMArenaArrayLoadRegister_(VMArena *arena, int loadData, int loadCache, int loadContent,
                                      Int id, Int genID);
QK_API void VMArenaMemoryLoadCB(VMArena *arena);
/* Prints every array of the new generation and the total; with `detail`
 * the free lists and each bucket's counts. */
QK_API void VMAArenaStatPrint(VMArena *arena, int detail);
/* The number of blocks that two arrays (or an array and a free list) share
 * in the new, the old generation; each clash is printed. */
QK_API UInt VMArenaCheck(VMArena *arena);
QK_API UInt VMArenaCheckR(VMArena *arena);

/* ---- The fast path ---- */

/* VMAArrayRange_ without a call where the block cache answers: reading
 * OLDGEN through the old image's resolved addresses, reading NEWGEN through
 * the block cache, writing NEWGEN only on a block whose bit 0 is set. */
static inline void *VMAArrayRangeFast_(VMArena *arena, Int id, UInt blockSize, UInt index,
                                       UInt *upBound, Int genID, int read, UInt eltSize) {
    const VMArenaView *view = (const VMArenaView *)arena;
    UInt perBlock = blockSize / eltSize, block = index / perBlock;
    if (genID == OLDGEN) {
        const VMArenaR *r = view->oldGen;
        if (read && (UInt)id < r->length.length && index < r->length.data[id]) {
            UInt entry = r->start.data[id] + block;
            uintptr_t address = __atomic_load_n(&r->cache.data[entry], __ATOMIC_RELAXED);
            if (address != 0) {
                UInt length = r->length.data[id];
                ULong end = (ULong)block * perBlock +
                            VMArenaBlockSizes[r->blockID.data[entry] & 15] / eltSize;
                *upBound = end < length ? (UInt)end : length;
                return (char *)address + (size_t)(index - block * perBlock) * eltSize;
            }
        }
    } else if ((UInt)id < view->newArrays->length) {
        const VMAArray *a = (const VMAArray *)FArrayNth_(view->newArrays, (UInt)id, sizeof *a);
        if (index < a->length && block < a->blockCache.length && a->type != TWO_PART_ARRAY_TYPE) {
            uintptr_t *slot = (uintptr_t *)FArrayNth_(&a->blockCache, block, sizeof(uintptr_t));
            uintptr_t entry = __atomic_load_n(slot, __ATOMIC_RELAXED);
            if (entry != 0 && (read || (entry & 1))) {
                /* Every block of a plain array but the last is whole. */
                ULong end = (ULong)(block + 1) * perBlock;
                if (block + 1 == a->blockID.length || a->type == FULL_BLOCK_ARRAY_TYPE) {
                    ULong id = *(const ULong *)FArrayNth_(&a->blockID, block, sizeof(ULong));
                    end = (ULong)block * perBlock + VMArenaBlockSizes[id & 15] / eltSize;
                }
                *upBound = end < a->length ? (UInt)end : a->length;
                return (char *)(entry & ~(uintptr_t)1) +
                       (size_t)(index - block * perBlock) * eltSize;
            }
        }
    }
    return VMAArrayRange_(arena, id, blockSize, index, upBound, genID, read, eltSize, 0);
}

/* ---- Macros over a typed handle (plain arrays, blocks of 8192 bytes) ---- */

#define VMAArrayEltSize(s) ((UInt)sizeof(*(s).t))
#define VMAArrayID(s, genID) ((s).ids[genID])
#define VMAArrayExists(s, genID) ((s).ids[genID] != VMA_NO_ARRAY)
/* A typed pointer to element `index` and the end of its stretch. */
#define VMAArrayRange(s, index, upBound, genID, read)                                       \
    ((__typeof__((s).t))VMAArrayRangeFast_((s).arena, (s).ids[genID], ARENA_MAX_BLOCK_SIZE, \
                                           (index), (upBound), (genID), (read),             \
                                           VMAArrayEltSize(s)))
#define VMAArrayLength(s, genID) VMAArrayLength_((s).arena, (s).ids[genID], (genID))
#define VMAArrayLengthSet(s, length) \
    VMAArrayLengthSet_((s).arena, (s).ids[NEWGEN], (length), NEWGEN)
#define VMAArrayClear(s) VMAArrayClear_((s).arena, (s).ids[NEWGEN], NEWGEN)
#define VMAArrayEnsureCapacity(s, capacity)                                                       \
    VMAArrayEnsureCapacity_((s).arena, (s).ids[NEWGEN], ARENA_MAX_BLOCK_SIZE, (capacity), NEWGEN, \
                            0, VMAArrayEltSize(s))
#define VMAArrayAppend(s, data, count)                                                         \
    VMAArrayAppend_((s).arena, (s).ids[NEWGEN], ARENA_MAX_BLOCK_SIZE, (data), (count), NEWGEN, \
                    VMAArrayEltSize(s))
#define VMAArrayInsert(s, index, element, scratch1, scratch2)                             \
    VMAArrayInsert_((s).arena, (s).ids[NEWGEN], ARENA_MAX_BLOCK_SIZE, (index), (element), \
                    (scratch1), (scratch2), NEWGEN, VMAArrayEltSize(s))
#define VMAArrayRemove(s, index)                                                       \
    VMAArrayRemove_((s).arena, (s).ids[NEWGEN], ARENA_MAX_BLOCK_SIZE, (index), NEWGEN, \
                    VMAArrayEltSize(s))
#define VMAArraySetRange(s, start, data, count)                                                   \
    VMAArraySetRange_((s).arena, (s).ids[NEWGEN], ARENA_MAX_BLOCK_SIZE, (start), (data), (count), \
                      NEWGEN, VMAArrayEltSize(s))
#define VMAArrayRangeAcquire(s, start, end, genID, read, cache)                                    \
    ((__typeof__((s).t))VMAArrayRangeAcquire_((s).arena, (s).ids[genID], ARENA_MAX_BLOCK_SIZE,     \
                                              (start), (end), (genID), (read), VMAArrayEltSize(s), \
                                              (cache)))

QK_END_DECLS

#endif /* QK_VARRAY_H */
