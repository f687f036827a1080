// Serial forms: exact bytes of integers, byte Arrays, element Arrays and
// FArrays (from a block and fragments), and what a read leaves in a target
// that held something before, for whole, short and impossible streams.
#include "channel/channel_test_util.h"

namespace {

using SerialTest = ChannelTest;

// The element functions of arrays of UInt.
const auto WriteUInt = [](Channel *c, const void *e, void *) {
    return ChannelWriteUIntLE(c, *(const UInt *)e);
};
const auto ReadUInt = [](Channel *c, void *e, void *) { return ChannelReadUIntLE(c, (UInt *)e); };

std::string LE(ULong value, int width) {
    std::string s;
    for (int i = 0; i < width; i++) s += (char)(value >> (8 * i));
    return s;
}

// Integers go byte by byte, least significant first, of every width and
// also across a full buffer; then the arrays.
TEST_F(SerialTest, ExactBytesOfEveryForm) {
    Pair pair;
    const ULong v = 0x0807060504030201ULL;
    for (UInt width = 0; width <= 8; width++) {
        ULong got = 0xFFFF;
        ASSERT_EQ(ChannelWriteIntegerLE(pair.channel, v, width), 1);
        EXPECT_EQ(pair.Drain(), LE(v, (int)width));
        pair.Send(LE(v, (int)width));
        ASSERT_EQ(ChannelReadIntegerLE(pair.channel, &got, width), 1);
        EXPECT_EQ(got, width == 8 ? v : v & ((1ULL << (8 * width)) - 1)) << width;
    }
    EXPECT_DEATH(ChannelWriteIntegerLE(pair.channel, 1, 9), "len <= sizeof\\(ULong\\)");
    // Arrays: an FArray goes from its block and its fragments in order, raw
    // or by elements.
    ByteArray text = {}, empty = {};
    UIntArray numbers = {};
    FArray array;
    ArrayAppend(text, "hello", 5);
    for (UInt i = 1; i <= 3; i++) ArrayAdd(numbers, i * 0x01010101u);
    FArrayInitHeap(array, 2);
    ASSERT_EQ(FArrayWriteRaw_(&array, pair.channel, sizeof(UInt)), 1);  // its count alone
    ASSERT_EQ(FArrayEnsureCapacity0(array, UInt, 3), 1);  // a block of 3, then 2, 2, 4...
    array.length = 3;
    std::string farray = LE(40, 8);
    for (UInt i = 0; i < 40; i++) {
        UInt x = i * 3;
        int ok = 1;
        if (i < 3) FArrayNth(array, UInt, i) = x;
        ASSERT_TRUE(i < 3 || FArrayAdd(array, &x, &ok) == (Int)i);
        farray += LE(x, 4);
    }
    ASSERT_TRUE(ChannelWriteByteArray(pair.channel, &text) &&
                ChannelWriteByteArray(pair.channel, &empty) &&
                ChannelWriteArray(pair.channel, numbers, WriteUInt, nullptr) &&
                FArrayWriteRaw_(&array, pair.channel, sizeof(UInt)) &&
                FArrayWrite_(&array, pair.channel, nullptr, WriteUInt, sizeof(UInt)));
    EXPECT_TRUE(pair.Drain() == LE(0, 8) + LE(5, 4) + "hello" + LE(0, 4) + LE(3, 4) +
                                    LE(0x01010101, 4) + LE(0x02020202, 4) + LE(0x03030303, 4) +
                                    farray + farray);
    ArrayFree(text);
    ArrayFree(numbers);
    EXPECT_EQ(FArrayFree(array, UInt), 1);
}

enum Form { kBytes, kElements, kFArrayRaw, kFArray };

// What a read of `form` leaves in a target that held something: the bytes
// and the terminator, the elements, or an FArray's block length and its
// elements (a read puts them all in a new block).
std::string Held(Channel *channel, Form form, int *result) {
    ByteArray bytes = {};
    UIntArray elements = {};
    FArray array;
    ArrayAppend(bytes, "before", 7);  // terminated, as a read leaves it
    bytes.length--;
    ArrayAdd(elements, 99u);
    FArrayInitHeap(array, 2);
    EXPECT_EQ(FArrayEnsureCapacity0(array, UInt, 3), 1);
    if (form == kBytes) *result = ChannelReadByteArray(channel, &bytes);
    if (form == kElements) *result = ChannelReadArray(channel, elements, ReadUInt, 0);
    if (form == kFArrayRaw) *result = FArrayReadRaw_(&array, channel, sizeof(UInt), "f", 1);
    if (form == kFArray) *result = FArrayRead_(&array, channel, 0, ReadUInt, 4, "f", 1);
    std::string held = form == kBytes ? std::string((char *)bytes.data, bytes.length + 1) : "";
    for (UInt i = 0; form == kElements && i < elements.length; i++)
        held += std::to_string(elements.data[i]) + " ";
    if (form >= kFArrayRaw) held = std::to_string(array.length0) + ":";
    for (UInt i = 0; form >= kFArrayRaw && i < array.length; i++)
        held += " " + std::to_string(FArrayNth(array, UInt, i));
    ArrayFree(bytes);
    ArrayFree(elements);
    EXPECT_EQ(FArrayFree(array, UInt), 1);
    return held;
}

TEST_F(SerialTest, WhatAReadLeaves) {
    const std::string eof = "7,2: read EOF", tooMany = "3,2: protocol error";
    const std::string twoOfFive = LE(5, 8) + LE(1, 4) + LE(2, 4);
    // Form, wire, what is held, and the error (none: the read passes).
    const std::tuple<Form, std::string, std::string, std::string> cases[] = {
        // clang-format off
        {kBytes, LE(5, 4) + "hello", std::string("hello", 6), ""}, {kBytes, LE(0, 4), {'\0'}, ""},
        {kBytes, "\x01\x02\x03", std::string("before", 7), eof},  // inside the length
        {kBytes, LE(10, 4) + "abc", std::string("abc", 4), eof},
        {kBytes, LE(0x80000000u, 4), std::string("before", 7), tooMany},
        {kElements, LE(2, 4) + LE(7, 4) + LE(8, 4), "7 8 ", ""},
        {kElements, LE(3, 4) + LE(7, 4) + LE(8, 4), "7 8 ", eof},  // whole elements only
        {kElements, LE(0x80000000u, 4), "99 ", tooMany},
        {kFArray, LE(0, 8), "0:", ""}, {kFArray, LE(2, 8) + LE(1, 4) + LE(2, 4), "2: 1 2", ""},
        {kFArrayRaw, LE(3, 8) + LE(1, 4) + LE(2, 4) + LE(3, 4), "3: 1 2 3", ""},
        // The block is there for all five; only whole elements count.
        {kFArrayRaw, twoOfFive, "5:", eof}, {kFArray, twoOfFive, "5: 1 2", eof},
        {kFArrayRaw, LE(1ULL << 32, 8), "3:", tooMany},
        // clang-format on
    };
    for (int i = 0; const auto &[form, wire, held, error] : cases) {
        Pair pair;
        pair.Send(wire);
        pair.Leave();
        int result = -1;
        EXPECT_EQ(Held(pair.channel, form, &result), held) << i;
        EXPECT_EQ(result, error.empty()) << i++;
        EXPECT_TRUE(error.empty() || ErrorText() == error) << ErrorText();
    }
}

}  // namespace
