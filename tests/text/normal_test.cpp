// Normal form of characters and texts.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "qk/normal.h"
#include "qk/qkcommon.h"
#include "qk/unicode.h"

namespace {

std::vector<UShort> Normal(UInt code) {
    UShortArray a = {};
    C2UToNormal(&a, code);
    std::vector<UShort> result(a.data, a.data + a.length);
    EXPECT_EQ(a.data[a.length], 0);
    ArrayFree(a);
    return result;
}

std::string NormalUTF(const std::string &text) {
    ByteArray out = {};
    EXPECT_TRUE(UTFPtrNormalize((const UByte *)text.data(), (UInt)text.size(), &out, 0));
    std::string result((const char *)out.data, out.length);
    EXPECT_EQ(out.data[out.length], 0);
    ArrayFree(out);
    return result;
}

using Units = std::vector<UShort>;

TEST(NormalForm, DecompositionWithoutMarksLowered) {
    EXPECT_EQ(Normal(0x00C9), Units{'e'});         // E with acute
    EXPECT_EQ(Normal(0x1EA4), Units{'a'});         // A with circumflex and acute: two levels
    EXPECT_EQ(Normal(0xFB01), (Units{'f', 'i'}));  // fi ligature
    EXPECT_EQ(Normal(0x2460), Units{'1'});         // circled digit one
    EXPECT_EQ(Normal(0x00BD), (Units{'1', 0x2044, '2'}));
    EXPECT_EQ(Normal(0x212A), Units{'k'});     // Kelvin sign, singleton then lowered
    EXPECT_EQ(Normal(0x2126), Units{0x03C9});  // Ohm sign
    EXPECT_EQ(Normal(0x0390), Units{0x03B9});  // iota with dialytika and tonos
    EXPECT_EQ(Normal(0x00A0), Units{' '});
    EXPECT_EQ(Normal(0xFF21), Units{'a'});  // fullwidth A
    // Square apaato: the katakana PA inside decomposes to HA and a combining mark.
    EXPECT_EQ(Normal(0x3300), (Units{0x30A2, 0x30CF, 0x30FC, 0x30C8}));
    EXPECT_EQ(Normal(0xFDFA).size(), 18u);  // the longest decomposition
}

TEST(NormalForm, CharactersWithoutDecomposition) {
    EXPECT_EQ(Normal('A'), Units{'a'});
    EXPECT_EQ(Normal('z'), Units{'z'});
    EXPECT_EQ(Normal(0x0416), Units{0x0436});
    EXPECT_EQ(Normal(0x4E00), Units{0x4E00});
    EXPECT_EQ(Normal(0xAC00), Units{0xAC00});  // Hangul syllables have no listed mapping
    // A lone mark has no decomposition: it stays.
    EXPECT_EQ(Normal(0x0301), Units{0x0301});
    // A character that decomposes to marks only leaves nothing.
    EXPECT_EQ(Normal(0x0344), Units{});
    EXPECT_EQ(Normal(0), Units{0});
}

TEST(NormalForm, CodesAboveSixteenBits) {
    EXPECT_EQ(Normal(0x1D400), Units{'a'});     // mathematical bold capital A
    EXPECT_EQ(Normal(0x1D7CE), Units{'0'});     // mathematical bold digit zero
    EXPECT_EQ(Normal(0x10400), Units{0xFFFD});  // Deseret, no decomposition
    EXPECT_EQ(Normal(0x2F800), Units{0x4E3D});  // compatibility ideograph to the BMP
    EXPECT_EQ(Normal(0x2F803), Units{0xFFFD});  // ... and to plane 2
    EXPECT_EQ(Normal(0x10FFFF), Units{0xFFFD});
}

TEST(NormalForm, AppendsAndStaysTerminated) {
    UShortArray a = {};
    C2UToNormal(&a, 'X');
    C2UToNormal(&a, 0xFB03);  // ffi
    EXPECT_EQ(Units(a.data, a.data + a.length), (Units{'x', 'f', 'f', 'i'}));
    EXPECT_EQ(a.data[a.length], 0);

    UShortArray s = {};
    const UShort text[] = {'A', 0x00C0, 0x2167};
    ArrayAppend(s, text, 3);
    C2UToNormalString(&a, &s);
    EXPECT_EQ(Units(a.data, a.data + a.length),
              (Units{'x', 'f', 'f', 'i', 'a', 'a', 'v', 'i', 'i', 'i'}));
    EXPECT_EQ(a.data[a.length], 0);

    ByteArray u = {};
    C2UToNormalUTF(&u, 0x00C9);
    C2UToNormalUTF(&u, 0x2474);  // parenthesized digit one
    EXPECT_EQ(std::string((const char *)u.data, u.length), "e(1)");
    EXPECT_EQ(u.data[u.length], 0);
    ArrayFree(a);
    ArrayFree(s);
    ArrayFree(u);
}

TEST(NormalizeText, UTFAndUCS2Forms) {
    EXPECT_EQ(NormalUTF("Éléphant ﬁn Ⅻ ①"), "elephant fin xii 1");
    EXPECT_EQ(NormalUTF(""), "");

    UShortArray out = {};
    ArrayAdd(out, (UShort)'#');
    std::string text = "Ça";
    ASSERT_TRUE(
        UTFPtrNormalizeToUCS2String((const UByte *)text.data(), (UInt)text.size(), &out, 1));
    EXPECT_EQ(Units(out.data, out.data + out.length), (Units{'#', 'c', 'a'}));

    const UShort units[] = {0x00C5, 0xFB00};
    ASSERT_TRUE(UCS2PtrNormalize(units, 2, &out, 0));
    EXPECT_EQ(Units(out.data, out.data + out.length), (Units{'a', 'f', 'f'}));
    EXPECT_EQ(out.data[out.length], 0);
    UShortArray source = {};
    ArrayAppend(source, units, 1);
    ASSERT_TRUE(UCS2StringNormalize(&source, &out, 1));
    EXPECT_EQ(Units(out.data, out.data + out.length), (Units{'a', 'f', 'f', 'a'}));

    UCS2CharNormalize(0x00DF, &out, 0);  // sharp s has no decomposition
    EXPECT_EQ(Units(out.data, out.data + out.length), Units{0x00DF});
    ByteArray utf = {};
    UCS2CharNormalizeToUTF(0x01C4, &utf, 0);  // DZ with caron
    UCS2CharNormalizeToUTF('Q', &utf, 1);
    EXPECT_EQ(std::string((const char *)utf.data, utf.length), "dzq");

    // Malformed text: false, with what came before the fault.
    std::string bad = "Ab\xE0\x80\x80z";
    ByteArray b = {(UByte *)bad.data(), (UInt)bad.size(), (UInt)bad.size()};
    EXPECT_FALSE(UTFStringNormalize(&b, &utf, 0));
    EXPECT_EQ(std::string((const char *)utf.data, utf.length), "ab");
    EXPECT_FALSE(UTFPtrNormalizeToUCS2String(b.data, b.length, &out, 0));
    EXPECT_EQ(Units(out.data, out.data + out.length), (Units{'a', 'b'}));
    ArrayFree(out);
    ArrayFree(source);
    ArrayFree(utf);
}

TEST(NormalizeText, NormCompare) {
    auto same = [](const std::string &a, const std::string &b) {
        return UTFPtrNormCompare((const UByte *)a.data(), (UInt)a.size(), (const UByte *)b.data(),
                                 (UInt)b.size());
    };
    EXPECT_TRUE(same("Crème Brûlée", "creme brulee"));
    EXPECT_TRUE(same("ǅemal", "DZEMAL"));
    // A lone combining mark has no decomposition and stays.
    EXPECT_FALSE(same("\xC3\xA9t\xC3\xA9", "e\xCC\x81te\xCC\x81"));
    EXPECT_TRUE(same("ﬁ", "FI"));
    EXPECT_TRUE(same("", ""));
    EXPECT_FALSE(same("fi", "fin"));
    EXPECT_FALSE(same("fin", "fi"));
    EXPECT_FALSE(same("a", "b"));
    EXPECT_DEATH(same("ab\xC0\x80", "ab"), "'FALSE' failed");
}

}  // namespace
