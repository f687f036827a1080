// Condition: a count of waiters under the condition's own lock, a semaphore
// that the waiters sleep on, and a "done" semaphore through which the last
// waiter woken by a broadcast tells the broadcaster that all are through.
// Both semaphores are made at the first wait or signal, so that an all-zero
// Condition with an invalid lock word is a valid static initial state.
#include <errno.h>
#include <semaphore.h>
#include <stdlib.h>
#include <time.h>

#include "frame/internal.h"

namespace {

constexpr int FALSE = 0;

// A fatal failure of a semaphore operation; the system's text follows.
[[noreturn]] void SemaphoreFailed(const char *file, int line, const char *text) {
    QKSetLastErrorFromErrno();
    QKSetMessageContext_(file, line, 4, 1);
    QKMessage_(text);
    abort();  // a fatal message does not return
}

sem_t *NewSemaphore(const char *failure) {
    auto *semaphore = static_cast<sem_t *>(Allocate(sizeof(sem_t), NULL));
    if (sem_init(semaphore, 0, 0) != 0) SemaphoreFailed(__FILE__, __LINE__, failure);
    return semaphore;
}

void DeleteSemaphore(void *semaphore) {
    if (semaphore == nullptr) return;
    sem_destroy(static_cast<sem_t *>(semaphore));
    UnAllocate(semaphore);
}

// Makes the semaphores that are still missing; under condition->lock.
void MakeObjects(Condition *condition) {
    if (condition->semaphore == nullptr)
        condition->semaphore = NewSemaphore("CreateSemaphore failed");
    if (condition->done == nullptr) condition->done = NewSemaphore("CreateEvent failed");
}

void Post(sem_t *semaphore, const char *failure) {
    if (sem_post(semaphore) != 0) SemaphoreFailed(__FILE__, __LINE__, failure);
}

// Waits on `semaphore` for at most `milliseconds`: 1 when it was released,
// 0 on timeout.
int Wait(sem_t *semaphore, UInt milliseconds) {
    int rc;
    if (milliseconds == QK_INFINITE) {
        while ((rc = sem_wait(semaphore)) != 0 && errno == EINTR) {
        }
    } else {
        timespec deadline;
        clock_gettime(CLOCK_MONOTONIC, &deadline);
        deadline.tv_sec += milliseconds / 1000;
        deadline.tv_nsec += (long)(milliseconds % 1000) * 1000000L;
        if (deadline.tv_nsec >= 1000000000L) {
            deadline.tv_sec++;
            deadline.tv_nsec -= 1000000000L;
        }
        while ((rc = sem_clockwait(semaphore, CLOCK_MONOTONIC, &deadline)) != 0 && errno == EINTR) {
        }
        if (rc != 0 && errno == ETIMEDOUT) return 0;
    }
    if (rc == 0) return 1;
    if (rc == -1) SemaphoreFailed(__FILE__, __LINE__, "WaitForSingleObject failed");
    qkassert(FALSE);
    return 0;
}

}  // namespace

extern "C" {

QK_API void ConditionInit(Condition *condition) {
    condition->waiters = 0;
    condition->broadcasting = 0;
    MutexInit(&condition->lock);
    condition->semaphore = nullptr;
    condition->done = nullptr;
}

QK_API void ConditionDestroy(Condition *condition) {
    DeleteSemaphore(condition->semaphore);
    DeleteSemaphore(condition->done);
    condition->semaphore = nullptr;
    condition->done = nullptr;
    MutexDestroy(&condition->lock);
    condition->waiters = 0;
    condition->broadcasting = 0;
}

QK_API void ConditionWait(Condition *condition, Mutex *mutex) {
    ConditionTimedWait(condition, mutex, QK_INFINITE);
}

QK_API int ConditionTimedWait(Condition *condition, Mutex *mutex, UInt milliseconds) {
    MutexLock(&condition->lock);
    MakeObjects(condition);
    auto *semaphore = static_cast<sem_t *>(condition->semaphore);
    auto *done = static_cast<sem_t *>(condition->done);
    condition->waiters++;
    MutexUnlock(&condition->lock);

    MutexUnlock(mutex);
    int result = Wait(semaphore, milliseconds);

    MutexLock(&condition->lock);
    condition->waiters--;
    bool last = condition->broadcasting && condition->waiters == 0;
    if (last) condition->broadcasting = 0;
    MutexUnlock(&condition->lock);
    if (last) Post(done, "SetEvent failed");

    MutexLock(mutex);
    return result;
}

QK_API void ConditionSignal(Condition *condition) {
    MutexLock(&condition->lock);
    MakeObjects(condition);
    auto *semaphore = static_cast<sem_t *>(condition->semaphore);
    UInt waiters = condition->waiters;
    MutexUnlock(&condition->lock);
    if (waiters > 0) Post(semaphore, "ReleaseSemaphore failed");
}

QK_API void ConditionBroadcast(Condition *condition) {
    MutexLock(&condition->lock);
    MakeObjects(condition);
    auto *semaphore = static_cast<sem_t *>(condition->semaphore);
    auto *done = static_cast<sem_t *>(condition->done);
    UInt waiters = condition->waiters;
    if (waiters > 0) {
        condition->broadcasting = 1;
        for (UInt i = 0; i < waiters; i++) Post(semaphore, "ReleaseSemaphore failed");
    }
    MutexUnlock(&condition->lock);
    // Every waiter released above must pass before another can come in and
    // take one of their releases.
    if (waiters > 0) Wait(done, QK_INFINITE);
}

}  // extern "C"
