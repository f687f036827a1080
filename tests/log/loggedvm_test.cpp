// Logged arenas: random writes through checkpoints and reopenings against
// the model, the epochs of a checkpoint, and writers, readers and
// checkpoints in threads.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <random>
#include <thread>

#include "frame/file_test_dir.h"
#include "log/loggedvm_internal.h"
#include "log/loggedvm_store.h"

namespace {

using namespace lvmtest;

#if defined(__SANITIZE_THREAD__)
constexpr int kSteps = 300, kCheckpoints = 30;
#else
constexpr int kSteps = 1500, kCheckpoints = 100;
#endif

class LoggedVMTest : public ::testing::Test {
  protected:
    void SetUp() override {
        QKLibInit("loggedvmtest");
        ASSERT_TRUE(store.Open(dir.Path(), true)) << QKErrorMessage();
    }
    void TearDown() override { EXPECT_TRUE(store.lvm == nullptr || store.Close()); }
    // Reopens the store, which must write nothing to the log, and checks it
    // against `expected` and its data file.
    void Reopen(const State &expected) {
        ULong last = LoggedVMSerialGet(store.lvm);
        ASSERT_TRUE(store.Close());
        ASSERT_TRUE(store.Open(dir.Path(), false)) << QKErrorMessage();
        EXPECT_EQ(LogLastSerial(LoggedVMLogGet(store.lvm)), last);
        ASSERT_EQ(store.state.Kinds(), expected.Kinds());
        ASSERT_EQ(store.Lost(), "");
    }

    TempDir dir;
    Store store;
};

// Random puts and deletes, checkpoints with and without commit, some with a
// writer inside whose frees wait for the next checkpoint, and reopenings
// that come back as the model at the last checkpoint.
TEST_F(LoggedVMTest, ReopeningReplaysUpToTheLastCheckpoint) {
    std::mt19937 random(18);
    State model, saved;
    ULong ops = 0;
    auto op = [&] {
        UInt key = random() % kKeys;
        bool put = random() % 4 != 0;
        ops++;
        ASSERT_EQ(store.Write(put, key, ops), model.Apply(put, key, ops, ops));
    };
    for (int step = 0, reopenings = 0; step < kSteps || reopenings < 10; step++) {
        UInt r = random() % 20;
        if (r < 15) {
            ASSERT_NO_FATAL_FAILURE(op());
        } else if (r < 18) {
            ULong bound = ops;
            saved = model;
            store.duringCheckpoint = r == 16 ? std::function<void()>(op) : nullptr;
            ASSERT_TRUE(store.Checkpoint(r == 17)) << QKErrorMessage();
            for (State *s : {&model, &saved}) s->SetNew(bound), s->Recycle();
            ASSERT_EQ(store.state.Kinds(), model.Kinds()) << "step " << step;
        } else {
            ASSERT_NO_FATAL_FAILURE(Reopen(saved)) << "step " << step;
            model = saved, reopenings++;
        }
    }
}

// A checkpoint waits for the writer in before it, not for one that comes
// in during its drain; a release two epochs behind is a programmer's error.
TEST_F(LoggedVMTest, ACheckpointDrainsOnlyTheWritersInBeforeIt) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ULong early = LoggedVMWriterAcquire(store.lvm);
    auto checkpoint = std::async(std::launch::async, [&] { return store.Checkpoint(false); });
    for (ULong e = early; e == early; std::this_thread::yield()) {
        MutexLock(&store.lvm->writers.mutex);
        e = store.lvm->writers.cur_tid;
        MutexUnlock(&store.lvm->writers.mutex);
    }
    ULong late = LoggedVMWriterAcquire(store.lvm);
    EXPECT_EQ(late, early + 1);
    EXPECT_EQ(checkpoint.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    LoggedVMWriterRelease(store.lvm, early);
    EXPECT_TRUE(checkpoint.get());
    EXPECT_DEATH(LoggedVMWriterRelease(store.lvm, late - 2), "tid \\+ 1");
    LoggedVMWriterRelease(store.lvm, late);
}

// Two writers on keys of their own; two readers that find a key's cell in
// their epoch and read it later (it must not be recycled under them); and
// checkpoints that sometimes commit.
TEST_F(LoggedVMTest, WritersReadersAndCheckpointsInThreads) {
    std::atomic<bool> stop{false}, torn{false};
    std::vector<std::thread> threads;
    for (UInt t = 0; t < 4; t++) {
        threads.emplace_back([&, t] {
            std::mt19937 random(t);
            for (ULong i = 0; t < 2 && !stop; i++) {
                UInt key = t + 2 * (random() % (kKeys / 2));
                store.Write(random() % 4 != 0, key, (ULong)key << 32 | i);
            }
            for (UInt key = t; t >= 2 && !stop; key = (key + 1) % kKeys) {
                ULong epoch = LoggedVMReaderAcquire(store.lvm);
                UInt cell = store.Read(key);
                std::this_thread::sleep_for(std::chrono::milliseconds(3));
                if (cell < kCells && store.Cell(cell) >> 32 != key) torn = true;
                LoggedVMReaderRelease(store.lvm, epoch);
            }
        });
    }
    for (int n = 0; n < kCheckpoints; n++) EXPECT_TRUE(store.Checkpoint(n % 3 == 0));
    stop = true;
    for (std::thread &t : threads) t.join();
    EXPECT_FALSE(torn);
    ASSERT_TRUE(store.Checkpoint(false));
    ASSERT_NO_FATAL_FAILURE(Reopen(State(store.state)));
}

}  // namespace
