// Writing a bucket's mapped data back to its file: the read part and the
// read-write part up to the committed size, then the file itself.
#include <sys/mman.h>

#include "arena/mapping.h"
#include "qk/frame.h"
#include "qk/memory.h"

namespace qk::arena {
namespace {

struct RWFlush {
    const MemoryMapping *m;
    bool failed;
};

// One fragment of the read-write part; `offset` is its place in the part.
void FlushFragment(void *pointer, UInt offset, size_t size, int *, void *userData) {
    auto *flush = static_cast<RWFlush *>(userData);
    if (flush->failed) return;
    ULong start = (ULong)flush->m->rsize + offset;
    ULong end = flush->m->finalRSize;
    if (start >= end) return;
    size_t length = end - start < size ? (size_t)(end - start) : size;
    if (!FileMapSync(pointer, length)) flush->failed = true;
}

}  // namespace

bool MemoryMappingFlush(MemoryMapping *m) {
    UInt limit = m->finalRSize < m->rsize ? m->finalRSize : m->rsize;
    const ULong segment = 1ull << m->log2Segment;
    for (UInt i = 0; i < ArrayLength(m->r_mapped); i++) {
        ULong start = (ULong)i << m->log2Segment;
        if (start >= limit) break;
        ULong length = limit - start < segment ? limit - start : segment;
        if (!FileMapSync((void *)ArrayNth(m->r_mapped, i), (size_t)length)) {
            QKErrorRethrow("MemoryMappingFlush : could not flush read part");
            return false;
        }
    }
    if (m->finalRSize > m->rsize) {
        RWFlush flush = {m, false};
        FArrayExec(m->rw_mapped, UByte, FlushFragment, &flush);
        if (flush.failed) {
            QKErrorRethrow("MemoryMappingFlush : could not flush read-write part");
            return false;
        }
    }
    if (m->fd != QKFILE_INVALID && !QKFileSync(m->fd)) {
        QKErrorRethrow("MemoryMappingSync: cannot fsync: \"%s/%s%s\"", m->dir, m->name, m->suffix);
        return false;
    }
    return true;
}

// Asks the system to read the block's pages ahead of their first use.
void MemoryMappingPrefetch(MemoryMapping *m, UInt rawID) {
    UByte *block = MemoryMappingRawBlockGet(m, rawID, false);
    if (block == nullptr) return;
    uintptr_t page = PageSize();
    uintptr_t start = (uintptr_t)block & ~(page - 1);
    uintptr_t end = ((uintptr_t)block + m->blockSize + page - 1) & ~(page - 1);
    posix_madvise((void *)start, end - start, POSIX_MADV_WILLNEED);
}

}  // namespace qk::arena
