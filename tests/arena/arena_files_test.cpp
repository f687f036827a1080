// The arena's files: the metadata layouts byte for byte (packed arrays and
// the four records); creation and its files; reopening; every way an open
// refuses a directory, damaged records among them.
#include <functional>

#include "arena/arena_format.h"
#include "arena_test_util.h"

using namespace arenatest;

namespace {

class ArenaFormatTest : public ArenaTest {
  protected:
    // Runs `read(channel)` on a channel over `bytes`.
    bool Decodes(const std::string &bytes, const std::function<bool(Channel *)> &read) {
        WriteWhole(dir / "decoded", bytes);
        Channel *channel = ChannelNew(-1, -1);
        bool ok = ChannelOpenFile(channel, (dir / "decoded").c_str(), "r") && read(channel);
        ChannelClose(channel);
        return ok;
    }
};

TEST_F(ArenaFormatTest, PackedArraysTakeTheWidthOfTheLargestValue) {
    // The smallest and the largest value of n bytes; 7 bytes take 8.
    for (UInt n = 1; n <= 8; n++) {
        ULong low = n == 1 ? 0 : 1ull << (8 * n - 8), high = n == 8 ? ~0ull : (1ull << 8 * n) - 1;
        EXPECT_EQ((V{PackedWidth(low), PackedWidth(high)}), (V{n + (n == 7), n + (n == 7)}));
    }
    ULong wide[] = {1, 0x100000000, 0};
    EXPECT_EQ(Encoded([&](Channel *c) { return PackedWrite(c, wide, 3); }),
              Packed(5, {1, 0x100000000, 0}));
    UInt narrow[] = {0x100, 1};
    EXPECT_EQ(Encoded([&](Channel *c) { return PackedWrite(c, narrow, 2); }),
              std::string("\x02\x02\0\0\0\0\x01\x01\0", 9));

    // Any width up to 8 reads into either element type; 32-bit elements
    // keep the low half.
    UIntArray u = {}, u5 = {};
    ULongArray l = {};
    ASSERT_TRUE(Decodes(
        Packed(3, {0xABCDEF, 7}) + Packed(5, {0x1200000034}) + Packed(8, {~0ull}), [&](Channel *c) {
            return PackedRead(c, &u) && PackedRead(c, &u5) && PackedRead(c, &l) && ExpectEnd(c);
        }));
    EXPECT_EQ((V{u.length, u.data[0], u.data[1], u5.length, u5.data[0], l.length, l.data[0]}),
              (V{2, 0xABCDEF, 7, 1, 0x34, 1, ~0ull}));
    // Damaged arrays fail with their reason and code.
    const ULong kFormat = QK_ERROR_CODE(QK_ERR_FORMAT, QK_DOMAIN_GENERAL);
    const struct {
        std::string bytes, error;
        ULong code;
    } cases[] = {
        {LE(0, 1) + LE(0, 4), "invalid packed width 0", kFormat},
        {Packed(2, {1, 2}).substr(0, 8), "could not read data: read EOF",
         QK_ERROR_CODE(QK_ERR_EOF, QK_DOMAIN_GENERAL)},
        {Packed(1, {}) + "x", "unexpected data after the end", kFormat},
    };
    for (const auto &c : cases) {
        EXPECT_FALSE(
            Decodes(c.bytes, [&](Channel *ch) { return PackedRead(ch, &l) && ExpectEnd(ch); }));
        EXPECT_EQ(QKErrorMessage(), c.error);
        EXPECT_EQ(QKErrorCode(), c.code) << c.error;
    }
    ArrayFree(u), ArrayFree(u5), ArrayFree(l);
}

// The arena's records of a new generation of two arrays with some of every
// field set, which read back to the same, and a bucket's index records.
TEST_F(ArenaFormatTest, RecordsByteForByte) {
    VMArenaRW rw;
    VMArenaRWInit(&rw);
    for (ULong id : {0x1234, 5}) ArrayAdd(rw.freeBlock[0], id);
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
    expected += Packed(1, {3}) + LE(2, 8) + Raw(8, {0x10F, 0x20F}) + LE(300, 4) + LE(1, 1) +
                LE(13, 1) + Raw(8, {}) + LE(0, 4) + LE(4, 1) + LE(10, 1);
    auto encodeNew = [&](Channel *c) { return ArenaNewGenEncode(c, &rw); };
    std::string newGen = Encoded(encodeNew);
    EXPECT_EQ(newGen, expected);
    EXPECT_EQ(Encoded([&](Channel *c) { return ArenaOldGenEncode(c, &rw); }),
              Packed(2, {0x10F, 0x20F}) + Packed(1, {0, 2, 2}) + Packed(2, {300, 0}) + LE(2, 4) +
                  "\x01\x04");
    ASSERT_TRUE(Decodes(newGen, [&](Channel *c) { return ArenaNewGenDecode(c, &rw); }));
    EXPECT_EQ(Encoded(encodeNew), newGen);
    VMArenaRWFree(&rw);
    VMArenaR r;
    VMArenaRInit(&r);
    ASSERT_TRUE(Decodes(
        Packed(1, {9, 8, 7}) + Packed(1, {0, 1, 3}) + Packed(1, {4, 5}) + LE(2, 4) + "\x02\x04",
        [&](Channel *c) { return ArenaOldGenDecode(c, &r); }));
    EXPECT_EQ((V{r.blockID.length, r.start.data[2], r.length.data[1], r.type.data[1],
                 r.cache.length, r.cache.data[2]}),
              (V{3, 3, 5, 4, 3, 0}));
    VMArenaRFree(&r);

    LocalBlockServer0RW index{};
    FArrayInitHeap(index.map, 4);
    for (UInt raw : {0u, kNone, 2u}) FArrayAdd(index.map, &raw, &ok);
    for (UInt raw : {7u, 6u, 5u}) ArrayAdd(index.freeRawBlocksOld, raw);
    ArrayAdd(index.freeBlock, 1);
    EXPECT_EQ(Encoded([&](Channel *c) { return IndexNewGenEncode(c, 8192, 65536, &index); }),
              IndexNew(65536, {0, kNone, 2}, {7, 6, 5}, {}, {1}));
    EXPECT_EQ(Encoded([&](Channel *c) { return IndexOldGenEncode(c, &index.map); }),
              Raw(4, {0, kNone, 2}));
    FArrayFree(index.map, UInt), ArrayFree(index.freeRawBlocksOld), ArrayFree(index.freeBlock);
}

class ArenaOpenTest : public ArenaImageTest {
  protected:
    // The open fails with a message that starts with `text` (or is it), "%s"
    // standing for the directory.
    void ExpectFailure(UInt flags, std::string text, bool exact = false) {
        EXPECT_EQ(OpenAt(dir.Path(), flags), nullptr);
        for (size_t at; (at = text.find("%s")) != std::string::npos;)
            text.replace(at, 2, dir.Path());
        std::string message = QKErrorMessage();
        EXPECT_TRUE(exact ? message == text : StartsWith(message, text)) << message;
    }
};

TEST_F(ArenaOpenTest, CreatesItsBucketsAndReopensWithTheFilesCount) {
    for (UInt buckets : {1u, 4u}) {
        DirectoryRemoveContents(dir.Path().c_str());
        ExpectFailure(kWrite, "could not read VMArena in \"%s\"");
        Open(kCreate, buckets);
        EXPECT_STREQ(VMArenaPath(arena), dir.Path().c_str());
        EXPECT_EQ((V{VMArenaArrayCount(arena, NEWGEN), VMArenaArrayCount(arena, OLDGEN)}),
                  (V{1, 1}));
        Close();
        std::set<std::string> files = {"arena.new", "arena.old", "block/"};
        EXPECT_EQ(ReadWhole(dir / "arena.new"), BareNewGen(buckets));
        EXPECT_EQ(ReadWhole(dir / "arena.old"),
                  Packed(1, {}) + Packed(1, {0, 0}) + Packed(1, {0}) + LE(1, 4) + LE(0, 1));
        for (UInt b = 0; b < buckets; b++) {
            std::string x = "block/index" + std::to_string(b);
            files.insert({x + ".new", x + ".old", "block/data" + std::to_string(b)});
            EXPECT_EQ(ReadWhole(dir / (x + ".new")) + ReadWhole(dir / (x + ".old")) +
                          ReadWhole(dir / ("block/data" + std::to_string(b))),
                      IndexNew(0, {}, {}) + Raw(4, {}) + std::string(65536, '\0'));
        }
        // Reopening writes nothing.
        Open(kWrite);
        Close();
        EXPECT_EQ(Tree(), files);
    }
    // A bucket whose index files are gone comes back empty, unless the
    // arena is opened to read.
    for (const char *x : {".new", ".old"}) unlink((dir / "block/index2" + x).c_str());
    ExpectFailure(kRead, "existing but not openable VM in \"%s\"");
    EXPECT_FALSE(Exists("block/index2.new"));
    Open(kWrite);
    EXPECT_EQ(ReadWhole(dir / "block/index2.new") + ReadWhole(dir / "block/index2.old"),
              IndexNew(0, {}, {}) + Raw(4, {}));
}

TEST_F(ArenaOpenTest, MarkersDecideFirst) {
    for (UInt flags : {(UInt)VM_FLAG_CREATE, kRead | VM_FLAG_CREATE, kRead | VM_FLAG_RECOVER})
        EXPECT_TRUE(!OpenAt(dir.Path(), flags) && QKErrorCode()) << flags;
    int cache = 0;
    EXPECT_EQ(VMArenaOpen(dir.Path().c_str(), kCreate, 1, STATUS_NO_SERIAL, STATUS_NO_SERIAL,
                          nullptr, reinterpret_cast<PageCache *>(&cache)),
              nullptr);
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(QK_ERR_NOT_SUPPORTED, QK_DOMAIN_GENERAL));
    EXPECT_TRUE(Tree().empty());

    Open(kCreate);
    VMArena *reader = OpenAt(dir.Path(), kRead);
    ASSERT_NE(reader, nullptr) << QKErrorMessage();
    VMArenaTagCorrupted(reader);  // a reader does not tag
    VMArenaClose(reader);
    EXPECT_FALSE(Exists("corrupted"));
    WriteWhole(dir / "committing", "");
    ExpectFailure(kRead, "Cannot open read-only vm in \"%s\": incomplete commit");
    VMArenaTagCorrupted(arena);
    Close();
    struct stat st;
    EXPECT_TRUE(stat((dir / "corrupted").c_str(), &st) == 0 && (st.st_mode & 0777) == 0600);
    for (UInt flags : {kRead, kWrite, kCreate}) ExpectFailure(flags, "Corrupted vm in \"%s\"");
    EXPECT_TRUE(Exists("committing"));
}

TEST_F(ArenaOpenTest, DamagedFilesFailWithTheirOwnMessage) {
    arrays = {{"a", std::string(20000, 'a')}, {"b", "bb"}};
    WriteImage(1);
    std::map<std::string, std::string> good;
    for (const char *name :
         {"arena.new", "arena.old", "block/index0.new", "block/index0.old", "block/data0"})
        good[name] = ReadWhole(dir / name);
    const std::string bucket =
        "LocalBlockServer0Open_: could not read block server in \"%s/block0\": ";
    auto index = [&](std::string gen) {
        return bucket + "LocalBlockServer0Read: could not read " + gen +
               " generation from file \"%s/block/index0." + gen + "\": ";
    };
    const std::string newGen = "arena : could not read new generation: \"%s/arena.new\": ";
    const std::string oldGen = "arena :could not read old generation: \"%s/arena.old\": ";
    const std::string eof = "could not read data: read EOF", end = "unexpected data after the end";
    const std::string odd = oldGen + "inconsistent old generation";
    std::string arenaNew = good["arena.new"];
    const struct {
        std::string file, content, cause;  // the cause follows "existing ... in "<dir>": "
    } cases[] = {
        {"arena.new", arenaNew.substr(0, 5), "arena : could not read bucket count: " + eof},
        {"arena.new", LE(0, 8) + arenaNew.substr(8), "arena : could not read bucket count: 0"},
        {"arena.new", arenaNew.substr(0, arenaNew.size() - 1), newGen + eof},
        {"arena.new", arenaNew + "x", newGen + end},
        {"arena.new", arenaNew.substr(0, arenaNew.size() - 2) + "\5\15",
         newGen + "invalid array 2"},
        {"arena.new", arenaNew.substr(0, 8) + LE(9, 1) + arenaNew.substr(9),
         newGen + "invalid packed width 9"},
        {"arena.old", Packed(1, {9}) + Packed(1, {0, 2}) + Packed(1, {1}) + LE(1, 4) + "\1", odd},
        {"arena.old", Packed(1, {9}) + Packed(1, {1, 1}) + Packed(1, {1}) + LE(1, 4) + "\1", odd},
        {"arena.old", Packed(1, {9}) + Packed(1, {0, 1}) + Packed(1, {1}) + LE(0, 4), odd},
        {"arena.old", good["arena.old"].substr(0, 9), oldGen + eof},
        {"block/index0.new", good["block/index0.new"].substr(0, 30), index("new") + eof},
        {"block/index0.new", LE(4096, 8) + good["block/index0.new"].substr(8),
         bucket + "could not open file \"%s/block/index0.new\": invalid block size: 4096"},
        {"block/index0.old", good["block/index0.old"].substr(0, 12), index("old") + eof},
        {"block/data0", std::string(8192, 'd'),
         index("new") + "IndexFileNewGenRead: data file too short (file size=8192  rsize=65536)"},
    };
    for (const auto &c : cases) {
        WriteWhole(dir / c.file, c.content);
        for (UInt flags : {kWrite, kRead})
            ExpectFailure(flags, "existing but not openable VM in \"%s\": " + c.cause, true);
        WriteWhole(dir / c.file, good[c.file]);
    }
    Open(kWrite);
    EXPECT_EQ(Contents(Find(OLDGEN, "b"), OLDGEN), "bb");
    Close();

    // A raw block beyond the committed size can only come from a mount.
    WriteWhole(dir / "block/index0.new", good["block/index0.new"].replace(24, 4, LE(9, 4)));
    EXPECT_DEATH(OpenAt(dir.Path(), kRead), "mount");
}

}  // namespace
