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

}  // namespace qk::arena
