// A node and one of its siblings: their entries and the separator between
// them spread evenly over both, or (after a removal, when they fit) merged
// into the left one.
#include "collection/btree_internal.h"

namespace qk::btree {

namespace {

// A sibling of the node at `entry`: son `index` of the parent.
template <typename K>
Node<K> Sibling(BTree *tree, const Node<K> &parent, UInt index, const BTreeStep &entry,
                UInt *block) {
    *block = parent.Son(index);
    BT_CHECK(tree, *block != entry.block, "sonBID != entry.blockID");
    return NodeAt<K>(tree, *block, NEWGEN, 1);
}

}  // namespace

template <typename K>
bool ShareOrMerge(BTree *tree, UInt level, bool create, K key, ULong value, UInt son,
                  bool *merged) {
    *merged = false;
    BTreeStep up = tree->path.data[level - 1], entry = tree->path.data[level];
    Node<K> parent = NodeAt<K>(tree, up.block, NEWGEN, 1);
    UInt index = up.index, keyCount = parent.Count();
    BT_CHECK(tree, index <= keyCount, "index <= keyCount");
    UInt leftBlock = 0, rightBlock = 0, leftCount = 0, rightCount = 0;
    bool hasLeft = index > 0, hasRight = index < keyCount;
    if (hasLeft) leftCount = Sibling<K>(tree, parent, index - 1, entry, &leftBlock).Count();
    if (hasRight) rightCount = Sibling<K>(tree, parent, index + 1, entry, &rightBlock).Count();
    bool useRight;
    if (create) {
        UInt max = NodeAt<K>(tree, entry.block, NEWGEN, 1).Max();
        bool leftOk = hasLeft && leftCount < max, rightOk = hasRight && rightCount < max;
        if (!leftOk && !rightOk) return false;
        useRight = rightOk && (!leftOk || rightCount < leftCount);
    } else {
        if (!hasLeft && !hasRight) return false;
        useRight = !hasLeft || (hasRight && rightCount > leftCount);
    }
    UInt separator = useRight ? index : index - 1;
    UInt block0 = useRight ? entry.block : leftBlock, block1 = useRight ? rightBlock : entry.block;
    Node<K> n0 = NodeAt<K>(tree, block0, NEWGEN, 1), n1 = NodeAt<K>(tree, block1, NEWGEN, 1);
    bool isLeaf0 = n0.Leaf(), isLeaf1 = n1.Leaf();
    BT_CHECK(tree, isLeaf0 == isLeaf1, "isLeaf0 == isLeaf1");
    UInt maxKeyCount = n0.Max();
    BT_CHECK(tree, n0.Count() <= tree->maxKeyCount[isLeaf0],
             "keyCount <= BTreeMaxKeyCount(btree, isLeaf0)");
    ScratchClear(tree);
    Gather<K>(tree, n0, 0, n0.Count(), !isLeaf0);
    ArrayAdd(tree->keys, (ULong)parent.Key(separator));
    ArrayAdd(tree->values, parent.Value(separator));
    Gather<K>(tree, n1, 0, n1.Count(), !isLeaf0);
    if (create) ScratchInsert(tree, (useRight ? 0 : n0.Count() + 1) + entry.index, key, value, son);
    UInt count = tree->keys.length;
    if (!create && count <= maxKeyCount) {
        Node<K> into = NodeAt<K>(tree, block0, NEWGEN, 0);
        Scatter<K>(tree, into, 0, count);
        Node<K> above = NodeAt<K>(tree, up.block, NEWGEN, 0);
        above.DeleteAt(separator);
        VMArenaDataBlockFree(tree->arena, block1, NEWGEN);
        if (level == 1 && above.Count() == 0) {
            RootSet(tree, block0);
            VMArenaDataBlockFree(tree->arena, up.block, NEWGEN);
        }
        *merged = true;
        return true;
    }
    UInt left = count / 2, right = count - 1 - left;
    BT_CHECK(tree, left >= (maxKeyCount / 2), "leftCount >= (maxKeyCount / 2)");
    BT_CHECK(tree, left <= maxKeyCount, "leftCount <= maxKeyCount");
    BT_CHECK(tree, right >= (maxKeyCount / 2), "rightCount >= (maxKeyCount / 2)");
    BT_CHECK(tree, right <= maxKeyCount, "rightCount <= maxKeyCount");
    Node<K> w0 = NodeAt<K>(tree, block0, NEWGEN, 0);
    Scatter<K>(tree, w0, 0, left);
    Node<K> w1 = NodeAt<K>(tree, block1, NEWGEN, 0);
    Scatter<K>(tree, w1, left + 1, right);
    Node<K> above = NodeAt<K>(tree, up.block, NEWGEN, 0);
    above.SetKey(separator, (K)tree->keys.data[left]);
    above.SetValue(separator, tree->values.data[left]);
    return true;
}

template bool ShareOrMerge<UInt>(BTree *, UInt, bool, UInt, ULong, UInt, bool *);
template bool ShareOrMerge<ULong>(BTree *, UInt, bool, ULong, ULong, UInt, bool *);

}  // namespace qk::btree
