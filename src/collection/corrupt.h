// Impossible contents in a persistent collection: the arena (when there is
// one) is tagged corrupted, so that it is not committed again, and the
// assertion ends the process with `text`.
#pragma once

#include "qk/arena.h"

namespace qk::collection {

[[noreturn]] void Corrupt(VMArena *arena, const char *text, const char *file, int line);

}  // namespace qk::collection

#define COLL_CHECK(arena, expression, text) \
    ((expression) ? (void)0 : qk::collection::Corrupt((arena), (text), __FILE__, __LINE__))
