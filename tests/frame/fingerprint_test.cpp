// Fingerprint: the published values, and a byte-at-a-time reference built
// from the definition of the tables, over every length, alignment and path.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "frame/fingerprint_internal.h"
#include "qk/fingerprint.h"
#include "qk/frame.h"

namespace {

// x[0] = step(1), x[i] = step(x[i-1]); T[i][j] the XOR of x[63 - 8i - b]
// over the bits b of j; a byte c fed as ((a >> 8) | (c << 56)) ^ T[7][a & 255].
class Reference {
  public:
    static constexpr ULong P = 0xf48fc4ebab65b981ULL;

    Reference() {
        ULong x[64];
        x[0] = Step(1);
        for (int i = 1; i < 64; i++) x[i] = Step(x[i - 1]);
        for (int i = 0; i < 8; i++) {
            for (int j = 0; j < 256; j++) {
                t_[i][j] = 0;
                for (int b = 0; b < 8; b++) {
                    if ((j >> b) & 1) t_[i][j] ^= x[63 - 8 * i - b];
                }
            }
        }
    }

    ULong Run(ULong a, const UByte *p, size_t size, bool finish = true) const {
        for (size_t k = 0; k < size; k++) a = ((a >> 8) | ((ULong)p[k] << 56)) ^ t_[7][a & 255];
        return finish && (a & 1) ? a ^ P : a;
    }

  private:
    static ULong Step(ULong a) { return ((a & 1) ? a ^ P : a) >> 1; }
    ULong t_[8][256];
};

class FingerprintTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { QKLibInit("fingerprinttest"); }

    // Random bytes; Aligned gives a pointer `offset` bytes past a multiple of 64.
    static std::vector<UByte> Bytes(size_t size, unsigned seed) {
        std::vector<UByte> v(size + 72);
        std::mt19937 random(seed);
        for (UByte &b : v) b = (UByte)random();
        return v;
    }
    static const UByte *Aligned(std::vector<UByte> &v, size_t offset) {
        return v.data() + (64 - reinterpret_cast<uintptr_t>(v.data()) % 64) % 64 + offset;
    }

    Reference reference_;
};

TEST_F(FingerprintTest, PublishedValues) {
    EXPECT_EQ(Fingerprint(nullptr, 0), 0x8000000000000000ULL);
    EXPECT_EQ(Fingerprint("a", 1), 0x6180000000000000ULL);
    EXPECT_EQ(Fingerprint("abc", 3), 0x6362618000000000ULL);
}

TEST_F(FingerprintTest, MatchesReferenceAtEveryLengthAndAlignment) {
    std::vector<UByte> bytes = Bytes(1 << 20, 1);
    std::mt19937_64 random(2);
    std::vector<UInt> sizes;
    for (UInt size = 0; size <= 300; size++) sizes.push_back(size);
    for (UInt size : {1000u, 4099u, 65536u + 13, 1u << 20}) sizes.push_back(size);
    for (size_t offset = 0; offset < 8; offset++) {
        const UByte *p = Aligned(bytes, offset);
        for (UInt size : sizes) {
            ASSERT_EQ(Fingerprint(p, size), reference_.Run(1ULL << 63, p, size))
                << "size " << size << " offset " << offset;
            ULong start = random();
            ASSERT_EQ(FingerprintExtend(start, p, size), reference_.Run(start, p, size))
                << "size " << size << " offset " << offset << " start " << start;
        }
    }
}

// The table path alone (eights, then 0 to 7 bytes at once), over lengths
// that the library hands to carry-less multiplication where it can.
TEST_F(FingerprintTest, TablePathMatchesReference) {
    std::vector<UByte> bytes = Bytes(2048, 4);
    std::mt19937_64 random(5);
    for (size_t offset = 0; offset < 8; offset++) {
        const UByte *p = Aligned(bytes, offset);
        for (size_t size : {5, 8, 13, 64, 129, 1003, 2048}) {
            ULong start = random();
            EXPECT_EQ(qk::fingerprint::ExtendTables(start, p, size),
                      reference_.Run(start, p, size, false))
                << "size " << size << " offset " << offset;
        }
    }
}

TEST_F(FingerprintTest, ExtendContinuesAFingerprint) {
    std::vector<UByte> bytes = Bytes(500, 6);
    const UByte *p = Aligned(bytes, 1);
    ULong whole = Fingerprint(p, 500);
    for (UInt split = 0; split <= 500; split++) {
        ASSERT_EQ(FingerprintExtend(Fingerprint(p, split), p + split, 500 - split), whole) << split;
    }
    ULong value = Fingerprint(nullptr, 0);  // in pieces of 7, each result even
    for (UInt at = 0; at < 500; at += 7) {
        value = FingerprintExtend(value, p + at, std::min(7u, 500 - at));
        ASSERT_EQ(value & 1, 0u);
    }
    EXPECT_EQ(value, whole);
}

// (The reference comparisons above take the final step on about half
// their values.)
TEST_F(FingerprintTest, FinalStepMakesResultsEven) {
    EXPECT_EQ(FingerprintExtend(0x1234567890abcdeeULL, "", 0), 0x1234567890abcdeeULL);
    EXPECT_EQ(FingerprintExtend(0x1234567890abcdefULL, "", 0),
              0x1234567890abcdefULL ^ FINGERPRINT_POLYNOMIAL);
}

}  // namespace
