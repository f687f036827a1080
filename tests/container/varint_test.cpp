// Variable-length numbers: 7 bits a byte, the lowest group first, bit 0 set
// when another byte follows.
#include <gtest/gtest.h>
#include <string.h>

#include <vector>

#include "container/varint.h"

namespace {

std::vector<UByte> Encode(ULong value) {
    UByte buffer[qk::kVarIntMaxSize];
    return std::vector<UByte>(buffer, buffer + qk::VarIntWrite(buffer, sizeof buffer, value));
}

TEST(VarInt, LayoutAndRoundTripsAtEveryGroupBoundary) {
    // Worked out by hand: 200 = 1 * 128 + 72 gives (72 << 1) | 1, then 1 << 1.
    EXPECT_EQ(Encode(0), (std::vector<UByte>{0x00}));
    EXPECT_EQ(Encode(127), (std::vector<UByte>{0xFE}));
    EXPECT_EQ(Encode(200), (std::vector<UByte>{0x91, 0x02}));
    EXPECT_EQ(Encode(16384), (std::vector<UByte>{0x01, 0x01, 0x02}));
    EXPECT_EQ(Encode(0xFFFFFFFFu), (std::vector<UByte>{0xFF, 0xFF, 0xFF, 0xFF, 0x1E}));
    for (UInt bits = 0; bits <= 64; bits++) {
        for (int delta = bits ? -1 : 0; delta <= 1; delta++) {
            ULong value = bits == 64 ? ~(ULong)0 : ((ULong)1 << bits) + delta;
            size_t expected = 1;
            for (ULong v = value; v >= 128; v >>= 7) expected++;
            std::vector<UByte> bytes = Encode(value);
            ASSERT_EQ(bytes.size(), expected) << value;
            EXPECT_EQ(qk::VarIntSize(value), expected);
            ULong back = 12345;
            EXPECT_EQ(qk::VarIntRead(bytes.data(), bytes.size(), &back), expected);
            EXPECT_EQ(back, value);
            size_t length = 0;
            if (value <= 0xFFFFFFFFu) {
                EXPECT_EQ(qk::VarIntReadTrusted32(bytes.data(), &length), value);
                EXPECT_EQ(length, expected);
            }
        }
    }
}

TEST(VarInt, RefusesWhatDoesNotFitOrIsCutShort) {
    UByte buffer[11] = {0xAA};
    EXPECT_EQ(qk::VarIntWrite(buffer, 1, 128), 0u);  // no room: nothing written
    EXPECT_EQ(buffer[0], 0xAA);
    ULong value = 777;
    EXPECT_EQ(qk::VarIntRead((const UByte *)"\x91", 1, &value), 0u);  // cut short
    memset(buffer, 0x01, 11);                                         // eleven bytes
    buffer[10] = 0;
    EXPECT_EQ(qk::VarIntRead(buffer, 11, &value), 0u);
    memset(buffer, 0xFF, 9);  // a tenth byte beyond bit 63
    buffer[9] = 0x04;
    EXPECT_EQ(qk::VarIntRead(buffer, 10, &value), 0u);
    EXPECT_EQ(value, 777u);
    EXPECT_EQ(qk::VarIntRead((const UByte *)"\x02\xFF", 2, &value), 1u);  // stops at its end
    EXPECT_EQ(value, 1u);
}

}  // namespace
