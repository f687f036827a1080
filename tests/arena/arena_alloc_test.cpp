// Allocation in an arena: size classes and the layout of block IDs, carving
// of logical blocks, last-in first-out reuse, raw blocks given out lowest
// first, copy-on-write after a commit, and a random workload checked against
// a model and the arena's own accounting.
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <map>
#include <random>
#include <thread>
#include <vector>

#include "arena/arena_check.h"
#include "arena/arena_internal.h"
#include "arena_test_util.h"

using namespace arenatest;
using namespace qk::arena;

namespace {

class ArenaAllocTest : public ::testing::Test {
  protected:
    void SetUp() override { QKLibInit("arenaalloctest"); }
    void TearDown() override { VMArenaClose(arena); }
    void Open(UInt buckets = 1, UInt flags = kCreate) {
        VMArenaClose(arena);
        arena = VMArenaOpen(dir.Path().c_str(), flags, buckets, STATUS_NO_SERIAL, STATUS_NO_SERIAL,
                            nullptr, nullptr);
        ASSERT_NE(arena, nullptr) << QKErrorMessage();
    }
    UByte *Write(ULong id) { return (UByte *)VMArenaDataAcquire(arena, id, NEWGEN, 0, 0, 0); }
    const UByte *Read(ULong id, Int genID) {
        return (const UByte *)VMArenaDataAcquire(arena, id, genID, 1, 0, 0);
    }
    std::string Bytes(ULong id, Int genID, size_t n) {
        const UByte *at = Read(id, genID);
        return at == nullptr ? "<none>" : std::string((const char *)at, n);
    }
    UInt RawOf(UInt block, Int genID) { return VMABlockInfoGet(arena, block, genID, nullptr); }
    void Commit() { ASSERT_TRUE(VMArenaCommit(arena, nullptr, nullptr)) << QKErrorMessage(); }
    void ExpectConsistent() {
        std::string why;
        EXPECT_TRUE(VMArenaCheckAccounting(arena, &why)) << why;
    }
    TempDir dir;
    VMArena *arena = nullptr;
};

UInt LogicalOf(ULong id) {
    return (UInt)BlockIDDecode(id).logical;
}

TEST_F(ArenaAllocTest, SizesPickTheFirstClassThatHoldsThem) {
    Open();
    std::vector<UInt> sizes = {64,  88,  112,  128,  160,  256,  312,  512,
                               584, 744, 1024, 1632, 2048, 2728, 4096, 8192};
    for (UInt c = 0; c < 16; c++) {
        UInt below = c == 0 ? 0 : sizes[c - 1] + 1;
        for (UInt size : {below, sizes[c]}) {
            UInt actual = 0;
            ULong id = VMArenaBlockNew(arena, size, &actual, NEWGEN);
            EXPECT_EQ(actual, sizes[c]) << size;
            EXPECT_EQ(id & 15, c) << size;
            UInt got = 0, sizeClass = 99;
            EXPECT_NE(VMArenaDataAcquire(arena, id, NEWGEN, 1, &got, &sizeClass), nullptr);
            EXPECT_EQ(got, sizes[c]);
            EXPECT_EQ(sizeClass, c);
        }
    }
    // The size pointer may be null.
    EXPECT_EQ(VMArenaBlockNew(arena, 1, nullptr, NEWGEN) & 15, 0u);
    UInt size = 7;
    EXPECT_EQ(VMArenaDataAcquire(arena, INVALID_VMARENA_BLOCK_ID, NEWGEN, 1, &size, nullptr),
              nullptr);
    EXPECT_EQ(size, 0u);
    ExpectConsistent();
}

TEST_F(ArenaAllocTest, PiecesAreCarvedSlotBySlotFromOneLogicalBlock) {
    Open();
    std::vector<ULong> ids;
    for (int i = 0; i < 94; i++) ids.push_back(VMArenaBlockNew(arena, 88, nullptr, NEWGEN));
    // 93 pieces of 88 bytes fit in 8192: slots 0 to 92 of the first block.
    UInt first = LogicalOf(ids[0]);
    for (UInt i = 0; i < 93; i++) {
        EXPECT_EQ(ids[i], BlockIDMake(1, i, first)) << i;
        EXPECT_EQ((const UByte *)Read(ids[i], NEWGEN), Read(ids[0], NEWGEN) + 88 * i);
    }
    // The ninety-fourth opens a second block; the slot field has 7 bits.
    EXPECT_NE(LogicalOf(ids[93]), first);
    EXPECT_EQ(ids[93], (ULong)LogicalOf(ids[93]) << 11 | 1);
    // Whole blocks have no slot bits: every one takes a new logical block.
    ULong a = VMArenaBlockNew(arena, 8192, nullptr, NEWGEN);
    ULong b = VMArenaBlockNew(arena, 5000, nullptr, NEWGEN);
    EXPECT_EQ(a, (ULong)LogicalOf(a) << 4 | 15);
    EXPECT_EQ(LogicalOf(b), LogicalOf(a) + 1);
    // Pieces do not overlap: each keeps what was written into it.
    for (UInt i = 0; i < ids.size(); i++) memset(Write(ids[i]), (int)i, 88);
    for (UInt i = 0; i < ids.size(); i++)
        EXPECT_EQ(Bytes(ids[i], NEWGEN, 88), std::string(88, (char)i)) << i;
    ExpectConsistent();
}

TEST_F(ArenaAllocTest, FreedPiecesComeBackLastInFirstOut) {
    Open();
    ULong a = VMArenaBlockNew(arena, 100, nullptr, NEWGEN);
    ULong b = VMArenaBlockNew(arena, 100, nullptr, NEWGEN);
    ULong c = VMArenaBlockNew(arena, 100, nullptr, NEWGEN);
    VMArenaBlockFree(arena, a, NEWGEN);
    VMArenaBlockFree(arena, c, NEWGEN);
    ExpectConsistent();
    EXPECT_EQ(VMArenaBlockNew(arena, 100, nullptr, NEWGEN), c);
    EXPECT_EQ(VMArenaBlockNew(arena, 112, nullptr, NEWGEN), a);  // same class, 112
    EXPECT_EQ(VMArenaBlockNew(arena, 112, nullptr, NEWGEN), BlockIDMake(2, 3, LogicalOf(a)));
    // A piece stays in its class: a freed 112 does not serve 64.
    VMArenaBlockFree(arena, b, NEWGEN);
    EXPECT_NE(VMArenaBlockNew(arena, 64, nullptr, NEWGEN), b);
    // Freeing a whole block frees its logical block, which comes back first,
    // with the same raw block.
    ULong whole = VMArenaBlockNew(arena, 8192, nullptr, NEWGEN);
    UInt raw = RawOf(LogicalOf(whole), NEWGEN);
    VMArenaBlockFree(arena, whole, NEWGEN);
    EXPECT_EQ(RawOf(LogicalOf(whole), NEWGEN), INVALID_RAW_BLOCK_ID);
    EXPECT_EQ(Read(whole, NEWGEN), nullptr);
    ExpectConsistent();
    UInt block = VMArenaDataBlockNew(arena, NEWGEN);
    EXPECT_EQ(block, LogicalOf(whole));
    EXPECT_EQ(RawOf(block, NEWGEN), raw);
    ExpectConsistent();
}

TEST_F(ArenaAllocTest, LogicalBlocksGoRoundTheBuckets) {
    Open(4);
    EXPECT_EQ(arena->server.bucketBits, 2u);
    std::vector<UInt> blocks;
    for (UInt i = 0; i < 9; i++) blocks.push_back(VMArenaDataBlockNew(arena, NEWGEN));
    for (UInt i = 0; i < 9; i++) {
        UInt bucket = 99;
        EXPECT_EQ(blocks[i], (i / 4) << 2 | (i % 4)) << i;
        EXPECT_EQ(VMABlockInfoGet(arena, blocks[i], NEWGEN, &bucket), i / 4) << i;
        EXPECT_EQ(bucket, i % 4);
        memset(VMArenaDataBlockAcquire(arena, blocks[i], NEWGEN, 0), 'a' + (int)i, 8192);
    }
    // Each bucket holds its blocks in its own data file.
    for (UInt i = 0; i < 9; i++) {
        auto *bytes = (const UByte *)VMArenaDataBlockAcquire(arena, blocks[i], NEWGEN, 1);
        ASSERT_NE(bytes, nullptr);
        EXPECT_EQ(bytes[0], 'a' + i);
        EXPECT_EQ(bytes[8191], 'a' + i);
    }
    // Blocks that were never committed are gone after a reopen.
    Open(3, kWrite);  // the files' count wins
    EXPECT_EQ(arena->bucketCount, 4u);
    EXPECT_EQ(VMArenaDataBlockAcquire(arena, blocks[7], NEWGEN, 1), nullptr);
    EXPECT_EQ(VMABlockInfoGet(arena, blocks[7], NEWGEN, nullptr), INVALID_RAW_BLOCK_ID);
    // With three buckets, a logical ID of the fourth names nothing.
    DirectoryRemoveContents(dir.Path().c_str());
    Open(3);
    EXPECT_EQ(VMArenaDataBlockAcquire(arena, 3, NEWGEN, 1), nullptr);
    EXPECT_EQ(VMArenaDataAcquire(arena, 3 << 4 | 15, NEWGEN, 1, 0, 0), nullptr);
}

TEST_F(ArenaAllocTest, TheLowestFreeRawBlockGoesFirst) {
    Open();
    std::vector<UInt> blocks;
    for (int i = 0; i < 12; i++) blocks.push_back(VMArenaDataBlockNew(arena, NEWGEN));
    for (UInt i = 0; i < 12; i++) EXPECT_EQ(RawOf(blocks[i], NEWGEN), i);
    // Blocks of this generation are free for reuse at once, lowest first.
    VMArenaDataBlockFree(arena, blocks[7], NEWGEN);
    VMArenaDataBlockFree(arena, blocks[3], NEWGEN);
    VMArenaDataBlockFree(arena, blocks[9], NEWGEN);
    ExpectConsistent();
    UInt a = VMArenaDataBlockNew(arena, NEWGEN), b = VMArenaDataBlockNew(arena, NEWGEN);
    EXPECT_EQ(RawOf(a, NEWGEN), 3u);
    EXPECT_EQ(RawOf(b, NEWGEN), 7u);
    EXPECT_EQ(a, blocks[9]);  // logical blocks: last freed first
    EXPECT_EQ(b, blocks[3]);
    ExpectConsistent();
}

TEST_F(ArenaAllocTest, TheFirstWriteAfterACommitCopiesTheBlockOnce) {
    Open();
    ULong id = VMArenaBlockNew(arena, 100, nullptr, NEWGEN);
    ULong other = VMArenaBlockNew(arena, 100, nullptr, NEWGEN);
    memcpy(Write(id), "before", 6);
    memcpy(Write(other), "second", 6);
    Commit();
    UInt block = LogicalOf(id);
    UInt raw = RawOf(block, OLDGEN);
    EXPECT_EQ(RawOf(block, NEWGEN), raw);
    EXPECT_EQ(Read(id, NEWGEN), Read(id, OLDGEN));  // one block for both until a write
    UByte *first = Write(id);
    memcpy(first, "after", 5);
    UInt copy = RawOf(block, NEWGEN);
    EXPECT_NE(copy, raw);
    EXPECT_EQ(RawOf(block, OLDGEN), raw);
    EXPECT_EQ(Bytes(id, OLDGEN, 6), "before");
    EXPECT_EQ(Bytes(id, NEWGEN, 6), "aftere");
    // The whole logical block was copied: the neighbour piece too.
    EXPECT_EQ(Bytes(other, NEWGEN, 6), "second");
    EXPECT_EQ(Bytes(other, OLDGEN, 6), "second");
    // The second write goes to the copy.
    EXPECT_EQ(Write(id), first);
    EXPECT_EQ(Write(other), first + 112);
    EXPECT_EQ(RawOf(block, NEWGEN), copy);
    // Reading the old generation never copies; writing it is refused.
    EXPECT_EQ(Read(id, OLDGEN), Read(id, OLDGEN));
    EXPECT_DEATH(VMArenaDataAcquire(arena, id, OLDGEN, 0, 0, 0), "read");
    ExpectConsistent();
    Commit();
    EXPECT_EQ(Bytes(id, OLDGEN, 6), "aftere");
    ExpectConsistent();
}

TEST_F(ArenaAllocTest, BlocksOfOneGenerationLeaveNoTrace) {
    Open();
    UInt kept = VMArenaDataBlockNew(arena, NEWGEN);
    Commit();
    // Allocated and freed between two commits: its raw block is reused at
    // once, and neither image names it.
    UInt passing = VMArenaDataBlockNew(arena, NEWGEN);
    UInt raw = RawOf(passing, NEWGEN);
    VMArenaDataBlockFree(arena, passing, NEWGEN);
    UInt next = VMArenaDataBlockNew(arena, NEWGEN);
    EXPECT_EQ(next, passing);
    EXPECT_EQ(RawOf(next, NEWGEN), raw);
    VMArenaDataBlockFree(arena, next, NEWGEN);
    Commit();
    EXPECT_EQ(RawOf(passing, OLDGEN), INVALID_RAW_BLOCK_ID);
    EXPECT_EQ(ReadWhole(dir / "block/index0.old"), Raw(4, {0, INVALID_RAW_BLOCK_ID}));
    EXPECT_EQ(ReadWhole(dir / "block/index0.new"),
              LE(8192, 8) + LE(65536, 8) + Raw(4, {0, INVALID_RAW_BLOCK_ID}) +
                  Packed(1, {7, 6, 5, 4, 3, 2, 1}) + Packed(1, {}) + Packed(1, {passing}));
    EXPECT_EQ(RawOf(kept, OLDGEN), 0u);
    ExpectConsistent();
}

TEST_F(ArenaAllocTest, AFreedOldBlockStaysReadableUntilTheCommit) {
    Open();
    UInt block = VMArenaDataBlockNew(arena, NEWGEN);
    memset(VMArenaDataBlockAcquire(arena, block, NEWGEN, 0), 'o', 8192);
    Commit();
    UInt raw = RawOf(block, OLDGEN);
    VMArenaDataBlockFree(arena, block, NEWGEN);
    EXPECT_EQ(VMArenaDataBlockAcquire(arena, block, NEWGEN, 1), nullptr);
    // Its raw block waits for the commit: new blocks take others.
    std::vector<UInt> fresh;
    for (int i = 0; i < 10; i++) {
        fresh.push_back(VMArenaDataBlockNew(arena, NEWGEN));
        EXPECT_NE(RawOf(fresh.back(), NEWGEN), raw);
        memset(VMArenaDataBlockAcquire(arena, fresh.back(), NEWGEN, 0), 'n', 8192);
    }
    // The first of them took the freed logical block, in another raw block;
    // the old generation still reads the old one.
    EXPECT_EQ(fresh[0], block);
    auto *old = (const UByte *)VMArenaDataBlockAcquire(arena, block, OLDGEN, 1);
    ASSERT_NE(old, nullptr);
    EXPECT_EQ(std::string((const char *)old, 8192), std::string(8192, 'o'));
    EXPECT_EQ(RawOf(block, OLDGEN), raw);
    ExpectConsistent();
    Commit();
    old = (const UByte *)VMArenaDataBlockAcquire(arena, block, OLDGEN, 1);
    ASSERT_NE(old, nullptr);
    EXPECT_EQ(std::string((const char *)old, 8192), std::string(8192, 'n'));
    // Now it is free in both generations, and the lowest.
    UInt again = VMArenaDataBlockNew(arena, NEWGEN);
    EXPECT_EQ(RawOf(again, NEWGEN), raw);
    ExpectConsistent();
}

TEST_F(ArenaAllocTest, TooLargeARequestTagsTheArenaAndEnds) {
    Open();
    EXPECT_DEATH(VMArenaBlockNew(arena, 8193, nullptr, NEWGEN), "size <= ARENA_MAX_BLOCK_SIZE");
    EXPECT_TRUE(FileExists((dir / "corrupted").c_str()));
    VMArenaClose(arena);
    arena = nullptr;
    EXPECT_EQ(VMArenaOpen(dir.Path().c_str(), kWrite, 1, STATUS_NO_SERIAL, STATUS_NO_SERIAL,
                          nullptr, nullptr),
              nullptr);
    EXPECT_TRUE(StartsWith(QKErrorMessage(), "Corrupted vm")) << QKErrorMessage();
}

// A data file that cannot grow (here a file size limit stands for a full
// disk) makes the allocation fail with the reason; the blocks handed out
// before stay writable, and nothing faults.
TEST_F(ArenaAllocTest, AFileThatCannotGrowFailsTheAllocation) {
    Open();
    auto fill = [this] {
        signal(SIGXFSZ, SIG_IGN);
        struct rlimit limit = {1 << 20, 1 << 20};
        setrlimit(RLIMIT_FSIZE, &limit);
        std::vector<ULong> ids;
        for (int i = 0; i < 1000; i++) {
            ULong id = VMArenaBlockNew(arena, 8192, nullptr, NEWGEN);
            if (id == INVALID_VMARENA_BLOCK_ID) break;
            ids.push_back(id);
        }
        for (ULong id : ids) memset(Write(id), 0xA5, 8192);
        fprintf(stderr, "%zu blocks; %s\n", ids.size(), QKErrorMessage());
        _exit(ids.size() >= 8 && ids.size() <= 128 ? 0 : 1);
    };
    EXPECT_EXIT(fill(), ::testing::ExitedWithCode(0), "MapAlloc: could not expand mapped file");
}

// A random mix of allocations, frees, writes and commits, checked against a
// model of both generations, across a reopen, in one and in four buckets.
TEST_F(ArenaAllocTest, RandomWorkMatchesAModelOfBothGenerations) {
    for (UInt buckets : {1u, 4u}) {
        DirectoryRemoveContents(dir.Path().c_str());
        Open(buckets);
        std::mt19937 random(buckets);
        std::map<ULong, std::string> live, committed;  // id -> content
        auto fill = [&](ULong id, UInt size) {
            std::string content(size, 0);
            for (char &c : content) c = (char)random();
            memcpy(Write(id), content.data(), size);
            live[id] = content;
        };
        auto verify = [&](const char *when) {
            for (auto &[id, content] : live)
                ASSERT_EQ(Bytes(id, NEWGEN, content.size()), content) << when << " new " << id;
            for (auto &[id, content] : committed)
                ASSERT_EQ(Bytes(id, OLDGEN, content.size()), content) << when << " old " << id;
            std::string why;
            ASSERT_TRUE(VMArenaCheckAccounting(arena, &why)) << when << ": " << why;
        };
        for (int round = 0; round < 6; round++) {
            for (int step = 0; step < 400; step++) {
                UInt op = random() % 10;
                if (op < 5 || live.empty()) {
                    UInt size = random() % 3 == 0 ? 8192 : random() % 3000;
                    UInt actual;
                    ULong id = VMArenaBlockNew(arena, size, &actual, NEWGEN);
                    ASSERT_NE(id, INVALID_VMARENA_BLOCK_ID);
                    ASSERT_EQ(live.count(id), 0u);
                    fill(id, actual);
                } else {
                    auto it = live.begin();
                    std::advance(it, random() % live.size());
                    if (op < 8) {
                        fill(it->first, (UInt)it->second.size());
                    } else {
                        VMArenaBlockFree(arena, it->first, NEWGEN);
                        live.erase(it);
                    }
                }
            }
            verify("before commit");
            Commit();
            committed = live;
            verify("after commit");
        }
        Open(buckets, kWrite);
        verify("after reopen");
    }
}

// Writers in several threads, each under the new generation's shared hold,
// with a committer between them.
TEST_F(ArenaAllocTest, WritersInThreadsShareTheAllocator) {
    Open(2);
    constexpr int kThreads = 4, kEach = 300;
    std::vector<std::vector<ULong>> ids(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++) {
        threads.emplace_back([this, t, &ids] {
            for (int i = 0; i < kEach; i++) {
                VMArenaNewGenAcquire(arena, NEWGEN);
                ULong id = VMArenaBlockNew(arena, 64 + (i % 4) * 1000, nullptr, NEWGEN);
                memset(Write(id), t * kEach + i, 64);
                if (i % 3 == 2) {
                    VMArenaBlockFree(arena, ids[t].back(), NEWGEN);
                    ids[t].pop_back();
                }
                VMArenaNewGenRelease(arena, NEWGEN);
                ids[t].push_back(id);
            }
        });
    }
    for (int c = 0; c < 5; c++) Commit();
    for (std::thread &thread : threads) thread.join();
    std::set<ULong> all;
    for (auto &list : ids) all.insert(list.begin(), list.end());
    EXPECT_EQ(all.size(), (size_t)kThreads * (kEach - kEach / 3));
    ExpectConsistent();
}

TEST_F(ArenaAllocTest, PrefetchAndStatisticsChangeNothing) {
    Open(2);
    std::vector<ULong> ids;
    for (int i = 0; i < 40; i++) ids.push_back(VMArenaBlockNew(arena, 600, nullptr, NEWGEN));
    for (int i = 0; i < 40; i += 2) VMArenaBlockFree(arena, ids[i], NEWGEN);
    for (int i = 0; i < 6; i++) VMArenaDataBlockNew(arena, NEWGEN);
    Commit();
    VMArenaDataBlockFree(arena, 2 << 1, NEWGEN);  // an old block: waits for the commit
    VMArenaFreePrefetch(arena, 1 << 20);
    VMArenaDataPrefetch(arena, ids[1], NEWGEN);
    VMArenaDataPrefetch(arena, ids[1], OLDGEN);
    VMArenaDataPrefetch(arena, INVALID_VMARENA_BLOCK_ID, NEWGEN);
    ExpectConsistent();
    EXPECT_EQ(VMArenaBlockNew(arena, 600, nullptr, NEWGEN), ids[38]);
    // Bucket 0: logical blocks 0 and 1 carved into pieces of 744, 2 to 4
    // whole, in raw blocks 0 to 4; 5 to 7 are padding; logical block 2 is
    // freed now.
    ::testing::internal::CaptureStdout();
    LocalBlockServer0StatPrint(ArrayNth(arena->server.buckets, 0));
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "freeRawBlock old = 3, new = 1, freeBlock = 1\n"
              "max used raw id 4\n"
              "used raw blocks = 4, total raw block = 8\n");
}

}  // namespace
