// RWLock and RWULock: sharing among readers, priority of waiting writers,
// timeouts, misuse, the upgradable reader, upgrade and downgrade, and both
// locks under load from their static initial values.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "qk/qkcommon.h"

namespace {

// Spins until `done` holds; false when it did not within a generous limit.
template <class Predicate>
bool WaitFor(Predicate done) {
    auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!done()) {
        if (std::chrono::steady_clock::now() > limit) return false;
        std::this_thread::yield();
    }
    return true;
}

// Reads a field of a lock under the lock's own mutex.
template <class Lock, class Reader>
auto Under(Lock *lock, Reader read) {
    MutexLock(&lock->lock);
    auto value = read(lock);
    MutexUnlock(&lock->lock);
    return value;
}

UInt WaitersOf(Condition *condition) {
    MutexLock(&condition->lock);
    UInt waiters = condition->waiters;
    MutexUnlock(&condition->lock);
    return waiters;
}

// The order in which threads got somewhere.
class Trace {
  public:
    void Add(char step) {
        std::lock_guard<std::mutex> guard(mutex_);
        steps_ += step;
    }
    std::string Steps() {
        std::lock_guard<std::mutex> guard(mutex_);
        return steps_;
    }

  private:
    std::mutex mutex_;
    std::string steps_;
};

class RWLockTest : public ::testing::Test {
  protected:
    void SetUp() override {
        QKLibInit("rwlocktest");
        RWLockInit(&lock);
    }
    void TearDown() override { RWLockDestroy(&lock); }

    Int State() {
        return Under(&lock, [](RWLock *l) { return l->state; });
    }
    UInt WritersWaiting() {
        return Under(&lock, [](RWLock *l) { return l->writersWaiting; });
    }

    RWLock lock;
};

TEST_F(RWLockTest, ReadersShareTheLock) {
    RWLockAcquireRead(&lock);
    std::thread other([&] { RWLockAcquireRead(&lock); });
    other.join();
    EXPECT_EQ(State(), 2);
    RWLockRelease(&lock);
    RWLockRelease(&lock);
    EXPECT_EQ(State(), 0);
    RWLockAcquireWrite(&lock);
    EXPECT_EQ(State(), -1);
    RWLockRelease(&lock);
    EXPECT_EQ(State(), 0);
}

TEST_F(RWLockTest, ReaderStandsBackForAWaitingWriterEvenWhileReadersHoldIt) {
    Trace trace;
    RWLockAcquireRead(&lock);
    std::thread writer([&] {
        RWLockAcquireWrite(&lock);
        trace.Add('W');
        RWLockRelease(&lock);
    });
    ASSERT_TRUE(WaitFor([&] { return WritersWaiting() == 1; }));
    std::thread reader([&] {
        RWLockAcquireRead(&lock);
        trace.Add('R');
        RWLockRelease(&lock);
    });
    ASSERT_TRUE(WaitFor([&] { return WaitersOf(&lock.readers) == 1; }));
    EXPECT_EQ(State(), 1);
    EXPECT_EQ(trace.Steps(), "");
    RWLockRelease(&lock);
    writer.join();
    reader.join();
    EXPECT_EQ(trace.Steps(), "WR");
    EXPECT_EQ(State(), 0);
    EXPECT_EQ(WritersWaiting(), 0u);
}

TEST_F(RWLockTest, TimeoutsLeaveTheCountersRight) {
    RWLockAcquireWrite(&lock);
    std::thread([&] {
        EXPECT_EQ(RWLockAcquireReadTimeout(&lock, 20), 0);
        EXPECT_EQ(RWLockAcquireWriteTimeout(&lock, 20), 0);
    }).join();
    EXPECT_EQ(State(), -1);
    EXPECT_EQ(WritersWaiting(), 0u);
    RWLockRelease(&lock);

    RWLockAcquireRead(&lock);
    std::thread([&] {
        EXPECT_EQ(RWLockAcquireWriteTimeout(&lock, 20), 0);
        EXPECT_EQ(RWLockAcquireReadTimeout(&lock, 20), 1);
        RWLockRelease(&lock);
    }).join();
    EXPECT_EQ(State(), 1);
    EXPECT_EQ(WritersWaiting(), 0u);
    RWLockRelease(&lock);

    EXPECT_EQ(RWLockAcquireWriteTimeout(&lock, 20), 1);
    EXPECT_EQ(State(), -1);
    RWLockRelease(&lock);
    EXPECT_EQ(RWLockAcquireReadTimeout(&lock, QK_INFINITE), 1);
    RWLockRelease(&lock);
}

TEST_F(RWLockTest, ReaderHeldBackByAWriterThatGivesUpComesIn) {
    RWLockAcquireRead(&lock);
    std::atomic<bool> readerIn{false};
    std::thread writer([&] { EXPECT_EQ(RWLockAcquireWriteTimeout(&lock, 1000), 0); });
    ASSERT_TRUE(WaitFor([&] { return WritersWaiting() == 1; }));
    std::thread reader([&] {
        RWLockAcquireRead(&lock);
        readerIn = true;
        RWLockRelease(&lock);
    });
    writer.join();
    // The first reader still holds the lock: the second must get in anyway.
    bool in = WaitFor([&] { return readerIn.load(); });
    EXPECT_TRUE(in);
    if (!in) {
        RWLockRelease(&lock);
        RWLockAcquireWrite(&lock);
    }
    reader.join();
    RWLockRelease(&lock);
    EXPECT_EQ(State(), 0);
}

TEST(RWLockDeathTest, ReleaseOfAFreeLockIsAnAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    static RWLock lock = RWLOCK_INITIALIZER;
    EXPECT_DEATH(RWLockRelease(&lock), "'lock->state > 0' failed");
}

TEST(RWLockStaticTest, ReadersAndWritersExcludeEachOther) {
    static RWLock lock = RWLOCK_INITIALIZER;
    constexpr int kThreads = 6;
    constexpr int kIterations = 1500;
    std::atomic<int> readersInside{0};
    std::atomic<int> writersInside{0};
    std::atomic<int> violations{0};
    std::atomic<bool> go{false};
    long written = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; i++) {
        threads.emplace_back([&, i] {
            std::minstd_rand random(i + 1);
            while (!go) {
            }
            for (int k = 0; k < kIterations; k++) {
                if (random() % 4 == 0) {
                    if (random() % 2) {
                        RWLockAcquireWrite(&lock);
                    } else if (!RWLockAcquireWriteTimeout(&lock, 1)) {
                        continue;
                    }
                    if (writersInside++ != 0 || readersInside != 0) violations++;
                    written++;
                    writersInside--;
                } else {
                    if (random() % 2) {
                        RWLockAcquireRead(&lock);
                    } else if (!RWLockAcquireReadTimeout(&lock, 1)) {
                        continue;
                    }
                    readersInside++;
                    if (writersInside != 0) violations++;
                    readersInside--;
                }
                RWLockRelease(&lock);
            }
        });
    }
    go = true;
    for (auto &thread : threads) thread.join();
    EXPECT_EQ(violations, 0);
    EXPECT_GT(written, 0);
    EXPECT_EQ(lock.state, 0);
    EXPECT_EQ(lock.writersWaiting, 0u);
}

// ---- Upgradable lock ----

class RWULockTest : public ::testing::Test {
  protected:
    void SetUp() override {
        QKLibInit("rwlocktest");
        RWULockInit(&lock);
    }
    void TearDown() override { RWULockDestroy(&lock); }

    Int State() {
        return Under(&lock, [](RWULock *l) { return l->state; });
    }
    Int Upgradable() {
        return Under(&lock, [](RWULock *l) { return l->upgradable; });
    }

    RWULock lock;
};

TEST_F(RWULockTest, SecondUpgradableWaitsWhilePlainReadersPass) {
    Trace trace;
    RWULockAcquireUpgradable(&lock);
    EXPECT_EQ(Upgradable(), 1);
    EXPECT_EQ(lock.upgradableThread, ThreadId());
    std::thread second([&] {
        RWULockAcquireUpgradable(&lock);
        trace.Add('U');
        RWULockRelease(&lock);
    });
    ASSERT_TRUE(WaitFor([&] { return WaitersOf(&lock.upgraders) == 1; }));
    std::thread reader([&] {
        RWULockAcquireRead(&lock);
        trace.Add('R');
        RWULockRelease(&lock);
    });
    reader.join();
    EXPECT_EQ(trace.Steps(), "R");
    EXPECT_EQ(State(), 1);
    RWULockRelease(&lock);
    second.join();
    EXPECT_EQ(trace.Steps(), "RU");
    EXPECT_EQ(State(), 0);
    EXPECT_EQ(Upgradable(), 0);
}

TEST_F(RWULockTest, UpgradeWaitsForTheOtherReaders) {
    Trace trace;
    RWULockAcquireRead(&lock);
    std::atomic<Int> stateAfterUpgrade{0};
    std::thread upgrader([&] {
        RWULockAcquireUpgradable(&lock);
        trace.Add('u');
        RWULockUpgrade(&lock);
        stateAfterUpgrade = lock.state;
        trace.Add('W');
        RWULockRelease(&lock);
    });
    ASSERT_TRUE(WaitFor([&] { return WaitersOf(&lock.upgrader) == 1; }));
    EXPECT_EQ(Upgradable(), -1);
    EXPECT_EQ(State(), 2);
    // The upgrade in waiting keeps new readers out.
    std::thread reader([&] {
        RWULockAcquireRead(&lock);
        trace.Add('R');
        RWULockRelease(&lock);
    });
    ASSERT_TRUE(WaitFor([&] { return WaitersOf(&lock.readers) == 1; }));
    EXPECT_EQ(trace.Steps(), "u");
    RWULockRelease(&lock);
    upgrader.join();
    reader.join();
    EXPECT_EQ(trace.Steps(), "uWR");
    EXPECT_EQ(stateAfterUpgrade, -1);
    EXPECT_EQ(State(), 0);
    EXPECT_EQ(Upgradable(), 0);
    EXPECT_EQ(lock.writersWaiting, 0u);
}

TEST_F(RWULockTest, DowngradeLetsReadersInAndKeepsTheUpgradeRight) {
    Trace trace;
    RWULockAcquireWrite(&lock);
    std::thread reader([&] {
        RWULockAcquireRead(&lock);
        trace.Add('R');
        RWULockRelease(&lock);
    });
    ASSERT_TRUE(WaitFor([&] { return WaitersOf(&lock.readers) == 1; }));
    RWULockDowngrade(&lock);
    reader.join();
    EXPECT_EQ(trace.Steps(), "R");
    EXPECT_EQ(State(), 1);
    EXPECT_EQ(Upgradable(), 1);
    std::thread second([&] {
        RWULockAcquireUpgradable(&lock);
        trace.Add('U');
        RWULockRelease(&lock);
    });
    ASSERT_TRUE(WaitFor([&] { return WaitersOf(&lock.upgraders) == 1; }));
    // The right to upgrade is still ours.
    RWULockUpgrade(&lock);
    EXPECT_EQ(State(), -1);
    RWULockRelease(&lock);
    second.join();
    EXPECT_EQ(trace.Steps(), "RU");
    EXPECT_EQ(State(), 0);
}

TEST(RWULockStaticTest, MixedUseKeepsTheRules) {
    static RWULock lock = RWULOCK_INITIALIZER;
    constexpr int kThreads = 6;
    constexpr int kIterations = 1500;
    std::atomic<int> readersInside{0};
    std::atomic<int> writersInside{0};
    std::atomic<int> upgradablesInside{0};
    std::atomic<int> violations{0};
    std::atomic<bool> go{false};
    long written = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; i++) {
        threads.emplace_back([&, i] {
            std::minstd_rand random(i + 7);
            while (!go) {
            }
            for (int k = 0; k < kIterations; k++) {
                switch (random() % 6) {
                    case 0:
                        RWULockAcquireWrite(&lock);
                        if (writersInside++ != 0 || readersInside != 0) violations++;
                        written++;
                        writersInside--;
                        break;
                    case 1:
                    case 2:
                        RWULockAcquireUpgradable(&lock);
                        if (upgradablesInside++ != 0 || writersInside != 0) violations++;
                        readersInside++;
                        if (random() % 2) {
                            readersInside--;
                            RWULockUpgrade(&lock);
                            if (writersInside++ != 0 || readersInside != 0) violations++;
                            written++;
                            writersInside--;
                            if (random() % 2) {
                                RWULockDowngrade(&lock);
                                readersInside++;
                                if (writersInside != 0) violations++;
                                readersInside--;
                            }
                        } else {
                            readersInside--;
                        }
                        upgradablesInside--;
                        break;
                    default:
                        RWULockAcquireRead(&lock);
                        readersInside++;
                        if (writersInside != 0) violations++;
                        readersInside--;
                        break;
                }
                RWULockRelease(&lock);
            }
        });
    }
    go = true;
    for (auto &thread : threads) thread.join();
    EXPECT_EQ(violations, 0);
    EXPECT_GT(written, 0);
    EXPECT_EQ(lock.state, 0);
    EXPECT_EQ(lock.upgradable, 0);
    EXPECT_EQ(lock.writersWaiting, 0u);
}

}  // namespace
