// Changing the head's shape: new nodes at the end, transitions inserted or
// removed inside a node's run. Every later transition moves and every later
// transIndex entry shifts, which is why the tree above keeps most of its
// keys in leaves.
#include "collection/pimtree_internal.h"

using namespace qk::pimtree;

namespace qk::pimtree {

void ShiftHeads(PIMTree *tree, UInt node, Int delta) {
    UInt headLen = VMAArrayLength(tree->headIndex, NEWGEN);
    PIM_CHECK(tree, headLen > node + 1, "headLen >= delta");
    for (UInt i = node + 1, upBound; i < headLen; i = upBound) {
        UInt *ptr = VMAArrayRange(tree->headIndex, i, &upBound, NEWGEN, 0);
        PIM_CHECK(tree, ptr != nullptr, "n < __upBound__");
        for (UInt k = i; k < upBound; k++, ptr++) {
            PIM_CHECK(tree, delta > 0 || (*ptr) >= (UInt)-delta, "(*ptr) >= delta");
            *ptr += delta;
        }
    }
}

void RemoveTrans(PIMTree *tree, UInt node, UInt transition) {
    VMAArrayRemove(tree->trans, transition);
    ShiftHeads(tree, node, -1);
}

}  // namespace qk::pimtree

extern "C" {

QK_API UInt PIMTreeNodeNew(PIMTree *tree, UInt *firstTrans, Int genID) {
    qkassert(genID == NEWGEN);
    UInt nodes = PIMTreeNodeCount(tree, genID);
    UInt last = HeadIndex(tree, nodes, genID);
    VMAArrayAppend(tree->headIndex, &last, 1);
    if (firstTrans != nullptr) *firstTrans = last;
    return nodes;
}

QK_API void PIMTreeNodeSetInternalTo(PIMTree *tree, UInt transition, UInt node, Int genID) {
    qkassert(genID == NEWGEN && (node & PIMTREE_LEAF_BIT) == 0);
    PIMTreeTransition t = TransAt(tree, transition, genID);
    t.to = node;
    TransSet(tree, transition, t);
}

// The records from `position` on move up by `count`, a chunk at a time from
// the end backwards, each chunk through the thread data's buffer.
QK_API void PIMTreeNodeInsertSon(PIMTree *tree, PIMTreeThreadData *threadData, UInt node,
                                 UInt position, const PIMTreeTransition *transitions, UInt count,
                                 Int genID) {
    qkassert(genID == NEWGEN);
    if (count == 0) return;
    UInt first, end;
    NodeRun(tree, node, &first, &end, genID);
    qkassert(position >= first && position <= end);
    UInt length = VMAArrayLength(tree->trans, NEWGEN);
    UInt perBlock = ARENA_MAX_BLOCK_SIZE / kTransSize;
    for (UInt i = 0; i < count; i++) {  // grows the array by `count`
        PIMTreeRecord r = Encode(transitions[i]);
        VMAArrayAppend(tree->trans, &r, 1);
    }
    for (UInt hi = length; hi > position;) {
        UInt lo = (hi - 1) / perBlock * perBlock;
        if (lo < position) lo = position;
        UInt upBound;
        const PIMTreeRecord *src = VMAArrayRange(tree->trans, lo, &upBound, NEWGEN, 1);
        PIM_CHECK(tree, src != nullptr && upBound >= hi, "n < __upBound__");
        memcpy(threadData->chunk, src, (size_t)(hi - lo) * kTransSize);
        VMAArraySetRange(tree->trans, lo + count, threadData->chunk, hi - lo);
        hi = lo;
    }
    for (UInt i = 0; i < count; i++) {
        PIMTreeRecord r = Encode(transitions[i]);
        VMAArraySetRange(tree->trans, position + i, &r, 1);
    }
    ShiftHeads(tree, node, (Int)count);
}

}  // extern "C"
