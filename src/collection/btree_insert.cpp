// Insertion along the path of the last descent: into a node with room, by
// sharing with a sibling, or by splitting up to a new root.
#include "collection/btree_internal.h"

namespace qk::btree {

template <typename K>
void SplitInsert(BTree *tree, UInt block, UInt index, K *key, ULong *value, UInt *son) {
    Node<K> n = NodeAt<K>(tree, block, NEWGEN, 1);
    bool leaf = n.Leaf();
    UInt keyCount = n.Count();
    BT_CHECK(tree, tree->maxKeyCount[leaf] == keyCount,
             "BTreeMaxKeyCount(btree, isLeaf) == keyCount");
    // The key that moves up: the middle one, or the next when the pending
    // key lies above the middle.
    UInt split = keyCount / 2;
    if (n.Key(split) < *key) split++;
    BT_CHECK(tree, n.Key(split) != *key, "*keyPtr != newKey");
    ScratchClear(tree);
    Gather<K>(tree, n, 0, keyCount, !leaf);
    ScratchInsert(tree, index, *key, *value, *son);
    UInt middle = split + (index <= split ? 1 : 0), total = keyCount + 1;
    UInt rightBlock;
    Node<K> right = NodeNew<K>(tree, leaf, &rightBlock);
    Scatter<K>(tree, right, middle + 1, total - middle - 1);
    Node<K> left = NodeAt<K>(tree, block, NEWGEN, 0);
    Scatter<K>(tree, left, 0, middle);
    *key = (K)tree->keys.data[middle];
    *value = tree->values.data[middle];
    *son = rightBlock;
}

template <typename K>
void Insert(BTree *tree, K key, ULong value) {
    UInt son = BTREE_INVALID_BLOCK_ID;
    for (UInt level = tree->path.length; level-- > 0;) {
        BTreeStep step = tree->path.data[level];
        Node<K> n = NodeAt<K>(tree, step.block, NEWGEN, 1);
        if (n.Count() < n.Max()) {
            BT_CHECK(tree, n.Leaf() || son != BTREE_INVALID_BLOCK_ID, "bid != INVALID_BLOCK_ID");
            NodeAt<K>(tree, step.block, NEWGEN, 0).InsertAt(step.index, key, value, son);
            return;
        }
        bool merged;
        if (level > 0 && ShareOrMerge<K>(tree, level, true, key, value, son, &merged)) return;
        SplitInsert<K>(tree, step.block, step.index, &key, &value, &son);
    }
    // The root was split: a new root holds the key that moved up between
    // both halves.
    UInt block;
    Node<K> root = NodeNew<K>(tree, false, &block);
    root.SetKey(0, key);
    root.SetValue(0, value);
    root.SetSon(0, tree->path.data[0].block);
    root.SetSon(1, son);
    root.SetCount(1);
    RootSet(tree, block);
}

template void Insert<UInt>(BTree *, UInt, ULong);
template void Insert<ULong>(BTree *, ULong, ULong);
template void SplitInsert<UInt>(BTree *, UInt, UInt, UInt *, ULong *, UInt *);
template void SplitInsert<ULong>(BTree *, UInt, UInt, ULong *, ULong *, UInt *);

}  // namespace qk::btree

using namespace qk::btree;

extern "C" {

QK_API void UIntBTreeInsert(BTree *tree, UInt key, ULong value) {
    Insert<UInt>(tree, key, value);
}

QK_API void ULongBTreeInsert(BTree *tree, ULong key, ULong value) {
    Insert<ULong>(tree, key, value);
}

QK_API void UIntBTreeSplitInsert(BTree *tree, UInt block, UInt index, UInt *key, ULong *value,
                                 UInt *son) {
    SplitInsert<UInt>(tree, block, index, key, value, son);
}

QK_API void ULongBTreeSplitInsert(BTree *tree, UInt block, UInt index, ULong *key, ULong *value,
                                  UInt *son) {
    SplitInsert<ULong>(tree, block, index, key, value, son);
}

}  // extern "C"
