// The commit of an arena. The new image is written beside the committed
// one while readers go on; `committing` marks the stretch in which the
// renames publish it; the memory structures switch under a short exclusive
// hold of the old generation's lock.
//
// rw_gen.lock is held shared by everyone in the new generation and
// exclusively from VMArenaFlushStart to VMArenaFlushStop; oldGenLock is held
// shared by readers of the committed image and exclusively only for the
// switch. rw_gen.lock comes first. One commit runs at a time.
#include <string.h>

#include "arena/arena_durable.h"
#include "arena/block_read.h"
#include "arena/file_atomic.h"
#include "qk/frame.h"

using namespace qk::arena;

namespace {

UInt BucketCount(VMArena *arena) {
    return ArrayLength(arena->server.buckets);
}

LocalBlockServer0 *Bucket(VMArena *arena, UInt i) {
    return ArrayNth(arena->server.buckets, i);
}

bool CommitArenaFile(VMArena *arena, const char *name) {
    if (FileAtomicSwap(arena->dir, name)) return true;
    QKErrorRethrow("could not atomically commit: \"%s/%s\"", arena->dir, name);
    return false;
}

// The bucket's old image becomes the one read back, its data file is mapped
// up to the committed size and, where no other process may map it, cut to
// that size.
bool SwitchBucket(LocalBlockServer0 *s, bool shrink) {
    FArray previous = s->r_gen;
    s->r_gen = s->r_gen_next;
    s->r_gen_next = previous;
    UInt fragment = s->r_gen_next.blockSize;
    FArrayFree(s->r_gen_next, UInt);
    FArrayInitHeap(s->r_gen_next, fragment);
    MemoryMapping *m = &s->mapping;
    bool locked = m->locked;
    MemoryMappingUnlock(m);
    bool ok =
        MemoryMappingRemapWrite(m) && MemoryMappingRemapRead(m, m->finalRSize, shrink, s->mounted);
    if (ok && locked) MemoryMappingLock(m);
    s->mounted = false;
    return ok;
}

}  // namespace

extern "C" {

QK_API int VMArenaFlushStart(VMArena *arena, ULong *oldSerial, ULong *newSerial) {
    // Most dirty pages reach the disk before the writers are stopped.
    for (UInt i = 0; i < BucketCount(arena); i++) {
        if (!MemoryMappingFlush(&Bucket(arena, i)->mapping)) return 0;
    }
    qkassert(!arena->readOnly);
    RWLockAcquireWrite(&arena->rw_gen.lock);
    if (arena->serialOld == STATUS_NO_SERIAL) {
        arena->flushedSerialOld = arena->flushedSerialNew = STATUS_NO_SERIAL;
    } else {
        qkassert(arena->serialNew != STATUS_NO_SERIAL);
        arena->flushedSerialOld = arena->serialOld + 1;
        arena->flushedSerialNew = arena->serialNew + 1;
    }
    if (oldSerial != nullptr) *oldSerial = arena->flushedSerialOld;
    if (newSerial != nullptr) *newSerial = arena->flushedSerialNew;
    ULong flushedSerialOld = arena->flushedSerialOld, flushedSerialNew = arena->flushedSerialNew;
    for (UInt i = 0; i < BucketCount(arena); i++) {
        LocalBlockServer0 *server = Bucket(arena, i);
        server->committed = false;
        if (flushedSerialOld == STATUS_NO_SERIAL) continue;
        qkassert(server->serial_old != STATUS_NO_SERIAL && server->serial_new != STATUS_NO_SERIAL);
        qkassert(flushedSerialOld > server->serial_old);
        qkassert(flushedSerialNew > server->serial_new);
        server->flushedSerialOld = flushedSerialOld;
        server->flushedSerialNew = flushedSerialNew;
    }
    return 1;
}

QK_API int VMArenaFlushExec(VMArena *arena) {
    for (UInt i = 0; i < BucketCount(arena); i++) {
        if (!LocalBlockServer0FlushFileExec(Bucket(arena, i))) return 0;
    }
    return VMArenaFileFlushNew(arena, arena->dir) && VMArenaFileFlushOld(arena, arena->dir);
}

QK_API int VMArenaFlushCommitDisk(VMArena *arena) {
    for (UInt i = 0; i < BucketCount(arena); i++) {
        LocalBlockServer0 *s = Bucket(arena, i);
        s->committed = true;
        if (s->flushedSerialOld == STATUS_NO_SERIAL && !IndexFileCommitOld(s)) return 0;
        if (s->flushedSerialNew == STATUS_NO_SERIAL && !IndexFileCommitNew(s)) return 0;
    }
    if (arena->flushedSerialNew == STATUS_NO_SERIAL) {
        if (!CommitArenaFile(arena, "arena.new") || !CommitArenaFile(arena, "arena.old")) return 0;
        // The renames are synced; the removals of the previous files too.
        if (!VMArenaSyncDirectories(arena)) return 0;
    }
    return 1;
}

QK_API int VMArenaFlushCommitMemory(VMArena *arena, int lock) {
    qkassert(!arena->readOnly || arena->mounted);
    // A file that another process may map (the serial forms) keeps its size.
    bool shrink = arena->flushedSerialNew == STATUS_NO_SERIAL;
    if (lock) RWLockAcquireWrite(&arena->oldGenLock);
    bool ok = true;
    for (UInt i = 0; i < BucketCount(arena); i++) {
        LocalBlockServer0 *s = Bucket(arena, i);
        if (s->readOnly && !s->mounted) continue;
        if (!SwitchBucket(s, shrink)) {
            ok = false;
            break;
        }
    }
    if (ok) {
        VMArenaR previous = arena->r_gen;
        arena->r_gen = arena->r_gen_next;
        arena->r_gen_next = previous;
        // Every block has a new address: none is resolved yet.
        if (arena->r_gen.cache.length > 0)
            memset(arena->r_gen.cache.data, 0, arena->r_gen.cache.length * sizeof(uintptr_t));
        NameServiceCommit(arena);
        VMArenaFillBlockCaches(arena);
    }
    if (lock) RWLockRelease(&arena->oldGenLock);
    if (!ok) return 0;
    VMArenaRFree(&arena->r_gen_next);
    VMArenaRInit(&arena->r_gen_next);
    arena->serialNew = arena->flushedSerialNew;
    arena->serialOld = arena->flushedSerialOld;
    for (UInt i = 0; i < BucketCount(arena); i++) {
        LocalBlockServer0 *s = Bucket(arena, i);
        if (s->flushedSerialNew == STATUS_NO_SERIAL) continue;
        s->serial_old = s->flushedSerialOld;
        s->serial_new = s->flushedSerialNew;
    }
    arena->mounted = false;
    return 1;
}

QK_API int VMArenaFlushStop(VMArena *arena) {
    qkassert(!arena->readOnly);
    RWLockRelease(&arena->rw_gen.lock);
    return 1;
}

QK_API int VMArenaCommit(VMArena *arena, ULong *oldSerial, ULong *newSerial) {
    if (!VMArenaFlushStart(arena, oldSerial, newSerial)) return 0;
    bool ok = VMArenaFlushExec(arena) && VMArenaSyncDirectories(arena) &&
              VMArenaMarkCommitting(arena) && VMArenaFlushCommitDisk(arena) &&
              VMArenaUnmarkCommitting(arena) && VMArenaFlushCommitMemory(arena, 1);
    if (!ok) QKErrorSave();
    VMArenaFlushStop(arena);
    if (!ok) QKErrorRestore();
    return ok;
}

QK_API void VMArenaFlushCommitMemoryAcquire(VMArena *arena) {
    RWLockAcquireWrite(&arena->oldGenLock);
}

QK_API void VMArenaFlushCommitMemoryRelease(VMArena *arena) {
    RWLockRelease(&arena->oldGenLock);
}

QK_API void VMArenaOldGenAcquire(VMArena *arena) {
    RWLockAcquireRead(&arena->oldGenLock);
}

QK_API void VMArenaOldGenRelease(VMArena *arena) {
    RWLockRelease(&arena->oldGenLock);
}

QK_API void VMArenaNewGenAcquire(VMArena *arena, Int genID) {
    RWLockAcquireRead(genID == NEWGEN ? &arena->rw_gen.lock : &arena->oldGenLock);
}

QK_API void VMArenaNewGenRelease(VMArena *arena, Int genID) {
    RWLockRelease(genID == NEWGEN ? &arena->rw_gen.lock : &arena->oldGenLock);
}

}  // extern "C"
