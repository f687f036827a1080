// Fingerprint: the entry points over the steps of fingerprint_internal.h,
// and the final step that makes every result even.
#include "frame/fingerprint_internal.h"

namespace {

using namespace qk::fingerprint;

ULong Extend(ULong a, const void *data, UInt size) {
    const auto *p = static_cast<const UByte *>(data);
    if (size >= kWideMinimum) {
        size_t done = 0;
        a = ExtendWide(a, p, size, &done);
        p += done;
        size -= (UInt)done;
    }
    a = ExtendTables(a, p, size);
    // The generator's multiple G/x: invisible to any later step, since the
    // next byte multiplies it by x^8.
    if (a & 1) a ^= kPolynomial;
    return a;
}

}  // namespace

void FingerprintInit(void) {}

ULong Fingerprint(const void *data, UInt size) {
    return Extend(FINGERPRINT_EMPTY, data, size);
}

ULong FingerprintExtend(ULong value, const void *data, UInt size) {
    return Extend(value, data, size);
}
