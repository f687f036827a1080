// Variable-length numbers: 7 bits a byte, the lowest group first, bit 0 the
// continuation flag.
#include "container/varint.h"

namespace qk {

QK_API size_t VarIntSize(ULong value) {
    size_t size = 1;
    while (value >= 0x80) {
        value >>= 7;
        size++;
    }
    return size;
}

QK_API size_t VarIntWrite(UByte *out, size_t capacity, ULong value) {
    size_t size = VarIntSize(value);
    if (size > capacity) return 0;
    for (size_t i = 0; i + 1 < size; i++) {
        out[i] = (UByte)(((value & 0x7F) << 1) | 1);
        value >>= 7;
    }
    out[size - 1] = (UByte)(value << 1);
    return size;
}

QK_API size_t VarIntReadLong(const UByte *in, size_t available, ULong *value) {
    ULong result = 0;
    for (size_t i = 0; i < available && i < kVarIntMaxSize; i++) {
        ULong group = in[i] >> 1;
        // The tenth byte holds bit 63 alone.
        if (i == kVarIntMaxSize - 1 && group > 1) return 0;
        result |= group << (7 * i);
        if (!(in[i] & 1)) {
            *value = result;
            return i + 1;
        }
    }
    return 0;
}

}  // namespace qk
