// Reading arenas written as a commit leaves them: arrays of every block
// shape in both generations, the name table, the metadata written back by
// the library, and the mappings of the data files.
#include "arena_test_util.h"

using namespace arenatest;

namespace {

std::string Pattern(size_t size, int seed) {
    std::string s(size, '\0');
    for (size_t i = 0; i < size; i++) s[i] = (char)(i * 7 + seed + (i >> 13));
    return s;
}

class ArenaReadTest : public ArenaImageTest {
  protected:
    void SetUp() override {
        ArenaImageTest::SetUp();
        arrays = {
            {"a/small", Pattern(40, 1)},               // a 64-byte piece
            {"a/mid", Pattern(5000, 2)},               // a whole block
            {"b/big", Pattern(3 * 8192 + 100, 3), 4},  // three blocks and a 112-byte piece
            {"b/empty", ""},                           // no block
            {"c/tiny", Pattern(60, 4)},                // the next 64-byte piece
            {"c/odd", Pattern(2000, 5)},               // a 2048-byte piece
        };
        WriteImage(3, {{2, 0}, {3, 1}});  // a/mid's block, one of b/big's
    }
    // b/big holds 4-byte elements.
    std::string Read(UInt id, Int genID) { return Contents(id, genID, id == 3 ? 4 : 1); }
};

// Writable (its mappings locked in memory), the arena writes back the same
// metadata; read-only, its data files map in segments of one block as well.
TEST_F(ArenaReadTest, EveryArrayReadsBackInBothGenerations) {
    for (UInt flags : {kWrite | VM_FLAG_LOCK | VM_FLAG_RANDOM, kRead}) {
        Open(flags);
        if (flags != kRead) {
            ASSERT_TRUE(VMArenaFileFlushNew(arena, dir.Path().c_str()) &&
                        VMArenaFileFlushOld(arena, dir.Path().c_str()))
                << QKErrorMessage();
            for (std::string name : {"arena.new", "arena.old"})
                EXPECT_EQ(ReadWhole(dir / (name + ".new")), ReadWhole(dir / name));
        }
        for (Int genID : {NEWGEN, OLDGEN}) {
            for (UInt id = 0; id < 7; id++)
                EXPECT_TRUE(Read(id, genID) == Expected(id, genID)) << id << " " << genID;
            for (UInt id = 1; id < 7; id++) {
                const std::string &name = arrays[id - 1].name;
                EXPECT_EQ(Find(genID, name), (Int)id);
            }
            for (const char *name : {"a/smal", "a/small/", "", "c/odd/x", "zz"})
                EXPECT_EQ(Find(genID, name), kNoArray);
        }
        // Every block of the new generation has its address, not writable.
        for (UInt id = 0, b = 0; id < 7; id++, b = 0) {
            FArray *cache = &ArrayRecord(&arena->rw_gen, id)->blockCache;
            ASSERT_EQ(FArrayLength(*cache), blockIDs[id].size());
            for (uintptr_t a; b < FArrayLength(*cache) && (a = FArrayNth(*cache, uintptr_t, b));
                 b++)
                EXPECT_EQ(a & kWritableTag, 0u) << id;
            EXPECT_EQ(b, blockIDs[id].size()) << id;  // none is null
        }
        // The end of an old array may be asked for; of a new one, not.
        UInt end = 0, emptyEnd = 0;
        EXPECT_NE(VMAArrayReadRange(arena, 1, 8192, 40, 1, &end, OLDGEN), nullptr);
        EXPECT_EQ(VMAArrayReadRange(arena, 4, 8192, 0, 1, &emptyEnd, OLDGEN), nullptr);
        EXPECT_EQ((V{end, emptyEnd}), (V{40, 0}));
        EXPECT_EQ(VMAArrayReadRange(arena, 1, 8192, 41, 1, &end, OLDGEN), nullptr);
        EXPECT_STREQ(QKErrorMessage(), "index = 41, length = 40, arrayID = 1, gen = OLD");
        EXPECT_EQ(VMAArrayReadRange(arena, 1, 8192, 40, 1, &end, NEWGEN), nullptr);
        EXPECT_STREQ(QKErrorMessage(), "index = 40, length = 40, arrayID = 1, gen = NEW");
        EXPECT_EQ(VMAArrayReadRange(arena, 7, 8192, 0, 1, &end, NEWGEN), nullptr);

        UInt size;
        EXPECT_EQ(VMArenaDataReadAddress(arena, INVALID_VMARENA_BLOCK_ID, OLDGEN, &size), nullptr);
        EXPECT_EQ(VMArenaDataReadAddress(arena, BlockIDMake(15, 0, 300), OLDGEN, &size), nullptr);
        auto *piece = (const char *)VMArenaDataReadAddress(arena, blockIDs[5][0], OLDGEN, &size);
        ASSERT_NE(piece, nullptr);  // the second piece of its block
        EXPECT_EQ(std::to_string(size) + std::string(piece, 60), "64" + Expected(5, OLDGEN));
        for (Int genID : {NEWGEN, OLDGEN}) EXPECT_EQ(VMArenaLoad(arena, &genID), 1);
        EXPECT_EQ(VMArenaMemoryAdvise(arena, 2) + VMArenaMSync(arena), 2);
        for (UInt b = 0; flags == kRead && b < 3; b++) {
            MemoryMapping *m = &ArrayNth(arena->server.buckets, b)->mapping;
            m->log2Segment = 13;
            ASSERT_TRUE(MemoryMappingRemapRead(m, m->rsize, false, false));
            EXPECT_EQ(ArrayLength(m->r_mapped), m->rsize / 8192);
            std::string file = ReadWhole(dir / ("block/data" + std::to_string(b)));
            for (UInt raw = 0; raw < m->rsize / 8192; raw++)
                EXPECT_TRUE(
                    !memcmp(MemoryMappingRawBlockGet(m, raw, true), &file[raw * 8192], 8192));
        }
    }
}

TEST_F(ArenaReadTest, TheReadWritePartGrowsInFragmentsWithReservedBlocks) {
    DirectoryRemoveContents(dir.Path().c_str());
    Open(kCreate);
    MemoryMapping *m = &ArrayNth(arena->server.buckets, 0)->mapping;
    EXPECT_EQ((V{m->rsize, m->rwSize}), (V{0, 0}));
    ASSERT_TRUE(MemoryMappingRawEnsureRWCapacity(m, 8192));
    EXPECT_EQ((V{m->rwSize, SizeOf("block/data0")}), (V{65536, 65536}));
    ASSERT_TRUE(MemoryMappingRawEnsureRWCapacity(m, 300000));
    struct stat st;
    ASSERT_EQ(stat((dir / "block/data0").c_str(), &st), 0);
    // 64 + 64 + 128 + 256 KiB, reserved on the disk.
    EXPECT_EQ((V{m->rwSize, (ULong)st.st_size}), (V{524288, 524288}));
    EXPECT_GE((ULong)st.st_blocks * 512, 524288u);

    EXPECT_FALSE(MemoryMappingRawBlockGet(m, 0, false));
    MemoryMappingSetRWLength(m, 20 * 8192);
    EXPECT_FALSE(MemoryMappingRawBlockGet(m, 20, false));
    EXPECT_DEATH(MemoryMappingRawBlockGet(m, 20, true), "rwLength");
    // Blocks 7, 8 and 16 lie in three fragments; writes reach the file.
    for (UInt raw : {7u, 8u, 16u}) memset(MemoryMappingRawBlockGet(m, raw, true), raw, 8192);
    std::string bytes = ReadWhole(dir / "block/data0");
    EXPECT_EQ(bytes.substr(7 * 8192, 2 * 8192) + bytes[16 * 8192],
              std::string(8192, 7) + std::string(8192, 8) + "\x10");
}

}  // namespace
