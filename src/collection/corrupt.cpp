#include "collection/corrupt.h"

#include "qk/frame.h"

namespace qk::collection {

void Corrupt(VMArena *arena, const char *text, const char *file, int line) {
    if (arena != nullptr) VMArenaTagCorrupted(arena);
    qkassert_(text, file, line);
}

}  // namespace qk::collection
