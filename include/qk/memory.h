/*
 * Memory: the heap functions that never report exhaustion, page-level
 * operations on anonymous mappings, the library's sort, and pools of
 * recycled items.
 */
#ifndef QK_MEMORY_H
#define QK_MEMORY_H

#include "qk/array.h"
#include "qk/thread.h"
#include "qk/types.h"

QK_BEGIN_DECLS

/* ---- Heap ---- */

/* realloc that ends the process when memory runs out. Size 0 frees the
 * block and returns none. */
QK_API void *Allocate_(size_t size, void *pointer, const char *file, int line);
QK_API char *Strdup_(const char *string, const char *file, int line);
QK_API void UnAllocate_(void *pointer);

#define Allocate(size, pointer) Allocate_((size), (pointer), __FILE__, __LINE__)
#define Strdup(string) Strdup_((string), __FILE__, __LINE__)
#define UnAllocate(pointer) UnAllocate_(pointer)
/* A new zero-filled object of type T. */
#define AllocateZero(T) ((T *)memset(Allocate(sizeof(T), NULL), 0, sizeof(T)))

/* ---- Process limits and heap debugging ---- */

QK_API int QKSetProcessMaxSize(ULong size);
QK_API int QKSetProcessMaxCore(ULong size);
QK_API int DEBUG_MALLOC_CHECK(void);
QK_API int DEBUG_MALLOC_CHECK_BLOCK(void *block);
QK_API void DEBUG_MALLOC_DUMP(void);
QK_API void DEBUG_MALLOC_DUMP_SORTED(void);
QK_API void DEBUG_MALLOC_DUMP_SORTED_SIZE(void);
QK_API void DEBUG_MALLOC_DUMP_INFO(void);
QK_API void DEBUG_MALLOC_LOCK(void);
QK_API void DEBUG_MALLOC_UNLOCK(void);
QK_API void *DEBUG_MALLOC_FIND_BLOCK_START(void *address);

/* ---- Virtual mapping: absent on this platform ---- */

QK_API void VMapInit(void);
QK_API void VMapFree(void *pointer);
QK_API void *VMapAlloc(size_t size);
QK_API void *VMapRealloc(void *pointer, size_t size);

/* ---- Page-level memory ---- */

QK_API size_t PageSize(void);
QK_API size_t MappingGranularity(void);
QK_API ULong AvailableMemory(void);
QK_API UInt AvailableProcessors(void);
/* Zero-filled private read-write memory. Size 0 gives none with errno 0;
 * failure gives none with errno -1. */
QK_API void *MemoryMap_(size_t size, const char *file, int line);
QK_API int MemoryUnmap_(void *pointer, size_t size);
QK_API void *MemoryRemap_(void *pointer, size_t oldSize, size_t newSize, const char *file,
                          int line);
QK_API int MemoryLoad(const void *address, size_t length);
QK_API int MemoryLock(void *address, size_t length);
QK_API int MemoryUnlock(void *address, size_t length);
QK_API int MemoryProtect(void *address, size_t length, int readOnly);
QK_API int MemoryAdvise(void *address, size_t length, int advice);
QK_API void MemoryPrefetch(const void *address, size_t length);

#define MemoryMap(size) MemoryMap_((size), __FILE__, __LINE__)
#define MemoryUnmap(pointer, size) MemoryUnmap_((pointer), (size))
#define MemoryRemap(pointer, oldSize, newSize) \
    MemoryRemap_((pointer), (oldSize), (newSize), __FILE__, __LINE__)

/* ---- Sort ---- */

typedef int (*QSortCompare)(const void *a, const void *b, void *argument);

/* Three-way quicksort; the result has no meaning. */
QK_API int QSort(void *base, UInt count, UInt size, QSortCompare compare, void *argument);

/* ---- Pools ---- */

enum {
    POOL_NEW = 0,     /* a new item was just allocated: initialise it fully */
    POOL_REUSE = 1,   /* an item came off the free list: prepare it for use */
    POOL_RELEASE = 2, /* an item is coming back: release what it holds */
    POOL_DELETE = 3   /* the pool frees the item: final clean-up */
};

typedef void (*PoolCallback)(int operation, void *item, void *argument);

typedef struct Pool {
    PtrArray free;
    PoolCallback callback;
    struct {
        Mutex mutex;
        Condition condition;
        UInt count; /* items out */
    } t;
} Pool;

#define POOL_INITIALIZER(callback)                      \
    {                                                   \
        {NULL, 0, 0}, (callback), {                     \
            MUTEX_INITIALIZER, CONDITION_INITIALIZER, 0 \
        }                                               \
    }

/* limit -1: no limit on the items out. */
QK_API void *PoolAcquire_(Pool *pool, void *argument, size_t itemSize, const char *file, int line,
                          int limit);
QK_API void PoolRelease_(Pool *pool, void *item, void *argument);
QK_API void PoolCompact_(Pool *pool, void *argument);
QK_API void PoolFree_(Pool *pool, void *argument);

#define PoolAcquire(pool, argument, T, limit) \
    ((T *)PoolAcquire_(&(pool), (argument), sizeof(T), __FILE__, __LINE__, (limit)))
#define PoolRelease(pool, item, argument) PoolRelease_(&(pool), (item), (argument))
#define PoolCompact(pool, argument) PoolCompact_(&(pool), (argument))
#define PoolFree(pool, argument) PoolFree_(&(pool), (argument))

QK_END_DECLS

#endif /* QK_MEMORY_H */
