// Packed arrays: one width byte, a 4-byte count, the values in that width.
#include "arena/arena_format.h"

namespace {

// Arrays read from a file grow as the values come, from at most this many,
// so that a damaged count costs no more memory than the file holds.
constexpr UInt kFirstReserve = 1u << 16;

template <typename T>
ULong Largest(const T *values, UInt count) {
    ULong largest = 0;
    for (UInt i = 0; i < count; i++) {
        if (values[i] > largest) largest = values[i];
    }
    return largest;
}

template <typename T>
bool Write(Channel *channel, const T *values, UInt count) {
    UInt width = qk::arena::PackedWidth(Largest(values, count));
    if (!ChannelWriteIntegerLE(channel, width, 1) || !ChannelWriteIntegerLE(channel, count, 4))
        return false;
    for (UInt i = 0; i < count; i++) {
        if (!ChannelWriteIntegerLE(channel, values[i], width)) return false;
    }
    return true;
}

template <typename A>
bool Read(Channel *channel, A *values) {
    ULong width, count;
    if (!ChannelReadIntegerLE(channel, &width, 1) || !ChannelReadIntegerLE(channel, &count, 4))
        return qk::arena::ReadFailed();
    if (width == 0 || width > 8) {
        QKErrorThrow(QK_ERR_FORMAT, QK_DOMAIN_GENERAL, "invalid packed width %u", (UInt)width);
        return false;
    }
    ArrayClear(*values);
    ArrayEnsure(*values, count < kFirstReserve ? count : kFirstReserve);
    for (ULong i = 0; i < count; i++) {
        ULong value;
        if (!ChannelReadIntegerLE(channel, &value, (UInt)width)) return qk::arena::ReadFailed();
        ArrayAdd(*values, (__typeof__(*values->data))value);
    }
    return true;
}

}  // namespace

namespace qk::arena {

bool ReadFailed() {
    QKErrorRethrow("could not read data");
    return false;
}

UInt PackedWidth(ULong largest) {
    if (largest < 0x100) return 1;
    if (largest < 0x10000) return 2;
    if (largest <= 0xFFFFFF) return 3;
    if ((largest >> 32) == 0) return 4;
    if ((largest >> 32) < 0x100) return 5;
    if ((largest >> 32) < 0x10000) return 6;
    return 8;
}

bool PackedWrite(Channel *channel, const ULong *values, UInt count) {
    return Write(channel, values, count);
}

bool PackedWrite(Channel *channel, const UInt *values, UInt count) {
    return Write(channel, values, count);
}

bool PackedRead(Channel *channel, ULongArray *values) {
    return Read(channel, values);
}

bool PackedRead(Channel *channel, UIntArray *values) {
    return Read(channel, values);
}

bool ExpectEnd(Channel *channel) {
    int c = ChannelReadByte(channel);
    if (c == -1) return true;
    if (c >= 0) QKErrorThrow(QK_ERR_FORMAT, QK_DOMAIN_GENERAL, "unexpected data after the end");
    return false;
}

}  // namespace qk::arena
