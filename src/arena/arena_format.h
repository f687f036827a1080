// The byte layouts of the arena's metadata files, written and read on a
// channel. Integers go least significant byte first. Three array forms:
//
//   packed array   1 byte width, 4 bytes count, count values of `width`
//                  bytes; the width is the smallest of 1, 2, 3, 4, 5, 6, 8
//                  that holds the largest value (1 for an empty array)
//   byte array     4 bytes count, the bytes
//   raw array      8 bytes count, the elements as they stand in memory
//
// arena.new (after its 8-byte bucket count): 16 packed arrays of free block
// IDs, 16 pairs of 4-byte values (partial block, next slot), the packed
// free array IDs, an 8-byte array count, then per array its block IDs as a
// raw array, a 4-byte length, a type byte and a log2size byte.
//
// arena.old: the block IDs of all arrays as one packed array, the packed
// start of each array in it (count + 1 entries, the first 0), the packed
// lengths and the types as a byte array.
//
// index<x>.new: 8-byte block size, 8-byte rsize, the map as a raw array of
// 4-byte raw IDs, and three packed arrays: raw blocks free in both
// generations, raw blocks free after the commit, free logical blocks.
//
// index<x>.old: the old generation's map as a raw array.
//
// A reader that meets the end of the file fails with "could not read data".
#pragma once

#include "arena/arena_internal.h"
#include "qk/channel.h"
#include "qk/frame.h"

namespace qk::arena {

QK_API UInt PackedWidth(ULong largest);
QK_API bool PackedWrite(Channel *channel, const ULong *values, UInt count);
QK_API bool PackedWrite(Channel *channel, const UInt *values, UInt count);
QK_API bool PackedRead(Channel *channel, ULongArray *values);
// Values wider than 32 bits keep their low half.
QK_API bool PackedRead(Channel *channel, UIntArray *values);

// Fails when the channel holds more bytes.
QK_API bool ExpectEnd(Channel *channel);

QK_API bool ArenaNewGenEncode(Channel *channel, VMArenaRW *rw);
QK_API bool ArenaNewGenDecode(Channel *channel, VMArenaRW *rw);
// The new generation laid flat: the old generation that it becomes.
QK_API bool ArenaOldGenEncode(Channel *channel, VMArenaRW *rw);
QK_API bool ArenaOldGenDecode(Channel *channel, VMArenaR *r);

QK_API bool IndexNewGenEncode(Channel *channel, UInt blockSize, ULong rsize,
                              LocalBlockServer0RW *rw);
// Everything after the block size.
QK_API bool IndexNewGenDecode(Channel *channel, ULong *rsize, LocalBlockServer0RW *rw);
QK_API bool IndexOldGenEncode(Channel *channel, FArray *map);
QK_API bool IndexOldGenDecode(Channel *channel, FArray *map);

// Throws "could not read data" over the channel's error; returns false.
bool ReadFailed();

}  // namespace qk::arena
