// Variable-length numbers: 7 bits a byte, the lowest group first, bit 0 set
// when another byte follows.
#include "container/varint.h"
#include "container/container_test.h"

namespace {

// The layout worked out by hand, and round trips at every group boundary. A
// number is not written where it does not fit; reads refuse what is cut
// short or goes past 64 bits.
TEST(VarInt, LayoutRoundTripsAndRefusals) {
    UByte buffer[qk::kVarIntMaxSize];
    auto encode = [&](ULong value) {
        return std::string((char *)buffer, qk::VarIntWrite(buffer, sizeof buffer, value));
    };
    // 200 = 1 * 128 + 72 gives (72 << 1) | 1, then 1 << 1.
    EXPECT_EQ(encode(0) + encode(127) + encode(200) + encode(16384) + encode(0xFFFFFFFFu),
              std::string("\0\xFE\x91\x02\x01\x01\x02\xFF\xFF\xFF\xFF\x1E", 12));
    for (UInt bits = 0; bits <= 64; bits++)
        for (int delta = bits ? -1 : 0; delta <= 1; delta++) {
            ULong value = bits == 64 ? ~(ULong)0 : ((ULong)1 << bits) + delta, back = 12345;
            size_t expected = value ? (std::bit_width(value) + 6) / 7 : 1, length = 0;
            std::string bytes = encode(value);
            const UByte *p = (const UByte *)bytes.data();
            EXPECT_EQ(std::tuple(bytes.size(), qk::VarIntSize(value),
                                 qk::VarIntRead(p, bytes.size(), &back), back),
                      std::tuple(expected, expected, expected, value));
            EXPECT_TRUE(value >> 32 ||
                        (qk::VarIntReadTrusted32(p, &length) == value && length == expected))
                << value;
        }
    buffer[0] = 0xAA;
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
        EXPECT_EQ(std::pair(qk::VarIntRead((const UByte *)bytes.data(), bytes.size(), &got), got),
                  std::pair(read, value));
    }
}

}  // namespace
