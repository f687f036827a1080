// Logged arena crash tests: a child that writes, checkpoints (once with a
// writer inside the checkpoint, once with or without a commit) and writes
// on is cut at every file call; so is the replaying open of what it left.
// The store must come back as the model at the last checkpoint that
// returned or at the one under way, exactly as its replayed ops make it,
// with every cell held once and every value in place, and take more work.
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

// The ops: even ones put key i % 5 with value i + 100, others delete.
struct Ops {
    State *model;
    std::vector<ULong> *values;
    Store *store;
    ULong *count;
    bool Run(int from, int to) {
        for (int i = from; i < to; i++) {
            UInt key = i % 5;
            ++*count;
            if (i % 3 == 2) {
                model->Delete(key, *count);
                (*values)[key] = 0;
                if (store && !store->Delete(key)) return false;
            } else {
                model->Put(key, *count);
                (*values)[key] = i + 100;
                if (store && !store->Put(key, i + 100)) return false;
            }
        }
        return true;
    }
};

class LoggedVMCrashTest : public ::testing::TestWithParam<bool> {
  protected:
    // An accepted outcome: the state and the values it holds.
    struct Outcome {
        State state;
        std::vector<ULong> values;
    };

    void SetUp() override {
        QKLibInit("lvmcrashtest");
        Store store;
        ASSERT_TRUE(store.Open(golden_.Path(), true)) << QKErrorMessage();
        ASSERT_TRUE(Work(&store, 0) && store.Close()) << QKErrorMessage();
        Work(nullptr, 3);
    }

    // Part 0 (the golden store's) and part 1 (the child's) of the work on
    // `store`; the model runs both. Without a store, the model's outcome[k]
    // after checkpoint k, and unmarked[k] for a crash between checkpoint k's
    // record and its mark.
    bool Work(Store *store, int part) {
        State model;
        std::vector<ULong> values(kKeys);
        ULong count = 0;
        Ops ops{&model, &values, part == 0 ? store : nullptr, &count};
        auto checkpoint = [&](int k, bool commit, std::function<void()> inside) {
            ULong bound = count;
            if (!store) outcome_[k] = unmarked_[k] = {model, values};
            unmarked_[k].state.Recycle();
            if (ops.store) ops.store->duringCheckpoint = inside;
            bool ok = ops.store ? ops.store->Checkpoint(commit) : (inside(), true);
            for (State *s : {&model, &outcome_[k].state}) s->SetNew(bound), s->Recycle();
            if (ops.store && part == 1) *gDone = k;
            return ok;
        };
        if (!ops.Run(0, 8) || !checkpoint(0, true, [] {})) return false;
        if (store && part == 0) return true;
        ops.store = store;
        return ops.Run(8, 14) && checkpoint(1, false, [&] { ops.Run(14, 15); }) &&
               ops.Run(15, 22) && checkpoint(2, GetParam(), [] {}) && ops.Run(22, 26);
    }

    // Runs the child's work on a copy of the golden store, cut at call `n`.
    int Cut(long n, bool after) {
        if (!work_.CopyOf(golden_.Path())) return -1;
        *gDone = 0;
        return InChild([&] {
            Store store;
            if (!store.Open(work_.Path(), false)) return 1;
            CrashFaultArm(n, after);
            bool ok = Work(&store, 1) && store.Close();
            CrashFaultDisarm();
            return ok ? 0 : 2;
        });
    }

    // "" when the store in `dir` opens as one of `accepted`, whole, and
    // keeps a put and a commit across a reopening.
    std::string Verify(const std::string &dir, std::vector<const Outcome *> accepted) {
        Store store;
        if (!store.Open(dir, false)) return std::string("open: ") + QKErrorMessage();
        std::string result = "no accepted state";
        for (const Outcome *o : accepted)
            if (store.state == o->state) result = store.Values(o->values);
        if (!result.empty())
            for (UInt m : store.state.map) result += " " + std::to_string(m);
        if (result.empty()) result = store.state.Accounting();
        State after = store.state;
        after.Put(7, 0);
        after.SetNew(~(ULong)0);
        after.Recycle();
        bool more = store.Put(7, 999) && store.Checkpoint(true) && store.Close();
        if (result.empty() && (!more || !store.Open(dir, false) || !(store.state == after) ||
                               store.Cell(after.map[7] - 1) != 999))
            result = std::string("no more work: ") + QKErrorMessage();
        if (store.lvm) store.Close();
        return result;
    }

    ScratchDir golden_, work_, crashed_;
    Outcome outcome_[3], unmarked_[3];
};

TEST_P(LoggedVMCrashTest, CheckpointsCutAnywhereKeepTheLastCheckpoint) {
    ASSERT_EQ(Cut(0, false), 0);
    long count = CrashFaultCount(CRASH_OP_ANY);
    ASSERT_EQ(Verify(work_.Path(), {&outcome_[2]}), "");
    int failures = 0, at[3] = {0, 0, 0};
    for (long n = 1; n <= count && failures < 5; n++) {
        for (bool after : {false, true}) {
            ASSERT_EQ(Cut(n, after), CRASH_FAULT_EXIT) << CallName(n, after);
            int k = *gDone;
            std::vector<const Outcome *> accepted = {&outcome_[k]};
            if (k < 2) accepted.insert(accepted.end(), {&outcome_[k + 1], &unmarked_[k + 1]});
            std::string problem = Verify(work_.Path(), accepted);
            failures += !problem.empty();
            at[k]++;
            EXPECT_EQ(problem, "") << CallName(n, after) << " after checkpoint " << k;
        }
    }
    printf("%ld calls cut; after checkpoint 0, 1, 2: %d, %d, %d\n", count, at[0], at[1], at[2]);
}

TEST_P(LoggedVMCrashTest, TheReplayingOpenCutAnywhereReplaysTheSame) {
    ASSERT_EQ(Cut(0, false), 0);
    auto open = [&](long n, bool after) {
        if (!crashed_.CopyOf(work_.Path())) return -1;
        return InChild([&] {
            Store store;
            CrashFaultArm(n, after);
            bool ok = store.Open(crashed_.Path(), false);
            CrashFaultDisarm();
            return ok ? 0 : 1;
        });
    };
    ASSERT_EQ(open(0, false), 0);
    long count = CrashFaultCount(CRASH_OP_ANY);
    EXPECT_GT(count, 0);
    for (long n = 1; n <= count; n++) {
        for (bool after : {false, true}) {
            ASSERT_EQ(open(n, after), CRASH_FAULT_EXIT);
            EXPECT_EQ(Verify(crashed_.Path(), {&outcome_[2]}), "") << CallName(n, after);
        }
    }
    printf("%ld calls of the replaying open cut\n", count);
}

INSTANTIATE_TEST_SUITE_P(Commit, LoggedVMCrashTest, ::testing::Bool(),
                         [](const auto &info) { return info.param ? "Commit" : "NoCommit"; });

}  // namespace
