// The table core shared by HashTable and HashDelTable, and the HashTable
// interface.
//
// Entries are packed in the data area in order of insertion: the caller's
// part, the key's length in the table's width, the key. Slots hold the
// offsets of entries. HashTable probes linearly and never removes;
// HashDelTable (del) probes by double hashing and marks removed slots.
#include <string.h>

#include "container/hash_internal.h"
#include "container/varint.h"

namespace qk::hash {

namespace {

// Offsets must stay below the two slot markers.
constexpr ULong kMaxDataSize = 0xFFFFFFF0u;
constexpr UInt kNone = 0xFFFFFFFFu;

// The first slot of a key: its hash modulo the number of slots.
UInt FirstSlot(const HashTable *table, const void *key, UInt size, void *hashArg) {
    UInt hash =
        table->t_hash ? table->t_hash(key, size, table->t_userData, hashArg) : HashBytes(key, size);
    return FastMod(hash, table->t_nslots, table->t_slotMagic);
}

// The size of the length field of a key of `size` bytes.
UInt LengthFieldSize(UInt width, UInt size) {
    return width == 0 ? (UInt)VarIntSize(size) : width;
}

bool LengthFits(UInt width, UInt size) {
    return width == 0 || width >= 4 || size < (1u << (8 * width));
}

void WriteLength(UByte *p, UInt width, UInt size) {
    if (width == 0)
        VarIntWrite(p, kVarIntMaxSize, size);
    else
        StoreLE(p, size, width);
}

// The length at `p`, in memory that the table wrote.
UInt ReadLength(const UByte *p, UInt width, UInt *fieldSize) {
    if (width == 0) {
        size_t length;
        UInt value = VarIntReadTrusted32(p, &length);
        *fieldSize = (UInt)length;
        return value;
    }
    *fieldSize = width;
    UInt value = 0;
    for (UInt i = 0; i < width; i++) value |= (UInt)p[i] << (8 * i);
    return value;
}

bool KeyEquals(const HashTable *table, UInt offset, const void *key, UInt size, void *hashArg) {
    UInt storedSize;
    const UByte *stored = TableEntryKey(table, offset, &storedSize);
    if (table->t_compare)
        return table->t_compare(stored, storedSize, key, size, table->t_userData, hashArg) == 0;
    return storedSize == size && memcmp(stored, key, size) == 0;
}

void FillEmpty(UInt *slots, UInt count) {
    for (UInt i = 0; i < count; i++) slots[i] = HASH_SLOT_EMPTY;
}

UInt *NewSlots(UInt count, bool mapped) {
    UInt *slots = (UInt *)TableAllocate((size_t)count * sizeof(UInt), mapped);
    FillEmpty(slots, count);
    return slots;
}

// Double hashing: the step from the first slot.
inline UInt Step(UInt first, UInt slots) {
    return slots - 2 - first % (slots - 2);
}

// The slot that receives `offset` in fresh slots (no removed slot, no equal
// key).
void PlaceOffset(HashTable *table, bool del, UInt offset, void *hashArg) {
    UInt size;
    const UByte *key = TableEntryKey(table, offset, &size);
    UInt slots = table->t_nslots;
    UInt i = FirstSlot(table, key, size, hashArg);
    if (!del) {
        while (table->t_slots[i] != HASH_SLOT_EMPTY) {
            if (++i == slots) i = 0;
        }
    } else {
        UInt step = Step(i, slots);
        while (table->t_slots[i] != HASH_SLOT_EMPTY) {
            i += step;
            if (i >= slots) i -= slots;
        }
    }
    table->t_slots[i] = offset;
}

// Capacity after growth by `factor`: at least one more.
UInt GrownCapacity(UInt capacity, double factor) {
    double grown = (double)capacity * factor;
    ULong next = grown >= 4294967295.0 ? 0xFFFFFFFFu : (ULong)grown;
    if (next <= capacity) next = (ULong)capacity + 1;
    qkassert(next <= 0xFFFFFFFFu);
    return (UInt)next;
}

struct SortContext {
    const HashTable *table;
    HashTableSortFn cmp;
};

int CompareOffsets(const void *a, const void *b, void *argument) {
    const SortContext *context = (const SortContext *)argument;
    const UByte *data = context->table->t_data;
    return context->cmp(data + *(const UInt *)a, data + *(const UInt *)b,
                        context->table->t_userData);
}

int CompareUInt(const void *a, const void *b, void *) {
    UInt x = *(const UInt *)a, y = *(const UInt *)b;
    return x < y ? -1 : x > y;
}

}  // namespace

void TableInit(HashTable *table, UInt capacity, HashTableHashFn hash, void *userData,
               HashTableCompareFn compare, UInt keyOffset, UInt lengthWidth, int mapped) {
    qkassert(lengthWidth <= 4);
    if (capacity < 5) capacity = 5;
    memset(table, 0, sizeof *table);
    table->t_hash = hash;
    table->t_userData = userData;
    table->t_compare = compare;
    table->t_keyOffset = keyOffset;
    table->t_lengthWidth = (UByte)lengthWidth;
    table->t_mapped = mapped ? 1 : 0;
    table->t_capacity = capacity;
    table->t_nslots = Prime((ULong)capacity * 3 / 2);
    table->t_slotMagic = FastModMagic(table->t_nslots);
    table->t_slots = NewSlots(table->t_nslots, table->t_mapped);
    ULong dataSize = (ULong)capacity * 5;
    table->t_data_size = (UInt)(dataSize < kMaxDataSize ? dataSize : kMaxDataSize);
    table->t_data = (UByte *)TableAllocate(table->t_data_size, table->t_mapped);
}

void TableRelease(HashTable *table) {
    TableDeallocate(table->t_slots, (size_t)table->t_nslots * sizeof(UInt), table->t_mapped);
    TableDeallocate(table->t_data, table->t_data_size, table->t_mapped);
    ArrayFree(table->t_selection);
    table->t_slots = NULL;
    table->t_data = NULL;
    table->t_nslots = 0;
    table->t_data_size = 0;
    table->t_data_used = 0;
    table->t_count = 0;
    table->t_selected = 0;
}

void TableClear(HashTable *table) {
    FillEmpty(table->t_slots, table->t_nslots);
    table->t_count = 0;
    table->t_data_used = 0;
    table->t_selected = 0;
    ArrayClear(table->t_selection);
}

void TableCopy(HashTable *target, const HashTable *source) {
    if (target == source) return;
    UByte allocated = target->t_allocated;
    TableRelease(target);
    *target = *source;
    target->t_allocated = allocated;
    target->t_selection = {};
    target->t_slots =
        (UInt *)TableAllocate((size_t)source->t_nslots * sizeof(UInt), source->t_mapped);
    memcpy(target->t_slots, source->t_slots, (size_t)source->t_nslots * sizeof(UInt));
    target->t_data = (UByte *)TableAllocate(source->t_data_size, source->t_mapped);
    memcpy(target->t_data, source->t_data, source->t_data_used);
    ArrayCopy(target->t_selection, source->t_selection);
}

const UByte *TableEntryKey(const HashTable *table, UInt offset, UInt *size) {
    const UByte *p = table->t_data + offset + table->t_keyOffset;
    UInt fieldSize;
    *size = ReadLength(p, table->t_lengthWidth, &fieldSize);
    return p + fieldSize;
}

UInt TableEntrySize(const HashTable *table, UInt offset) {
    UInt size;
    const UByte *key = TableEntryKey(table, offset, &size);
    return (UInt)(key - (table->t_data + offset)) + size;
}

void *TableFind(HashTable *table, UInt *deleted, const void *key, UInt size, const void *entry,
                int *found, void *hashArg) {
    UInt slots = table->t_nslots;
    UInt i = FirstSlot(table, key, size, hashArg);
    UInt target = kNone;  // the slot for an insertion
    if (!deleted) {
        for (;;) {
            UInt offset = table->t_slots[i];
            if (offset == HASH_SLOT_EMPTY) break;
            if (KeyEquals(table, offset, key, size, hashArg)) {
                if (found) *found = 1;
                return table->t_data + offset;
            }
            if (++i == slots) i = 0;
        }
        target = i;
    } else {
        UInt first = i, step = Step(i, slots);
        UInt empty = kNone;
        do {
            UInt offset = table->t_slots[i];
            if (offset == HASH_SLOT_EMPTY) {
                empty = i;
                break;
            }
            if (offset == HASH_SLOT_DELETED) {
                if (target == kNone) target = i;
            } else if (KeyEquals(table, offset, key, size, hashArg)) {
                if (found) *found = 1;
                return table->t_data + offset;
            }
            i += step;
            if (i >= slots) i -= slots;
        } while (i != first);
        if (target == kNone) target = empty;
    }
    if (found) *found = 0;
    if (!entry) return NULL;

    // Insertion. A full table is grown by its caller first.
    qkassert(!table->t_selected);
    qkassert(target != kNone);
    qkassert(table->t_count < table->t_capacity);
    if (table->t_slots[target] == HASH_SLOT_DELETED) {
        (*deleted)--;
    } else if (deleted && table->t_count + *deleted >= table->t_capacity) {
        // Live and removed slots would pass the capacity, and probes would
        // grow long: the live entries take clean slots, where they stand in
        // the data area, and the key looks for its slot again.
        ClearRemovedSlots(table, deleted, hashArg);
        return TableFind(table, deleted, key, size, entry, found, hashArg);
    }
    UInt width = table->t_lengthWidth;
    qkassert(LengthFits(width, size));
    ULong delta = (ULong)table->t_keyOffset + size + 5;
    if (table->t_data_used + delta > table->t_data_size) {
        ULong grown = (ULong)table->t_data_size * 3 / 2;
        ULong needed = table->t_data_used + delta;
        ULong newSize = grown > needed ? grown : needed;
        if (newSize > kMaxDataSize) newSize = kMaxDataSize;
        if (newSize < needed) QKFatal(":hashtable: memory allocation failed: size=%I64u", needed);
        table->t_data = (UByte *)TableReallocate(table->t_data, table->t_data_size, (size_t)newSize,
                                                 table->t_mapped);
        table->t_data_size = (UInt)newSize;
    }
    qkassert(table->t_data_used + delta <= table->t_data_size);
    UInt offset = table->t_data_used;
    UByte *p = table->t_data + offset;
    if (table->t_keyOffset) memcpy(p, entry, table->t_keyOffset);
    p += table->t_keyOffset;
    WriteLength(p, width, size);
    p += LengthFieldSize(width, size);
    if (size) memcpy(p, key, size);
    table->t_data_used = (UInt)(p + size - table->t_data);
    table->t_slots[target] = offset;
    table->t_count++;
    return table->t_data + offset;
}

void ClearRemovedSlots(HashTable *table, UInt *deleted, void *hashArg) {
    UIntArray live = {};
    TableLiveOffsets(table, true, 0, &live);
    FillEmpty(table->t_slots, table->t_nslots);
    for (UInt k = 0; k < live.length; k++) PlaceOffset(table, true, live.data[k], hashArg);
    ArrayFree(live);
    *deleted = 0;
}

int TableRemove(HashTable *table, UInt *deleted, const void *key, UInt size, void *hashArg) {
    UInt slots = table->t_nslots;
    UInt i = FirstSlot(table, key, size, hashArg);
    UInt first = i, step = Step(i, slots);
    do {
        UInt offset = table->t_slots[i];
        if (offset == HASH_SLOT_EMPTY) return 0;
        if (offset != HASH_SLOT_DELETED && KeyEquals(table, offset, key, size, hashArg)) {
            table->t_slots[i] = HASH_SLOT_DELETED;
            (*deleted)++;
            table->t_count--;
            return 1;
        }
        i += step;
        if (i >= slots) i -= slots;
    } while (i != first);
    return 0;
}

void TableGrow(HashTable *table, UInt *deleted, double factor, void *hashArg) {
    qkassert(factor > 1.0);
    bool del = deleted != NULL;
    UIntArray live = {};
    if (del) {
        // Removed entries are dropped: the live ones are packed anew, in
        // their order.
        qkassert(!table->t_selected);
        TableLiveOffsets(table, true, 0, &live);
        UByte *data = (UByte *)TableAllocate(table->t_data_size, table->t_mapped);
        UInt used = 0;
        for (UInt k = 0; k < live.length; k++) {
            UInt size = TableEntrySize(table, live.data[k]);
            memcpy(data + used, table->t_data + live.data[k], size);
            live.data[k] = used;
            used += size;
        }
        TableDeallocate(table->t_data, table->t_data_size, table->t_mapped);
        table->t_data = data;
        table->t_data_used = used;
        *deleted = 0;
    }
    TableDeallocate(table->t_slots, (size_t)table->t_nslots * sizeof(UInt), table->t_mapped);
    table->t_capacity = GrownCapacity(table->t_capacity, factor);
    table->t_nslots = Prime((ULong)table->t_capacity * 3 / 2);
    table->t_slotMagic = FastModMagic(table->t_nslots);
    table->t_slots = NewSlots(table->t_nslots, table->t_mapped);
    if (del) {
        for (UInt k = 0; k < live.length; k++) PlaceOffset(table, true, live.data[k], hashArg);
    } else {
        for (UInt offset = 0; offset < table->t_data_used; offset += TableEntrySize(table, offset))
            PlaceOffset(table, false, offset, hashArg);
    }
    ArrayFree(live);
}

void TableLiveOffsets(const HashTable *table, bool del, UInt offset, UIntArray *out) {
    if (!del) {
        for (UInt o = offset; o < table->t_data_used; o += TableEntrySize(table, o))
            ArrayAdd(*out, o);
        return;
    }
    UInt start = out->length;
    for (UInt i = 0; i < table->t_nslots; i++) {
        UInt o = table->t_slots[i];
        if (o != HASH_SLOT_EMPTY && o != HASH_SLOT_DELETED && o >= offset) ArrayAdd(*out, o);
    }
    QSort(out->data + start, out->length - start, sizeof(UInt), CompareUInt, NULL);
}

int TableEnumerate(HashTable *table, bool del, UInt offset, HashTableCallback callback,
                   void *userData) {
    if (!del) {
        // The data area is read afresh at each step: a callback may insert.
        for (UInt o = offset; o < table->t_data_used;) {
            UInt size = TableEntrySize(table, o);
            int result = callback(table->t_data + o, userData);
            if (result) return result;
            o += size;
        }
        return 0;
    }
    UIntArray live = {};
    TableLiveOffsets(table, true, offset, &live);
    int result = 0;
    for (UInt k = 0; k < live.length && !result; k++)
        result = callback(table->t_data + live.data[k], userData);
    ArrayFree(live);
    return result;
}

UInt TableSelect(HashTable *table, bool del, UInt offset, HashTablePredicate predicate,
                 void *userData, UIntArray *array) {
    UIntArray live = {};
    TableLiveOffsets(table, del, offset, &live);
    UIntArray *out = array ? array : &table->t_selection;
    ArrayClear(*out);
    for (UInt k = 0; k < live.length; k++) {
        if (!predicate || predicate(table->t_data + live.data[k], userData))
            ArrayAdd(*out, live.data[k]);
    }
    ArrayFree(live);
    if (!array) table->t_selected = 1;
    return out->length;
}

void TableSort(HashTable *table, HashTableSortFn cmp, UIntArray *entries) {
    qkassert(cmp != NULL && (entries != NULL || table->t_selected));
    UIntArray *order = entries ? entries : &table->t_selection;
    SortContext context = {table, cmp};
    QSort(order->data, order->length, sizeof(UInt), CompareOffsets, &context);
}

void *TableGetIndex(const HashTable *table, UInt index) {
    qkassert(table->t_selected);
    qkassert(index < table->t_selection.length);
    return table->t_data + table->t_selection.data[index];
}

}  // namespace qk::hash

using namespace qk::hash;

extern "C" {

QK_API HashTable *HashTableNew(UInt capacity, HashTableHashFn hash, void *userData,
                               HashTableCompareFn compare, UInt keyOffset, UInt lengthWidth,
                               int mapped) {
    HashTable *table = (HashTable *)Allocate(sizeof(HashTable), NULL);
    TableInit(table, capacity, hash, userData, compare, keyOffset, lengthWidth, mapped);
    table->t_allocated = 1;
    return table;
}

QK_API void HashTableFree(HashTable *table) {
    if (!table) return;
    TableRelease(table);
    if (table->t_allocated) UnAllocate(table);
}

QK_API UInt HashTableSize(const HashTable *table) {
    return table->t_count;
}

QK_API UInt HashTableCapacity(const HashTable *table) {
    return table->t_capacity;
}

QK_API int HashTableFull(const HashTable *table) {
    return table->t_count >= table->t_capacity;
}

QK_API void HashTableGrow(HashTable *table, double factor, void *hashArg) {
    TableGrow(table, NULL, factor, hashArg);
}

QK_API void *HashTableFind(HashTable *table, const void *key, UInt size, const void *entry,
                           int *found, void *hashArg) {
    return TableFind(table, NULL, key, size, entry, found, hashArg);
}

QK_API const UByte *HashTableEntryKey(const HashTable *table, const void *entry, UInt *size) {
    return TableEntryKey(table, (UInt)((const UByte *)entry - table->t_data), size);
}

QK_API int HashTableEnumerate(HashTable *table, UInt offset, HashTableCallback callback,
                              void *userData) {
    return TableEnumerate(table, false, offset, callback, userData);
}

QK_API UInt HashTableSelect(HashTable *table, UInt offset, HashTablePredicate predicate,
                            void *userData, UIntArray *array) {
    return TableSelect(table, false, offset, predicate, userData, array);
}

QK_API void HashTableSort(HashTable *table, HashTableSortFn compare, UIntArray *entries) {
    TableSort(table, compare, entries);
}

QK_API void *HashTableGetIndex(const HashTable *table, UInt index) {
    return TableGetIndex(table, index);
}

QK_API UInt HashTableGetOffset(const HashTable *table, const void *entry) {
    return (UInt)((const UByte *)entry - table->t_data);
}

QK_API void HashTableClear(HashTable *table) {
    TableClear(table);
}

QK_API void HashTableCopy(HashTable *target, const HashTable *source) {
    TableCopy(target, source);
}

}  // extern "C"
