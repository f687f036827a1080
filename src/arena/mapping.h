// The data file of one bucket, seen through memory mappings.
//
// The file's committed part, the first `rsize` bytes, is mapped read-only
// for readers in segments of 256 MiB (the last one short). What lies beyond
// is the read-write part: an FArray of bytes whose fragments (64 KiB, 64 KiB,
// 128 KiB, 256 KiB, ... each twice the one before) are mappings of the file
// at `rsize` and after, made by MapAlloc as the array grows. A fragment never
// moves, so an address handed out stays good until the next remapping, and
// the file is lengthened with its blocks reserved before a fragment is
// mapped: a full disk is an error there, not a fault at the first write.
#pragma once

#include "arena/arena_path.h"
#include "qk/array.h"
#include "qk/file.h"
#include "qk/thread.h"
#include "qk/varray.h"

struct MemoryMapping {
    Mutex mutex;
    bool locked;  // the read segments are locked in memory
    bool readOnly;
    int advice;  // 0, or 2 for random access
    UInt flags;  // the arena's open flags
    QKFile fd;   // QKFILE_INVALID until first needed
    UInt blockSize;
    UInt minBlockCount;
    char *dir;
    char *suffix;
    char *name;  // "data"
    char path[qk::arena::kPathSize];
    UInt log2Segment;
    AddressArray r_mapped;  // base address of each read segment
    UInt rsize;             // bytes of the read part
    FArray rw_mapped;       // bytes; its length is rwLength
    UInt rwLength;          // bytes of the read-write part in use
    UInt rwSize;            // bytes of the read-write part that are mapped
    UInt finalRSize;        // the committed size fixed by the last read or flush
};

namespace qk::arena {

// Prepares the mapping of `dir`/data<suffix>; nothing is opened. False when
// the path does not fit.
QK_API bool MemoryMappingInit(MemoryMapping *mapping, const char *dir, const char *suffix,
                              UInt blockSize, UInt minBlockCount, UInt flags);
// Unmaps everything and closes the file.
QK_API void MemoryMappingFree(MemoryMapping *mapping);
// Opens the data file unless it is open.
QK_API bool MemoryMappingOpenFile(MemoryMapping *mapping);
// The data file's size, all ones on failure.
QK_API ULong MemoryMappingFileSize(MemoryMapping *mapping);
// Maps the first `rsize` bytes as the read part, in place of the present
// one. With `shrink` (and `mount` or a writable mapping) the file is cut to
// `rsize`, but not below blockSize * minBlockCount.
QK_API bool MemoryMappingRemapRead(MemoryMapping *mapping, UInt rsize, bool shrink, bool mount);
// Drops the read-write part: its mappings go, rwSize and rwLength are 0.
QK_API bool MemoryMappingRemapWrite(MemoryMapping *mapping);
// Maps read-write part until it holds `bytes` bytes.
QK_API bool MemoryMappingRawEnsureRWCapacity(MemoryMapping *mapping, UInt bytes);
// Sets the bytes of the read-write part in use; they must be mapped.
QK_API void MemoryMappingSetRWLength(MemoryMapping *mapping, UInt bytes);
// The address of raw block `rawID`, or none when the mappings do not hold
// it; with `mustExist`, none is a programmer error.
QK_API UByte *MemoryMappingRawBlockGet(MemoryMapping *mapping, UInt rawID, bool mustExist);
// Locks and unlocks the read segments in memory.
QK_API bool MemoryMappingLock(MemoryMapping *mapping);
QK_API void MemoryMappingUnlock(MemoryMapping *mapping);
// Sets the advice and applies it to every mapping.
QK_API void MemoryMappingAdvise(MemoryMapping *mapping, int advice);
// Writes the mapped data up to finalRSize to the file and syncs the file.
QK_API bool MemoryMappingFlush(MemoryMapping *mapping);
// Starts reading raw block `rawID` into memory.
QK_API void MemoryMappingPrefetch(MemoryMapping *mapping, UInt rawID);
// Called after a flush that wrote blocks; the file system keeps the date.
QK_API int MemoryMappingSetModificationDate(MemoryMapping *mapping);

}  // namespace qk::arena
