/*
 * PICTree: a whole trie serialised in one byte buffer, the compact leaf of
 * a persistent trie. The caller owns the buffer; a change never touches it
 * but writes a new buffer into the thread data.
 *
 * A number is the library's variable-length form: 7-bit groups, lowest
 * first, each byte holding its group in bits 1 to 7 and in bit 0 whether
 * another byte follows (0..127 take one byte, 128 two, 2^56 nine, 2^63
 * ten). A buffer is a run of sibling entries in strictly ascending atom
 * order, with no header; an entry is
 *   atom    number, up to 32 bits
 *   size    number, up to 32 bits: the bytes of data and sons together
 *   data    number, up to 64 bits; EMPTY_NODE_DATA (0) carries no value
 *   sons    a nested run of the same form, up to the entry's end
 * An empty buffer holds nothing. For example keys {1} -> 5 and {1, 2} -> 0
 * are the six bytes 02 08 0A 04 02 00: atom 1, size 4, data 5, then the
 * son: atom 2, size 1, data 0.
 *
 * A buffer whose numbers are cut short, whose sizes pass their parent's end
 * or whose atoms do not ascend is corrupt: the arena (if any) is tagged and
 * the process ends on the assertion. Only the entries on a key's way are
 * read, and never a byte outside the buffer.
 */
#ifndef QK_PICTREE_H
#define QK_PICTREE_H

#include "qk/pimtree.h"

QK_BEGIN_DECLS

/* A leaf buffer of the tree above stays below this length. */
#define PICTREE_LENGTH_LIMIT 4090

typedef struct PICTreeThreadData PICTreeThreadData;

/* A top-level entry of a buffer: its sons are `sonsLength` bytes at `sons`,
 * inside the buffer it was read from. */
typedef struct PICTreeSon {
    UInt atom;
    ULong data;
    const UByte *sons;
    UInt sonsLength;
} PICTreeSon;

typedef QK_ARRAY(PICTreeSon) PICTreeSonArray;

QK_API PICTreeThreadData *PICTreeThreadDataNew(void);
QK_API void PICTreeThreadDataFree(PICTreeThreadData *data);
QK_API void PICTreeThreadDataReInit(PICTreeThreadData *data);

/* Follows `key` (`keyLength` atoms, at least one) through `length` bytes at
 * `buffer` and returns the key's data: the data found, 0 when absent; with
 * create, the data the key has afterwards; with remove, the data it had.
 *   create   a missing key is made as a chain of entries, only the last one
 *            holding `data`; an existing key with empty data takes `data`
 *   force    the key's data becomes `data` (with create only)
 *   remove   the key's data is emptied; a key without sons goes, and with
 *            it each ancestor left without sons and without data
 * create and remove need NEWGEN and exclude each other. When the buffer
 * changes, *rewrite is 1 and *newData, *newDataLength give the new buffer,
 * which lives in the thread data until the next call that rewrites (it may
 * be that call's own buffer); a removal may leave length 0.
 * Otherwise *rewrite is 0. *found (may be null) tells whether the key's
 * node was there before the call, *changed (may be null) whether its data
 * went from empty to not empty or back. `path` (may be null) gets the data
 * of each node on the way, the key's own included.
 * With offsetPtr and endPtr and neither create, remove nor force, a key
 * that is found has the byte offsets of its sons' run stored there. */
QK_API ULong PICTreeFind(VMArena *arena, const UByte *buffer, UInt length,
                         PICTreeThreadData *threadData, int *rewrite, UByte **newData,
                         UInt *newDataLength, const UInt *key, UInt keyLength, ULong data,
                         UInt *offsetPtr, UInt *endPtr, int create, int remove, int force,
                         int *found, int *changed, ULongArray *path, Int genID);

/* Replaces `out`'s content with the buffer's top-level entries, in order;
 * their sons point into the buffer. */
QK_API void PICTreeExplodes(VMArena *arena, const UByte *buffer, UInt length, PICTreeSonArray *out);

QK_END_DECLS

#endif /* QK_PICTREE_H */
