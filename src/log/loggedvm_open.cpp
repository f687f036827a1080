// Opening and closing a logged arena: the log in "<dir>/log", the arena in
// "<dir>/vm" and its array "lvm/serial", which tells how far the arena's
// image covers the log.
#include <errno.h>

#include <string>

#include "collection/corrupt.h"
#include "log/loggedvm_internal.h"
#include "qk/file.h"
#include "qk/memory.h"

namespace qk::lvm {
namespace {

void Destroy(LoggedVM *lvm) {
    if (lvm->payload != nullptr) LogReadContextDelete(lvm->payload);
    WaiterDestroy(&lvm->readers);
    WaiterDestroy(&lvm->writers);
    RWLockDestroy(&lvm->commitLock);
    MutexDestroy(&lvm->checkpointMutex);
    MutexDestroy(&lvm->mutex);
    delete lvm;
}

// Closes what is open of a failed open, keeping the first error.
LoggedVM *Fail(LoggedVM *lvm) {
    QKErrorSave();
    if (lvm->arena != nullptr) VMArenaClose(lvm->arena);
    if (lvm->log != nullptr) LogClose(lvm->log);
    QKErrorRestore();
    Destroy(lvm);
    return nullptr;
}

bool MakeDirectory(const std::string &path) {
    if (DirectoryCreate(nullptr, path.c_str(), 1)) return true;
    QKSetLastErrorFromErrno();
    QKErrorRethrow("cannot create \"%s\"", path.c_str());
    return false;
}

// Finds lvm/serial; a new store gets its one element, the log's last serial.
bool OpenSerial(LoggedVM *lvm, bool readOnly, int *created) {
    char path[VMARENA_PATH_SIZE] = "";
    int create = !readOnly;
    if (!VMAArrayInitFromPath(lvm->arena, &create, 1, 0, 0, path, "lvm", "serial",
                              (VMAArrayHandle *)&lvm->serial))
        return false;
    if (VMAArrayLength(lvm->serial, NEWGEN) != 0 || readOnly) return true;
    ULong none = ~(ULong)0;
    if (!VMAArrayAppend(lvm->serial, &none, 1)) return false;
    UInt end = 0;
    *VMAArrayRange(lvm->serial, 0, &end, NEWGEN, 0) = LogLastSerial(lvm->log);
    if (created != nullptr) *created = 1;
    return true;
}

}  // namespace

ULong StoredSerial(LoggedVM *lvm) {
    COLL_CHECK(lvm->arena, 0 < VMAArrayLength(lvm->serial, NEWGEN), "((0)) < __arraylen__");
    UInt end = 0;
    return *VMAArrayRange(lvm->serial, 0, &end, NEWGEN, 1);
}

bool CommitAt(LoggedVM *lvm, ULong serial) {
    COLL_CHECK(lvm->arena, 0 < VMAArrayLength(lvm->serial, NEWGEN), "((0)) < __arraylen__");
    UInt end = 0;
    *VMAArrayRange(lvm->serial, 0, &end, NEWGEN, 0) = serial;
    return VMArenaCommit(lvm->arena, nullptr, nullptr) != 0;
}

}  // namespace qk::lvm

using namespace qk::lvm;

extern "C" {

QK_API LoggedVM *LoggedVMOpen(const char *dir, UInt bucketCount, int create, int readOnly,
                              int *created, LoggedVMCallback onCheckpoint,
                              LoggedVMCallback onRecycleSetNew, LoggedVMCallback onRecycle,
                              LoggedVMReplayCallback onReplay, void *arg) {
    qkassert(dir != NULL);
    if (created != nullptr) *created = 0;
    LoggedVM *lvm = new LoggedVM{};
    lvm->onCheckpoint = onCheckpoint;
    lvm->onRecycleSetNew = onRecycleSetNew;
    lvm->onRecycle = onRecycle;
    lvm->onReplay = onReplay;
    lvm->arg = arg;
    MutexInit(&lvm->mutex);
    MutexInit(&lvm->checkpointMutex);
    RWLockInit(&lvm->commitLock);
    WaiterInit(&lvm->readers);
    WaiterInit(&lvm->writers);
    UInt flags =
        VM_FLAG_MAPPED | (readOnly ? VM_FLAG_READ_ONLY : 0) | (create ? VM_FLAG_CREATE : 0);
    std::string logDir = std::string(dir) + "/log", vmDir = std::string(dir) + "/vm";
    if (create && !MakeDirectory(logDir)) return Fail(lvm);
    if ((lvm->log = LogOpen(logDir.c_str(), readOnly)) == nullptr) return Fail(lvm);
    if (create && !MakeDirectory(vmDir)) return Fail(lvm);
    lvm->arena = VMArenaOpen(vmDir.c_str(), flags, bucketCount, STATUS_NO_SERIAL, STATUS_NO_SERIAL,
                             nullptr, nullptr);
    if (lvm->arena == nullptr || !OpenSerial(lvm, readOnly, created)) return Fail(lvm);
    return lvm;
}

QK_API int LoggedVMClose(LoggedVM *lvm) {
    if (lvm == nullptr) return 1;
    if (lvm->payload != nullptr) LogReadContextDelete(lvm->payload);
    lvm->payload = nullptr;
    int ok = VMArenaClose(lvm->arena);
    ok = LogClose(lvm->log) && ok;
    Destroy(lvm);
    return ok;
}

QK_API VMArena *LoggedVMArenaGet(LoggedVM *lvm) {
    return lvm->arena;
}
QK_API Log *LoggedVMLogGet(LoggedVM *lvm) {
    return lvm->log;
}
QK_API void LoggedVMAcquire(LoggedVM *lvm) {
    MutexLock(&lvm->mutex);
}
QK_API void LoggedVMRelease(LoggedVM *lvm) {
    MutexUnlock(&lvm->mutex);
}
QK_API ULong LoggedVMRecycleSerial(LoggedVM *lvm) {
    return lvm->recycleSerial;
}

QK_API ULong LoggedVMSerialGet(LoggedVM *lvm) {
    MutexLock(&lvm->mutex);
    ULong serial = LogLastSerial(lvm->log);
    MutexUnlock(&lvm->mutex);
    return serial;
}

}  // extern "C"
