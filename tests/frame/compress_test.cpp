// Compress: round trips, the zlib format on both sides, preset
// dictionaries, and cut or damaged input failing cleanly.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "qk/digest.h"
#include "qk/frame.h"

namespace {

using Bytes = std::vector<UByte>;

Bytes Noise(size_t size, unsigned seed) {
    Bytes v(size);
    std::mt19937 random(seed);
    for (UByte &b : v) b = (UByte)random();
    return v;
}

Bytes Text(size_t size) {
    static const char words[] = "the quick brown fox jumps over the lazy dog; ";
    Bytes v(size);
    for (size_t i = 0; i < size; i++) v[i] = (UByte)words[(i + i / 451) % 45];
    return v;
}

class CompressTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { QKLibInit("compresstest"); }
    void SetUp() override { inflater_ = CompressNew(COMPRESS_INFLATE, nullptr, 0); }
    void TearDown() override {
        CompressDelete(inflater_);
        ArrayFree(out_);
        ArrayFree(back_);
    }

    // Deflates into out_ (emptied first).
    void Deflate(Int level, const Bytes &input, const char *dictionary = "") {
        Compress *deflater = CompressNew(level, dictionary, (UInt)strlen(dictionary));
        ArrayClear(out_);
        ASSERT_EQ(CompressDeflate(deflater, input.data(), (UInt)input.size(), &out_), 1);
        CompressDelete(deflater);
    }
    // Inflates `size` bytes into back_ (emptied first); on failure checks
    // that nothing was appended and the error is (3, 2) with `text`.
    int Inflate(const UByte *data, UInt size, const char *text = nullptr) {
        ArrayClear(back_);
        int ok = CompressInflate(inflater_, data, size, &back_);
        if (!ok) {
            EXPECT_EQ(back_.length, 0u);
            EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(QK_ERR_FORMAT, QK_DOMAIN_GENERAL));
            if (text) {
                EXPECT_STREQ(QKErrorMessage(), text);
            }
        }
        return ok;
    }
    Bytes Back() const { return Bytes(back_.data, back_.data + back_.length); }

    Compress *inflater_ = nullptr;
    ByteArray out_ = {}, back_ = {};
};

TEST_F(CompressTest, RoundTripsAtEveryLevelAndSize) {
    for (Int level : {-1, 0, 1, 9}) {
        for (size_t size : {0, 1, 100, 65536 + 7, 1 << 20}) {
            for (const Bytes &input : {Text(size), Noise(size, (unsigned)size)}) {
                Deflate(level, input);
                ASSERT_EQ(Inflate(out_.data, out_.length), 1) << QKErrorMessage();
                ASSERT_EQ(Back(), input) << "level " << level << " size " << size;
            }
        }
    }
    // Both append to what the array holds.
    ArrayClear(back_);
    ArrayAppend(back_, "ab", 2);
    ASSERT_EQ(CompressInflate(inflater_, out_.data, out_.length, &back_), 1);
    EXPECT_EQ(back_.length, (1u << 20) + 2);
    EXPECT_EQ(memcmp(back_.data, "ab", 2), 0);
}

TEST_F(CompressTest, OutputIsZlibFormatAndShrinksOnlyWhatItCan) {
    Deflate(6, Text(100000));
    EXPECT_LT(out_.length, 10000u);
    EXPECT_EQ(out_.data[0], 0x78);  // deflate, 32 KiB window
    EXPECT_EQ((out_.data[0] * 256 + out_.data[1]) % 31, 0);
    EXPECT_EQ(out_.data[1] & 0x20, 0);  // no dictionary
    Deflate(6, Noise(100000, 5));
    EXPECT_GT(out_.length, 100000u);
    EXPECT_LT(out_.length, 101000u);
}

TEST_F(CompressTest, InflatesStreamsOfOtherWriters) {
    // From another zlib user, level 9: "hello, hello, hello world\n" x 3.
    const UByte plain[] = {0x78, 0xda, 0xcb, 0x48, 0xcd, 0xc9, 0xc9, 0xd7, 0x51, 0xc8,
                           0x40, 0xa2, 0x14, 0xca, 0xf3, 0x8b, 0x72, 0x52, 0xb8, 0x32,
                           0xc8, 0x90, 0x01, 0x00, 0x42, 0xda, 0x1b, 0x73};
    // "hello world, hello world" with the preset dictionary "hello world".
    const UByte preset[] = {0x78, 0xf9, 0x1a, 0x0b, 0x04, 0x5d, 0xcb, 0x40, 0x30,
                            0x75, 0x14, 0x90, 0x38, 0x00, 0x70, 0x80, 0x09, 0x05};
    ASSERT_EQ(Inflate(plain, sizeof plain), 1);
    std::string line = "hello, hello, hello world\n";
    EXPECT_EQ(std::string(back_.data, back_.data + back_.length), line + line + line);
    EXPECT_EQ(Inflate(preset, sizeof preset, "preset dictionary missing"), 0);
    CompressSetDictionary(inflater_, "hello there", 11);
    EXPECT_EQ(Inflate(preset, sizeof preset, "preset dictionary mismatch"), 0);
    CompressSetDictionary(inflater_, "hello world", 11);
    ASSERT_EQ(Inflate(preset, sizeof preset), 1);
    EXPECT_EQ(std::string(back_.data, back_.data + back_.length), "hello world, hello world");
}

TEST_F(CompressTest, PresetDictionaryRoundTrip) {
    const char *dictionary = "the quick brown fox jumps over the lazy dog";
    const char *text = "the lazy dog jumps over the quick brown fox";
    Bytes message(text, text + strlen(text));
    Deflate(9, message);
    UInt plainSize = out_.length;
    Deflate(9, message, dictionary);
    EXPECT_NE(out_.data[1] & 0x20, 0);  // FDICT
    EXPECT_LT(out_.length + 10, plainSize);
    CompressSetDictionary(inflater_, dictionary, (UInt)strlen(dictionary));
    for (int round = 0; round < 2; round++) {  // the dictionary holds for every buffer
        ASSERT_EQ(Inflate(out_.data, out_.length), 1) << QKErrorMessage();
        EXPECT_EQ(Back(), message);
    }
}

TEST_F(CompressTest, CutStreamsAndTrailingBytesFail) {
    Deflate(-1, Text(3000));
    for (UInt cut = 0; cut < out_.length; cut++) {
        ASSERT_EQ(Inflate(out_.data, cut, "premature eof"), 0) << "cut " << cut;
    }
    ArrayAdd(out_, 'x');
    EXPECT_EQ(Inflate(out_.data, out_.length, "trailing data after compressed stream"), 0);
}

TEST_F(CompressTest, DamagedStreamsFailCleanly) {
    Bytes text = Text(5000);
    Deflate(-1, text);
    Bytes good(out_.data, out_.data + out_.length);
    std::mt19937 random(9);
    UInt failures = 0, trials = 0;
    for (size_t at = 0; at < good.size(); at++) {
        for (UByte flip : {(UByte)0xff, (UByte)(1u << (random() % 8))}) {
            Bytes bad = good;
            bad[at] ^= flip;
            trials++;
            failures += Inflate(bad.data(), (UInt)bad.size()) == 0;
        }
    }
    EXPECT_GT(failures, trials * 99 / 100);  // the checksum catches nearly all damage
    for (int i = 0; i < 200; i++) {
        Bytes noise = Noise(1 + random() % 300, random());
        EXPECT_EQ(Inflate(noise.data(), (UInt)noise.size()), 0);
    }
    ASSERT_EQ(Inflate(good.data(), (UInt)good.size()), 1);  // the object still works
    EXPECT_EQ(Back(), text);
}

}  // namespace
