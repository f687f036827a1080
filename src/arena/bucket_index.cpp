// A bucket's index files: reading the new generation into the map and its
// flags, and writing and publishing both files.
#include "arena/arena_format.h"
#include "arena/file_atomic.h"
#include "arena/metadata_io.h"

namespace qk::arena {
namespace {

// Sets the flag of every logical block: blocks in the mapped read part (and
// blocks without a raw block) are the old generation's; a block beyond it
// can only come from a mounted later generation.
void SetFlags(LocalBlockServer0 *s, bool mount) {
    LocalBlockServer0RW *rw = &s->rw_gen;
    UInt count = FArrayLength(rw->map);
    UInt readBlocks = s->mapping.rsize / s->blockSize;
    FArrayFree(rw->mapFlags, UByte);
    FArrayInitHeap(rw->mapFlags, rw->map.blockSize);
    if (count > 0) {
        FArrayEnsureCapacity0(rw->mapFlags, UByte, count);
        rw->mapFlags.length = count;
    }
    for (UInt i = 0; i < count; i++) {
        UInt raw = FArrayNth(rw->map, UInt, i);
        UByte flag = MAP_FLAG_OLD;
        if (raw != INVALID_RAW_BLOCK_ID && raw >= readBlocks) {
            qkassert(mount);
            flag = MAP_FLAG_NEW;
        }
        FArrayNth(rw->mapFlags, UByte, i) = flag;
    }
}

// Maps the data file for an index whose committed size is `rsize`.
bool Map(LocalBlockServer0 *s, ULong rsize, bool mount) {
    MemoryMapping *m = &s->mapping;
    ULong fileSize = MemoryMappingFileSize(m);
    if (fileSize == ~(ULong)0) return false;
    if (!mount) {
        if (fileSize < rsize) {
            QKErrorThrow(QK_ERR_FORMAT, QK_DOMAIN_GENERAL,
                         "IndexFileNewGenRead: data file too short (file size=%I64u  rsize=%I64u)",
                         fileSize, rsize);
            return false;
        }
        bool locked = m->locked;
        MemoryMappingUnlock(m);
        if (!MemoryMappingRemapRead(m, (UInt)rsize, false, false)) return false;
        if (locked) MemoryMappingLock(m);
    } else if (rsize <= m->rsize) {
        if (!MemoryMappingRemapWrite(m)) return false;
    } else {
        if (fileSize < rsize) {
            QKErrorThrow(QK_ERR_FORMAT, QK_DOMAIN_GENERAL,
                         "IndexFileNewGenRead: cannot mount data file: file size mismatch (file "
                         "size=%I64u  rsize=%I64u)",
                         fileSize, rsize);
            return false;
        }
        UInt rest = (UInt)rsize - m->rsize;
        if (!MemoryMappingRemapWrite(m) || !MemoryMappingRawEnsureRWCapacity(m, rest)) return false;
        MemoryMappingSetRWLength(m, rest);
    }
    m->finalRSize = (UInt)rsize;
    return true;
}

bool CommitIndex(LocalBlockServer0 *s, const char *which, const char *who) {
    char name[kPathSize];
    if (!FormatPath(name, "index%s.%s", s->suffix, which)) return false;
    if (FileAtomicSwap(s->dir, name)) return true;
    QKErrorRethrow("%s: could not atomically commit: \"%s/%s\"", who, s->dir, name);
    return false;
}

}  // namespace

bool IndexFileNewGenRead(LocalBlockServer0 *s, Channel *channel, bool mount) {
    ULong rsize;
    MutexLock(&s->rw_gen.mutex);
    bool ok = IndexNewGenDecode(channel, &rsize, &s->rw_gen);
    MutexUnlock(&s->rw_gen.mutex);
    if (!ok) return false;
    if (rsize % s->blockSize != 0 || rsize > 0xFFFFFFFFull - s->blockSize) {
        QKErrorThrow(QK_ERR_FORMAT, QK_DOMAIN_GENERAL, "invalid committed size %I64u", rsize);
        return false;
    }
    if (!Map(s, rsize, mount)) return false;
    MutexLock(&s->rw_gen.mutex);
    SetFlags(s, mount);
    MutexUnlock(&s->rw_gen.mutex);
    return true;
}

bool IndexFileFlushNew(LocalBlockServer0 *s, ULong serial, UInt rsize) {
    bool named = serial == STATUS_NO_SERIAL
                     ? FormatPath(s->tempPath, "%s/index%s.new.new", s->dir, s->suffix)
                     : FormatPath(s->tempPath, "%s/index%s.new.%I64u", s->dir, s->suffix, serial);
    if (!named) return false;
    return WriteMetadata("IndexFileFlushNew", s->tempPath, [s, rsize](Channel *channel) {
        MutexLock(&s->rw_gen.mutex);
        bool ok = IndexNewGenEncode(channel, s->blockSize, rsize, &s->rw_gen);
        MutexUnlock(&s->rw_gen.mutex);
        if (!ok) QKErrorRethrow("IndexFileFlushNew: could not write data on: \"%s\"", s->tempPath);
        return ok;
    });
}

bool IndexFileFlushOld(LocalBlockServer0 *s, ULong serial) {
    bool named = serial == STATUS_NO_SERIAL
                     ? FormatPath(s->tempPath, "%s/index%s.old.new", s->dir, s->suffix)
                     : FormatPath(s->tempPath, "%s/index%s.old.%I64u", s->dir, s->suffix, serial);
    if (!named) return false;
    bool written = WriteMetadata("IndexFileFlushOld", s->tempPath, [s](Channel *channel) {
        MutexLock(&s->rw_gen.mutex);
        bool ok = IndexOldGenEncode(channel, &s->rw_gen.map);
        MutexUnlock(&s->rw_gen.mutex);
        if (!ok) QKErrorRethrow("IndexFileFlushOld: could not write data on: \"%s\"", s->tempPath);
        return ok;
    });
    if (!written) return false;
    // The image that the old generation becomes at the memory commit, as the
    // file holds it.
    FArrayFree(s->r_gen_next, UInt);
    FArrayInitHeap(s->r_gen_next, s->r_gen.blockSize);
    Channel *channel = OpenForRead(s->tempPath, "IndexFileFlushOld: could not open file \"%s\"");
    if (channel == nullptr) return false;
    if (!IndexOldGenDecode(channel, &s->r_gen_next) || !ExpectEnd(channel)) {
        QKErrorRethrow("IndexFileFlushOld: could not read back \"%s\"", s->tempPath);
        CloseKeepingError(channel);
        return false;
    }
    return CloseRead(channel, s->tempPath);
}

bool IndexFileCommitNew(LocalBlockServer0 *s) {
    return CommitIndex(s, "new", "IndexFileCommitNew");
}

bool IndexFileCommitOld(LocalBlockServer0 *s) {
    return CommitIndex(s, "old", "IndexFileCommitOld");
}

}  // namespace qk::arena
