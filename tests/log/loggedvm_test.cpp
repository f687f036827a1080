// Logged arenas: random writes with checkpoints and reopenings against the
// reference model, the printed form of the records, the epochs of a
// checkpoint, and writers, readers and checkpoints in threads.
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
constexpr int kSteps = 300, kThreadOps = 150;
#else
constexpr int kSteps = 1500, kThreadOps = 600;
#endif

class LoggedVMTest : public ::testing::Test {
  protected:
    void SetUp() override {
        QKLibInit("loggedvmtest");
        ASSERT_TRUE(store.Open(dir.Path(), true)) << QKErrorMessage();
    }
    void TearDown() override {
        if (store.lvm != nullptr) EXPECT_TRUE(store.Close());
    }
    // A reopening with recovery, which must write nothing to the log.
    void Reopen() {
        ASSERT_TRUE(store.Close());
        Log *log = LogOpen((dir / "log").c_str(), 1);
        ULong last = LogLastSerial(log);
        LogClose(log);
        ASSERT_TRUE(store.Open(dir.Path(), false)) << QKErrorMessage();
        EXPECT_EQ(LogLastSerial(LoggedVMLogGet(store.lvm)), last);
    }

    TempDir dir;
    Store store;
};

// Random puts and deletes, checkpoints with and without commit, some with a
// writer inside them, and reopenings that drop what follows the last
// checkpoint: the store comes back as the model at that checkpoint, cell for
// cell, with every value in place.
TEST_F(LoggedVMTest, ReopeningReplaysUpToTheLastCheckpoint) {
    std::mt19937 random(18);
    State model, atCheckpoint;
    std::vector<ULong> values(kKeys), valuesAtCheckpoint(kKeys);
    ULong ops = 0, nextValue = 1;
    int reopenings = 0;
    auto op = [&] {
        UInt key = random() % kKeys;
        if (random() % 4 == 0) {
            store.Delete(key);
            model.Delete(key, ++ops);
        } else if (model.Put(key, ++ops)) {
            ASSERT_TRUE(store.Put(key, values[key] = nextValue++));
        } else {
            ASSERT_FALSE(store.Put(key, 0));
        }
    };
    for (int step = 0; step < kSteps; step++) {
        UInt r = random() % 20;
        if (r < 15) {
            ASSERT_NO_FATAL_FAILURE(op());
        } else if (r < 18) {
            bool commit = r == 17, writerInside = !commit && random() % 2;
            ULong bound = ops;
            // Recycling waits one checkpoint for what the inside writer frees.
            atCheckpoint = model;
            valuesAtCheckpoint = values;
            store.duringCheckpoint = writerInside ? std::function<void()>(op) : nullptr;
            ASSERT_TRUE(store.Checkpoint(commit)) << QKErrorMessage();
            for (State *s : {&model, &atCheckpoint}) s->SetNew(bound), s->Recycle();
        } else {
            ASSERT_NO_FATAL_FAILURE(Reopen());
            reopenings++;
            ASSERT_EQ(store.state, atCheckpoint) << "step " << step;
            ASSERT_EQ(store.state.Accounting(), "");
            ASSERT_EQ(store.Values(valuesAtCheckpoint), "");
            model = atCheckpoint;
            values = valuesAtCheckpoint;
        }
    }
    EXPECT_GT(reopenings, 10);
}

TEST_F(LoggedVMTest, RecordsPrintAsTheyAreNamed) {
    struct Case {
        UInt action;
        std::string payload, printed;
    } cases[] = {
        {13, std::string("\x20\0\0\0\x03\0\0\0", 8), "LVMCheckpoint(3, 32)\n"},
        {13, "", "LVMCheckpoint()\n"},
        {13, "abc", "LVMCheckpoint(*** invalid parm size 3 ***)\n"},
        {14, "", "LVMRecycleSetNew\n"},
        {14, "x", "LVMRecycleSetNew(*** invalid parm size 1 ***)\n"},
        {15, "", "LVMRecycle\n"},
        {15, "xy", "LVMRecycle(*** invalid parm size 2 ***)\n"},
        {16, "", "INVALID\n"},
    };
    for (const Case &c : cases) {
        testing::internal::CaptureStdout();
        LoggedVMOpDebug(c.action, c.payload.data(), c.payload.size());
        fflush(stdout);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.printed) << c.action;
    }
    // A whole log: the file header, a store record, and a checkpoint's three.
    ASSERT_TRUE(store.Put(1, 7) && store.Checkpoint(false));
    ULong serial = LoggedVMSerialGet(store.lvm);
    testing::internal::CaptureStdout();
    EXPECT_TRUE(LogDebug((dir / "log").c_str()));
    fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "file = 1, offset =       0: FileHeader\n"
              "file = 1, offset =      32: <<< INVALID \n"
              "file = 1, offset =      60: LVMCheckpoint(1, 32)\n"
              "file = 1, offset =      84: LVMRecycleSetNew\n"
              "file = 1, offset =     100: LVMRecycle\n");
    EXPECT_EQ(SERIAL_OFFSET(serial), 100u);
    EXPECT_FALSE(LoggedVMProcessFun(store.lvm, serial, 99));
}

// A checkpoint waits for the writer in before it, not for one that comes
// in during its drain; a release two epochs behind is a programmer's error.
TEST_F(LoggedVMTest, ACheckpointDrainsOnlyTheWritersInBeforeIt) {
    ULong early = LoggedVMWriterAcquire(store.lvm);
    auto checkpoint = std::async(std::launch::async, [&] { return store.Checkpoint(false); });
    auto epoch = [&] {
        MutexLock(&store.lvm->writers.mutex);
        ULong e = store.lvm->writers.cur_tid;
        MutexUnlock(&store.lvm->writers.mutex);
        return e;
    };
    while (epoch() == early) std::this_thread::yield();
    ULong late = LoggedVMWriterAcquire(store.lvm);
    EXPECT_EQ(late, early + 1);
    EXPECT_EQ(checkpoint.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    LoggedVMWriterRelease(store.lvm, early);
    ASSERT_EQ(checkpoint.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_TRUE(checkpoint.get());
    EXPECT_DEATH(LoggedVMWriterRelease(store.lvm, late - 2), "tid \\+ 1");
    LoggedVMWriterRelease(store.lvm, late);
}

// Writers on keys of their own, readers that read a key's cell outside the
// store's lock while in their epoch (a cell must not be recycled under
// them) and the committed image, and checkpoints that alternate commits.
TEST_F(LoggedVMTest, WritersReadersAndCheckpointsInThreads) {
    std::atomic<int> writersLeft{2};
    std::atomic<bool> torn{false};
    std::vector<std::thread> threads;
    for (UInt w = 0; w < 2; w++) {
        threads.emplace_back([&, w] {
            std::mt19937 random(w);
            for (int i = 0; i < kThreadOps; i++) {
                UInt key = w + 2 * (random() % (kKeys / 2));
                if (random() % 4 == 0)
                    EXPECT_TRUE(store.Delete(key));
                else
                    store.Put(key, (ULong)key << 32 | i);
            }
            writersLeft--;
        });
    }
    for (UInt r = 0; r < 2; r++) {
        threads.emplace_back([&, r] {
            for (UInt key = r; writersLeft > 0; key = (key + 1) % kKeys) {
                ULong epoch = LoggedVMReaderAcquire(store.lvm);
                UInt cell = store.CellOf(key);
                if (cell != 0 && store.Cell(cell - 1) >> 32 != key) torn = true;
                store.OldImageFirst();
                LoggedVMReaderRelease(store.lvm, epoch);
            }
        });
    }
    for (int n = 0; writersLeft > 0; n++) ASSERT_TRUE(store.Checkpoint(n % 3 == 0));
    for (std::thread &t : threads) t.join();
    EXPECT_FALSE(torn);
    ASSERT_TRUE(store.Checkpoint(false));
    State live = store.state;
    std::vector<ULong> values(kKeys);
    for (UInt k = 0; k < kKeys; k++) values[k] = live.map[k] ? store.Cell(live.map[k] - 1) : 0;
    ASSERT_NO_FATAL_FAILURE(Reopen());
    EXPECT_EQ(store.state, live);
    EXPECT_EQ(store.state.Accounting(), "");
    EXPECT_EQ(store.Values(values), "");
}

}  // namespace
