// The collections name their arrays below the caller's path.
#pragma once

#include <stddef.h>

namespace qk::collection {

// Appends `name` and `suffix` to the content of `path` (a buffer of
// VMARENA_PATH_SIZE bytes), with the content's old length in *keep so
// that the caller can give the path back. False, with the error set ("<what>
// name too long"), when they do not fit.
bool PathEnter(char *path, const char *name, const char *suffix, const char *what, size_t *keep);

}  // namespace qk::collection
