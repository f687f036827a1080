// The checkpoint. The writers in before it are drained, the store makes its
// data durable, the checkpoint record is forced to disk, the freed blocks
// are marked, the readers in before the mark are drained, and what was
// marked is recycled. A commit checkpoint also commits the arena and drops
// the log behind it.
#include "log/loggedvm_internal.h"

using namespace qk::lvm;

namespace {

// Steps under the store's lock, which the steps release in any case.
bool MarkFreed(LoggedVM *lvm, ULong serial) {
    MutexLock(&lvm->mutex);
    lvm->recycleSerial = serial;
    bool ok = WriteRecord(lvm, LVM_ACTION_CHECKPOINT, &serial) && LogFlush(lvm->log) &&
              (lvm->onRecycleSetNew == nullptr || lvm->onRecycleSetNew(lvm->arg)) &&
              WriteRecord(lvm, LVM_ACTION_RECYCLE_SET_NEW, nullptr);
    MutexUnlock(&lvm->mutex);
    return ok;
}

bool Recycle(LoggedVM *lvm, bool commit) {
    MutexLock(&lvm->mutex);
    bool ok = WriteRecord(lvm, LVM_ACTION_RECYCLE, nullptr) &&
              (lvm->onRecycle == nullptr || lvm->onRecycle(lvm->arg)) && LogFlush(lvm->log);
    if (ok && commit) {
        // A failed commit leaves the log whole, so that recovery can replay.
        ULong last = LogLastSerial(lvm->log);
        ok = CommitAt(lvm, last) && LogTruncate(lvm->log, last);
    }
    MutexUnlock(&lvm->mutex);
    return ok;
}

}  // namespace

extern "C" {

QK_API int LoggedVMCheckpoint(LoggedVM *lvm, int commit, ULong serial) {
    MutexLock(&lvm->checkpointMutex);
    if (commit) RWLockAcquireWrite(&lvm->commitLock);
    if (serial == ~(ULong)0) serial = LoggedVMSerialGet(lvm);
    WaiterFlipAndDrain(&lvm->writers);
    bool ok =
        (lvm->onCheckpoint == nullptr || lvm->onCheckpoint(lvm->arg)) && MarkFreed(lvm, serial);
    if (ok) WaiterFlipAndDrain(&lvm->readers);
    ok = ok && Recycle(lvm, commit);
    if (commit) RWLockRelease(&lvm->commitLock);
    MutexUnlock(&lvm->checkpointMutex);
    return ok;
}

}  // extern "C"
