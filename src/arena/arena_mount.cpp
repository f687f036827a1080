// Mounting a later generation of a serial-mode arena: another process wrote
// it beside the one this arena reads; its files are read into the new
// generation and into the images that the next memory commit switches to.
#include "arena/arena_files.h"
#include "arena/arena_format.h"
#include "arena/block_read.h"
#include "arena/metadata_io.h"

namespace qk::arena {
namespace {

// Reads `path` with `read(channel)`, which must take the whole file.
template <typename F>
bool ReadWhole(const char *path, const char *message, F read) {
    Channel *channel = OpenForRead(path, "could not open file \"%s\"");
    if (channel == nullptr) return false;
    if (!read(channel) || !ExpectEnd(channel)) {
        QKErrorRethrow(message, path);
        CloseKeepingError(channel);
        return false;
    }
    return CloseRead(channel, path);
}

bool MountBucket(LocalBlockServer0 *s, ULong oldSerial, ULong newSerial) {
    qkassert(s->serial_old != STATUS_NO_SERIAL && s->serial_new != STATUS_NO_SERIAL);
    if (!FormatPath(s->path, "%s/index%s.new.%I64u", s->dir, s->suffix, newSerial)) return false;
    bool ok = ReadWhole(s->path, "IndexFileNewGenRead: could not read \"%s\"", [s](Channel *c) {
        ULong blockSize;
        if (!ChannelReadIntegerLE(c, &blockSize, 8)) return ReadFailed();
        if (blockSize != s->blockSize) {
            QKErrorThrow(2, QK_DOMAIN_GENERAL,
                         "could not open file \"%s\": invalid block size: %I64u", s->path,
                         blockSize);
            return false;
        }
        return IndexFileNewGenRead(s, c, true);
    });
    if (!ok || !FormatPath(s->path, "%s/index%s.old.%I64u", s->dir, s->suffix, oldSerial))
        return false;
    ok = ReadWhole(s->path, "IndexFileNewGenRead: could not read \"%s\"",
                   [s](Channel *c) { return IndexOldGenDecode(c, &s->r_gen_next); });
    if (!ok) return false;
    s->flushedSerialOld = oldSerial;
    s->flushedSerialNew = newSerial;
    s->mounted = true;
    return true;
}

}  // namespace
}  // namespace qk::arena

using namespace qk::arena;

extern "C" {

QK_API int VMArenaMountGeneration(VMArena *arena, ULong oldSerial, ULong newSerial) {
    QKMessage(2, "mounting arena generation[%u,%u] in directory %s", (UInt)oldSerial,
              (UInt)newSerial, arena->dir);
    for (UInt i = 0; i < ArrayLength(arena->server.buckets); i++) {
        if (!MountBucket(ArrayNth(arena->server.buckets, i), oldSerial, newSerial)) return 0;
    }
    if (!FormatPath(arena->path, "%s/arena.new.%I64u", arena->dir, newSerial)) return 0;
    bool ok = ReadWhole(arena->path, "arena : could not read new generation: \"%s\"",
                        [arena](Channel *c) {
                            ULong buckets;
                            if (!ChannelReadIntegerLE(c, &buckets, 8)) return ReadFailed();
                            if (buckets != arena->bucketCount) {
                                QKErrorThrow(2, QK_DOMAIN_GENERAL,
                                             "arena: could not read new generation: invalid "
                                             "number of buckets");
                                return false;
                            }
                            return VMArenaFileNewGenRead(arena, c) != 0;
                        });
    if (!ok || !FormatPath(arena->path, "%s/arena.old.%I64u", arena->dir, oldSerial)) return 0;
    ok = ReadWhole(arena->path, "arena :could not read old generation: \"%s\"",
                   [arena](Channel *c) { return ArenaOldGenDecode(c, &arena->r_gen_next); });
    if (!ok) return 0;
    VMArenaFillBlockCaches(arena);
    arena->flushedSerialOld = oldSerial;
    arena->flushedSerialNew = newSerial;
    arena->mounted = true;
    return 1;
}

}  // extern "C"
