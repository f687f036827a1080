// Little-endian fields, byte by byte: the one codec of the library's file
// and wire formats, whatever the machine's own order.
#pragma once

#include "qk/types.h"

namespace qk {

inline UInt LoadLE16(const UByte *p) {
    return (UInt)p[0] | (UInt)p[1] << 8;
}
inline UInt LoadLE32(const UByte *p) {
    return (UInt)p[0] | (UInt)p[1] << 8 | (UInt)p[2] << 16 | (UInt)p[3] << 24;
}
inline ULong LoadLE64(const UByte *p) {
    return (ULong)LoadLE32(p) | (ULong)LoadLE32(p + 4) << 32;
}
// The low `width` bytes of `value`, least significant first.
inline void StoreLE(UByte *p, ULong value, UInt width) {
    for (UInt i = 0; i < width; i++) p[i] = (UByte)(value >> (8 * i));
}

}  // namespace qk
