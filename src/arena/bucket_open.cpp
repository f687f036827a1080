// Opening a bucket: its data file must exist, its index files are read, and
// a bucket whose files are missing is made empty.
#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <trio.h>

#include "arena/arena_format.h"
#include "arena/metadata_io.h"
#include "qk/memory.h"

namespace qk::arena {
namespace {

constexpr UInt kMapFragment = 1024;

LocalBlockServer0 *New(const char *dir, UInt index, UInt flags, UInt blockSize, UInt fileBlockSize,
                       UInt minBlockCount) {
    qkassert((blockSize * minBlockCount) % fileBlockSize == 0);
    auto *s = AllocateZero(LocalBlockServer0);
    char suffix[16];
    trio_snprintf(suffix, sizeof suffix, "%x", index);
    s->dir = Strdup(dir);
    s->suffix = Strdup(suffix);
    s->serial_old = s->serial_new = STATUS_NO_SERIAL;
    s->flushedSerialOld = s->flushedSerialNew = STATUS_NO_SERIAL;
    s->blockSize = blockSize;
    s->fileBlockSize = fileBlockSize;
    s->minBlockCount = minBlockCount;
    s->flags = flags;
    s->readOnly = (flags & VM_FLAG_READ_ONLY) != 0;
    s->rw_gen.mutex = MUTEX_INITIALIZER;
    FArrayInitHeap(s->rw_gen.map, kMapFragment);
    FArrayInitHeap(s->rw_gen.mapFlags, kMapFragment);
    FArrayInitHeap(s->r_gen, kMapFragment);
    FArrayInitHeap(s->r_gen_next, kMapFragment);
    if (!MemoryMappingInit(&s->mapping, dir, suffix, blockSize, minBlockCount, flags)) {
        QKErrorSave();
        LocalBlockServer0Close(s);
        QKErrorRestore();
        return nullptr;
    }
    return s;
}

// "index<x>.<which>" with its serial, or the plain name after recovering it.
bool IndexPath(LocalBlockServer0 *s, const char *which, ULong serial) {
    if (serial != STATUS_NO_SERIAL)
        return FormatPath(s->path, "%s/index%s.%s.%I64u", s->dir, s->suffix, which, serial);
    char name[kPathSize];
    if (!FormatPath(name, "index%s.%s", s->suffix, which) ||
        !FormatPath(s->path, "%s/%s", s->dir, name))
        return false;
    if (!s->readOnly) FileAtomicRecover(s->dir, name);
    return true;
}

bool ReadNew(LocalBlockServer0 *s, ULong serial) {
    if (!IndexPath(s, "new", serial)) return false;
    Channel *channel = OpenForRead(s->path, "LocalBlockServer0Read: could not open file \"%s\"");
    if (channel == nullptr) return false;
    ULong blockSize;
    bool ok = ChannelReadIntegerLE(channel, &blockSize, 8) || ReadFailed();
    if (!ok) {
        QKErrorRethrow("LocalBlockServer0Read: could not read block size from file \"%s\"",
                       s->path);
    } else if (blockSize != s->blockSize) {
        QKErrorThrow(QK_ERR_FORMAT, QK_DOMAIN_GENERAL,
                     "could not open file \"%s\": invalid block size: %I64u", s->path, blockSize);
        ok = false;
    } else if (!IndexFileNewGenRead(s, channel, false) || !ExpectEnd(channel)) {
        QKErrorRethrow("LocalBlockServer0Read: could not read new generation from file \"%s\"",
                       s->path);
        ok = false;
    }
    if (!ok) {
        CloseKeepingError(channel);
        return false;
    }
    return CloseRead(channel, s->path);
}

bool ReadOld(LocalBlockServer0 *s, ULong serial) {
    if (!IndexPath(s, "old", serial)) return false;
    Channel *channel = OpenForRead(s->path, "LocalBlockServer0Read: could not open file \"%s\"");
    if (channel == nullptr) return false;
    if (!IndexOldGenDecode(channel, &s->r_gen) || !ExpectEnd(channel)) {
        QKErrorRethrow("LocalBlockServer0Read: could not read old generation from file \"%s\"",
                       s->path);
        CloseKeepingError(channel);
        return false;
    }
    return CloseRead(channel, s->path);
}

bool Read(LocalBlockServer0 *s, ULong serialOld, ULong serialNew) {
    struct stat st;
    if (stat(s->mapping.path, &st) != 0) {
        QKSetLastErrorFromErrno();
        return false;
    }
    return MemoryMappingOpenFile(&s->mapping) && ReadNew(s, serialNew) && ReadOld(s, serialOld);
}

// Writes empty index files and makes the data file, blockSize *
// minBlockCount bytes long, when it is missing.
bool InitialCreate(LocalBlockServer0 *s, ULong serial) {
    if (!IndexFileFlushNew(s, serial, 0) || !IndexFileFlushOld(s, serial)) return false;
    if (serial == STATUS_NO_SERIAL && (!IndexFileCommitNew(s) || !IndexFileCommitOld(s)))
        return false;
    if (FileExists(s->mapping.path)) return true;
    QKFile file = QKFileOpen(s->mapping.path, QKFILE_READ | QKFILE_WRITE);
    if (file == QKFILE_INVALID) return false;
    bool ok = QKFileSetSize(file, (ULong)s->blockSize * s->minBlockCount, 1) != 0;
    if (!ok) {
        QKErrorSave();
        QKFileClose(file);
        QKErrorRestore();
        return false;
    }
    return QKFileClose(file) != 0;
}

bool IsMissingFile(ULong code) {
    return (UInt)code == ENOENT &&
           ((code >> 32) == QK_DOMAIN_RUNTIME || (code >> 32) == QK_DOMAIN_OS);
}

}  // namespace

LocalBlockServer0 *LocalBlockServer0Open_(const char *dir, UInt index, UInt flags, UInt blockSize,
                                          UInt fileBlockSize, UInt minBlockCount, ULong serialOld,
                                          ULong serialNew) {
    bool rollForward = (flags & kFlagRollForward) != 0;
    flags &= ~kFlagRollForward;
    if (flags & VM_FLAG_RECOVER) {
        qkassert(serialOld == STATUS_NO_SERIAL && serialNew == STATUS_NO_SERIAL);
    }
    if (rollForward) {
        // Only under the marker `committing`, which a commit creates once
        // every temporary file is whole and synced: then both files move
        // forward together, so that a commit cut short between any two
        // renames comes back whole. Without the marker the temporary files
        // may be partial, and the last commit's files stand. A file that has
        // no temporary form stays as it is; what the rolling cannot settle
        // is settled by the reading below.
        LocalBlockServer0 *s = New(dir, index, flags, blockSize, fileBlockSize, minBlockCount);
        if (s == nullptr) return nullptr;
        int saved = errno;
        int last = QKGetLastError();
        IndexFileCommitNew(s);
        IndexFileCommitOld(s);
        QKSetLastError(last);
        errno = saved;
        LocalBlockServer0Close(s);
    }
    LocalBlockServer0 *s = New(dir, index, flags, blockSize, fileBlockSize, minBlockCount);
    if (s == nullptr) return nullptr;
    bool ok = Read(s, serialOld, serialNew);
    if (!ok && IsMissingFile(QKErrorCode()) && !s->readOnly) {
        // A bucket that lost its files starts again empty.
        LocalBlockServer0Close(s);
        s = New(dir, index, flags, blockSize, fileBlockSize, minBlockCount);
        if (s == nullptr) return nullptr;
        ULong serial = serialOld == STATUS_NO_SERIAL ? STATUS_NO_SERIAL : 0;
        ok = InitialCreate(s, serial);
        if (!ok) QKErrorSave();
        LocalBlockServer0Close(s);
        if (!ok) QKErrorRestore();
        s = ok ? New(dir, index, flags, blockSize, fileBlockSize, minBlockCount) : nullptr;
        ok = s != nullptr && Read(s, serialOld, serialNew);
    }
    if (!ok) {
        char suffix[16];
        trio_snprintf(suffix, sizeof suffix, "%x", index);
        QKErrorRethrow("LocalBlockServer0Open_: could not read block server in \"%s%s\"", dir,
                       suffix);
        if (s != nullptr) {
            QKErrorSave();
            LocalBlockServer0Close(s);
            QKErrorRestore();
        }
        return nullptr;
    }
    s->serial_old = serialOld;
    s->serial_new = serialNew;
    s->flushedSerialOld = s->flushedSerialNew = STATUS_NO_SERIAL;
    return s;
}

void LocalBlockServer0Close(LocalBlockServer0 *s) {
    if (s == nullptr) return;
    MemoryMappingFree(&s->mapping);
    FArrayFree(s->rw_gen.map, UInt);
    FArrayFree(s->rw_gen.mapFlags, UByte);
    ArrayFree(s->rw_gen.modified);
    ArrayFree(s->rw_gen.freeRawBlocksOld);
    ArrayFree(s->rw_gen.freeRawBlocksNew);
    ArrayFree(s->rw_gen.freeBlock);
    MutexDestroy(&s->rw_gen.mutex);
    FArrayFree(s->r_gen, UInt);
    FArrayFree(s->r_gen_next, UInt);
    UnAllocate(s->dir);
    UnAllocate(s->suffix);
    UnAllocate(s);
}

bool LocalBlockServerOpen(LocalBlockServer *set, const char *dir, UInt count, UInt flags,
                          UInt blockSize, UInt fileBlockSize, UInt minBlockCount, ULong serialOld,
                          ULong serialNew) {
    memset(set, 0, sizeof *set);
    while ((1u << set->bucketBits) < count) set->bucketBits++;
    for (UInt i = 0; i < count; i++) {
        LocalBlockServer0 *s = LocalBlockServer0Open_(dir, i, flags, blockSize, fileBlockSize,
                                                      minBlockCount, serialOld, serialNew);
        if (s == nullptr) {
            QKErrorSave();
            LocalBlockServerClose(set);
            QKErrorRestore();
            return false;
        }
        ArrayAdd(set->buckets, s);
    }
    return true;
}

void LocalBlockServerClose(LocalBlockServer *set) {
    for (UInt i = 0; i < ArrayLength(set->buckets); i++)
        LocalBlockServer0Close(ArrayNth(set->buckets, i));
    ArrayFree(set->buckets);
}

}  // namespace qk::arena
