// The fingerprint's tables and steps, shared by the portable code and the
// carry-less multiplication path.
//
// The state `a` is a polynomial over GF(2) of degree below 64, bit k holding
// the coefficient of x^(63-k); the generator G(x) is x^64 plus, for every
// bit k >= 1 set in the generating constant, x^(64-k). Feeding a byte c
// gives a * x^8 + c mod G, the first bit of the byte (bit 0) the highest.
#pragma once

#include "frame/endian.h"
#include "qk/fingerprint.h"

namespace qk::fingerprint {

constexpr ULong kPolynomial = FINGERPRINT_POLYNOMIAL;

// a * x mod G.
constexpr ULong Step(ULong a) {
    if (a & 1) a ^= kPolynomial;
    return a >> 1;
}

// x^n mod G, in the state's bit order.
constexpr ULong PowerOfX(unsigned n) {
    ULong a = 1ULL << 63;  // the polynomial 1
    for (unsigned i = 0; i < n; i++) a = Step(a);
    return a;
}

struct Tables {
    // t[i][j]: the contribution of byte i of the state, of value j, after a
    // shift by 64 bits: the XOR of x^(127 - 8i - b) mod G over the bits b of j.
    ULong t[8][256];
};

constexpr Tables MakeTables() {
    ULong x[64] = {};  // x[i] = x^(64 + i) mod G
    x[0] = Step(1);
    for (int i = 1; i < 64; i++) x[i] = Step(x[i - 1]);
    Tables tables{};
    for (int i = 0; i < 8; i++) {
        for (int j = 0; j < 256; j++) {
            ULong v = 0;
            for (int b = 0; b < 8; b++) {
                if (j & (1 << b)) v ^= x[63 - 8 * i - b];
            }
            tables.t[i][j] = v;
        }
    }
    return tables;
}

// 16 KiB, computed by the compiler: nothing to build at start-up.
alignas(64) inline constexpr Tables kTables = MakeTables();

// a * x^64 + w mod G, where the eight bytes were read as a little-endian w.
inline ULong FeedWord(ULong a, ULong w) {
    const auto &t = kTables.t;
    return w ^ t[0][a & 255] ^ t[1][(a >> 8) & 255] ^ t[2][(a >> 16) & 255] ^
           t[3][(a >> 24) & 255] ^ t[4][(a >> 32) & 255] ^ t[5][(a >> 40) & 255] ^
           t[6][(a >> 48) & 255] ^ t[7][a >> 56];
}

// a * x^(8k) + the k bytes at p mod G, for 0 <= k < 8: the state's low k
// bytes move out, each through the table of the byte it becomes after a
// shift by 64 bits.
inline ULong FeedTail(ULong a, const UByte *p, size_t k) {
    if (k == 0) return a;
    const auto &t = kTables.t;
    ULong w = 0;
    for (size_t i = 0; i < k; i++) w |= (ULong)p[i] << (8 * i);
    ULong r = (a >> (8 * k)) | (w << (64 - 8 * k));
    for (size_t i = 0; i < k; i++) r ^= t[8 - k + i][(a >> (8 * i)) & 255];
    return r;
}

// Feeds bytes through the tables: in eights, then the rest at once. The
// result does not depend on the alignment of p.
inline ULong ExtendTables(ULong a, const UByte *p, size_t size) {
    for (; size >= 8; p += 8, size -= 8) a = FeedWord(a, LoadLE64(p));
    return FeedTail(a, p, size);
}

// Feeds bytes through carry-less multiplication when the processor has it;
// sets *done to the number of bytes taken (a multiple of 16, maybe 0).
ULong ExtendWide(ULong a, const UByte *p, size_t size, size_t *done);

// Inputs at least this long go through ExtendWide.
constexpr size_t kWideMinimum = 32;

}  // namespace qk::fingerprint
