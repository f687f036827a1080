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
#include <tuple>
#include <type_traits>
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

// True once `waiters` threads sleep on `condition`.
auto Waiting(Condition *condition, UInt waiters = 1) {
    return [=] { return Under(condition, [](Condition *c) { return c->waiters; }) == waiters; };
}

// The order in which threads got into a lock.
class Trace {
  public:
    // A thread that takes `lock` with `acquire`, notes `step` and lets go.
    template <class Lock>
    std::thread Visitor(Lock *lock, void (*acquire)(Lock *), char step) {
        return std::thread([=, this] {
            acquire(lock);
            Add(step);
            if constexpr (std::is_same_v<Lock, RWLock>) {
                RWLockRelease(lock);
            } else {
                RWULockRelease(lock);
            }
        });
    }
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

// Who is inside a lock under load, and how often the rules were broken.
struct Occupancy {
    std::atomic<int> readers{0}, writers{0}, violations{0};
    std::atomic<long> written{0};

    void Read() {
        readers++;
        if (writers != 0) violations++;
        readers--;
    }
    void Write() {
        if (writers++ != 0 || readers != 0) violations++;
        written++;
        writers--;
    }
};

// Runs `body(random)` in six threads that start at once.
template <class Body>
void RunAtOnce(Body body) {
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 6; i++) {
        threads.emplace_back([&, i] {
            std::minstd_rand random(i + 1);
            while (!go) {
            }
            body(random);
        });
    }
    go = true;
    for (auto &thread : threads) thread.join();
}

// A fresh lock of each kind for every test.
class RWLockTest : public ::testing::Test {
  protected:
    void SetUp() override {
        QKLibInit("rwlocktest");
        RWLockInit(&lock);
        RWULockInit(&ulock);
    }
    void TearDown() override {
        RWLockDestroy(&lock);
        RWULockDestroy(&ulock);
    }

    RWLock lock;
    RWULock ulock;
};

// The counters of a lock, read under its mutex: the state and the writers
// waiting, and for the upgradable lock also `upgradable`.
std::tuple<Int, UInt> Counters(RWLock *lock) {
    return Under(lock, [](RWLock *l) { return std::tuple(l->state, l->writersWaiting); });
}
std::tuple<Int, UInt, Int> Counters(RWULock *lock) {
    return Under(lock,
                 [](RWULock *l) { return std::tuple(l->state, l->writersWaiting, l->upgradable); });
}
Int State(RWULock *lock) {
    return std::get<0>(Counters(lock));
}

TEST_F(RWLockTest, ReaderStandsBackForAWaitingWriterEvenWhileReadersHoldIt) {
    Trace trace;
    RWLockAcquireRead(&lock);
    std::thread([&] { RWLockAcquireRead(&lock); }).join();  // readers share
    EXPECT_EQ(Counters(&lock), std::tuple(2, 0u));
    RWLockRelease(&lock);
    std::thread writer = trace.Visitor(&lock, RWLockAcquireWrite, 'W');
    ASSERT_TRUE(WaitFor([&] { return Counters(&lock) == std::tuple(1, 1u); }));
    std::thread reader = trace.Visitor(&lock, RWLockAcquireRead, 'R');
    ASSERT_TRUE(WaitFor(Waiting(&lock.readers)));
    EXPECT_EQ(trace.Steps(), "");
    RWLockRelease(&lock);
    writer.join();
    reader.join();
    EXPECT_EQ(trace.Steps(), "WR");
    EXPECT_EQ(Counters(&lock), std::tuple(0, 0u));
}

TEST_F(RWLockTest, TimeoutsLeaveTheCountersRightAndLetReadersIn) {
    RWLockAcquireWrite(&lock);
    std::thread([&] {
        EXPECT_EQ(RWLockAcquireReadTimeout(&lock, 20), 0);
        EXPECT_EQ(RWLockAcquireWriteTimeout(&lock, 20), 0);
    }).join();
    EXPECT_EQ(Counters(&lock), std::tuple(-1, 0u));
    RWLockRelease(&lock);

    RWLockAcquireRead(&lock);
    std::thread([&] {
        EXPECT_EQ(RWLockAcquireWriteTimeout(&lock, 20), 0);
        EXPECT_EQ(RWLockAcquireReadTimeout(&lock, 20), 1);
        RWLockRelease(&lock);
    }).join();
    EXPECT_EQ(Counters(&lock), std::tuple(1, 0u));
    RWLockRelease(&lock);

    EXPECT_EQ(RWLockAcquireWriteTimeout(&lock, 20), 1);
    EXPECT_EQ(Counters(&lock), std::tuple(-1, 0u));
    RWLockRelease(&lock);
    EXPECT_EQ(RWLockAcquireReadTimeout(&lock, QK_INFINITE), 1);

    // A reader held back by a writer that gives up comes in.
    Trace trace;
    std::thread writer([&] { EXPECT_EQ(RWLockAcquireWriteTimeout(&lock, 1000), 0); });
    ASSERT_TRUE(WaitFor([&] { return Counters(&lock) == std::tuple(1, 1u); }));
    std::thread reader = trace.Visitor(&lock, RWLockAcquireRead, 'R');
    writer.join();
    // The first reader still holds the lock: the second must get in anyway.
    EXPECT_TRUE(WaitFor([&] { return trace.Steps() == "R"; }));
    RWLockRelease(&lock);
    reader.join();
    EXPECT_EQ(Counters(&lock), std::tuple(0, 0u));
}

TEST(RWLockDeathTest, ReleaseOfAFreeLockIsAnAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    static RWLock lock = RWLOCK_INITIALIZER;
    EXPECT_DEATH(RWLockRelease(&lock), "'lock->state > 0' failed");
}

// ---- Upgradable lock ----

TEST_F(RWLockTest, SecondUpgradableWaitsWhilePlainReadersPass) {
    Trace trace;
    RWULockAcquireUpgradable(&ulock);
    EXPECT_EQ(Counters(&ulock), std::tuple(1, 0u, 1));
    EXPECT_EQ(ulock.upgradableThread, ThreadId());
    std::thread second = trace.Visitor(&ulock, RWULockAcquireUpgradable, 'U');
    ASSERT_TRUE(WaitFor(Waiting(&ulock.upgraders)));
    trace.Visitor(&ulock, RWULockAcquireRead, 'R').join();
    EXPECT_EQ(trace.Steps(), "R");
    EXPECT_EQ(State(&ulock), 1);
    RWULockRelease(&ulock);
    second.join();
    EXPECT_EQ(trace.Steps(), "RU");
    EXPECT_EQ(Counters(&ulock), std::tuple(0, 0u, 0));
}

TEST_F(RWLockTest, UpgradeWaitsForTheOtherReaders) {
    Trace trace;
    RWULockAcquireRead(&ulock);
    std::atomic<Int> stateAfterUpgrade{0};
    std::thread upgrader([&] {
        RWULockAcquireUpgradable(&ulock);
        trace.Add('u');
        RWULockUpgrade(&ulock);
        stateAfterUpgrade = ulock.state;
        trace.Add('W');
        RWULockRelease(&ulock);
    });
    ASSERT_TRUE(WaitFor(Waiting(&ulock.upgrader)));
    EXPECT_EQ(Counters(&ulock), std::tuple(2, 1u, -1));
    // The upgrade in waiting keeps new readers out.
    std::thread reader = trace.Visitor(&ulock, RWULockAcquireRead, 'R');
    ASSERT_TRUE(WaitFor(Waiting(&ulock.readers)));
    EXPECT_EQ(trace.Steps(), "u");
    RWULockRelease(&ulock);
    upgrader.join();
    reader.join();
    EXPECT_EQ(trace.Steps(), "uWR");
    EXPECT_EQ(stateAfterUpgrade, -1);
    EXPECT_EQ(Counters(&ulock), std::tuple(0, 0u, 0));
}

TEST_F(RWLockTest, DowngradeLetsReadersInAndKeepsTheUpgradeRight) {
    Trace trace;
    RWULockAcquireWrite(&ulock);
    std::thread reader = trace.Visitor(&ulock, RWULockAcquireRead, 'R');
    ASSERT_TRUE(WaitFor(Waiting(&ulock.readers)));
    RWULockDowngrade(&ulock);
    reader.join();
    EXPECT_EQ(trace.Steps(), "R");
    EXPECT_EQ(Counters(&ulock), std::tuple(1, 0u, 1));
    std::thread second = trace.Visitor(&ulock, RWULockAcquireUpgradable, 'U');
    ASSERT_TRUE(WaitFor(Waiting(&ulock.upgraders)));
    // The right to upgrade is still ours.
    RWULockUpgrade(&ulock);
    EXPECT_EQ(State(&ulock), -1);
    RWULockRelease(&ulock);
    second.join();
    EXPECT_EQ(trace.Steps(), "RU");
    EXPECT_EQ(State(&ulock), 0);
}

// Both locks from their static initial values under mixed use by threads
// that start at once.
TEST(RWLockStaticTest, MixedUseKeepsTheRules) {
    static RWLock lock = RWLOCK_INITIALIZER;
    static RWULock ulock = RWULOCK_INITIALIZER;
    Occupancy inside, uinside;
    std::atomic<int> upgradables{0};
    RunAtOnce([&](std::minstd_rand &random) {
        for (int k = 0; k < 1500; k++) {
            bool write = random() % 4 == 0;
            if (random() % 2) {
                write ? RWLockAcquireWrite(&lock) : RWLockAcquireRead(&lock);
                write ? inside.Write() : inside.Read();
                RWLockRelease(&lock);
            } else if ((write ? RWLockAcquireWriteTimeout : RWLockAcquireReadTimeout)(&lock, 1)) {
                write ? inside.Write() : inside.Read();
                RWLockRelease(&lock);
            }

            switch (random() % 6) {
                case 0:
                    RWULockAcquireWrite(&ulock);
                    uinside.Write();
                    break;
                case 1:
                case 2:
                    RWULockAcquireUpgradable(&ulock);
                    if (upgradables++ != 0) uinside.violations++;
                    uinside.Read();
                    if (random() % 2) {
                        RWULockUpgrade(&ulock);
                        uinside.Write();
                        if (random() % 2) {
                            RWULockDowngrade(&ulock);
                            uinside.Read();
                        }
                    }
                    upgradables--;
                    break;
                default:
                    RWULockAcquireRead(&ulock);
                    uinside.Read();
                    break;
            }
            RWULockRelease(&ulock);
        }
    });
    for (Occupancy *o : {&inside, &uinside}) {
        EXPECT_EQ(o->violations, 0);
        EXPECT_GT(o->written, 0);
    }
    EXPECT_EQ(Counters(&lock), std::tuple(0, 0u));
    EXPECT_EQ(Counters(&ulock), std::tuple(0, 0u, 0));
}

}  // namespace
