// UTF-8 decoding and encoding, and the conversions between UTF and UCS2.
#include <gtest/gtest.h>
#include <stdio.h>

#include <random>
#include <string>
#include <vector>

#include "qk/qkcommon.h"
#include "qk/unicode.h"

namespace {

std::vector<Int> ReadAll(const std::string &bytes) {
    const UByte *p = (const UByte *)bytes.data(), *end = p + bytes.size();
    std::vector<Int> result;
    for (;;) {
        Int c = ReadUTF8(&p, end);
        result.push_back(c);
        if (c < 0) return result;
    }
}

std::string Encode(UShort c) {
    UByte buffer[3];
    return std::string((const char *)buffer, WriteUTF8(buffer, c) - buffer);
}

TEST(ReadUTF8, DecodesOneTwoAndThreeByteForms) {
    EXPECT_EQ(ReadAll("A\xC3\xA9\xE2\x82\xAC"), (std::vector<Int>{0x41, 0xE9, 0x20AC, READ_EOF}));
    EXPECT_EQ(ReadAll(std::string("\0", 1)), (std::vector<Int>{0, READ_EOF}));
    EXPECT_EQ(ReadAll(""), (std::vector<Int>{READ_EOF}));
    // A surrogate is read as any other three-byte character.
    EXPECT_EQ(ReadAll("\xED\xA0\x80"), (std::vector<Int>{0xD800, READ_EOF}));
    EXPECT_EQ(ReadAll("\xEF\xBF\xBF"), (std::vector<Int>{0xFFFF, READ_EOF}));
}

TEST(ReadUTF8, RejectsMalformedSequences) {
    const char *malformed[] = {
        "\xC0\x80",          // overlong two-byte form of 0
        "\xC1\xBF",          // overlong two-byte form of 0x7F
        "\xE0\x80\x80",      // overlong three-byte form
        "\xE0\x9F\xBF",      // 0x7FF in three bytes
        "\xF0\x90\x80\x80",  // four-byte sequences are not accepted
        "\xF8\x88\x80\x80\x80",
        "\x80",  // continuation byte first
        "\xBF",
        "\xC3\x41",  // continuation byte expected
        "\xE2\x82\x41",
    };
    for (const char *text : malformed) EXPECT_EQ(ReadAll(text).back(), -4) << text;
    EXPECT_EQ(ReadAll("ab\x80"), (std::vector<Int>{'a', 'b', -4}));
}

TEST(ReadUTF8, EndInsideSequenceIsMalformedNotEOF) {
    for (const char *text : {"\xC3", "\xE2", "\xE2\x82"}) {
        EXPECT_EQ(ReadAll(text), (std::vector<Int>{-4})) << text;
    }
    // The end given by the caller counts, not the bytes beyond it.
    const UByte euro[] = {0xE2, 0x82, 0xAC};
    const UByte *p = euro;
    EXPECT_EQ(ReadUTF8(&p, euro + 2), -4);
}

TEST(WriteUTF8, EncodesByLengthClasses) {
    EXPECT_EQ(Encode(0x7F), "\x7F");
    EXPECT_EQ(Encode(0x80), "\xC2\x80");
    EXPECT_EQ(Encode(0x7FF), "\xDF\xBF");
    EXPECT_EQ(Encode(0x800), "\xE0\xA0\x80");
    EXPECT_EQ(Encode(0xDC00), "\xED\xB0\x80");
    EXPECT_EQ(Encode(0xFFFF), "\xEF\xBF\xBF");
}

TEST(WriteUTF8, EveryUnitRoundTripsThroughReadUTF8) {
    for (UInt c = 0; c <= 0xFFFF; c++) {
        UByte buffer[4] = {0, 0, 0, 0xAA};
        UByte *end = WriteUTF8(buffer, (UShort)c);
        ASSERT_EQ(end - buffer, c < 0x80 ? 1 : c < 0x800 ? 2 : 3);
        ASSERT_EQ(buffer[3], 0xAA);
        const UByte *p = buffer;
        ASSERT_EQ(ReadUTF8(&p, end), (Int)c);
        ASSERT_EQ(p, end);
    }
}

TEST(FileUTF8, WritesAndReadsThroughAStream) {
    FILE *file = tmpfile();
    ASSERT_NE(file, nullptr);
    for (UShort c : {0x41, 0xE9, 0x20AC, 0xFFFD}) ASSERT_TRUE(FileWriteUTF8(file, c));
    fputs("\xC3\x41\xE2\x82", file);
    rewind(file);
    EXPECT_EQ(FileReadUTF8(file), 0x41);
    EXPECT_EQ(FileReadUTF8(file), 0xE9);
    EXPECT_EQ(FileReadUTF8(file), 0x20AC);
    EXPECT_EQ(FileReadUTF8(file), 0xFFFD);
    // The byte that broke a sequence is read again as the next character.
    EXPECT_EQ(FileReadUTF8(file), -4);
    EXPECT_EQ(FileReadUTF8(file), 0x41);
    // The end of the file inside a sequence is malformed; after it, the end.
    EXPECT_EQ(FileReadUTF8(file), -4);
    EXPECT_EQ(FileReadUTF8(file), READ_EOF);
    fclose(file);
}

TEST(UTFCharCount, CountsCharactersOrRefusesMalformedText) {
    std::string text = "plain ascii text, longer than eight bytes: \xC3\xA9\xE2\x82\xAC!";
    UInt count = 0;
    ASSERT_TRUE(UTFPtrCharCount((const UByte *)text.data(), (UInt)text.size(), &count));
    EXPECT_EQ(count, text.size() - 1 - 2);
    ByteArray s = {(UByte *)text.data(), (UInt)text.size(), (UInt)text.size()};
    count = 0;
    ASSERT_TRUE(UTFStringCharCount(&s, &count));
    EXPECT_EQ(count, text.size() - 3);
    for (const char *bad : {"abcdefghij\xC0\x80", "\xE2\x82", "abcdefgh\xF0\x90\x80\x80"}) {
        count = 77;
        EXPECT_FALSE(UTFPtrCharCount((const UByte *)bad, (UInt)strlen(bad), &count)) << bad;
        EXPECT_EQ(count, 77u);
    }
}

// Random texts of ASCII runs and two- and three-byte characters, so that
// the block copies meet characters at every offset.
std::vector<UShort> RandomUnits(std::mt19937 &random, size_t length) {
    std::vector<UShort> units;
    while (units.size() < length) {
        UInt kind = random() % 4, run = 1 + random() % 24;
        for (UInt i = 0; i < run && units.size() < length; i++) {
            if (kind <= 1)
                units.push_back((UShort)(random() % 0x80));
            else if (kind == 2)
                units.push_back((UShort)(0x80 + random() % 0x780));
            else
                units.push_back((UShort)(0x800 + random() % 0xF800));
        }
    }
    return units;
}

std::string EncodeAll(const std::vector<UShort> &units) {
    std::string result;
    for (UShort u : units) result += Encode(u);
    return result;
}

TEST(UTFConversion, RandomTextsRoundTrip) {
    std::mt19937 random(7);
    UShortArray ucs2 = {};
    ByteArray utf = {};
    for (int round = 0; round < 300; round++) {
        std::vector<UShort> units = RandomUnits(random, random() % 200);
        std::string bytes = EncodeAll(units);
        ASSERT_TRUE(UTFPtrToUCS2String((const UByte *)bytes.data(), (UInt)bytes.size(), &ucs2, 0));
        ASSERT_EQ(std::vector<UShort>(ucs2.data, ucs2.data + ucs2.length), units);
        ASSERT_TRUE(UCS2PtrToUTFString(units.data(), (UInt)units.size(), &utf));
        ASSERT_EQ(std::string((const char *)utf.data, utf.length), bytes);
        ASSERT_EQ(utf.data[utf.length], 0);
    }
    ArrayFree(ucs2);
    ArrayFree(utf);
}

TEST(UTFConversion, MalformedTextKeepsThePrefixBeforeTheFault) {
    std::mt19937 random(11);
    const char *faults[] = {"\xC0\x80", "\x80", "\xF0\x90\x80\x80", "\xE2\x82"};
    UShortArray ucs2 = {};
    for (int round = 0; round < 200; round++) {
        std::vector<UShort> before = RandomUnits(random, random() % 60);
        std::vector<UShort> after = RandomUnits(random, random() % 30);
        std::string bytes = EncodeAll(before) + faults[round % 4] + EncodeAll(after);
        if (round % 4 == 3) bytes = EncodeAll(before) + faults[3];  // end inside a sequence
        ArrayClear(ucs2);
        ArrayAdd(ucs2, (UShort)0x1234);
        ASSERT_FALSE(UTFPtrToUCS2String((const UByte *)bytes.data(), (UInt)bytes.size(), &ucs2, 1));
        std::vector<UShort> expected = {0x1234};
        expected.insert(expected.end(), before.begin(), before.end());
        ASSERT_EQ(std::vector<UShort>(ucs2.data, ucs2.data + ucs2.length), expected);
    }
    ArrayFree(ucs2);
}

TEST(UTFConversion, AppendAndStringForms) {
    ByteArray utf = {};
    const UShort hello[] = {'h', 0xE9, 0x20AC};
    UCS2PtrToUTFString(hello, 3, &utf);
    UCS2PtrAppendToUTFString(hello, 1, &utf);
    UShortArray units = {};
    ArrayAppend(units, hello + 2, 1);
    EXPECT_TRUE(UCS2StringAppendToUTFString(&units, &utf));
    EXPECT_EQ(std::string((const char *)utf.data, utf.length),
              "h\xC3\xA9\xE2\x82\xAC"
              "h\xE2\x82\xAC");
    EXPECT_EQ(utf.data[utf.length], 0);
    // A reset destination keeps nothing of before.
    UCS2PtrToUTFString(hello, 1, &utf);
    EXPECT_EQ(std::string((const char *)utf.data, utf.length), "h");

    ASSERT_TRUE(UTFStringToUCS2String(&utf, &units, 1));
    EXPECT_EQ(std::vector<UShort>(units.data, units.data + units.length),
              (std::vector<UShort>{0x20AC, 'h'}));
    ASSERT_TRUE(UTFStringToUCS2String(&utf, &units, 0));
    EXPECT_EQ(units.length, 1u);
    ArrayFree(utf);
    ArrayFree(units);
}

}  // namespace
