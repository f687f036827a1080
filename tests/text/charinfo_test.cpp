// The per-character services: case mapping, normal form, numeric value,
// name and UTF-8, on hand-checked characters and over the whole range.
#include <set>
#include <sstream>

#include "text/text_test.h"

namespace {

// Character, lower case, upper case: pairs across scripts mapped both ways,
// one-way and title case mappings, none for sharp s and an ideograph, none
// for characters or mappings newer than version 4.0 (Glagolitic, B with
// stroke, capital sharp s, ...), the Kelvin sign and a surrogate.
const char kCases[] =
    "AaA aaA ZzZ zzZ ÉéÉ ééÉ ŸÿŸ ÿÿŸ ΑαΑ ααΑ ΣσΣ σσΣ АаА ааА ЁёЁ ёёЁ ԱաԱ աաԱ ḀḁḀ ḁḁḀ ＡａＡ ａａＡ "
    "ⒶⓐⒶ ⓐⓐⒶ ⅠⅰⅠ ⅰⅰⅠ İiİ ııI ſſS ǅǆǄ ßßß 一一一 ⰀⰀⰀ ⰰⰰⰰ ɃɃɃ ẞẞẞ ꙀꙀꙀ ƀƀƀ ႠႠႠ ××× \u3000\u3000\u3000 "
    "\uFFFD\uFFFD\uFFFD "
    "\u212Ak\u212A \xED\xA0\x80\xED\xA0\x80\xED\xA0\x80";

TEST_F(TextTest, HandCheckedCharacters) {
    UShortArray cases = {};
    ASSERT_TRUE(UTFPtrToUCS2String(Bytes(kCases), strlen(kCases), &cases, 0));
    for (UInt i = 0; i + 2 < cases.length; i += 4) {
        EXPECT_EQ(UCS2CharToLower(cases.data[i]), cases.data[i + 1]) << std::hex << cases.data[i];
        EXPECT_EQ(UCS2CharToUpper(cases.data[i]), cases.data[i + 2]) << std::hex << cases.data[i];
    }
    ArrayFree(cases);
    for (UShort d = 0; d < 10; d++)  // ASCII, Arabic-Indic and fullwidth digits
        for (UShort zero : {0x30, 0x0660, 0xFF10}) EXPECT_EQ(UCS2GetCharNumericValue(zero + d), d);
    // Code and numeric value: fractions, numerals, a negative value; none
    // for letters, surrogates, NKo digits (5.0) and codes past the table.
    const double values[] = {0x00BD,  0.5,  0x00BC,  0.25, 0x2153,   1.0 / 3, 0x2167,       8,
                             0x216F,  1000, 0x2469,  10,   0x0F33,   -0.5,    0x61,         -1,
                             0x00E9,  -1,   0xD800,  -1,   0x07C0,   -1,      0x1D7CF,      1,
                             0x10107, 1,    0x30000, -1,   0x10FFFF, -1,      4294967295.0, -1};
    for (size_t i = 0; i < std::size(values); i += 2)
        EXPECT_DOUBLE_EQ(UCS4GetCharNumericValue((UInt)values[i]), values[i + 1]) << values[i];
    // Code and name, or code alone for none: controls, ranges, surrogates,
    // private use, unassigned, newer than 4.0, past the table.
    std::istringstream names(
        "41 LATIN CAPITAL LETTER A|20 SPACE|E9 LATIN SMALL LETTER E WITH ACUTE|416 CYRILLIC "
        "CAPITAL LETTER ZHE|20AC EURO SIGN|FFFD REPLACEMENT CHARACTER|1D400 MATHEMATICAL BOLD "
        "CAPITAL A|2FA1D CJK COMPATIBILITY IDEOGRAPH-2FA1D|0|A|7F|4E00|AC00|D800|E000|378|2C00|"
        "FFFF|20000|30000|10FFFF");
    for (std::string line; std::getline(names, line, '|');) {
        char *name;
        const char *found = UCS4GetCharLetterName(strtoul(line.c_str(), &name, 16));
        EXPECT_EQ(found ? " " + std::string(found) : "", name) << line;
    }
    // Code and normal form: the full decomposition without marks, lowered;
    // codes above 0xFFFF become U+FFFD.
    std::istringstream forms(
        "C9 e|1EA4 a|FB01 fi|2460 1|BD 1⁄2|212A k|2126 ω|390 ι|A0  |FF21 a|2474 (1)|41 a|7A z|"
        "416 ж|4E00 一|AC00 가|3300 アハート|301 \xCC\x81|344 |1D400 a|1D7CE 0|10400 \xEF\xBF\xBD|"
        "2F800 丽|2F803 \xEF\xBF\xBD|10FFFF \xEF\xBF\xBD");
    for (std::string line; std::getline(forms, line, '|');) {
        char *end;
        UInt code = strtoul(line.c_str(), &end, 16);
        ByteArray utf = {};
        C2UToNormalUTF(&utf, code);
        EXPECT_EQ(" " + Str(utf) + (char)utf.data[utf.length], end + std::string(1, '\0')) << line;
        ArrayFree(utf);
    }
    UShortArray units = {};  // 0 stays; then the longest decomposition
    ByteArray utf = {};
    UCS2CharNormalize(0, &units, 0), UCS2CharNormalize(0xFDFA, &units, 1);
    UCS2CharNormalizeToUTF(0x01C4, &utf, 0), UCS2CharNormalizeToUTF('Q', &utf, 1);
    EXPECT_EQ(std::to_string(units.length) + " " + std::to_string(units.data[0]) + Str(utf),
              "19 0dzq");
    ArrayFree(units), ArrayFree(utf);
}

// ASCII against its rule; above it, many characters lower to one that uppers
// back. The 16-bit and
// 32-bit forms agree, and every name is there once: a wrong page or offset
// would show as a repeated or empty one.
TEST_F(TextTest, ServicesOverTheWholeRange) {
    int pairs = 0;
    std::set<std::string> names;
    for (UInt c = 0; c < 0x30000; c++) {
        const char *name = UCS4GetCharLetterName(c);
        if (name && !(name[0] && names.insert(name).second)) FAIL() << std::hex << c;
        if (c > 0xFFFF) continue;
        UShort l = UCS2CharToLower((UShort)c), u = UCS2CharToUpper((UShort)c);
        if (c < 128 && (l != (isupper(c) ? c + 32 : c) || u != (islower(c) ? c - 32 : c)))
            FAIL() << c;
        if (UCS2GetCharLetterName(c) != name ||
            UCS2GetCharNumericValue(c) != UCS4GetCharNumericValue(c))
            FAIL() << std::hex << c;
        pairs += c >= 128 && l != c && UCS2CharToUpper(l) == c;
    }
    EXPECT_GT(pairs, 500);
    EXPECT_GT(names.size(), 10000u);
}

TEST_F(TextTest, EveryUnitEncodesByItsLengthAndReadsBack) {
    EXPECT_EQ(Encode({0x7F, 0x80, 0x7FF, 0x800, 0xDC00, 0xFFFF}),
              "\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xED\xB0\x80\xEF\xBF\xBF");
    for (UInt c = 0; c <= 0xFFFF; c++) {
        UByte buffer[4] = {0, 0, 0, 0xAA};
        UByte *end = WriteUTF8(buffer, (UShort)c);
        const UByte *p = buffer;
        ASSERT_EQ(end - buffer, c < 0x80 ? 1 : c < 0x800 ? 2 : 3);
        ASSERT_EQ(buffer[3], 0xAA);
        ASSERT_EQ(ReadUTF8(&p, end), (Int)c);  // surrogates too
        ASSERT_EQ(p, end);
    }
    const UByte euro[] = {0xE2, 0x82, 0xAC}, *p = euro;  // the end given counts
    EXPECT_EQ(ReadUTF8(&p, euro + 2), -4);
}

}  // namespace
