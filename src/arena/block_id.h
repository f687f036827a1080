// Arena block IDs: 64-bit names of pieces of 64 to 8192 bytes. From the low
// end: 4 bits of size class, then the slot of the piece within its 8192-byte
// logical block (as many bits as the class needs), then the logical block.
// A logical block's low `bucketBits` bits name its bucket, the rest is its
// index in that bucket's map.
#pragma once

#include "qk/arena.h"

namespace qk::arena {

constexpr UInt kSizeClasses = 16;
constexpr UInt kSizes[kSizeClasses] = {64,  88,  112,  128,  160,  256,  312,  512,
                                       584, 744, 1024, 1632, 2048, 2728, 4096, 8192};

// Bits of the slot: log2(8192 / size) rounded up; 0 for a whole block.
constexpr UInt SlotBits(UInt sizeClass) {
    UInt pieces = ARENA_MAX_BLOCK_SIZE / kSizes[sizeClass];
    UInt bits = 0;
    while ((1u << bits) < pieces) bits++;
    return bits;
}

struct BlockRef {
    UInt sizeClass;
    UInt slot;
    ULong logical;  // may exceed 32 bits in a damaged ID
};

inline BlockRef BlockIDDecode(ULong id) {
    UInt sizeClass = (UInt)(id & 15);
    UInt bits = SlotBits(sizeClass);
    return {sizeClass, (UInt)((id >> 4) & ((1u << bits) - 1)), id >> (4 + bits)};
}

inline ULong BlockIDMake(UInt sizeClass, UInt slot, UInt logical) {
    return ((ULong)logical << (4 + SlotBits(sizeClass))) | ((ULong)slot << 4) | sizeClass;
}

}  // namespace qk::arena
