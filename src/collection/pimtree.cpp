// Making, opening and clearing a PIMTree, its thread data, and reads of its
// nodes and transitions.
#include <string.h>

#include "collection/path.h"
#include "collection/pimtree_internal.h"
#include "frame/endian.h"
#include "qk/memory.h"

using namespace qk::pimtree;

namespace qk::pimtree {

PIMTreeTransition Decode(const PIMTreeRecord *record) {
    return {LoadLE64(record->bytes), LoadLE32(record->bytes + 8), LoadLE32(record->bytes + 12)};
}

PIMTreeRecord Encode(const PIMTreeTransition &t) {
    PIMTreeRecord record;
    StoreLE(record.bytes, t.data, 8);
    StoreLE(record.bytes + 8, t.atom, 4);
    StoreLE(record.bytes + 12, t.to, 4);
    return record;
}

UInt HeadIndex(PIMTree *tree, UInt node, Int genID) {
    UInt headLen = VMAArrayLength(tree->headIndex, genID), upBound;
    PIM_CHECK(tree, node < headLen, "((state)) < __arraylen__");
    const UInt *p = VMAArrayRange(tree->headIndex, node, &upBound, genID, 1);
    PIM_CHECK(tree, p != nullptr && node < upBound, "n < __upBound__");
    return *p;
}

void NodeRun(PIMTree *tree, UInt node, UInt *first, UInt *end, Int genID) {
    UInt state = node, upBound;
    PIMTree *pimTree = tree;
    PIM_CHECK(tree, (state + 1) < VMAArrayLength(pimTree->headIndex, genID),
              "(state + 1) < VMAArrayLength(pimTree->headIndex, genID)");
    const UInt *p = VMAArrayRange(tree->headIndex, node, &upBound, genID, 1);
    PIM_CHECK(tree, p != nullptr && node < upBound, "n < __upBound__");
    // Both entries at once, unless a block ends between them.
    UInt s = p[0], e = node + 1 < upBound ? p[1] : HeadIndex(tree, node + 1, genID);
    PIM_CHECK(tree, s <= e, "s <= e");
    PIM_CHECK(tree, e <= VMAArrayLength(tree->trans, genID), "((state)) < __arraylen__");
    *first = s;
    *end = e;
}

PIMTreeTransition TransAt(PIMTree *tree, UInt transition, Int genID) {
    UInt upBound;
    const PIMTreeRecord *r = VMAArrayRange(tree->trans, transition, &upBound, genID, 1);
    PIM_CHECK(tree, r != nullptr && transition < upBound, "n < __upBound__");
    return Decode(r);
}

void TransSet(PIMTree *tree, UInt transition, const PIMTreeTransition &value) {
    UInt upBound;
    PIMTreeRecord *r = VMAArrayRange(tree->trans, transition, &upBound, NEWGEN, 0);
    PIM_CHECK(tree, r != nullptr, "n < __upBound__");
    *r = Encode(value);
}

}  // namespace qk::pimtree

namespace {

bool OpenArray(VMArena *arena, char *path, const char *name, int linear, int *create,
               int newGenOnly, VMAArrayHandle *handle) {
    return VMAArrayInitFromPath_(arena, create, newGenOnly, 0, 0, path, "pimtree", name, linear,
                                 handle);
}

}  // namespace

extern "C" {

QK_API PIMTree *PIMTreeNew_(VMArena *arena, char *path, const char *name, int linear, int *create,
                            int newGenOnly) {
    size_t keep;
    if (!qk::collection::PathEnter(path, name, "/", "tree", &keep)) return nullptr;
    auto *tree = AllocateZero(PIMTree);
    tree->arena = arena;
    int madeTrans = *create, madeIndex = *create;
    bool ok = OpenArray(arena, path, "trans", linear, &madeTrans, newGenOnly,
                        (VMAArrayHandle *)&tree->trans) &&
              OpenArray(arena, path, "transIndex", linear, &madeIndex, newGenOnly,
                        (VMAArrayHandle *)&tree->headIndex);
    path[keep] = 0;
    *create = madeTrans || madeIndex;
    if (!ok) {
        UnAllocate(tree);
        return nullptr;
    }
    if (madeIndex) {
        static const UInt kRoot[2] = {0, 0};
        VMAArrayAppend(tree->headIndex, kRoot, 2);
    }
    return tree;
}

QK_API PIMTree *PIMTreeNew(VMArena *arena, char *path, const char *name, int *create,
                           int newGenOnly) {
    return PIMTreeNew_(arena, path, name, 0, create, newGenOnly);
}

QK_API void PIMTreeFree(PIMTree *tree) {
    UnAllocate(tree);
}

QK_API void PIMTreeCommit(PIMTree *tree) {
    tree->trans.ids[OLDGEN] = tree->trans.ids[NEWGEN];
    tree->headIndex.ids[OLDGEN] = tree->headIndex.ids[NEWGEN];
}

QK_API void PIMTreeClear(PIMTree *tree, Int genID) {
    qkassert(genID == NEWGEN);
    static const UInt kRoot[2] = {0, 0};
    VMAArrayClear(tree->trans);
    VMAArrayClear(tree->headIndex);
    VMAArrayAppend(tree->headIndex, kRoot, 2);
}

QK_API int PIMTreeEmpty(PIMTree *tree, Int genID) {
    return !VMAArrayExists(tree->headIndex, genID) || PIMTreeSonCount(tree, 0, genID) == 0;
}

QK_API PIMTreeThreadData *PIMTreeThreadDataNew(void) {
    return AllocateZero(PIMTreeThreadData);
}

QK_API void PIMTreeThreadDataFree(PIMTreeThreadData *data) {
    if (data == nullptr) return;
    ArrayFree(data->path);
    UnAllocate(data);
}

QK_API void PIMTreeThreadDataReInit(PIMTreeThreadData *data) {
    ArrayReset(data->path);
}

QK_API UInt PIMTreeSonCount(PIMTree *tree, UInt node, Int genID) {
    UInt first, end;
    NodeRun(tree, node, &first, &end, genID);
    return end - first;
}

QK_API UInt PIMTreeNodeCount(PIMTree *tree, Int genID) {
    return VMAArrayLength(tree->headIndex, genID) - 1;
}

QK_API UInt PIMTreeNodeFirst(PIMTree *tree, UInt node, UInt *end, Int genID) {
    UInt first;
    NodeRun(tree, node, &first, end, genID);
    return first;
}

QK_API PIMTreeTransition PIMTreeTransGet(PIMTree *tree, UInt transition, Int genID) {
    return TransAt(tree, transition, genID);
}

}  // extern "C"
