// Threads: creation over pthreads, with the results of joinable threads kept
// in the process-wide table `threadResults` until ThreadJoin takes them.
//
// A joinable thread owns one slot of the table from its creation to its
// join (or, when detached, to its end); it returns its slot number as the
// pthread exit value, and that is how ThreadJoin finds the result. A handle
// is a QKThread record shared by the creator and the starting thread, which
// stores its kernel id there; the last of the two to let go frees it.
#include <errno.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <trio.h>
#include <unistd.h>

#include <atomic>
#include <new>

#include "frame/internal.h"

struct QKThread {
    pthread_t thread;
    UInt slot;                    // in threadResults; kNoSlot when none
    bool current;                 // the record of ThreadGetCurrent: never freed
    std::atomic<int> tid;         // the kernel id, 0 until the thread has started
    std::atomic<int> references;  // the handle and the starting thread
};

namespace {

constexpr UInt kNoSlot = ~0u;
const ThreadHandle kInvalidHandle = reinterpret_cast<ThreadHandle>(~(uintptr_t)0);

struct ThreadResult {
    ULong id;             // the thread's kernel id, written by the thread itself
    ThreadHandle handle;  // the handle given to the creator
    UInt result;          // what the thread function returned
    UByte free;           // the slot can be reused
    UByte detached;       // nobody joins: the thread frees the slot itself
};

QK_ARRAY(ThreadResult) threadResults;
Mutex threadResultsMutex = MUTEX_INITIALIZER;

ThreadCreateHook createHook = nullptr;
ThreadCreateDetachedHook createDetachedHook = nullptr;

thread_local QKThread currentThread{};

// What a new thread needs to start; freed by the thread.
struct StartBlock {
    ThreadFunction function;
    void *argument;
    QKThread *thread;  // none for a detached thread
    UInt slot;
    char name[QK_THREAD_NAME_SIZE];
};

[[noreturn]] void ThreadOperationFailed(int error) {
    QKSetLastError(error);
    errno = -1;
    QKSetMessageContext_(__FILE__, __LINE__, 4, 1);
    QKMessage_("thread operation failed");
    abort();  // a fatal message does not return
}

void ReleaseRecord(QKThread *t) {
    if (t->current) return;
    if (t->references.fetch_sub(1) == 1) {
        t->~QKThread();
        UnAllocate(t);
    }
}

StartBlock *NewStartBlock(ThreadFunction function, void *argument, const char *file, int line) {
    auto *block = static_cast<StartBlock *>(Allocate(sizeof(StartBlock), NULL));
    block->function = function;
    block->argument = argument;
    block->thread = nullptr;
    block->slot = kNoSlot;
    trio_snprintf(block->name, sizeof block->name, "%s:%d", file ? file : "", line);
    return block;
}

// Thread attributes with the stack size asked for; 0 keeps the default.
int MakeAttributes(pthread_attr_t *attributes, UInt stackSize, bool detached) {
    int error = pthread_attr_init(attributes);
    if (error) return error;
    if (detached) error = pthread_attr_setdetachstate(attributes, PTHREAD_CREATE_DETACHED);
    if (error == 0 && stackSize != 0) {
        size_t size = stackSize;
        if (size < (size_t)PTHREAD_STACK_MIN) size = PTHREAD_STACK_MIN;
        size_t page = (size_t)sysconf(_SC_PAGESIZE);
        size = (size + page - 1) / page * page;
        error = pthread_attr_setstacksize(attributes, size);
    }
    if (error) pthread_attr_destroy(attributes);
    return error;
}

// Takes what the thread needs from its start block, names the thread and
// frees the block.
void BeginThread(StartBlock *block, ThreadFunction *function, void **argument, UInt *slot) {
    qk::CrashThreadAttach();
    if (QKThread *t = block->thread) {
        t->tid.store((int)ThreadId());
        t->tid.notify_all();
        ReleaseRecord(t);
    }
    ThreadSetName(block->name);
    *function = block->function;
    *argument = block->argument;
    *slot = block->slot;
    UnAllocate(block);
}

void EndThread() {
    qk::CrashThreadDetach();
    qk::ThreadVarRunDestructors();
    MessageContextDeleteCurrent();
}

void *JoinableStart(void *startBlock) {
    ThreadFunction function;
    void *argument;
    UInt slot;
    BeginThread(static_cast<StartBlock *>(startBlock), &function, &argument, &slot);

    MutexLock(&threadResultsMutex);
    qkassert(slot < ArrayLength(threadResults));
    ArrayNth(threadResults, slot).id = ThreadId();
    MutexUnlock(&threadResultsMutex);

    UInt result = function(argument);

    MutexLock(&threadResultsMutex);
    qkassert(slot < ArrayLength(threadResults));
    qkassert(ArrayNth(threadResults, slot).id == ThreadId());
    if (!ArrayNth(threadResults, slot).detached) {
        ArrayNth(threadResults, slot).result = result;
    } else {
        ArrayNth(threadResults, slot).free = 1;
    }
    MutexUnlock(&threadResultsMutex);

    EndThread();
    return reinterpret_cast<void *>((uintptr_t)slot);
}

void *DetachedStart(void *startBlock) {
    ThreadFunction function;
    void *argument;
    UInt slot;
    BeginThread(static_cast<StartBlock *>(startBlock), &function, &argument, &slot);
    function(argument);
    EndThread();
    return nullptr;
}

// The kernel id of the thread behind `t`, waiting for the thread to start
// when it has not yet.
int KernelId(ThreadHandle t) {
    if (t == nullptr) return (int)ThreadId();
    int tid;
    while ((tid = t->tid.load()) == 0) t->tid.wait(0);
    return tid;
}

// The system's relative priority for a Unix-like nice value.
int PriorityOfNice(int nice) {
    switch (nice) {
        case -20:
            return 15;
        case -10:
            return 2;
        case -5:
            return 1;
        case 0:
            return 0;
        case 5:
            return -1;
        case 10:
            return -2;
        case 20:
            return -15;
        default:
            return 0;
    }
}

// The nice value that stands for a relative priority on this system.
int NiceOfPriority(int priority) {
    switch (priority) {
        case 15:
            return -20;
        case 2:
            return -10;
        case 1:
            return -5;
        case -1:
            return 5;
        case -2:
            return 10;
        case -15:
            return 19;
        default:
            return 0;
    }
}

}  // namespace

namespace qk {

// The size of the results table and the number of its slots in use; for
// tests of slot reuse.
QK_API void ThreadResultsStats(UInt *length, UInt *inUse) {
    MutexLock(&threadResultsMutex);
    UInt used = 0;
    for (UInt i = 0; i < ArrayLength(threadResults); i++) {
        if (!ArrayNth(threadResults, i).free) used++;
    }
    *length = ArrayLength(threadResults);
    *inUse = used;
    MutexUnlock(&threadResultsMutex);
}

}  // namespace qk

extern "C" {

QK_API ThreadHandle ThreadCreate_(ThreadFunction function, void *argument, UInt stackSize,
                                  const char *file, int line) {
    if (createHook) return createHook(function, argument, stackSize, file, line);

    StartBlock *block = NewStartBlock(function, argument, file, line);

    UInt slot;
    MutexLock(&threadResultsMutex);
    for (slot = 0; slot < ArrayLength(threadResults); slot++) {
        if (ArrayNth(threadResults, slot).free) break;
    }
    if (slot == ArrayLength(threadResults)) (void)ArrayAddPtr(threadResults);
    ThreadResult &entry = ArrayNth(threadResults, slot);
    entry.id = ~(ULong)0;
    entry.handle = kInvalidHandle;
    entry.result = 0;
    entry.free = 0;
    entry.detached = 0;
    MutexUnlock(&threadResultsMutex);

    auto *t = new (Allocate(sizeof(QKThread), NULL)) QKThread{};
    t->slot = slot;
    t->current = false;
    t->references.store(2);
    block->thread = t;
    block->slot = slot;

    pthread_attr_t attributes;
    int error = MakeAttributes(&attributes, stackSize, false);
    if (error == 0) {
        error = pthread_create(&t->thread, &attributes, JoinableStart, block);
        pthread_attr_destroy(&attributes);
    }
    if (error) {
        errno = error;
        QKFatal("thread creation failed, errno=%d", error);
        abort();  // a fatal message does not return
    }

    MutexLock(&threadResultsMutex);
    qkassert(slot < ArrayLength(threadResults));
    ArrayNth(threadResults, slot).handle = t;
    MutexUnlock(&threadResultsMutex);
    return t;
}

QK_API void ThreadCreateDetached_(ThreadFunction function, void *argument, UInt stackSize,
                                  const char *file, int line) {
    if (createDetachedHook) {
        createDetachedHook(function, argument, stackSize, file, line);
        return;
    }
    StartBlock *block = NewStartBlock(function, argument, file, line);
    pthread_attr_t attributes;
    int error = MakeAttributes(&attributes, stackSize, true);
    if (error == 0) {
        pthread_t thread;
        error = pthread_create(&thread, &attributes, DetachedStart, block);
        pthread_attr_destroy(&attributes);
    }
    if (error) {
        QKSetLastError(error);
        errno = -1;
        QKSetMessageContext_(__FILE__, __LINE__, 4, 1);
        QKMessage_("thread creation failed");
        abort();  // a fatal message does not return
    }
}

QK_API void SetThreadCreateHooks(ThreadCreateHook create, ThreadCreateDetachedHook createDetached) {
    createHook = create;
    createDetachedHook = createDetached;
}

QK_API UInt ThreadJoin(ThreadHandle t) {
    void *code = nullptr;
    int error = pthread_join(t->thread, &code);
    if (error) ThreadOperationFailed(error);
    UInt value = ~0u;
    // A thread that was cancelled never reached the end of its start routine.
    if (code != PTHREAD_CANCELED) {
        UInt result = (UInt)(uintptr_t)code;
        MutexLock(&threadResultsMutex);
        qkassert(result < ArrayLength(threadResults));
        qkassert(ArrayNth(threadResults, result).handle == t);
        qkassert(!ArrayNth(threadResults, result).free);
        qkassert(!ArrayNth(threadResults, result).detached);
        value = ArrayNth(threadResults, result).result;
        ArrayNth(threadResults, result).free = 1;
        MutexUnlock(&threadResultsMutex);
    }
    ReleaseRecord(t);
    return value;
}

QK_API int ThreadDetach(ThreadHandle t) {
    if (t->current) {
        QKSetLastError(EINVAL);
        errno = -1;
        return 0;
    }
    MutexLock(&threadResultsMutex);
    if (t->slot < ArrayLength(threadResults) && ArrayNth(threadResults, t->slot).handle == t) {
        ArrayNth(threadResults, t->slot).detached = 1;
    }
    MutexUnlock(&threadResultsMutex);
    int error = pthread_detach(t->thread);
    ReleaseRecord(t);
    if (error) {
        QKSetLastError(error);
        errno = -1;
        return 0;
    }
    return 1;
}

QK_API ThreadHandle ThreadGetCurrent(void) {
    QKThread *t = &currentThread;
    if (!t->current) {
        t->thread = pthread_self();
        t->slot = kNoSlot;
        t->current = true;
    }
    t->tid.store((int)ThreadId(), std::memory_order_relaxed);
    return t;
}

QK_API int ThreadSetPriority(ThreadHandle handle, int nice) {
    int tid = KernelId(handle);
    if (setpriority(PRIO_PROCESS, (id_t)tid, NiceOfPriority(PriorityOfNice(nice))) != 0) {
        QKSetLastErrorFromErrno();
        return 0;
    }
    return 1;
}

QK_API ULong ThreadId(void) {
    return (ULong)gettid();
}

QK_API MessageContext *ThreadInit(void) {
    return qk::GetContext(true);
}

QK_API void ThreadCleanup(void) {
    qk::ThreadVarRunDestructors();
    MessageContextDeleteCurrent();
}

}  // extern "C"
