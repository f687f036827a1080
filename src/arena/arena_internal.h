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
#include "qk/varray.h"

// The layout values that the arena gives its buckets.
constexpr UInt kFileBlockSize = 65536;
constexpr UInt kMinBlockCount = 8;
// Bucket counts beyond this are taken for damage.
constexpr UInt kMaxBuckets = 4096;

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
    VMArenaView view;  // first: the element macros read the arena through it
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

// An open flag of the library's own: the array directory only scans the
// name table, and no tree is made. The arena layer's tests see the files
// and the allocator so, without the directory's arrays.
constexpr UInt kFlagNameScan = 0x8000;

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

}  // namespace qk::arena
