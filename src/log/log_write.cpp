// The writer: records gather in the log's buffer and go to the newest file
// a whole buffer at a time; a file that would grow past the limit is ended
// and the next one started; a flush forces the file to disk.
#include <errno.h>
#include <fcntl.h>
#include <string.h>

#include "arena/arena_durable.h"
#include "log/log_internal.h"

namespace qk::log {
namespace {

// Forgets everything from offset `end` on, as if the records there had
// never been appended; `lastOffset` is the last record before it.
void DropFrom(Log *log, UInt end, UInt lastOffset) {
    if (end >= log->fileOffset) {
        log->bufSize = end - log->fileOffset;
    } else {
        // Part of it reached the file: cut it there, so that no reader
        // finds its bytes once later records are written in its place.
        log->fileOffset = end;
        log->bufSize = 0;
        QKErrorSave();
        TruncateFile(log->fd, end, Name(log->filename));
        QKErrorRestore();
    }
    log->lastOffset = lastOffset;
    if (log->syncedOffset > end) log->syncedOffset = end;
}

// Appends bytes through the buffer; a large piece that finds the buffer
// empty goes to the file directly.
bool Buffer(Log *log, const void *bytes, UInt size) {
    const UByte *p = static_cast<const UByte *>(bytes);
    while (size > 0) {
        if (log->bufSize == 0 && size > LOG_BUFFER_SIZE) {
            if (!WriteAt(log->fd, p, size, log->fileOffset, Name(log->filename))) return false;
            log->fileOffset += size;
            return true;
        }
        UInt take = LOG_BUFFER_SIZE - log->bufSize;
        if (take > size) take = size;
        memcpy(log->buf + log->bufSize, p, take);
        log->bufSize += take;
        p += take, size -= take;
        if (log->bufSize == LOG_BUFFER_SIZE && !WriteOut(log)) return false;
    }
    return true;
}

// Appends one record to the newest file: all of it, or nothing.
bool Append(Log *log, UInt action, const void *data, UInt size, UInt *offset) {
    UInt start = log->fileOffset + log->bufSize, last = log->lastOffset;
    UByte header[LOG_HEADER_SIZE];
    EncodeHeader(MakeHeader(action, last, data, size), header);
    log->lastOffset = start;
    if (!Buffer(log, header, LOG_HEADER_SIZE) || !Buffer(log, data, size)) {
        DropFrom(log, start, last);
        return false;
    }
    if (log->bufSize == 0) {
        log->syncedOffset = log->fileOffset;
    } else if (start < log->fileOffset) {
        log->syncedOffset = start;
    }
    if (offset != nullptr) *offset = start;
    return true;
}

}  // namespace

bool WriteOut(Log *log) {
    if (log->bufSize == 0) return true;
    if (!WriteAt(log->fd, log->buf, log->bufSize, log->fileOffset, Name(log->filename)))
        return false;
    log->fileOffset += log->bufSize;
    log->bufSize = 0;
    return true;
}

bool StartFile(Log *log) {
    if (log->fileno == 0) {  // the numbers ran out
        QKErrorThrow(QK_ERR_FAILURE, QK_DOMAIN_GENERAL, "too many log files in \"%s\"", log->path);
        return false;
    }
    MakeFileName(&log->filename, log->path, log->fileno);
    log->fd =
        OpenFile(Name(log->filename), O_RDWR | O_CREAT | O_TRUNC, "error creating log file \"%s\"");
    if (log->fd < 0) return false;
    log->fileOffset = log->syncedOffset = log->bufSize = 0;
    UByte payload[16];
    FileHeaderPayload(log->fileno, payload);
    return Append(log, LOG_ACTION_HEADER, payload, sizeof payload, nullptr) &&
           arena::DirectorySync(log->path);
}

bool Rotate(Log *log) {
    if (log->fd >= 0) {
        UInt end = log->fileOffset + log->bufSize, last = log->lastOffset;
        if (!Append(log, LOG_ACTION_EOF, nullptr, 0, nullptr)) return false;
        if (!WriteOut(log) || !SyncFile(log->fd, Name(log->filename))) {
            DropFrom(log, end, last);
            return false;
        }
        int fd = log->fd;
        log->fd = -1;
        log->fileno++;
        // The file is whole on disk: a failing close loses nothing, and the
        // next write starts the new file.
        if (!CloseFile(fd, Name(log->filename))) return false;
    }
    return StartFile(log);
}

}  // namespace qk::log

using namespace qk::log;

extern "C" {

QK_API int LogWrite(Log *log, UInt action, const void *data, UInt size, ULong *serial) {
    if (log->readOnly) {
        ThrowReadOnly();
        return 0;
    }
    if (size >= LOG_MAX_RECORD_SIZE) {
        errno = EINVAL;
        return 0;
    }
    MutexLock(&log->lock);
    // A record larger than a file gets a file of its own: files are never
    // split, and the check comes before the write only.
    ULong end = (ULong)log->fileOffset + log->bufSize + LOG_HEADER_SIZE + size + LOG_HEADER_SIZE;
    bool ok = (log->fd >= 0 && end <= log->maxFileSize) || Rotate(log);
    UInt offset = 0;
    ok = ok && Append(log, action, data, size, &offset);
    if (ok) {
        if (serial != nullptr) *serial = LOG_SERIAL(log->fileno, offset);
        ConditionBroadcast(&log->newRecord);
    }
    MutexUnlock(&log->lock);
    return ok;
}

QK_API int LogFlush(Log *log) {
    if (log->readOnly) return 1;
    MutexLock(&log->lock);
    bool ok = log->fd < 0 || (WriteOut(log) && SyncFile(log->fd, Name(log->filename)));
    if (ok) log->syncedOffset = log->fileOffset;
    MutexUnlock(&log->lock);
    return ok;
}

QK_API ULong LogLastSerial(Log *log) {
    MutexLock(&log->lock);
    ULong serial = LOG_SERIAL(log->fileno, log->lastOffset);
    MutexUnlock(&log->lock);
    return serial;
}

QK_API void LogSetMaxFileSize(Log *log, UInt size) {
    MutexLock(&log->lock);
    log->maxFileSize = size;
    MutexUnlock(&log->lock);
}

}  // extern "C"
