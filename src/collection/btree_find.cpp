// The descent of a find: the search in each node, the nearest keys seen on
// the way, a change in place, and the facade's tables.
#include "collection/btree_internal.h"

namespace qk::btree {

namespace {

// The smallest (`last` false) or largest key below `block`, with its value.
template <typename K>
void Extreme(BTree *tree, UInt block, Int genID, bool last, ULong *key, ULong *value) {
    for (;;) {
        Node<K> n = NodeAt<K>(tree, block, genID, 1);
        BT_CHECK(tree, n.Count() != 0, "sonKeyCount != 0");
        if (n.Leaf()) {
            UInt i = last ? n.Count() - 1 : 0;
            *key = n.Key(i);
            *value = n.Value(i);
            return;
        }
        block = n.Son(last ? n.Count() : 0);
    }
}

// The nearest keys around the place `pos` of `n`: the entries beside it in
// a leaf, the ends of its sons' subtrees in an internal node. What is not
// found there stays as the levels above left it.
template <typename K>
void Around(BTree *tree, const Node<K> &n, UInt pos, bool hit, Int genID, ULong *neighbours) {
    if (hit && !n.Leaf()) {
        Extreme<K>(tree, n.Son(pos), genID, true, &neighbours[0], &neighbours[1]);
        Extreme<K>(tree, n.Son(pos + 1), genID, false, &neighbours[2], &neighbours[3]);
        return;
    }
    if (pos > 0) {
        neighbours[0] = n.Key(pos - 1);
        neighbours[1] = n.Value(pos - 1);
    }
    UInt next = hit ? pos + 1 : pos;
    if (next < n.Count()) {
        neighbours[2] = n.Key(next);
        neighbours[3] = n.Value(next);
    }
}

}  // namespace

template <typename K>
ULong Find(BTree *tree, ULong key64, ULong value, ULong def, ULong *prevKey, ULong *prevValue,
           ULong *nextKey, ULong *nextValue, int create, int update, int remove, Int genID) {
    if (create && remove) qkassert_("!create || !remove", __FILE__, __LINE__);
    qkassert(genID == NEWGEN || (!create && !update && !remove));
    K key = (K)key64;
    ULong neighbours[4] = {BTREE_NO_KEY, BTREE_NO_KEY, BTREE_NO_KEY, BTREE_NO_KEY};
    bool wanted = prevKey || prevValue || nextKey || nextValue;
    ULong result = def;
    bool track = create || remove;
    if (track) ArrayReset(tree->path);
    UInt block = RootBlock(tree, genID);
    if (block == BTREE_INVALID_BLOCK_ID) {
        if (!create) goto out;
        block = AddRoot<K>(tree);
    }
    for (;;) {
        Node<K> n = NodeAt<K>(tree, block, genID, 1);
        bool hit;
        UInt pos = n.Search(key, &hit);
        if (track) ArrayAdd(tree->path, (BTreeStep{block, pos}));
        if (wanted) Around<K>(tree, n, pos, hit, genID, neighbours);
        if (hit) {
            result = n.Value(pos);
            if (update && result != value) NodeAt<K>(tree, block, NEWGEN, 0).SetValue(pos, value);
            if (remove) Remove<K>(tree);
            goto out;
        }
        if (n.Leaf()) break;
        block = n.Son(pos);
    }
    if (create) Insert<K>(tree, key, value);
out:
    if (prevKey) *prevKey = neighbours[0];
    if (prevValue) *prevValue = neighbours[1];
    if (nextKey) *nextKey = neighbours[2];
    if (nextValue) *nextValue = neighbours[3];
    return result;
}

namespace {

template <typename K>
int NextOp(BTreeEnumeration *e, ULong *key, ULong *value) {
    K k;
    ULong v;
    if (!Next<K>(e, &k, &v)) return 0;
    if (key) *key = k;
    if (value) *value = v;
    return 1;
}

}  // namespace

const BTreeOps kUIntOps = {Find<UInt>, Enumerate<UInt>, BlockEnumerate<UInt>, NextOp<UInt>};
const BTreeOps kULongOps = {Find<ULong>, Enumerate<ULong>, BlockEnumerate<ULong>, NextOp<ULong>};

}  // namespace qk::btree

using namespace qk::btree;

extern "C" {

QK_API ULong UIntBTreeFind(BTree *tree, UInt key, ULong value, ULong def, UInt *prevKey,
                           ULong *prevValue, UInt *nextKey, ULong *nextValue, int create,
                           int update, int remove, Int genID) {
    qkassert(tree->keySize == 4);
    ULong prev, next;
    ULong r = Find<UInt>(tree, key, value, def, prevKey ? &prev : nullptr, prevValue,
                         nextKey ? &next : nullptr, nextValue, create, update, remove, genID);
    if (prevKey) *prevKey = (UInt)prev;
    if (nextKey) *nextKey = (UInt)next;
    return r;
}

QK_API ULong ULongBTreeFind(BTree *tree, ULong key, ULong value, ULong def, ULong *prevKey,
                            ULong *prevValue, ULong *nextKey, ULong *nextValue, int create,
                            int update, int remove, Int genID) {
    qkassert(tree->keySize == 8);
    return Find<ULong>(tree, key, value, def, prevKey, prevValue, nextKey, nextValue, create,
                       update, remove, genID);
}

}  // extern "C"
