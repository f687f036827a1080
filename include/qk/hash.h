/*
 * Hash tables and perfect-hash dictionaries.
 *
 * HashTable keeps variable-length entries packed in one data area, in order
 * of insertion, and a slot array of 32-bit offsets into it (all ones: an
 * empty slot), probed linearly. An entry is the caller's part of
 * `keyOffset` bytes, the key's length, then the key's bytes. Entries cannot
 * be removed, and do not move while the table lives: an entry's offset in the
 * data area stays valid, its address until the next insertion or growth.
 *
 * HashDelTable adds removal: probing by double hashing, removed slots hold
 * -2, and a removed entry's bytes stay in the data area until growth drops
 * them (growth moves the remaining entries).
 *
 * Neither table grows by itself: before an insertion the caller asks
 * ...Full and grows the table when it says so; inserting into a full table
 * is an assertion. No table has a lock.
 *
 * HashDict is a read-only minimal perfect hash, built once from a key set and
 * kept as an image that is the same on every machine (all fields
 * little-endian with fixed widths): a 48-byte header, the byte map, the
 * random table, the values and the probes. In a file, or in the memory form,
 * an 8-byte length stands in front of the image. A lookup reads the key once
 * and three values; no key is stored, so a key outside the set is found only
 * when the dictionary has probe bytes.
 */
#ifndef QK_HASH_H
#define QK_HASH_H

#include "qk/array.h"
#include "qk/channel.h"
#include "qk/types.h"

QK_BEGIN_DECLS

/* hash = hash * 257 + byte, from the last byte to the first, from 0. */
QK_API UInt HashBytes(const void *bytes, UInt size);

/* ---- HashTable ---- */

/* A table's hash function: `userData` is the table's, `hashArg` the one
 * given to the call that hashes. */
typedef UInt (*HashTableHashFn)(const void *key, UInt size, void *userData, void *hashArg);
/* 0 when the stored key equals the key looked up. */
typedef int (*HashTableCompareFn)(const void *storedKey, UInt storedSize, const void *key,
                                  UInt size, void *userData, void *hashArg);
/* Enumeration: a non-zero result stops the walk and is returned. */
typedef int (*HashTableCallback)(void *entry, void *userData);
/* Selection: non-zero picks the entry. */
typedef int (*HashTablePredicate)(const void *entry, void *userData);
/* Sorting of a selection: negative, 0 or positive. `userData` is the
 * table's. */
typedef int (*HashTableSortFn)(const void *entryA, const void *entryB, void *userData);

#define HASH_SLOT_EMPTY 0xFFFFFFFFu
#define HASH_SLOT_DELETED 0xFFFFFFFEu

typedef struct HashTable {
    HashTableHashFn t_hash; /* none: HashBytes */
    void *t_userData;
    HashTableCompareFn t_compare; /* none: same length and bytes */
    UByte *t_data;                /* the entries, packed in order of insertion */
    UInt *t_slots;                /* offsets into t_data, or HASH_SLOT_EMPTY */
    UInt t_data_used;
    UInt t_data_size;
    UInt t_capacity; /* entries allowed before growth */
    UInt t_count;
    UInt t_nslots;
    UInt t_keyOffset;      /* size of the caller's part of an entry */
    UByte t_selected;      /* the selection below replaces the order of the table */
    UByte t_lengthWidth;   /* 0: variable-length number; 1: one byte; 2-4: little-endian */
    UByte t_mapped;        /* memory from MemoryMap_, not the heap */
    UByte t_allocated;     /* the object itself was made by ...New */
    ULong t_slotMagic;     /* 2^64 / t_nslots rounded up: reduction without division */
    UIntArray t_selection; /* offsets of the selected entries */
} HashTable;

/* `capacity` below 5 is taken as 5; the table starts with Prime(capacity *
 * 3 / 2) slots and 5 bytes of data area per entry of capacity. `hash` and
 * `compare` may be none. `lengthWidth` is 0 to 4. */
QK_API HashTable *HashTableNew(UInt capacity, HashTableHashFn hash, void *userData,
                               HashTableCompareFn compare, UInt keyOffset, UInt lengthWidth,
                               int mapped);
QK_API void HashTableFree(HashTable *table);
QK_API UInt HashTableSize(const HashTable *table);
QK_API UInt HashTableCapacity(const HashTable *table);
QK_API int HashTableFull(const HashTable *table);
/* Capacity times `factor` (at least one more), slots anew, every entry
 * re-inserted; entries do not move. */
QK_API void HashTableGrow(HashTable *table, double factor, void *hashArg);
/* Returns the entry of `key`. When it is absent: with `entry` given, appends
 * a new entry whose caller's part is a copy of `keyOffset` bytes at `entry`
 * (with `keyOffset` 0, any non-null pointer) and returns it; without, returns
 * none. `*found`, when asked, tells whether the key was there before. */
QK_API void *HashTableFind(HashTable *table, const void *key, UInt size, const void *entry,
                           int *found, void *hashArg);
/* The key of an entry and its size. */
QK_API const UByte *HashTableEntryKey(const HashTable *table, const void *entry, UInt *size);
/* Calls back for each entry from data offset `offset` (0: all), in order of
 * insertion. */
QK_API int HashTableEnumerate(HashTable *table, UInt offset, HashTableCallback callback,
                              void *userData);
/* Picks the entries from data offset `offset` that `predicate` accepts (all
 * when it is none), in order of insertion. With `array`, their offsets
 * replace its contents; without, they become the table's selection and the
 * table takes no more entries. Returns the number picked. */
QK_API UInt HashTableSelect(HashTable *table, UInt offset, HashTablePredicate predicate,
                            void *userData, UIntArray *array);
/* Sorts the offsets in `entries`, or the table's selection when none. */
QK_API void HashTableSort(HashTable *table, HashTableSortFn compare, UIntArray *entries);
/* Entry `index` of the table's selection. */
QK_API void *HashTableGetIndex(const HashTable *table, UInt index);
QK_API UInt HashTableGetOffset(const HashTable *table, const void *entry);
QK_API void HashTableClear(HashTable *table);
/* Makes `target` a copy of `source`, functions included. */
QK_API void HashTableCopy(HashTable *target, const HashTable *source);
/* The table in a file: 1, or 0 with the error state set. Reading replaces
 * the contents of `table` and keeps its functions. */
QK_API int HashTableWrite(const HashTable *table, const char *path);
QK_API int HashTableRead(HashTable *table, const char *path);

/* ---- HashDelTable ---- */

typedef struct HashDelTable {
    HashTable t_table;
    UInt t_deleted; /* slots that hold HASH_SLOT_DELETED */
} HashDelTable;

QK_API HashDelTable *HashDelTableNew(UInt capacity, HashTableHashFn hash, void *userData,
                                     HashTableCompareFn compare, UInt keyOffset, UInt lengthWidth,
                                     int mapped);
QK_API void HashDelTableInit(HashDelTable *table, UInt capacity, HashTableHashFn hash,
                             void *userData, HashTableCompareFn compare, UInt keyOffset,
                             UInt lengthWidth, int mapped);
/* Frees the table's memory, and the object when HashDelTableNew made it. */
QK_API void HashDelTableFree(HashDelTable *table);
QK_API UInt HashDelTableSize(const HashDelTable *table);
QK_API UInt HashDelTableCapacity(const HashDelTable *table);
/* Live and removed slots together have reached the capacity. */
QK_API int HashDelTableFull(const HashDelTable *table);
/* As HashTableGrow; the bytes of removed entries are dropped, and the
 * remaining entries move (their order stays). A table with a selection of
 * its own cannot grow. */
QK_API void HashDelTableGrow(HashDelTable *table, double factor, void *hashArg);
QK_API void *HashDelTableFind(HashDelTable *table, const void *key, UInt size, const void *entry,
                              int *found, void *hashArg);
/* 1, or 0 when the key is absent. */
QK_API int HashDelTableRemove(HashDelTable *table, const void *key, UInt size, void *hashArg);
QK_API const UByte *HashDelTableEntryKey(const HashDelTable *table, const void *entry, UInt *size);
QK_API int HashDelTableEnumerate(HashDelTable *table, UInt offset, HashTableCallback callback,
                                 void *userData);
QK_API UInt HashDelTableSelect(HashDelTable *table, UInt offset, HashTablePredicate predicate,
                               void *userData, UIntArray *array);
QK_API void HashDelTableSort(HashDelTable *table, HashTableSortFn compare, UIntArray *entries);
QK_API void *HashDelTableGetIndex(const HashDelTable *table, UInt index);
QK_API UInt HashDelTableGetOffset(const HashDelTable *table, const void *entry);
QK_API void HashDelTableClear(HashDelTable *table);
QK_API void HashDelTableCopy(HashDelTable *target, const HashDelTable *source);
/* The serial form (that of HashTableWrite) appended to a byte array. */
QK_API void HashDelTableMemWrite(const HashDelTable *table, ByteArray *out);
/* Reads a serial form from `size` bytes at `data` into `table`, replacing
 * its contents and keeping its functions. Returns the bytes read, or 0 with
 * the error state set, the table unchanged, when the form is malformed. */
QK_API size_t HashDelTableMemRead(HashDelTable *table, const void *data, size_t size);

/* ---- HashDict ---- */

typedef struct HashDict HashDict;

/* Key `index` of the set: its bytes in `*bytes`, its size as the result. */
typedef UInt (*HashDictKeyFn)(void *dict, UInt index, const void **bytes);
/* The value stored for key `index`. */
typedef UInt (*HashDictValueFn)(void *dict, UInt index);

/* What HashDictFind gives for a key that is known to be absent. */
#define HASHDICT_ABSENT (-2)

/* The size of the image header, and of the length in front of an image. */
#define HASHDICT_HEADER_SIZE 48
#define HASHDICT_LENGTH_SIZE 8

/*
 * Builds a dictionary of `count` keys. Without `val`, key i finds i, and
 * `nbits` is the width of a stored number (0: just enough for count - 1);
 * with `val`, key i finds val(dict, i), which must fit in `nbits` bits.
 * `probe` bytes (0 to 8) of a fingerprint of each key let lookups reject
 * keys outside the set; they need `val` to be none. Requires
 * "nbits <= 32 && (val == NULL || (probe == 0 && nbits != 0))".
 * `verbose` reports progress at level 2. None on failure (duplicate keys, a
 * key longer than 65535 bytes, a value too wide, too many keys, or a
 * 1001st random table in vain), with the error state set.
 */
QK_API HashDict *HashDictBuild(UInt count, void *dict, HashDictKeyFn getKey, HashDictValueFn val,
                               UInt nbits, UInt probe, int verbose);
/* The key's index or value, or HASHDICT_ABSENT. */
QK_API Long HashDictFind(const HashDict *hdict, const void *bytes, UInt size);
/* The number of keys, and the longest key in bytes. */
QK_API UInt HashDictSize(const HashDict *hdict);
QK_API UInt HashDictMaxLength(const HashDict *hdict);
/* The image itself, without the length in front. */
QK_API const void *HashDictImage(const HashDict *hdict, size_t *size);

/* Frees a dictionary that holds its own image (HashDictBuild,
 * HashDictFileRead). */
QK_API void HashDictFree(HashDict *hdict);
/* Frees a dictionary read in place by HashDictMMRead; its memory stays the
 * caller's. */
QK_API void HashDictMMFree(HashDict *hdict);
/* Ends a dictionary whatever made it. */
QK_API void HashDictMemClose(HashDict *hdict);

/* The size of the file form: the 8-byte length and the image. */
QK_API ULong HashDictFileSize(const HashDict *hdict);
/* Writes the file form at the channel's position: 1, or 0 with the error
 * state set. */
QK_API int HashDictFileWrite(const HashDict *hdict, Channel *channel);
/* Reads a file form from the channel into memory of its own. None on
 * failure. */
QK_API HashDict *HashDictFileRead(Channel *channel);
/* Appends zeros to `out` up to a multiple of 8 bytes, then the file form. */
QK_API void HashDictMMWrite(const HashDict *hdict, ByteArray *out);
/* The same with the bytes of every element reversed (each header field, map
 * entry, random number, 64-bit word of values and group of probe bytes, and
 * the length), for readers of the other byte order. */
QK_API void HashDictMMWriteSwapped(const HashDict *hdict, ByteArray *out);
/* Moves `*offset` to the next multiple of 8 counted from `base`, reads the
 * file form there, in place, within `size` bytes from `base`, and moves
 * `*offset` past it. The memory must outlive the dictionary. None on
 * failure, with `*offset` unchanged. */
QK_API HashDict *HashDictMMRead(const void *base, size_t *offset, size_t size);

/* Writes the file form to "%s/%s.%s" (directory, name, extension), or to
 * "%s.%s" without a directory. 1, or 0 with the error state set. */
QK_API int HashDictWrite(const HashDict *hdict, const char *directory, const char *name,
                         const char *extension);
/* Maps such a file and uses it in place. None on failure. */
QK_API HashDict *HashDictOpen(const char *directory, const char *name, const char *extension);
/* Unmaps a dictionary made by HashDictOpen. */
QK_API void HashDictClose(HashDict *hdict);

QK_END_DECLS

#endif /* QK_HASH_H */
