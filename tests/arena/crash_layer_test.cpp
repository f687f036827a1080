// The fault layer itself: it sees the library's file calls and ends the
// process at the call asked for, before or after it; and, as a first use, a
// swap through FileAtomicCommit cut at every call leaves one whole file,
// which FileAtomicRecover brings back.
#include <gtest/gtest.h>

#include "crash_util.h"
#include "frame/file_test_dir.h"
#include "qk/qkcommon.h"

using namespace crashtest;

namespace {

const std::string kOld = "old contents", kNew = "new contents, longer";

class CrashLayerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        QKLibInit("crashlayertest");
        ASSERT_FALSE(dir.Path().empty());
    }
    // FileAtomicCommit of a fresh pair of files in a child, armed to crash
    // at `crashAt` (0: never).
    int Commit(long crashAt, bool after) {
        fs::remove(dir / "f.old");
        WriteWhole(dir / "f", kOld);
        WriteWhole(dir / "f.new", kNew);
        return InChild([&] {
            CrashFaultArm(crashAt, after);
            int ok = FileAtomicCommit(dir.Path().c_str(), "f");
            CrashFaultDisarm();
            return ok ? 0 : 1;
        });
    }
    ScratchDir dir;
};

TEST_F(CrashLayerTest, AtomicCommitCutAnywhereLeavesOneWholeFile) {
    ASSERT_EQ(Commit(0, false), 0);
    long count = CrashFaultCount(CRASH_OP_ANY), renames = 0;
    // Two renames (aside and into place), the file's and the directory's
    // syncs, and the removal of the previous file.
    EXPECT_EQ(CrashFaultCount(CRASH_OP_RENAME), 2);
    EXPECT_GE(CrashFaultCount(CRASH_OP_FSYNC), 2);
    EXPECT_EQ(CrashFaultCount(CRASH_OP_UNLINK), 1);
    EXPECT_GE(count, 5);
    EXPECT_EQ(ReadWhole(dir / "f"), kNew);
    // The parent, never armed, counts nothing of its own.
    WriteWhole(dir / "g", "x");
    EXPECT_EQ(CrashFaultCount(CRASH_OP_ANY), count);

    for (long n = 1; n <= count; n++) {
        for (bool after : {false, true}) {
            ASSERT_EQ(Commit(n, after), CRASH_FAULT_EXIT);
            ASSERT_EQ(CrashFaultCount(CRASH_OP_ANY), n);
            SCOPED_TRACE(CallName(n, after));
            // Before the first rename nothing has moved; after it the old
            // file stands aside.
            bool firstRename = renames == 0 && CrashFaultCount(CRASH_OP_RENAME) == 1;
            if (after) renames = CrashFaultCount(CRASH_OP_RENAME);
            if (firstRename) {
                EXPECT_EQ(ReadWhole(dir / "f") + ReadWhole(dir / "f.old"),
                          after ? "<missing>" + kOld : kOld + "<missing>");
            }
            // Cut between the renames, the new form wins over the old one.
            bool between = !fs::exists(dir / "f") && fs::exists(dir / "f.new");
            EXPECT_TRUE(FileAtomicRecover(dir.Path().c_str(), "f"));
            std::string content = ReadWhole(dir / "f");
            EXPECT_EQ(content, between || !fs::exists(dir / "f.new") ? kNew : kOld);
            // Committing again publishes the new file if it is still waiting.
            EXPECT_TRUE(!fs::exists(dir / "f.new") || FileAtomicCommit(dir.Path().c_str(), "f"));
            EXPECT_EQ(ReadWhole(dir / "f"), kNew);
            EXPECT_FALSE(fs::exists(dir / "f.new"));
        }
    }
    // A count beyond the last call lets the child finish.
    EXPECT_EQ(Commit(count + 1, false), 0);
    // Without a new form the file steps aside, and the recovery brings it
    // back, as it leaves a standing file alone; with neither, nothing is made.
    EXPECT_FALSE(FileAtomicCommit(dir.Path().c_str(), "f"));
    EXPECT_EQ(Files(dir.Path()), (std::set<std::string>{"f.old", "g"}));
    for (int i = 0; i < 2; i++) EXPECT_TRUE(FileAtomicRecover(dir.Path().c_str(), "f"));
    EXPECT_EQ(ReadWhole(dir / "f"), kNew);
    EXPECT_FALSE(FileAtomicCommit(dir.Path().c_str(), "none"));
    EXPECT_TRUE(FileAtomicRecover(dir.Path().c_str(), "none"));
    EXPECT_EQ(Files(dir.Path()), (std::set<std::string>{"f", "g"}));
}

}  // namespace
