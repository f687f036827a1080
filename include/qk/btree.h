/*
 * B-trees: ordered persistent maps from a 32-bit (UIntBTree) or 64-bit
 * (ULongBTree) key to a value of 0 to 8 bytes, in an arena. BTree* is the
 * facade over both families: keys and values are 64-bit there, a UIntBTree
 * using a key's low word.
 *
 * A tree at path `name` has two arena arrays of 32-bit elements:
 *   name/root     one element, the logical block of the root; empty until
 *                 the first insertion
 *   name/params   element 0 reserved (0), element 1 valueSize; the stored
 *                 valueSize wins over the caller's at an open
 *
 * A node is one whole logical block of 8192 bytes (one copy-on-write unit):
 *   0              maxKeyCount * keySize     keys, ascending, little-endian
 *   valueOffset    maxKeyCount * valueSize   values, most significant byte
 *                                            first
 *   sonOffset      (keyCount + 1) * 4        internal nodes: the sons'
 *                                            logical blocks
 *   8189           1                         flags: bit 0 set in a leaf
 *   8190           2                         keyCount, little-endian
 * with valueOffset = maxKeyCount * keySize and sonOffset = valueOffset +
 * maxKeyCount * valueSize. Of the 8189 bytes before the flags, one son is
 * kept aside, so maxKeyCount is 8185 / (keySize + valueSize) in a leaf and
 * 8185 / (keySize + valueSize + 4) in an internal node. Son i of an internal
 * node holds the keys between key i - 1 and key i.
 *
 * A full node first shares with a sibling that has room, and is split only
 * when neither has; a node that falls under half full after a removal takes
 * from a sibling or merges with it.
 *
 * One writer at a time in NEWGEN (the tree object holds its working
 * arrays); readers of OLDGEN in parallel under the arena's old-generation
 * lock. Impossible node contents are corruption: the arena is tagged and the
 * process ends on the assertion.
 */
#ifndef QK_BTREE_H
#define QK_BTREE_H

#include "qk/varray.h"

QK_BEGIN_DECLS

/* No logical block: a leaf's missing son. */
#define BTREE_INVALID_BLOCK_ID 0xFFFFFFFFu
/* A missing neighbour's key and value (all ones). */
#define BTREE_NO_KEY (~(ULong)0)
#define BTREE_MAX_VALUE_SIZE 8

typedef struct BTree BTree;
typedef struct BTreeEnumeration BTreeEnumeration;

/* Called for each key in ascending order; a result other than 0 stops the
 * walk and is returned. */
typedef int (*BTreeCB)(ULong key, ULong value, void *arg);
/* Called once for each node. */
typedef int (*BTreeBlockCB)(UInt block, int isLeaf, void *arg);

/* Opens (with *create, makes) the tree named by `path`'s content followed
 * by `name`; `path` is a buffer of VMARENA_PATH_SIZE bytes and keeps its
 * content. *create tells whether anything was made. `keySize` is 4 or 8,
 * `valueSize` 0 to 8. None when the tree is missing and not made. */
QK_API BTree *BTreeNew_(VMArena *arena, char *path, const char *name, int linear, int *create,
                        int newGenOnly, UInt keySize, UInt valueSize);
QK_API BTree *BTreeNew(VMArena *arena, char *path, const char *name, int *create, int newGenOnly,
                       UInt keySize, UInt valueSize);
/* Frees the object; the arrays stay. */
QK_API void BTreeFree(BTree *tree);
/* After the arena's commit: the arrays exist in OLDGEN under their NEWGEN
 * IDs. */
QK_API void BTreeCommit(BTree *tree);
/* Frees every node (NEWGEN); the tree is empty. */
QK_API void BTreeClear(BTree *tree, Int genID);
/* The logical block of the root; BTREE_INVALID_BLOCK_ID before the first
 * insertion. */
QK_API UInt BTreeRoot(BTree *tree, Int genID);
QK_API UInt BTreeKeySize(BTree *tree);
QK_API UInt BTreeValueSize(BTree *tree);

/* Looks `key` up and gives its value, or `def` when it is absent.
 *   create   an absent key is inserted with `value` (the result is `def`);
 *            a present one stays unless `update`
 *   update   a present key takes `value` (the old value is returned)
 *   remove   a present key goes (its value is returned)
 * create and remove exclude each other; both, like update, need NEWGEN. */
QK_API ULong BTreeFind(BTree *tree, ULong key, ULong value, ULong def, int create, int update,
                       int remove, Int genID);
/* The nearest key below, above `key` and (in *value, may be null) its
 * value; BTREE_NO_KEY when there is none. */
QK_API ULong BTreePrevKey(BTree *tree, ULong key, ULong *value, Int genID);
QK_API ULong BTreeNextKey(BTree *tree, ULong key, ULong *value, Int genID);
/* The full forms: BTreeFind that also gives the nearest keys below and
 * above `key` with their values. Each out argument may be null; all are
 * set to all ones first. */
QK_API ULong UIntBTreeFind(BTree *tree, UInt key, ULong value, ULong def, UInt *prevKey,
                           ULong *prevValue, UInt *nextKey, ULong *nextValue, int create,
                           int update, int remove, Int genID);
QK_API ULong ULongBTreeFind(BTree *tree, ULong key, ULong value, ULong def, ULong *prevKey,
                            ULong *prevValue, ULong *nextKey, ULong *nextValue, int create,
                            int update, int remove, Int genID);

/* Walks every key in order, every node once; `keySize` must be the
 * tree's. The first result of the callback other than 0, else 0. */
QK_API int BTreeEnumerate(BTree *tree, UInt keySize, BTreeCB callback, void *arg, Int genID);
QK_API int BTreeBlockEnumerate(BTree *tree, UInt keySize, BTreeBlockCB callback, void *arg,
                               Int genID);
/* Iteration without a callback; Next gives 0 at the end. The tree must not
 * change in that generation while an enumeration runs. */
QK_API BTreeEnumeration *BTreeEnumerationNew(BTree *tree, UInt keySize, Int genID);
QK_API int BTreeEnumerationNext(BTreeEnumeration *e, ULong *key, ULong *value);
QK_API void BTreeEnumerationFree(BTreeEnumeration *e);

/* ---- The families' inner steps, which the facade reaches through its
 * tables ---- */

/* Inserts the entry along the path of the last descent (NEWGEN). */
QK_API void UIntBTreeInsert(BTree *tree, UInt key, ULong value);
QK_API void ULongBTreeInsert(BTree *tree, ULong key, ULong value);
/* Splits the full node `block`, inserting the pending entry (*key, *value,
 * right son *son) at `index`; the pending entry becomes the key that moves
 * up with the new right block as its son. */
QK_API void UIntBTreeSplitInsert(BTree *tree, UInt block, UInt index, UInt *key, ULong *value,
                                 UInt *son);
QK_API void ULongBTreeSplitInsert(BTree *tree, UInt block, UInt index, ULong *key, ULong *value,
                                  UInt *son);
/* Makes an empty leaf the root; its block. */
QK_API UInt UIntBTreeAddRoot(BTree *tree);
QK_API UInt ULongBTreeAddRoot(BTree *tree);
QK_API int UIntBTreeEnumerate(BTree *tree, BTreeCB callback, void *arg, Int genID);
QK_API int ULongBTreeEnumerate(BTree *tree, BTreeCB callback, void *arg, Int genID);
QK_API int UIntBTreeBlockEnumerate(BTree *tree, BTreeBlockCB callback, void *arg, Int genID);
QK_API int ULongBTreeBlockEnumerate(BTree *tree, BTreeBlockCB callback, void *arg, Int genID);
/* The next entry of an enumeration; Next_ steps its stack, Next first
 * answers 0 for an empty tree or a finished enumeration. */
QK_API int UIntBTreeNext(BTreeEnumeration *e, UInt *key, ULong *value);
QK_API int UIntBTreeNext_(BTreeEnumeration *e, UInt *key, ULong *value);
QK_API int ULongBTreeNext(BTreeEnumeration *e, ULong *key, ULong *value);
QK_API int ULongBTreeNext_(BTreeEnumeration *e, ULong *key, ULong *value);

QK_END_DECLS

#endif /* QK_BTREE_H */
