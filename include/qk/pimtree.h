/*
 * PIMTree: the head of a persistent trie, laid flat in two arena arrays
 * under the caller's path plus "<name>/pimtree/":
 *   trans        16-byte transitions, node after node: data (8 bytes),
 *                atom (4), to (4), each little-endian; a node's
 *                transitions ascend by atom
 *   transIndex   4 bytes per node: node n's transitions are
 *                trans[transIndex[n]] up to trans[transIndex[n + 1]]
 * A new tree has transIndex 0, 0: node 0, the root, without transitions.
 * A transition's `to` with bit 31 clear names a head node; with bit 31 set,
 * a leaf of the tree above in its low 31 bits (0x7FFFFFFF: not yet given).
 *
 * One writer at a time, in NEWGEN; readers of OLDGEN in parallel, each with
 * its own thread data. Inconsistent arrays are corruption: the arena is
 * tagged and the process ends on the assertion.
 */
#ifndef QK_PIMTREE_H
#define QK_PIMTREE_H

#include "qk/varray.h"

QK_BEGIN_DECLS

#define PIMTREE_LEAF_BIT 0x80000000u
#define PIMTREE_NO_NODE 0x7FFFFFFFu
/* Node data 0 carries no value, in the head as in the compact leaves. */
#define EMPTY_NODE_DATA 0

typedef struct PIMTree PIMTree;
typedef struct PIMTreeThreadData PIMTreeThreadData;

/* A transition, decoded. */
typedef struct PIMTreeTransition {
    ULong data;
    UInt atom;
    UInt to;
} PIMTreeTransition;

/* Where a find stopped: the node of the last transition taken, the atoms
 * consumed, that transition's data, index and `to`, whether `to` is a head
 * node (`internal`), and whether the transition exists (`found`). */
typedef struct PIMTreeResult {
    UInt node;
    UInt matched;
    ULong data;
    int internal;
    UInt to;
    int found;
    UInt transition;
} PIMTreeResult;

/* Opens (with *create, makes) the tree named `path`'s content + `name`;
 * *create tells whether anything was made. None on failure. */
QK_API PIMTree *PIMTreeNew_(VMArena *arena, char *path, const char *name, int linear, int *create,
                            int newGenOnly);
QK_API PIMTree *PIMTreeNew(VMArena *arena, char *path, const char *name, int *create,
                           int newGenOnly);
QK_API void PIMTreeFree(PIMTree *tree);
/* After the arena's commit: the arrays exist in OLDGEN under their NEWGEN
 * IDs. */
QK_API void PIMTreeCommit(PIMTree *tree);
QK_API void PIMTreeClear(PIMTree *tree, Int genID);
QK_API int PIMTreeEmpty(PIMTree *tree, Int genID);

QK_API PIMTreeThreadData *PIMTreeThreadDataNew(void);
QK_API void PIMTreeThreadDataFree(PIMTreeThreadData *data);
QK_API void PIMTreeThreadDataReInit(PIMTreeThreadData *data);

/* Follows `key` (`keyLength` atoms, at least one) from the root until the
 * key ends, an atom is missing or a transition goes to a leaf.
 *   create   a missing atom gets a transition to `newLeaf` | bit 31, with
 *            `data` if it is the key's last atom, else 0; the key's last
 *            transition with empty data takes `data`
 *   force    the key's last transition takes `data` (with create only)
 *   remove   the key's last transition goes (or, leading to a node with
 *            sons, loses its data), and then every transition on the way
 *            back up whose node has no sons and no data
 * create and remove need NEWGEN and exclude each other. *changed (may be
 * null) tells whether the key's data went from empty to not empty or back.
 * `path` (may be null) gets the data of each transition taken. */
QK_API PIMTreeResult PIMTreeFind(PIMTree *tree, PIMTreeThreadData *threadData, const UInt *key,
                                 UInt keyLength, ULong data, UInt newLeaf, int create, int remove,
                                 int force, int *changed, ULongArray *path, Int genID);
QK_API UInt PIMTreeSonCount(PIMTree *tree, UInt node, Int genID);
QK_API UInt PIMTreeNodeCount(PIMTree *tree, Int genID);
/* The first transition of `node` and the end of its run. */
QK_API UInt PIMTreeNodeFirst(PIMTree *tree, UInt node, UInt *end, Int genID);
QK_API PIMTreeTransition PIMTreeTransGet(PIMTree *tree, UInt transition, Int genID);
/* A new node at the end, without transitions; *firstTrans gets where its
 * transitions will start. */
QK_API UInt PIMTreeNodeNew(PIMTree *tree, UInt *firstTrans, Int genID);
QK_API void PIMTreeNodeSetInternalTo(PIMTree *tree, UInt transition, UInt node, Int genID);
/* Inserts `count` transitions, in atom order, at index `position` of
 * `trans`, which lies in `node`'s run. */
QK_API void PIMTreeNodeInsertSon(PIMTree *tree, PIMTreeThreadData *threadData, UInt node,
                                 UInt position, const PIMTreeTransition *transitions, UInt count,
                                 Int genID);

QK_END_DECLS

#endif /* QK_PIMTREE_H */
