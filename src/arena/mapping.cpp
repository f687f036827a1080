// The data file of a bucket: opening, block addresses, locking and advice.
#include <errno.h>
#include <string.h>
#include <sys/stat.h>

#include "arena/mapping.h"
#include "qk/arena.h"
#include "qk/frame.h"
#include "qk/memory.h"

namespace {

constexpr UInt kLog2Segment = 28;

// The segment sizes follow from rsize: all 256 MiB but the last.
size_t SegmentSize(const MemoryMapping *m, UInt index) {
    ULong start = (ULong)index << m->log2Segment;
    ULong rest = m->rsize - start;
    ULong full = 1ull << m->log2Segment;
    return (size_t)(rest < full ? rest : full);
}

// log2 of the pages in one block.
UInt ReadSizeLog2(UInt blockSize) {
    UInt pages = blockSize / (UInt)PageSize();
    UInt log2 = 0;
    while ((1u << (log2 + 1)) <= pages) log2++;
    return log2;
}

// Asks for reads of one block at a time; where the platform refuses, the
// advice falls back to normal. The refusal is no error of the caller's.
void SetRandomReadSize(MemoryMapping *m) {
    int savedErrno = errno;
    int savedLast = QKGetLastError();
    if (!FileSetReadSize(m->fd, ReadSizeLog2(m->blockSize))) m->advice = 0;
    QKSetLastError(savedLast);
    errno = savedErrno;
}

}  // namespace

namespace qk::arena {

bool MemoryMappingInit(MemoryMapping *m, const char *dir, const char *suffix, UInt blockSize,
                       UInt minBlockCount, UInt flags) {
    memset(m, 0, sizeof *m);
    m->mutex = MUTEX_INITIALIZER;
    m->readOnly = (flags & VM_FLAG_READ_ONLY) != 0;
    m->advice = (flags & VM_FLAG_RANDOM) ? FILE_ADVICE_RANDOM : FILE_ADVICE_NORMAL;
    m->flags = flags;
    m->fd = QKFILE_INVALID;
    m->blockSize = blockSize;
    m->minBlockCount = minBlockCount;
    m->dir = Strdup(dir);
    m->suffix = Strdup(suffix);
    m->name = Strdup("data");
    m->log2Segment = kLog2Segment;
    FArrayInit(m->rw_mapped, blockSize * minBlockCount, nullptr, nullptr, nullptr);
    MemoryMappingRemapWrite(m);
    return FormatPath(m->path, "%s/%s%s", m->dir, m->name, m->suffix);
}

void MemoryMappingFree(MemoryMapping *m) {
    if (m->dir == nullptr) return;  // never prepared
    MemoryMappingUnlock(m);
    int savedErrno = errno;
    int savedLast = QKGetLastError();
    for (UInt i = 0; i < ArrayLength(m->r_mapped); i++) FileUnmap((void *)ArrayNth(m->r_mapped, i));
    ArrayFree(m->r_mapped);
    FArrayFree(m->rw_mapped, UByte);
    if (m->fd != QKFILE_INVALID) QKFileClose(m->fd);
    QKSetLastError(savedLast);
    errno = savedErrno;
    UnAllocate(m->dir);
    UnAllocate(m->suffix);
    UnAllocate(m->name);
    MutexDestroy(&m->mutex);
    memset(m, 0, sizeof *m);
    m->fd = QKFILE_INVALID;
}

bool MemoryMappingOpenFile(MemoryMapping *m) {
    MutexLock(&m->mutex);
    bool ok = true;
    if (m->fd == QKFILE_INVALID) {
        int flags = QKFILE_READ | (m->readOnly ? 0 : QKFILE_WRITE);
        if (m->flags & VM_FLAG_RANDOM) flags |= QKFILE_RANDOM;
        m->fd = QKFileOpen(m->path, flags);
        if (m->fd == QKFILE_INVALID) {
            QKErrorRethrow("could not open file \"%s\"", m->path);
            ok = false;
        } else if (m->advice == FILE_ADVICE_RANDOM) {
            SetRandomReadSize(m);
        }
    }
    MutexUnlock(&m->mutex);
    return ok;
}

ULong MemoryMappingFileSize(MemoryMapping *m) {
    struct stat st;
    if (fstat(m->fd, &st) != 0) {
        QKSetLastErrorFromErrno();
        return ~(ULong)0;
    }
    return (ULong)st.st_size;
}

UByte *MemoryMappingRawBlockGet(MemoryMapping *m, UInt rawID, bool mustExist) {
    ULong offset = (ULong)rawID * m->blockSize;
    if (offset < m->rsize) {
        uintptr_t segment = ArrayNth(m->r_mapped, (UInt)(offset >> m->log2Segment));
        return (UByte *)segment + (offset & ((1ull << m->log2Segment) - 1));
    }
    ULong relative = offset - m->rsize;
    if (relative + m->blockSize > m->rwLength) {
        if (mustExist) qkassert(relative + m->blockSize <= m->rwLength);
        return nullptr;
    }
    UInt end;
    auto *block = (UByte *)FArrayRange_(&m->rw_mapped, (UInt)relative, &end, 1);
    qkassert(block != NULL && end - relative >= m->blockSize);
    return block;
}

bool MemoryMappingLock(MemoryMapping *m) {
    for (UInt i = 0; i < ArrayLength(m->r_mapped); i++) {
        if (!MemoryLock((void *)ArrayNth(m->r_mapped, i), SegmentSize(m, i))) {
            QKErrorSave();
            for (UInt j = 0; j < i; j++)
                MemoryUnlock((void *)ArrayNth(m->r_mapped, j), SegmentSize(m, j));
            QKErrorRestore();
            return false;
        }
    }
    m->locked = true;
    return true;
}

void MemoryMappingUnlock(MemoryMapping *m) {
    if (!m->locked) return;
    int savedErrno = errno;
    int savedLast = QKGetLastError();
    for (UInt i = 0; i < ArrayLength(m->r_mapped); i++)
        MemoryUnlock((void *)ArrayNth(m->r_mapped, i), SegmentSize(m, i));
    QKSetLastError(savedLast);
    errno = savedErrno;
    m->locked = false;
}

void MemoryMappingAdvise(MemoryMapping *m, int advice) {
    m->advice = advice;
    if (advice == FILE_ADVICE_RANDOM && m->fd != QKFILE_INVALID) SetRandomReadSize(m);
    for (UInt i = 0; i < ArrayLength(m->r_mapped); i++)
        MemoryAdvise((void *)ArrayNth(m->r_mapped, i), SegmentSize(m, i), m->advice);
    FArrayExec(
        m->rw_mapped, UByte,
        [](void *pointer, UInt, size_t size, int *, void *userData) {
            MemoryAdvise(pointer, size, static_cast<MemoryMapping *>(userData)->advice);
        },
        m);
}

int MemoryMappingSetModificationDate(MemoryMapping *) {
    return 1;
}

}  // namespace qk::arena
