// Pools of recycled items. Items at rest wait on `free`; `t.count` counts the
// items that are out, and an acquire with a limit waits on the condition
// while that many are out. The callback prepares and releases items outside
// the lock, so that a slow initialisation does not serialise the pool.
#include "qk/frame.h"
#include "qk/memory.h"

extern "C" {

void *PoolAcquire_(Pool *pool, void *argument, size_t itemSize, const char *file, int line,
                   int limit) {
    MutexLock(&pool->t.mutex);
    while (limit >= 0 && pool->t.count >= (UInt)limit) {
        ConditionWait(&pool->t.condition, &pool->t.mutex);
    }
    pool->t.count++;
    if (pool->free.length > 0) {
        void *item = pool->free.data[--pool->free.length];
        MutexUnlock(&pool->t.mutex);
        if (pool->callback) pool->callback(POOL_REUSE, item, argument);
        return item;
    }
    MutexUnlock(&pool->t.mutex);
    void *item = Allocate_(itemSize, NULL, file, line);
    if (pool->callback) pool->callback(POOL_NEW, item, argument);
    return item;
}

void PoolRelease_(Pool *pool, void *item, void *argument) {
    if (pool->callback) pool->callback(POOL_RELEASE, item, argument);
    MutexLock(&pool->t.mutex);
    ArrayAdd(pool->free, item);
    qkassert(pool->t.count > 0);
    pool->t.count--;
    ConditionSignal(&pool->t.condition);
    MutexUnlock(&pool->t.mutex);
}

void PoolCompact_(Pool *pool, void *argument) {
    MutexLock(&pool->t.mutex);
    for (UInt i = 0; i < pool->free.length; i++) {
        void *item = pool->free.data[i];
        if (pool->callback) pool->callback(POOL_DELETE, item, argument);
        UnAllocate_(item);
    }
    pool->free.length = 0;
    MutexUnlock(&pool->t.mutex);
}

void PoolFree_(Pool *pool, void *argument) {
    PoolCompact_(pool, argument);
    ArrayFree_(&pool->free);
    MutexDestroy(&pool->t.mutex);
}

}  // extern "C"
