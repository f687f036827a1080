// Variable-length numbers: 7 bits a byte, the lowest group first, bit 0 set
// when another byte follows.
#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "container/varint.h"

namespace {

std::string Encode(ULong value) {
    UByte buffer[qk::kVarIntMaxSize];
    return std::string((char *)buffer, qk::VarIntWrite(buffer, sizeof buffer, value));
}

TEST(VarInt, LayoutAndRoundTripsAtEveryGroupBoundary) {
    // Worked out by hand: 200 = 1 * 128 + 72 gives (72 << 1) | 1, then 1 << 1.
    EXPECT_EQ(Encode(0) + Encode(127) + Encode(200) + Encode(16384) + Encode(0xFFFFFFFFu),
              std::string("\0\xFE\x91\x02\x01\x01\x02\xFF\xFF\xFF\xFF\x1E", 12));
    for (UInt bits = 0; bits <= 64; bits++) {
        for (int delta = bits ? -1 : 0; delta <= 1; delta++) {
            ULong value = bits == 64 ? ~(ULong)0 : ((ULong)1 << bits) + delta, back = 12345;
            size_t expected = 1, length = 0;
            for (ULong v = value; v >= 128; v >>= 7) expected++;
            std::string bytes = Encode(value);
            const UByte *p = (const UByte *)bytes.data();
            EXPECT_EQ(std::tuple(bytes.size(), qk::VarIntSize(value),
                                 qk::VarIntRead(p, bytes.size(), &back), back),
                      std::tuple(expected, expected, expected, value));
            if (value <= 0xFFFFFFFFu)
                EXPECT_EQ(std::pair((ULong)qk::VarIntReadTrusted32(p, &length), length),
                          std::pair(value, expected));
        }
    }
}

TEST(VarInt, RefusesWhatDoesNotFitOrIsCutShort) {
    UByte buffer[1] = {0xAA};
    EXPECT_EQ(qk::VarIntWrite(buffer, 1, 128), 0u);  // no room: nothing written
    EXPECT_EQ(buffer[0], 0xAA);
    // Cut short, eleven bytes, a tenth byte beyond bit 63; one that stops
    // at its end.
    const std::tuple<std::string, size_t, ULong> cases[] = {
        {"\x91", 0, 777},
        {std::string(10, '\x01') + '\0', 0, 777},
        {std::string(9, '\xFF') + '\x04', 0, 777},
        {"\x02\xFF", 1, 1}};
    for (const auto &[bytes, read, value] : cases) {
        ULong got = 777;
        EXPECT_EQ(qk::VarIntRead((const UByte *)bytes.data(), bytes.size(), &got), read) << bytes;
        EXPECT_EQ(got, value);
    }
}

}  // namespace
