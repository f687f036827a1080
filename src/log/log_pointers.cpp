// Pointers and parameters. Saved pointers are data lines of the log's
// status file, "P <name> <hex serial>[ <value>]"; the parameters are its
// letters. Pointers may truncate the log to the slowest of them.
#include <string.h>
#include <trio.h>

#include "log/log_internal.h"
#include "qk/memory.h"

namespace qk::log {
namespace {

char *CopyOf(const char *text, size_t length) {
    char *copy = static_cast<char *>(Allocate(length + 1, nullptr));
    memcpy(copy, text, length);
    copy[length] = '\0';
    return copy;
}

void FreePointer(LogPointer *pointer) {
    UnAllocate(pointer->name);
    UnAllocate(pointer->value);
}

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// A status data line, without its '@': a new pointer, or none when the
// line is not one.
void *ParsePointer(const char *line, Int lineNumber, void *) {
    bool tagged = line[0] == 'P' && line[1] == ' ';
    const char *name = tagged ? line + 2 : line, *blank = tagged ? strchr(name, ' ') : nullptr;
    ULong serial = 0;
    int digits = 0;
    const char *p = blank ? blank + 1 : line;
    for (; blank != nullptr && HexDigit(*p) >= 0 && digits <= 16; p++, digits++)
        serial = serial << 4 | (ULong)HexDigit(*p);
    if (blank == nullptr || blank == name || digits == 0 || digits > 16 || (*p && *p != ' ')) {
        QKError(":invalid status file line %d", lineNumber);
        return nullptr;
    }
    LogPointer *pointer = AllocateZero(LogPointer);
    *pointer = {CopyOf(name, blank - name), *p ? Strdup(p + 1) : nullptr, serial, true};
    return pointer;
}

int PrintPointer(FILE *file, void *item, void *) {
    const LogPointer *pointer = static_cast<const LogPointer *>(item);
    if (trio_fprintf(file, "P %s %I64x", pointer->name, pointer->serial) < 0) return 0;
    return pointer->value == nullptr || trio_fprintf(file, " %s", pointer->value) >= 0;
}

// A name and value that a status line keeps as they are.
bool Storable(const char *name, const char *value) {
    for (const char *p = name; *p; p++)
        if ((UByte)*p <= ' ') return false;
    return *name && (value == nullptr || strpbrk(value, "\r\n") == nullptr);
}

UInt SavedCount(const Log *log) {
    UInt count = 0;
    for (UInt i = 0; i < log->pointers.length; i++) count += log->pointers.data[i].saved;
    return count;
}

// Rewrites the status file with the parameters and the saved pointers.
bool WriteStatus(Log *log) {
    log->status.dataCount = 0;
    for (UInt i = 0; i < log->pointers.length; i++) {
        if (log->pointers.data[i].saved) StatusAddData(&log->status, &log->pointers.data[i]);
    }
    if (StatusWrite(&log->status, PrintPointer, nullptr)) return true;
    QKErrorThrow(QK_ERR_FAILURE, QK_DOMAIN_GENERAL, "error writing status file in \"%s\"",
                 log->path);
    return false;
}

Int Find(const Log *log, const char *name) {
    for (UInt i = 0; i < log->pointers.length; i++)
        if (strcmp(log->pointers.data[i].name, name) == 0) return (Int)i;
    return -1;
}

// The slowest pointer's serial; LOG_NO_SERIAL when there is none.
ULong Smallest(const Log *log) {
    ULong smallest = LOG_NO_SERIAL;
    for (UInt i = 0; i < log->pointers.length; i++)
        if (log->pointers.data[i].serial < smallest) smallest = log->pointers.data[i].serial;
    return smallest;
}

// The serial to truncate to after a change, under the lock.
ULong TruncationPoint(const Log *log) {
    return log->autoTruncate && !log->readOnly ? Smallest(log) : LOG_NO_SERIAL;
}

void Update(LogPointer *pointer, ULong serial, const char *value, bool saved) {
    UnAllocate(pointer->value);
    pointer->value = value ? Strdup(value) : nullptr;
    pointer->serial = serial;
    pointer->saved = saved;
}

}  // namespace

bool LoadPointers(Log *log) {
    bool ok = StatusRead(log->path, STATUS_NO_SERIAL, &log->status, 1, ParsePointer, nullptr);
    for (UInt i = 0; i < log->status.dataCount; i++) {
        LogPointer *pointer = static_cast<LogPointer *>(log->status.data[i]);
        if (ok) ArrayAdd(log->pointers, *pointer);
        if (!ok) FreePointer(pointer);
        UnAllocate(pointer);
    }
    log->status.dataCount = 0;
    if (!ok) {
        QKErrorThrow(QK_ERR_FAILURE, QK_DOMAIN_GENERAL, "error reading status file in \"%s\"",
                     log->path);
    }
    return ok;
}

void FreePointers(Log *log) {
    for (UInt i = 0; i < log->pointers.length; i++) FreePointer(&log->pointers.data[i]);
    ArrayFree(log->pointers);
}

}  // namespace qk::log

using namespace qk::log;

extern "C" {

QK_API int LogSetPointer(Log *log, const char *name, ULong serial, const char *value, int saved) {
    if (saved && log->readOnly) {
        ThrowReadOnly();
        return 0;
    }
    if (saved && !Storable(name, value)) {
        QKErrorThrow(QK_ERR_INVALID, QK_DOMAIN_GENERAL, "bad argument(s)");
        return 0;
    }
    MutexLock(&log->lock);
    Int found = Find(log, name);
    bool adds = saved && serial != LOG_NO_SERIAL && (found < 0 || !log->pointers.data[found].saved);
    if (adds && SavedCount(log) >= LOG_MAX_SAVED_POINTERS) {
        MutexUnlock(&log->lock);
        QKErrorThrow(QK_ERR_FAILURE, QK_DOMAIN_GENERAL, "too many saved log pointers");
        return 0;
    }
    if (found >= 0 && serial == LOG_NO_SERIAL) {
        // The last pointer goes, whichever was named.
        FreePointer(&ArrayLast(log->pointers));
        log->pointers.length--;
    } else if (found >= 0) {
        Update(&log->pointers.data[found], serial, value, saved);
    } else if (serial != LOG_NO_SERIAL) {
        LogPointer *pointer = ArrayAddPtr(log->pointers);
        *pointer = {Strdup(name), nullptr, 0, false};
        Update(pointer, serial, value, saved);
    }
    bool ok = !saved || WriteStatus(log);
    ULong truncateTo = TruncationPoint(log);
    ConditionBroadcast(&log->pointerMoved);
    MutexUnlock(&log->lock);
    if (ok && truncateTo != LOG_NO_SERIAL) ok = LogTruncate(log, truncateTo);
    return ok;
}

QK_API ULong LogGetPointer(Log *log, const char *name, const char **value) {
    MutexLock(&log->lock);
    Int found = Find(log, name);
    const LogPointer *pointer = found >= 0 ? &log->pointers.data[found] : nullptr;
    if (value != nullptr) *value = pointer ? pointer->value : nullptr;
    ULong serial = pointer ? pointer->serial : LOG_NO_SERIAL;
    MutexUnlock(&log->lock);
    return serial;
}

QK_API void LogEnumeratePointers(Log *log, LogPointerCallback callback, void *userData) {
    MutexLock(&log->lock);
    for (UInt i = 0; i < log->pointers.length; i++) {
        const LogPointer &pointer = log->pointers.data[i];
        callback(pointer.name, pointer.serial, pointer.value, userData);
    }
    MutexUnlock(&log->lock);
}

QK_API int LogSetAutoTruncate(Log *log, int flag) {
    MutexLock(&log->lock);
    log->autoTruncate = flag != 0;
    ULong truncateTo = TruncationPoint(log);
    MutexUnlock(&log->lock);
    return truncateTo == LOG_NO_SERIAL || LogTruncate(log, truncateTo);
}

QK_API ULong LogGetParameter(Log *log, int letter) {
    MutexLock(&log->lock);
    ULong value = StatusGetParameter(&log->status, letter);
    MutexUnlock(&log->lock);
    return value;
}

QK_API int LogSetParameter(Log *log, int letter, ULong value) {
    if (log->readOnly) {
        ThrowReadOnly();
        return 0;
    }
    MutexLock(&log->lock);
    StatusSetParameter(&log->status, letter, value);
    bool ok = WriteStatus(log);
    MutexUnlock(&log->lock);
    return ok;
}

QK_API void LogWaitClients(Log *log, ULong serial) {
    MutexLock(&log->lock);
    while (Smallest(log) < serial) ConditionWait(&log->pointerMoved, &log->lock);
    MutexUnlock(&log->lock);
}

}  // extern "C"
