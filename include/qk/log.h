/*
 * Logs: durable, append-only sequences of typed records in a directory of
 * numbered files "<dir>/log.<n>" (n decimal, from 1). Every record has a
 * 64-bit serial number, its file's number in the high half and its offset
 * in the file in the low half, so that serial order is log order and a
 * reader can start anywhere, walk forwards through `next` or backwards
 * through `previous`, and wait for new records. Named pointers remember how
 * far each consumer has come; the files wholly behind the slowest one can be
 * deleted.
 *
 * Record format, little-endian, byte by byte:
 *   0   4  size      the record's length, these 16 bytes included
 *   4   4  previous  offset of the record before it; in a file's first
 *                    record, of the last record of the preceding file
 *   8   4  checksum  CheckSum of the 16 bytes (this field as 0) and payload
 *   12  4  action    the record's type: LOG_ACTION_HEADER, LOG_ACTION_EOF,
 *                    or any other value of the caller's
 *   16     payload   size - 16 bytes
 * A file starts with a header record of size 32 whose payload is the magic
 * "qkboxlog" (8 bytes), the version 1 (4) and the file's number (4). Every
 * file but the newest ends in an end-of-file record of size 16. The checksum
 * is 32-bit FNV-1 with the initial value 0: h = h * 16777619 ^ byte.
 *
 * Writes gather in an 8192-byte buffer; only LogFlush makes them durable.
 * LogOpen cuts a torn tail from the newest file; a newest file whose header
 * is bad is replaced, when the file before it ends cleanly.
 *
 * Pointers live beside the log in its status file (qk/status.h), each saved
 * pointer as one data line "@P <name> <serial in hex>[ <value>]"; the
 * letters of LogSetParameter are that file's parameters.
 *
 * Errors: (2, 3) "unavailable log serial number: 0x..." for a serial past
 * the end or in a deleted file; (1, 2) "invalid log serial number: 0x..."
 * and "log record checksum mismatch" for damaged records; (22, 0) "read-only
 * log"; (0, 2) "corrupted log file \"...\"" when no clean file can be found.
 *
 * Any number of threads may write. Each reading thread has its own
 * LogReadContext, which must be deleted before the log is closed.
 */
#ifndef QK_LOG_H
#define QK_LOG_H

#include "qk/types.h"

QK_BEGIN_DECLS

#define LOG_ACTION_HEADER 1u
#define LOG_ACTION_EOF 2u
#define LOG_HEADER_SIZE 16u
#define LOG_BUFFER_SIZE 8192u
#define LOG_DEFAULT_MAX_FILE_SIZE 16777216u
/* Payload sizes from here on are refused with errno EINVAL. */
#define LOG_MAX_RECORD_SIZE 4294967228u
#define LOG_MAX_SAVED_POINTERS 1000u
/* A pointer's serial that removes it, and LogGetPointer's "none". */
#define LOG_NO_SERIAL (~(ULong)0)

#define SERIAL_FILENO(serial) ((UInt)((ULong)(serial) >> 32))
#define SERIAL_OFFSET(serial) ((UInt)((ULong)(serial)&0xFFFFFFFFu))
#define LOG_SERIAL(fileno, offset) (((ULong)(fileno) << 32) | (UInt)(offset))

typedef struct Log Log;
typedef struct LogReadContext LogReadContext;

typedef void (*LogPointerCallback)(const char *name, ULong serial, const char *value,
                                   void *userData);

/* Opens the log of `directory`, which must exist; a writable log with no
 * files starts with log.1. None on failure. */
QK_API Log *LogOpen(const char *directory, int readOnly);
/* Flushes, closes and frees, also when the flush fails: 1, or 0. */
QK_API int LogClose(Log *log);
/* Deletes every log file of the directory (not its status file). */
QK_API int LogDelete(const char *directory);
/* The size above which a file is closed, checked from the next write on. */
QK_API void LogSetMaxFileSize(Log *log, UInt size);
/* Deletes the files that lie wholly before `serial`; never the newest. */
QK_API int LogTruncate(Log *log, ULong serial);
/* Appends a record; its serial in *serial when given. 1, or 0. */
QK_API int LogWrite(Log *log, UInt action, const void *data, UInt size, ULong *serial);
/* Writes the buffer out and forces the file to disk. */
QK_API int LogFlush(Log *log);
QK_API ULong LogLastSerial(Log *log);

QK_API LogReadContext *LogReadContextNew(Log *log);
QK_API void LogReadContextDelete(LogReadContext *context);
/* Reads the record at `serial`. *size gives the room in `buffer` and gets
 * the payload's length; a payload that does not fit is copied in part and
 * not checked. `next` is the serial after it, `previous` the one before.
 * All outputs may be null. 1, or 0. */
QK_API int LogRead(LogReadContext *context, ULong serial, UInt *action, void *buffer, UInt *size,
                   ULong *next, ULong *previous);
/* The first record at or after `serial` in *found. With `wait`, first waits
 * until the log reaches `serial`, at most `milliseconds` (0: no limit);
 * (2, 2) "timeout" when the time runs out. */
QK_API int LogFirstSerial(LogReadContext *context, ULong serial, ULong *found, int wait,
                          UInt milliseconds);

/* Sets or creates the pointer `name`; LOG_NO_SERIAL takes the array's last
 * pointer away (callers remove the pointer they added last). `saved`
 * pointers are written to the status file at once. 1, or 0. */
QK_API int LogSetPointer(Log *log, const char *name, ULong serial, const char *value, int saved);
/* The pointer's serial, or LOG_NO_SERIAL. *value, when asked, is the
 * pointer's value or none, borrowed until the pointer is set again. */
QK_API ULong LogGetPointer(Log *log, const char *name, const char **value);
/* Calls back for each pointer under the log's lock: the callback must not
 * call the log. */
QK_API void LogEnumeratePointers(Log *log, LogPointerCallback callback, void *userData);
/* With the flag, the log is truncated to its slowest pointer whenever a
 * pointer moves, and at once. 1, or 0 when that truncation failed. */
QK_API int LogSetAutoTruncate(Log *log, int flag);
/* The status file's parameter named by a letter ('a'-'z', 'A'-'Z'). */
QK_API ULong LogGetParameter(Log *log, int letter);
/* Sets it and rewrites the status file. A name that is no letter asserts. */
QK_API int LogSetParameter(Log *log, int letter, ULong value);
/* Blocks until every pointer has reached `serial`. */
QK_API void LogWaitClients(Log *log, ULong serial);

/* The checksum of a record: its 16-byte header, read with the checksum
 * field as 0, and `size` bytes of payload. */
QK_API UInt CheckSum(const void *header, const void *data, UInt size);

QK_END_DECLS

#endif /* QK_LOG_H */
