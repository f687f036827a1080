// Reading records. Each reader has a context with its own descriptor and an
// 8192-byte window on the file; a forward read places the window at the
// record, a backward read so that it ends behind the record, with the
// records before it. The log's lock is taken only to check the serial
// against the tail, and to read records still in the writer's buffer.
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include "log/log_internal.h"
#include "qk/memory.h"

namespace qk::log {
namespace {

// How the record at hand is reached.
struct Request {
    ULong serial;
    bool backwards;
    UInt backwardsSize;  // its size, when a backward read within a file knows it
};

bool Holds(const LogReadContext *context, ULong from, ULong size) {
    return from >= context->bufOffset &&
           from + size <= (ULong)context->bufOffset + context->bufSize;
}

bool Fill(LogReadContext *context, ULong from) {
    ssize_t n = ReadAt(context->fd, context->buf, LOG_BUFFER_SIZE, from, Name(context->filename));
    if (n < 0) return false;
    context->bufOffset = (UInt)from;
    context->bufSize = (UInt)n;
    return true;
}

// Makes the context's descriptor that of file `number`.
bool OpenNumber(LogReadContext *context, UInt number, ULong serial) {
    if (context->fd >= 0 && context->fileno == number) return true;
    if (context->fd >= 0) close(context->fd);
    context->fd = -1;
    context->bufSize = 0;
    MakeFileName(&context->filename, context->log->path, number);
    int fd = OpenFile(Name(context->filename), O_RDONLY, "error opening file \"%s\"");
    if (fd < 0) {
        if (IsMissing()) ThrowUnavailable(serial);
        return false;
    }
    context->fd = fd;
    context->fileno = number;
    return true;
}

// The record's 16 header bytes, through the window.
bool ReadHeader(LogReadContext *context, const Request &request, UByte *header) {
    ULong offset = SERIAL_OFFSET(request.serial);
    if (!Holds(context, offset, LOG_HEADER_SIZE)) {
        ULong from = offset;
        if (request.backwards) {
            UInt size = request.backwardsSize;
            ULong end = offset + (size != 0 && size <= LOG_BUFFER_SIZE ? size : LOG_HEADER_SIZE);
            from = end > LOG_BUFFER_SIZE ? end - LOG_BUFFER_SIZE : 0;
        }
        if (!Fill(context, from)) return false;
        if (!Holds(context, offset, LOG_HEADER_SIZE)) {
            ThrowInvalid(request.serial);
            return false;
        }
    }
    memcpy(header, context->buf + (offset - context->bufOffset), LOG_HEADER_SIZE);
    return true;
}

// Copies the file's bytes [from, from + size) into `out`: what the window
// holds at either end, the rest by one more fill or, when long, directly.
bool Copy(LogReadContext *context, ULong from, UByte *out, ULong size, ULong serial) {
    ULong a = from, b = from + size;
    while (a < b) {
        ULong start = context->bufOffset, end = start + context->bufSize;
        if (a >= start && a < end) {
            ULong n = (b < end ? b : end) - a;
            memcpy(out + (a - from), context->buf + (a - start), n);
            a += n;
        } else if (start > a && start < b && end >= b) {
            memcpy(out + (start - from), context->buf, b - start);
            b = start;
        } else if (b - a > LOG_BUFFER_SIZE - LOG_HEADER_SIZE) {
            ssize_t n = ReadAt(context->fd, out + (a - from), b - a, a, Name(context->filename));
            if (n < 0) return false;
            if ((ULong)n < b - a) break;
            a = b;
        } else {
            if (!Fill(context, a)) return false;
            if (context->bufSize == 0) break;
        }
    }
    if (a < b) ThrowInvalid(serial);
    return a >= b;
}

// The outputs of a record whose payload, or its first `copied` bytes, is
// in `buffer`.
bool Finish(LogReadContext *context, ULong serial, const UByte *headerBytes, const void *buffer,
            UInt copied, UInt *action, UInt *size, ULong *next, ULong *previous) {
    RecordHeader header = DecodeHeader(headerBytes);
    UInt length = header.size - LOG_HEADER_SIZE;
    if (buffer != nullptr && copied == length &&
        CheckSum(headerBytes, buffer, length) != header.checksum) {
        QKErrorThrow(QK_ERR_INVALID, QK_DOMAIN_GENERAL, "log record checksum mismatch");
        return false;
    }
    UInt number = SERIAL_FILENO(serial), offset = SERIAL_OFFSET(serial);
    ULong before = LOG_SERIAL(offset == 0 ? number - 1 : number, header.previous);
    if (action != nullptr) *action = header.action;
    if (size != nullptr) *size = length;
    if (next != nullptr)
        *next = header.action == LOG_ACTION_EOF ? LOG_SERIAL(number + 1, 0) : serial + header.size;
    if (previous != nullptr) *previous = before;
    context->lastSerial = serial;
    context->lastPrevious = before;
    return true;
}

// A backward step is a read of the last record's `previous`: within a file
// the distance gives the record's size; across a boundary it is unknown.
Request Classify(const LogReadContext *context, ULong serial) {
    Request request = {serial, false, 0};
    ULong last = context->lastSerial;
    if (last == 0 || serial != context->lastPrevious) return request;
    if (SERIAL_FILENO(serial) == SERIAL_FILENO(last) && serial <= last &&
        last - serial >= LOG_HEADER_SIZE) {
        request.backwards = true;
        request.backwardsSize = (UInt)(last - serial);
    } else if (SERIAL_FILENO(serial) == SERIAL_FILENO(last) - 1 && SERIAL_OFFSET(last) == 0) {
        request.backwards = true;
    }
    return request;
}

}  // namespace
}  // namespace qk::log

using namespace qk::log;

extern "C" {

QK_API LogReadContext *LogReadContextNew(Log *log) {
    LogReadContext *context = AllocateZero(LogReadContext);
    context->log = log;
    context->fd = -1;
    return context;
}

QK_API void LogReadContextDelete(LogReadContext *context) {
    if (context == nullptr) return;
    if (context->fd >= 0) close(context->fd);
    ArrayFree(context->filename);
    UnAllocate(context);
}

QK_API int LogRead(LogReadContext *context, ULong serial, UInt *action, void *buffer, UInt *size,
                   ULong *next, ULong *previous) {
    Log *log = context->log;
    UInt number = SERIAL_FILENO(serial), offset = SERIAL_OFFSET(serial);
    Request request = Classify(context, serial);
    context->lastSerial = context->lastPrevious = 0;
    UInt room = buffer != nullptr && size != nullptr ? *size : 0;
    UByte header[LOG_HEADER_SIZE];

    MutexLock(&log->lock);
    bool newest = number == log->fileno;
    if (number == 0 || number < log->firstFileno || number > log->fileno ||
        (newest && offset >= log->fileOffset + log->bufSize)) {
        MutexUnlock(&log->lock);
        ThrowUnavailable(serial);
        return 0;
    }
    if (newest && offset >= log->fileOffset) {
        // Still in the writer's buffer, whole.
        UInt at = offset - log->fileOffset, left = log->bufSize - at;
        UInt length = 0, copied = 0;
        if (left >= LOG_HEADER_SIZE) {
            memcpy(header, log->buf + at, LOG_HEADER_SIZE);
            length = DecodeHeader(header).size - LOG_HEADER_SIZE;
            copied = room < length ? room : length;
        }
        // A serial inside a record finds no whole record there.
        bool whole = left >= LOG_HEADER_SIZE && length <= left - LOG_HEADER_SIZE;
        if (whole && copied != 0) memcpy(buffer, log->buf + at + LOG_HEADER_SIZE, copied);
        MutexUnlock(&log->lock);
        if (!whole) {
            ThrowInvalid(serial);
            return 0;
        }
        return Finish(context, serial, header, buffer, copied, action, size, next, previous);
    }
    bool ok = true;
    if (newest && offset >= log->syncedOffset) {
        ok = WriteOut(log);
        if (ok) log->syncedOffset = log->fileOffset;
    }
    MutexUnlock(&log->lock);
    if (!ok || !OpenNumber(context, number, serial) || !ReadHeader(context, request, header))
        return 0;

    RecordHeader decoded = DecodeHeader(header);
    if (decoded.size < LOG_HEADER_SIZE ||
        (request.backwardsSize != 0 && request.backwardsSize != decoded.size)) {
        ThrowInvalid(serial);
        return 0;
    }
    UInt length = decoded.size - LOG_HEADER_SIZE, copied = room < length ? room : length;
    if (copied != 0 && !Copy(context, (ULong)offset + LOG_HEADER_SIZE, static_cast<UByte *>(buffer),
                             copied, serial))
        return 0;
    return Finish(context, serial, header, buffer, copied, action, size, next, previous);
}

}  // extern "C"
