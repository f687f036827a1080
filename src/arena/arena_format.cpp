// The arena's two metadata records: the new generation as it stands, and
// the same laid flat as the old generation that a commit makes of it.
#include <string.h>

#include "arena/arena_format.h"

namespace qk::arena {

bool ArenaNewGenEncode(Channel *channel, VMArenaRW *rw) {
    for (UInt c = 0; c < kSizeClasses; c++) {
        if (!PackedWrite(channel, rw->freeBlock[c].data, rw->freeBlock[c].length)) return false;
    }
    for (UInt c = 0; c < kSizeClasses; c++) {
        if (!ChannelWriteIntegerLE(channel, rw->partial[c].block, 4) ||
            !ChannelWriteIntegerLE(channel, rw->partial[c].slot, 4))
            return false;
    }
    if (!PackedWrite(channel, rw->freeArrays.data, rw->freeArrays.length)) return false;
    UInt count = FArrayLength(rw->array);
    if (!ChannelWriteIntegerLE(channel, count, 8)) return false;
    for (UInt i = 0; i < count; i++) {
        VMAArray *array = ArrayRecord(rw, i);
        if (!FArrayWriteRaw_(&array->blockID, channel, sizeof(ULong)) ||
            !ChannelWriteIntegerLE(channel, array->length, 4) ||
            !ChannelWriteIntegerLE(channel, array->type, 1) ||
            !ChannelWriteIntegerLE(channel, array->log2size, 1))
            return false;
    }
    return true;
}

// Replaces the arrays of the new generation with those of the file.
bool ArenaNewGenDecode(Channel *channel, VMArenaRW *rw) {
    VMArenaRWClear(rw);
    for (UInt c = 0; c < kSizeClasses; c++) {
        if (!PackedRead(channel, &rw->freeBlock[c])) return false;
    }
    for (UInt c = 0; c < kSizeClasses; c++) {
        ULong block, slot;
        if (!ChannelReadIntegerLE(channel, &block, 4) || !ChannelReadIntegerLE(channel, &slot, 4))
            return ReadFailed();
        rw->partial[c] = {(UInt)block, (UInt)slot};
    }
    if (!PackedRead(channel, &rw->freeArrays)) return false;
    ULong count;
    if (!ChannelReadIntegerLE(channel, &count, 8)) return ReadFailed();
    for (ULong i = 0; i < count; i++) {
        VMAArray array;
        VMAArrayRecordInit(&array, EMPTY_ARRAY_TYPE, 13);
        ULong length, type, log2size;
        bool read = FArrayReadRaw_(&array.blockID, channel, sizeof(ULong), __FILE__, __LINE__) &&
                    ChannelReadIntegerLE(channel, &length, 4) &&
                    ChannelReadIntegerLE(channel, &type, 1) &&
                    ChannelReadIntegerLE(channel, &log2size, 1);
        if (!read || type > FULL_BLOCK_ARRAY_TYPE || log2size > 13 || i >= 0x7FFFFFFF) {
            if (read) {
                QKErrorThrow(QK_ERR_FORMAT, QK_DOMAIN_GENERAL, "invalid array %u", (UInt)i);
            } else {
                ReadFailed();
            }
            QKErrorSave();
            VMAArrayRecordFree(&array);
            QKErrorRestore();
            return false;
        }
        array.length = (UInt)length;
        array.type = (UByte)type;
        array.log2size = (UByte)log2size;
        int ok = 1;
        FArrayAdd(rw->array, &array, &ok);
        qkassert(ok);
    }
    return true;
}

bool ArenaOldGenEncode(Channel *channel, VMArenaRW *rw) {
    ULongArray blockID = {};
    UIntArray start = {}, length = {};
    ByteArray type = {};
    UInt count = FArrayLength(rw->array);
    ArrayAdd(start, 0);
    for (UInt i = 0; i < count; i++) {
        VMAArray *array = ArrayRecord(rw, i);
        UInt n = FArrayLength(array->blockID);
        ArrayEnsure(blockID, blockID.length + n);
        FArrayAppendToPtr_(&array->blockID, blockID.data + blockID.length, sizeof(ULong),
                           sizeof(ULong));
        blockID.length += n;
        ArrayAdd(start, blockID.length);
        ArrayAdd(length, array->length);
        ArrayAdd(type, array->type);
    }
    bool ok = PackedWrite(channel, blockID.data, blockID.length) &&
              PackedWrite(channel, start.data, start.length) &&
              PackedWrite(channel, length.data, length.length) &&
              ChannelWriteByteArray(channel, &type);
    ArrayFree(blockID);
    ArrayFree(start);
    ArrayFree(length);
    ArrayFree(type);
    return ok;
}

bool ArenaOldGenDecode(Channel *channel, VMArenaR *r) {
    if (!PackedRead(channel, &r->blockID) || !PackedRead(channel, &r->start) ||
        !PackedRead(channel, &r->length))
        return false;
    if (!ChannelReadByteArray(channel, &r->type)) return ReadFailed();
    UInt arrays = r->length.length;
    bool valid = r->start.length == arrays + 1 && r->type.length == arrays &&
                 r->start.data[0] == 0 && r->start.data[arrays] == r->blockID.length;
    for (UInt i = 0; valid && i < arrays; i++) valid = r->start.data[i] <= r->start.data[i + 1];
    if (!valid) {
        QKErrorThrow(QK_ERR_FORMAT, QK_DOMAIN_GENERAL, "inconsistent old generation");
        return false;
    }
    ArraySetLength(r->cache, r->blockID.length);
    if (r->cache.length) memset(r->cache.data, 0, r->cache.length * sizeof(uintptr_t));
    return true;
}

}  // namespace qk::arena
