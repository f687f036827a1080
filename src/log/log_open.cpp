// Opening a log: the newest file is checked and its torn tail cut; a newest
// file with a bad header gives way to the file before it, which must end
// cleanly, and is replaced by a new file of its number. Closing flushes.
#include <errno.h>
#include <fcntl.h>

#include "log/log_internal.h"
#include "qk/memory.h"

namespace qk::log {
namespace {

Log *New(const char *directory, bool readOnly) {
    Log *log = AllocateZero(Log);
    log->path = Strdup(directory);
    log->readOnly = readOnly;
    log->fd = -1;
    log->maxFileSize = LOG_DEFAULT_MAX_FILE_SIZE;
    MutexInit(&log->lock);
    ConditionInit(&log->newRecord);
    ConditionInit(&log->pointerMoved);
    return log;
}

void Free(Log *log) {
    if (log->fd >= 0) CloseFile(log->fd, Name(log->filename));
    FreePointers(log);
    ArrayFree(log->filename);
    UnAllocate(log->path);
    ConditionDestroy(&log->newRecord);
    ConditionDestroy(&log->pointerMoved);
    MutexDestroy(&log->lock);
    UnAllocate(log);
}

int OpenNumber(Log *log, UInt number) {
    MakeFileName(&log->filename, log->path, number);
    return OpenFile(Name(log->filename), log->readOnly ? O_RDONLY : O_RDWR,
                    "error opening log file \"%s\"");
}

// The file in log->fd, checked, becomes the newest: appends go on after
// its valid records.
void Adopt(Log *log, const FileCheck &check) {
    log->fileOffset = log->syncedOffset = check.end;
    log->lastOffset = check.lastOffset;
}

bool Corrupted(Log *log) {
    QKErrorThrow(QK_ERR_FAILURE, QK_DOMAIN_GENERAL, "corrupted log file \"%s\"",
                 Name(log->filename));
    return false;
}

// The newest file `log->fileno`, closed, has a bad header. The file before
// it must end in an end-of-file record; a writable log then starts a new
// file in the bad one's place.
bool FallBack(Log *log) {
    UInt bad = log->fileno;
    log->lastOffset = 0;
    if (bad > 1) {
        int fd = OpenNumber(log, bad - 1);
        if (fd < 0 && !IsMissing()) return false;
        if (fd >= 0) {
            log->fd = fd;
            FileCheck check;
            if (!CheckFile(fd, Name(log->filename), bad - 1, false, &check)) return false;
            if (!check.good) return Corrupted(log);
            Adopt(log, check);
            if (log->readOnly) {
                log->fileno = bad - 1;
                return true;
            }
            log->fd = -1;
            if (!CloseFile(fd, Name(log->filename))) return false;
        }
    }
    if (log->readOnly) {
        MakeFileName(&log->filename, log->path, bad);
        return Corrupted(log);
    }
    return StartFile(log);
}

bool OpenNewest(Log *log) {
    log->fd = OpenNumber(log, log->fileno);
    if (log->fd < 0) return false;
    FileCheck check;
    if (!CheckFile(log->fd, Name(log->filename), log->fileno, true, &check)) return false;
    if (!check.good) {
        int fd = log->fd;
        log->fd = -1;
        return CloseFile(fd, Name(log->filename)) && FallBack(log);
    }
    Adopt(log, check);
    if (log->readOnly) return true;
    // A torn tail goes silently.
    if (check.end < check.fileSize && !TruncateFile(log->fd, check.end, Name(log->filename)))
        return false;
    if (!check.endsInEof) return true;
    // The file was ended: writing goes on in the next one.
    int fd = log->fd;
    log->fd = -1;
    log->fileno++;
    return CloseFile(fd, Name(log->filename)) && StartFile(log);
}

bool Open(Log *log) {
    UInt first, last;
    if (!ScanDirectory(log->path, &first, &last)) return false;
    if (last == 0) {
        if (log->readOnly) {
            QKErrorThrow(ENOENT, QK_DOMAIN_RUNTIME, "empty log directory \"%s\"", log->path);
            return false;
        }
        log->fileno = log->firstFileno = 1;
        if (!StartFile(log)) return false;
    } else {
        log->firstFileno = first;
        log->fileno = last;
        if (!OpenNewest(log)) return false;
    }
    return LoadPointers(log);
}

}  // namespace
}  // namespace qk::log

using namespace qk::log;

extern "C" {

QK_API Log *LogOpen(const char *directory, int readOnly) {
    Log *log = New(directory, readOnly != 0);
    if (!Open(log)) {
        QKErrorSave();
        Free(log);
        QKErrorRestore();
        return nullptr;
    }
    return log;
}

QK_API int LogClose(Log *log) {
    bool ok = LogFlush(log);
    if (!ok) QKErrorSave();
    int fd = log->fd;
    log->fd = -1;
    if (fd >= 0 && !CloseFile(fd, Name(log->filename)) && ok) {
        ok = false;
        QKErrorSave();
    }
    Free(log);
    if (!ok) QKErrorRestore();
    return ok;
}

}  // extern "C"
