// Case mapping: the tables on hand-checked pairs, and the text operations.
#include <gtest/gtest.h>

#include <string>

#include "qk/qkcommon.h"
#include "qk/unicode.h"

namespace {

std::string Str(const ByteArray &a) {
    return std::string((const char *)a.data, a.length);
}

ByteArray View(const std::string &s) {
    return {(UByte *)s.data(), (UInt)s.size(), (UInt)s.size()};
}

TEST(CaseTables, HandCheckedPairsAcrossScripts) {
    struct Pair {
        UShort upper, lower;
    } pairs[] = {
        {'A', 'a'},       {'Z', 'z'},       {0x00C9, 0x00E9}, {0x0178, 0x00FF},  // Latin
        {0x0391, 0x03B1}, {0x03A3, 0x03C3}, {0x0410, 0x0430}, {0x0401, 0x0451},  // Greek, Cyrillic
        {0x0531, 0x0561},                                                        // Armenian
        {0x1E00, 0x1E01}, {0xFF21, 0xFF41}, {0x24B6, 0x24D0}, {0x2160, 0x2170},  // more blocks
    };
    for (const Pair &p : pairs) {
        EXPECT_EQ(UCS2CharToLower(p.upper), p.lower) << std::hex << p.upper;
        EXPECT_EQ(UCS2CharToUpper(p.lower), p.upper) << std::hex << p.lower;
    }
    // One-way mappings.
    EXPECT_EQ(UCS2CharToLower(0x0130), 'i');     // capital I with dot above
    EXPECT_EQ(UCS2CharToUpper(0x0131), 'I');     // dotless i
    EXPECT_EQ(UCS2CharToUpper(0x017F), 'S');     // long s
    EXPECT_EQ(UCS2CharToLower(0x212A), 'k');     // Kelvin sign
    EXPECT_EQ(UCS2CharToUpper(0x00DF), 0x00DF);  // sharp s has no one-character capital
    EXPECT_EQ(UCS2CharToLower(0x4E00), 0x4E00);  // ideograph
    EXPECT_EQ(UCS2CharToUpper(0x01C5), 0x01C4);  // title case DZ with caron
    EXPECT_EQ(UCS2CharToLower(0x01C5), 0x01C6);
}

TEST(CaseTables, AsciiRoundTripAndNonLettersStay) {
    for (UShort c = 0; c < 128; c++) {
        bool upper = c >= 'A' && c <= 'Z', lower = c >= 'a' && c <= 'z';
        EXPECT_EQ(UCS2CharToLower(c), upper ? c + 32 : c);
        EXPECT_EQ(UCS2CharToUpper(c), lower ? c - 32 : c);
        EXPECT_EQ(UCS2CharToLower(UCS2CharToUpper(c)), upper ? c + 32 : c);
    }
    for (UShort c : {0x0020, 0x00D7, 0x00F7, 0x3000, 0xD800, 0xE000, 0xFFFD, 0xFFFF})
        EXPECT_EQ(UCS2CharToLower(c), c);
}

TEST(CaseTables, CharactersAndMappingsAfterVersionFourStayThemselves) {
    // Glagolitic (4.1), Latin capital B with stroke (5.0), capital sharp s (5.1).
    for (UShort c : {0x2C00, 0x2C30, 0x0243, 0x1E9E, 0xA640}) {
        EXPECT_EQ(UCS2CharToLower(c), c) << std::hex << c;
        EXPECT_EQ(UCS2CharToUpper(c), c) << std::hex << c;
    }
    // Small b with stroke is old, but its capital came with 5.0; the small
    // forms of the Georgian capitals came with 4.1.
    EXPECT_EQ(UCS2CharToUpper(0x0180), 0x0180);
    EXPECT_EQ(UCS2CharToLower(0x10A0), 0x10A0);
}

TEST(CaseTables, MappingsAreInversesOnCasedPairs) {
    // Every character that lowers to another one that uppers back forms a
    // pair; check that such pairs agree in both directions across the range.
    int pairs = 0;
    for (UInt c = 128; c <= 0xFFFF; c++) {
        UShort l = UCS2CharToLower((UShort)c);
        if (l == c || UCS2CharToUpper(l) != c) continue;
        pairs++;
        EXPECT_EQ(UCS2CharToLower(UCS2CharToUpper(l)), l);
    }
    EXPECT_GT(pairs, 500);
}

TEST(CaseText, UTFLowerUpperAndCapitalize) {
    std::string text = "Àb ÇΣ Жx İ";
    ByteArray source = View(text), out = {};
    ASSERT_TRUE(UTFStringLowercase(&source, &out, 0));
    EXPECT_EQ(Str(out), "àb çσ жx i");
    ASSERT_TRUE(UTFPtrLowercase(source.data, 2, &out, 1));
    EXPECT_EQ(Str(out), "àb çσ жx ià");
    ASSERT_TRUE(UTFStringToUpper(&source, &out, 0));
    EXPECT_EQ(Str(out), "ÀB ÇΣ ЖX İ");
    EXPECT_EQ(out.data[out.length], 0);

    std::string word = "élan Élan";
    ByteArray w = View(word);
    ASSERT_TRUE(UTFStringFirstCapitalize(&w, &out, 0));
    EXPECT_EQ(Str(out), "Élan Élan");

    // Malformed text: false, with what came before the fault.
    std::string bad = "AbC\xC0\x80xyz";
    ByteArray b = View(bad);
    EXPECT_FALSE(UTFStringLowercase(&b, &out, 0));
    EXPECT_EQ(Str(out), "abc");
    ArrayFree(out);
}

TEST(CaseText, FirstCapitalizeOfEmptyTextAddsNothing) {
    ByteArray empty = {}, out = {};
    ASSERT_TRUE(UTFStringFirstCapitalize(&empty, &out, 0));
    EXPECT_EQ(out.length, 0u);
    ArrayAppend(out, "ab", 2);
    ASSERT_TRUE(UTFStringFirstCapitalize(&empty, &out, 1));
    EXPECT_EQ(Str(out), "ab");
    ArrayFree(out);
}

TEST(CaseText, UCS2Forms) {
    const UShort text[] = {'A', 0x0416, 0x03A3, 0x4E00, 0xFF21};
    UShortArray out = {};
    ArrayAdd(out, (UShort)'x');
    ASSERT_TRUE(UCS2PtrLowercase(text, 5, &out, 1));
    EXPECT_EQ(std::vector<UShort>(out.data, out.data + out.length),
              (std::vector<UShort>{'x', 'a', 0x0436, 0x03C3, 0x4E00, 0xFF41}));
    UShortArray source = {};
    ArrayAppend(source, text, 2);
    ASSERT_TRUE(UCS2StringLowercase(&source, &out, 0));
    EXPECT_EQ(std::vector<UShort>(out.data, out.data + out.length),
              (std::vector<UShort>{'a', 0x0436}));

    ByteArray utf = {};
    ArrayAppend(utf, "junk", 4);
    ASSERT_TRUE(UCS2PtrUTFLowercase(text, 5, &utf));
    EXPECT_EQ(Str(utf), "aжσ一ａ");
    EXPECT_EQ(utf.data[utf.length], 0);
    ArrayFree(out);
    ArrayFree(source);
    ArrayFree(utf);
}

TEST(CaseText, LowerToAnyCompare) {
    auto compare = [](const std::string &lower, const std::string &any) {
        return UTFStringLowerToAnyCompare((const UByte *)lower.data(), (UInt)lower.size(),
                                          (const UByte *)any.data(), (UInt)any.size());
    };
    EXPECT_TRUE(compare("straße ωμέγα", "STRAßE ΩΜΈΓΑ"));
    EXPECT_TRUE(compare("", ""));
    EXPECT_FALSE(compare("abc", "ABD"));
    EXPECT_FALSE(compare("abc", "AB"));
    EXPECT_FALSE(compare("ab", "ABC"));
    // The first text is not lowered.
    EXPECT_FALSE(compare("Abc", "abc"));
    EXPECT_DEATH(compare("ab\xC0\x80", "AB"), "'c0 == READ_EOF' failed");
    EXPECT_DEATH(compare("ab", "AB\x80"), "'c1 == READ_EOF' failed");
}

}  // namespace
