// Logs, private to their sources: the open log, its pointers, a reader's
// context, the record codec and the file calls that raise the log's errors.
#pragma once

#include <sys/types.h>

#include "qk/frame.h"
#include "qk/log.h"
#include "qk/status.h"
#include "qk/thread.h"

struct LogPointer {
    char *name;   // owned
    char *value;  // owned, or none
    ULong serial;
    bool saved;  // kept in the status file
};

struct Log {
    char *path;  // the directory, owned
    bool readOnly;
    int fd;  // the newest file, -1 when none
    UInt fileno;
    UInt fileOffset;  // bytes of the newest file already written out
    UByte buf[LOG_BUFFER_SIZE];
    UInt bufSize;
    UInt lastOffset;    // of the last record
    UInt syncedOffset;  // records that start below it are whole in the file
    UInt maxFileSize;
    ByteArray filename;  // the newest file's path
    UInt firstFileno;    // the oldest file believed to exist
    bool autoTruncate;
    QK_ARRAY(LogPointer) pointers;
    Status status;
    Mutex lock;
    Condition newRecord;     // broadcast on each write
    Condition pointerMoved;  // broadcast on each pointer change
};

struct LogReadContext {
    Log *log;
    int fd;  // -1 when closed
    UInt fileno;
    UInt bufOffset;  // the file offset of buf[0]
    UByte buf[LOG_BUFFER_SIZE];
    UInt bufSize;
    ByteArray filename;
    ULong lastSerial;  // the last record read, 0 for none
    ULong lastPrevious;
};

namespace qk::log {

constexpr UInt kFileHeaderSize = LOG_HEADER_SIZE + 16;
constexpr UInt kLogVersion = 1;
constexpr char kMagic[8] = {'q', 'k', 'b', 'o', 'x', 'l', 'o', 'g'};

struct RecordHeader {
    UInt size;
    UInt previous;
    UInt checksum;
    UInt action;
};

// --- Records (log_format.cpp)

void EncodeHeader(const RecordHeader &header, UByte *bytes);
RecordHeader DecodeHeader(const UByte *bytes);
// A header for `size` bytes of payload, its checksum computed.
RecordHeader MakeHeader(UInt action, UInt previous, const void *payload, UInt size);
// The payload of the file header of file `number`.
void FileHeaderPayload(UInt number, UByte payload[16]);
// "<dir>/log.<number>", zero-terminated.
void MakeFileName(ByteArray *name, const char *dir, UInt number);
// The number of a log file's bare name, or 0 when it names none.
UInt ParseFileName(const char *name);
// The smallest and largest number of the directory's log files (0, 0 when
// there are none). False with the error state set.
bool ScanDirectory(const char *dir, UInt *first, UInt *last);

// --- File calls, interrupted calls repeated (log_io.cpp). On failure the
// error is rethrown with `format`, which holds one "%s", and the file name.

int OpenFile(const char *path, int flags, const char *format);
bool WriteAt(int fd, const void *bytes, size_t size, ULong offset, const char *path);
// The bytes read, up to `size` (fewer at the end of the file), or -1.
ssize_t ReadAt(int fd, void *bytes, size_t size, ULong offset, const char *path);
bool SyncFile(int fd, const char *path);
bool CloseFile(int fd, const char *path);
bool TruncateFile(int fd, ULong size, const char *path);
// After a failed call: the file does not exist.
bool IsMissing();

void ThrowReadOnly();
void ThrowUnavailable(ULong serial);
void ThrowInvalid(ULong serial);

// --- Checking a file at open (log_check.cpp)

struct FileCheck {
    bool good;       // a valid header and, unless newest, a clean end
    bool endsInEof;  // the walk stopped at an end-of-file record
    UInt end;        // of the valid records
    UInt lastOffset;
    ULong fileSize;
};

// Walks the valid records of the open file `number`. False, with the error
// state set, when it cannot be mapped.
bool CheckFile(int fd, const char *path, UInt number, bool newest, FileCheck *check);

// --- The writer (log_write.cpp); under the log's lock.

// Writes the buffer out.
bool WriteOut(Log *log);
// Creates file `log->fileno` and writes its header into the buffer.
bool StartFile(Log *log);
// Ends the newest file with an end-of-file record and starts the next.
bool Rotate(Log *log);

// --- Pointers (log_pointers.cpp)

// Loads the pointers of the status file; false with the error state set.
bool LoadPointers(Log *log);
void FreePointers(Log *log);

inline const char *Name(const ByteArray &name) {
    return reinterpret_cast<const char *>(name.data);
}

}  // namespace qk::log
