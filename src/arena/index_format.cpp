// The two index records of a bucket.
#include "arena/arena_format.h"

// Raw arrays hold their elements as they stand in memory, and the files are
// little-endian.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__);

namespace qk::arena {

bool IndexNewGenEncode(Channel *channel, UInt blockSize, ULong rsize, LocalBlockServer0RW *rw) {
    return ChannelWriteIntegerLE(channel, blockSize, 8) &&
           ChannelWriteIntegerLE(channel, rsize, 8) &&
           FArrayWriteRaw_(&rw->map, channel, sizeof(UInt)) &&
           PackedWrite(channel, rw->freeRawBlocksOld.data, rw->freeRawBlocksOld.length) &&
           PackedWrite(channel, rw->freeRawBlocksNew.data, rw->freeRawBlocksNew.length) &&
           PackedWrite(channel, rw->freeBlock.data, rw->freeBlock.length);
}

bool IndexNewGenDecode(Channel *channel, ULong *rsize, LocalBlockServer0RW *rw) {
    if (!ChannelReadIntegerLE(channel, rsize, 8) ||
        !FArrayReadRaw_(&rw->map, channel, sizeof(UInt), __FILE__, __LINE__))
        return ReadFailed();
    return PackedRead(channel, &rw->freeRawBlocksOld) &&
           PackedRead(channel, &rw->freeRawBlocksNew) && PackedRead(channel, &rw->freeBlock);
}

bool IndexOldGenEncode(Channel *channel, FArray *map) {
    return FArrayWriteRaw_(map, channel, sizeof(UInt));
}

bool IndexOldGenDecode(Channel *channel, FArray *map) {
    if (!FArrayReadRaw_(map, channel, sizeof(UInt), __FILE__, __LINE__)) return ReadFailed();
    return true;
}

}  // namespace qk::arena
