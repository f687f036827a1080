// The driver of the commit crash tests. A known change B of a committed
// state A is made and committed in a child that the fault layer ends at
// call N, before or after the call, for every N of the change and the
// commit. The parent then opens what is left and requires: the content of
// A or of B whole, never a mix, in both generations; the arena's structures
// whole; a follow-up change C doing exactly what it does on a clean A or B;
// and after C's commit no file beyond those of a clean arena, and C's
// content on reopening. Where a cut leaves the commit marker, the
// recovering open can itself be cut at every call, with the same
// requirements after it.
//
// In serial mode the caller's record of the serials is the commit point: a
// cut commit leaves A for a caller that opens with the serials it recorded,
// the files of the unrecorded generation go with VMArenaUnlinkGeneration,
// and C writes that generation again.
#pragma once

#include <gtest/gtest.h>

#include <functional>

#include "arena/arena_check.h"
#include "crash_util.h"

namespace crashtest {

// A kind of content under the cuts. Its model M has `std::string
// Mismatch(VMArena *, Int genID, const M &)`, "" when the generation holds
// the model, and an `==` that compares the order of allocation too. Each
// change applies to an arena and a model together and depends only on the
// model, so that it does the same wherever it runs on the same state.
template <typename M>
struct Content {
    std::function<bool(VMArena *, M *)> build;     // A, committed
    std::function<bool(VMArena *, M *)> change;    // B, cut with its commit
    std::function<bool(VMArena *, M *)> followUp;  // C, after the recovery
};

struct Setup {
    UInt buckets;
    ULong serial;      // A's serial as the build leaves it, or STATUS_NO_SERIAL
    bool recoverFlag;  // reopen with VM_FLAG_RECOVER
    bool cutRecovery;  // cut the recovering open too where the marker stands
};

template <typename M>
class CutDriver {
  public:
    CutDriver(const Setup &setup, const Content<M> &content) : setup_(setup), content_(content) {}

    // Makes the references without faults, then cuts at every call.
    void Run() {
        ASSERT_NO_FATAL_FAILURE(MakeReferences());
        ASSERT_EQ(CrashChange(0, false), 0);
        // The commit syncs what it writes; serial mode writes every file
        // under its final name.
        long count = CrashFaultCount(CRASH_OP_ANY), renames = CrashFaultCount(CRASH_OP_RENAME);
        EXPECT_TRUE(CrashFaultCount(CRASH_OP_FSYNC) >= 5 && CrashFaultCount(CRASH_OP_WRITE) >= 4 &&
                    CrashFaultCount(CRASH_OP_OPEN) >= 5 && (Serial() ? !renames : renames >= 4));
        char which = 0;
        ASSERT_EQ(Verify(work_.Path(), &which), "");
        EXPECT_EQ(which, Serial() ? 'A' : 'B');
        int seen[2] = {0, 0};
        std::set<std::string> recovered;
        for (long n = 1; n <= count && failures_ < 8; n++) {
            for (bool after : {false, true}) {
                ASSERT_EQ(CrashChange(n, after), CRASH_FAULT_EXIT);
                std::string call = "commit cut at " + CallName(n, after);
                bool marker = fs::exists(work_ / "committing");
                // The files under the marker are whole: the recovering open
                // is cut once for each set of names and sizes a cut leaves.
                std::string files;
                for (const std::string &name : Files(work_.Path()))
                    files += name + "=" + std::to_string(fs::file_size(work_ / name, error_)) + ";";
                if (marker && setup_.cutRecovery && recovered.insert(files).second) {
                    ASSERT_NO_FATAL_FAILURE(CutRecovery(call));
                }
                if (Expect(Verify(work_.Path(), &which), call + (marker ? " (marker left)" : "")))
                    seen[which == 'B']++;
            }
        }
        printf("%ld calls cut; recovered as A %d, as B %d; %d cuts of the recovering open\n", count,
               seen[0], seen[1], recoveryCuts_);
        // Early cuts keep A, late ones B; in serial mode all keep A.
        EXPECT_GT(seen[0], 0);
        EXPECT_EQ(seen[1] > 0, !Serial());
    }

  private:
    enum { kOpenFailed = 10, kChangeDiffers, kCommitFailed };  // child exit codes

    bool Serial() const { return setup_.serial != STATUS_NO_SERIAL; }
    ULong Next(ULong serial) const { return Serial() ? serial + 1 : serial; }
    VMArena *Open(const std::string &dir, UInt flags, ULong serial) {
        return VMArenaOpen(dir.c_str(), VM_FLAG_MAPPED | flags, setup_.buckets, serial, serial,
                           nullptr, nullptr);
    }
    UInt RecoverFlag() const { return setup_.recoverFlag ? VM_FLAG_RECOVER : 0; }
    static bool Commit(VMArena *arena) { return VMArenaCommit(arena, nullptr, nullptr) != 0; }
    std::string Failed(const std::string &what) { return what + " failed: " + QKErrorMessage(); }
    // "" when both generations hold `model`.
    static std::string Holds(VMArena *arena, const M &model) {
        std::string inOld = Mismatch(arena, OLDGEN, model), inNew = Mismatch(arena, NEWGEN, model);
        return inOld.empty() && inNew.empty() ? "" : "old [" + inOld + "], new [" + inNew + "]";
    }

    // A, B on a copy of it, and C on a copy of each; a clean arena has the
    // files that C's commit leaves.
    void MakeReferences() {
        VMArena *arena = Open(golden_.Path(), VM_FLAG_CREATE, Serial() ? 0 : setup_.serial);
        ASSERT_NE(arena, nullptr) << QKErrorMessage();
        ASSERT_TRUE(content_.build(arena, &a_)) << QKErrorMessage();
        VMArenaClose(arena);
        ScratchDir refB;
        ASSERT_TRUE(refB.CopyOf(golden_.Path()));
        arena = Open(refB.Path(), 0, setup_.serial);
        b_ = a_;
        ASSERT_TRUE(arena && content_.change(arena, &b_) && Commit(arena)) << QKErrorMessage();
        VMArenaClose(arena);
        ASSERT_EQ(FollowUp(golden_.Path(), setup_.serial, a_, &ac_), "");
        cleanFiles_ = Files(work_.Path());
        ASSERT_EQ(FollowUp(refB.Path(), Next(setup_.serial), b_, &bc_), "");
        ASSERT_FALSE(ac_ == bc_);
    }

    // C on work_, a copy of `dir`, which holds `from` at `serial`: the model
    // in *to.
    std::string FollowUp(const std::string &dir, ULong serial, const M &from, M *to) {
        VMArena *arena = work_.CopyOf(dir) ? Open(work_.Path(), 0, serial) : nullptr;
        *to = from;
        bool ok = arena && content_.followUp(arena, to) && Commit(arena);
        VMArenaClose(arena);
        if (!ok || (arena = Open(work_.Path(), 0, Next(serial))) == nullptr) return Failed("C");
        std::string result = Holds(arena, *to);
        VMArenaClose(arena);
        return result;
    }

    // Copies golden A to work_, then in a child makes the change B and
    // commits it with the fault layer armed at `crashAt` (0: never). The
    // change itself lengthens the data files: its calls are cut too.
    int CrashChange(long crashAt, bool after) {
        if (!work_.CopyOf(golden_.Path())) return -1;
        return InChild([&] {
            VMArena *arena = Open(work_.Path(), 0, setup_.serial);
            if (arena == nullptr) return (int)kOpenFailed;
            M model = a_;
            CrashFaultArm(crashAt, after);
            if (!content_.change(arena, &model) || !(model == b_)) return (int)kChangeDiffers;
            bool ok = Commit(arena);
            CrashFaultDisarm();
            return ok ? 0 : (int)kCommitFailed;
        });
    }

    // The recovering open of what the commit cut at `call` left in work_,
    // itself cut at each of its calls, on copies.
    void CutRecovery(const std::string &call) {
        auto open = [&](long crashAt, bool after) {
            if (!crashed_.CopyOf(work_.Path())) return -1;
            return InChild([&] {
                CrashFaultArm(crashAt, after);
                VMArena *arena = Open(crashed_.Path(), RecoverFlag(), setup_.serial);
                CrashFaultDisarm();
                return arena != nullptr ? 0 : (int)kOpenFailed;
            });
        };
        ASSERT_EQ(open(0, false), 0) << call;
        long count = CrashFaultCount(CRASH_OP_ANY);
        for (long m = 1; m <= count && failures_ < 8; m++) {
            for (bool after : {false, true}) {
                ASSERT_EQ(open(m, after), CRASH_FAULT_EXIT);
                recoveryCuts_++;
                char which = 0;
                Expect(Verify(crashed_.Path(), &which),
                       call + ", recovery cut at " + CallName(m, after));
            }
        }
    }

    bool Expect(const std::string &result, const std::string &where) {
        if (result.empty()) return true;
        failures_++;
        ADD_FAILURE() << where << ": " << result;
        return false;
    }

    // The checks on what a crash left in `dir`: "" when all hold, with the
    // state found, 'A' or 'B', in *which. The recovered arena holds A or B
    // whole in both generations, and its structures are whole (temporary
    // files of the cut commit may lie there until the next commit writes
    // them again); C does what it does on a clean copy, and after its commit
    // the files are those of a clean arena, and a reopening finds C's result.
    std::string Verify(const std::string &dir, char *which) {
        VMArena *arena = Open(dir, RecoverFlag(), setup_.serial);
        if (arena == nullptr) return Failed("open");
        std::string inA = Holds(arena, a_), inB = inA.empty() ? "" : Holds(arena, b_), why, result;
        *which = inA.empty() ? 'A' : 'B';
        M model = inA.empty() ? a_ : b_;
        ULong next = Next(setup_.serial);
        if (!inA.empty() && !inB.empty()) {
            result = "neither A (" + inA + ") nor B (" + inB + ")";
        } else if (!qk::arena::VMArenaCheckMemory(arena, &why)) {
            result = "check of " + std::string(1, *which) + ": " + why;
        } else if (Serial() && !VMArenaUnlinkGeneration(arena, next, next)) {
            result = Failed("unlink");
        } else if (!content_.followUp(arena, &model) || !(model == (inA.empty() ? ac_ : bc_))) {
            result = "C did other than on a clean " + std::string(1, *which);
        } else if (!Commit(arena)) {
            result = Failed("commit of C");
        }
        VMArenaClose(arena);
        if (!result.empty()) return result;
        if (Files(dir) != cleanFiles_) {
            for (const std::string &name : Files(dir))
                if (cleanFiles_.count(name) == 0) result += " " + name;
            return "other files than after a clean commit:" + result;
        }
        if ((arena = Open(dir, 0, next)) == nullptr) return Failed("reopen after C");
        result = Holds(arena, *which == 'A' ? ac_ : bc_);
        if (result.empty() && !qk::arena::VMArenaCheckAccounting(arena, &why)) result = why;
        VMArenaClose(arena);
        return result.empty() ? "" : "after C: " + result;
    }

    Setup setup_;
    Content<M> content_;
    ScratchDir golden_, work_, crashed_;
    M a_, b_, ac_, bc_;
    std::set<std::string> cleanFiles_;
    int failures_ = 0, recoveryCuts_ = 0;
    std::error_code error_;
};

}  // namespace crashtest
