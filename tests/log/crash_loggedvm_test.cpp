// Logged arena crash tests: a child that writes, checkpoints (once with a
// writer inside, once with or without a commit) and writes on is cut at
// every file call, and so is the replaying open of what it left. The store
// must come back whole as one accepted state and take more work.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include "arena/crash_util.h"
#include "log/loggedvm_store.h"

using namespace crashtest;
using namespace lvmtest;

namespace {

// Checkpoints that returned in the child, in memory shared with the test.
int *const gDone = static_cast<int *>(
    mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));

class LoggedVMCrashTest : public ::testing::TestWithParam<bool> {
  protected:
    // The golden store holds ops 0-7 and a commit; the model runs on
    // through the child's work, noting each checkpoint's accepted states.
    void SetUp() override {
        QKLibInit("lvmcrashtest");
        Store store;
        ASSERT_TRUE(store.Open(golden_.Path(), true) && Ops(&store, 0, 8) &&
                    Checkpoint(&store, 0, true, 8, 8) && store.Close())
            << QKErrorMessage();
        Work(nullptr);
    }
    // Op i puts i into key i % 5, or deletes the key when i % 3 == 2.
    bool Ops(Store *store, int from, int to) {
        for (int i = from; i < to; i++) {
            model_.Apply(i % 3 != 2, i % 5, ++ops_, i);
            if (store && !store->Write(i % 3 != 2, i % 5, i)) return false;
        }
        return true;
    }
    // Checkpoint k with ops [from, to) inside it. A crash after it leaves
    // done_[k]; one during it, also unmarked_[k] (cut before the mark).
    bool Checkpoint(Store *store, int k, bool commit, int from, int to) {
        ULong bound = ops_;
        done_[k] = unmarked_[k] = model_;
        if (store) store->duringCheckpoint = [=, this] { Ops(store, from, to); };
        bool ok = store ? store->Checkpoint(commit) : Ops(nullptr, from, to);
        for (State *s : {&model_, &done_[k]}) s->SetNew(bound), s->Recycle();
        *gDone = k;
        return ok;
    }
    bool Work(Store *s) {
        return Ops(s, 8, 14) && Checkpoint(s, 1, false, 14, 15) && Ops(s, 15, 22) &&
               Checkpoint(s, 2, GetParam(), 22, 22) && Ops(s, 22, 26);
    }
    // "" when the store in `dir` opens as an accepted state, whole, and
    // keeps a put and a commit across a reopening.
    std::string Verify(const std::string &dir) {
        int k = *gDone;
        std::vector<State *> accepted = {&done_[k]};
        if (k < 2) accepted.insert(accepted.end(), {&done_[k + 1], &unmarked_[k + 1]});
        Store store;
        if (!store.Open(dir, false)) return std::string("open: ") + QKErrorMessage();
        std::string problem = store.Lost();
        if (std::none_of(accepted.begin(), accepted.end(),
                         [&](State *s) { return s->Kinds() == store.state.Kinds(); }))
            problem = "not accepted: " + testing::PrintToString(store.state.Kinds());
        if (problem.empty() &&
            !(store.Write(true, 7, 99) && store.Checkpoint(true) && store.Close() &&
              store.Open(dir, false) && store.state.Find(8) < kCells && store.Lost().empty()))
            problem = std::string("no more work: ") + QKErrorMessage();
        if (store.lvm) store.Close();
        return problem;
    }
    // Copies `from` to `to`, and in a child cut at call `n` opens the store
    // there, or opens it whole and runs the child's work.
    int Cut(const ScratchDir &from, const ScratchDir &to, bool work, long n, bool after) {
        if (!to.CopyOf(from.Path())) return -1;
        if (work) *gDone = 0;
        return InChild([&] {
            Store store;
            if (work && !store.Open(to.Path(), false)) return 1;
            CrashFaultArm(n, after);
            bool ok = work ? Work(&store) && store.Close() : store.Open(to.Path(), false);
            CrashFaultDisarm();
            return ok ? 0 : 2;
        });
    }
    // Runs the child whole, then cut before and after each of its file
    // calls, and verifies what each leaves.
    void CutEach(const ScratchDir &from, const ScratchDir &to, bool work) {
        ASSERT_EQ(Cut(from, to, work, 0, false), 0);
        long count = CrashFaultCount(CRASH_OP_ANY);
        ASSERT_GT(count, 0);
        ASSERT_EQ(Verify(to.Path()), "");
        for (long n = 1, failures = 0; n <= count && failures < 5; n++)
            for (bool after : {false, true}) {
                ASSERT_EQ(Cut(from, to, work, n, after), CRASH_FAULT_EXIT) << CallName(n, after);
                std::string problem = Verify(to.Path());
                failures += !problem.empty();
                EXPECT_EQ(problem, "") << CallName(n, after) << " after checkpoint " << *gDone;
            }
    }

    ScratchDir golden_, work_, crashed_;
    State model_, done_[3], unmarked_[3];
    ULong ops_ = 0;
};

TEST_P(LoggedVMCrashTest, CheckpointsCutAnywhereKeepTheLastCheckpoint) {
    CutEach(golden_, work_, true);
}

TEST_P(LoggedVMCrashTest, TheReplayingOpenCutAnywhereReplaysTheSame) {
    ASSERT_EQ(Cut(golden_, work_, true, 0, false), 0);
    CutEach(work_, crashed_, false);
}

INSTANTIATE_TEST_SUITE_P(Commit, LoggedVMCrashTest, ::testing::Bool(),
                         [](const auto &info) { return info.param ? "Commit" : "NoCommit"; });

}  // namespace
