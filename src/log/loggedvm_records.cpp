// The LoggedVM's own log records: writing them, replaying them, printing
// them and printing a whole log.
#include <string>

#include <trio.h>
#include "frame/endian.h"
#include "log/loggedvm_internal.h"

namespace qk::lvm {

bool WriteRecord(LoggedVM *lvm, UInt action, const ULong *serial) {
    UByte payload[8];
    if (serial != nullptr) StoreLE(payload, *serial, 8);
    return LogWrite(lvm->log, action, payload, serial != nullptr ? 8 : 0, nullptr) != 0;
}

bool CheckpointPayload(LogReadContext *context, ULong at, ULong *serial) {
    UByte payload[8];
    UInt size = sizeof payload;
    if (!LogRead(context, at, nullptr, payload, &size, nullptr, nullptr)) return false;
    if (size != sizeof(*serial)) {
        QKErrorThrow(QK_ERR_FORMAT, QK_DOMAIN_GENERAL, "size == sizeof(curSerial)");
        return false;
    }
    *serial = LoadLE64(payload);
    return true;
}

}  // namespace qk::lvm

using namespace qk::lvm;

extern "C" {

// A checkpoint's record gives the bound of the recycle records that follow
// it, so that the replay marks what the checkpoint marked.
QK_API int LoggedVMProcessFun(LoggedVM *lvm, ULong serial, UInt action) {
    switch (action) {
        case LOG_ACTION_HEADER:
        case LOG_ACTION_EOF:
            return 1;
        case LVM_ACTION_CHECKPOINT:
            if (lvm->payload == nullptr) lvm->payload = LogReadContextNew(lvm->log);
            return CheckpointPayload(lvm->payload, serial, &lvm->recycleSerial);
        case LVM_ACTION_RECYCLE_SET_NEW:
            return lvm->onRecycleSetNew == nullptr || lvm->onRecycleSetNew(lvm->arg);
        case LVM_ACTION_RECYCLE:
            return lvm->onRecycle == nullptr || lvm->onRecycle(lvm->arg);
        default:
            QKErrorThrow(QK_ERR_FORMAT, QK_DOMAIN_GENERAL, "invalid log action %u at 0x%llx",
                         action, (unsigned long long)serial);
            return 0;
    }
}

QK_API void LoggedVMOpDebug(UInt action, const void *data, UInt size) {
    const char *name = action == LVM_ACTION_CHECKPOINT        ? "LVMCheckpoint"
                       : action == LVM_ACTION_RECYCLE_SET_NEW ? "LVMRecycleSetNew"
                       : action == LVM_ACTION_RECYCLE         ? "LVMRecycle"
                                                              : nullptr;
    if (name == nullptr) {
        trio_printf("INVALID\n");
    } else if (action == LVM_ACTION_CHECKPOINT && size == 8) {
        ULong serial = qk::LoadLE64(static_cast<const UByte *>(data));
        trio_printf("%s(%u, %u)\n", name, SERIAL_FILENO(serial), SERIAL_OFFSET(serial));
    } else if (size == 0) {
        trio_printf(action == LVM_ACTION_CHECKPOINT ? "%s()\n" : "%s\n", name);
    } else {
        trio_printf("%s(*** invalid parm size %lu ***)\n", name, (unsigned long)size);
    }
}

QK_API int LogDebug(const char *directory) {
    Log *log = LogOpen(directory, 1);
    if (log == nullptr) return 0;
    LogReadContext *context = LogReadContextNew(log);
    std::string buffer(256, '\0');
    ULong at = 0, last = LogLastSerial(log);
    bool ok = LogFirstSerial(context, 0, &at, 0, 0);
    while (ok && at <= last) {
        UInt action = 0, size = (UInt)buffer.size();
        ULong next = 0;
        if (!(ok = LogRead(context, at, &action, buffer.data(), &size, &next, nullptr))) break;
        if (size > buffer.size()) {
            buffer.resize(size);
            continue;  // read again, whole
        }
        trio_printf("file = %u, offset = %7u: ", SERIAL_FILENO(at), SERIAL_OFFSET(at));
        if (action == LOG_ACTION_HEADER) {
            trio_printf("FileHeader\n");
        } else if (action == LOG_ACTION_EOF) {
            trio_printf("FileTrailer\n");
        } else if (action >= LVM_ACTION_CHECKPOINT && action <= LVM_ACTION_RECYCLE) {
            LoggedVMOpDebug(action, buffer.data(), size);
        } else {
            trio_printf("<<< INVALID \n");
        }
        at = next;
    }
    QKErrorSave();
    LogReadContextDelete(context);
    LogClose(log);
    QKErrorRestore();
    return ok;
}

}  // extern "C"
