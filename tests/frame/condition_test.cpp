// Condition: signalled and timed-out waits, lost signals, broadcasts that
// return only when every waiter has woken, and the static initial value.
#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
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

UInt WaitersOf(Condition *condition) {
    MutexLock(&condition->lock);
    UInt waiters = condition->waiters;
    MutexUnlock(&condition->lock);
    return waiters;
}

// Tries the lock behind a mutex word from another thread.
bool LockedElsewhere(Mutex *mutex) {
    bool busy = false;
    std::thread other([&] {
        auto *lock = reinterpret_cast<pthread_mutex_t *>(__atomic_load_n(mutex, __ATOMIC_ACQUIRE));
        int error = pthread_mutex_trylock(lock);
        busy = error == EBUSY;
        if (error == 0) pthread_mutex_unlock(lock);
    });
    other.join();
    return busy;
}

class ConditionTest : public ::testing::Test {
  protected:
    void SetUp() override {
        QKLibInit("conditiontest");
        ConditionInit(&condition);
        MutexInit(&mutex);
    }
    void TearDown() override {
        ConditionDestroy(&condition);
        MutexDestroy(&mutex);
    }

    Condition condition;
    Mutex mutex;
};

// A wait returns with the mutex held again: 0 on timeout, 1 when signalled.
// Signals and broadcasts with nobody waiting are lost.
TEST_F(ConditionTest, WaitsReturnWithTheMutexHeld) {
    ConditionSignal(&condition);
    ConditionSignal(&condition);
    MutexLock(&mutex);
    ConditionBroadcast(&condition);
    EXPECT_EQ(condition.broadcasting, 0u);
    for (UInt timeout : {20u, 0u}) {
        EXPECT_EQ(ConditionTimedWait(&condition, &mutex, timeout), 0);
        EXPECT_TRUE(LockedElsewhere(&mutex));
        EXPECT_EQ(WaitersOf(&condition), 0u);
    }

    bool flag = false;
    std::thread signaller([&] {
        ASSERT_TRUE(WaitFor([&] { return WaitersOf(&condition) == 1; }));
        MutexLock(&mutex);
        flag = true;
        ConditionSignal(&condition);
        MutexUnlock(&mutex);
    });
    EXPECT_EQ(ConditionTimedWait(&condition, &mutex, 60000), 1);
    EXPECT_TRUE(flag);
    EXPECT_TRUE(LockedElsewhere(&mutex));
    MutexUnlock(&mutex);
    signaller.join();
    EXPECT_EQ(WaitersOf(&condition), 0u);
    EXPECT_FALSE(LockedElsewhere(&mutex));
}

TEST_F(ConditionTest, BroadcastReturnsOnlyWhenEveryWaiterHasWoken) {
    constexpr int kWaiters = 6;
    for (int round = 0; round < 5; round++) {
        int arrived = 0, woken = 0;
        bool go = false;
        std::vector<std::thread> waiters;
        for (int i = 0; i < kWaiters; i++) {
            waiters.emplace_back([&] {
                MutexLock(&mutex);
                arrived++;
                while (!go) ConditionWait(&condition, &mutex);
                woken++;
                MutexUnlock(&mutex);
            });
        }
        // Once all have arrived under the mutex, all are inside the wait.
        ASSERT_TRUE(WaitFor([&] {
            MutexLock(&mutex);
            bool all = arrived == kWaiters;
            if (!all) MutexUnlock(&mutex);
            return all;
        }));
        EXPECT_EQ(WaitersOf(&condition), (UInt)kWaiters);
        go = true;
        ConditionBroadcast(&condition);
        // Every waiter has passed its wait; none has the mutex back yet.
        MutexLock(&condition.lock);
        EXPECT_EQ(condition.waiters, 0u);
        EXPECT_EQ(condition.broadcasting, 0u);
        MutexUnlock(&condition.lock);
        EXPECT_EQ(woken, 0);
        MutexUnlock(&mutex);
        for (auto &waiter : waiters) waiter.join();
        EXPECT_EQ(woken, kWaiters);
        // No release is left over for a later waiter.
        MutexLock(&mutex);
        EXPECT_EQ(ConditionTimedWait(&condition, &mutex, 10), 0);
        MutexUnlock(&mutex);
    }
}

// Threads that pass a turn around on a static condition and mutex, all
// starting at once so that they race on making both.
TEST(ConditionStaticTest, StaticInitialValueWorksFromRacingThreads) {
    static Mutex mutex = MUTEX_INITIALIZER;
    static Condition condition = CONDITION_INITIALIZER;
    constexpr int kThreads = 4, kRounds = 500;
    int turn = 0;
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int me = 0; me < kThreads; me++) {
        threads.emplace_back([&, me] {
            while (!go) {
            }
            MutexLock(&mutex);
            for (int k = 0; k < kRounds; k++) {
                while (turn % kThreads != me) ConditionTimedWait(&condition, &mutex, QK_INFINITE);
                turn++;
                ConditionBroadcast(&condition);
            }
            MutexUnlock(&mutex);
        });
    }
    go = true;
    for (auto &thread : threads) thread.join();
    EXPECT_EQ(turn, kThreads * kRounds);
    EXPECT_EQ(condition.waiters, 0u);
    EXPECT_EQ(condition.broadcasting, 0u);
}

}  // namespace
