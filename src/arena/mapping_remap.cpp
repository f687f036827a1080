// Making and dropping the mappings of a bucket's data file: the read part in
// segments, the read-write part in fragments that never move.
#include <errno.h>
#include <fcntl.h>

#include "arena/mapping.h"
#include "qk/frame.h"
#include "qk/memory.h"

namespace {

// Reserves the file's blocks from `offset` for `size` bytes, lengthening it
// as needed, so that writes through a mapping of the range cannot fail for
// want of space (holes left by an earlier crash included). Where the file
// system cannot reserve, a shorter file is lengthened with written zeros.
bool Reserve(MemoryMapping *m, ULong offset, ULong size) {
    int error = posix_fallocate(m->fd, (off_t)offset, (off_t)size);
    if (error == 0) return true;
    if (error != EOPNOTSUPP && error != EINVAL) {
        QKSetLastError(error);
        errno = -1;
        return false;
    }
    ULong current = qk::arena::MemoryMappingFileSize(m);
    if (current == ~(ULong)0) return false;
    return current >= offset + size || QKFileSetSize(m->fd, offset + size, 1) != 0;
}

// The allocator of the read-write part: maps the next `size` bytes of the
// file behind what is mapped already.
void *MapAlloc(void *oldPointer, size_t size, int *ok, void *userData, const char *, int) {
    auto *m = static_cast<MemoryMapping *>(userData);
    qkassert(oldPointer == NULL);
    ULong offset = (ULong)m->rsize + m->rwSize;
    if (offset + size > 0xFFFFFFFFull) {
        QKErrorThrow(QK_ERR_INVALID, QK_DOMAIN_GENERAL, "MapAlloc: data file full \"%s/%s%s\"",
                     m->dir, m->name, m->suffix);
        *ok = 0;
        return nullptr;
    }
    if (!qk::arena::MemoryMappingOpenFile(m)) {
        *ok = 0;
        return nullptr;
    }
    // A read-only mapping only maps what a later generation wrote; the
    // fragment may reach past the end of the file, where nothing is read.
    if (!m->readOnly && !Reserve(m, offset, size)) {
        QKErrorRethrow("MapAlloc: could not expand mapped file \"%s/%s%s\"", m->dir, m->name,
                       m->suffix);
        *ok = 0;
        return nullptr;
    }
    void *view = FileMapSegment(m->fd, m->readOnly, offset, size);
    if (view == nullptr) {
        QKErrorRethrow("MapAlloc: could not map file \"%s/%s%s\"", m->dir, m->name, m->suffix);
        *ok = 0;
        return nullptr;
    }
    MemoryAdvise(view, size, m->advice);
    m->rwSize += (UInt)size;
    return view;
}

void MapFree(void *pointer, UInt, size_t, int *ok, void *) {
    if (!FileUnmap(pointer)) *ok = 0;
}

bool UnmapRead(MemoryMapping *m) {
    while (ArrayLength(m->r_mapped) > 0) {
        if (!FileUnmap((void *)ArrayLast(m->r_mapped))) return false;
        m->r_mapped.length--;
    }
    return true;
}

}  // namespace

namespace qk::arena {

bool MemoryMappingRemapRead(MemoryMapping *m, UInt rsize, bool shrink, bool mount) {
    if (!UnmapRead(m)) {
        QKErrorRethrow("MemoryMappingRemapRead: cannot unmap: \"%s/%s%s\"", m->dir, m->name,
                       m->suffix);
        return false;
    }
    if (ArrayCapacity(m->r_mapped) > QK_ARRAY_KEEP_LIMIT) ArrayFree(m->r_mapped);
    m->rsize = 0;
    if (!MemoryMappingOpenFile(m)) return false;
    if (shrink && (mount || !m->readOnly)) {
        ULong least = (ULong)m->blockSize * m->minBlockCount;
        ULong target = rsize > least ? rsize : least;
        int done =
            m->readOnly ? FileTruncate(m->path, target, 0, 0) : QKFileSetSize(m->fd, target, 0);
        if (!done) {
            QKErrorRethrow("MemoryMappingRemapRead: cannot truncate: \"%s/%s%s\"", m->dir, m->name,
                           m->suffix);
            return false;
        }
    }
    const ULong segment = 1ull << m->log2Segment;
    for (ULong at = 0; at < rsize; at += segment) {
        size_t size = (size_t)(rsize - at < segment ? rsize - at : segment);
        void *view = FileMapSegment(m->fd, m->readOnly, at, size);
        if (view == nullptr) {
            QKErrorRethrow("MemoryMappingRemapRead: cannot map: \"%s/%s%s\"", m->dir, m->name,
                           m->suffix);
            QKErrorSave();
            UnmapRead(m);
            QKErrorRestore();
            return false;
        }
        MemoryAdvise(view, size, m->advice);
        ArrayAdd(m->r_mapped, (uintptr_t)view);
    }
    m->rsize = rsize;
    return true;
}

bool MemoryMappingRemapWrite(MemoryMapping *m) {
    if (!FArrayFree(m->rw_mapped, UByte)) {
        QKErrorRethrow("MemoryMappingRemapWrite: could not free read-write part");
        return false;
    }
    FArrayInit(m->rw_mapped, m->blockSize * m->minBlockCount, MapAlloc, MapFree, m);
    m->rwSize = 0;
    m->rwLength = 0;
    return true;
}

bool MemoryMappingRawEnsureRWCapacity(MemoryMapping *m, UInt bytes) {
    return FArrayEnsureCapacity(m->rw_mapped, UByte, bytes) != 0;
}

void MemoryMappingSetRWLength(MemoryMapping *m, UInt bytes) {
    qkassert(bytes <= m->rwSize);
    m->rwLength = bytes;
    m->rw_mapped.length = bytes;
}

}  // namespace qk::arena
