// The metadata layouts, byte for byte: packed arrays and the four records.
#include "arena/arena_format.h"
#include "arena_test_util.h"

using namespace arenatest;
using namespace qk::arena;

namespace {

class ArenaFormatTest : public ::testing::Test {
  protected:
    void SetUp() override { QKLibInit("arenaformattest"); }
    // Runs `read(channel)` on a channel over `bytes`.
    template <typename F>
    bool Decodes(const std::string &bytes, F read) {
        Channel *channel = Reading(dir, bytes);
        bool ok = read(channel);
        ChannelClose(channel);
        return ok;
    }
    TempDir dir;
};

TEST_F(ArenaFormatTest, PackedArraysTakeTheWidthOfTheLargestValue) {
    const ULong values[] = {0,
                            0xFF,
                            0x100,
                            0xFFFF,
                            0x10000,
                            0xFFFFFF,
                            0x1000000,
                            0xFFFFFFFF,
                            0x100000000,
                            0xFFFFFFFFFF,
                            0x10000000000,
                            0xFFFFFFFFFFFF,
                            0x1000000000000,
                            ~0ull};
    const UInt widths[] = {1, 1, 2, 2, 3, 3, 4, 4, 5, 5, 6, 6, 8, 8};
    for (int i = 0; i < 14; i++) EXPECT_EQ(PackedWidth(values[i]), widths[i]) << values[i];

    ULong wide[] = {1, 0x100000000, 0};
    EXPECT_EQ(Encoded(dir, [&](Channel *c) { return PackedWrite(c, wide, 3); }),
              Packed(5, {1, 0x100000000, 0}));
    UInt narrow[] = {0x100, 1};
    EXPECT_EQ(Encoded(dir, [&](Channel *c) { return PackedWrite(c, narrow, 2); }),
              std::string("\x02\x02\0\0\0\0\x01\x01\0", 9));
    EXPECT_EQ(Encoded(dir, [&](Channel *c) { return PackedWrite(c, narrow, 0); }),
              std::string("\x01\0\0\0\0", 5));

    // Any width up to 8 reads into either element type; 32-bit elements
    // keep the low half.
    UIntArray u = {}, u5 = {};
    ULongArray l = {};
    ASSERT_TRUE(Decodes(
        Packed(3, {0xABCDEF, 7}) + Packed(5, {0x1200000034}) + Packed(8, {~0ull}), [&](Channel *c) {
            return PackedRead(c, &u) && PackedRead(c, &u5) && PackedRead(c, &l) && ExpectEnd(c);
        }));
    ASSERT_TRUE(u.length == 2 && u5.length == 1 && l.length == 1);
    EXPECT_EQ(u.data[0], 0xABCDEFu);
    EXPECT_EQ(u.data[1], 7u);
    EXPECT_EQ(u5.data[0], 0x34u);
    EXPECT_EQ(l.data[0], ~0ull);

    for (int width : {0, 9}) {
        EXPECT_FALSE(
            Decodes(LE(width, 1) + LE(0, 4), [&](Channel *c) { return PackedRead(c, &l); }));
        EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(QK_ERR_FORMAT, QK_DOMAIN_GENERAL));
    }
    EXPECT_FALSE(
        Decodes(Packed(2, {1, 2}).substr(0, 8), [&](Channel *c) { return PackedRead(c, &l); }));
    EXPECT_STREQ(QKErrorMessage(), "could not read data: read EOF");
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(QK_ERR_EOF, QK_DOMAIN_GENERAL));
    EXPECT_FALSE(Decodes("x", ExpectEnd));
    ArrayFree(u);
    ArrayFree(u5);
    ArrayFree(l);
}

TEST_F(ArenaFormatTest, ArenaRecordsByteForByte) {
    // A new generation of two arrays with some of every field set.
    VMArenaRW rw;
    VMArenaRWInit(&rw);
    ArrayAdd(rw.freeBlock[0], 0x1234);
    ArrayAdd(rw.freeBlock[0], 5);
    ArrayAdd(rw.freeBlock[15], 0x100000000);
    rw.partial[2] = {5, 7};
    ArrayAdd(rw.freeArrays, 3);
    VMAArray a, b;
    VMAArrayRecordInit(&a, FULL_ARRAY_TYPE, 13);
    VMAArrayRecordInit(&b, FULL_BLOCK_ARRAY_TYPE, 10);
    int ok = 1;
    for (ULong id : {0x10Full, 0x20Full}) FArrayAdd(a.blockID, &id, &ok);
    a.length = 300;
    FArrayAdd(rw.array, &a, &ok);
    FArrayAdd(rw.array, &b, &ok);

    std::string expected = Packed(2, {0x1234, 5});
    for (int c = 1; c < 15; c++) expected += Packed(1, {});
    expected += Packed(5, {0x100000000});
    for (int c = 0; c < 16; c++) expected += c == 2 ? LE(5, 4) + LE(7, 4) : LE(~0u, 4) + LE(0, 4);
    expected += Packed(1, {3}) + LE(2, 8);
    expected += Raw(8, {0x10F, 0x20F}) + LE(300, 4) + LE(1, 1) + LE(13, 1);
    expected += Raw(8, {}) + LE(0, 4) + LE(4, 1) + LE(10, 1);
    std::string newGen = Encoded(dir, [&](Channel *c) { return ArenaNewGenEncode(c, &rw); });
    EXPECT_EQ(newGen, expected);
    EXPECT_EQ(Encoded(dir, [&](Channel *c) { return ArenaOldGenEncode(c, &rw); }),
              Packed(2, {0x10F, 0x20F}) + Packed(1, {0, 2, 2}) + Packed(2, {300, 0}) + LE(2, 4) +
                  "\x01\x04");

    // Reading gives back what was written; a cut anywhere fails.
    VMArenaRWClear(&rw);
    ASSERT_TRUE(Decodes(newGen, [&](Channel *c) { return ArenaNewGenDecode(c, &rw); }));
    EXPECT_EQ(Encoded(dir, [&](Channel *c) { return ArenaNewGenEncode(c, &rw); }), newGen);
    for (size_t cut : {size_t(3), newGen.size() / 2, newGen.size() - 1}) {
        EXPECT_FALSE(
            Decodes(newGen.substr(0, cut), [&](Channel *c) { return ArenaNewGenDecode(c, &rw); }));
        EXPECT_TRUE(StartsWith(QKErrorMessage(), "could not read data")) << QKErrorMessage();
    }
    newGen[newGen.size() - 2] = 5;  // array 1's type
    EXPECT_FALSE(Decodes(newGen, [&](Channel *c) { return ArenaNewGenDecode(c, &rw); }));
    EXPECT_STREQ(QKErrorMessage(), "invalid array 1");
    VMArenaRWFree(&rw);

    VMArenaR r;
    VMArenaRInit(&r);
    ASSERT_TRUE(Decodes(
        Packed(1, {9, 8, 7}) + Packed(1, {0, 1, 3}) + Packed(1, {4, 5}) + LE(2, 4) + "\x02\x04",
        [&](Channel *c) { return ArenaOldGenDecode(c, &r); }));
    EXPECT_TRUE(r.blockID.length == 3 && r.start.data[2] == 3 && r.length.data[1] == 5 &&
                r.type.data[1] == 4);
    ASSERT_EQ(r.cache.length, 3u);
    EXPECT_EQ(r.cache.data[2], 0u);
    for (const std::string &bad :
         {Packed(1, {9}) + Packed(1, {0, 2}) + Packed(1, {1}) + LE(1, 4) + "\x01",
          Packed(1, {9}) + Packed(1, {1, 1}) + Packed(1, {1}) + LE(1, 4) + "\x01",
          Packed(1, {9}) + Packed(1, {0, 1}) + Packed(1, {1}) + LE(0, 4)}) {
        EXPECT_FALSE(Decodes(bad, [&](Channel *c) { return ArenaOldGenDecode(c, &r); }));
        EXPECT_STREQ(QKErrorMessage(), "inconsistent old generation");
    }
    VMArenaRFree(&r);
}

TEST_F(ArenaFormatTest, IndexRecordsByteForByte) {
    LocalBlockServer0RW rw{};
    FArrayInitHeap(rw.map, 4);
    int ok = 1;
    for (UInt raw : {0u, INVALID_RAW_BLOCK_ID, 2u}) FArrayAdd(rw.map, &raw, &ok);
    for (UInt raw : {7u, 6u, 5u}) ArrayAdd(rw.freeRawBlocksOld, raw);
    ArrayAdd(rw.freeBlock, 1);
    auto encode = [&](Channel *c) { return IndexNewGenEncode(c, 8192, 65536, &rw); };
    std::string newGen = Encoded(dir, encode);
    EXPECT_EQ(newGen, LE(8192, 8) + LE(65536, 8) + Raw(4, {0, 0xFFFFFFFF, 2}) +
                          Packed(1, {7, 6, 5}) + Packed(1, {}) + Packed(1, {1}));
    EXPECT_EQ(Encoded(dir, [&](Channel *c) { return IndexOldGenEncode(c, &rw.map); }),
              Raw(4, {0, 0xFFFFFFFF, 2}));

    // Reading back and writing again gives the same bytes.
    FArrayFree(rw.map, UInt);
    FArrayInitHeap(rw.map, 4);
    ArrayFree(rw.freeRawBlocksOld);
    ArrayFree(rw.freeBlock);
    ULong rsize = 0;
    ASSERT_TRUE(
        Decodes(newGen.substr(8), [&](Channel *c) { return IndexNewGenDecode(c, &rsize, &rw); }));
    EXPECT_EQ(rsize, 65536u);
    EXPECT_EQ(Encoded(dir, encode), newGen);
    EXPECT_FALSE(Decodes(Raw(4, {1, 2}).substr(0, 12),
                         [&](Channel *c) { return IndexOldGenDecode(c, &rw.map); }));
    EXPECT_TRUE(StartsWith(QKErrorMessage(), "could not read data")) << QKErrorMessage();
    FArrayFree(rw.map, UInt);
    ArrayFree(rw.freeRawBlocksOld);
    ArrayFree(rw.freeRawBlocksNew);
    ArrayFree(rw.freeBlock);
}

}  // namespace
