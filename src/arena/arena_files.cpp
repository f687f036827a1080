// The arena's metadata files: arena.new holds the bucket count and the new
// generation, arena.old the old generation laid flat.
#include <errno.h>
#include <trio.h>
#include <unistd.h>

#include "arena/arena_files.h"
#include "arena/arena_format.h"
#include "arena/metadata_io.h"

namespace qk::arena {
namespace {

// "arena.<which>" with a serial, or the plain name (recovered first when the
// arena may write).
bool MetadataPath(VMArena *arena, const char *which, ULong serial) {
    if (serial != STATUS_NO_SERIAL)
        return FormatPath(arena->path, "%s/arena.%s.%I64u", arena->dir, which, serial);
    char name[16];
    trio_snprintf(name, sizeof name, "arena.%s", which);
    if (!arena->readOnly) FileAtomicRecover(arena->dir, name);
    return FormatPath(arena->path, "%s/%s", arena->dir, name);
}

bool ReadNew(VMArena *arena) {
    if (!MetadataPath(arena, "new", arena->serialNew)) return false;
    Channel *channel = OpenForRead(arena->path, "VMArenaRead: could not open file \"%s\"");
    if (channel == nullptr) return false;
    ULong buckets;
    bool ok = true;
    if (!ChannelReadIntegerLE(channel, &buckets, 8)) {
        ReadFailed();
        QKErrorRethrow("arena : could not read bucket count");
        ok = false;
    } else if (buckets == 0 || buckets > kMaxBuckets) {
        QKErrorThrow(QK_ERR_FORMAT, QK_DOMAIN_GENERAL, "arena : could not read bucket count: %I64u",
                     buckets);
        ok = false;
    } else if (!VMArenaFileNewGenRead(arena, channel) || !ExpectEnd(channel)) {
        QKErrorRethrow("arena : could not read new generation: \"%s\"", arena->path);
        ok = false;
    }
    if (!ok) {
        CloseKeepingError(channel);
        return false;
    }
    arena->bucketCount = (UInt)buckets;
    return CloseRead(channel, arena->path);
}

bool ReadOld(VMArena *arena) {
    if (!MetadataPath(arena, "old", arena->serialOld)) return false;
    Channel *channel = OpenForRead(arena->path, "VMArenaRead: could not open file \"%s\"");
    if (channel == nullptr) return false;
    if (!ArenaOldGenDecode(channel, &arena->r_gen) || !ExpectEnd(channel)) {
        QKErrorRethrow("arena :could not read old generation: \"%s\"", arena->path);
        CloseKeepingError(channel);
        return false;
    }
    return CloseRead(channel, arena->path);
}

bool FlushPath(VMArena *arena, const char *dir, const char *which, ULong serial) {
    if (serial == STATUS_NO_SERIAL)
        return FormatPath(arena->tempPath, "%s/arena.%s.new", dir, which);
    return FormatPath(arena->tempPath, "%s/arena.%s.%I64u", dir, which, serial);
}

}  // namespace

bool VMArenaRead(VMArena *arena, bool rollForward) {
    if (!ReadNew(arena) || !ReadOld(arena)) return false;
    if (!FormatPath(arena->tempPath, "%s/block", arena->dir)) return false;
    UInt flags = arena->flags | (rollForward ? kFlagRollForward : 0);
    return LocalBlockServerOpen(&arena->server, arena->tempPath, arena->bucketCount, flags,
                                ARENA_MAX_BLOCK_SIZE, kFileBlockSize, kMinBlockCount,
                                arena->serialOld, arena->serialNew);
}

}  // namespace qk::arena

using namespace qk::arena;

extern "C" {

QK_API int VMArenaFileNewGenRead(VMArena *arena, Channel *channel) {
    MutexLock(&arena->rw_gen.mutex);
    bool ok = ArenaNewGenDecode(channel, &arena->rw_gen);
    MutexUnlock(&arena->rw_gen.mutex);
    return ok;
}

QK_API int VMArenaFileNewGenWrite(VMArena *arena, Channel *channel) {
    MutexLock(&arena->rw_gen.mutex);
    bool ok = ArenaNewGenEncode(channel, &arena->rw_gen);
    MutexUnlock(&arena->rw_gen.mutex);
    return ok;
}

QK_API int VMArenaFileOldGenWrite(VMArena *arena, Channel *channel) {
    MutexLock(&arena->rw_gen.mutex);
    bool ok = ArenaOldGenEncode(channel, &arena->rw_gen);
    MutexUnlock(&arena->rw_gen.mutex);
    return ok;
}

QK_API int VMArenaFileFlushNew(VMArena *arena, const char *dir) {
    if (!FlushPath(arena, dir, "new", arena->flushedSerialNew)) return 0;
    return WriteMetadata("VMArenaFileFlushNew", arena->tempPath, [arena](Channel *channel) {
        if (!ChannelWriteIntegerLE(channel, arena->bucketCount, 8)) {
            QKErrorRethrow("VMArenaFileFlushNew : could not write bucket count");
            return false;
        }
        if (VMArenaFileNewGenWrite(arena, channel)) return true;
        QKErrorRethrow("VMArenaFileFlushNew: could not write data on: \"%s\"", arena->tempPath);
        return false;
    });
}

QK_API int VMArenaFileFlushOld(VMArena *arena, const char *dir) {
    if (!FlushPath(arena, dir, "old", arena->flushedSerialOld)) return 0;
    bool written = WriteMetadata("VMArenaFileFlushOld", arena->tempPath, [arena](Channel *channel) {
        if (VMArenaFileOldGenWrite(arena, channel)) return true;
        QKErrorRethrow("VMArenaFileFlushOld: could not write data on: \"%s\"", arena->tempPath);
        return false;
    });
    if (!written) return 0;
    // The image that the old generation becomes at the memory commit, as the
    // file holds it; its block addresses are resolved on first use.
    VMArenaRFree(&arena->r_gen_next);
    VMArenaRInit(&arena->r_gen_next);
    Channel *channel =
        OpenForRead(arena->tempPath, "VMArenaFileFlushOld: could not open file \"%s\"");
    if (channel == nullptr) return 0;
    if (!ArenaOldGenDecode(channel, &arena->r_gen_next) || !ExpectEnd(channel)) {
        QKErrorRethrow("VMArenaFileFlushOld: could not read back \"%s\"", arena->tempPath);
        CloseKeepingError(channel);
        return 0;
    }
    return CloseRead(channel, arena->tempPath);
}

QK_API int VMArenaUnlinkGeneration(VMArena *arena, ULong oldSerial, ULong newSerial) {
    int result = 1;
    int saved = errno;
    auto remove = [&result, &saved](const char *path, const char *message) {
        if (!FileExists(path) || unlink(path) == 0) return;
        QKSetLastErrorFromErrno();
        QKErrorRethrow(message, path);
        saved = errno;
        result = 0;
    };
    char path[kPathSize];
    auto removeNamed = [&](bool named, const char *message) {
        if (named) {
            remove(path, message);
        } else {
            saved = errno;
            result = 0;
        }
    };
    removeNamed(FormatPath(path, "%s/arena.new.%I64u", arena->dir, newSerial),
                "cannot remove file \"%s\"");
    removeNamed(FormatPath(path, "%s/arena.old.%I64u", arena->dir, oldSerial),
                "cannot remove file \"%s\"");
    for (UInt i = 0; i < ArrayLength(arena->server.buckets); i++) {
        LocalBlockServer0 *s = ArrayNth(arena->server.buckets, i);
        removeNamed(FormatPath(path, "%s/index%s.old.%I64u", s->dir, s->suffix, oldSerial),
                    "unable to remove file \"%s\"");
        removeNamed(FormatPath(path, "%s/index%s.new.%I64u", s->dir, s->suffix, newSerial),
                    "unable to remove file \"%s\"");
    }
    errno = saved;
    return result;
}

}  // extern "C"
