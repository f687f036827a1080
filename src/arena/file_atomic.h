// Publishing a file by renames inside a commit.
#pragma once

namespace qk::arena {

// FileAtomicCommit's renames and removal without its syncs: `name`.new
// takes the place of `name`, which is kept as `name`.old until then. For a
// caller that has synced the new file already and syncs the directory once
// after all its swaps, under a marker that makes the next open finish any
// swap cut short. True, or false with the error state set when a rename
// failed.
bool FileAtomicSwap(const char *dir, const char *name);

}  // namespace qk::arena
