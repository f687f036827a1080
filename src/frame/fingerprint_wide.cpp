// The fingerprint over long inputs by carry-less multiplication: the
// remainder of a long polynomial is folded 128 bits at a time, many
// accumulators abreast, and only the last 128 bits go through the tables.
//
// A 128-bit register V, loaded little-endian from 16 bytes, holds bit m as
// the coefficient of x^(127-m): its low half L and its high half H, each read
// in the state's bit order, give V = L x^64 + H. Carry-less multiplication
// of two such 64-bit halves yields their product divided by x, so the
// constants below carry one power of x less than the shift they stand for:
// moving V ahead by D bits is clmul(L, x^(D+63)) xor clmul(H, x^(D-1)).
// Between stages the running value is one such V, congruent modulo G to
// the state followed by every byte taken so far; it starts as H = the state.
#include "frame/fingerprint_internal.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace qk::fingerprint {

#if defined(__x86_64__)

namespace {

// The two constants of a shift by `bits`, low half first.
struct Shift {
    ULong low;
    ULong high;
};
constexpr Shift ShiftBy(unsigned bits) {
    return {PowerOfX(bits + 63), PowerOfX(bits - 1)};
}

constexpr Shift kShift128 = ShiftBy(128);
constexpr Shift kShift256 = ShiftBy(256);
constexpr Shift kShift384 = ShiftBy(384);
constexpr Shift kShift512 = ShiftBy(512);
constexpr Shift kShift2048 = ShiftBy(2048);

#define QK_CLMUL __attribute__((target("pclmul,sse2")))
#define QK_VCLMUL __attribute__((target("pclmul,sse2,avx512f,vpclmulqdq")))

QK_CLMUL inline __m128i Constants(Shift s) {
    return _mm_set_epi64x((long long)s.high, (long long)s.low);
}

QK_CLMUL inline __m128i Load(const UByte *p) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i *>(p));
}

// V x^D + next, where k holds the two constants of D.
QK_CLMUL inline __m128i Fold(__m128i v, __m128i k, __m128i next) {
    __m128i low = _mm_clmulepi64_si128(v, k, 0x00);
    __m128i high = _mm_clmulepi64_si128(v, k, 0x11);
    return _mm_xor_si128(_mm_xor_si128(low, high), next);
}

// The same constants in all four lanes.
QK_VCLMUL inline __m512i Constants4(Shift s) {
    return _mm512_set_epi64((long long)s.high, (long long)s.low, (long long)s.high,
                            (long long)s.low, (long long)s.high, (long long)s.low,
                            (long long)s.high, (long long)s.low);
}

// One 128-bit lane (intrinsics that leave other bits undefined are avoided:
// g++ 12 warns about them).
template <int lane>
QK_VCLMUL inline __m128i Lane(__m512i z) {
    return _mm512_maskz_extracti32x4_epi32(0x0f, z, lane);
}

QK_VCLMUL inline __m512i Load4(const UByte *p) {
    return _mm512_loadu_si512(p);
}

// Fold on four lanes at once, each with the constants of its own lane in k.
QK_VCLMUL inline __m512i Fold4(__m512i z, __m512i k, __m512i next) {
    __m512i low = _mm512_clmulepi64_epi128(z, k, 0x00);
    __m512i high = _mm512_clmulepi64_epi128(z, k, 0x11);
    return _mm512_ternarylogic_epi64(low, high, next, 0x96);  // three-way XOR
}

// Four 512-bit accumulators, each four independent 128-bit lanes: 256 bytes
// a round. Needs size >= 256.
QK_VCLMUL __m128i Fold512(__m128i v, const UByte *&p, size_t &size) {
    __m128i carry = Fold(v, Constants(kShift128), _mm_setzero_si128());
    __m512i z0 = _mm512_xor_si512(Load4(p), _mm512_zextsi128_si512(carry));
    __m512i z1 = Load4(p + 64), z2 = Load4(p + 128), z3 = Load4(p + 192);
    p += 256;
    size -= 256;
    const __m512i k2048 = Constants4(kShift2048);
    for (; size >= 256; p += 256, size -= 256) {
        z0 = Fold4(z0, k2048, Load4(p));
        z1 = Fold4(z1, k2048, Load4(p + 64));
        z2 = Fold4(z2, k2048, Load4(p + 128));
        z3 = Fold4(z3, k2048, Load4(p + 192));
    }
    const __m512i k512 = Constants4(kShift512);
    z1 = Fold4(z0, k512, z1);
    z2 = Fold4(z1, k512, z2);
    z3 = Fold4(z2, k512, z3);
    // Lanes 0..3, earliest first, move ahead by 384, 256, 128 and 0 bits.
    const __m128i zero = _mm_setzero_si128();
    __m128i r = Fold(Lane<0>(z3), Constants(kShift384), Lane<3>(z3));
    r = _mm_xor_si128(r, Fold(Lane<1>(z3), Constants(kShift256), zero));
    return _mm_xor_si128(r, Fold(Lane<2>(z3), Constants(kShift128), zero));
}

// Four 128-bit accumulators: 64 bytes a round. Needs size >= 64.
QK_CLMUL __m128i Fold128x4(__m128i v, const UByte *&p, size_t &size) {
    const __m128i k128 = Constants(kShift128);
    const __m128i k512 = Constants(kShift512);
    __m128i v0 = Fold(v, k128, Load(p));
    __m128i v1 = Load(p + 16), v2 = Load(p + 32), v3 = Load(p + 48);
    p += 64;
    size -= 64;
    for (; size >= 64; p += 64, size -= 64) {
        v0 = Fold(v0, k512, Load(p));
        v1 = Fold(v1, k512, Load(p + 16));
        v2 = Fold(v2, k512, Load(p + 32));
        v3 = Fold(v3, k512, Load(p + 48));
    }
    // v0 x^384 + v1 x^256 + v2 x^128 + v3, the products side by side.
    const __m128i zero = _mm_setzero_si128();
    __m128i r = Fold(v0, Constants(kShift384), v3);
    r = _mm_xor_si128(r, Fold(v1, Constants(kShift256), zero));
    return _mm_xor_si128(r, Fold(v2, k128, zero));
}

QK_CLMUL ULong ExtendClmul(ULong a, const UByte *p, size_t size, size_t *done, bool avx512) {
    const UByte *start = p;
    __m128i v = _mm_set_epi64x((long long)a, 0);
    if (avx512 && size >= 512) v = Fold512(v, p, size);
    if (size >= 64) v = Fold128x4(v, p, size);
    const __m128i k128 = Constants(kShift128);
    for (; size >= 16; p += 16, size -= 16) v = Fold(v, k128, Load(p));
    // L x^64 + H mod G: L taken as a state, H fed to it as a word.
    ULong low = (ULong)_mm_cvtsi128_si64(v);
    ULong high = (ULong)_mm_cvtsi128_si64(_mm_unpackhi_epi64(v, v));
    *done = (size_t)(p - start);
    return FeedWord(low, high);
}

#undef QK_CLMUL
#undef QK_VCLMUL

}  // namespace

ULong ExtendWide(ULong a, const UByte *p, size_t size, size_t *done) {
    if (size >= 16 && __builtin_cpu_supports("pclmul")) {
        bool avx512 = __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("vpclmulqdq");
        return ExtendClmul(a, p, size, done, avx512);
    }
    *done = 0;
    return a;
}

#else

ULong ExtendWide(ULong a, const UByte *, size_t, size_t *done) {
    *done = 0;
    return a;
}

#endif

}  // namespace qk::fingerprint
