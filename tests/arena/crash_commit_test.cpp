// Commits cut at every file system call. A known change B of a committed
// state A is committed in a child that the fault layer ends at call N,
// before or after the call, for every N of the commit. The parent then
// opens what is left and requires: every block of A in its bytes, or every
// block of B in its bytes, never a mix, in both generations; the arena's
// accounting whole; a further change C allocating exactly the IDs that it
// allocates on a clean A or B; and after C's commit no file beyond those of
// a clean arena. Where a crash leaves the commit marker, the open that
// recovers is itself cut at every call, and the same is required after it.
#include <gtest/gtest.h>

#include <functional>

#include "arena/arena_check.h"
#include "crash_model.h"
#include "crash_util.h"

using namespace crashtest;

namespace {

// How the change B moves the data file: it grows (copies, new blocks), or
// it shrinks (the high blocks were freed by the commit before A, so the
// commit of B may cut them).
enum class Kind { Grow, Shrink };

struct Variant {
    UInt buckets;
    Kind kind;
    bool recoverFlag;  // reopen with VM_FLAG_RECOVER
};

std::string VariantName(const ::testing::TestParamInfo<Variant> &info) {
    return std::to_string(info.param.buckets) + "Bucket" +
           (info.param.kind == Kind::Grow ? "Grow" : "Shrink") +
           (info.param.recoverFlag ? "Recover" : "Plain");
}

void PrintTo(const Variant &v, std::ostream *out) {
    *out << v.buckets << (v.buckets == 1 ? " bucket, " : " buckets, ")
         << (v.kind == Kind::Grow ? "growing" : "shrinking")
         << (v.recoverFlag ? ", reopened with VM_FLAG_RECOVER" : "");
}

// Child exit codes besides 0 and the fault layer's.
enum { kChildOpenFailed = 10, kChildChangeDiffers = 11, kChildCommitFailed = 12 };

constexpr int kMaxFailures = 8;

bool Commit(VMArena *arena) {
    return VMArenaCommit(arena, nullptr, nullptr) != 0;
}

// The changes. Each applies to the arena and the model together and
// depends only on the model, so that it allocates the same IDs wherever
// it runs on the same committed state.

// State A: pieces of three smaller classes, then whole blocks, version
// 1. For Shrink, the high whole blocks are freed and committed once
// more: the old image still holds them then, so only the commit of B
// can cut them from the data file.
bool BuildA(VMArena *arena, Model *model, Kind kind) {
    for (UInt size : {88u, 1000u, 4000u}) {
        for (UInt i = 0; i < (size == 88 ? 40u : 8u); i++) {
            if (New(arena, model, size, 1) == INVALID_VMARENA_BLOCK_ID) return false;
        }
    }
    UInt whole = kind == Kind::Grow ? 24 : 72;
    for (UInt i = 0; i < whole; i++) {
        if (New(arena, model, 8192, 1) == INVALID_VMARENA_BLOCK_ID) return false;
    }
    if (!Commit(arena)) return false;
    if (kind == Kind::Shrink) {
        std::vector<ULong> high;
        for (ULong id : model->order) {
            if ((id & 15) == 15) high.push_back(id);
        }
        high.erase(high.begin(), high.begin() + 16);
        for (ULong id : high) Free(arena, model, id);
        if (!Commit(arena)) return false;
    }
    return true;
}

// B: every third block written again (copy on write), some whole blocks
// and pieces freed, new ones allocated (pieces first from the freed
// slots); Grow adds many whole blocks.
bool ChangeB(VMArena *arena, Model *model, Kind kind) {
    std::vector<ULong> order = model->order;
    for (size_t i = 0; i < order.size(); i += 3) {
        if (!Write(arena, model, order[i], 2)) return false;
    }
    int wholeFreed = 0, piecesFreed = 0;
    for (size_t i = 1; i < order.size(); i += 4) {
        bool whole = (order[i] & 15) == 15;
        if (whole && wholeFreed < 4) {
            Free(arena, model, order[i]);
            wholeFreed++;
        } else if (!whole && piecesFreed < 6) {
            Free(arena, model, order[i]);
            piecesFreed++;
        }
    }
    UInt newWhole = kind == Kind::Grow ? 48 : 3;
    for (UInt i = 0; i < newWhole; i++) {
        if (New(arena, model, 8192, 2) == INVALID_VMARENA_BLOCK_ID) return false;
    }
    for (UInt size : {70u, 88u, 1000u}) {
        for (UInt i = 0; i < 4; i++) {
            if (New(arena, model, size, 2) == INVALID_VMARENA_BLOCK_ID) return false;
        }
    }
    return true;
}

// C, after a recovery: a few writes, frees and allocations, version 3.
bool ChangeC(VMArena *arena, Model *model) {
    std::vector<ULong> order = model->order;
    for (size_t i = 0; i < 3 && i < order.size(); i++) {
        if (!Write(arena, model, order[i], 3)) return false;
    }
    for (size_t i = order.size() - 2; i < order.size(); i++) Free(arena, model, order[i]);
    for (UInt size : {8192u, 8192u, 8192u, 1000u, 88u}) {
        if (New(arena, model, size, 3) == INVALID_VMARENA_BLOCK_ID) return false;
    }
    return true;
}

class CrashCommitTest : public ::testing::TestWithParam<Variant> {
  protected:
    void SetUp() override {
        QKLibInit("crashcommittest");
        ASSERT_FALSE(golden.Path().empty());
        ASSERT_NO_FATAL_FAILURE(MakeReferences());
    }

    VMArena *Open(const std::string &dir, UInt flags) {
        return VMArenaOpen(dir.c_str(), VM_FLAG_MAPPED | flags, GetParam().buckets,
                           STATUS_NO_SERIAL, STATUS_NO_SERIAL, nullptr, nullptr);
    }

    // --- References, made without faults: golden A, B, and C applied on
    // each.

    void MakeReferences() {
        const Variant &v = GetParam();
        VMArena *arena = Open(golden.Path(), VM_FLAG_CREATE);
        ASSERT_NE(arena, nullptr) << QKErrorMessage();
        ASSERT_TRUE(BuildA(arena, &modelA, v.kind)) << QKErrorMessage();
        VMArenaClose(arena);
        cleanFiles = Files(golden.Path());

        ASSERT_TRUE(CopyTree(golden.Path(), refB.Path()));
        arena = Open(refB.Path(), 0);
        ASSERT_NE(arena, nullptr) << QKErrorMessage();
        modelB = modelA;
        CrashFaultArm(0, false);
        bool changed = ChangeB(arena, &modelB, v.kind);
        changeCalls = CrashFaultDisarm();
        ASSERT_TRUE(changed) << QKErrorMessage();
        ASSERT_TRUE(Commit(arena)) << QKErrorMessage();
        VMArenaClose(arena);
        ASSERT_EQ(Files(refB.Path()), cleanFiles);
        sizeA = DataSize(golden.Path());
        sizeB = DataSize(refB.Path());
        if (v.kind == Kind::Grow) {
            EXPECT_GT(sizeB, sizeA);
        } else {
            EXPECT_LT(sizeB, sizeA);
        }

        ASSERT_TRUE(ApplyC(golden.Path(), modelA, &modelAC));
        ASSERT_TRUE(ApplyC(refB.Path(), modelB, &modelBC));
        ASSERT_NE(modelAC.order, modelBC.order);
    }

    // C on a copy of `dir`, whose state is `from`: the result in `to`.
    bool ApplyC(const std::string &dir, const Model &from, Model *to) {
        ScratchDir copy;
        if (!CopyTree(dir, copy.Path())) return false;
        VMArena *arena = Open(copy.Path(), 0);
        if (arena == nullptr) return false;
        *to = from;
        bool ok = ChangeC(arena, to) && Commit(arena);
        VMArenaClose(arena);
        arena = Open(copy.Path(), 0);
        ok = ok && arena != nullptr && Mismatch(arena, OLDGEN, *to).empty();
        VMArenaClose(arena);
        return ok;
    }

    // The sum of the sizes of the data files.
    static ULong DataSize(const std::string &dir) {
        ULong total = 0;
        for (const std::string &name : Files(dir)) {
            struct stat st;
            if (name.starts_with("block/data") && stat((dir + "/" + name).c_str(), &st) == 0)
                total += (ULong)st.st_size;
        }
        return total;
    }

    // The names and sizes of the files under `dir`.
    static std::string Signature(const std::string &dir) {
        std::string signature;
        for (const std::string &name : Files(dir)) {
            struct stat st;
            stat((dir + "/" + name).c_str(), &st);
            signature += name + "=" + std::to_string(st.st_size) + ";";
        }
        return signature;
    }

    // --- The children.

    // Copies golden A to `dir`, then in a child applies B and commits with
    // the fault layer armed at `crashAt` (0: never).
    int CrashCommit(const std::string &dir, long crashAt, bool after) {
        Variant v = GetParam();
        return InChild([&] {
            VMArena *arena = Open(dir, 0);
            if (arena == nullptr) return (int)kChildOpenFailed;
            Model model = modelA;
            // The change itself lengthens the data file: its calls are cut
            // too.
            CrashFaultArm(crashAt, after);
            if (!ChangeB(arena, &model, v.kind) || model.order != modelB.order ||
                !(model == modelB))
                return (int)kChildChangeDiffers;
            bool ok = Commit(arena);
            CrashFaultDisarm();
            return ok ? 0 : (int)kChildCommitFailed;
        });
    }

    // In a child, opens `dir` (the recovering open) armed at `crashAt`.
    int CrashOpen(const std::string &dir, long crashAt, bool after) {
        UInt flags = GetParam().recoverFlag ? VM_FLAG_RECOVER : 0;
        return InChild([&] {
            CrashFaultArm(crashAt, after);
            VMArena *arena = Open(dir, flags);
            CrashFaultDisarm();
            return arena != nullptr ? 0 : (int)kChildOpenFailed;
        });
    }

    // --- The checks on what a crash left in `dir`. "" when all hold; in
    // *which the state found, 'A' or 'B'.

    std::string Verify(const std::string &dir, char *which) {
        UInt flags = GetParam().recoverFlag ? VM_FLAG_RECOVER : 0;
        VMArena *arena = Open(dir, flags);
        if (arena == nullptr) return std::string("open failed: ") + QKErrorMessage();
        std::string result = VerifyOpen(arena, which);
        VMArenaClose(arena);
        if (!result.empty()) return result;
        if (Exists(dir + "/committing")) return "the open left the marker";
        // C committed: the clean files only, and its state on reopening.
        if (Files(dir) != cleanFiles) {
            std::string names;
            for (const std::string &name : Files(dir)) {
                if (cleanFiles.count(name) == 0) names += " " + name;
            }
            return "files left after the next commit:" + names;
        }
        arena = Open(dir, 0);
        if (arena == nullptr) return std::string("reopen after C failed: ") + QKErrorMessage();
        const Model &expected = *which == 'A' ? modelAC : modelBC;
        std::string why;
        std::string diff = Mismatch(arena, OLDGEN, expected);
        if (!diff.empty()) {
            result = "after C, old generation: " + diff;
        } else if (!(diff = Mismatch(arena, NEWGEN, expected)).empty()) {
            result = "after C, new generation: " + diff;
        } else if (!qk::arena::VMArenaCheckAccounting(arena, &why)) {
            result = "after C: " + why;
        }
        VMArenaClose(arena);
        return result;
    }

    // On the recovered arena: A or B whole in both generations, the
    // accounting whole, and C allocating what it allocates on a clean copy;
    // then C is committed.
    std::string VerifyOpen(VMArena *arena, char *which) {
        std::string inA = Mismatch(arena, OLDGEN, modelA);
        std::string inB = Mismatch(arena, OLDGEN, modelB);
        if (!inA.empty() && !inB.empty())
            return "old generation is neither A (" + inA + ") nor B (" + inB + ")";
        *which = inA.empty() ? 'A' : 'B';
        const Model &state = inA.empty() ? modelA : modelB;
        std::string diff = Mismatch(arena, NEWGEN, state);
        if (!diff.empty())
            return std::string("new generation differs from ") + *which + ": " + diff;
        // Temporary files of the cut commit may lie there until the next
        // commit writes them again: the structures only.
        std::string why;
        if (!qk::arena::VMArenaCheckMemory(arena, &why))
            return std::string("check after opening ") + *which + ": " + why;
        Model model = state;
        if (!ChangeC(arena, &model)) return std::string("C failed: ") + QKErrorMessage();
        const Model &expected = *which == 'A' ? modelAC : modelBC;
        if (model.order != expected.order)
            return std::string("C allocated other IDs than on a clean ") + *which;
        if (!Commit(arena)) return std::string("commit of C failed: ") + QKErrorMessage();
        return "";
    }

    ScratchDir golden, refB, work, crashed;
    Model modelA, modelB, modelAC, modelBC;
    std::set<std::string> cleanFiles;
    ULong sizeA = 0, sizeB = 0;
    long changeCalls = 0;  // calls of the file system in the change B
};

TEST_P(CrashCommitTest, EveryCutLeavesTheStateBeforeOrAfter) {
    // The count of calls of the whole commit, and that they are seen.
    ASSERT_TRUE(CopyTree(golden.Path(), work.Path()));
    ASSERT_EQ(CrashCommit(work.Path(), 0, false), 0);
    long count = CrashFaultCount();
    EXPECT_GE(CrashFaultCountOf(CRASH_OP_RENAME), 4);
    EXPECT_GE(CrashFaultCountOf(CRASH_OP_FSYNC), 5);
    EXPECT_GE(CrashFaultCountOf(CRASH_OP_WRITE), 4);
    EXPECT_GE(CrashFaultCountOf(CRASH_OP_OPEN), 5);
    printf(
        "change and commit of B: %ld calls, %ld in the change (%ld opens, %ld writes, %ld fsyncs, "
        "%ld msyncs, %ld renames, "
        "%ld unlinks, %ld ftruncates, %ld fallocates)\n",
        count, changeCalls, CrashFaultCountOf(CRASH_OP_OPEN), CrashFaultCountOf(CRASH_OP_WRITE),
        CrashFaultCountOf(CRASH_OP_FSYNC), CrashFaultCountOf(CRASH_OP_MSYNC),
        CrashFaultCountOf(CRASH_OP_RENAME), CrashFaultCountOf(CRASH_OP_UNLINK),
        CrashFaultCountOf(CRASH_OP_FTRUNCATE), CrashFaultCountOf(CRASH_OP_FALLOCATE));
    char which = 0;
    ASSERT_EQ(Verify(work.Path(), &which), "");
    EXPECT_EQ(which, 'B');

    int failures = 0, seenA = 0, seenB = 0, marked = 0, recoveryCuts = 0;
    std::set<std::string> recovered;
    for (long n = 1; n <= count && failures < kMaxFailures; n++) {
        for (bool after : {false, true}) {
            work.Clear();
            ASSERT_TRUE(CopyTree(golden.Path(), work.Path()));
            int status = CrashCommit(work.Path(), n, after);
            std::string call = CallName(n, after);
            ASSERT_EQ(status, CRASH_FAULT_EXIT) << call;
            bool marker = Exists(work / "committing");
            // Where the marker stands the recovering open is cut as well,
            // at each of its calls, on copies of what the crash left; once
            // for each set of names and sizes that a cut leaves, since the
            // files under the marker are whole. Under the marker an open
            // rolls forward with or without VM_FLAG_RECOVER, so the plain
            // variants do this for both.
            if (marker) marked++;
            if (marker && !GetParam().recoverFlag &&
                recovered.insert(Signature(work.Path())).second) {
                crashed.Clear();
                ASSERT_TRUE(CopyTree(work.Path(), crashed.Path()));
                ASSERT_EQ(CrashOpen(crashed.Path(), 0, false), 0) << call;
                long opening = CrashFaultCount();
                for (long m = 1; m <= opening && failures < kMaxFailures; m++) {
                    for (bool openAfter : {false, true}) {
                        crashed.Clear();
                        ASSERT_TRUE(CopyTree(work.Path(), crashed.Path()));
                        ASSERT_EQ(CrashOpen(crashed.Path(), m, openAfter), CRASH_FAULT_EXIT);
                        std::string cut = CallName(m, openAfter);
                        recoveryCuts++;
                        std::string result = Verify(crashed.Path(), &which);
                        if (!result.empty()) {
                            failures++;
                            ADD_FAILURE() << "commit cut at " << call << ", recovery cut at " << cut
                                          << ": " << result;
                        }
                    }
                }
            }
            std::string result = Verify(work.Path(), &which);
            if (!result.empty()) {
                failures++;
                ADD_FAILURE() << "commit cut at " << call << (marker ? " (marker left)" : "")
                              << ": " << result;
                continue;
            }
            (which == 'A' ? seenA : seenB)++;
        }
    }
    printf(
        "cuts: %ld x 2, recovered as A %d, as B %d; marker left %d times, in %zu different "
        "file sets; %d cuts of the recovering open\n",
        count, seenA, seenB, marked, recovered.size(), recoveryCuts);
    // Both outcomes occur: early cuts keep A, late ones B.
    EXPECT_GT(seenA, 0);
    EXPECT_GT(seenB, 0);
}

INSTANTIATE_TEST_SUITE_P(
    Arena, CrashCommitTest,
    ::testing::Values(Variant{1, Kind::Grow, false}, Variant{1, Kind::Grow, true},
                      Variant{1, Kind::Shrink, false}, Variant{1, Kind::Shrink, true},
                      Variant{2, Kind::Grow, false}, Variant{2, Kind::Grow, true},
                      Variant{2, Kind::Shrink, false}, Variant{2, Kind::Shrink, true}),
    VariantName);

// Serial mode: the files of a generation are written under their final
// serial names and nothing is renamed; the caller's record of the serials
// is the commit point. A commit from generation 1 to 2 cut anywhere leaves
// generation 1 whole for a caller that opens with the serials it recorded;
// the files of the unrecorded generation go with VMArenaUnlinkGeneration,
// and the next commit writes generation 2 again.
class CrashSerialTest : public ::testing::Test {
  protected:
    void SetUp() override {
        QKLibInit("crashserialtest");
        ASSERT_FALSE(golden.Path().empty());
        VMArena *arena = Open(golden.Path(), VM_FLAG_CREATE, 0);
        ASSERT_NE(arena, nullptr) << QKErrorMessage();
        ASSERT_TRUE(BuildA(arena, &modelA, Kind::Grow)) << QKErrorMessage();  // serials 1
        VMArenaClose(arena);
        ASSERT_TRUE(CopyTree(golden.Path(), reference.Path()));
        arena = Open(reference.Path(), 0, 1);
        ASSERT_NE(arena, nullptr) << QKErrorMessage();
        modelAC = modelA;
        ULong oldSerial = 0, newSerial = 0;
        ASSERT_TRUE(ChangeC(arena, &modelAC));
        ASSERT_TRUE(VMArenaCommit(arena, &oldSerial, &newSerial)) << QKErrorMessage();
        ASSERT_EQ(oldSerial, 2u);
        ASSERT_EQ(newSerial, 2u);
        VMArenaClose(arena);
        cleanFiles = Files(reference.Path());
        ASSERT_EQ(cleanFiles.count("arena.new.1") + cleanFiles.count("arena.new.2"), 2u);
    }

    static VMArena *Open(const std::string &dir, UInt flags, ULong serial) {
        return VMArenaOpen(dir.c_str(), VM_FLAG_MAPPED | flags, 1, serial, serial, nullptr,
                           nullptr);
    }

    // "" when generation 1 is A and C then commits as on a clean copy.
    std::string Verify(const std::string &dir) {
        VMArena *arena = Open(dir, 0, 1);
        if (arena == nullptr)
            return std::string("open of generation 1 failed: ") + QKErrorMessage();
        std::string why, result;
        std::string diff = Mismatch(arena, OLDGEN, modelA);
        if (diff.empty()) diff = Mismatch(arena, NEWGEN, modelA);
        Model model = modelA;
        if (!diff.empty()) {
            result = "generation 1 is not A: " + diff;
        } else if (!qk::arena::VMArenaCheckMemory(arena, &why)) {
            result = "check of generation 1: " + why;
        } else if (!VMArenaUnlinkGeneration(arena, 2, 2)) {
            result = std::string("unlink of generation 2 failed: ") + QKErrorMessage();
        } else if (!ChangeC(arena, &model) || model.order != modelAC.order) {
            result = "C allocated other IDs than on a clean copy";
        } else if (!Commit(arena)) {
            result = std::string("commit of C failed: ") + QKErrorMessage();
        }
        VMArenaClose(arena);
        if (!result.empty()) return result;
        if (Files(dir) != cleanFiles) return "other files than after a clean commit of C";
        arena = Open(dir, 0, 2);
        if (arena == nullptr)
            return std::string("open of generation 2 failed: ") + QKErrorMessage();
        diff = Mismatch(arena, OLDGEN, modelAC);
        if (diff.empty()) diff = Mismatch(arena, NEWGEN, modelAC);
        if (!diff.empty()) {
            result = "generation 2 after C: " + diff;
        } else if (!qk::arena::VMArenaCheckAccounting(arena, &why)) {
            result = "check of generation 2: " + why;
        }
        VMArenaClose(arena);
        return result;
    }

    ScratchDir golden, reference, work;
    Model modelA, modelAC;
    std::set<std::string> cleanFiles;
};

TEST_F(CrashSerialTest, EveryCutKeepsTheRecordedGeneration) {
    auto crash = [&](long crashAt, bool after) {
        return InChild([&] {
            VMArena *arena = Open(work.Path(), 0, 1);
            if (arena == nullptr) return (int)kChildOpenFailed;
            Model model = modelA;
            CrashFaultArm(crashAt, after);
            if (!ChangeB(arena, &model, Kind::Grow)) return (int)kChildChangeDiffers;
            bool ok = Commit(arena);
            CrashFaultDisarm();
            return ok ? 0 : (int)kChildCommitFailed;
        });
    };
    ASSERT_TRUE(CopyTree(golden.Path(), work.Path()));
    ASSERT_EQ(crash(0, false), 0);
    long count = CrashFaultCount();
    EXPECT_EQ(CrashFaultCountOf(CRASH_OP_RENAME), 0);
    EXPECT_GE(CrashFaultCountOf(CRASH_OP_FSYNC), 5);
    int failures = 0;
    for (long n = 1; n <= count && failures < kMaxFailures; n++) {
        for (bool after : {false, true}) {
            work.Clear();
            ASSERT_TRUE(CopyTree(golden.Path(), work.Path()));
            ASSERT_EQ(crash(n, after), CRASH_FAULT_EXIT);
            std::string call = CallName(n, after);
            std::string result = Verify(work.Path());
            if (!result.empty()) {
                failures++;
                ADD_FAILURE() << "commit cut at " << call << ": " << result;
            }
        }
    }
    printf("serial commit: %ld calls, each cut before and after\n", count);
}

}  // namespace
