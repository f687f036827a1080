// HashDict images: memory and file forms, in place and copied, the swapped
// form, and damaged images, which must be refused without harm.
#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <vector>

#include "container/hash_internal.h"
#include "frame/file_test_dir.h"
#include "qk/qkcommon.h"

namespace {

class HashDictImageTest : public ::testing::Test {
  protected:
    void SetUp() override {
        QKLibInit("hashdictimagetest");
        for (UInt i = 0; i < 700; i++) keys_.push_back("image/" + std::to_string(i * 13) + "/k");
    }

    static UInt GetKey(void *dict, UInt index, const void **bytes) {
        const std::string &key = (*(std::vector<std::string> *)dict)[index];
        *bytes = key.data();
        return (UInt)key.size();
    }

    HashDict *Build(UInt probe) {
        return HashDictBuild((UInt)keys_.size(), &keys_, GetKey, nullptr, 0, probe, 0);
    }

    // Every key finds its index; a stranger is refused when there are probes.
    void ExpectWorks(const HashDict *hdict, UInt probe) {
        ASSERT_NE(hdict, nullptr);
        EXPECT_EQ(HashDictSize(hdict), keys_.size());
        for (UInt i = 0; i < keys_.size(); i++)
            EXPECT_EQ(HashDictFind(hdict, keys_[i].data(), (UInt)keys_[i].size()), (Long)i);
        if (probe) {
            EXPECT_EQ(HashDictFind(hdict, "image/1/k", 9), HASHDICT_ABSENT);
        }
    }

    static std::string Image(const HashDict *hdict) {
        size_t size;
        const char *p = (const char *)HashDictImage(hdict, &size);
        return std::string(p, size);
    }

    std::vector<std::string> keys_;
};

TEST_F(HashDictImageTest, MemoryFormRoundTripsInPlaceAndAligned) {
    HashDict *a = Build(2);
    HashDict *b = Build(0);
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    // Two forms behind 3 bytes of something else: each starts on a multiple
    // of 8, its length in front.
    ByteArray memory = {};
    ArrayAppend(memory, "abc", 3);
    HashDictMMWrite(a, &memory);
    UInt second = memory.length;
    HashDictMMWrite(b, &memory);
    EXPECT_EQ(memory.data[3], 0);
    ULong sizeA = HashDictFileSize(a);
    EXPECT_EQ(sizeA, 8 + Image(a).size());
    ULong length = 0;
    for (int i = 7; i >= 0; i--) length = length << 8 | memory.data[8 + i];
    EXPECT_EQ(length, Image(a).size());
    EXPECT_EQ(second, 8 + sizeA);
    EXPECT_EQ(memory.length, ((second + 7) & ~7u) + HashDictFileSize(b));

    size_t offset = 3;
    HashDict *readA = HashDictMMRead(memory.data, &offset, memory.length);
    ExpectWorks(readA, 2);
    EXPECT_EQ(offset, 8 + sizeA);
    // In place: the image is the caller's memory.
    EXPECT_EQ(HashDictImage(readA, nullptr), memory.data + 16);
    EXPECT_EQ(Image(readA), Image(a));
    HashDict *readB = HashDictMMRead(memory.data, &offset, memory.length);
    ExpectWorks(readB, 0);
    EXPECT_EQ(offset, memory.length);
    EXPECT_EQ(Image(readB), Image(b));
    // Past the end: refused, offset unchanged.
    EXPECT_EQ(HashDictMMRead(memory.data, &offset, memory.length), nullptr);
    EXPECT_EQ(offset, memory.length);
    HashDictMMFree(readA);
    HashDictMemClose(readB);
    HashDictFree(a);
    HashDictMemClose(b);
    ArrayFree(memory);
}

TEST_F(HashDictImageTest, SwappedFormReversesEveryElement) {
    HashDict *hdict = Build(3);
    ByteArray straight = {}, swapped = {};
    HashDictMMWrite(hdict, &straight);
    HashDictMMWriteSwapped(hdict, &swapped);
    ASSERT_EQ(straight.length, swapped.length);
    // The elements: length, header fields, map, random numbers, value
    // words, probe groups.
    std::vector<UInt> widths = {8, 4, 4, 2, 2, 2, 2, 8, 8, 8, 8};
    widths.insert(widths.end(), 256, 2);
    auto le = [&](size_t at) {
        ULong v = 0;
        for (UInt i = 8; i-- > 0;) v = v << 8 | straight.data[8 + at + i];
        return v;
    };
    widths.insert(widths.end(), le(24) / 4, 4);
    widths.insert(widths.end(), le(32) / 8, 8);
    widths.insert(widths.end(), le(40) / 3, 3);
    size_t at = 0;
    for (UInt width : widths) {
        for (UInt k = 0; k < width; k++)
            ASSERT_EQ(swapped.data[at + k], straight.data[at + width - 1 - k]) << at;
        at += width;
    }
    EXPECT_EQ(at, straight.length);
    size_t offset = 0;  // a reader of this byte order refuses it
    EXPECT_EQ(HashDictMMRead(swapped.data, &offset, swapped.length), nullptr);
    ArrayFree(straight);
    ArrayFree(swapped);
    HashDictFree(hdict);
}

TEST_F(HashDictImageTest, FilesThroughChannelsAndMappings) {
    TempDir dir;
    HashDict *hdict = Build(1);
    ASSERT_NE(hdict, nullptr);

    // Named file, mapped and used in place.
    ASSERT_EQ(HashDictWrite(hdict, dir.Path().c_str(), "words", "hd"), 1) << QKErrorMessage();
    EXPECT_EQ(FileSize((dir / "words.hd").c_str()), HashDictFileSize(hdict));
    HashDict *opened = HashDictOpen(dir.Path().c_str(), "words", "hd");
    ExpectWorks(opened, 1);
    EXPECT_EQ(Image(opened), Image(hdict));
    EXPECT_NE(opened->h_file, nullptr);
    HashDictClose(opened);
    // Closing is for mapped dictionaries only.
    EXPECT_DEATH(HashDictClose(hdict), "'hdict->h_file != NULL' failed");
    opened = HashDictOpen(dir.Path().c_str(), "words", "hd");
    HashDictMemClose(opened);

    // Through a channel, two forms one after the other, read back copied.
    std::string path = dir / "two.bin";
    Channel *channel = ChannelNew(-1, -1);
    ASSERT_EQ(ChannelOpenFile(channel, path.c_str(), "w"), 1);
    ASSERT_EQ(HashDictFileWrite(hdict, channel), 1);
    ASSERT_EQ(HashDictFileWrite(hdict, channel), 1);
    ASSERT_EQ(ChannelClose(channel), 1);
    channel = ChannelNew(-1, -1);
    ASSERT_EQ(ChannelOpenFile(channel, path.c_str(), "r"), 1);
    HashDict *first = HashDictFileRead(channel);
    HashDict *second = HashDictFileRead(channel);
    ExpectWorks(first, 1);
    ExpectWorks(second, 1);
    EXPECT_EQ(Image(second), Image(hdict));
    // At the end of the file: refused.
    EXPECT_EQ(HashDictFileRead(channel), nullptr);
    ChannelClose(channel);
    HashDictFree(first);
    HashDictMemClose(second);

    // A cut file is refused, by both readers.
    std::string whole = ReadWhole(dir / "words.hd");
    WriteWhole(dir / "cut.hd", whole.substr(0, whole.size() - 5));
    EXPECT_EQ(HashDictOpen(dir.Path().c_str(), "cut", "hd"), nullptr);
    EXPECT_NE(std::string(QKErrorMessage()).find("error reading cut.hd"), std::string::npos)
        << QKErrorMessage();
    channel = ChannelNew(-1, -1);
    ASSERT_EQ(ChannelOpenFile(channel, (dir / "cut.hd").c_str(), "r"), 1);
    EXPECT_EQ(HashDictFileRead(channel), nullptr);
    EXPECT_STREQ(QKErrorMessage(), "premature eof");
    ChannelClose(channel);
    // Missing and empty files.
    EXPECT_EQ(HashDictOpen(dir.Path().c_str(), "missing", "hd"), nullptr);
    WriteWhole(dir / "empty.hd", "");
    EXPECT_EQ(HashDictOpen(dir.Path().c_str(), "empty", "hd"), nullptr);
    EXPECT_EQ(HashDictWrite(hdict, (dir / "no/such").c_str(), "x", "hd"), 0);
    EXPECT_NE(std::string(QKErrorMessage()).find("error opening"), std::string::npos);
    HashDictFree(hdict);
}

// Damaged forms: every truncation is refused; flipped bits are refused or
// give a dictionary whose lookups stay within its memory (ASan watches).
TEST_F(HashDictImageTest, DamagedImagesAreRefusedWithoutHarm) {
    for (UInt probe : {0u, 2u}) {
        HashDict *hdict = Build(probe);
        ASSERT_NE(hdict, nullptr);
        ByteArray form = {};
        HashDictMMWrite(hdict, &form);
        for (UInt cut = 0; cut < form.length; cut++) {
            // A copy of exactly `cut` bytes, so that reading past it is seen.
            std::vector<UByte> part(form.data, form.data + cut);
            size_t offset = 0;
            ASSERT_EQ(HashDictMMRead(part.data(), &offset, part.size()), nullptr) << cut;
            EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(QK_ERR_FORMAT, QK_DOMAIN_GENERAL));
            EXPECT_EQ(offset, 0u);
        }
        UInt state = 987654321;
        auto next = [&] { return state = state * 1664525u + 1013904223u; };
        int refused = 0, accepted = 0;
        for (int round = 0; round < 4000; round++) {
            std::vector<UByte> damaged(form.data, form.data + form.length);
            // Mostly the header and the map, where a bad number does most harm.
            for (int k = 0; k < 1 + round % 4; k++) {
                UInt span = round % 2 ? (UInt)damaged.size() : 8 + 48 + 512;
                UInt at = (next() >> 8) % span;
                damaged[at] =
                    round % 5 == 0 ? (UByte)(next() >> 24) : damaged[at] ^ (1 << (next() >> 29));
            }
            size_t offset = 0;
            HashDict *bad = HashDictMMRead(damaged.data(), &offset, damaged.size());
            if (!bad) {
                refused++;
                continue;
            }
            accepted++;
            for (UInt i = 0; i < keys_.size(); i += 7)
                HashDictFind(bad, keys_[i].data(), (UInt)keys_[i].size());
            HashDictFind(bad, "", 0);
            std::string odd(HashDictMaxLength(bad), '\x7F');
            HashDictFind(bad, odd.data(), (UInt)odd.size());
            HashDictMMFree(bad);
        }
        EXPECT_GT(refused, 500);
        EXPECT_GT(accepted, 100);
        ArrayFree(form);
        HashDictFree(hdict);
    }
}

// Chosen damage: each header field given an impossible value.
// Chosen damage: header fields given impossible values, and a random
// number not below m.
TEST_F(HashDictImageTest, ImpossibleFieldsAreRefused) {
    HashDict *hdict = Build(2);
    ByteArray form = {};
    HashDictMMWrite(hdict, &form);
    const struct {
        size_t at;
        UInt width;
        ULong value;
    } fields[] = {
        {0, 4, 0xFFFFFFFF},
        {4, 4, 2},
        {4, 4, 0x80000000},
        {10, 2, 0},
        {10, 2, 33},
        {12, 2, 257},
        {14, 2, 9},
        {16, 8, 1024},
        {24, 8, ~(ULong)0},
        {32, 8, 8},
        {40, 8, 1ull << 62},
        {48 + 2 * 'i', 2, 0x7FFF},
        {48 + 512 + 20, 4, hdict->h_m},
    };
    for (const auto &f : fields) {
        std::vector<UByte> bad(form.data, form.data + form.length);
        for (UInt i = 0; i < f.width; i++) bad[8 + f.at + i] = (UByte)(f.value >> (8 * i));
        size_t offset = 0;
        EXPECT_EQ(HashDictMMRead(bad.data(), &offset, bad.size()), nullptr) << f.at;
        EXPECT_NE(std::string(QKErrorMessage()).find("bad format"), std::string::npos);
    }
    ArrayFree(form);
    HashDictFree(hdict);
}

}  // namespace
