// The codec of one database-array block. Every read is bounded by the
// block's data, so that a damaged block is found inconsistent instead of
// being read past its end.
#include "collection/dbarray_internal.h"
#include "container/varint.h"
#include "frame/endian.h"

namespace qk::dbarray {

UInt Block::IndexEntry(UInt k) const {
    return LoadLE16(base + size - 2 * k);
}

void Block::SetIndexEntry(UInt k, UInt offset) {
    StoreLE(base + size - 2 * k, offset, 2);
}

void Block::StoreHeader() {
    StoreLE(base, indexSize, 2);
    StoreLE(base + 2, dataSize, 2);
}

UInt ElementCost(UInt place, UInt length) {
    return (UInt)VarIntSize(length) + length + (place != 0 && place % 8 == 0 ? 2 : 0);
}

bool ElementRead(const Block &block, UInt offset, UInt *numberSize, UInt *length) {
    if (offset >= block.dataSize) return false;
    ULong value;
    size_t n = VarIntRead(block.Data() + offset, block.dataSize - offset, &value);
    if (n == 0 || value > DBARRAY_MAX_ELEMENT_SIZE || offset + n + value > block.dataSize)
        return false;
    *numberSize = (UInt)n;
    *length = (UInt)value;
    return true;
}

bool ElementFind(const Block &block, UInt place, UInt *offset) {
    UInt k = place / 8, at = 0, n, length;
    if (k > block.indexSize) return false;
    if (k > 0) at = block.IndexEntry(k);
    for (UInt i = 0; i < place % 8; i++) {
        if (!ElementRead(block, at, &n, &length)) return false;
        at += n + length;
    }
    *offset = at;
    return at < block.dataSize;
}

bool ElementCount(const Block &block, UInt *count) {
    UInt at = block.indexSize ? block.IndexEntry(block.indexSize) : 0, n, length;
    if (block.indexSize > 0 && at >= block.dataSize) return false;
    UInt total = 8 * block.indexSize;
    while (at < block.dataSize) {
        if (!ElementRead(block, at, &n, &length)) return false;
        at += n + length;
        total++;
    }
    *count = total;
    return at == block.dataSize;
}

bool BlockValid(const Block &block, UInt *count) {
    UInt at = 0, place = 0, n, length;
    while (at < block.dataSize) {
        if (place % 8 == 0 && place > 0 &&
            (place / 8 > block.indexSize || block.IndexEntry(place / 8) != at))
            return false;
        if (!ElementRead(block, at, &n, &length)) return false;
        at += n + length;
        place++;
    }
    *count = place;
    return block.indexSize == IndexEntriesFor(place);
}

}  // namespace qk::dbarray
