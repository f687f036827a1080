// HashDelTable: the table core with double hashing and removal. A removed
// slot holds HASH_SLOT_DELETED and is taken again by an insertion; the
// entry's bytes stay in the data area until growth packs the live entries
// anew. Full means what it means for HashTable: count equals capacity.
#include "container/hash_internal.h"

using namespace qk::hash;

extern "C" {

QK_API void HashDelTableInit(HashDelTable *table, UInt capacity, HashTableHashFn hash,
                             void *userData, HashTableCompareFn compare, UInt keyOffset,
                             UInt lengthWidth, int mapped) {
    TableInit(&table->t_table, capacity, hash, userData, compare, keyOffset, lengthWidth, mapped);
    table->t_deleted = 0;
}

QK_API HashDelTable *HashDelTableNew(UInt capacity, HashTableHashFn hash, void *userData,
                                     HashTableCompareFn compare, UInt keyOffset, UInt lengthWidth,
                                     int mapped) {
    HashDelTable *table = (HashDelTable *)Allocate(sizeof(HashDelTable), NULL);
    HashDelTableInit(table, capacity, hash, userData, compare, keyOffset, lengthWidth, mapped);
    table->t_table.t_allocated = 1;
    return table;
}

QK_API void HashDelTableFree(HashDelTable *table) {
    if (!table) return;
    TableRelease(&table->t_table);
    table->t_deleted = 0;
    if (table->t_table.t_allocated) UnAllocate(table);
}

QK_API UInt HashDelTableSize(const HashDelTable *table) {
    return table->t_table.t_count;
}

QK_API UInt HashDelTableCapacity(const HashDelTable *table) {
    return table->t_table.t_capacity;
}

QK_API int HashDelTableFull(const HashDelTable *table) {
    return table->t_table.t_count >= table->t_table.t_capacity;
}

QK_API void HashDelTableGrow(HashDelTable *table, double factor, void *hashArg) {
    TableGrow(&table->t_table, &table->t_deleted, factor, hashArg);
}

QK_API void *HashDelTableFind(HashDelTable *table, const void *key, UInt size, const void *entry,
                              int *found, void *hashArg) {
    return TableFind(&table->t_table, &table->t_deleted, key, size, entry, found, hashArg);
}

QK_API int HashDelTableRemove(HashDelTable *table, const void *key, UInt size, void *hashArg) {
    return TableRemove(&table->t_table, &table->t_deleted, key, size, hashArg);
}

QK_API const UByte *HashDelTableEntryKey(const HashDelTable *table, const void *entry, UInt *size) {
    return HashTableEntryKey(&table->t_table, entry, size);
}

QK_API int HashDelTableEnumerate(HashDelTable *table, UInt offset, HashTableCallback callback,
                                 void *userData) {
    return TableEnumerate(&table->t_table, true, offset, callback, userData);
}

QK_API UInt HashDelTableSelect(HashDelTable *table, UInt offset, HashTablePredicate predicate,
                               void *userData, UIntArray *array) {
    return TableSelect(&table->t_table, true, offset, predicate, userData, array);
}

QK_API void HashDelTableSort(HashDelTable *table, HashTableSortFn compare, UIntArray *entries) {
    TableSort(&table->t_table, compare, entries);
}

QK_API void *HashDelTableGetIndex(const HashDelTable *table, UInt index) {
    return TableGetIndex(&table->t_table, index);
}

QK_API UInt HashDelTableGetOffset(const HashDelTable *table, const void *entry) {
    return HashTableGetOffset(&table->t_table, entry);
}

QK_API void HashDelTableClear(HashDelTable *table) {
    TableClear(&table->t_table);
    table->t_deleted = 0;
}

QK_API void HashDelTableCopy(HashDelTable *target, const HashDelTable *source) {
    TableCopy(&target->t_table, &source->t_table);
    target->t_deleted = source->t_deleted;
}

QK_API void HashDelTableMemWrite(const HashDelTable *table, ByteArray *out) {
    TableSerialize(&table->t_table, out);
}

QK_API size_t HashDelTableMemRead(HashDelTable *table, const void *data, size_t size) {
    return TableDeserialize(&table->t_table, &table->t_deleted, (const UByte *)data, size, false);
}

}  // extern "C"
