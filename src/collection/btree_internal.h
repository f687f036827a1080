// The B-tree's structures and the helpers of its files: the node codec and
// the search in a node, shared by both key widths through one template.
#pragma once

#include <string.h>

#include "collection/corrupt.h"
#include "frame/endian.h"
#include "qk/btree.h"
#include "qk/frame.h"

constexpr UInt kNodeFlagsOffset = 8189;
constexpr UInt kNodeCountOffset = 8190;
constexpr UInt kNodeUsable = 8185;  // 8189 less the son kept aside
constexpr UByte kLeafFlag = 1;

// One step of a descent: the node and the place taken in it (the key found,
// or the son followed).
struct BTreeStep {
    UInt block;
    UInt index;
};

struct BTreeOps;

struct BTree {
    const BTreeOps *ops;
    VMArena *arena;
    VMAARRAY(UInt) root;
    VMAARRAY(UInt) params;
    UInt keySize;
    UInt valueSize;
    // Per node kind, indexed by isLeaf.
    UInt maxKeyCount[2];
    UInt valueOffset[2];
    UInt blockOffset[2];  // the sons
    QK_ARRAY(BTreeStep) path;
    // Working copies of the entries of a split, share or merge.
    ULongArray keys;
    ULongArray values;
    UIntArray sons;
};

// The facade's table: one per key width.
struct BTreeOps {
    ULong (*find)(BTree *tree, ULong key, ULong value, ULong def, ULong *prevKey, ULong *prevValue,
                  ULong *nextKey, ULong *nextValue, int create, int update, int remove, Int genID);
    int (*enumerate)(BTree *tree, BTreeCB callback, void *arg, Int genID);
    int (*blockEnumerate)(BTree *tree, BTreeBlockCB callback, void *arg, Int genID);
    int (*next)(BTreeEnumeration *e, ULong *key, ULong *value);
};

// A frame of an enumeration's stack.
struct BTreeFrame {
    UInt block;
    UInt keyIndex;
    UInt keyCount;
    int isLeaf;
};

struct BTreeEnumeration {
    BTree *tree;
    Int genID;
    int started;
    int finished;
    QK_ARRAY(BTreeFrame) stack;
};

namespace qk::btree {

#define BT_CHECK(tree, expression, text) COLL_CHECK((tree)->arena, expression, text)

// A node's bytes seen through its tree's offsets for its kind.
template <typename K>
struct Node {
    UByte *b;
    const BTree *t;

    bool Leaf() const { return (b[kNodeFlagsOffset] & kLeafFlag) != 0; }
    UInt Count() const { return LoadLE16(b + kNodeCountOffset); }
    UInt Max() const { return t->maxKeyCount[Leaf()]; }
    void SetCount(UInt n) { StoreLE(b + kNodeCountOffset, n, 2); }
    K Key(UInt i) const {
        const UByte *p = b + (size_t)i * sizeof(K);
        return sizeof(K) == 4 ? (K)LoadLE32(p) : (K)LoadLE64(p);
    }
    void SetKey(UInt i, K k) { StoreLE(b + (size_t)i * sizeof(K), k, sizeof(K)); }
    UByte *ValueAt(UInt i) const { return b + t->valueOffset[Leaf()] + (size_t)i * t->valueSize; }
    ULong Value(UInt i) const {
        const UByte *p = ValueAt(i);
        ULong v = 0;
        for (UInt j = 0; j < t->valueSize; j++) v = v << 8 | p[j];
        return v;
    }
    void SetValue(UInt i, ULong v) {
        UByte *p = ValueAt(i);
        for (UInt j = t->valueSize; j-- > 0; v >>= 8) p[j] = (UByte)v;
    }
    UByte *SonAt(UInt i) const { return b + t->blockOffset[0] + (size_t)i * 4; }
    UInt Son(UInt i) const { return LoadLE32(SonAt(i)); }
    void SetSon(UInt i, UInt s) { StoreLE(SonAt(i), s, 4); }
    // Inserts the entry at `i`, the tails moving up; in an internal node
    // `son` becomes the son right of it.
    void InsertAt(UInt i, K k, ULong v, UInt son) {
        UInt c = Count();
        memmove(b + (size_t)(i + 1) * sizeof(K), b + (size_t)i * sizeof(K), (c - i) * sizeof(K));
        memmove(ValueAt(i + 1), ValueAt(i), (size_t)(c - i) * t->valueSize);
        if (!Leaf()) {
            memmove(SonAt(i + 2), SonAt(i + 1), (size_t)(c - i) * 4);
            SetSon(i + 1, son);
        }
        SetKey(i, k);
        SetValue(i, v);
        SetCount(c + 1);
    }
    // Deletes entry `i` and, in an internal node, the son right of it.
    void DeleteAt(UInt i) {
        UInt c = Count();
        memmove(b + (size_t)i * sizeof(K), b + (size_t)(i + 1) * sizeof(K),
                (c - i - 1) * sizeof(K));
        memmove(ValueAt(i), ValueAt(i + 1), (size_t)(c - i - 1) * t->valueSize);
        if (!Leaf()) memmove(SonAt(i + 1), SonAt(i + 2), (size_t)(c - i - 1) * 4);
        SetCount(c - 1);
    }
    // The first place whose key is not below `key`: the key itself when
    // *hit, else the son that holds the keys around it.
    UInt Search(K key, bool *hit) const {
        UInt lo = 0, hi = Count();
        while (lo < hi) {
            UInt mid = (lo + hi) / 2;
            if (Key(mid) < key)
                lo = mid + 1;
            else
                hi = mid;
        }
        *hit = lo < Count() && Key(lo) == key;
        return lo;
    }
};

// The node at `block` in the generation, checked; `read` 0 announces a
// write (NEWGEN), which copies an old generation's block once.
template <typename K>
Node<K> NodeAt(BTree *tree, UInt block, Int genID, int read) {
    auto *b = (UByte *)VMArenaDataBlockAcquire(tree->arena, block, genID, read);
    BT_CHECK(tree, b != nullptr, "node != NULL");
    Node<K> n{b, tree};
    BT_CHECK(tree, n.Count() <= n.Max(), "keyCount <= maxKeyCount");
    return n;
}

// A new node of the kind, zeroed but for its flags.
template <typename K>
Node<K> NodeNew(BTree *tree, bool leaf, UInt *block);

// The root's block, or BTREE_INVALID_BLOCK_ID for a tree without one.
UInt RootBlock(BTree *tree, Int genID);
void RootSet(BTree *tree, UInt block);
// Makes an empty leaf the root; its block.
template <typename K>
UInt AddRoot(BTree *tree);

// Entries [from, to) of `n` appended to the working arrays; with sons, the
// sons [from, to] too.
template <typename K>
void Gather(BTree *tree, const Node<K> &n, UInt from, UInt to, bool sons);
// Writes working entries [from, from + count) (and sons [from, from +
// count]) into `n` as its whole content.
template <typename K>
void Scatter(BTree *tree, Node<K> &n, UInt from, UInt count);
void ScratchClear(BTree *tree);
// Inserts an entry at `index` of the working arrays, with `son` right of it
// when they hold sons.
void ScratchInsert(BTree *tree, UInt index, ULong key, ULong value, UInt son);

template <typename K>
ULong Find(BTree *tree, ULong key, ULong value, ULong def, ULong *prevKey, ULong *prevValue,
           ULong *nextKey, ULong *nextValue, int create, int update, int remove, Int genID);
template <typename K>
void Insert(BTree *tree, K key, ULong value);
template <typename K>
void SplitInsert(BTree *tree, UInt block, UInt index, K *key, ULong *value, UInt *son);
// Shares with a sibling the node at `level` of the path (an insertion of
// the pending entry when `create`, else the tail of a removal), or merges
// it with one after a removal. *merged tells which; false when no sibling
// qualifies.
template <typename K>
bool ShareOrMerge(BTree *tree, UInt level, bool create, K key, ULong value, UInt son, bool *merged);
// Removes the entry found at the end of the path.
template <typename K>
void Remove(BTree *tree);
template <typename K>
int Next(BTreeEnumeration *e, K *key, ULong *value);
template <typename K>
int NextStep(BTreeEnumeration *e, K *key, ULong *value);
template <typename K>
int Enumerate(BTree *tree, BTreeCB callback, void *arg, Int genID);
template <typename K>
int BlockEnumerate(BTree *tree, BTreeBlockCB callback, void *arg, Int genID);

extern const BTreeOps kUIntOps;
extern const BTreeOps kULongOps;

}  // namespace qk::btree
