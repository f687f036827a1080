// Commits of an arena: the files written, byte for byte where cheap; the
// size of the data file; compaction; serial mode; the old generation's lock;
// failures; and recovery of a commit cut at every step of its renames.
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <thread>
#include <vector>

#include "arena/arena_check.h"
#include "arena/arena_internal.h"
#include "arena_test_util.h"

using namespace arenatest;
using namespace qk::arena;

namespace {

ULong SizeOf(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? (ULong)st.st_size : ~0ull;
}

ino_t InodeOf(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

class ArenaCommitTest : public ::testing::Test {
  protected:
    void SetUp() override { QKLibInit("arenacommittest"); }
    void TearDown() override { VMArenaClose(arena); }
    VMArena *OpenAt(const std::string &path, UInt flags, UInt buckets = 1,
                    ULong serial = STATUS_NO_SERIAL) {
        return VMArenaOpen(path.c_str(), flags, buckets, serial, serial, nullptr, nullptr);
    }
    void Open(UInt flags = kCreate, UInt buckets = 1, ULong serial = STATUS_NO_SERIAL) {
        VMArenaClose(arena);
        arena = OpenAt(dir.Path(), flags, buckets, serial);
        ASSERT_NE(arena, nullptr) << QKErrorMessage();
    }
    void Commit() { ASSERT_TRUE(VMArenaCommit(arena, nullptr, nullptr)) << QKErrorMessage(); }
    // A new data block filled with `fill`.
    UInt NewBlock(char fill) {
        UInt block = VMArenaDataBlockNew(arena, NEWGEN);
        EXPECT_NE(block, INVALID_RAW_BLOCK_ID);
        Fill(block, fill);
        return block;
    }
    void Fill(UInt block, char fill) {
        memset(VMArenaDataBlockAcquire(arena, block, NEWGEN, 0), fill, 8192);
    }
    // The fill byte of a block, '-' for none, '?' for mixed bytes.
    char Content(UInt block, Int genID, VMArena *in = nullptr) {
        auto *bytes = (const UByte *)VMArenaDataBlockAcquire(in ? in : arena, block, genID, 1);
        if (bytes == nullptr) return '-';
        for (UInt i = 1; i < 8192; i++)
            if (bytes[i] != bytes[0]) return '?';
        return (char)bytes[0];
    }
    UInt RawOf(UInt block, Int genID) { return VMABlockInfoGet(arena, block, genID, nullptr); }
    ULong DataSize(UInt bucket = 0) {
        return SizeOf(dir / ("block/data" + std::to_string(bucket)));
    }
    void ExpectConsistent(VMArena *in = nullptr) {
        std::string why;
        EXPECT_TRUE(VMArenaCheckAccounting(in ? in : arena, &why)) << why;
    }
    TempDir dir;
    VMArena *arena = nullptr;
};

TEST_F(ArenaCommitTest, TheFilesDescribeTheCommittedImage) {
    Open();
    std::vector<UInt> blocks;
    for (char c : {'a', 'b', 'c'}) blocks.push_back(NewBlock(c));
    ULong piece = VMArenaBlockNew(arena, 100, nullptr, NEWGEN);
    ULong oldSerial = 0, newSerial = 0;
    ASSERT_TRUE(VMArenaCommit(arena, &oldSerial, &newSerial)) << QKErrorMessage();
    EXPECT_EQ(oldSerial, STATUS_NO_SERIAL);
    EXPECT_EQ(newSerial, STATUS_NO_SERIAL);
    // Raw blocks 0 to 3 in use; the size is padded to 64 KiB with free blocks.
    EXPECT_TRUE(Same(ReadWhole(dir / "block/index0.new"),
                     LE(8192, 8) + LE(65536, 8) + Raw(4, {0, 1, 2, 3}) + Packed(1, {7, 6, 5, 4}) +
                         Packed(1, {}) + Packed(1, {})));
    EXPECT_EQ(ReadWhole(dir / "block/index0.old"), Raw(4, {0, 1, 2, 3}));
    EXPECT_EQ(DataSize(), 65536u);
    std::string data = ReadWhole(dir / "block/data0");
    EXPECT_EQ(data.substr(8192, 8192), std::string(8192, 'b'));
    // The arena's files: the partial block of class 2 (112) is logical block
    // 3, its next slot 1.
    std::string newGen = LE(1, 8);
    for (int c = 0; c < 16; c++) newGen += Packed(1, {});
    for (int c = 0; c < 16; c++) newGen += c == 2 ? LE(3, 4) + LE(1, 4) : LE(~0u, 4) + LE(0, 4);
    newGen += Packed(1, {}) + LE(1, 8) + Raw(8, {}) + LE(0, 4) + LE(0, 1) + LE(13, 1);
    EXPECT_TRUE(Same(ReadWhole(dir / "arena.new"), newGen));
    EXPECT_EQ(piece, BlockIDMake(2, 0, 3));
    std::set<std::string> files = {"arena.new",   "arena.old",        "block/",
                                   "block/data0", "block/index0.new", "block/index0.old"};
    EXPECT_EQ(Tree(dir.Path()), files);
    ExpectConsistent();
    // Reopening gives the same image in both generations.
    Open(kWrite);
    for (UInt i = 0; i < 3; i++) {
        EXPECT_EQ(Content(blocks[i], NEWGEN), 'a' + (char)i);
        EXPECT_EQ(Content(blocks[i], OLDGEN), 'a' + (char)i);
    }
    EXPECT_EQ(VMArenaBlockNew(arena, 100, nullptr, NEWGEN), BlockIDMake(2, 1, 3));
    ExpectConsistent();
}

TEST_F(ArenaCommitTest, ACommitWithNothingModifiedStillRewritesAndSwaps) {
    Open();
    UInt block = NewBlock('x');
    Commit();
    std::vector<std::string> names = {"arena.new", "arena.old", "block/index0.new",
                                      "block/index0.old"};
    std::map<std::string, std::string> bytes;
    std::map<std::string, ino_t> inodes;
    for (auto &name : names) {
        bytes[name] = ReadWhole(dir / name);
        inodes[name] = InodeOf(dir / name);
    }
    Commit();
    for (auto &name : names) {
        EXPECT_EQ(ReadWhole(dir / name), bytes[name]) << name;
        EXPECT_NE(InodeOf(dir / name), inodes[name]) << name << " was not replaced";
    }
    EXPECT_EQ(Content(block, OLDGEN), 'x');
    ExpectConsistent();
}

TEST_F(ArenaCommitTest, TheDataFileGrowsAndShrinksInWholeFileBlocks) {
    Open();
    std::vector<UInt> blocks;
    for (int i = 0; i < 20; i++) blocks.push_back(NewBlock((char)('A' + i)));
    Commit();
    EXPECT_EQ(DataSize(), 3u * 65536);  // 20 blocks padded to 24
    // New blocks that fit the holes leave the size alone.
    VMArenaDataBlockFree(arena, blocks[19], NEWGEN);
    Commit();
    for (int i = 0; i < 4; i++) blocks.push_back(NewBlock('h'));
    Commit();
    EXPECT_EQ(DataSize(), 3u * 65536);
    for (UInt i = 20; i < 24; i++) EXPECT_LT(RawOf(blocks[i], OLDGEN), 24u);
    // Freeing the high blocks: the first commit keeps them for the old
    // generation, the second cuts the file to the next 64 KiB above the
    // highest block in use.
    for (UInt i = 9; i < 24; i++)
        if (i != 19) VMArenaDataBlockFree(arena, blocks[i], NEWGEN);
    Commit();
    EXPECT_EQ(DataSize(), 3u * 65536);
    EXPECT_EQ(Content(blocks[12], OLDGEN), '-');
    Commit();
    EXPECT_EQ(DataSize(), 2u * 65536);  // blocks 0 to 8 in use: 9 blocks
    for (UInt i = 0; i < 9; i++) EXPECT_EQ(Content(blocks[i], OLDGEN), 'A' + (char)i);
    ExpectConsistent();
    // Everything deleted: never below 64 KiB.
    for (UInt i = 0; i < 9; i++) VMArenaDataBlockFree(arena, blocks[i], NEWGEN);
    Commit();
    Commit();
    EXPECT_EQ(DataSize(), 65536u);
    EXPECT_TRUE(Same(ReadWhole(dir / "block/index0.new").substr(8, 8), LE(0, 8)));
    ExpectConsistent();
    Open(kWrite);
    ExpectConsistent();
    EXPECT_EQ(RawOf(NewBlock('z'), NEWGEN), 0u);
}

TEST_F(ArenaCommitTest, CompactionMovesNewBlocksIntoLowerHoles) {
    Open();
    UInt a = NewBlock('a'), b = NewBlock('b'), c = NewBlock('c');
    ASSERT_EQ(RawOf(c, NEWGEN), 2u);
    VMArenaDataBlockFree(arena, a, NEWGEN);
    Commit();
    // The highest new block took the hole; the file holds its bytes there.
    EXPECT_EQ(RawOf(c, OLDGEN), 0u);
    EXPECT_EQ(RawOf(b, OLDGEN), 1u);
    EXPECT_EQ(Content(c, OLDGEN), 'c');
    EXPECT_EQ(Content(c, NEWGEN), 'c');
    EXPECT_EQ(ReadWhole(dir / "block/data0").substr(0, 8192), std::string(8192, 'c'));
    EXPECT_EQ(ReadWhole(dir / "block/index0.old"), Raw(4, {INVALID_RAW_BLOCK_ID, 1, 0}));
    ExpectConsistent();
    // Blocks of the old image never move: copies do.
    Commit();
    Fill(b, 'B');  // copied to raw 2, the lowest free
    EXPECT_EQ(RawOf(b, NEWGEN), 2u);
    VMArenaDataBlockFree(arena, c, NEWGEN);
    Commit();
    EXPECT_EQ(RawOf(b, OLDGEN), 2u);  // raw 0 was still the old image's
    Fill(b, 'b');
    Commit();
    EXPECT_EQ(RawOf(b, OLDGEN), 0u);
    EXPECT_EQ(Content(b, OLDGEN), 'b');
    ExpectConsistent();
}

TEST_F(ArenaCommitTest, SerialModeWritesEachGenerationUnderItsSerial) {
    Open(kCreate, 2, 0);
    UInt block = NewBlock('1');
    std::vector<UInt> high;
    for (int i = 0; i < 30; i++) high.push_back(NewBlock('h'));
    ULong oldSerial = 0, newSerial = 0;
    ASSERT_TRUE(VMArenaCommit(arena, &oldSerial, &newSerial)) << QKErrorMessage();
    EXPECT_EQ(oldSerial, 1u);
    EXPECT_EQ(newSerial, 1u);
    for (UInt h : high) VMArenaDataBlockFree(arena, h, NEWGEN);
    ASSERT_TRUE(VMArenaCommit(arena, &oldSerial, &newSerial)) << QKErrorMessage();
    EXPECT_EQ(newSerial, 2u);
    ULong sizeBefore = DataSize(0);
    EXPECT_EQ(sizeBefore, 2u * 65536);
    Commit();  // serial 3: the freed blocks are free in both generations now
    // Another process may map the file: it keeps its size.
    EXPECT_EQ(DataSize(0), sizeBefore);
    EXPECT_TRUE(Same(ReadWhole(dir / "block/index0.new.3").substr(8, 8), LE(65536, 8)));
    Fill(block, '4');
    Commit();  // serial 4
    std::set<std::string> files = {"block/"};
    for (std::string s : {"0", "1", "2", "3", "4"}) {
        files.insert({"arena.new." + s, "arena.old." + s});
        for (std::string b : {"0", "1"})
            files.insert({"block/index" + b + ".new." + s, "block/index" + b + ".old." + s});
    }
    files.insert({"block/data0", "block/data1"});
    EXPECT_EQ(Tree(dir.Path()), files);
    // The earlier generations go only when the caller says so.
    EXPECT_TRUE(VMArenaUnlinkGeneration(arena, 1, 1));
    EXPECT_TRUE(VMArenaUnlinkGeneration(arena, 0, 0));
    EXPECT_TRUE(VMArenaUnlinkGeneration(arena, 0, 0));  // nothing left: no failure
    EXPECT_FALSE(FileExists((dir / "arena.new.1").c_str()));
    EXPECT_FALSE(FileExists((dir / "block/index1.old.0").c_str()));
    EXPECT_TRUE(FileExists((dir / "arena.new.2").c_str()));
    // Reopening at serial 3 reads the third generation, at 4 the fourth.
    Open(kWrite, 2, 3);
    EXPECT_EQ(Content(block, OLDGEN), '1');
    EXPECT_EQ(Content(high[5], OLDGEN), '-');
    ExpectConsistent();
    Open(kWrite, 2, 4);
    EXPECT_EQ(Content(block, NEWGEN), '4');
    ExpectConsistent();
}

// A reader in another process mounts what the writer committed in serial
// mode, and switches to it at its own memory commit.
TEST_F(ArenaCommitTest, AReaderMountsALaterSerialGeneration) {
    Open(kCreate, 1, 0);
    UInt block = NewBlock('1');
    Commit();  // serial 1
    VMArena *reader = OpenAt(dir.Path(), kRead, 1, 1);
    ASSERT_NE(reader, nullptr) << QKErrorMessage();
    EXPECT_EQ(Content(block, OLDGEN, reader), '1');
    Fill(block, '2');
    std::vector<UInt> more;
    for (int i = 0; i < 12; i++) more.push_back(NewBlock('m'));  // beyond the reader's mapping
    Commit();                                                    // serial 2
    EXPECT_EQ(Content(block, OLDGEN, reader), '1');
    ASSERT_TRUE(VMArenaMountGeneration(reader, 2, 2)) << QKErrorMessage();
    EXPECT_EQ(Content(block, OLDGEN, reader), '1');
    ASSERT_TRUE(VMArenaFlushCommitMemory(reader, 1)) << QKErrorMessage();
    EXPECT_EQ(Content(block, OLDGEN, reader), '2');
    EXPECT_EQ(Content(more[11], OLDGEN, reader), 'm');
    EXPECT_FALSE(reader->mounted);
    VMArenaClose(reader);
}

TEST_F(ArenaCommitTest, AnOldGenerationReaderBlocksOnlyTheMemoryStep) {
    Open(kCreate, 2);
    std::vector<UInt> blocks;
    for (char c : {'a', 'b', 'c', 'd'}) blocks.push_back(NewBlock(c));
    Commit();
    VMArenaOldGenAcquire(arena);
    auto *held = (const UByte *)VMArenaDataBlockAcquire(arena, blocks[0], OLDGEN, 1);
    ASSERT_NE(held, nullptr);
    for (UInt b : blocks) Fill(b, 'z');
    VMArenaDataBlockFree(arena, blocks[3], NEWGEN);
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
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (phase == 0 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    ASSERT_EQ(phase, 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(phase, 1) << "the memory step waits for the reader";
    EXPECT_EQ(held[0], 'a');
    for (UInt i = 0; i < 4; i++) EXPECT_EQ(Content(blocks[i], OLDGEN), 'a' + (char)i);
    VMArenaOldGenRelease(arena);
    committer.join();
    EXPECT_EQ(phase, 2);
    VMArenaOldGenAcquire(arena);
    EXPECT_EQ(Content(blocks[0], OLDGEN), 'z');
    EXPECT_EQ(Content(blocks[3], OLDGEN), '-');
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
    EXPECT_FALSE(FileExists((dir / "committing").c_str()));
    EXPECT_TRUE(RWLockAcquireWriteTimeout(&arena->rw_gen.lock, 1000));
    RWLockRelease(&arena->rw_gen.lock);
    EXPECT_EQ(Content(block, OLDGEN), '1');
    VMArenaClose(arena);
    arena = nullptr;
    rmdir((dir / "arena.new.new").c_str());
    Open(kWrite);
    EXPECT_EQ(Content(block, NEWGEN), '1');
    // The temporary files of the failed commit stay until the next one.
    std::string why;
    EXPECT_TRUE(VMArenaCheckMemory(arena, &why)) << why;
    EXPECT_FALSE(VMArenaCheckFiles(dir.Path().c_str(), &why));
    EXPECT_TRUE(StartsWith(why, "left over")) << why;
    Commit();
    ExpectConsistent();
}

TEST_F(ArenaCommitTest, ManyBucketsCommitAndReopen) {
    Open(kCreate, 4);
    std::map<UInt, char> expected;
    for (int round = 0; round < 3; round++) {
        for (int i = 0; i < 25; i++) {
            char fill = (char)('a' + (round * 25 + i) % 26);
            expected[NewBlock(fill)] = fill;
        }
        int k = 0;
        for (auto &[block, fill] : expected) {
            if (k++ % 4 != round) continue;
            Fill(block, 'X');
            fill = 'X';
        }
        VMArenaDataBlockFree(arena, expected.rbegin()->first, NEWGEN);
        expected.erase(std::prev(expected.end()));
        Commit();
        ExpectConsistent();
    }
    for (UInt b = 0; b < 4; b++) EXPECT_EQ(DataSize(b) % 65536, 0u) << b;
    Open(kWrite, 1);
    EXPECT_EQ(arena->bucketCount, 4u);
    for (auto &[block, fill] : expected) {
        EXPECT_EQ(Content(block, NEWGEN), fill) << block;
        EXPECT_EQ(Content(block, OLDGEN), fill) << block;
    }
    ExpectConsistent();
}

// The commit's disk step, rename by rename, cut after every step: the next
// writable open gives exactly the new image when the marker stands, and
// exactly the committed one when it does not.
TEST_F(ArenaCommitTest, RecoveryFinishesACommitCutAtAnyRename) {
    namespace fs = std::filesystem;
    constexpr UInt kBuckets = 4;
    Open(kCreate, kBuckets);
    std::map<UInt, char> before, after;
    for (int i = 0; i < 12; i++) before[NewBlock((char)('a' + i))] = (char)('a' + i);
    Commit();
    after = before;
    for (auto it = after.begin(); it != after.end(); ++it) {
        UInt i = (UInt)std::distance(after.begin(), it);
        if (i % 3 == 0) Fill(it->first, it->second = 'W');
    }
    for (int i = 0; i < 6; i++) after[NewBlock('n')] = 'n';
    VMArenaDataBlockFree(arena, after.begin()->first, NEWGEN);
    after[after.begin()->first] = '-';
    for (auto &entry : after)
        if (!before.count(entry.first)) before[entry.first] = '-';
    // The image as the write phase leaves it, with the marker.
    ASSERT_TRUE(VMArenaFlushStart(arena, nullptr, nullptr));
    ASSERT_TRUE(VMArenaFlushExec(arena)) << QKErrorMessage();
    VMArenaFlushStop(arena);
    VMArenaClose(arena);
    arena = nullptr;
    TempDir written;
    fs::copy(dir.Path(), written.Path(),
             fs::copy_options::recursive | fs::copy_options::overwrite_existing);
    // The steps of the disk phase in their order.
    std::vector<std::function<void(const std::string &)>> steps;
    auto swap = [&steps](std::string name) {
        steps.push_back([name](const std::string &d) {
            rename((d + "/" + name).c_str(), (d + "/" + name + ".old").c_str());
        });
        steps.push_back([name](const std::string &d) {
            rename((d + "/" + name + ".new").c_str(), (d + "/" + name).c_str());
        });
        steps.push_back(
            [name](const std::string &d) { unlink((d + "/" + name + ".old").c_str()); });
    };
    for (UInt b = 0; b < kBuckets; b++) {
        swap("block/index" + std::to_string(b) + ".old");
        swap("block/index" + std::to_string(b) + ".new");
    }
    swap("arena.new");
    swap("arena.old");
    for (bool marker : {true, false}) {
        for (size_t cut = 0; cut <= steps.size(); cut++) {
            if (!marker && cut > 0) break;  // without the marker no rename happens
            DirectoryRemoveContents(dir.Path().c_str());
            fs::copy(written.Path(), dir.Path(), fs::copy_options::recursive);
            for (size_t s = 0; s < cut; s++) steps[s](dir.Path());
            if (marker) WriteWhole(dir / "committing", "");
            Open(kWrite, kBuckets);
            const auto &image = marker ? after : before;
            for (auto &[block, fill] : image) {
                ASSERT_EQ(Content(block, NEWGEN), fill) << marker << " cut " << cut;
                ASSERT_EQ(Content(block, OLDGEN), fill) << marker << " cut " << cut;
            }
            std::string why;
            if (marker) {
                ASSERT_TRUE(VMArenaCheckAccounting(arena, &why)) << "cut " << cut << ": " << why;
            } else {
                // The temporary files stay until the next commit writes them.
                ASSERT_TRUE(VMArenaCheckMemory(arena, &why)) << why;
                EXPECT_TRUE(FileExists((dir / "arena.new.new").c_str()));
                Commit();
                ASSERT_TRUE(VMArenaCheckAccounting(arena, &why)) << why;
            }
        }
    }
}

TEST_F(ArenaCommitTest, AtomicCommitAndRecoverOfOneFile) {
    std::string d = dir.Path();
    // Neither the file nor its new form: failure, and nothing made.
    EXPECT_FALSE(FileAtomicCommit(d.c_str(), "f"));
    EXPECT_TRUE(Tree(d).empty());
    WriteWhole(dir / "f.new", "one");
    EXPECT_TRUE(FileAtomicCommit(d.c_str(), "f"));
    EXPECT_EQ(Tree(d), std::set<std::string>{"f"});
    WriteWhole(dir / "f.new", "two");
    EXPECT_TRUE(FileAtomicCommit(d.c_str(), "f"));
    EXPECT_EQ(ReadWhole(dir / "f"), "two");
    EXPECT_EQ(Tree(d), std::set<std::string>{"f"});
    // No new form: the file steps aside and the recovery brings it back.
    EXPECT_FALSE(FileAtomicCommit(d.c_str(), "f"));
    EXPECT_EQ(Tree(d), std::set<std::string>{"f.old"});
    EXPECT_TRUE(FileAtomicRecover(d.c_str(), "f"));
    EXPECT_EQ(ReadWhole(dir / "f"), "two");
    // Cut between the renames: the new form wins over the old one.
    rename((dir / "f").c_str(), (dir / "f.old").c_str());
    WriteWhole(dir / "f.new", "three");
    EXPECT_TRUE(FileAtomicRecover(d.c_str(), "f"));
    EXPECT_EQ(ReadWhole(dir / "f"), "three");
    EXPECT_EQ(ReadWhole(dir / "f.old"), "two");
    // A standing file is left alone.
    EXPECT_TRUE(FileAtomicRecover(d.c_str(), "f"));
    EXPECT_EQ(ReadWhole(dir / "f"), "three");
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
