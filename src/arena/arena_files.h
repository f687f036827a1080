// Reading an arena's files into a fresh structure.
#pragma once

#include "arena/arena_internal.h"

namespace qk::arena {

// Reads arena.new and arena.old (their serial forms in serial mode) and
// opens the buckets.
bool VMArenaRead(VMArena *arena);

}  // namespace qk::arena
