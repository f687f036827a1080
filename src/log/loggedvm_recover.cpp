// Recovery: the arena opened at its last commit; the log's records after the
// arena's serial are replayed up to the last checkpoint, and the image is
// committed at the log's end. Nothing is written to the log, so a recovery
// cut short replays the same records again.
//
// The last checkpoint's own records stand after its serial: its
// LVMRecycleSetNew marks exactly the blocks freed up to that serial, which
// the replay has freed again, and its LVMRecycle gives them back. Both are
// performed when they reached the log, the store's records between them
// are not; a final onRecycle gives back what a crash left marked. A crash
// anywhere between the checkpoint record and its recycling thus loses no
// block and leaks none: what was marked is recycled once, and what was not
// is still among the freed, for the next checkpoint.
#include "log/loggedvm_internal.h"

using namespace qk::lvm;

namespace {

struct LastCheckpoint {
    ULong at;   // the record's serial, 0 when none
    ULong end;  // its payload: the store's records up to it are replayed
};

// Walks back from `last` to the last checkpoint record at or after `start`.
bool FindLastCheckpoint(LogReadContext *context, ULong start, ULong last, LastCheckpoint *found) {
    *found = {0, start - 1};
    for (ULong at = last; at >= start;) {
        UInt action = 0, size = 0;
        ULong previous = 0;
        if (!LogRead(context, at, &action, nullptr, &size, nullptr, &previous)) return false;
        if (action == LVM_ACTION_CHECKPOINT) {
            found->at = at;
            return CheckpointPayload(context, at, &found->end);
        }
        if (previous >= at) break;
        at = previous;
    }
    return true;
}

// The recycle records that follow the last checkpoint's record.
bool FinishCheckpoint(LoggedVM *lvm, LogReadContext *context, const LastCheckpoint &checkpoint,
                      ULong last) {
    lvm->recycleSerial = checkpoint.end;
    ULong at = 0;
    if (!LogRead(context, checkpoint.at, nullptr, nullptr, nullptr, &at, nullptr)) return false;
    while (at <= last) {
        UInt action = 0, size = 0;
        ULong next = 0;
        if (!LogRead(context, at, &action, nullptr, &size, &next, nullptr)) return false;
        if ((action == LVM_ACTION_RECYCLE_SET_NEW || action == LVM_ACTION_RECYCLE) &&
            !LoggedVMProcessFun(lvm, at, action))
            return false;
        at = next;
    }
    return true;
}

bool Replay(LoggedVM *lvm, LogReadContext *context) {
    ULong start = StoredSerial(lvm), last = LogLastSerial(lvm->log), found = 0;
    if (!LogFirstSerial(context, start, &found, 0, 0)) {
        // Nothing at or after the image's serial: nothing to replay.
        if (QKErrorCode() != QK_ERROR_CODE(2, QK_DOMAIN_STORE)) return false;
        QKErrorClear();
        return true;
    }
    // The record at the stored serial is part of the image already.
    if (found == start && !LogRead(context, start, nullptr, nullptr, nullptr, &found, nullptr))
        return false;
    start = found;
    LastCheckpoint checkpoint;
    if (!FindLastCheckpoint(context, start, last, &checkpoint) ||
        !lvm->onReplay(context, start, checkpoint.end, lvm->arg))
        return false;
    if (checkpoint.at != 0 && !FinishCheckpoint(lvm, context, checkpoint, last)) return false;
    if (lvm->onRecycle != nullptr && !lvm->onRecycle(lvm->arg)) return false;
    return last < start || CommitAt(lvm, last);
}

}  // namespace

extern "C" {

QK_API int LoggedVMRecover(LoggedVM *lvm) {
    if (lvm->onReplay == nullptr) {
        QKErrorThrow(QK_ERR_INVALID, QK_DOMAIN_GENERAL, "no replay function");
        return 0;
    }
    LogReadContext *context = LogReadContextNew(lvm->log);
    bool ok = Replay(lvm, context);
    QKErrorSave();
    LogReadContextDelete(context);
    if (lvm->payload != nullptr) LogReadContextDelete(lvm->payload);
    lvm->payload = nullptr;
    QKErrorRestore();
    return ok;
}

}  // extern "C"
