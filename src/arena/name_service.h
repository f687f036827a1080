// The arena's array directory: from a path name to an array ID.
//
// Array 0 of each generation is the name table: the names of arrays 1, 2,
// ... one after the other, each followed by a NUL. The directory finds a
// name by scanning that table. The interface is the one that an index over
// the table will fill in: Open at each opening of the arena, Find under the
// directory's mutex, Close with the arena. VMAArrayFind holds the mutex
// (recursive) around a find and the add that follows it.
#pragma once

#include "qk/array.h"
#include "qk/thread.h"

struct VMArena;

struct NameService {
    Mutex mutex;
    ByteArray key;  // the name being looked for
};

namespace qk::arena {

constexpr Int kNoArray = -2;

QK_API bool NameServiceOpen(VMArena *arena);
QK_API void NameServiceClose(VMArena *arena);
// The ID of the array named `name` (`length` bytes, no NUL) in generation
// `genID`: -2 when there is none, with the number of names in *count (may be
// null), so that a new name's ID is *count + 1; -1 with the error state set
// when the name table cannot be read.
QK_API Int NameServiceFind(VMArena *arena, Int genID, const char *name, UInt length,
                           UInt *count = nullptr);
// Makes the array `name` in the new generation (the caller holds the
// mutex and has found no such name among `count` names): the name goes to the
// end of the table, and the new array's ID must be `count + 1`.
QK_API Int NameServiceAdd(VMArena *arena, const char *name, UInt length, UInt count,
                          bool blockArray, UInt blockSize);

}  // namespace qk::arena
