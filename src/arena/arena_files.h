// Reading an arena's files into a fresh structure.
#pragma once

#include "arena/arena_internal.h"

namespace qk::arena {

// Reads arena.new and arena.old (their serial forms in serial mode) and
// opens the buckets; with `rollForward` the buckets first publish the index
// files of a commit that was marked but not finished.
bool VMArenaRead(VMArena *arena, bool rollForward);

}  // namespace qk::arena
