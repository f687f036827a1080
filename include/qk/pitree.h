/*
 * PITree: a persistent trie in an arena. A key is a sequence of 32-bit
 * atoms; every prefix of a key is a node and may carry 64-bit data of its
 * own (EMPTY_NODE_DATA, 0, carries nothing).
 *
 * The upper part of the tree, the head, is a PIMTree (flat arrays of
 * transitions); below it, leaves are PICTree buffers of under 4090 bytes,
 * kept as the elements of a database array. A transition whose `to` has
 * bit 31 set leads into leaf `to & 0x7FFFFFFF`. A leaf that outgrows its
 * limit explodes: its top-level entries become a new head node, and each
 * entry's sons a new leaf (or, when still too large, the next head node).
 *
 * Arrays of a tree at `name` (the path buffer's content, then the name):
 *   <name>/pitree/head/pimtree/trans, .../transIndex   the head
 *   <name>/pitree/leaf/dbarray/...     leaves, 64 buckets, no compaction
 *   <name>/pitree/free                 32-bit: stack of free leaf IDs
 *   <name>/pitree/params               32-bit: [0] the number of keys
 *                                      with data (not for a `linear` tree)
 * A leaf ID is bucket + handle * bucketCount.
 *
 * One writer per tree in NEWGEN; readers of OLDGEN in parallel (under the
 * arena's old-generation lock), each with its own thread data. The tree
 * object's array IDs follow the arena's commits through PITreeCommit.
 * Inconsistent structures are corruption: the arena is tagged and the
 * process ends on the assertion.
 */
#ifndef QK_PITREE_H
#define QK_PITREE_H

#include "qk/dbarray.h"
#include "qk/pictree.h"

QK_BEGIN_DECLS

typedef struct PITree PITree;
typedef struct PITreeThreadData PITreeThreadData;
typedef struct PITreeEnumeration PITreeEnumeration;

/* Where a walker stands, among a run of sibling nodes:
 *   id      high word 0 in the head, with the index of the next transition
 *           in the low word; high word leaf + 1 in a leaf, with the byte
 *           offset of the next entry
 *   base    where to read: the next transition, or the leaf's buffer;
 *           never none
 *   end     the end of the run: a transition index or a byte offset
 *   count   in the head, the transitions readable at `base` without
 *           another lookup; in a leaf, the buffer's length */
typedef struct PITreeState {
    ULong id;
    const void *base;
    UInt end;
    UInt count;
} PITreeState;

QK_API PITree *PITreeNew_(VMArena *arena, char *path, const char *name, int linear, int *create,
                          int newGenOnly);
QK_API PITree *PITreeNew(VMArena *arena, char *path, const char *name, int *create, int newGenOnly);
QK_API void PITreeFree(PITree *tree);
/* After the arena's commit. */
QK_API void PITreeCommit(PITree *tree);
QK_API void PITreeClear(PITree *tree, Int genID);
QK_API int PITreeEmpty(PITree *tree, Int genID);
/* The number of keys with data; 0 for a `linear` tree. */
QK_API UInt PITreeGetSize(PITree *tree, Int genID);

QK_API PITreeThreadData *PITreeThreadDataNew(void);
QK_API void PITreeThreadDataFree(PITreeThreadData *data);
QK_API void PITreeThreadDataReInit(PITreeThreadData *data);

/* The key's data, 0 when absent.
 *   create   (NEWGEN) the key is made if missing, with `data`; an existing
 *            key with empty data takes `data`; the result is the key's data
 *   force    (with create) the key's data becomes `data`
 *   remove   (NEWGEN) the key's data is emptied; nodes left without data
 *            and sons go; the result is the data it had
 * `keyLength` is at least 1. */
QK_API ULong PITreeFind(PITree *tree, PITreeThreadData *threadData, const UInt *key, UInt keyLength,
                        ULong data, Int genID, int create, int remove, int force);
/* The same, appending to `path` the data of every node on the way down,
 * the key's own last. */
QK_API ULong PITreeFindAll(PITree *tree, PITreeThreadData *threadData, const UInt *key,
                           UInt keyLength, ULong data, Int genID, int create, int remove, int force,
                           ULongArray *path);
/* Writes a leaf's bytes (NEWGEN). */
QK_API int PITreeFillLeaf(PITree *tree, UInt leaf, const UByte *buffer, UInt length, Int genID);
/* Starts reading the leaf in which `key` would lie. */
QK_API void PITreePrefetch(PITree *tree, PITreeThreadData *threadData, const UInt *key,
                           UInt keyLength, Int genID);

/* ---- Enumeration: depth first, atoms ascending, each node after its sons
 * and the prefix's node last (for a, ab, ac: ab, ac, a) ---- */

QK_API PITreeEnumeration *PITreeEnumerationNew(void);
QK_API void PITreeEnumerationFree(PITreeEnumeration *enumeration);
/* Positions on `prefix`; `depth` -1 for no limit, else the nodes at most
 * `depth` atoms below the prefix. A prefix that does not exist finishes the
 * enumeration at once. */
QK_API void PITreeEnumerationInit(PITree *tree, PITreeEnumeration *enumeration, const UInt *prefix,
                                  UInt prefixLength, Int depth, Int genID, int includePrefix,
                                  int includeEmpty);
/* 1 and the next node's key (owned by the enumeration, good until the next
 * call), length and data; 0 at the end. Each output may be null. */
QK_API int PITreeEnumerationGetNext(PITreeEnumeration *enumeration, const UInt **key,
                                    UInt *keyLength, ULong *data);
typedef int (*PITreeEnumerateFun)(const UInt *key, UInt keyLength, UInt dataLow, UInt dataHigh,
                                  void *argument);
/* Calls `callback` for each node until it returns non-zero: that value is
 * the result, else 0. */
QK_API int PITreeEnumerate(PITree *tree, PITreeThreadData *threadData, const UInt *prefix,
                           UInt prefixLength, Int depth, PITreeEnumerateFun callback,
                           void *argument, Int genID, int includePrefix, int includeEmpty);

/* ---- Walking state by state, for the automata that run over a tree.
 * Leaves read along the way go on `acquired` (addresses), to be given back
 * with PITreeStateRelease. ---- */

/* The sons of head node `node`. */
QK_API PITreeState PITreeStateOfNode(PITree *tree, UInt node, Int genID, PtrArray *acquired);
/* The run of entries [offset, end) of leaf `leaf`, whose buffer (`length`
 * bytes) is at `buffer`. */
QK_API PITreeState PITreeStateOfLeaf(UInt leaf, const UByte *buffer, UInt length, UInt offset,
                                     UInt end);
QK_API int PITreeStateAtEnd(const PITreeState *state);
/* Reads the node at `state`: its atom and data, the state of its sons and
 * that of its next sibling. */
QK_API void PITreeStateNext(PITree *tree, const PITreeState *state, UInt *atom, ULong *data,
                            PITreeState *son, PITreeState *sibling, Int genID, PtrArray *acquired);
/* Gives back the leaves on `acquired` and empties it. */
QK_API void PITreeStateRelease(PITree *tree, Int genID, PtrArray *acquired);

QK_END_DECLS

#endif /* QK_PITREE_H */
