// Logged arenas, private to their sources: the object, the waiters through
// which a checkpoint drains the writers and readers of a moment, and the
// steps shared by the checkpoint and the recovery.
#pragma once

#include "qk/frame.h"
#include "qk/loggedvm.h"
#include "qk/thread.h"
#include "qk/varray.h"

// Holders of two epochs: count[1] those of the present one (cur_tid),
// count[0] those left from the one before, which a drain waits out.
struct LVMWaiter {
    UInt count[2];
    ULong cur_tid;
    Mutex mutex;
    Condition drained;
};

struct LoggedVM {
    Log *log;
    VMArena *arena;
    Mutex mutex;  // the store's lock around a log write
    VMAARRAY(ULong) serial;
    LoggedVMCallback onCheckpoint, onRecycleSetNew, onRecycle;
    LoggedVMReplayCallback onReplay;
    void *arg;
    Mutex checkpointMutex;  // one checkpoint at a time
    RWLock commitLock;      // writers shared, a committing checkpoint exclusive
    LVMWaiter readers, writers;
    ULong recycleSerial;      // the bound of the marking under way
    LogReadContext *payload;  // reads checkpoint payloads during replay
};

namespace qk::lvm {

// --- Epochs (loggedvm_epoch.cpp)

void WaiterInit(LVMWaiter *waiter);
void WaiterDestroy(LVMWaiter *waiter);
ULong WaiterEnter(LVMWaiter *waiter);
void WaiterLeave(LVMWaiter *waiter, ULong epoch);
// Starts a new epoch and waits until the holders of the one before it have
// left; those who enter meanwhile are not waited for.
void WaiterFlipAndDrain(LVMWaiter *waiter);

// --- The arena's serial (loggedvm_open.cpp)

ULong StoredSerial(LoggedVM *lvm);
// Stores `serial` in lvm/serial and commits the arena.
bool CommitAt(LoggedVM *lvm, ULong serial);

// --- Records (loggedvm_records.cpp)

// LogWrite of one of the LoggedVM's records, under lvm->mutex.
bool WriteRecord(LoggedVM *lvm, UInt action, const ULong *serial);
// The serial that a checkpoint record carries; false when its payload is
// not 8 bytes.
bool CheckpointPayload(LogReadContext *context, ULong at, ULong *serial);

}  // namespace qk::lvm
