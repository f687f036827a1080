// Buckets: each maps the logical blocks that live in it to raw blocks of its
// data file, in two generations. The new generation's map changes under the
// bucket's mutex; the old generation's map is the committed image and only
// changes at a commit.
#pragma once

#include "arena/mapping.h"
#include "qk/channel.h"

// Bits of a logical block's flag byte.
enum {
    MAP_FLAG_OLD = 1,    // the old generation's: copy before writing
    MAP_FLAG_FREED = 2,  // freed in this generation
    MAP_FLAG_NEW = 4     // allocated or copied in this generation
};

inline bool BlockIsInMemory(UByte flag) {
    return (flag & MAP_FLAG_OLD) == 0;
}

struct LocalBlockServer0RW {
    Mutex mutex;
    FArray map;       // UInt raw block per logical block, or INVALID_RAW_BLOCK_ID
    FArray mapFlags;  // UByte per logical block
    UIntArray modified;
    UIntArray freeRawBlocksOld;  // free in both generations, kept in descending order
    UIntArray freeRawBlocksNew;  // given up by the new generation, still the old one's
    UIntArray freeBlock;         // logical blocks free for reuse
};

struct LocalBlockServer0 {
    char *dir;     // the block directory
    char *suffix;  // the bucket's number, "%x"
    char path[qk::arena::kPathSize];
    char tempPath[qk::arena::kPathSize];
    ULong serial_old;
    ULong serial_new;
    ULong flushedSerialOld;
    ULong flushedSerialNew;
    UInt blockSize;
    UInt fileBlockSize;
    UInt minBlockCount;
    UInt flags;
    LocalBlockServer0RW rw_gen;
    FArray r_gen;       // UInt: the old generation's map
    FArray r_gen_next;  // the same, read back during a commit
    MemoryMapping mapping;
    bool readOnly;
    bool mounted;
    bool committed;
};

typedef QK_ARRAY(LocalBlockServer0 *) BucketArray;

struct LocalBlockServer {
    BucketArray buckets;
    UInt bucketBits;  // the smallest k with 2^k at least the bucket count
    UInt next;        // round-robin cursor of the allocator
};

namespace qk::arena {

// An open flag of the arena's own, never the caller's: a commit stopped
// after its marker was made, so both index files of the bucket are rolled
// forward before they are read.
constexpr UInt kFlagRollForward = 0x40000000;

// Opens bucket `index` in the block directory `dir`, creating its files when
// its index is missing. None on failure.
QK_API LocalBlockServer0 *LocalBlockServer0Open_(const char *dir, UInt index, UInt flags,
                                                 UInt blockSize, UInt fileBlockSize,
                                                 UInt minBlockCount, ULong serialOld,
                                                 ULong serialNew);
QK_API void LocalBlockServer0Close(LocalBlockServer0 *server);

// Opens `count` buckets; on failure none stays open.
QK_API bool LocalBlockServerOpen(LocalBlockServer *set, const char *dir, UInt count, UInt flags,
                                 UInt blockSize, UInt fileBlockSize, UInt minBlockCount,
                                 ULong serialOld, ULong serialNew);
QK_API void LocalBlockServerClose(LocalBlockServer *set);

// Reads an index file's new generation after its block size. Without
// `mount` the file describes the mapped data file; with it, a later
// generation whose data lies beyond the mapped read part.
QK_API bool IndexFileNewGenRead(LocalBlockServer0 *server, Channel *channel, bool mount);
// Write index<x>.new (with `rsize`) and index<x>.old from the new
// generation, under their temporary names or, with a serial, their final
// serial names.
QK_API bool IndexFileFlushNew(LocalBlockServer0 *server, ULong serial, UInt rsize);
QK_API bool IndexFileFlushOld(LocalBlockServer0 *server, ULong serial);
// Publish the temporary index files.
QK_API bool IndexFileCommitNew(LocalBlockServer0 *server);
QK_API bool IndexFileCommitOld(LocalBlockServer0 *server);

// --- Allocation in a bucket; the callers hold the bucket's mutex. ---

// A raw block for the new generation: the lowest one free in both
// generations, else one more block of the read-write part.
// INVALID_RAW_BLOCK_ID on failure.
QK_API UInt LocalBlockServer0RawBlockNew(LocalBlockServer0 *server);
// Takes the lowest raw block free in both generations;
// INVALID_RAW_BLOCK_ID when there is none.
QK_API UInt LocalBlockServer0FreeBlockGetOld(LocalBlockServer0 *server);
// A new logical block (its index in the bucket) with a raw block of its
// own; INVALID_RAW_BLOCK_ID on failure.
QK_API UInt LocalBlockServer0BlockNew(LocalBlockServer0 *server);
QK_API void LocalBlockServer0BlockFree(LocalBlockServer0 *server, UInt index);
// The address of logical block `index` of the bucket in generation `genID`;
// a write (`read` false) in the new generation first copies a block of the
// old generation. None for a block that does not exist. OLDGEN takes no
// lock; NEWGEN takes the bucket's mutex.
QK_API UByte *LocalBlockServer0BlockReach(LocalBlockServer0 *server, UInt index, Int genID,
                                          bool read);
// The raw block of logical block `index` in a generation, or
// INVALID_RAW_BLOCK_ID.
QK_API UInt LocalBlockServer0RawID(LocalBlockServer0 *server, UInt index, Int genID);

// --- The same over the bucket set; logical IDs carry the bucket. ---

// A new logical block from the next bucket in turn; INVALID_RAW_BLOCK_ID on
// failure.
QK_API UInt LocalBlockServerBlockNew(LocalBlockServer *set);
QK_API void LocalBlockServerBlockFree(LocalBlockServer *set, UInt logical);
// The bucket of a logical ID and its index there; none for a bucket that
// does not exist.
QK_API LocalBlockServer0 *LocalBlockServerBucket(LocalBlockServer *set, ULong logical, UInt *index);

// --- Commit of a bucket. ---

// Settles the new generation: compaction towards low raw blocks, the
// committed size padded to whole file blocks, the accounting of every raw
// block, the data synced and both index files written.
QK_API bool LocalBlockServer0FlushFileExec(LocalBlockServer0 *server);
// Prints the counts of the free lists and of the raw blocks.
QK_API void LocalBlockServer0StatPrint(LocalBlockServer0 *server);

}  // namespace qk::arena
