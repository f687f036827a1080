// Numeric values and names of characters.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "qk/qkcommon.h"
#include "qk/unicode.h"

namespace {

TEST(NumericValue, DigitsFractionsAndNumerals) {
    for (UShort d = 0; d < 10; d++) {
        EXPECT_EQ(UCS2GetCharNumericValue('0' + d), d);
        EXPECT_EQ(UCS2GetCharNumericValue(0x0660 + d), d);  // Arabic-Indic
        EXPECT_EQ(UCS2GetCharNumericValue(0xFF10 + d), d);  // fullwidth
    }
    EXPECT_EQ(UCS2GetCharNumericValue(0x00BD), 0.5);
    EXPECT_EQ(UCS2GetCharNumericValue(0x00BC), 0.25);
    EXPECT_DOUBLE_EQ(UCS2GetCharNumericValue(0x2153), 1.0 / 3);
    EXPECT_EQ(UCS2GetCharNumericValue(0x2167), 8.0);     // Roman numeral eight
    EXPECT_EQ(UCS2GetCharNumericValue(0x216F), 1000.0);  // Roman numeral one thousand
    EXPECT_EQ(UCS2GetCharNumericValue(0x2469), 10.0);    // circled ten
    EXPECT_EQ(UCS2GetCharNumericValue(0x0F33), -0.5);    // Tibetan half zero
}

TEST(NumericValue, NonNumericAndOutOfRange) {
    for (UShort c : {0x61, 0x20, 0x00E9, 0x0416, 0xFFFF, 0xD800})
        EXPECT_EQ(UCS2GetCharNumericValue(c), -1.0) << std::hex << c;
    // Added after 4.0: NKo digit zero (5.0).
    EXPECT_EQ(UCS2GetCharNumericValue(0x07C0), -1.0);
    EXPECT_EQ(UCS4GetCharNumericValue(0x1D7CF), 1.0);  // mathematical bold digit one
    EXPECT_EQ(UCS4GetCharNumericValue(0x10107), 1.0);  // Aegean number one
    EXPECT_EQ(UCS4GetCharNumericValue(0x30000), -1.0);
    EXPECT_EQ(UCS4GetCharNumericValue(0x10FFFF), -1.0);
    EXPECT_EQ(UCS4GetCharNumericValue(0xFFFFFFFFu), -1.0);
    // The 16-bit and 32-bit forms agree on the common range.
    for (UInt c = 0; c <= 0xFFFF; c += 7)
        ASSERT_EQ(UCS4GetCharNumericValue(c), UCS2GetCharNumericValue((UShort)c));
}

TEST(LetterName, NamesAndCharactersWithout) {
    EXPECT_STREQ(UCS2GetCharLetterName(0x0041), "LATIN CAPITAL LETTER A");
    EXPECT_STREQ(UCS2GetCharLetterName(0x0020), "SPACE");
    EXPECT_STREQ(UCS2GetCharLetterName(0x00E9), "LATIN SMALL LETTER E WITH ACUTE");
    EXPECT_STREQ(UCS2GetCharLetterName(0x0416), "CYRILLIC CAPITAL LETTER ZHE");
    EXPECT_STREQ(UCS2GetCharLetterName(0x20AC), "EURO SIGN");
    EXPECT_STREQ(UCS2GetCharLetterName(0xFFFD), "REPLACEMENT CHARACTER");
    EXPECT_STREQ(UCS4GetCharLetterName(0x1D400), "MATHEMATICAL BOLD CAPITAL A");
    EXPECT_STREQ(UCS4GetCharLetterName(0x2FA1D), "CJK COMPATIBILITY IDEOGRAPH-2FA1D");
    // Controls, ranges, surrogates, private use, unassigned, newer than 4.0.
    for (UInt c : {0x00u, 0x0Au, 0x7Fu, 0x4E00u, 0xAC00u, 0xD800u, 0xE000u, 0x0378u, 0x2C00u,
                   0xFFFFu, 0x20000u, 0x30000u, 0x10FFFFu})
        EXPECT_EQ(UCS4GetCharLetterName(c), nullptr) << std::hex << c;
}

TEST(LetterName, NamesAreDistinct) {
    // Every named character has its own name: a wrong page or offset would
    // show as a repeated or empty one.
    std::set<std::string> names;
    UInt named = 0;
    for (UInt c = 0; c < 0x30000; c++) {
        const char *name = UCS4GetCharLetterName(c);
        if (!name) continue;
        ASSERT_NE(name[0], '\0');
        ASSERT_TRUE(names.insert(name).second) << name;
        if (c <= 0xFFFF) {
            ASSERT_EQ(UCS2GetCharLetterName((UShort)c), name);
        }
        named++;
    }
    EXPECT_GT(named, 10000u);
}

}  // namespace
