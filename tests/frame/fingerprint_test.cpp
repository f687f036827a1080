// Fingerprint: the published values, and a byte-at-a-time reference built
// from the definition of the tables, over every length, alignment and path.
#include "qk/fingerprint.h"
#include "frame/fingerprint_internal.h"
#include "frame/frame_test.h"

namespace {

// x[0] = step(1), x[i] = step(x[i-1]); T[j] the XOR of x[7 - b] over the
// bits b of j; a byte c fed as ((a >> 8) | (c << 56)) ^ T[a & 255]; the final
// step makes the result even.
class Reference {
  public:
    static constexpr ULong P = 0xf48fc4ebab65b981ULL;
    static ULong Step(ULong a) { return ((a & 1) ? a ^ P : a) >> 1; }

    Reference() {
        ULong x[8] = {Step(1)};
        for (int i = 1; i < 8; i++) x[i] = Step(x[i - 1]);
        for (int j = 0; j < 256; j++) {
            for (int b = 0; b < 8; b++) t_[j] ^= (j >> b) & 1 ? x[7 - b] : 0;
        }
    }
    ULong Run(ULong a, const UByte *p, size_t size, bool finish = true) const {
        for (size_t k = 0; k < size; k++) a = ((a >> 8) | ((ULong)p[k] << 56)) ^ t_[a & 255];
        return finish && (a & 1) ? a ^ P : a;
    }

  private:
    ULong t_[256] = {};
};

using FingerprintTest = FrameTest;

// The published values; on random bytes, every length up to 300 and some
// long ones, at each offset past a multiple of 64, from random start values;
// the table path alone (which carry-less multiplication would take over where
// it can) on lengths of every remainder. About half the values take the
// final step.
TEST_F(FingerprintTest, MatchesReferenceAtEveryLengthAndAlignment) {
    Reference reference;
    EXPECT_EQ(std::tuple(Fingerprint(nullptr, 0), Fingerprint("a", 1), Fingerprint("abc", 3)),
              std::tuple(0x8000000000000000ULL, 0x6180000000000000ULL, 0x6362618000000000ULL));
    Bytes bytes((1 << 20) + 72);
    std::mt19937_64 random(2);
    for (UByte &b : bytes) b = (UByte)random();
    std::vector<UInt> sizes = {1000u, 4099u, 65536u + 13, 1u << 20};
    for (UInt size = 0; size <= 300; size++) sizes.push_back(size);
    for (size_t offset = 0; offset < 8; offset++) {
        const UByte *p = bytes.data() + (64 - (uintptr_t)bytes.data() % 64) % 64 + offset;
        for (UInt size : sizes) {
            ULong start = random();
            ASSERT_EQ(Fingerprint(p, size), reference.Run(1ULL << 63, p, size))
                << size << "@" << offset;
            ASSERT_EQ(FingerprintExtend(start, p, size), reference.Run(start, p, size)) << size;
            if (size > 300 || size % 7 != 5) continue;
            ASSERT_EQ(qk::fingerprint::ExtendTables(start, p, size),
                      reference.Run(start, p, size, false));
        }
    }
}

}  // namespace
