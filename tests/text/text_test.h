// The fixture of the text tests: arrays seen as strings and vectors, UTF-8
// through the library's own encoder, and random texts.
#pragma once

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "qk/normal.h"
#include "qk/qkcommon.h"
#include "qk/unicode.h"

using Units = std::vector<UShort>;

class TextTest : public ::testing::Test {
  protected:
    static std::string Str(const ByteArray &a) { return std::string((char *)a.data, a.length); }
    static Units UnitsOf(const UShortArray &a) { return Units(a.data, a.data + a.length); }
    static const UByte *Bytes(const std::string &s) { return (const UByte *)s.data(); }
    // A ByteArray over the bytes of a string, which keeps them.
    static ByteArray View(const std::string &s) { return {(UByte *)s.data(), (UInt)s.size(), 0}; }
    static std::string Encode(const Units &units) {
        std::string text;
        for (UByte buffer[3]; UShort u : units)
            text.append((char *)buffer, WriteUTF8(buffer, u) - buffer);
        return text;
    }
    // Runs of ASCII and of two- and three-byte characters, so that the block
    // copies of the conversions meet characters at every offset.
    static Units RandomUnits(std::mt19937 &random, size_t length) {
        Units units;
        for (UInt kind = 0, run = 0; units.size() < length; run--) {
            if (run == 0) kind = random() % 4, run = 1 + random() % 24;
            units.push_back(kind <= 1   ? random() % 0x80
                            : kind == 2 ? 0x80 + random() % 0x780
                                        : 0x800 + random() % 0xF800);
        }
        return units;
    }
};
