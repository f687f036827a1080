// Whole-text functions against reference rules on random texts: decoding,
// counting, conversion, case mapping, normal form and comparison.
#include <stdio.h>

#include "text/text_test.h"

namespace {

// The decoding rules as a stream applies them: one byte below 0x80; a lead
// of 0xC0 to 0xEF and one or two continuation bytes, giving at least 0x80 or
// 0x800; anything else is malformed (-4). After a malformed sequence the
// reading goes on at the byte that broke it. The text ends with READ_EOF.
std::vector<Int> Decode(const std::string &text) {
    std::vector<Int> out;
    for (size_t i = 0; i < text.size();) {
        UByte b = text[i++];
        int more = b < 0x80 ? 0 : b < 0xC0 || b >= 0xF0 ? -1 : b < 0xE0 ? 1 : 2;
        Int c = more < 0 ? -4 : b & (0x7F >> (more + (more > 0)));
        for (int k = 0; k < more && c >= 0; k++)
            c = i < text.size() && (text[i] & 0xC0) == 0x80 ? c << 6 | (text[i++] & 0x3F) : -4;
        out.push_back(more > 0 && c < (more == 1 ? 0x80 : 0x800) ? -4 : c);
    }
    out.push_back(READ_EOF);
    return out;
}

// Random texts are encoded to memory and to a stream; then, sound, cut or
// with bytes changed, decoded from memory (up to the first fault) and from a
// stream (on past it), counted, converted and mapped character by character,
// the results keeping what came before a fault. Destinations hold "#" and
// are appended to or emptied in turn.
TEST_F(TextTest, RandomTextsFollowTheRules) {
    std::mt19937 random(11);
    ByteArray out = {};
    UShortArray units = {}, normal = {};
    ArrayGrow(out), ArrayGrow(units);
    auto out8 = [&] { return out.data[0] = '#', out.length = 1, &out; };
    auto out16 = [&] { return units.data[0] = '#', units.length = 1, &units; };
    auto got8 = [&](int result) {
        EXPECT_EQ(out.data[out.length], 0);  // terminated
        return std::to_string(result) + Str(out);
    };
    auto got16 = [&](int result) { return std::to_string(result) + Encode(UnitsOf(units)); };
    for (int round = 0; round < 300; round++) {
        Units sound = RandomUnits(random, random() % 60);
        std::string text = Encode(sound);
        UShortArray whole = {sound.data(), (UInt)sound.size(), 0};
        ASSERT_TRUE(UCS2PtrToUTFString(sound.data(), sound.size(), out8()));  // emptied first
        ASSERT_TRUE(UCS2StringAppendToUTFString(&whole, &out));
        ASSERT_EQ(got8(1), "1" + text + text);
        char *written;
        size_t size;
        FILE *sink = open_memstream(&written, &size);
        for (UShort u : sound) ASSERT_TRUE(FileWriteUTF8(sink, u));
        ASSERT_EQ(fclose(sink), 0);
        ASSERT_EQ(std::string(written, size), text);
        free(written);

        for (int k = round % 4; k-- > 0 && !text.empty();)
            text[random() % text.size()] = round % 8 < 4 ? random() % 256 : 0x80 | random() % 64;
        if (round % 5 == 0) text = text.substr(0, random() % (text.size() + 1));
        if (round % 7 == 3)  // overlong forms
            text.insert(random() % (text.size() + 1), round % 2 ? "\xE0\x9F\xBF" : "\xC1\xBF");
        std::vector<Int> expected = Decode(text), read;
        FILE *stream = fmemopen(text.data(), text.size(), "r");
        for (Int c = 0; c != READ_EOF;) read.push_back(c = FileReadUTF8(stream));
        fclose(stream);
        ASSERT_EQ(read, expected) << round;
        auto fault = std::find(expected.begin(), expected.end(), -4);
        int ok = fault == expected.end();
        expected.erase(ok ? expected.end() : fault + 1, expected.end());
        read.clear();
        const UByte *p = Bytes(text), *end = p + text.size();
        for (Int c = 0; c >= 0;) read.push_back(c = ReadUTF8(&p, end));
        ASSERT_EQ(read, expected) << round;

        // What comes before the end or the fault, and its mappings.
        Units chars(expected.begin(), expected.end() - 1), lower, upper;
        ArrayClear(normal);
        ByteArray normalUTF = {}, in = View(text);
        for (UShort u : chars) {
            lower.push_back(UCS2CharToLower(u));
            upper.push_back(UCS2CharToUpper(u));
            UCS2CharNormalize(u, &normal, 1);
            UCS2CharNormalizeToUTF(u, &normalUTF, 1);
        }
        std::string lowerUTF = Encode(lower), upperUTF = Encode(upper), capital = text;
        std::string normalForm = Encode(UnitsOf(normal));
        ASSERT_EQ(Str(normalUTF), normalForm);
        ArrayFree(normalUTF);
        if (!chars.empty()) capital.replace(0, Encode({chars[0]}).size(), Encode({upper[0]}));
        UShortArray source = {chars.data(), (UInt)chars.size(), 0};
        int append = round % 2;
        std::string prefix = append ? "#" : "", yes = "1" + prefix;
        std::string ok8 = std::to_string(ok) + prefix;
        UInt count = 77;
        ASSERT_EQ(UTFStringCharCount(&in, &count), ok);
        ASSERT_EQ(count, ok ? chars.size() : 77);
        ASSERT_EQ(got16(UTFStringToUCS2String(&in, out16(), append)), ok8 + Encode(chars));
        ASSERT_EQ(got8(UTFPtrLowercase(in.data, in.length, out8(), append)), ok8 + lowerUTF);
        ASSERT_EQ(got8(UTFStringLowercase(&in, out8(), append)), ok8 + lowerUTF);
        ASSERT_EQ(got8(UTFStringToUpper(&in, out8(), append)), ok8 + upperUTF);
        ASSERT_EQ(got8(UTFStringFirstCapitalize(&in, out8(), append)),
                  chars.empty() ? (text.empty() ? yes : "0" + prefix) : yes + capital);
        ASSERT_EQ(got8(UTFStringNormalize(&in, out8(), append)), ok8 + normalForm);
        ASSERT_EQ(got16(UTFPtrNormalizeToUCS2String(in.data, in.length, out16(), append)),
                  ok8 + normalForm);
        ASSERT_EQ(units.data[units.length], 0);
        ASSERT_EQ(got8(UCS2PtrUTFLowercase(source.data, source.length, out8())), "1" + lowerUTF);
        ASSERT_EQ(got16(UCS2StringLowercase(&source, out16(), append)), yes + lowerUTF);
        ASSERT_EQ(got16(UCS2StringNormalize(&source, out16(), append)), yes + normalForm);
        C2UToNormalString(out16(), &source);
        ASSERT_EQ(got16(1), "1#" + normalForm);
        if (!ok) continue;  // malformed text is not compared
        // A normal form is its own normal form.
        ASSERT_TRUE(UTFPtrNormCompare(in.data, in.length, Bytes(normalForm), normalForm.size()));
        ASSERT_TRUE(
            UTFStringLowerToAnyCompare(Bytes(lowerUTF), lowerUTF.size(), in.data, in.length));
    }
    ArrayFree(out), ArrayFree(units), ArrayFree(normal);
}

// Normal forms compare equal or not; the first text of the other comparison
// is taken as lowered already. Malformed text ends the process.
TEST_F(TextTest, Comparisons) {
    auto compare = [](auto function, const std::string &a, const std::string &b) {
        return function(Bytes(a), a.size(), Bytes(b), b.size());
    };
    const auto normal = UTFPtrNormCompare, lowerToAny = UTFStringLowerToAnyCompare;
    for (auto [a, b] :
         {std::pair("Crème Brûlée", "creme brulee"), {"ǅemal", "DZEMAL"}, {"ﬁ", "FI"}})
        EXPECT_TRUE(compare(normal, a, b)) << a;
    for (auto [a, b] :
         {std::pair("\xC3\xA9", "e\xCC\x81"), {"fi", "fin"}, {"fin", "fi"}, {"a", "b"}})
        EXPECT_FALSE(compare(normal, a, b)) << a;  // a lone mark stays
    EXPECT_TRUE(compare(lowerToAny, "straße ωμέγα", "STRAßE ΩΜΈΓΑ"));
    for (auto [a, b] : {std::pair("abc", "AB"), {"ab", "ABC"}, {"Abc", "abc"}})
        EXPECT_FALSE(compare(lowerToAny, a, b)) << a;
    EXPECT_DEATH(compare(lowerToAny, "ab\xC0\x80", "AB"), "'c0 == READ_EOF' failed");
    EXPECT_DEATH(compare(lowerToAny, "ab", "AB\x80"), "'c1 == READ_EOF' failed");
    EXPECT_DEATH(compare(normal, "ab\xC0\x80", "ab"), "'FALSE' failed");
}

}  // namespace
