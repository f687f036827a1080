// The serial form of the tables, little-endian with fixed widths:
//
//   0  4  size of the caller's part of an entry (keyOffset)
//   4  4  flags: bit 0, memory from anonymous mappings
//   8  1  width of a key's length field
//   9  4  count
//  13  4  capacity
//  17  4  number of slots
//  21  4  bytes of data area in use
//  25  4  bytes of data area allocated
//  29     the slots, 4 bytes each, then the data area in use
//
// HashTableWrite and HashTableRead keep it in a file; HashDelTableMemWrite
// and HashDelTableMemRead in memory. Removed slots of a HashDelTable are
// kept as they are, and their number is counted again on reading.
#include <string.h>

#include "container/hash_internal.h"
#include "container/varint.h"

namespace qk::hash {

namespace {

constexpr size_t kFixedSize = 29;

void AppendLE(ByteArray *out, ULong value, UInt width) {
    ArrayEnsure(*out, out->length + width);
    StoreLE(out->data + out->length, value, width);
    out->length += width;
}

int Malformed(const char *what) {
    QKErrorThrow(QK_ERR_FORMAT, QK_DOMAIN_GENERAL, "bad format: hash table %s", what);
    return 0;
}

// Walks the entries of a data area of `used` bytes and marks where each
// starts. False when an entry runs past the end.
bool MarkEntries(const UByte *data, UInt used, UInt keyOffset, UInt width, UByte *starts,
                 UInt *entries) {
    *entries = 0;
    ULong offset = 0;
    while (offset < used) {
        starts[offset / 8] |= (UByte)(1u << (offset % 8));
        ULong p = offset + keyOffset;
        if (p > used) return false;
        ULong size;
        if (width == 0) {
            size_t field = VarIntRead(data + p, used - p, &size);
            if (field == 0 || size > 0xFFFFFFFFu) return false;
            p += field;
        } else {
            if (p + width > used) return false;
            size = 0;
            for (UInt i = 0; i < width; i++) size |= (ULong)data[p + i] << (8 * i);
            p += width;
        }
        if (p + size > used) return false;
        offset = p + size;
        (*entries)++;
    }
    return true;
}

bool Marked(const UByte *bits, UInt i) {
    return bits[i / 8] & (1u << (i % 8));
}

// Reads a whole channel into `out`: 0, or the read code that stopped it.
int ReadAll(Channel *channel, ByteArray *out) {
    constexpr UInt kChunk = 65536;
    for (;;) {
        ArrayEnsure(*out, out->length + kChunk);
        UInt count = 0;
        int code = ChannelReadBuf(channel, out->data + out->length, kChunk, &count);
        out->length += count;
        if (code == -1) return 0;
        if (code != 0) return code;
    }
}

// Closes a channel on a failure path, keeping the first error.
void CloseQuietly(Channel *channel) {
    QKErrorSave();
    ChannelClose(channel);
    QKErrorRestore();
}

}  // namespace

void TableSerialize(const HashTable *table, ByteArray *out) {
    AppendLE(out, table->t_keyOffset, 4);
    AppendLE(out, table->t_mapped ? 1 : 0, 4);
    AppendLE(out, table->t_lengthWidth, 1);
    AppendLE(out, table->t_count, 4);
    AppendLE(out, table->t_capacity, 4);
    AppendLE(out, table->t_nslots, 4);
    AppendLE(out, table->t_data_used, 4);
    AppendLE(out, table->t_data_size, 4);
    ArrayEnsure(*out, out->length + (ULong)table->t_nslots * 4 + table->t_data_used);
    for (UInt i = 0; i < table->t_nslots; i++) {
        StoreLE(out->data + out->length, table->t_slots[i], 4);
        out->length += 4;
    }
    ArrayAppend(*out, table->t_data, table->t_data_used);
}

size_t TableDeserialize(HashTable *table, UInt *deleted, const UByte *data, size_t size,
                        bool exact) {
    if (size < kFixedSize) return Malformed("too short");
    UInt keyOffset = LoadLE32(data);
    UInt flags = LoadLE32(data + 4);
    UInt width = data[8];
    UInt count = LoadLE32(data + 9);
    UInt capacity = LoadLE32(data + 13);
    UInt nslots = LoadLE32(data + 17);
    UInt used = LoadLE32(data + 21);
    UInt dataSize = LoadLE32(data + 25);
    if (flags > 1 || width > 4) return Malformed("parameters");
    if (!IsTablePrime(nslots) || capacity < 5 || capacity >= nslots || count > capacity)
        return Malformed("sizes");
    if (used > dataSize || used > 0xFFFFFFF0u) return Malformed("data size");
    ULong total = kFixedSize + (ULong)nslots * 4 + used;
    if (total > size) return Malformed("too short");
    if (exact && total != size) return Malformed("followed by other bytes");
    const UByte *slots = data + kFixedSize;
    const UByte *area = slots + (size_t)nslots * 4;

    // Every slot must name the start of an entry, each entry at most once.
    size_t bitmapSize = (size_t)used / 8 + 1;
    UByte *starts = (UByte *)Allocate(bitmapSize, NULL);
    UByte *taken = (UByte *)Allocate(bitmapSize, NULL);
    memset(starts, 0, bitmapSize);
    memset(taken, 0, bitmapSize);
    UInt entries = 0, live = 0, removed = 0;
    const char *problem = NULL;
    if (!MarkEntries(area, used, keyOffset, width, starts, &entries)) problem = "entries";
    for (UInt i = 0; i < nslots && !problem; i++) {
        UInt offset = LoadLE32(slots + (size_t)i * 4);
        if (offset == HASH_SLOT_EMPTY) continue;
        if (offset == HASH_SLOT_DELETED) {
            if (!deleted) problem = "slots";
            removed++;
            continue;
        }
        if (offset >= used || !Marked(starts, offset) || Marked(taken, offset)) {
            problem = "slots";
            break;
        }
        taken[offset / 8] |= (UByte)(1u << (offset % 8));
        live++;
    }
    UnAllocate(starts);
    UnAllocate(taken);
    if (problem) return Malformed(problem);
    // A HashTable holds only live entries; a HashDelTable keeps an empty slot
    // besides its live and removed ones.
    if (live != count || (!deleted && entries != count) ||
        (deleted && (ULong)count + removed > capacity))
        return Malformed("count");

    TableRelease(table);
    table->t_keyOffset = keyOffset;
    table->t_mapped = (UByte)flags;
    table->t_lengthWidth = (UByte)width;
    table->t_count = count;
    table->t_capacity = capacity;
    table->t_nslots = nslots;
    table->t_slotMagic = FastModMagic(nslots);
    table->t_data_used = used;
    table->t_data_size = dataSize > used ? dataSize : used;
    table->t_slots = (UInt *)TableAllocate((size_t)nslots * sizeof(UInt), table->t_mapped);
    for (UInt i = 0; i < nslots; i++) table->t_slots[i] = LoadLE32(slots + (size_t)i * 4);
    table->t_data = (UByte *)TableAllocate(table->t_data_size, table->t_mapped);
    memcpy(table->t_data, area, used);
    if (deleted) *deleted = removed;
    return (size_t)total;
}

}  // namespace qk::hash

using namespace qk::hash;

extern "C" {

QK_API int HashTableWrite(const HashTable *table, const char *path) {
    ByteArray form = {};
    TableSerialize(table, &form);
    Channel *channel = ChannelNew(-1, -1);
    int ok = 0;
    if (!ChannelOpenFile(channel, path, "w")) {
        QKErrorRethrow("error opening %s", path);
    } else if (!ChannelWriteBuf(channel, form.data, form.length) || !ChannelFlush(channel)) {
        QKErrorRethrow("error writing %s", path);
    } else {
        ok = 1;
    }
    ArrayFree(form);
    if (!ok) {
        CloseQuietly(channel);
        return 0;
    }
    if (!ChannelClose(channel)) {
        QKErrorRethrow("error closing %s", path);
        return 0;
    }
    return 1;
}

QK_API int HashTableRead(HashTable *table, const char *path) {
    Channel *channel = ChannelNew(-1, -1);
    if (!ChannelOpenFile(channel, path, "r")) {
        QKErrorRethrow("error opening %s", path);
        CloseQuietly(channel);
        return 0;
    }
    ByteArray form = {};
    int ok = 0;
    if (ReadAll(channel, &form) != 0) {
        QKErrorRethrow("error reading %s", path);
    } else {
        if (TableDeserialize(table, NULL, form.data, form.length, true) == 0)
            QKErrorRethrow("error reading %s", path);
        else
            ok = 1;
    }
    ArrayFree(form);
    if (!ok) {
        CloseQuietly(channel);
        return 0;
    }
    if (!ChannelClose(channel)) {
        QKErrorRethrow("error closing %s", path);
        return 0;
    }
    return 1;
}

}  // extern "C"
