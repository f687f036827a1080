// The arena's array directory: from a path name to an array ID.
//
// Array 0 of each generation is the name table: the names of arrays 1, 2,
// ... one after the other, each followed by a NUL. The directory finds a
// name by scanning that table. The interface is the one that an index over
// the table will fill in: Open at each opening of the arena, Find under the
// directory's mutex, Close with the arena.
#pragma once

#include "qk/array.h"
#include "qk/thread.h"

struct VMArena;

struct NameService {
    Mutex mutex;
    ByteArray key;  // the name being looked for
};

namespace qk::arena {

// The ID of the array named `name` (`length` bytes, no NUL) in generation
// `genID`: -2 when there is none, -1 with the error state set when the name
// table cannot be read.
constexpr Int kNoArray = -2;

QK_API bool NameServiceOpen(VMArena *arena);
QK_API void NameServiceClose(VMArena *arena);
QK_API Int NameServiceFind(VMArena *arena, Int genID, const char *name, UInt length);

}  // namespace qk::arena
