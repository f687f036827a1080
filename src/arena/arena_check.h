// A full consistency check of an arena between commits, for tests and
// debugging. It reads the structures without changing them; the caller makes
// sure that no commit and no writer runs at the same time.
//
// For every bucket:
//   - each raw block below the end of the mapped data (the read part plus
//     the read-write part in use) is named by exactly one of the new map,
//     freeRawBlocksOld and freeRawBlocksNew, and no list names a block
//     beyond it;
//   - no raw block of the old map is in freeRawBlocksOld, and the old map
//     names no block twice and none beyond the read part;
//   - freeRawBlocksOld is sorted in descending order, without duplicates;
//   - the flag byte of each logical block agrees with the maps: an old
//     generation's block has the old map's raw block, a block of this
//     generation (flag 4) a raw block that the old map does not name and an
//     entry in `modified`, a freed block no raw block; a logical block has
//     no raw block exactly when it is in freeBlock; `modified` and freeBlock
//     hold no duplicates.
// For the arena: every ID in the size-class free lists, every partial
// block and every array block names an allocated logical block, with a slot
// inside its class, and no piece is both free and used.
// On disk: no temporary file (names ending in .new.new, .old.new, .new.old
// or .old.old) and no `committing` marker is left in the arena's directory
// or its block directory. A commit that failed or was cut short before its
// marker legitimately leaves temporary files until the next commit writes
// them again; VMArenaCheckMemory leaves the disk out.
//
// True when all holds; otherwise false, with the first fault found in *why
// (which may be null).
#pragma once

#include <string>

#include "arena/arena_internal.h"

namespace qk::arena {

QK_API bool VMArenaCheckAccounting(VMArena *arena, std::string *why);
// The checks of the structures in memory only.
QK_API bool VMArenaCheckMemory(VMArena *arena, std::string *why);
// The check of the directory `dir` and `dir`/block only.
QK_API bool VMArenaCheckFiles(const char *dir, std::string *why);

}  // namespace qk::arena
