// The arena's array directory: from a path name to an array ID.
//
// Array 0 of each generation is the name table: the names of arrays 1, 2,
// ... one after the other, each followed by a NUL. The directory is a
// PITree at "#name/lookup" whose keys are the names' bytes, one atom each,
// and whose data is the array's ID + 1; the array "#name/params" holds the
// number of arrays, the next ID. The tree's own arrays, and "#name/params",
// are found by scanning the name table (`linear`), since the tree cannot
// find itself. An arena that has no tree yet gains one at its first
// writable open, from its name table.
#pragma once

#include "qk/array.h"
#include "qk/thread.h"
#include "qk/varray.h"

struct VMArena;
struct PITree;
struct PITreeThreadData;

struct NameService {
    Mutex mutex;  // around every find and the add that follows it
    PITree *tree;
    VMAARRAY(UInt) params;
    PITreeThreadData *threadData;
    UIntArray key;  // the name being looked for, as atoms
};

namespace qk::arena {

constexpr Int kNoArray = -2;

// Opens the directory (making it in a writable arena); false with the
// error state set. Without `tree` the directory only scans.
QK_API bool NameServiceOpen(VMArena *arena, bool tree);
QK_API void NameServiceClose(VMArena *arena);
// After a memory commit: the tree's and the count's old IDs are the new.
QK_API void NameServiceCommit(VMArena *arena);
// The ID of the array named `name` (`length` bytes, no NUL) in generation
// `genID`, or -2. With `*create` (NEWGEN, writable arena) a missing name
// is made, and *create tells whether it was. `linear` scans the name table.
QK_API Int NameServiceFind(VMArena *arena, Int genID, const char *name, UInt length, bool linear,
                           int *create, bool blockArray, UInt blockSize);

}  // namespace qk::arena
