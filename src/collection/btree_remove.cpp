// Removal of the entry that the last descent found: an internal entry
// gives way to the first key of its right subtree, the leaf loses one, and
// nodes left under half full take from a sibling or merge with it.
#include "collection/btree_internal.h"

namespace qk::btree {

template <typename K>
void Remove(BTree *tree) {
    BTreeStep hit = tree->path.data[tree->path.length - 1];
    if (!NodeAt<K>(tree, hit.block, NEWGEN, 1).Leaf()) {
        // Down the right son, then left to the leaf, the path growing.
        tree->path.data[tree->path.length - 1].index = hit.index + 1;
        UInt block = NodeAt<K>(tree, hit.block, NEWGEN, 1).Son(hit.index + 1);
        for (;;) {
            ArrayAdd(tree->path, (BTreeStep{block, 0}));
            Node<K> n = NodeAt<K>(tree, block, NEWGEN, 1);
            BT_CHECK(tree, n.Count() != 0, "sonKeyCount != 0");
            if (n.Leaf()) break;
            block = n.Son(0);
        }
        Node<K> leaf = NodeAt<K>(tree, block, NEWGEN, 1);
        K key = leaf.Key(0);
        ULong value = leaf.Value(0);
        Node<K> w = NodeAt<K>(tree, hit.block, NEWGEN, 0);
        w.SetKey(hit.index, key);
        w.SetValue(hit.index, value);
        hit = {block, 0};
    }
    NodeAt<K>(tree, hit.block, NEWGEN, 0).DeleteAt(hit.index);
    for (UInt level = tree->path.length - 1; level > 0; level--) {
        Node<K> n = NodeAt<K>(tree, tree->path.data[level].block, NEWGEN, 1);
        if (n.Count() >= n.Max() / 2) return;
        bool merged;
        if (!ShareOrMerge<K>(tree, level, false, 0, 0, 0, &merged) || !merged) return;
    }
}

template void Remove<UInt>(BTree *);
template void Remove<ULong>(BTree *);

}  // namespace qk::btree
