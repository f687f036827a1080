// Epochs of writers and readers. A checkpoint flips a waiter to a new epoch
// and waits for the holders of the previous one only; each holder leaves
// with the epoch it entered in, which is the present one or the one before.
#include "log/loggedvm_internal.h"

namespace qk::lvm {

void WaiterInit(LVMWaiter *waiter) {
    waiter->count[0] = waiter->count[1] = 0;
    waiter->cur_tid = 0;
    MutexInit(&waiter->mutex);
    ConditionInit(&waiter->drained);
}

void WaiterDestroy(LVMWaiter *waiter) {
    ConditionDestroy(&waiter->drained);
    MutexDestroy(&waiter->mutex);
}

ULong WaiterEnter(LVMWaiter *waiter) {
    MutexLock(&waiter->mutex);
    waiter->count[1]++;
    ULong epoch = waiter->cur_tid;
    MutexUnlock(&waiter->mutex);
    return epoch;
}

void WaiterLeave(LVMWaiter *waiter, ULong tid) {
    MutexLock(&waiter->mutex);
    if (tid == waiter->cur_tid) {
        qkassert(waiter->count[1] != 0);
        waiter->count[1]--;
    } else {
        qkassert((tid + 1) == waiter->cur_tid);
        qkassert(waiter->count[0] != 0);
        if (--waiter->count[0] == 0) ConditionBroadcast(&waiter->drained);
    }
    MutexUnlock(&waiter->mutex);
}

void WaiterFlipAndDrain(LVMWaiter *waiter) {
    MutexLock(&waiter->mutex);
    qkassert(waiter->count[0] == 0);
    waiter->count[0] = waiter->count[1];
    waiter->count[1] = 0;
    waiter->cur_tid++;
    while (waiter->count[0] != 0) ConditionWait(&waiter->drained, &waiter->mutex);
    MutexUnlock(&waiter->mutex);
}

}  // namespace qk::lvm

using namespace qk::lvm;

extern "C" {

QK_API ULong LoggedVMWriterAcquire(LoggedVM *lvm) {
    RWLockAcquireRead(&lvm->commitLock);
    return WaiterEnter(&lvm->writers);
}

QK_API void LoggedVMWriterRelease(LoggedVM *lvm, ULong epoch) {
    WaiterLeave(&lvm->writers, epoch);
    RWLockRelease(&lvm->commitLock);
}

// Readers stay clear of the commit lock: a committing checkpoint holds it
// through its disk work, and readers must not wait for that. The arena's
// old-generation lock is taken exclusively only for the switch in memory.
QK_API ULong LoggedVMReaderAcquire(LoggedVM *lvm) {
    ULong epoch = WaiterEnter(&lvm->readers);
    VMArenaNewGenAcquire(lvm->arena, OLDGEN);
    return epoch;
}

QK_API void LoggedVMReaderRelease(LoggedVM *lvm, ULong epoch) {
    VMArenaNewGenRelease(lvm->arena, OLDGEN);
    WaiterLeave(&lvm->readers, epoch);
}

}  // extern "C"
