// The PITree's structures and the leaf bookkeeping that its files share.
#pragma once

#include <vector>

#include "collection/dbarray_internal.h"
#include "collection/pimtree_internal.h"
#include "qk/pitree.h"

struct PITree {
    VMArena *arena;
    PIMTree *head;
    DBArray *leaf;
    UIntHandle free;  // stack of free leaf IDs
    bool hasParams;
    UIntHandle params;  // [0]: keys with data
    UInt nextBucket;    // where the next new leaf goes
};

// A buffer that an explosion turns into a head node, and the transition
// that will lead to that node.
struct PITreeWork {
    const UByte *buffer;
    UInt length;
    UInt transition;
};

struct PITreeThreadData {
    PIMTreeThreadData *pim;
    PICTreeThreadData *pic;
    std::vector<UByte> exploding;  // the buffer being exploded
    std::vector<PITreeWork> round, next;
    PICTreeSonArray sons;
    std::vector<PIMTreeTransition> transitions;
};

namespace qk::pitree {

#define PIT_CHECK(tree, expression, text) COLL_CHECK((tree)->arena, expression, text)

// A leaf's buffer and length.
const UByte *LeafGet(PITree *tree, UInt leaf, Int genID, UInt *length);
// Whether a leaf holds no entry (NEWGEN).
bool LeafEmpty(PITree *tree, UInt leaf);
// The ID that the next new leaf will get, without taking it.
UInt LeafPeek(PITree *tree);
// A new leaf holding `length` bytes at `buffer`.
UInt LeafTake(PITree *tree, const UByte *buffer, UInt length);
// Empties a leaf and puts it on the free stack.
void LeafFree(PITree *tree, UInt leaf);
// One more (`added`) or one fewer key with data.
void SizeUpdate(PITree *tree, bool added);
// Turns the `length` bytes at `buffer`, the content of a leaf that is
// reached through transition `transition`, into head nodes and leaves.
void Explode(PITree *tree, PITreeThreadData *td, const UByte *buffer, UInt length, UInt transition);

}  // namespace qk::pitree
