/*
 * Threads and locks: thread creation with results kept for join, per-thread
 * variables with destructors, a mutex that can be initialised statically, a
 * condition built from a semaphore and an event, a reader-writer lock that
 * favours writers, and an upgradable reader-writer lock.
 *
 * A failure of any lock primitive is fatal; misuse is an assertion.
 */
#ifndef QK_THREAD_H
#define QK_THREAD_H

#include <pthread.h>

#include "qk/types.h"

QK_BEGIN_DECLS

/* ---- Threads ---- */

/* A thread's function; its result is kept for ThreadJoin. */
typedef UInt (*ThreadFunction)(void *argument);

/* A handle on a thread: from ThreadCreate_, consumed by ThreadJoin or
 * ThreadDetach; or from ThreadGetCurrent, valid in the calling thread. */
typedef struct QKThread *ThreadHandle;

typedef ThreadHandle (*ThreadCreateHook)(ThreadFunction function, void *argument, UInt stackSize,
                                         const char *file, int line);
typedef void (*ThreadCreateDetachedHook)(ThreadFunction function, void *argument, UInt stackSize,
                                         const char *file, int line);

QK_API ThreadHandle ThreadCreate_(ThreadFunction function, void *argument, UInt stackSize,
                                  const char *file, int line);
QK_API void ThreadCreateDetached_(ThreadFunction function, void *argument, UInt stackSize,
                                  const char *file, int line);
QK_API void SetThreadCreateHooks(ThreadCreateHook create, ThreadCreateDetachedHook createDetached);
QK_API UInt ThreadJoin(ThreadHandle handle);
QK_API int ThreadDetach(ThreadHandle handle);
QK_API ThreadHandle ThreadGetCurrent(void);
/* Sets a Unix-like nice value (-20 to 20, mapped through the priority table). */
QK_API int ThreadSetPriority(ThreadHandle handle, int nice);
/* The kernel's identifier of the calling thread. */
QK_API ULong ThreadId(void);

struct MessageContext;
QK_API struct MessageContext *ThreadInit(void);
QK_API void ThreadCleanup(void);

#define ThreadCreate(function, argument, stackSize) \
    ThreadCreate_((function), (argument), (stackSize), __FILE__, __LINE__)
#define ThreadCreateDetached(function, argument, stackSize) \
    ThreadCreateDetached_((function), (argument), (stackSize), __FILE__, __LINE__)

/* ---- Thread variables ---- */

typedef UInt ThreadVar;
typedef void (*ThreadVarDestructor)(void *value);

QK_API ThreadVar ThreadVarCreate(ThreadVarDestructor destructor);
QK_API void *ThreadVarGet(ThreadVar var);
QK_API void ThreadVarSet(ThreadVar var, void *value);

/* ---- Mutex ---- */

/* One word: the address of a recursive lock, or all ones until first use. */
typedef uintptr_t Mutex;
#define MUTEX_INVALID (~(uintptr_t)0)
#define MUTEX_INITIALIZER MUTEX_INVALID

QK_API void MutexInit(Mutex *mutex);
QK_API void MutexDestroy(Mutex *mutex);
/* Makes the lock of a word that still holds the invalid value. */
QK_API void MutexInit_(Mutex *mutex);
/* Reports a failed lock operation; fatal. */
QK_API QK_NORETURN void MutexFailed_(int error, const char *operation);

/* The word is read atomically: threads racing on first use may still be
 * installing it by compare-and-swap. */
static inline void MutexLock(Mutex *mutex) {
    uintptr_t word = __atomic_load_n(mutex, __ATOMIC_ACQUIRE);
    if (word == MUTEX_INVALID) {
        MutexInit_(mutex);
        word = __atomic_load_n(mutex, __ATOMIC_ACQUIRE);
    }
    int error = pthread_mutex_lock((pthread_mutex_t *)word);
    if (error) MutexFailed_(error, "lock");
}

static inline void MutexUnlock(Mutex *mutex) {
    int error = pthread_mutex_unlock((pthread_mutex_t *)__atomic_load_n(mutex, __ATOMIC_RELAXED));
    if (error) MutexFailed_(error, "unlock");
}

/* A system mutex, recursive, made and destroyed explicitly. */
typedef struct QKRecursiveMutex *RecursiveMutex;

QK_API void RecursiveMutexInit(RecursiveMutex *mutex);
QK_API void RecursiveMutexDestroy(RecursiveMutex *mutex);
QK_API void RecursiveMutexLock(RecursiveMutex *mutex);
QK_API void RecursiveMutexUnlock(RecursiveMutex *mutex);

/* ---- Condition ---- */

#define QK_INFINITE 0xFFFFFFFFu

typedef struct Condition {
    UInt waiters;
    UInt broadcasting;
    Mutex lock;
    void *semaphore; /* waiting threads sleep here; made at first wait or signal */
    void *done;      /* the last waiter of a broadcast wakes the broadcaster */
} Condition;

#define CONDITION_INITIALIZER \
    { 0, 0, MUTEX_INITIALIZER, NULL, NULL }

QK_API void ConditionInit(Condition *condition);
QK_API void ConditionDestroy(Condition *condition);
QK_API void ConditionWait(Condition *condition, Mutex *mutex);
/* 1 when signalled, 0 on timeout; the mutex is held again in both cases. */
QK_API int ConditionTimedWait(Condition *condition, Mutex *mutex, UInt milliseconds);
QK_API void ConditionSignal(Condition *condition);
QK_API void ConditionBroadcast(Condition *condition);

/* ---- Reader-writer lock, writers first ---- */

typedef struct RWLock {
    Mutex lock;
    Int state; /* -1 a writer holds it, 0 free, above 0 the number of readers */
    UInt writersWaiting;
    Condition readers;
    Condition writers;
} RWLock;

#define RWLOCK_INITIALIZER \
    { MUTEX_INITIALIZER, 0, 0, CONDITION_INITIALIZER, CONDITION_INITIALIZER }

QK_API void RWLockInit(RWLock *lock);
QK_API void RWLockDestroy(RWLock *lock);
QK_API void RWLockAcquireRead(RWLock *lock);
QK_API void RWLockAcquireWrite(RWLock *lock);
QK_API int RWLockAcquireReadTimeout(RWLock *lock, UInt milliseconds);
QK_API int RWLockAcquireWriteTimeout(RWLock *lock, UInt milliseconds);
QK_API void RWLockRelease(RWLock *lock);

/* ---- Upgradable reader-writer lock ---- */

typedef struct RWULock {
    Mutex lock;
    Int state;      /* as RWLock; the upgradable reader counts as a reader */
    Int upgradable; /* 0 none, 1 held, -1 the holder waits to upgrade */
    UInt writersWaiting;
    ULong upgradableThread; /* all ones when none */
    Condition readers;
    Condition writers;
    Condition upgraders;
    Condition upgrader;
} RWULock;

#define RWULOCK_INITIALIZER                                                                  \
    {                                                                                        \
        MUTEX_INITIALIZER, 0, 0, 0, ~(ULong)0, CONDITION_INITIALIZER, CONDITION_INITIALIZER, \
            CONDITION_INITIALIZER, CONDITION_INITIALIZER                                     \
    }

QK_API void RWULockInit(RWULock *lock);
QK_API void RWULockDestroy(RWULock *lock);
QK_API void RWULockAcquireRead(RWULock *lock);
QK_API void RWULockAcquireWrite(RWULock *lock);
QK_API void RWULockAcquireUpgradable(RWULock *lock);
QK_API void RWULockUpgrade(RWULock *lock);
QK_API void RWULockDowngrade(RWULock *lock);
QK_API void RWULockRelease(RWULock *lock);

QK_END_DECLS

#endif /* QK_THREAD_H */
