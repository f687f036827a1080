// RWLock: a reader-writer lock that favours writers. `state` is -1 while a
// writer holds it, else the number of readers; a waiting writer keeps new
// readers out, so that writers cannot starve.
#include <time.h>

#include "frame/internal.h"

namespace {

ULong MonotonicMillis() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (ULong)now.tv_sec * 1000 + (ULong)now.tv_nsec / 1000000;
}

// The time left of a wait of `milliseconds` started at construction.
class Deadline {
  public:
    explicit Deadline(UInt milliseconds)
        : infinite_(milliseconds == QK_INFINITE), end_(MonotonicMillis() + milliseconds) {}

    // Milliseconds left, 0 when the time is up; QK_INFINITE without limit.
    UInt Left() const {
        if (infinite_) return QK_INFINITE;
        ULong now = MonotonicMillis();
        return now >= end_ ? 0 : (UInt)(end_ - now);
    }

  private:
    bool infinite_;
    ULong end_;
};

bool ReaderMustWait(const RWLock *lock) {
    return lock->state < 0 || lock->writersWaiting >= 1;
}

// Waits until a reader may enter, then enters; false on timeout.
bool EnterRead(RWLock *lock, UInt milliseconds) {
    Deadline deadline(milliseconds);
    while (ReaderMustWait(lock)) {
        UInt left = deadline.Left();
        if (left == 0 || !ConditionTimedWait(&lock->readers, &lock->lock, left)) {
            if (ReaderMustWait(lock)) return false;
        }
    }
    lock->state++;
    return true;
}

// Waits until the lock is free, then takes it for writing; false on timeout.
bool EnterWrite(RWLock *lock, UInt milliseconds) {
    Deadline deadline(milliseconds);
    while (lock->state != 0) {
        UInt left = deadline.Left();
        bool timedOut = left == 0;
        lock->writersWaiting++;
        if (!timedOut) timedOut = !ConditionTimedWait(&lock->writers, &lock->lock, left);
        lock->writersWaiting--;
        if (timedOut && lock->state != 0) {
            // Readers that stood back for this writer may come in now.
            if (lock->writersWaiting == 0 && lock->state > 0) ConditionBroadcast(&lock->readers);
            return false;
        }
    }
    lock->state = -1;
    return true;
}

}  // namespace

extern "C" {

QK_API void RWLockInit(RWLock *lock) {
    MutexInit(&lock->lock);
    lock->state = 0;
    lock->writersWaiting = 0;
    ConditionInit(&lock->readers);
    ConditionInit(&lock->writers);
}

QK_API void RWLockDestroy(RWLock *lock) {
    ConditionDestroy(&lock->readers);
    ConditionDestroy(&lock->writers);
    MutexDestroy(&lock->lock);
    lock->state = 0;
    lock->writersWaiting = 0;
}

QK_API void RWLockAcquireRead(RWLock *lock) {
    MutexLock(&lock->lock);
    EnterRead(lock, QK_INFINITE);
    MutexUnlock(&lock->lock);
}

QK_API void RWLockAcquireWrite(RWLock *lock) {
    MutexLock(&lock->lock);
    EnterWrite(lock, QK_INFINITE);
    MutexUnlock(&lock->lock);
}

QK_API int RWLockAcquireReadTimeout(RWLock *lock, UInt milliseconds) {
    MutexLock(&lock->lock);
    bool entered = EnterRead(lock, milliseconds);
    MutexUnlock(&lock->lock);
    return entered ? 1 : 0;
}

QK_API int RWLockAcquireWriteTimeout(RWLock *lock, UInt milliseconds) {
    MutexLock(&lock->lock);
    bool entered = EnterWrite(lock, milliseconds);
    MutexUnlock(&lock->lock);
    return entered ? 1 : 0;
}

QK_API void RWLockRelease(RWLock *lock) {
    MutexLock(&lock->lock);
    if (lock->state < 0) {
        lock->state = 0;
        if (lock->writersWaiting > 0) {
            ConditionSignal(&lock->writers);
        } else {
            ConditionBroadcast(&lock->readers);
        }
    } else {
        qkassert(lock->state > 0);
        lock->state--;
        if (lock->state == 0 && lock->writersWaiting > 0) ConditionSignal(&lock->writers);
    }
    MutexUnlock(&lock->lock);
}

}  // extern "C"
