// Serial forms: exact bytes of integers, byte Arrays, element Arrays and
// FArrays, their round trips, where a read FArray keeps its elements, and
// streams that end too soon.
#include "channel/channel_test_util.h"

using namespace chantest;

namespace {

class ChannelSerialTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { Init(); }
};

std::string LE(ULong value, int width) {
    std::string s;
    for (int i = 0; i < width; i++) s += (char)(value >> (8 * i));
    return s;
}

int WriteUInt(Channel *channel, const void *element, void *) {
    return ChannelWriteUIntLE(channel, *static_cast<const UInt *>(element));
}

int ReadUInt(Channel *channel, void *element, void *) {
    return ChannelReadUIntLE(channel, static_cast<UInt *>(element));
}

TEST_F(ChannelSerialTest, IntegersLittleEndianByteByByte) {
    Pair pair;
    const ULong v = 0x0807060504030201ULL;
    std::string expected;
    for (UInt width = 0; width <= 8; width++) {
        ASSERT_EQ(ChannelWriteIntegerLE(pair.channel, v, width), 1);
        expected += LE(v, (int)width);
    }
    EXPECT_EQ(pair.Drain(), expected);
    pair.Send(expected);
    for (UInt width = 0; width <= 8; width++) {
        ULong got = 0xFFFF;
        ASSERT_EQ(ChannelReadIntegerLE(pair.channel, &got, width), 1);
        EXPECT_EQ(got, width == 8 ? v : v & ((1ULL << (8 * width)) - 1)) << width;
    }
    // Across a full buffer.
    std::string fill(CHANNEL_BUFFER_SIZE - 3, 'f');
    ASSERT_EQ(ChannelWriteBuf(pair.channel, fill.data(), (UInt)fill.size()), 1);
    ASSERT_EQ(ChannelWriteUIntLE(pair.channel, 0xA1B2C3D4u), 1);
    EXPECT_EQ(pair.Drain(), fill + "\xD4\xC3\xB2\xA1");
    // The end of the stream inside a value.
    pair.Send("\x01\x02\x03");
    pair.ClosePeer();
    UInt value = 0;
    EXPECT_EQ(ChannelReadUIntLE(pair.channel, &value), 0);
    EXPECT_TRUE(HasError(QK_ERR_EOF, QK_DOMAIN_GENERAL, "read EOF"));
    EXPECT_DEATH(ChannelWriteIntegerLE(pair.channel, 1, 9), "len <= sizeof\\(ULong\\)");
}

TEST_F(ChannelSerialTest, ByteArrays) {
    Pair pair;
    ByteArray text = {}, empty = {}, got = {};
    ArrayAppend(text, "hello", 5);
    ASSERT_EQ(ChannelWriteByteArray(pair.channel, &text), 1);
    ASSERT_EQ(ChannelWriteByteArray(pair.channel, &empty), 1);
    std::string wire = pair.Drain();
    EXPECT_EQ(wire, LE(5, 4) + "hello" + LE(0, 4));
    pair.Send(wire);
    ArrayAppend(got, "previous content", 16);
    ASSERT_EQ(ChannelReadByteArray(pair.channel, &got), 1);
    EXPECT_STREQ((char *)got.data, "hello");
    EXPECT_EQ(got.length, 5u);
    ASSERT_EQ(ChannelReadByteArray(pair.channel, &got), 1);
    EXPECT_EQ(got.length, 0u);
    EXPECT_EQ(got.data[0], 0);
    // A length that promises more than comes.
    pair.Send(LE(10, 4) + "abc");
    pair.ClosePeer();
    EXPECT_EQ(ChannelReadByteArray(pair.channel, &got), 0);
    EXPECT_TRUE(HasError(QK_ERR_EOF, QK_DOMAIN_GENERAL, "read EOF"));
    EXPECT_STREQ((char *)got.data, "abc");
    ArrayFree(text);
    ArrayFree(got);
}

TEST_F(ChannelSerialTest, ElementArrays) {
    Pair pair;
    UIntArray numbers = {}, got = {};
    for (UInt i = 1; i <= 3; i++) ArrayAdd(numbers, i * 0x01010101u);
    ASSERT_EQ(ChannelWriteArray(pair.channel, numbers, WriteUInt, nullptr), 1);
    std::string wire = pair.Drain();
    EXPECT_EQ(wire, LE(3, 4) + LE(0x01010101, 4) + LE(0x02020202, 4) + LE(0x03030303, 4));
    pair.Send(wire);
    ArrayAdd(got, 99u);
    ASSERT_EQ(ChannelReadArray(pair.channel, got, ReadUInt, nullptr), 1);
    ASSERT_EQ(got.length, 3u);
    EXPECT_EQ(got.data[2], 0x03030303u);
    // A stream cut after two elements leaves those two.
    pair.Send(LE(3, 4) + LE(7, 4) + LE(8, 4));
    pair.ClosePeer();
    EXPECT_EQ(ChannelReadArray(pair.channel, got, ReadUInt, nullptr), 0);
    EXPECT_EQ(got.length, 2u);
    EXPECT_EQ(got.data[1], 8u);
    ArrayFree(numbers);
    ArrayFree(got);
}

TEST_F(ChannelSerialTest, FArrayRoundTripAndWhereElementsLand) {
    Pair pair;
    FArray array;
    FArrayInitHeap(array, 4);
    ASSERT_EQ(FArrayWriteRaw_(&array, pair.channel, sizeof(UInt)), 1);
    EXPECT_EQ(pair.Drain(), std::string(8, '\0'));
    // Elements in data0 and in five fragments (4 + 4 + 8 + 16 and part of 32).
    ASSERT_EQ(FArrayEnsureCapacity0(array, UInt, 3), 1);
    array.length = 3;
    std::string expected = LE(40, 8);
    for (UInt i = 0; i < 40; i++) {
        UInt v = i * 3;
        int ok = 1;
        if (i < 3)
            FArrayNth(array, UInt, i) = v;
        else
            ASSERT_GE(FArrayAdd(array, &v, &ok), 0);
        expected += LE(v, 4);
    }
    ASSERT_EQ(FArrayWriteRaw_(&array, pair.channel, sizeof(UInt)), 1);
    EXPECT_EQ(pair.Drain(), expected);
    ASSERT_EQ(FArrayWrite_(&array, pair.channel, nullptr, WriteUInt, sizeof(UInt)), 1);
    EXPECT_EQ(pair.Drain(), expected);

    // Read into an array that has content and fragments of its own: all of
    // it lands in data0, and appends go to the fragments.
    FArray back;
    FArrayInitHeap(back, 2);
    for (UInt i = 0; i < 9; i++) {
        int ok = 1;
        FArrayAdd(back, &i, &ok);
    }
    for (bool raw : {true, false}) {
        pair.Send(expected);
        ASSERT_EQ(raw ? FArrayReadRaw_(&back, pair.channel, sizeof(UInt), __FILE__, __LINE__)
                      : FArrayRead_(&back, pair.channel, nullptr, ReadUInt, sizeof(UInt), __FILE__,
                                    __LINE__),
                  1);
        EXPECT_EQ(back.length, 40u);
        EXPECT_EQ(back.length0, 40u);
        for (UInt i = 0; i < 40; i++) EXPECT_EQ(FArrayNth(back, UInt, i), i * 3);
    }
    UInt extra = 7777, end = 0;
    int ok = 1;
    ASSERT_EQ(FArrayAdd(back, &extra, &ok), 40);
    EXPECT_EQ(FArrayRange(back, UInt, 40, &end), (UInt *)back.data[0]);
    FArrayFree(array, UInt);
    FArrayFree(back, UInt);
}

TEST_F(ChannelSerialTest, FArrayStreamsThatEndTooSoon) {
    for (bool raw : {true, false}) {
        Pair pair;
        FArray back;
        FArrayInitHeap(back, 4);
        pair.Send(LE(5, 8) + LE(1, 4) + LE(2, 4));
        pair.ClosePeer();
        EXPECT_EQ(raw ? FArrayReadRaw_(&back, pair.channel, sizeof(UInt), __FILE__, __LINE__)
                      : FArrayRead_(&back, pair.channel, nullptr, ReadUInt, sizeof(UInt), __FILE__,
                                    __LINE__),
                  0);
        EXPECT_TRUE(HasError(QK_ERR_EOF, QK_DOMAIN_GENERAL, "read EOF"));
        // The block is there for all five; only whole elements count.
        EXPECT_EQ(back.length0, 5u);
        EXPECT_EQ(back.length, raw ? 0u : 2u);
        EXPECT_EQ(FArrayFree(back, UInt), 1);
    }
    Pair pair;
    FArray back;
    FArrayInitHeap(back, 4);
    pair.Send(LE(1ULL << 32, 8));
    EXPECT_EQ(FArrayReadRaw_(&back, pair.channel, sizeof(UInt), __FILE__, __LINE__), 0);
    EXPECT_TRUE(HasError(QK_ERR_FORMAT, QK_DOMAIN_GENERAL, "protocol error"));
}

}  // namespace
