// Compress: round trips at every level, the zlib format on both sides, preset
// dictionaries, and cut, damaged or foreign input failing with its reason.
#include "frame/frame_test.h"

namespace {

// Random bytes, or text that repeats with a slow drift.
Bytes Input(size_t size, bool noise) {
    Bytes v(size);
    std::mt19937 random((unsigned)size);
    for (size_t i = 0; i < size; i++) {
        v[i] = noise ? (UByte)random()
                     : "the quick brown fox jumps over the lazy dog; "[(i + i / 451) % 45];
    }
    return v;
}

class CompressTest : public FrameTest {
  protected:
    void TearDown() override { CompressDelete(inflater_), ArrayFree(out_), ArrayFree(back_); }
    // Deflates into out_: its bytes.
    Bytes Deflate(Int level, const Bytes &input, const char *dictionary = "") {
        Compress *deflater = CompressNew(level, dictionary, (UInt)strlen(dictionary));
        ArrayClear(out_);
        EXPECT_EQ(CompressDeflate(deflater, input.data(), (UInt)input.size(), &out_), 1);
        CompressDelete(deflater);
        return Bytes(out_.data, out_.data + out_.length);
    }
    // Inflates into back_, emptied first: "" on success, else the error text
    // of a format error that appended nothing.
    std::string Inflate(const Bytes &input, size_t size = ~(size_t)0) {
        ArrayClear(back_);
        size = std::min(size, input.size());
        if (CompressInflate(inflater_, input.data(), (UInt)size, &back_)) return "";
        EXPECT_TRUE(back_.length == 0 &&
                    QKErrorCode() == QK_ERROR_CODE(QK_ERR_FORMAT, QK_DOMAIN_GENERAL));
        return QKErrorMessage();
    }
    Bytes Back() const { return Bytes(back_.data, back_.data + back_.length); }

    Compress *inflater_ = CompressNew(COMPRESS_INFLATE, nullptr, 0);
    ByteArray out_ = {}, back_ = {};
};

class CompressLevelTest : public CompressTest, public ::testing::WithParamInterface<Int> {};

// Every size comes back. The output is a zlib stream (deflate, 32 KiB
// window, no dictionary); what can shrink does, what cannot grows a little.
// Inflating appends to what the array holds.
TEST_P(CompressLevelTest, RoundTripsEverySizeInTheZlibFormat) {
    Bytes input;
    for (size_t size : {0, 1, 100, 65536 + 7, 1 << 20}) {
        for (bool noise : {false, true}) {
            input = Input(size, noise);
            Bytes out = Deflate(GetParam(), input);
            ASSERT_EQ(Inflate(out), "");
            ASSERT_EQ(Back(), input) << "size " << size;
            EXPECT_EQ(std::tuple(out[0], (out[0] * 256 + out[1]) % 31, out[1] & 0x20),
                      std::tuple(0x78, 0, 0));
            const size_t most = noise || GetParam() == 0 ? size + size / 100 + 20 : size / 10 + 64;
            EXPECT_TRUE(out.size() < most && (!noise || out.size() > size)) << out.size();
        }
    }
    ArrayClear(back_);
    ArrayAppend(back_, "ab", 2);
    ASSERT_EQ(CompressInflate(inflater_, out_.data, out_.length, &back_), 1);
    EXPECT_EQ(Text(back_), "ab" + std::string(input.begin(), input.end()));
}

INSTANTIATE_TEST_SUITE_P(Levels, CompressLevelTest, ::testing::Values(-1, 0, 1, 9));

// From another zlib writer: "hello, hello, hello world\n" x 3 at level 9, and
// "hello world, hello world" with the preset dictionary "hello world". Our
// own stream with a dictionary says so, and the dictionary holds for every
// buffer.
TEST_F(CompressTest, PresetDictionaries) {
    const Bytes plain = {0x78, 0xda, 0xcb, 0x48, 0xcd, 0xc9, 0xc9, 0xd7, 0x51, 0xc8,
                         0x40, 0xa2, 0x14, 0xca, 0xf3, 0x8b, 0x72, 0x52, 0xb8, 0x32,
                         0xc8, 0x90, 0x01, 0x00, 0x42, 0xda, 0x1b, 0x73};
    const Bytes preset = {0x78, 0xf9, 0x1a, 0x0b, 0x04, 0x5d, 0xcb, 0x40, 0x30,
                          0x75, 0x14, 0x90, 0x38, 0x00, 0x70, 0x80, 0x09, 0x05};
    const std::string line = "hello, hello, hello world\n";
    const std::tuple<const Bytes &, const char *, std::string, std::string> cases[] = {
        {plain, "", line + line + line, ""},
        {preset, "", "", "preset dictionary missing"},
        {preset, "hello there", "", "preset dictionary mismatch"},
        {preset, "hello world", "hello world, hello world", ""}};
    for (const auto &[input, dictionary, expected, error] : cases) {
        CompressSetDictionary(inflater_, dictionary, (UInt)strlen(dictionary));
        EXPECT_EQ(Inflate(input), error) << dictionary;
        EXPECT_EQ(Text(back_), expected);
    }
    const char *dictionary = "the quick brown fox jumps over the lazy dog";
    Bytes message = Input(300, false), out = Deflate(9, message, dictionary);
    EXPECT_NE(out[1] & 0x20, 0);  // FDICT
    CompressSetDictionary(inflater_, dictionary, (UInt)strlen(dictionary));
    for (int round = 0; round < 2; round++) EXPECT_TRUE(Inflate(out) == "" && Back() == message);
}

// Every cut is "premature eof"; the checksum catches nearly all damage;
// noise fails; the object still works after all that.
TEST_F(CompressTest, CutDamagedAndTrailingInputFails) {
    Bytes text = Input(5000, false), good = Deflate(-1, text), longer = good;
    for (UInt cut = 0; cut < good.size(); cut++)
        ASSERT_EQ(Inflate(good, cut), "premature eof") << cut;
    longer.push_back('x');
    EXPECT_EQ(Inflate(longer), "trailing data after compressed stream");
    std::mt19937 random(9);
    UInt failures = 0;
    for (size_t at = 0; at < good.size(); at++) {
        Bytes bad = good;
        bad[at] ^= (UByte)(1u << (random() % 8));
        failures += Inflate(bad) != "";
    }
    EXPECT_GT(failures, good.size() * 99 / 100);
    for (int i = 0; i < 200; i++) EXPECT_NE(Inflate(Input(1 + random() % 300, true)), "");
    EXPECT_TRUE(Inflate(good) == "" && Back() == text);
}

}  // namespace
