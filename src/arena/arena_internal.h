// The arena's structures: the two generations of array metadata, the bucket
// set, and the directory of names.
#pragma once

#include "arena/arena_path.h"
#include "arena/block_id.h"
#include "arena/bucket.h"
#include "arena/name_service.h"
#include "qk/arena.h"
#include "qk/frame.h"
#include "qk/thread.h"

// The layout values that the arena gives its buckets.
constexpr UInt kFileBlockSize = 65536;
constexpr UInt kMinBlockCount = 8;
// Bucket counts beyond this are taken for damage.
constexpr UInt kMaxBuckets = 4096;

// Array types.
enum {
    EMPTY_ARRAY_TYPE = 0,
    FULL_ARRAY_TYPE = 1,
    PARTIAL_ARRAY_TYPE = 2,
    TWO_PART_ARRAY_TYPE = 3,
    FULL_BLOCK_ARRAY_TYPE = 4
};

// One array of the new generation.
struct VMAArray {
    FArray blockCache;  // uintptr_t per block: its address, bit 0 set when writable
    FArray blockID;     // ULong per block
    UInt length;        // elements
    UByte type;
    UByte log2size;  // log2 of the block size
    UInt reserved;
};

// The old generation: every array's block IDs one after the other, where
// each array's begin, and per array its length and type.
struct VMArenaR {
    AddressArray cache;  // per block ID: its address once resolved, else 0
    ULongArray blockID;
    UIntArray start;  // arrayCount + 1 entries, the first 0
    UIntArray length;
    ByteArray type;
};

struct VMArenaPartial {
    UInt block;  // the logical block being carved, 0xFFFFFFFF for none
    UInt slot;   // its next free slot
};

// The new generation.
struct VMArenaRW {
    Mutex mutex;
    ULongArray freeBlock[qk::arena::kSizeClasses];
    VMArenaPartial partial[qk::arena::kSizeClasses];
    UIntArray freeArrays;
    FArray array;  // VMAArray
    RWLock lock;   // held shared by users of the new generation, exclusive by a commit
};

// What VMArenaMemoryLoadCB touches for one array.
struct VMArenaLoadInfo {
    bool loadData;
    bool loadCache;
    bool loadContent;
    Int arrayID;
    Int genID;
};

typedef QK_ARRAY(VMArenaLoadInfo) LoadInfoArray;

struct VMArena {
    char *dir;
    char path[qk::arena::kPathSize];
    char tempPath[qk::arena::kPathSize];
    bool readOnly;
    UInt flags;
    ULong serialOld;
    ULong serialNew;
    ULong flushedSerialOld;
    ULong flushedSerialNew;
    bool mounted;
    RWLock oldGenLock;
    VMArenaR r_gen;
    VMArenaR r_gen_next;
    VMArenaRW rw_gen;
    LocalBlockServer server;
    bool mapped;
    UInt bucketCount;
    NameService nameService;
    LoadInfoArray loadInfo;
};

namespace qk::arena {

QK_API void VMArenaRWInit(VMArenaRW *rw);
QK_API void VMArenaRWFree(VMArenaRW *rw);
// Frees the arrays and free lists; the locks stay.
QK_API void VMArenaRWClear(VMArenaRW *rw);
QK_API void VMArenaRInit(VMArenaR *r);
QK_API void VMArenaRFree(VMArenaR *r);
QK_API void VMArenaLoadInfoInit(VMArena *arena);
QK_API void VMArenaLoadInfoFree(VMArena *arena);
// A record for an array with no blocks.
QK_API void VMAArrayRecordInit(VMAArray *array, UByte type, UByte log2size);
QK_API void VMAArrayRecordFree(VMAArray *array);
inline VMAArray *ArrayRecord(VMArenaRW *rw, UInt id) {
    return &FArrayNth(rw->array, VMAArray, id);
}

// A new array's ID in the new generation: a free ID if any, else the next.
// A plain array has blocks of 8192 bytes and type 0; a block array blocks of
// `blockSize` (a power of two) and type 4.
QK_API Int VMAArrayNew(VMArena *arena, bool blockArray, UInt blockSize, Int genID);

}  // namespace qk::arena
