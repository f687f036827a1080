/*
 * Files, mapping and paths: mapped files, directories, path tests, whole-file
 * locks and raw files with asynchronous transfers.
 *
 * Paths are zero-terminated UTF-8, except in the functions whose name ends in
 * UCS2, which take 16-bit units with a length. Most calls take a path in two
 * parts, a directory (or none) and a name, joined with '/'. The joined path is
 * checked character by character; a path that is not well-formed UTF-8 (which
 * includes any four-byte sequence) fails with errno EILSEQ (84). The system
 * calls receive the checked UTF-8 bytes.
 *
 * Failures follow the frame's contract: a failing return, errno -1 with the
 * system's error in QKGetLastError for failed system calls, or a positive
 * errno where noted.
 */
#ifndef QK_FILE_H
#define QK_FILE_H

#include <stdio.h>

#include "qk/array.h"
#include "qk/thread.h"
#include "qk/types.h"

QK_BEGIN_DECLS

/* ---- Opening and mapping ---- */

/* Access advice of FileOpen and FileMap. */
enum { FILE_ADVICE_NORMAL = 0, FILE_ADVICE_SEQUENTIAL = 1, FILE_ADVICE_RANDOM = 2 };

/* Opens an existing file, read-only or read-write; a descriptor, or -1. */
QK_API int FileOpen(const char *directory, const char *name, int readOnly, int advice);
/* A shared view of `size` bytes of the file at `offset`; none on failure.
 * The offset need not be aligned on a page. */
QK_API void *FileMapSegment(int fd, int readOnly, ULong offset, size_t size);
/* Maps the whole file. An empty file gives none with *size 0, *empty 1 and
 * errno 0. `size` and `empty` may be null. */
QK_API void *FileMapFD(int fd, int readOnly, size_t *size, int *empty);
/* Opens, maps the whole file and closes the descriptor. */
QK_API void *FileMap(const char *directory, const char *name, int readOnly, size_t *size,
                     int *empty, int advice);
QK_API void *FileMapUCS2(const UShort *directory, UInt directoryLength, const UShort *name,
                         UInt nameLength, int readOnly, size_t *size, int *empty, int advice);
QK_API void *FileMapRead(const char *directory, const char *name, size_t *size, int *empty);
QK_API void *FileMapReadUCS2(const UShort *directory, UInt directoryLength, const UShort *name,
                             UInt nameLength, size_t *size, int *empty);
QK_API void *FileMapReadWrite(const char *directory, const char *name, size_t *size, int *empty);
QK_API void *FileMapReadWriteUCS2(const UShort *directory, UInt directoryLength, const UShort *name,
                                  UInt nameLength, size_t *size, int *empty);
/* Ends a view made by one of the calls above: 1, or 0 with errno -1. */
QK_API int FileUnmap(void *view);
/* Writes the first `size` bytes of a view to the file; size 0 succeeds. */
QK_API int FileMapSync(void *view, size_t size);
/* Read sizes cannot be set here: always throws (6, 2) "not supported". */
QK_API int FileSetReadSize(int fd, UInt size);

/* ---- Directories and files ---- */

/* Makes `directory`/`name` (`name` alone when `directory` is null; an empty
 * `directory` is "."), with its missing parents when `recursive`. An
 * existing directory is success; otherwise the errno of mkdir stands. */
QK_API int DirectoryCreate(const char *directory, const char *name, int recursive);
QK_API int DirectoryCreateUCS2(const UShort *directory, UInt directoryLength, const UShort *name,
                               UInt nameLength, int recursive);

/* Return 0 to end the walk. Names are zero-terminated. */
typedef int (*DirectoryCallback)(const char *name, void *argument);
typedef int (*DirectoryCallbackUCS2)(const UShort *name, UInt length, void *argument);

/* Calls back for each entry but "." and "..", with the directory joined to
 * the name (the bare name in the Relative forms), in the file system's
 * order. 1 when the walk is complete; 0 when a callback ended it or the
 * directory cannot be read (errno -1). */
QK_API int DirectoryEnumerate(const char *directory, DirectoryCallback callback, void *argument);
QK_API int DirectoryEnumerateUCS2(const UShort *directory, UInt directoryLength,
                                  DirectoryCallbackUCS2 callback, void *argument);
QK_API int DirectoryEnumerateRelative(const char *directory, DirectoryCallback callback,
                                      void *argument);
QK_API int DirectoryEnumerateRelativeUCS2(const UShort *directory, UInt directoryLength,
                                          DirectoryCallbackUCS2 callback, void *argument);
/* Unlinks every entry; 1, or 0 with errno set to the first failure's errno. */
QK_API int DirectoryRemoveFiles(const char *directory);
/* Removes everything below `directory`, depth first, and keeps `directory`.
 * Symbolic links are removed, never followed. 1, or 0 with the first
 * failure's errno. */
QK_API int DirectoryRemoveContents(const char *directory);

/* Sets the file's size. With `fill` 0 the end is moved; with `fill` 1 a
 * longer file is cut and a shorter one is lengthened by writing zeros, so
 * that its blocks exist on disk. `flags` has no effect on this platform.
 * FileTruncate opens the path read-write, making the file if missing. */
QK_API int FileTruncate(const char *path, ULong size, int fill, int flags);
QK_API int FileTruncateFD(int fd, ULong size, int fill, int flags);

/* Moves `to` to `backup` (when given; a missing `to` is no failure), then
 * `from` to `to`, each replacing its target. The file and its directory are
 * synced, so the move survives a power cut. 1, or 0 with errno -1. */
QK_API int FileRename(const char *from, const char *to, const char *backup);

/* Writes an array of 1, 2, 4 or 8-byte unsigned numbers as a C table named
 * `name`. 1, or 0 on failure. */
QK_API int FileWriteCArray(FILE *file, const char *name, const void *data, UInt length,
                           UInt elementSize);
QK_API int FileGetPos(FILE *stream, ULong *position);
/* Appends "XXXXXX" to `name` (which must have room for 6 more bytes) and
 * replaces it with characters that make a name not in use. Returns `name`,
 * or none with errno EEXIST. */
QK_API char *CreateTemporaryFileName(char *name);

/* The size, all ones on failure. */
QK_API ULong FileSize(const char *path);
/* Seconds since 1970-01-01 UTC; -1 on failure. */
QK_API Long FileLastModified(const char *path);
/* 0 when the path cannot be read. */
QK_API int FileIsDirectory(const char *path);
QK_API int FileExists(const char *path);
/* A name that starts with '.' is hidden; a path that cannot be read counts
 * as hidden. */
QK_API int FileIsHidden(const char *path);

/* True for a drive letter, ':' and a separator, for two leading separators,
 * and for a leading '/'. Both '/' and '\\' are separators. */
QK_API int PathIsAbsolute(const char *path);
QK_API int PathIsAbsoluteUCS2(const UShort *path, UInt length);
/* Sets `array` to the absolute form of `path`: an absolute path as it
 * stands, any other resolved against the current directory ("." and ".."
 * taken away). The array keeps a zero beyond its length and has room for at
 * least 261 units. 1, or 0 with errno -1. */
QK_API int PathMakeAbsolute(ByteArray *array, const char *path);
QK_API int PathMakeAbsoluteUCS2(UShortArray *array, const UShort *path, UInt length);

/* ---- Whole-file locks ---- */

#define FILE_LOCK_PATH_SIZE 260

typedef struct FileLock {
    char path[FILE_LOCK_PATH_SIZE + 1];
    int exclusive;
    int fd;
    Mutex mutex; /* serialises FileLockRead and FileLockWrite */
} FileLock;

/* Locks `directory`/`name` without waiting; exclusive locks make the file
 * (mode 0600). None on failure: errno 16 when another lock holds it, 22 for a
 * path over 260 bytes, -1 for other failures. Two acquisitions conflict even
 * within one process. */
QK_API FileLock *FileLockAcquire(const char *directory, const char *name, int exclusive);
/* Exclusive locks only: replaces the file's content with `text`. */
QK_API int FileLockWrite(FileLock *lock, const char *text);
/* Appends the file's bytes to `array`, with a zero beyond its length. */
QK_API int FileLockRead(FileLock *lock, ByteArray *array);
/* Unlocks, closes and frees. */
QK_API int FileLockRelease(FileLock *lock);

/* ---- Raw files ---- */

typedef int QKFile;
#define QKFILE_INVALID (-1)

enum {
    QKFILE_READ = 1,
    QKFILE_WRITE = 2,
    QKFILE_CREATE = 4,
    QKFILE_WRITE_THROUGH = 8, /* synchronous writes, bypassing the cache where possible */
    QKFILE_SEQUENTIAL = 16,
    QKFILE_RANDOM = 32 /* wins over QKFILE_SEQUENTIAL */
};

/* One transfer in flight, from QKFileReadData or QKFileWriteData to
 * QKFileDeleteAsyncIO. */
typedef struct QKFileAsyncIO QKFileAsyncIO;

/* QKFILE_WRITE with QKFILE_CREATE replaces an existing file; QKFILE_WRITE
 * alone makes a missing one; otherwise the file must exist. A path that is
 * not well-formed UTF-8 is an assertion. */
QK_API QKFile QKFileOpen(const char *path, int flags);
QK_API int QKFileClose(QKFile file);
QK_API int QKFileSync(QKFile file);
QK_API int QKFileSetSize(QKFile file, ULong size, int fill);
QK_API int QKFileSeek(QKFile file, Long offset);
/* Starts a transfer of `size` bytes at `offset`. With `request`, returns 0
 * and hands over the transfer, which the caller waits for and deletes; the
 * buffer must live until then. Without, waits and returns the bytes moved.
 * -1 on failure. */
QK_API Int QKFileReadData(QKFile file, ULong offset, void *buffer, UInt size,
                          QKFileAsyncIO **request);
QK_API Int QKFileWriteData(QKFile file, ULong offset, const void *buffer, UInt size,
                           QKFileAsyncIO **request);
/* Waits until one of `requests` has ended and returns the lowest index of
 * those that have; *bytes is what it moved. -1 when that transfer failed. A
 * finished transfer stays finished: it is returned again until taken out of
 * the list. */
QK_API Int QKFileWaitAsyncIO(QKFileAsyncIO *const *requests, UInt count, UInt *bytes);
/* Waits for the transfer if it is still running, and frees it. */
QK_API void QKFileDeleteAsyncIO(QKFileAsyncIO *request);

QK_END_DECLS

#endif /* QK_FILE_H */
