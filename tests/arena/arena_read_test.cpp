// Reading arenas written as a commit leaves them: arrays of every block
// shape in both generations, the name table, the metadata written back by
// the library, and the mappings of the data files.
#include <unistd.h>

#include <thread>

#include "arena/arena_internal.h"
#include "arena_image.h"
#include "arena_test_util.h"

using namespace arenatest;
using namespace qk::arena;

namespace {

std::string Pattern(size_t size, int seed) {
    std::string s(size, '\0');
    for (size_t i = 0; i < size; i++) s[i] = (char)(i * 7 + seed + (i >> 13));
    return s;
}

class ArenaReadTest : public ::testing::Test {
  protected:
    void SetUp() override {
        QKLibInit("arenareadtest");
        image.buckets = 3;
        image.arrays = {
            {"a/small", Pattern(40, 1)},               // a 64-byte piece
            {"a/mid", Pattern(5000, 2)},               // a whole block
            {"b/big", Pattern(3 * 8192 + 100, 3), 4},  // three blocks and a 112-byte piece
            {"b/empty", ""},                           // no block
            {"c/tiny", Pattern(60, 4)},                // the next 64-byte piece
            {"c/odd", Pattern(2000, 5)},               // a 2048-byte piece
        };
        image.relocate = {1, 3};  // a/mid's block, one of b/big's
        ASSERT_TRUE(image.Write(dir.Path()));
    }
    VMArena *Open(UInt flags = VM_FLAG_MAPPED) {
        VMArena *arena = VMArenaOpen(dir.Path().c_str(), flags, 1, STATUS_NO_SERIAL,
                                     STATUS_NO_SERIAL, nullptr, nullptr);
        EXPECT_NE(arena, nullptr) << QKErrorMessage();
        return arena;
    }
    std::string Read(VMArena *arena, UInt id, Int genID) {
        return Contents(arena, id, genID, id == 3 ? 4 : 1);  // b/big holds 4-byte elements
    }

    TempDir dir;
    ArenaImage image;
};

TEST_F(ArenaReadTest, EveryArrayReadsBackInBothGenerations) {
    for (UInt flags : {(UInt)VM_FLAG_MAPPED, (UInt)(VM_FLAG_MAPPED | VM_FLAG_READ_ONLY)}) {
        VMArena *arena = Open(flags);
        ASSERT_NE(arena, nullptr);
        ASSERT_EQ(VMArenaArrayCount(arena, NEWGEN), 7u);
        ASSERT_EQ(VMArenaArrayCount(arena, OLDGEN), 7u);
        for (Int genID : {NEWGEN, OLDGEN}) {
            for (UInt id = 0; id < 7; id++) {
                EXPECT_TRUE(Same(Read(arena, id, genID), image.Content(id, genID)))
                    << id << " gen " << genID;
            }
            EXPECT_NE(image.Content(2, genID), image.Content(2, 1 - genID));
            for (UInt id = 1; id < 7; id++) {
                const std::string &name = image.arrays[id - 1].name;
                EXPECT_EQ(NameServiceFind(arena, genID, name.data(), (UInt)name.size()), (Int)id);
            }
            for (const char *name : {"a/smal", "a/small/", "", "c/odd/x", "zz"})
                EXPECT_EQ(NameServiceFind(arena, genID, name, (UInt)strlen(name)), kNoArray);
        }
        // Every block of the new generation has its address, not writable.
        for (UInt id = 0; id < 7; id++) {
            VMAArray *array = ArrayRecord(&arena->rw_gen, id);
            ASSERT_EQ(FArrayLength(array->blockCache), image.blockIDs[id].size());
            for (UInt b = 0; b < FArrayLength(array->blockCache); b++) {
                uintptr_t address = FArrayNth(array->blockCache, uintptr_t, b);
                EXPECT_NE(address, 0u);
                EXPECT_EQ(address & kWritableTag, 0u);
            }
        }
        // The end of an old array may be asked for; of a new one, not.
        UInt end = 0;
        EXPECT_NE(VMAArrayReadRange(arena, 1, 8192, 40, 1, &end, OLDGEN), nullptr);
        EXPECT_EQ(end, 40u);
        EXPECT_EQ(VMAArrayReadRange(arena, 4, 8192, 0, 1, &end, OLDGEN), nullptr);
        EXPECT_EQ(end, 0u);
        EXPECT_EQ(VMAArrayReadRange(arena, 1, 8192, 41, 1, &end, OLDGEN), nullptr);
        EXPECT_STREQ(QKErrorMessage(), "index = 41, length = 40, arrayID = 1, gen = OLD");
        EXPECT_EQ(VMAArrayReadRange(arena, 1, 8192, 40, 1, &end, NEWGEN), nullptr);
        EXPECT_STREQ(QKErrorMessage(), "index = 40, length = 40, arrayID = 1, gen = NEW");
        EXPECT_EQ(VMAArrayReadRange(arena, 7, 8192, 0, 1, &end, NEWGEN), nullptr);

        UInt size;
        EXPECT_EQ(VMArenaDataReadAddress(arena, INVALID_VMARENA_BLOCK_ID, OLDGEN, &size), nullptr);
        EXPECT_EQ(VMArenaDataReadAddress(arena, BlockIDMake(15, 0, 300), OLDGEN, &size), nullptr);
        const UByte *piece = VMArenaDataReadAddress(arena, image.blockIDs[5][0], OLDGEN, &size);
        ASSERT_NE(piece, nullptr);
        EXPECT_EQ(size, 64u);  // the second piece of its block
        EXPECT_EQ(std::string((const char *)piece, 60), image.Content(5, OLDGEN));
        for (Int genID : {NEWGEN, OLDGEN}) EXPECT_EQ(VMArenaLoad(arena, &genID), 1);
        EXPECT_EQ(VMArenaMemoryAdvise(arena, 2), 1);
        EXPECT_EQ(VMArenaMSync(arena), 1);
        VMArenaClose(arena);
    }
}

TEST_F(ArenaReadTest, MetadataWrittenBackIsTheSameAndReopens) {
    VMArena *arena = Open(VM_FLAG_MAPPED | VM_FLAG_LOCK | VM_FLAG_RANDOM);
    ASSERT_NE(arena, nullptr);
    ASSERT_EQ(VMArenaFileFlushNew(arena, dir.Path().c_str()), 1) << QKErrorMessage();
    ASSERT_EQ(VMArenaFileFlushOld(arena, dir.Path().c_str()), 1) << QKErrorMessage();
    VMArenaClose(arena);
    EXPECT_EQ(ReadWhole(dir / "arena.new.new"), ReadWhole(dir / "arena.new"));
    EXPECT_EQ(ReadWhole(dir / "arena.old.new"), ReadWhole(dir / "arena.old"));

    // The new generation becomes the old one: the relocated blocks now
    // belong to both.
    for (const char *x : {"0", "1", "2"}) {
        std::string b = std::string("block/index") + x;
        std::string newMap = ReadWhole(dir / (b + ".new")).substr(16);
        WriteWhole(dir / (b + ".old"), newMap.substr(0, 8 + 4 * newMap[0]));
    }
    ASSERT_EQ(FileAtomicCommit(dir.Path().c_str(), "arena.new"), 1);
    ASSERT_EQ(FileAtomicCommit(dir.Path().c_str(), "arena.old"), 1);
    EXPECT_FALSE(FileExists((dir / "arena.old.old").c_str()));
    // With nothing pending the file goes aside, and the recovery brings it
    // back.
    EXPECT_EQ(FileAtomicCommit(dir.Path().c_str(), "arena.old"), 0);
    EXPECT_FALSE(FileExists((dir / "arena.old").c_str()));
    EXPECT_EQ(FileAtomicRecover(dir.Path().c_str(), "arena.old"), 1);
    EXPECT_TRUE(FileExists((dir / "arena.old").c_str()));
    arena = Open();
    ASSERT_NE(arena, nullptr);
    for (UInt id = 0; id < 7; id++) {
        EXPECT_TRUE(Same(Read(arena, id, NEWGEN), image.Content(id, NEWGEN))) << id;
        EXPECT_TRUE(Same(Read(arena, id, OLDGEN), image.Content(id, NEWGEN))) << id;
    }
    VMArenaClose(arena);

    EXPECT_EQ(FileAtomicCommit(dir.Path().c_str(), "none"), 0);
    EXPECT_EQ(FileAtomicRecover(dir.Path().c_str(), "none"), 1);
}

TEST_F(ArenaReadTest, TheReadWritePartGrowsInFragmentsWithReservedBlocks) {
    TempDir other;
    VMArena *arena = VMArenaOpen(other.Path().c_str(), VM_FLAG_CREATE | VM_FLAG_MAPPED, 1,
                                 STATUS_NO_SERIAL, STATUS_NO_SERIAL, nullptr, nullptr);
    ASSERT_NE(arena, nullptr) << QKErrorMessage();
    MemoryMapping *m = &ArrayNth(arena->server.buckets, 0)->mapping;
    std::string path = other / "block/data0";
    EXPECT_EQ(m->rsize, 0u);
    EXPECT_EQ(m->rwSize, 0u);
    ASSERT_TRUE(MemoryMappingRawEnsureRWCapacity(m, 8192));
    EXPECT_EQ(m->rwSize, 65536u);
    EXPECT_EQ(FileSize(path.c_str()), 65536u);
    ASSERT_TRUE(MemoryMappingRawEnsureRWCapacity(m, 300000));
    EXPECT_EQ(m->rwSize, 524288u);  // 64 + 64 + 128 + 256 KiB
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 524288);
    EXPECT_GE((ULong)st.st_blocks * 512, 524288u);

    EXPECT_EQ(MemoryMappingRawBlockGet(m, 0, false), nullptr);
    MemoryMappingSetRWLength(m, 20 * 8192);
    EXPECT_EQ(MemoryMappingRawBlockGet(m, 20, false), nullptr);
    EXPECT_DEATH(MemoryMappingRawBlockGet(m, 20, true), "rwLength");
    // Blocks 7, 8 and 16 lie in three fragments; writes reach the file.
    for (UInt raw : {0u, 7u, 8u, 16u, 19u}) {
        UByte *block = MemoryMappingRawBlockGet(m, raw, true);
        ASSERT_NE(block, nullptr);
        memset(block, 'a' + raw, 8192);
    }
    std::string bytes = ReadWhole(path);
    for (UInt raw : {0u, 7u, 8u, 16u, 19u})
        EXPECT_TRUE(Same(bytes.substr(raw * 8192, 8192), std::string(8192, 'a' + raw))) << raw;
    EXPECT_EQ(bytes[1 * 8192], '\0');
    VMArenaClose(arena);
}

TEST_F(ArenaReadTest, TheReadPartIsMappedInSegments) {
    image.buckets = 1;
    image.relocate.clear();
    image.arrays = {{"long", Pattern(40 * 8192, 9)}};
    ASSERT_TRUE(image.Write(dir.Path()));
    VMArena *arena = Open();
    ASSERT_NE(arena, nullptr);
    MemoryMapping *m = &ArrayNth(arena->server.buckets, 0)->mapping;
    EXPECT_EQ(ArrayLength(m->r_mapped), 1u);
    m->log2Segment = 16;  // segments of 64 KiB instead of 256 MiB
    ASSERT_TRUE(MemoryMappingRemapRead(m, m->rsize, false, false));
    EXPECT_EQ(ArrayLength(m->r_mapped), 6u);  // 41 blocks, padded to 48
    std::string content;
    for (UInt b = 0; b < 41; b++)
        content.append((const char *)MemoryMappingRawBlockGet(m, b, true), 8192);
    EXPECT_TRUE(Same(content.substr(0, 8192), image.Names() + std::string(8192 - 5, '\0')));
    EXPECT_TRUE(Same(content.substr(8192), image.Content(1, OLDGEN)));

    // A shrinking remap cuts the file, never below 64 KiB.
    ASSERT_TRUE(MemoryMappingRemapRead(m, 16 * 8192, true, false));
    EXPECT_EQ(FileSize((dir / "block/data0").c_str()), 16u * 8192);
    ASSERT_TRUE(MemoryMappingRemapRead(m, 0, true, false));
    EXPECT_EQ(FileSize((dir / "block/data0").c_str()), 65536u);
    EXPECT_EQ(ArrayLength(m->r_mapped), 0u);
    VMArenaClose(arena);
}

TEST_F(ArenaReadTest, AMountReadsALaterSerialGeneration) {
    TempDir serial;
    const char *d = serial.Path().c_str();
    VMArena *arena = VMArenaOpen(d, VM_FLAG_CREATE | VM_FLAG_MAPPED, 3, 0, 0, nullptr, nullptr);
    ASSERT_NE(arena, nullptr) << QKErrorMessage();
    VMArenaClose(arena);
    arena = VMArenaOpen(d, VM_FLAG_MAPPED | VM_FLAG_READ_ONLY, 1, 0, 0, nullptr, nullptr);
    ASSERT_NE(arena, nullptr) << QKErrorMessage();

    // Another process writes generation 1 beside generation 0; the data
    // files grow in place.
    auto publish = [&](const std::string &serialName) {
        for (std::string name :
             {"arena.new", "arena.old", "block/index0.new", "block/index0.old", "block/index1.new",
              "block/index1.old", "block/index2.new", "block/index2.old"})
            WriteWhole(serial / (name + "." + serialName), ReadWhole(dir / name));
        for (const char *name : {"block/data0", "block/data1", "block/data2"})
            WriteWhole(serial / name, ReadWhole(dir / name));
    };
    publish("1");
    EXPECT_EQ(VMArenaMountGeneration(arena, 2, 2), 0);
    EXPECT_TRUE(StartsWith(QKErrorMessage(), "could not open file")) << QKErrorMessage();
    ASSERT_EQ(VMArenaMountGeneration(arena, 1, 1), 1) << QKErrorMessage();
    EXPECT_TRUE(arena->mounted);
    EXPECT_EQ(arena->flushedSerialNew, 1u);
    ASSERT_EQ(VMArenaArrayCount(arena, NEWGEN), 7u);
    EXPECT_EQ(VMArenaArrayCount(arena, OLDGEN), 1u);  // until the memory commit
    EXPECT_EQ(ArrayLength(arena->r_gen_next.length), 7u);
    for (UInt id = 0; id < 7; id++)
        EXPECT_TRUE(Same(Read(arena, id, NEWGEN), image.Content(id, NEWGEN))) << id;
    EXPECT_EQ(NameServiceFind(arena, NEWGEN, "c/odd", 5), 6);

    WriteWhole(dir / "arena.new", LE(2, 8) + ReadWhole(dir / "arena.new").substr(8));
    publish("3");
    EXPECT_EQ(VMArenaMountGeneration(arena, 3, 3), 0);
    EXPECT_TRUE(StartsWith(QKErrorMessage(),
                           "arena : could not read new generation: \"" + serial / "arena.new.3" +
                               "\": arena: could not read new generation: invalid number of "
                               "buckets"))
        << QKErrorMessage();
    VMArenaClose(arena);
}

TEST_F(ArenaReadTest, ReadersShareTheOldGeneration) {
    VMArena *arena = Open(VM_FLAG_MAPPED | VM_FLAG_READ_ONLY);
    ASSERT_NE(arena, nullptr);
    std::atomic<int> mismatches{0};
    auto reader = [&] {
        for (int round = 0; round < 20; round++) {
            RWLockAcquireRead(&arena->oldGenLock);
            for (UInt id = 0; id < 7; id++) {
                if (Read(arena, id, OLDGEN) != image.Content(id, OLDGEN)) mismatches++;
            }
            if (NameServiceFind(arena, OLDGEN, "c/odd", 5) != 6) mismatches++;
            RWLockRelease(&arena->oldGenLock);
        }
    };
    std::thread a(reader), b(reader);
    a.join();
    b.join();
    EXPECT_EQ(mismatches, 0);
    VMArenaClose(arena);
}

}  // namespace
