// RWULock: a reader-writer lock with one upgradable reader. The upgradable
// reader shares the lock with plain readers and may turn into the writer
// without letting go; only one thread at a time holds that right, so two
// upgrades can never wait for each other.
#include "frame/internal.h"

namespace {

bool ReaderMustWait(const RWULock *lock) {
    return lock->state < 0 || lock->writersWaiting >= 1;
}

bool UpgraderMustWait(const RWULock *lock) {
    return lock->state < 0 || lock->writersWaiting > 0 || lock->upgradable != 0;
}

}  // namespace

extern "C" {

QK_API void RWULockInit(RWULock *lock) {
    MutexInit(&lock->lock);
    lock->state = 0;
    lock->upgradable = 0;
    lock->writersWaiting = 0;
    lock->upgradableThread = ~(ULong)0;
    ConditionInit(&lock->readers);
    ConditionInit(&lock->writers);
    ConditionInit(&lock->upgraders);
    ConditionInit(&lock->upgrader);
}

QK_API void RWULockDestroy(RWULock *lock) {
    ConditionDestroy(&lock->readers);
    ConditionDestroy(&lock->writers);
    ConditionDestroy(&lock->upgraders);
    ConditionDestroy(&lock->upgrader);
    MutexDestroy(&lock->lock);
    lock->state = 0;
    lock->upgradable = 0;
    lock->writersWaiting = 0;
    lock->upgradableThread = ~(ULong)0;
}

QK_API void RWULockAcquireRead(RWULock *lock) {
    MutexLock(&lock->lock);
    while (ReaderMustWait(lock)) ConditionWait(&lock->readers, &lock->lock);
    lock->state++;
    MutexUnlock(&lock->lock);
}

QK_API void RWULockAcquireWrite(RWULock *lock) {
    MutexLock(&lock->lock);
    while (lock->state != 0) {
        lock->writersWaiting++;
        ConditionWait(&lock->writers, &lock->lock);
        lock->writersWaiting--;
    }
    lock->state = -1;
    MutexUnlock(&lock->lock);
}

QK_API void RWULockAcquireUpgradable(RWULock *lock) {
    MutexLock(&lock->lock);
    while (UpgraderMustWait(lock)) ConditionWait(&lock->upgraders, &lock->lock);
    lock->state++;
    lock->upgradable = 1;
    lock->upgradableThread = ThreadId();
    MutexUnlock(&lock->lock);
}

QK_API void RWULockUpgrade(RWULock *lock) {
    MutexLock(&lock->lock);
    while (lock->state != 1) {
        lock->upgradable = -1;
        lock->writersWaiting++;
        ConditionWait(&lock->upgrader, &lock->lock);
        lock->writersWaiting--;
    }
    lock->state = -1;
    lock->upgradable = 0;
    MutexUnlock(&lock->lock);
}

QK_API void RWULockDowngrade(RWULock *lock) {
    MutexLock(&lock->lock);
    lock->state = 1;
    lock->upgradable = 1;
    lock->upgradableThread = ThreadId();
    if (lock->writersWaiting == 0) ConditionBroadcast(&lock->readers);
    MutexUnlock(&lock->lock);
}

QK_API void RWULockRelease(RWULock *lock) {
    MutexLock(&lock->lock);
    if (lock->state < 0) {
        // The writer leaves.
        lock->state = 0;
        if (lock->writersWaiting > 0) {
            ConditionSignal(&lock->writers);
        } else {
            ConditionBroadcast(&lock->readers);
            ConditionSignal(&lock->upgraders);
        }
    } else if (lock->upgradable != 0 && lock->upgradableThread == ThreadId()) {
        // The upgradable reader leaves.
        lock->state--;
        lock->upgradable = 0;
        if (lock->state == 0 && lock->writersWaiting > 0) {
            ConditionSignal(&lock->writers);
        } else {
            ConditionSignal(&lock->upgraders);
        }
    } else {
        // A plain reader leaves.
        qkassert(lock->state > 0);
        lock->state--;
        if (lock->state == 0) {
            if (lock->writersWaiting > 0) ConditionSignal(&lock->writers);
        } else if (lock->state == 1 && lock->upgradable < 0) {
            ConditionSignal(&lock->upgrader);
        }
    }
    MutexUnlock(&lock->lock);
}

}  // extern "C"
