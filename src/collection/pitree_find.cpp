// Following a key: through the head, then inside the leaf where the head
// ends. A change in a leaf rewrites it whole; a leaf that grows to the limit
// explodes into head nodes and smaller leaves.
#include <string.h>

#include "collection/pitree_internal.h"
#include "qk/frame.h"

using namespace qk::pitree;

namespace qk::pitree {

void Explode(PITree *tree, PITreeThreadData *td, const UByte *buffer, UInt length,
             UInt transition) {
    // The sons of every round point into this copy.
    td->exploding.assign(buffer, buffer + length);
    td->round.assign(1, {td->exploding.data(), length, transition});
    while (!td->round.empty()) {
        td->next.clear();
        for (const PITreeWork &item : td->round) {
            UInt first;
            UInt node = PIMTreeNodeNew(tree->head, &first, NEWGEN);
            PIMTreeNodeSetInternalTo(tree->head, item.transition, node, NEWGEN);
            PICTreeExplodes(tree->arena, item.buffer, item.length, &td->sons);
            td->transitions.clear();
            for (UInt i = 0; i < ArrayLength(td->sons); i++) {
                const PICTreeSon &son = ArrayNth(td->sons, i);
                UInt to = PIMTREE_NO_NODE;
                if (son.sonsLength < PICTREE_LENGTH_LIMIT)
                    to = LeafTake(tree, son.sons, son.sonsLength) | PIMTREE_LEAF_BIT;
                else
                    td->next.push_back({son.sons, son.sonsLength, first + i});
                td->transitions.push_back({son.data, son.atom, to});
            }
            PIMTreeNodeInsertSon(tree->head, td->pim, node, first, td->transitions.data(),
                                 (UInt)td->transitions.size(), NEWGEN);
        }
        td->round.swap(td->next);
    }
}

}  // namespace qk::pitree

extern "C" {

QK_API ULong PITreeFindAll(PITree *tree, PITreeThreadData *td, const UInt *key, UInt keyLength,
                           ULong data, Int genID, int create, int remove, int force,
                           ULongArray *path) {
    qkassert(keyLength != 0);
    qkassert(!(create && remove));
    qkassert(genID == NEWGEN || (!create && !remove));
    qkassert(!force || create);
    qkassert(td != nullptr);
    UInt peeked = create ? LeafPeek(tree) : 0;
    int changed = 0;
    PIMTreeResult head = PIMTreeFind(tree->head, td->pim, key, keyLength, data, peeked, create, 0,
                                     force, &changed, path, genID);
    if (changed) SizeUpdate(tree, data != 0);
    if (!head.found) return 0;
    if (create && !head.internal && head.to == (peeked | PIMTREE_LEAF_BIT)) {
        UInt leaf = LeafTake(tree, nullptr, 0);
        PIT_CHECK(tree, leaf == peeked, "newLeaf == headResult.to");
    }
    if (head.matched == keyLength) {
        if (!remove) return head.data;
        // The key ends on a transition: into a leaf that is still in use,
        // only its data goes; otherwise the transition goes, pruning the
        // head above it.
        if (head.internal || LeafEmpty(tree, head.to & ~PIMTREE_LEAF_BIT)) {
            if (!head.internal) LeafFree(tree, head.to & ~PIMTREE_LEAF_BIT);
            PIMTreeFind(tree->head, td->pim, key, keyLength, 0, 0, 0, 1, 0, &changed, nullptr,
                        NEWGEN);
        } else {
            PIMTreeFind(tree->head, td->pim, key, keyLength, 0, 0, 1, 0, 1, &changed, nullptr,
                        NEWGEN);
        }
        if (changed) SizeUpdate(tree, false);
        return head.data;
    }
    PIT_CHECK(tree, !head.internal && head.to != (PIMTREE_NO_NODE | PIMTREE_LEAF_BIT),
              "to != PIMTREE_NO_NODE");
    UInt leaf = head.to & ~PIMTREE_LEAF_BIT, length, newLength;
    const UByte *buffer = LeafGet(tree, leaf, genID, &length);
    int rewrite = 0, found = 0;
    UByte *newData;
    changed = 0;
    ULong result = PICTreeFind(tree->arena, buffer, length, td->pic, &rewrite, &newData, &newLength,
                               key + head.matched, keyLength - head.matched, data, nullptr, nullptr,
                               create, remove, force, &found, &changed, path, genID);
    DBArrayRelease(tree->leaf, genID, 1, (void *)buffer);
    if (changed) SizeUpdate(tree, create && data != 0);
    if (!rewrite) return result;
    if (newLength >= PICTREE_LENGTH_LIMIT) {
        LeafFree(tree, leaf);
        Explode(tree, td, newData, newLength, head.transition);
    } else if (newLength == 0 && head.data == 0) {
        // The leaf's last key went, and the transition carries nothing.
        LeafFree(tree, leaf);
        PIMTreeFind(tree->head, td->pim, key, head.matched, 0, 0, 0, 1, 0, nullptr, nullptr,
                    NEWGEN);
    } else {
        PIT_CHECK(tree, PITreeFillLeaf(tree, leaf, newData, newLength, NEWGEN), "fill == 1");
    }
    return result;
}

QK_API ULong PITreeFind(PITree *tree, PITreeThreadData *td, const UInt *key, UInt keyLength,
                        ULong data, Int genID, int create, int remove, int force) {
    return PITreeFindAll(tree, td, key, keyLength, data, genID, create, remove, force, nullptr);
}

QK_API void PITreePrefetch(PITree *tree, PITreeThreadData *td, const UInt *key, UInt keyLength,
                           Int genID) {
    PIMTreeResult head =
        PIMTreeFind(tree->head, td->pim, key, keyLength, 0, 0, 0, 0, 0, nullptr, nullptr, genID);
    if (!head.found || head.internal) return;
    UInt leaf = head.to & ~PIMTREE_LEAF_BIT, buckets = DBArrayBucketCount(tree->leaf);
    DBArrayPrefetch(tree->leaf, leaf % buckets, leaf / buckets, genID);
}

}  // extern "C"
