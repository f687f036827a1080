// Nodes as a whole: making them, the root's place, and the moves of entries
// between nodes and the tree's working arrays.
#include <string.h>

#include "collection/btree_internal.h"

namespace qk::btree {

template <typename K>
Node<K> NodeNew(BTree *tree, bool leaf, UInt *block) {
    *block = VMArenaDataBlockNew(tree->arena, NEWGEN);
    qkassert(*block != INVALID_RAW_BLOCK_ID);
    auto *b = (UByte *)VMArenaDataBlockAcquire(tree->arena, *block, NEWGEN, 0);
    BT_CHECK(tree, b != nullptr, "node != NULL");
    memset(b, 0, ARENA_MAX_BLOCK_SIZE);
    b[kNodeFlagsOffset] = leaf ? kLeafFlag : 0;
    return Node<K>{b, tree};
}

UInt RootBlock(BTree *tree, Int genID) {
    if (!VMAArrayExists(tree->root, genID) || VMAArrayLength(tree->root, genID) == 0)
        return BTREE_INVALID_BLOCK_ID;
    UInt upBound;
    const UInt *p = VMAArrayRange(tree->root, 0, &upBound, genID, 1);
    BT_CHECK(tree, p != nullptr, "root != NULL");
    return *p;
}

void RootSet(BTree *tree, UInt block) {
    if (VMAArrayLength(tree->root, NEWGEN) == 0) {
        VMAArrayAppend(tree->root, &block, 1);
        return;
    }
    VMAArraySetRange(tree->root, 0, &block, 1);
}

void ScratchClear(BTree *tree) {
    ArrayReset(tree->keys);
    ArrayReset(tree->values);
    ArrayReset(tree->sons);
}

void ScratchInsert(BTree *tree, UInt index, ULong key, ULong value, UInt son) {
    auto insert = [](auto &a, UInt i, auto v) {
        ArrayAdd(a, v);
        memmove(a.data + i + 1, a.data + i, (a.length - 1 - i) * sizeof(v));
        a.data[i] = v;
    };
    insert(tree->keys, index, key);
    insert(tree->values, index, value);
    if (tree->sons.length > 0) insert(tree->sons, index + 1, son);
}

template <typename K>
void Gather(BTree *tree, const Node<K> &n, UInt from, UInt to, bool sons) {
    for (UInt i = from; i < to; i++) {
        ArrayAdd(tree->keys, (ULong)n.Key(i));
        ArrayAdd(tree->values, n.Value(i));
    }
    if (sons)
        for (UInt i = from; i <= to; i++) ArrayAdd(tree->sons, n.Son(i));
}

template <typename K>
void Scatter(BTree *tree, Node<K> &n, UInt from, UInt count) {
    for (UInt i = 0; i < count; i++) {
        n.SetKey(i, (K)tree->keys.data[from + i]);
        n.SetValue(i, tree->values.data[from + i]);
    }
    if (!n.Leaf())
        for (UInt i = 0; i <= count; i++) n.SetSon(i, tree->sons.data[from + i]);
    n.SetCount(count);
}

template <typename K>
UInt AddRoot(BTree *tree) {
    UInt block;
    NodeNew<K>(tree, true, &block);
    RootSet(tree, block);
    return block;
}

#define BT_INSTANTIATE(K)                                                \
    template Node<K> NodeNew<K>(BTree *, bool, UInt *);                  \
    template void Gather<K>(BTree *, const Node<K> &, UInt, UInt, bool); \
    template void Scatter<K>(BTree *, Node<K> &, UInt, UInt);            \
    template UInt AddRoot<K>(BTree *);
BT_INSTANTIATE(UInt)
BT_INSTANTIATE(ULong)

}  // namespace qk::btree

using namespace qk::btree;

extern "C" {

QK_API UInt UIntBTreeAddRoot(BTree *tree) {
    return AddRoot<UInt>(tree);
}

QK_API UInt ULongBTreeAddRoot(BTree *tree) {
    return AddRoot<ULong>(tree);
}

}  // extern "C"
