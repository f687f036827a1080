// Following a key through the head: a binary search per node, then the
// key's last transition is read, created, overwritten or removed.
//
// Removal prunes upwards. The key's last transition goes (unless its node
// still has sons: then only its data is cleared). Then, walking back up the
// path from the transition that led to the removed one's node, each
// transition whose node is left without sons and that has no data of its
// own goes too, and the walk stops at the first that stays. So no node
// without sons and without data is left on the removed key's path; the node
// records themselves stay in transIndex, unreachable and empty.
#include "collection/pimtree_internal.h"
#include "frame/endian.h"

using namespace qk::pimtree;

namespace {

// The index of `atom` in the run [lo, hi), or where it would go. A run
// that lies in one block of `trans` is searched in place.
UInt Search(PIMTree *tree, UInt lo, UInt hi, UInt atom, Int genID, bool *found) {
    *found = false;
    if (lo == hi) return lo;
    UInt upBound;
    const PIMTreeRecord *run = VMAArrayRange(tree->trans, lo, &upBound, genID, 1);
    bool inPlace = run != nullptr && hi <= upBound;
    UInt base = lo;
    while (lo < hi) {
        UInt mid = (lo + hi) >> 1;
        UInt at =
            inPlace ? qk::LoadLE32(run[mid - base].bytes + 8) : TransAt(tree, mid, genID).atom;
        if (at == atom) {
            *found = true;
            return mid;
        }
        if (at < atom) {
            lo = mid + 1;
        } else {
            hi = mid;
        }
    }
    return lo;
}

// Deletes the transitions of the removal's path, from its last step
// upwards, while they lead nowhere and carry nothing.
void Prune(PIMTree *tree, PIMTreeThreadData *td, UInt lastNode) {
    auto &path = td->path;
    for (UInt k = path.length; k-- > 0;) {
        PIMTreeStep &step = ArrayNth(path, k);
        bool last = k + 1 == path.length;
        bool internal = !(step.to & PIMTREE_LEAF_BIT);
        bool hasSons = internal && PIMTreeSonCount(tree, step.to, NEWGEN) > 0;
        if (hasSons) {
            if (last)
                TransSet(tree, step.position,
                         {0, TransAt(tree, step.position, NEWGEN).atom, step.to});
            return;
        }
        if (!last && step.data != 0) return;
        UInt node = k == 0 ? 0 : ArrayNth(path, k - 1).to;
        if (last) node = lastNode;
        RemoveTrans(tree, node, step.position);
        for (UInt j = 0; j < k; j++) {
            if (ArrayNth(path, j).position > step.position) ArrayNth(path, j).position--;
        }
    }
}

}  // namespace

extern "C" QK_API PIMTreeResult PIMTreeFind(PIMTree *tree, PIMTreeThreadData *threadData,
                                            const UInt *key, UInt keyLength, ULong data,
                                            UInt newLeaf, int create, int remove, int force,
                                            int *changed, ULongArray *path, Int genID) {
    qkassert(keyLength != 0);
    qkassert(!(create && remove));
    qkassert(genID == NEWGEN || (!create && !remove && !force));
    qkassert(!force || create);
    PIMTreeResult result = {0, 0, 0, 0, 0, 0, 0};  // a tree without arrays in genID
    if (changed != nullptr) *changed = 0;
    if (!VMAArrayExists(tree->headIndex, genID)) return result;
    if (remove) ArrayClear(threadData->path);
    UInt node = 0;
    for (UInt i = 0; i < keyLength; i++) {
        bool last = i + 1 == keyLength, found;
        UInt first, end;
        NodeRun(tree, node, &first, &end, genID);
        UInt at = Search(tree, first, end, key[i], genID, &found);
        if (!found) {
            if (!create) return {node, i, 0, 0, 0, 0, at};
            PIMTreeTransition t = {last ? data : 0, key[i], newLeaf | PIMTREE_LEAF_BIT};
            PIMTreeNodeInsertSon(tree, threadData, node, at, &t, 1, genID);
            if (changed != nullptr) *changed = last && data != 0;
            return {node, i + 1, t.data, 0, t.to, 1, at};
        }
        PIMTreeTransition t = TransAt(tree, at, genID);
        if (path != nullptr) ArrayAdd(*path, t.data);
        if (remove) ArrayAdd(threadData->path, (PIMTreeStep{t.to, at, t.data}));
        bool internal = !(t.to & PIMTREE_LEAF_BIT);
        result = {node, i + 1, t.data, internal, t.to, 1, at};
        if (last) {
            if (force || (create && t.data == 0)) {
                qkassert(!remove);
                if (changed != nullptr) *changed = (t.data == 0) != (data == 0);
                t.data = data;
                TransSet(tree, at, t);
                result.data = data;
            } else if (remove) {
                if (changed != nullptr) *changed = t.data != 0;
                Prune(tree, threadData, node);
            }
            return result;
        }
        if (!internal) return result;
        PIM_CHECK(tree, t.to != PIMTREE_NO_NODE,
                  "(state + 1) < VMAArrayLength(pimTree->headIndex, genID)");
        node = t.to;
    }
    return result;
}
