// What makes a commit's steps survive a power cut on this platform: the
// directories that hold renamed, created or removed names are synced, and
// the `committing` marker is made and removed durably.
#pragma once

#include "arena/arena_internal.h"

namespace qk::arena {

// fsync of the directory `dir`; false with the error state set.
QK_API bool DirectorySync(const char *dir);
// Syncs the arena's directory and its block directory.
QK_API bool VMArenaSyncDirectories(VMArena *arena);
// Creates the empty marker `committing` (mode 0600) and syncs the
// directory.
QK_API bool VMArenaMarkCommitting(VMArena *arena);
// Removes the marker and syncs the directory.
QK_API bool VMArenaUnmarkCommitting(VMArena *arena);
// Removes what a marked commit, once rolled forward, may leave beside the
// published files: arena.<g>.new, arena.<g>.old and index<x>.<g>.new,
// index<x>.<g>.old for both generations <g>, wherever the published name
// stands. Only for a writable arena in no-serial mode, after its files have
// been read. Failures are ignored: the next commit overwrites the files.
QK_API void VMArenaRemoveLeftovers(VMArena *arena);

}  // namespace qk::arena
