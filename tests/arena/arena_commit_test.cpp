// Commits of an arena: the files written, byte for byte where cheap; the
// size of the data file; compaction; serial mode and mounts; the old
// generation's lock; failures; and recovery of a commit cut at every step
// of its renames.
#include <atomic>
#include <thread>

#include "arena_test_util.h"

using namespace arenatest;

namespace {

using ArenaCommitTest = ArenaTest;

TEST_F(ArenaCommitTest, TheFilesDescribeTheCommittedImage) {
    Open();
    std::vector<UInt> blocks = {NewBlock('a'), NewBlock('b'), NewBlock('c')};
    ULong piece = Piece(100);
    ULong serial[2] = {0, 0};
    ASSERT_TRUE(VMArenaCommit(arena, &serial[0], &serial[1])) << QKErrorMessage();
    EXPECT_EQ((V{serial[0], serial[1]}), (V{STATUS_NO_SERIAL, STATUS_NO_SERIAL}));
    // Raw blocks 0 to 3 in use; the size is padded to 64 KiB with free blocks.
    EXPECT_EQ(ReadWhole(dir / "block/index0.new"), IndexNew(65536, {0, 1, 2, 3}, {7, 6, 5, 4}));
    EXPECT_EQ(ReadWhole(dir / "block/index0.old"), Raw(4, {0, 1, 2, 3}));
    EXPECT_EQ(ReadWhole(dir / "block/data0").substr(8192, 8192), std::string(8192, 'b'));
    // The partial block of class 2 (112) is logical block 3, its next slot 1.
    EXPECT_EQ(ReadWhole(dir / "arena.new"), BareNewGen(1, 2, 3, 1));
    EXPECT_EQ(piece, BlockIDMake(2, 0, 3));
    EXPECT_EQ(Tree(), (std::set<std::string>{"arena.new", "arena.old", "block/", "block/data0",
                                             "block/index0.new", "block/index0.old"}));
    // Reopening gives the same image in both generations.
    Open(kWrite);
    EXPECT_EQ(Fills(blocks, NEWGEN) + Fills(blocks, OLDGEN), "abcabc");
    EXPECT_EQ(Piece(100), BlockIDMake(2, 1, 3));
    ExpectConsistent();
}

// The data file grows in 64 KiB steps; freed high blocks are cut off once
// the old generation no longer holds them, never below 64 KiB.
TEST_F(ArenaCommitTest, TheDataFileGrowsAndShrinksInWholeFileBlocks) {
    Open();
    std::vector<UInt> blocks;
    for (int i = 0; i < 20; i++) blocks.push_back(NewBlock((char)('A' + i)));
    for (size_t keep : {9, 0}) {
        Commit();
        EXPECT_EQ(SizeOf("block/data0"), (keep ? 3u : 2u) * 65536);  // 20 blocks padded to 24
        for (UInt i = keep; i < blocks.size(); i++) FreeBlock(blocks[i]);
        blocks.resize(keep);
        Commit();
        EXPECT_EQ(SizeOf("block/data0"), (keep ? 3u : 2u) * 65536);  // the old image's
        EXPECT_EQ(Fills(blocks, OLDGEN), std::string("ABCDEFGHI", keep));
    }
    Commit();
    EXPECT_EQ(SizeOf("block/data0"), 65536u);
    EXPECT_EQ(ReadWhole(dir / "block/index0.new").substr(8, 8), LE(0, 8));
    ExpectConsistent();
}

// Serial mode: each generation's files under its serial, data files never
// cut, earlier generations removed only when the caller says so; a reader
// mounts a later generation and switches to it at its own memory commit.
TEST_F(ArenaCommitTest, SerialModeWritesEachGenerationUnderItsSerial) {
    Open(kCreate, 2, 0);
    std::set<std::string> files = {"block/", "block/data0", "block/data1"};
    auto generation = [&](std::string s) {
        for (std::string x : {"arena.new.", "arena.old.", "block/index0.new.", "block/index0.old.",
                              "block/index1.new.", "block/index1.old."})
            files.insert(x + s);
    };
    generation("0");
    EXPECT_EQ(Tree(), files);
    EXPECT_EQ(ReadWhole(dir / "arena.new.0"), BareNewGen(2));
    // In serial mode the block directory is no sign of an arena.
    EXPECT_EQ(OpenAt(dir.Path(), kWrite, 2, 1), nullptr);
    EXPECT_TRUE(StartsWith(QKErrorMessage(), "could not read VMArena")) << QKErrorMessage();
    VMArena *reader = OpenAt(dir.Path(), kRead, 2, 0);
    ASSERT_NE(reader, nullptr) << QKErrorMessage();

    UInt block = NewBlock('1');
    std::vector<UInt> high;
    for (int i = 0; i < 30; i++) high.push_back(NewBlock('h'));  // beyond the reader's mapping
    ULong serial[2] = {0, 0};
    ASSERT_TRUE(VMArenaCommit(arena, &serial[0], &serial[1])) << QKErrorMessage();
    EXPECT_EQ((V{serial[0], serial[1]}), (V{1, 1}));
    EXPECT_FALSE(VMArenaMountGeneration(reader, 2, 2));
    EXPECT_TRUE(StartsWith(QKErrorMessage(), "could not open file")) << QKErrorMessage();
    ASSERT_TRUE(VMArenaMountGeneration(reader, 1, 1)) << QKErrorMessage();
    // The old generation changes at the memory commit.
    EXPECT_EQ(Fills({block}, NEWGEN, reader) + Fills({block}, OLDGEN, reader), "1-");
    ASSERT_TRUE(VMArenaFlushCommitMemory(reader, 1)) << QKErrorMessage();
    EXPECT_EQ(Fills({block, high[29]}, OLDGEN, reader), "1h");

    for (UInt h : high) FreeBlock(h);
    ASSERT_TRUE(VMArenaCommit(arena, &serial[0], &serial[1])) << QKErrorMessage();
    Commit();  // serial 3: the freed blocks are free in both generations now
    // Another process may map the file: it keeps its size.
    EXPECT_EQ((V{serial[1], SizeOf("block/data0")}), (V{2, 2 * 65536}));
    EXPECT_EQ(ReadWhole(dir / "block/index0.new.3").substr(8, 8), LE(65536, 8));
    Fill(block, '4');
    Commit();  // serial 4
    for (std::string s : {"1", "2", "3", "4"}) generation(s);
    EXPECT_EQ(Tree(), files);
    // Unlinking a generation already gone is no failure.
    EXPECT_TRUE(VMArenaUnlinkGeneration(reader, 0, 0) && VMArenaUnlinkGeneration(arena, 1, 1) &&
                VMArenaUnlinkGeneration(arena, 0, 0));
    EXPECT_TRUE(!Exists("arena.new.1") && !Exists("block/index1.old.0") && Exists("arena.new.2"));
    // Reopening at serial 3 reads the third generation, at 4 the fourth.
    Open(kWrite, 2, 3);
    EXPECT_EQ(Fills({block, high[5]}, OLDGEN), "1-");
    Open(kWrite, 2, 4);
    EXPECT_EQ(Fills({block}, NEWGEN), "4");
    ExpectConsistent();
    // A generation of another bucket count does not mount.
    WriteWhole(dir / "arena.new.4", LE(3, 8) + ReadWhole(dir / "arena.new.4").substr(8));
    EXPECT_FALSE(VMArenaMountGeneration(reader, 4, 4));
    EXPECT_EQ(QKErrorMessage(), "arena : could not read new generation: \"" + dir / "arena.new.4" +
                                    "\": arena: could not read new generation: invalid number "
                                    "of buckets");
    VMArenaClose(reader);
}

TEST_F(ArenaCommitTest, AnOldGenerationReaderBlocksOnlyTheMemoryStep) {
    Open(kCreate, 2);
    std::vector<UInt> blocks = {NewBlock('a'), NewBlock('b'), NewBlock('c'), NewBlock('d')};
    Commit();
    VMArenaOldGenAcquire(arena);
    auto *held = (const UByte *)VMArenaDataBlockAcquire(arena, blocks[0], OLDGEN, 1);
    ASSERT_NE(held, nullptr);
    for (UInt b : blocks) Fill(b, 'z');
    FreeBlock(blocks[3]);
    std::atomic<int> phase{0};
    std::thread committer([&] {
        bool ok = VMArenaFlushStart(arena, nullptr, nullptr) && VMArenaFlushExec(arena) &&
                  VMArenaFlushCommitDisk(arena);
        phase = ok ? 1 : -1;
        ok = ok && VMArenaFlushCommitMemory(arena, 1);
        VMArenaFlushStop(arena);
        phase = ok ? 2 : -1;
    });
    // The disk phases run while the reader holds its lock; its pointer and
    // the old bytes stay.
    for (int wait = 0; wait < 4000 && phase == 0; wait++) usleep(5000);
    ASSERT_EQ(phase, 1);
    usleep(100000);
    EXPECT_EQ(phase, 1) << "the memory step waits for the reader";
    EXPECT_EQ(held[0], 'a');
    EXPECT_EQ(Fills(blocks, OLDGEN), "abcd");
    VMArenaOldGenRelease(arena);
    committer.join();
    EXPECT_EQ(phase, 2);
    VMArenaOldGenAcquire(arena);
    EXPECT_EQ(Fills(blocks, OLDGEN), "zzz-");
    VMArenaOldGenRelease(arena);
    ExpectConsistent();
}

TEST_F(ArenaCommitTest, AFailedCommitReleasesTheLockAndKeepsTheDisk) {
    Open();
    UInt block = NewBlock('1');
    Commit();
    Fill(block, '2');
    // A directory where the metadata file goes: its writing fails.
    ASSERT_EQ(mkdir((dir / "arena.new.new").c_str(), 0755), 0);
    EXPECT_FALSE(VMArenaCommit(arena, nullptr, nullptr));
    EXPECT_TRUE(StartsWith(QKErrorMessage(), "VMArenaFileFlushNew: could not write data on"))
        << QKErrorMessage();
    EXPECT_FALSE(Exists("committing"));
    EXPECT_TRUE(RWLockAcquireWriteTimeout(&arena->rw_gen.lock, 1000));
    RWLockRelease(&arena->rw_gen.lock);
    EXPECT_EQ(Fills({block}, OLDGEN), "1");
    Close();
    rmdir((dir / "arena.new.new").c_str());
    Open(kWrite);
    EXPECT_EQ(Fills({block}, NEWGEN) + Fills({block}, OLDGEN), "11");
    // The temporary files of the failed commit stay until the next one.
    std::string why;
    EXPECT_TRUE(VMArenaCheckMemory(arena, &why)) << why;
    EXPECT_FALSE(VMArenaCheckFiles(dir.Path().c_str(), &why));
    EXPECT_TRUE(StartsWith(why, "left over")) << why;
    Commit();
    ExpectConsistent();
}

// The commit's disk step, rename by rename, cut after every step, and a few
// states that no commit of this library leaves: the next writable open
// gives exactly the new image or exactly the committed one, and a reader
// renames nothing.
TEST_F(ArenaCommitTest, RecoveryFinishesACommitCutAtAnyRename) {
    namespace fs = std::filesystem;
    constexpr UInt kBuckets = 4;
    Open(kCreate, kBuckets);
    std::vector<UInt> blocks;
    for (char c = 'a'; c < 'm'; c++) blocks.push_back(NewBlock(c));
    Commit();
    // The next image: some blocks written again, one freed, new ones.
    for (UInt i = 0; i < 12; i += 3) Fill(blocks[i], 'W');
    for (int i = 0; i < 6; i++) blocks.push_back(NewBlock('n'));
    FreeBlock(blocks[1]);
    const std::string after = "W-cWefWhiWklnnnnnn";
    ASSERT_TRUE(VMArenaFlushStart(arena, nullptr, nullptr));
    ASSERT_TRUE(VMArenaFlushExec(arena)) << QKErrorMessage();
    VMArenaFlushStop(arena);
    Close();
    TempDir written;  // as the write phase leaves it
    fs::copy(dir.Path(), written.Path(), fs::copy_options::recursive);
    // Step 3i of the disk phase sets file i aside, 3i+1 puts its new form
    // in place, 3i+2 removes the one set aside.
    std::vector<std::string> names;
    for (UInt b = 0; b < kBuckets; b++)
        for (const char *x : {".old", ".new"})
            names.push_back("block/index" + std::to_string(b) + x);
    names.insert(names.end(), {"arena.new", "arena.old"});
    auto step = [&](size_t s) {
        std::string name = dir / names[s / 3];
        if (s % 3 == 0) rename(name.c_str(), (name + ".old").c_str());
        if (s % 3 == 1) rename((name + ".new").c_str(), name.c_str());
        if (s % 3 == 2) unlink((name + ".old").c_str());
    };
    // After any step under the marker, the new image. Without the marker
    // (the crash tests cut the commit before it), a swap cut between its
    // renames is finished by the recovery of a writable open, which keeps
    // the file set aside until the next commit.
    const size_t kSteps = names.size() * 3, kArenaNew = kSteps - 6;
    for (size_t steps = 0; steps <= kSteps + 1; steps++) {
        bool marker = steps <= kSteps;
        SCOPED_TRACE(testing::Message() << steps << " steps");
        DirectoryRemoveContents(dir.Path().c_str());
        fs::copy(written.Path(), dir.Path(), fs::copy_options::recursive);
        for (size_t s = 0; s < (marker ? steps : kArenaNew + 1); s++) step(s);
        if (!marker) step(kArenaNew + 3), step(kArenaNew + 4);
        if (marker) WriteWhole(dir / "committing", "");
        auto files = Tree();
        EXPECT_EQ(OpenAt(dir.Path(), kRead, kBuckets), nullptr);
        EXPECT_TRUE(StartsWith(QKErrorMessage(),
                               marker ? "Cannot open read-only vm" : "existing but not openable"))
            << QKErrorMessage();
        EXPECT_EQ(Tree(), files);
        Open(kWrite, kBuckets);
        ASSERT_EQ(Fills(blocks, NEWGEN) + Fills(blocks, OLDGEN), after + after);
        std::string why;
        if (!marker) {
            ASSERT_TRUE(VMArenaCheckMemory(arena, &why)) << why;
            EXPECT_TRUE(Exists("arena.new.old"));
            Commit();
        }
        ASSERT_TRUE(VMArenaCheckAccounting(arena, &why)) << why;
    }
}

TEST_F(ArenaCommitTest, CommitMarksLiveInTheStatusFile) {
    const char *d = dir.Path().c_str();
    EXPECT_FALSE(CommitMarked(d));
    EXPECT_TRUE(CommitMark(d));
    EXPECT_TRUE(CommitMarked(d));
    EXPECT_EQ(ReadWhole(dir / "status.txt"), "c=1\n");
    // Other lines stay as they are.
    WriteWhole(dir / "status.txt", "a=5\nc=1\n#7\n@user data\n");
    EXPECT_TRUE(CommitUnMark(d));
    EXPECT_FALSE(CommitMarked(d));
    EXPECT_EQ(ReadWhole(dir / "status.txt"), "a=5\n#7\n@user data\n");
    // Only 1 counts as marked.
    WriteWhole(dir / "status.txt", "c=2\n");
    EXPECT_FALSE(CommitMarked(d));
    // An unreadable status: no mark set, with the reason.
    WriteWhole(dir / "status.txt", "c=x\n");
    EXPECT_FALSE(CommitMark(d));
    EXPECT_TRUE(StartsWith(QKErrorMessage(), "repository : could not read status in dir"))
        << QKErrorMessage();
}

}  // namespace
