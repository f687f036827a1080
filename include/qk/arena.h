/*
 * Arena: a persistent store in one directory, made of named arrays of
 * fixed-size elements kept in 8192-byte blocks inside one or several data
 * files ("buckets"), with two generations side by side. The new generation
 * (NEWGEN) is what the writer changes; the old generation (OLDGEN) is the
 * last committed image, which readers walk while the writer goes on.
 *
 * Files under the directory, all integers little-endian byte by byte:
 *   arena.new, arena.old          metadata of the new and the old generation
 *   committing, corrupted         empty markers
 *   block/data<x>                 raw 8192-byte blocks of bucket <x> (hex)
 *   block/index<x>.new, .old      the bucket's maps, logical to raw block
 * In serial mode the metadata files carry a serial instead: arena.new.<n>.
 * A file being replaced is written as <name>.new and swapped in through
 * <name>.old.
 *
 * Only the memory-mapped mode exists in this library: VM_FLAG_MAPPED is
 * required, and an arena with a page cache or a replication log is refused
 * with (6, 2) "not supported".
 */
#ifndef QK_ARENA_H
#define QK_ARENA_H

#include "qk/channel.h"
#include "qk/status.h"
#include "qk/types.h"

QK_BEGIN_DECLS

#define ARENA_MAX_BLOCK_SIZE 8192
#define INVALID_VMARENA_BLOCK_ID ((ULong)0xFFFFFFFFFFFFFFFEull)
#define INVALID_RAW_BLOCK_ID ((UInt)0xFFFFFFFFu)

/* The generation argument of all persistent operations. */
enum { NEWGEN = 0, OLDGEN = 1 };

/* Open flags. */
enum {
    VM_FLAG_CREATE = 0x01,    /* create the arena if nothing of it exists */
    VM_FLAG_READ_ONLY = 0x02, /* never with VM_FLAG_CREATE or VM_FLAG_RECOVER */
    VM_FLAG_RECOVER = 0x04,   /* roll the last commit forward before reading */
    VM_FLAG_LOCK = 0x08,      /* lock the mapped data in memory */
    VM_FLAG_MAPPED = 0x10,    /* memory-mapped mode */
    VM_FLAG_RANDOM = 0x20,    /* random access to the data files */
    VM_FLAG_NO_RELEASE_HINT = 0x80
};

typedef struct VMArena VMArena;
/* The page cache through which an unmapped arena would work; not part of
 * this library. */
typedef struct PageCache PageCache;

/* Opens (and with VM_FLAG_CREATE makes) the arena in `dir`. `bucketCount`
 * counts only when the arena is made; the files' count wins on reopening.
 * Serials are STATUS_NO_SERIAL for the fixed file names. None on failure,
 * among others with "Corrupted vm in \"<dir>\"", "existing but not openable
 * VM in \"<dir>\"" (something of an arena is there but does not read) and
 * "could not read VMArena in \"<dir>\"" (nothing is there). */
QK_API VMArena *VMArenaOpen(const char *dir, UInt flags, UInt bucketCount, ULong oldSerial,
                            ULong newSerial, ReplicationLog *log, PageCache *cache);
/* Frees all memory, unmaps and closes; does not commit. Always 1. */
QK_API int VMArenaClose(VMArena *arena);
QK_API const char *VMArenaPath(const VMArena *arena);
/* A writable arena writes the marker `corrupted`, after which it no longer
 * opens. */
QK_API void VMArenaTagCorrupted(VMArena *arena);
/* Reads a later generation of a serial-mode arena, written by another
 * process, into the new generation; its old image waits for the next memory
 * commit. The data file must hold the generation's committed size. */
QK_API int VMArenaMountGeneration(VMArena *arena, ULong oldSerial, ULong newSerial);
/* Removes the metadata files of a serial-mode generation; 0 if any removal
 * failed (the others are still made). */
QK_API int VMArenaUnlinkGeneration(VMArena *arena, ULong oldSerial, ULong newSerial);

/* The metadata records on a channel: the new generation (after the bucket
 * count), and the new generation laid flat as the old generation that it
 * becomes at a commit. */
QK_API int VMArenaFileNewGenRead(VMArena *arena, Channel *channel);
QK_API int VMArenaFileNewGenWrite(VMArena *arena, Channel *channel);
QK_API int VMArenaFileOldGenWrite(VMArena *arena, Channel *channel);
/* Write "arena.new" and "arena.old" in `dir` under their temporary names
 * ("arena.new.new", "arena.old.new") or, in serial mode, under their final
 * serial names. */
QK_API int VMArenaFileFlushNew(VMArena *arena, const char *dir);
QK_API int VMArenaFileFlushOld(VMArena *arena, const char *dir);

/* Touches every block of a generation (*genID, OLDGEN or NEWGEN) in all
 * buckets. Always 1. */
QK_API int VMArenaLoad(VMArena *arena, const Int *genID);
/* Sets the access advice of every data file's mapping (0 normal, 2 random).
 * Always 1. */
QK_API int VMArenaMemoryAdvise(VMArena *arena, int advice);
QK_API int VMArenaMSync(VMArena *arena);

/* Publishes `dir`/`name`.new as `dir`/`name`, keeping the previous file as
 * `name`.old until the new one stands. 1, or 0 when a rename failed. */
QK_API int FileAtomicCommit(const char *dir, const char *name);
/* Brings `name` back from `name`.new or `name`.old when a crash cut a swap
 * short. Always 1. */
QK_API int FileAtomicRecover(const char *dir, const char *name);

QK_END_DECLS

#endif /* QK_ARENA_H */
