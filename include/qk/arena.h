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
    VM_FLAG_RECOVER = 0x04,   /* ask for recovery: a marked commit rolls forward in any case */
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

/* Commit marks: status parameter 99 of the status file in `dir`. */
QK_API int CommitMark(const char *dir);
QK_API int CommitUnMark(const char *dir);
QK_API int CommitMarked(const char *dir);

/* --- Commit. ---
 * VMArenaCommit runs the phases in their order: VMArenaFlushStart,
 * VMArenaFlushExec, creation of the marker `committing`,
 * VMArenaFlushCommitDisk, removal of the marker, VMArenaFlushCommitMemory
 * (with the lock), VMArenaFlushStop. On the first failure it goes straight
 * to VMArenaFlushStop and returns 0; the disk still holds the last commit,
 * and the arena must be closed and reopened. The serials of the generation
 * written go to `oldSerial` and `newSerial` (each may be null). */
QK_API int VMArenaCommit(VMArena *arena, ULong *oldSerial, ULong *newSerial);
QK_API int VMArenaFlushStart(VMArena *arena, ULong *oldSerial, ULong *newSerial);
QK_API int VMArenaFlushExec(VMArena *arena);
QK_API int VMArenaFlushCommitDisk(VMArena *arena);
QK_API int VMArenaFlushCommitMemory(VMArena *arena, int lock);
QK_API int VMArenaFlushStop(VMArena *arena);
/* Take and give back the old generation's lock for writing, around
 * VMArenaFlushCommitMemory called with `lock` 0. */
QK_API void VMArenaFlushCommitMemoryAcquire(VMArena *arena);
QK_API void VMArenaFlushCommitMemoryRelease(VMArena *arena);
/* Readers of the old generation hold this from before their first access
 * until after their last pointer is dropped. */
QK_API void VMArenaOldGenAcquire(VMArena *arena);
QK_API void VMArenaOldGenRelease(VMArena *arena);
/* NEWGEN: shared hold on the new generation against a commit; OLDGEN: as
 * VMArenaOldGenAcquire. */
QK_API void VMArenaNewGenAcquire(VMArena *arena, Int genID);
QK_API void VMArenaNewGenRelease(VMArena *arena, Int genID);

/* --- Blocks. ---
 * A piece of 64 to 8192 bytes in one of 16 size classes, named by a 64-bit
 * ID that stays valid across commits. Allocation and freeing take NEWGEN;
 * `read` 0 announces a write, which copies an old generation's block once
 * per generation. */
QK_API ULong VMArenaBlockNew(VMArena *arena, UInt size, UInt *actualSize, Int genID);
QK_API void VMArenaBlockFree(VMArena *arena, ULong id, Int genID);
/* Whole logical blocks of 8192 bytes. VMArenaDataBlockNew returns
 * INVALID_RAW_BLOCK_ID on failure. */
QK_API UInt VMArenaDataBlockNew(VMArena *arena, Int genID);
QK_API void VMArenaDataBlockFree(VMArena *arena, UInt block, Int genID);
QK_API void *VMArenaDataBlockAcquire(VMArena *arena, UInt block, Int genID, int read);
/* The piece's address, null for INVALID_VMARENA_BLOCK_ID (size 0) or a
 * block that does not exist. `size` and `sizeClass` may be null. */
QK_API void *VMArenaDataAcquire(VMArena *arena, ULong id, Int genID, int read, UInt *size,
                                UInt *sizeClass);
/* Ends an acquire; nothing to do in mapped mode. */
QK_API void VMArenaDataRelease(VMArena *arena, Int genID, int read, void *address, int hint);
QK_API void VMArenaDataPrefetch(VMArena *arena, ULong id, Int genID);
/* The logical block's raw block ID and (in `bucket`, may be null) bucket. */
QK_API UInt VMABlockInfoGet(VMArena *arena, UInt block, Int genID, UInt *bucket);
/* Starts reading what the allocator will give out next. */
QK_API void VMArenaFreePrefetch(VMArena *arena, UInt bytes);

QK_END_DECLS

#endif /* QK_ARENA_H */
