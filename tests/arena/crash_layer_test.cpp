// The fault layer itself: it sees the library's file calls, ends the process
// at the call asked for, before or after it; and, as a first use, a swap
// through FileAtomicCommit cut at every call leaves one whole file.
#include <gtest/gtest.h>

#include "crash_util.h"
#include "frame/file_test_dir.h"
#include "qk/qkcommon.h"

using namespace crashtest;

namespace {

class CrashLayerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        QKLibInit("crashlayertest");
        ASSERT_FALSE(dir.Path().empty());
    }
    void Prepare() {
        dir.Clear();
        WriteWhole(dir / "f", "old contents");
        WriteWhole(dir / "f.new", "new contents, longer");
    }
    // FileAtomicCommit in a child, armed to crash at `crashAt` (0: never).
    int Commit(long crashAt, bool after) {
        return InChild([&] {
            CrashFaultArm(crashAt, after);
            int ok = FileAtomicCommit(dir.Path().c_str(), "f");
            CrashFaultDisarm();
            return ok ? 0 : 1;
        });
    }
    ScratchDir dir;
};

TEST_F(CrashLayerTest, CountsTheLibrarysCallsInAChild) {
    Prepare();
    ASSERT_EQ(Commit(0, false), 0);
    long count = CrashFaultCount();
    // Two renames (aside and into place), the file's and the directory's
    // syncs, and the removal of the previous file.
    EXPECT_EQ(CrashFaultCountOf(CRASH_OP_RENAME), 2);
    EXPECT_GE(CrashFaultCountOf(CRASH_OP_FSYNC), 2);
    EXPECT_EQ(CrashFaultCountOf(CRASH_OP_UNLINK), 1);
    EXPECT_GE(count, 5);
    bool sawRename = false;
    for (long n = 1; n <= count; n++) {
        if (CrashFaultOpAt(n) == CRASH_OP_RENAME && std::string(CrashFaultArgAt(n)).ends_with("/f"))
            sawRename = true;
    }
    EXPECT_TRUE(sawRename);
    EXPECT_EQ(ReadWhole(dir / "f"), "new contents, longer");
    // The parent, never armed, counts nothing of its own.
    WriteWhole(dir / "g", "x");
    EXPECT_EQ(CrashFaultCount(), count);
}

TEST_F(CrashLayerTest, EndsTheChildAtTheCallAskedFor) {
    Prepare();
    ASSERT_EQ(Commit(0, false), 0);
    long count = CrashFaultCount();
    long firstRename = 0;
    for (long n = count; n >= 1; n--) {
        if (CrashFaultOpAt(n) == CRASH_OP_RENAME) firstRename = n;
    }
    ASSERT_GT(firstRename, 0);
    // Before the first rename nothing has moved; after it the old file
    // stands aside.
    Prepare();
    EXPECT_EQ(Commit(firstRename, false), CRASH_FAULT_EXIT);
    EXPECT_EQ(CrashFaultCount(), firstRename);
    EXPECT_EQ(ReadWhole(dir / "f"), "old contents");
    Prepare();
    EXPECT_EQ(Commit(firstRename, true), CRASH_FAULT_EXIT);
    EXPECT_EQ(ReadWhole(dir / "f"), "<missing>");
    EXPECT_EQ(ReadWhole(dir / "f.old"), "old contents");
    // A count beyond the last call lets the child finish.
    Prepare();
    EXPECT_EQ(Commit(count + 1, false), 0);
}

TEST_F(CrashLayerTest, AtomicCommitCutAnywhereLeavesOneWholeFile) {
    Prepare();
    ASSERT_EQ(Commit(0, false), 0);
    long count = CrashFaultCount();
    for (long n = 1; n <= count; n++) {
        for (bool after : {false, true}) {
            SCOPED_TRACE(CallName(n, after));
            Prepare();
            ASSERT_EQ(Commit(n, after), CRASH_FAULT_EXIT);
            std::string what = CallName(n, after);
            FileAtomicRecover(dir.Path().c_str(), "f");
            std::string content = ReadWhole(dir / "f");
            EXPECT_TRUE(content == "old contents" || content == "new contents, longer") << content;
            // Committing again publishes the new file if it is still waiting.
            if (Exists(dir / "f.new")) {
                EXPECT_EQ(content, "old contents");
                EXPECT_TRUE(FileAtomicCommit(dir.Path().c_str(), "f"));
            }
            EXPECT_EQ(ReadWhole(dir / "f"), "new contents, longer");
            EXPECT_FALSE(Exists(dir / "f.new"));
        }
    }
}

}  // namespace
