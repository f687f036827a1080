// The PIMTree's structures and the helpers of its files: the record codec,
// checked reads of both arrays, and the moves of a run of transitions.
#pragma once

#include "collection/corrupt.h"
#include "qk/frame.h"
#include "qk/pimtree.h"

constexpr UInt kTransSize = 16;

// A transition as stored: data, atom, to, each little-endian.
struct PIMTreeRecord {
    UByte bytes[kTransSize];
};

struct PIMTree {
    VMArena *arena;
    VMAARRAY(PIMTreeRecord) trans;
    VMAARRAY(UInt) headIndex;
};

// One step of a removal's way down.
struct PIMTreeStep {
    UInt to;
    UInt position;  // the transition's index in `trans`
    ULong data;
};

struct PIMTreeThreadData {
    QK_ARRAY(PIMTreeStep) path;
    UByte chunk[ARENA_MAX_BLOCK_SIZE];  // a run of records being moved
};

namespace qk::pimtree {

#define PIM_CHECK(tree, expression, text) COLL_CHECK((tree)->arena, expression, text)

PIMTreeTransition Decode(const PIMTreeRecord *record);
PIMTreeRecord Encode(const PIMTreeTransition &transition);

// Entry `node` of transIndex, checked against the array's length.
UInt HeadIndex(PIMTree *tree, UInt node, Int genID);
// Node `node`'s run [*first, *end) of `trans`, checked.
void NodeRun(PIMTree *tree, UInt node, UInt *first, UInt *end, Int genID);
PIMTreeTransition TransAt(PIMTree *tree, UInt transition, Int genID);
void TransSet(PIMTree *tree, UInt transition, const PIMTreeTransition &value);
// Adds `delta` to every transIndex entry after `node`.
void ShiftHeads(PIMTree *tree, UInt node, Int delta);
// Deletes transition `transition` of `node`: the tail moves down by one.
void RemoveTrans(PIMTree *tree, UInt node, UInt transition);

}  // namespace qk::pimtree
