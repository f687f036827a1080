// Opening an arena: markers first, then the metadata and the buckets; an
// arena is made only where nothing of one exists.
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <initializer_list>

#include "arena/arena_durable.h"
#include "arena/arena_files.h"
#include "arena/block_read.h"
#include "qk/file.h"
#include "qk/memory.h"

using namespace qk::arena;

namespace {

VMArena *New(const char *dir, UInt flags, UInt bucketCount, ULong oldSerial, ULong newSerial) {
    auto *arena = AllocateZero(VMArena);
    arena->view = {&arena->r_gen, &arena->rw_gen.array};
    arena->dir = Strdup(dir);
    arena->readOnly = (flags & VM_FLAG_READ_ONLY) != 0;
    arena->flags = flags;
    arena->serialOld = oldSerial;
    arena->serialNew = newSerial;
    arena->flushedSerialOld = arena->flushedSerialNew = STATUS_NO_SERIAL;
    RWLockInit(&arena->oldGenLock);
    VMArenaRInit(&arena->r_gen);
    VMArenaRInit(&arena->r_gen_next);
    VMArenaRWInit(&arena->rw_gen);
    arena->mapped = (flags & VM_FLAG_MAPPED) != 0;
    arena->bucketCount = bucketCount;
    arena->nameService.mutex = MUTEX_INITIALIZER;
    VMArenaLoadInfoInit(arena);
    return arena;
}

void Delete(VMArena *arena) {
    NameServiceClose(arena);
    LocalBlockServerClose(&arena->server);
    VMArenaRWFree(&arena->rw_gen);
    VMArenaRFree(&arena->r_gen);
    VMArenaRFree(&arena->r_gen_next);
    RWLockDestroy(&arena->oldGenLock);
    VMArenaLoadInfoFree(arena);
    UnAllocate(arena->dir);
    UnAllocate(arena);
}

void DeleteKeepingError(VMArena *arena) {
    QKErrorSave();
    Delete(arena);
    QKErrorRestore();
}

bool Exists(const char *dir, const char *name) {
    char path[kPathSize];
    return FormatPath(path, "%s/%s", dir, name) && FileExists(path);
}

// Anything that an arena, whole or half made, leaves in its directory.
bool AnySign(const char *dir, ULong oldSerial, ULong newSerial) {
    char path[kPathSize];
    if (newSerial != STATUS_NO_SERIAL || oldSerial != STATUS_NO_SERIAL) {
        return (FormatPath(path, "%s/arena.new.%I64u", dir, newSerial) && FileExists(path)) ||
               (FormatPath(path, "%s/arena.old.%I64u", dir, oldSerial) && FileExists(path));
    }
    for (const char *name : {"arena.new", "arena.old", "arena.new.new", "arena.new.old",
                             "arena.old.new", "arena.old.old", "block"}) {
        if (Exists(dir, name)) return true;
    }
    return false;
}

// Writes the files of an empty arena: array 0, the name table, and nothing
// else. The buckets are made when they are first opened.
bool Create(const char *dir, UInt flags, UInt bucketCount, ULong oldSerial, ULong newSerial) {
    if (bucketCount == 0 || bucketCount > kMaxBuckets) {
        QKErrorThrow(QK_ERR_INVALID, QK_DOMAIN_GENERAL, "invalid bucket count %u", bucketCount);
        return false;
    }
    VMArena *arena = New(dir, flags, bucketCount, oldSerial, newSerial);
    Int arrayID = VMAArrayNew(arena, false, ARENA_MAX_BLOCK_SIZE, NEWGEN);
    qkassert(arrayID == 0);
    qkassert((oldSerial == STATUS_NO_SERIAL || oldSerial == 0) &&
             (newSerial == STATUS_NO_SERIAL || newSerial == 0));
    bool ok = true;
    if (!DirectoryCreate(dir, "block", 1)) {
        QKErrorRethrow("arena : could not create arena dir: \"%s/block\"", dir);
        ok = false;
    }
    arena->flushedSerialOld = oldSerial;
    arena->flushedSerialNew = newSerial;
    ok = ok && VMArenaFileFlushNew(arena, dir) && VMArenaFileFlushOld(arena, dir);
    if (ok && newSerial == STATUS_NO_SERIAL) {
        for (const char *name : {"arena.new", "arena.old"}) {
            if (!FileAtomicCommit(dir, name)) {
                QKErrorRethrow("could not atomically commit: \"%s/%s\"", dir, name);
                ok = false;
                break;
            }
        }
    }
    if (ok) {
        Delete(arena);
    } else {
        DeleteKeepingError(arena);
    }
    return ok;
}

void LockMappings(VMArena *arena) {
    int saved = errno;
    for (UInt i = 0; i < ArrayLength(arena->server.buckets); i++) {
        if (!MemoryMappingLock(&ArrayNth(arena->server.buckets, i)->mapping)) {
            QKMessageSys(3, "Could not lock arena in %s", arena->dir);
            break;
        }
    }
    errno = saved;
}

}  // namespace

extern "C" {

QK_API VMArena *VMArenaOpen(const char *dir, UInt flags, UInt bucketCount, ULong oldSerial,
                            ULong newSerial, ReplicationLog *log, PageCache *cache) {
    qkassert(dir != NULL);
    if (!(flags & VM_FLAG_MAPPED) || log != nullptr || cache != nullptr) {
        QKErrorThrow(QK_ERR_NOT_SUPPORTED, QK_DOMAIN_GENERAL, "not supported");
        return nullptr;
    }
    bool readOnly = (flags & VM_FLAG_READ_ONLY) != 0;
    if (readOnly && (flags & (VM_FLAG_CREATE | VM_FLAG_RECOVER))) {
        QKErrorThrow(QK_ERR_INVALID, QK_DOMAIN_GENERAL, "invalid flags %u", flags);
        return nullptr;
    }
    char committing[kPathSize];
    if (!FormatPath(committing, "%s/committing", dir)) return nullptr;
    bool marked = FileExists(committing);
    if (Exists(dir, "corrupted")) {
        QKErrorThrow(QK_ERR_FAILURE, QK_DOMAIN_GENERAL, "Corrupted vm in \"%s\"", dir);
        return nullptr;
    }
    if (marked && readOnly) {
        QKErrorThrow(QK_ERR_FAILURE, QK_DOMAIN_GENERAL,
                     "Cannot open read-only vm in \"%s\": incomplete commit", dir);
        return nullptr;
    }
    int saved = errno;
    if (marked) {
        // A commit that stopped half way through its renames is rolled
        // forward; what fails here is settled by the reading below. Without
        // the marker nothing is rolled, VM_FLAG_RECOVER or not: a commit cut
        // before the marker may have left partial temporary files, and the
        // last commit's files are the image.
        FileAtomicCommit(dir, "arena.new");
        FileAtomicCommit(dir, "arena.old");
        errno = saved;
    }
    // A marked commit had begun its renames: the buckets finish them too.
    bool rollForward = marked && oldSerial == STATUS_NO_SERIAL && newSerial == STATUS_NO_SERIAL;
    VMArena *arena = New(dir, flags, bucketCount, oldSerial, newSerial);
    bool created = false;
    if (!VMArenaRead(arena, rollForward)) {
        DeleteKeepingError(arena);
        if (AnySign(dir, oldSerial, newSerial)) {
            QKErrorRethrow("existing but not openable VM in \"%s\"", dir);
            return nullptr;
        }
        if (!(flags & VM_FLAG_CREATE)) {
            QKErrorRethrow("could not read VMArena in \"%s\"", dir);
            return nullptr;
        }
        if (!Create(dir, flags, bucketCount, oldSerial, newSerial)) {
            QKErrorRethrow("could not create initial vmarena in \"%s\"", dir);
            return nullptr;
        }
        created = true;
        arena = New(dir, flags, bucketCount, oldSerial, newSerial);
        if (!VMArenaRead(arena, false)) {
            QKErrorRethrow("could not read vmarena in \"%s\"", dir);
            DeleteKeepingError(arena);
            return nullptr;
        }
    }
    VMArenaFillBlockCaches(arena);
    if (!NameServiceOpen(arena, (flags & kFlagNameScan) == 0)) {
        DeleteKeepingError(arena);
        return nullptr;
    }
    // A new arena's first image holds its name service, so that a reader
    // can open it before the first commit of its writer. (In serial mode the
    // caller commits, under serials of its own.)
    if (created && !(flags & kFlagNameScan) && oldSerial == STATUS_NO_SERIAL &&
        newSerial == STATUS_NO_SERIAL && !VMArenaCommit(arena, nullptr, nullptr)) {
        QKErrorRethrow("could not create initial vmarena in \"%s\"", dir);
        DeleteKeepingError(arena);
        return nullptr;
    }
    if (flags & VM_FLAG_LOCK) LockMappings(arena);
    // The marker goes only once the rolled-forward names stand on disk, and
    // nothing of the finished commit is left beside them. (Without the
    // marker, the temporary files of a commit that never reached it stay
    // until the next commit writes them again.)
    if (marked) {
        VMArenaRemoveLeftovers(arena);
        if (!VMArenaSyncDirectories(arena) || !VMArenaUnmarkCommitting(arena)) {
            DeleteKeepingError(arena);
            return nullptr;
        }
    }
    errno = saved;
    return arena;
}

QK_API int VMArenaClose(VMArena *arena) {
    if (arena != nullptr) Delete(arena);
    return 1;
}

QK_API const char *VMArenaPath(const VMArena *arena) {
    return arena->dir;
}

QK_API void VMArenaTagCorrupted(VMArena *arena) {
    if (arena->readOnly) return;
    int saved = errno;
    int fd = -1;
    if (FormatPath(arena->tempPath, "%s/corrupted", arena->dir))
        fd = open(arena->tempPath, O_CREAT | O_RDWR | O_CLOEXEC, 0600);
    if (fd < 0) {
        QKSetLastErrorFromErrno();
        QKMessageSys(3, "Could not tag arena as corrupted");
    } else {
        close(fd);
    }
    errno = saved;
}

}  // extern "C"
