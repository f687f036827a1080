// Allocation in an arena: the layout of block IDs, carving of logical
// blocks, last-in first-out reuse, raw blocks given out lowest first,
// copy-on-write after a commit, and a random workload checked against a
// model of both generations, of the size classes and of the arena's own
// accounting.
#include <signal.h>
#include <sys/resource.h>

#include <random>
#include <thread>

#include "arena_test_util.h"

using namespace arenatest;

namespace {

using ArenaAllocTest = ArenaTest;

TEST_F(ArenaAllocTest, PiecesAreCarvedInOrderAndComeBackLastInFirstOut) {
    Open();
    std::vector<ULong> ids;
    for (int i = 0; i < 94; i++) ids.push_back(Piece(88));
    // 93 pieces of 88 bytes fit in 8192: slots 0 to 92 of the first block.
    for (UInt i = 0; i < 93; i++)
        EXPECT_TRUE(ids[i] == BlockIDMake(1, i, LogicalOf(ids[0])) &&
                    Read(ids[i], NEWGEN) == Read(ids[0], NEWGEN) + 88 * i)
            << i;
    // The ninety-fourth opens a second block; the slot field has 7 bits.
    // Whole blocks have no slot bits: every one takes a new logical block.
    ULong a = Piece(8192), b = Piece(5000);
    EXPECT_EQ((V{ids[93], a, b}),
              (V{(LogicalOf(ids[0]) + 1ull) << 11 | 1, (LogicalOf(ids[0]) + 2ull) << 4 | 15,
                 (LogicalOf(ids[0]) + 3ull) << 4 | 15}));
    // Freed pieces come back last freed first, within their class.
    ids = {Piece(100), Piece(100), Piece(100)};
    for (int i : {0, 2}) FreePiece(ids[i]);
    EXPECT_EQ((V{Piece(100), Piece(112), Piece(112)}),
              (V{ids[2], ids[0], BlockIDMake(2, 3, LogicalOf(ids[0]))}));
    // Freeing a whole block frees its logical block, which comes back first,
    // with the same raw block.
    UInt raw = RawOf(LogicalOf(a), NEWGEN);
    FreePiece(a);
    EXPECT_TRUE(RawOf(LogicalOf(a), NEWGEN) == kNone && Read(a, NEWGEN) == nullptr);
    UInt block = Block();
    EXPECT_EQ((V{block, RawOf(block, NEWGEN)}), (V{LogicalOf(a), raw}));
}

TEST_F(ArenaAllocTest, LogicalBlocksGoRoundTheBuckets) {
    Open(kCreate, 4);
    EXPECT_EQ(arena->server.bucketBits, 2u);
    std::vector<UInt> blocks;
    for (UInt i = 0, bucket; i < 9; i++) {
        blocks.push_back(NewBlock('a' + (char)i));
        UInt raw = VMABlockInfoGet(arena, blocks[i], NEWGEN, &bucket);
        EXPECT_EQ((V{blocks[i], raw, bucket}), (V{(i / 4) << 2 | (i % 4), i / 4, i % 4})) << i;
    }
    // Each bucket holds its blocks in its own data file.
    EXPECT_EQ(Fills(blocks, NEWGEN), "abcdefghi");
    // Blocks that were never committed are gone after a reopen.
    Open(kWrite, 3);  // the files' count wins
    EXPECT_EQ((V{arena->bucketCount, RawOf(blocks[7], NEWGEN)}), (V{4, kNone}));
    // With three buckets, a logical ID of the fourth names nothing.
    Close();
    DirectoryRemoveContents(dir.Path().c_str());
    Open(kCreate, 3);
    EXPECT_EQ(VMArenaDataBlockAcquire(arena, 3, NEWGEN, 1), nullptr);
    EXPECT_EQ(VMArenaDataAcquire(arena, 3 << 4 | 15, NEWGEN, 1, 0, 0), nullptr);
}

// The first write after a commit copies the block once; writing the old
// generation, or too large a request, ends the process.
TEST_F(ArenaAllocTest, TheFirstWriteAfterACommitCopiesTheBlockOnce) {
    Open();
    ULong id = Piece(100), other = Piece(100);
    memcpy(Write(id), "before", 6);
    memcpy(Write(other), "second", 6);
    Commit();
    UInt block = LogicalOf(id), raw = RawOf(block, OLDGEN);
    // One block for both until a write.
    EXPECT_TRUE(RawOf(block, NEWGEN) == raw && Read(id, NEWGEN) == Read(id, OLDGEN));
    UByte *first = Write(id);
    memcpy(first, "after", 5);
    UInt copy = RawOf(block, NEWGEN);
    EXPECT_TRUE(copy != raw && RawOf(block, OLDGEN) == raw);
    EXPECT_EQ(Bytes(id, OLDGEN, 6) + Bytes(id, NEWGEN, 6), "beforeaftere");
    // The whole logical block was copied: the neighbour piece too.
    EXPECT_EQ(Bytes(other, OLDGEN, 6) + Bytes(other, NEWGEN, 6), "secondsecond");
    // The second write goes to the copy.
    EXPECT_TRUE(Write(id) == first && Write(other) == first + 112 && RawOf(block, NEWGEN) == copy);
    // Writing the old generation is refused.
    EXPECT_DEATH(VMArenaDataAcquire(arena, id, OLDGEN, 0, 0, 0), "read");
    // Too large a request tags the arena and ends the process.
    EXPECT_DEATH(Piece(8193), "size <= ARENA_MAX_BLOCK_SIZE");
    EXPECT_TRUE(Exists("corrupted"));
    Close();
    EXPECT_EQ(OpenAt(dir.Path(), kWrite), nullptr);
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
        for (ULong id; ids.size() < 1000; ids.push_back(id))
            if ((id = VMArenaBlockNew(arena, 8192, nullptr, NEWGEN)) == INVALID_VMARENA_BLOCK_ID)
                break;
        for (ULong id : ids) memset(Write(id), 0xA5, 8192);
        fprintf(stderr, "%zu blocks; %s\n", ids.size(), QKErrorMessage());
        _exit(ids.size() >= 8 && ids.size() <= 128 ? 0 : 1);
    };
    EXPECT_EXIT(fill(), ::testing::ExitedWithCode(0), "MapAlloc: could not expand mapped file");
}

// A random mix of allocations, frees, writes and commits, checked against a
// model of both generations and of the size classes, across a reopen, in
// one and in four buckets.
class ArenaRandomTest : public ArenaTest, public ::testing::WithParamInterface<UInt> {};

TEST_P(ArenaRandomTest, RandomWorkMatchesAModelOfBothGenerations) {
    const UInt sizes[] = {64,  88,  112,  128,  160,  256,  312,  512,
                          584, 744, 1024, 1632, 2048, 2728, 4096, 8192};
    Open(kCreate, GetParam());
    std::mt19937 random(GetParam());
    std::map<ULong, std::string> live, committed;  // id -> content
    auto fill = [&](ULong id, UInt size) {
        std::string content(size, 0);
        for (char &c : content) c = (char)random();
        memcpy(Write(id), content.data(), size);
        live[id] = content;
    };
    auto verify = [&](const char *when) {
        for (Int g : {NEWGEN, OLDGEN})
            for (auto &[id, content] : g == NEWGEN ? live : committed)
                ASSERT_EQ(Bytes(id, g, content.size()), content) << when << " " << g << " " << id;
        std::string why;
        ASSERT_TRUE(VMArenaCheckAccounting(arena, &why)) << when << ": " << why;
    };
    for (int round = 0; round < 6; round++) {
        for (int step = 0; step < 400; step++) {
            UInt op = random() % 10;
            if (op < 5 || live.empty()) {
                // The first size class that holds the size.
                UInt size = random() % 3 == 0 ? 8192 : random() % 3000, actual, got, sizeClass;
                ULong id = VMArenaBlockNew(arena, size, op == 0 ? nullptr : &actual, NEWGEN);
                ASSERT_NE(id, INVALID_VMARENA_BLOCK_ID);
                ASSERT_EQ(live.count(id), 0u);
                UInt c = id & 15;
                ASSERT_TRUE(size <= sizes[c] && (c == 0 || size > sizes[c - 1])) << size;
                ASSERT_NE(VMArenaDataAcquire(arena, id, NEWGEN, 1, &got, &sizeClass), nullptr);
                ASSERT_TRUE(got == sizes[c] && sizeClass == c && (op == 0 || actual == got));
                fill(id, got);
                continue;
            }
            auto it = std::next(live.begin(), random() % live.size());
            op < 8 ? fill(it->first, (UInt)it->second.size())
                   : (FreePiece(it->first), (void)live.erase(it));
        }
        verify("before commit");
        Commit();
        committed = live;
        verify("after commit");
    }
    Open(kWrite, GetParam());
    verify("after reopen");
    UInt size = 7;
    EXPECT_TRUE(!VMArenaDataAcquire(arena, INVALID_VMARENA_BLOCK_ID, NEWGEN, 1, &size, 0) && !size);
}

INSTANTIATE_TEST_SUITE_P(Buckets, ArenaRandomTest, ::testing::Values(1u, 4u));

// Writers in several threads, each under the new generation's shared hold,
// with a committer between them.
TEST_F(ArenaAllocTest, WritersInThreadsShareTheAllocator) {
    Open(kCreate, 2);
    constexpr int kThreads = 4, kEach = 300;
    std::vector<std::vector<ULong>> ids(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++) {
        threads.emplace_back([this, t, &ids] {
            for (int i = 0; i < kEach; i++) {
                VMArenaNewGenAcquire(arena, NEWGEN);
                ids[t].push_back(Piece(64 + (i % 4) * 1000));
                memset(Write(ids[t].back()), t * kEach + i, 64);
                if (i % 3 == 2) FreePiece(ids[t].end()[-2]), ids[t].erase(ids[t].end() - 2);
                VMArenaNewGenRelease(arena, NEWGEN);
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
    Open(kCreate, 2);
    std::vector<ULong> ids;
    for (int i = 0; i < 40; i++) ids.push_back(Piece(600));
    for (int i = 0; i < 40; i += 2) FreePiece(ids[i]);
    for (int i = 0; i < 6; i++) Block();
    Commit();
    FreeBlock(2 << 1);  // an old block: waits for the commit
    VMArenaFreePrefetch(arena, 1 << 20);
    for (Int genID : {NEWGEN, OLDGEN}) VMArenaDataPrefetch(arena, ids[1], genID);
    VMArenaDataPrefetch(arena, INVALID_VMARENA_BLOCK_ID, NEWGEN);
    ExpectConsistent();
    EXPECT_EQ(Piece(600), ids[38]);
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
