/*
 * Database arrays: many small byte strings (elements) in an arena, addressed
 * by bucket and handle, the element's number in its bucket (0, 1, 2, ... in
 * the order of their addition).
 *
 * An array at path `name` has, per bucket b, three arena arrays under
 * "<name>/dbarray/", each named with b in four lower-case hex digits:
 *   data<b>          block array of blocks of 64 to 4096 bytes
 *   index<b>         32-bit: for handles 64 * i, the block that holds it
 *   firstHandle<b>   32-bit: per block, its first handle
 * An array that exists has as many buckets as it has data<b> arrays.
 *
 * A block, little-endian:
 *   0   u16          indexSize: the entries of the in-block index
 *   2   u16          dataSize: the bytes of data
 *   4   dataSize     the elements one after the other, each a number (the
 *                    library's variable-length form: 7 bits a byte, low
 *                    group first, bit 0 set when a byte follows) giving its
 *                    length, then its bytes
 *   ... free ...
 *   end - 2k  u16    entry k (k = 1 .. indexSize, counted back from the end
 *                    of the block): the data offset (from byte 4) of the
 *                    element at place 8k of the block
 * A block is full when 4 + dataSize + 2 * indexSize would pass its size.
 * An element takes at most DBARRAY_MAX_ELEMENT_SIZE bytes: with its
 * two-byte length it fills a 4096-byte block alone.
 *
 * Large-element arrays (LDBArray) keep elements of any size up to 2^31 - 1
 * bytes in two database arrays with the same bucket count, under
 * "<name>/ldbarray/":
 *   head    per element, its handle: the number of the element's length,
 *           then, for a length up to LDBARRAY_INLINE_SIZE, the bytes
 *           themselves; for a longer one, the number of its first chunk
 *   chunks  the bytes of long elements, cut in chunks of
 *           DBARRAY_MAX_ELEMENT_SIZE bytes (the last one shorter), at
 *           consecutive handles of the same bucket
 * A rewrite of a long element reuses its chunks when it needs no more of
 * them; cleared chunks are kept as empty elements.
 *
 * One writer per array, in NEWGEN; readers of OLDGEN in parallel (holding
 * the arena's old-generation lock). An address that DBArrayGet gives stays
 * good until the next change of the array (NEWGEN) or the next commit.
 * Inconsistent blocks are corruption: the arena is tagged corrupted and the
 * process ends on the assertion.
 */
#ifndef QK_DBARRAY_H
#define QK_DBARRAY_H

#include "qk/varray.h"

QK_BEGIN_DECLS

#define DBARRAY_MAX_BLOCK_SIZE 4096
#define DBARRAY_MAX_ELEMENT_SIZE 4090
#define DBARRAY_MAX_BUCKETS 65536
/* Long elements of at most this many bytes live in their head element. */
#define LDBARRAY_INLINE_SIZE 4080
#define LDBARRAY_MAX_ELEMENT_SIZE 0x7FFFFFFFu
/* The handle that DBArrayAdd and LDBArrayAdd give on failure. */
#define DBARRAY_NO_HANDLE 0xFFFFFFFFu

typedef struct DBArray DBArray;
typedef struct LDBArray LDBArray;
typedef struct LDBArrayThreadData LDBArrayThreadData;

/* Opens (with *create, makes with `bucketCount` buckets, at most 65536)
 * the array named by `path`'s content followed by `name`; `path` is a
 * buffer of VMARENA_PATH_SIZE bytes and keeps its content. *create tells
 * whether anything was made. None when the array is missing and not made,
 * or on failure. `linear` asks the arena's name table to be scanned. */
QK_API DBArray *DBArrayNew_(VMArena *arena, char *path, const char *name, int linear, int *create,
                            int newGenOnly, UInt bucketCount);
QK_API DBArray *DBArrayNew(VMArena *arena, char *path, const char *name, int *create,
                           int newGenOnly, UInt bucketCount);
QK_API void DBArrayFree(DBArray *array);
/* After the arena's commit: the arrays exist in OLDGEN under their NEWGEN
 * IDs. */
QK_API void DBArrayCommit(DBArray *array);
/* Removes every element of every bucket (NEWGEN). */
QK_API void DBArrayClear(DBArray *array, Int genID);
/* Walks every block of the generation, printing "bucketIndex = %d:
 * blockCount = %d" per bucket and a line per fault; the number of faults. */
QK_API UInt DBArrayCheck(DBArray *array, Int genID);
/* The bytes of the blocks of the generation; *dataBytes (may be null) gets
 * the bytes of the elements with their lengths. */
QK_API ULong DBArrayUsage(DBArray *array, Int genID, ULong *dataBytes);
QK_API int DBArrayMSync(DBArray *array);
/* With compaction (the default), blocks whose elements fit in fewer bytes
 * are merged after each change. */
QK_API void DBArraySetCompact(DBArray *array, int compact);
/* Not 0: new blocks are made at 4096 bytes at once instead of growing from
 * 64. */
QK_API void DBArraySetMaxBlocks(DBArray *array, UInt maxBlocks);
QK_API UInt DBArrayBucketCount(DBArray *array);
/* The number of elements of the bucket. */
QK_API UInt DBArraySize(DBArray *array, UInt bucket, Int genID);
/* Appends an element (NEWGEN); its handle, or DBARRAY_NO_HANDLE with the
 * error state set. */
QK_API UInt DBArrayAdd(DBArray *array, UInt bucket, const void *data, UInt length, Int genID);
/* The element's bytes and (*length) their count; none and 0 for a handle
 * that does not exist. Without `read` (NEWGEN) the bytes may be written in
 * place. Ended by DBArrayRelease. */
QK_API void *DBArrayGet(DBArray *array, UInt bucket, UInt handle, Int genID, int read,
                        UInt *length);
QK_API void DBArrayRelease(DBArray *array, Int genID, int read, void *address);
/* Gives the element `length` bytes (NEWGEN), keeping the first bytes of
 * its content; 0 with the error state set on failure. */
QK_API int DBArrayLengthSet(DBArray *array, UInt bucket, UInt handle, Int genID, UInt length);
/* Replaces the element's bytes. */
QK_API int DBArraySet(DBArray *array, UInt bucket, UInt handle, Int genID, const void *data,
                      UInt length);
QK_API void DBArrayPrefetch(DBArray *array, UInt bucket, UInt handle, Int genID);
QK_API void DBArrayPrefetchLocked(DBArray *array, UInt bucket, UInt handle, Int genID);
/* The address of the element's block, or 0 when the handle does not exist. */
QK_API uintptr_t DBArrayHintGet(DBArray *array, UInt bucket, UInt handle, Int genID);
/* Registers every bucket's arrays with the arena's loader (NEWGEN). */
QK_API void DBArrayLoadRegister(DBArray *array, int loadData, int loadCache, int loadContent);
/* Brings the index arrays in; their bytes. */
QK_API ULong DBArrayIndexLoad(DBArray *array, Int genID);

/* ---- Large elements ---- */

QK_API LDBArray *LDBArrayNew_(VMArena *arena, char *path, const char *name, int linear, int *create,
                              int newGenOnly, UInt bucketCount);
QK_API LDBArray *LDBArrayNew(VMArena *arena, char *path, const char *name, int *create,
                             int newGenOnly, UInt bucketCount);
QK_API void LDBArrayFree(LDBArray *array);
QK_API void LDBArrayCommit(LDBArray *array);
QK_API UInt LDBArrayCheck(LDBArray *array, Int genID);
QK_API UInt LDBArrayBucketCount(LDBArray *array);
/* Scratch memory for reads that span chunks, one per reading thread. */
QK_API LDBArrayThreadData *LDBArrayThreadDataNew(void);
QK_API void LDBArrayThreadDataReInit(LDBArrayThreadData *data);
QK_API void LDBArrayThreadDataFree(LDBArrayThreadData *data);
QK_API UInt LDBArraySize(LDBArray *array, UInt bucket, Int genID);
QK_API UInt LDBArrayAdd(LDBArray *array, UInt bucket, const void *data, UInt length, Int genID);
/* The length of an element; 0 for a handle that does not exist. */
QK_API UInt LDBArrayLength(LDBArray *array, UInt bucket, UInt handle, Int genID);
/* An address from which bytes [offset, offset + length) of the element can
 * be read: the arena's memory when they lie in one chunk, else the thread
 * data's copy. None (error state set) when the range passes the element.
 * Ended by LDBArrayRelease. */
QK_API const void *LDBArrayRange(LDBArray *array, LDBArrayThreadData *threadData, UInt bucket,
                                 UInt handle, UInt offset, UInt length, Int genID);
/* Appends the whole element to `out`; 0 when the handle does not exist. */
QK_API int LDBArrayGetArray(LDBArray *array, UInt bucket, UInt handle, Int genID, ByteArray *out);
QK_API uintptr_t LDBArrayHintGet(LDBArray *array, UInt bucket, UInt handle, Int genID);
QK_API void LDBArrayRelease(LDBArray *array, Int genID, const void *address);
/* The element becomes empty; its chunks are emptied. */
QK_API int LDBArrayClearElement(LDBArray *array, UInt bucket, UInt handle, Int genID);
QK_API void LDBArrayClear(LDBArray *array, Int genID);
/* Replaces the element's bytes. */
QK_API int LDBArrayDataSet(LDBArray *array, UInt bucket, UInt handle, const void *data, UInt length,
                           Int genID);
QK_API ULong LDBArrayUsage(LDBArray *array, Int genID, ULong *dataBytes);
QK_API void LDBArrayLoadRegister(LDBArray *array, int loadData, int loadCache, int loadContent);
QK_API void LDBArrayPrefetch(LDBArray *array, UInt bucket, UInt handle, Int genID);
QK_API int LDBArrayMSync(LDBArray *array);
QK_API ULong LDBArrayIndexLoad(LDBArray *array, Int genID);
QK_API void LDBArraySetCompact(LDBArray *array, int compact);
QK_API void LDBArraySetMaxBlocks(LDBArray *array, UInt maxBlocks);

QK_END_DECLS

#endif /* QK_DBARRAY_H */
