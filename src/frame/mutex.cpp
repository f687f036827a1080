// Mutex: one word that holds the address of a recursive pthread mutex, or
// MUTEX_INVALID until the first lock makes it. Lock and unlock are inline in
// qk/thread.h; this file makes, installs and destroys the lock behind the
// word, and holds the explicitly made RecursiveMutex.
#include <errno.h>
#include <pthread.h>
#include <stdlib.h>

#include "frame/internal.h"

struct QKRecursiveMutex {
    pthread_mutex_t mutex;
};

namespace {

// A new recursive pthread mutex at `lock`.
void MakeRecursive(pthread_mutex_t *lock) {
    pthread_mutexattr_t attributes;
    int error = pthread_mutexattr_init(&attributes);
    if (error) MutexFailed_(error, "init");
    error = pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    if (error) MutexFailed_(error, "init");
    error = pthread_mutex_init(lock, &attributes);
    if (error) MutexFailed_(error, "init");
    pthread_mutexattr_destroy(&attributes);
}

pthread_mutex_t *NewLock() {
    auto *lock = static_cast<pthread_mutex_t *>(Allocate(sizeof(pthread_mutex_t), NULL));
    MakeRecursive(lock);
    return lock;
}

void DeleteLock(pthread_mutex_t *lock) {
    int error = pthread_mutex_destroy(lock);
    if (error) MutexFailed_(error, "destroy");
    UnAllocate(lock);
}

}  // namespace

extern "C" {

QK_API void MutexFailed_(int error, const char *operation) {
    QKSetLastError(error);
    errno = -1;
    QKSetMessageContext_(__FILE__, __LINE__, 4, 1);
    QKMessage_("mutex %s failed", operation);
    abort();  // a fatal message does not return
}

QK_API void MutexInit(Mutex *mutex) {
    *mutex = reinterpret_cast<uintptr_t>(NewLock());
}

QK_API void MutexDestroy(Mutex *mutex) {
    uintptr_t word = __atomic_load_n(mutex, __ATOMIC_ACQUIRE);
    if (word == MUTEX_INVALID) return;
    DeleteLock(reinterpret_cast<pthread_mutex_t *>(word));
    __atomic_store_n(mutex, MUTEX_INVALID, __ATOMIC_RELEASE);
}

QK_API void MutexInit_(Mutex *mutex) {
    pthread_mutex_t *lock = NewLock();
    uintptr_t expected = MUTEX_INVALID;
    if (!__atomic_compare_exchange_n(mutex, &expected, reinterpret_cast<uintptr_t>(lock), false,
                                     __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE)) {
        // Another thread installed its lock first: use that one.
        DeleteLock(lock);
    }
}

QK_API void RecursiveMutexInit(RecursiveMutex *mutex) {
    auto *lock = static_cast<QKRecursiveMutex *>(Allocate(sizeof(QKRecursiveMutex), NULL));
    MakeRecursive(&lock->mutex);
    *mutex = lock;
}

QK_API void RecursiveMutexDestroy(RecursiveMutex *mutex) {
    if (*mutex == nullptr) return;
    int error = pthread_mutex_destroy(&(*mutex)->mutex);
    if (error) MutexFailed_(error, "destroy");
    UnAllocate(*mutex);
    *mutex = nullptr;
}

QK_API void RecursiveMutexLock(RecursiveMutex *mutex) {
    int error = pthread_mutex_lock(&(*mutex)->mutex);
    if (error) MutexFailed_(error, "lock");
}

QK_API void RecursiveMutexUnlock(RecursiveMutex *mutex) {
    int error = pthread_mutex_unlock(&(*mutex)->mutex);
    if (error) MutexFailed_(error, "unlock");
}

}  // extern "C"
