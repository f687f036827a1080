// Walks of a tree: its keys in order through an explicit stack, with or
// without a callback, and its nodes once each.
#include "collection/btree_internal.h"
#include "qk/memory.h"

namespace qk::btree {

namespace {

// Pushes `block` and its leftmost descendants.
template <typename K>
void Descend(BTreeEnumeration *e, UInt block) {
    for (;;) {
        Node<K> n = NodeAt<K>(e->tree, block, e->genID, 1);
        ArrayAdd(e->stack, (BTreeFrame{block, 0, n.Count(), n.Leaf()}));
        if (n.Leaf()) return;
        block = n.Son(0);
    }
}

}  // namespace

template <typename K>
int NextStep(BTreeEnumeration *e, K *key, ULong *value) {
    while (e->stack.length > 0) {
        BTreeFrame *stack = &ArrayLast(e->stack);
        BT_CHECK(e->tree, stack->keyIndex <= stack->keyCount, "stack->keyIndex <= stack->keyCount");
        if (stack->keyIndex < stack->keyCount) {
            Node<K> n = NodeAt<K>(e->tree, stack->block, e->genID, 1);
            UInt i = stack->keyIndex++;
            *key = n.Key(i);
            *value = n.Value(i);
            if (!stack->isLeaf) Descend<K>(e, n.Son(i + 1));
            return 1;
        }
        e->stack.length--;
    }
    e->finished = 1;
    return 0;
}

template <typename K>
int Next(BTreeEnumeration *e, K *key, ULong *value) {
    if (e->finished) return 0;
    if (!e->started) {
        e->started = 1;
        UInt root = RootBlock(e->tree, e->genID);
        if (root == BTREE_INVALID_BLOCK_ID) {
            e->finished = 1;
            return 0;
        }
        Descend<K>(e, root);
    }
    return NextStep<K>(e, key, value);
}

template <typename K>
int Enumerate(BTree *tree, BTreeCB callback, void *arg, Int genID) {
    BTreeEnumeration e = {};
    e.tree = tree;
    e.genID = genID;
    K key;
    ULong value;
    int result = 0;
    while (result == 0 && Next<K>(&e, &key, &value)) result = callback(key, value, arg);
    ArrayFree(e.stack);
    return result;
}

template <typename K>
int BlockEnumerate(BTree *tree, BTreeBlockCB callback, void *arg, Int genID) {
    UIntArray todo = {};
    UInt root = RootBlock(tree, genID);
    if (root != BTREE_INVALID_BLOCK_ID) ArrayAdd(todo, root);
    int result = 0;
    while (result == 0 && todo.length > 0) {
        UInt block = todo.data[--todo.length];
        Node<K> n = NodeAt<K>(tree, block, genID, 1);
        result = callback(block, n.Leaf(), arg);
        if (!n.Leaf())
            for (UInt i = n.Count() + 1; i-- > 0;) ArrayAdd(todo, n.Son(i));
    }
    ArrayFree(todo);
    return result;
}

#define BT_INSTANTIATE(K)                                       \
    template int NextStep<K>(BTreeEnumeration *, K *, ULong *); \
    template int Next<K>(BTreeEnumeration *, K *, ULong *);     \
    template int Enumerate<K>(BTree *, BTreeCB, void *, Int);   \
    template int BlockEnumerate<K>(BTree *, BTreeBlockCB, void *, Int);
BT_INSTANTIATE(UInt)
BT_INSTANTIATE(ULong)

}  // namespace qk::btree

using namespace qk::btree;

extern "C" {

QK_API int UIntBTreeEnumerate(BTree *tree, BTreeCB callback, void *arg, Int genID) {
    return Enumerate<UInt>(tree, callback, arg, genID);
}

QK_API int ULongBTreeEnumerate(BTree *tree, BTreeCB callback, void *arg, Int genID) {
    return Enumerate<ULong>(tree, callback, arg, genID);
}

QK_API int UIntBTreeBlockEnumerate(BTree *tree, BTreeBlockCB callback, void *arg, Int genID) {
    return BlockEnumerate<UInt>(tree, callback, arg, genID);
}

QK_API int ULongBTreeBlockEnumerate(BTree *tree, BTreeBlockCB callback, void *arg, Int genID) {
    return BlockEnumerate<ULong>(tree, callback, arg, genID);
}

QK_API int UIntBTreeNext(BTreeEnumeration *e, UInt *key, ULong *value) {
    return Next<UInt>(e, key, value);
}

QK_API int UIntBTreeNext_(BTreeEnumeration *e, UInt *key, ULong *value) {
    return NextStep<UInt>(e, key, value);
}

QK_API int ULongBTreeNext(BTreeEnumeration *e, ULong *key, ULong *value) {
    return Next<ULong>(e, key, value);
}

QK_API int ULongBTreeNext_(BTreeEnumeration *e, ULong *key, ULong *value) {
    return NextStep<ULong>(e, key, value);
}

}  // extern "C"
