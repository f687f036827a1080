// Walking a tree node by node: a state stands before a run of siblings,
// in the head (transitions read in place) or in a leaf (entries decoded
// from its buffer, every read bounded by the run's end).
#include "collection/pitree_internal.h"
#include "container/varint.h"

using namespace qk;
using namespace qk::pitree;

namespace {

// What a state of a node without sons points at.
const PIMTreeRecord kNoTransition = {};

constexpr ULong kLow = 0xFFFFFFFFu;

// Reads a number of the leaf at *offset, below `end`.
ULong LeafNumber(PITree *tree, const PITreeState *state, UInt *offset, UInt end) {
    ULong value;
    size_t n = VarIntRead((const UByte *)state->base + *offset, end - *offset, &value);
    PIT_CHECK(tree, n > 0, "state == end");
    *offset += (UInt)n;
    return value;
}

}  // namespace

extern "C" {

QK_API PITreeState PITreeStateOfNode(PITree *tree, UInt node, Int genID, PtrArray *) {
    UInt end, first = PIMTreeNodeFirst(tree->head, node, &end, genID), upBound;
    PITreeState state = {first, &kNoTransition, end, 0};
    if (first < end) {
        state.base = VMAArrayRange(tree->head->trans, first, &upBound, genID, 1);
        PIT_CHECK(tree, state.base != nullptr, "newS.base != NULL");
        state.count = (upBound < end ? upBound : end) - first;
    }
    return state;
}

QK_API PITreeState PITreeStateOfLeaf(UInt leaf, const UByte *buffer, UInt length, UInt offset,
                                     UInt end) {
    static const UByte kNothing = 0;
    qkassert(offset <= end && end <= length);
    return {((ULong)leaf + 1) << 32 | offset, buffer ? (const void *)buffer : &kNothing, end,
            length};
}

QK_API int PITreeStateAtEnd(const PITreeState *state) {
    return (state->id & kLow) >= state->end;
}

QK_API void PITreeStateNext(PITree *tree, const PITreeState *state, UInt *atom, ULong *data,
                            PITreeState *son, PITreeState *sibling, Int genID, PtrArray *acquired) {
    qkassert(!PITreeStateAtEnd(state));
    UInt at = (UInt)(state->id & kLow);
    if (state->id >> 32 == 0) {
        PITreeState s = *state;
        if (s.count == 0) s = {s.id, nullptr, s.end, 0};
        if (s.base == nullptr) {
            UInt upBound;
            s.base = VMAArrayRange(tree->head->trans, at, &upBound, genID, 1);
            PIT_CHECK(tree, s.base != nullptr, "newS.base != NULL");
            s.count = (upBound < s.end ? upBound : s.end) - at;
        }
        PIMTreeTransition t = qk::pimtree::Decode((const PIMTreeRecord *)s.base);
        *atom = t.atom;
        *data = t.data;
        *sibling = {s.id + 1, (const PIMTreeRecord *)s.base + 1, s.end, s.count - 1};
        if (!(t.to & PIMTREE_LEAF_BIT)) {
            *son = PITreeStateOfNode(tree, t.to, genID, acquired);
            return;
        }
        UInt leaf = t.to & ~PIMTREE_LEAF_BIT, length;
        PIT_CHECK(tree, leaf != PIMTREE_NO_NODE, "to != PIMTREE_NO_NODE");
        const UByte *buffer = LeafGet(tree, leaf, genID, &length);
        if (acquired != nullptr) ArrayAdd(*acquired, (void *)buffer);
        *son = PITreeStateOfLeaf(leaf, buffer, length, 0, length);
        return;
    }
    // An entry of a leaf: atom, size, data, then its sons up to the size's
    // end.
    PIT_CHECK(tree, state->end <= state->count, "(newState->id & UINT_MAX_VALUE) <= newState->end");
    *atom = (UInt)LeafNumber(tree, state, &at, state->end);
    ULong size = LeafNumber(tree, state, &at, state->end);
    PIT_CHECK(tree, size <= state->end - at, "state == end");
    UInt entryEnd = at + (UInt)size;
    *data = LeafNumber(tree, state, &at, entryEnd);
    ULong high = state->id & ~kLow;
    *son = {high | at, state->base, entryEnd, state->count};
    *sibling = {high | entryEnd, state->base, state->end, state->count};
}

QK_API void PITreeStateRelease(PITree *tree, Int genID, PtrArray *acquired) {
    for (UInt i = 0; i < ArrayLength(*acquired); i++)
        DBArrayRelease(tree->leaf, genID, 1, ArrayNth(*acquired, i));
    ArrayClear(*acquired);
}

}  // extern "C"
