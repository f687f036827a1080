// Mutex: the static initial value made on first use by racing threads,
// recursive entry, destruction; and the explicitly made RecursiveMutex.
#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <thread>
#include <vector>

#include "qk/qkcommon.h"

namespace {

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

TEST(MutexTest, ThreadsRacingOnFirstUseAgreeOnOneLock) {
    constexpr int kThreads = 8;
    constexpr int kRounds = 20;
    constexpr int kIncrements = 500;
    for (int round = 0; round < kRounds; round++) {
        Mutex mutex = MUTEX_INITIALIZER;
        std::atomic<int> ready{0};
        std::atomic<bool> go{false};
        uintptr_t seen[kThreads];
        long counter = 0;
        std::vector<std::thread> threads;
        for (int i = 0; i < kThreads; i++) {
            threads.emplace_back([&, i] {
                ready++;
                while (!go) {
                }
                MutexLock(&mutex);
                seen[i] = __atomic_load_n(&mutex, __ATOMIC_RELAXED);
                MutexUnlock(&mutex);
                for (int k = 0; k < kIncrements; k++) {
                    MutexLock(&mutex);
                    counter++;
                    MutexUnlock(&mutex);
                }
            });
        }
        while (ready != kThreads) std::this_thread::yield();
        go = true;
        for (auto &thread : threads) thread.join();

        ASSERT_NE(mutex, MUTEX_INVALID);
        for (int i = 0; i < kThreads; i++) EXPECT_EQ(seen[i], mutex) << "thread " << i;
        EXPECT_EQ(counter, (long)kThreads * kIncrements);
        MutexDestroy(&mutex);
        EXPECT_EQ(mutex, MUTEX_INVALID);
    }
}

TEST(MutexTest, OneThreadMayEnterRecursively) {
    static Mutex mutex = MUTEX_INITIALIZER;
    MutexLock(&mutex);
    MutexLock(&mutex);
    MutexLock(&mutex);
    EXPECT_TRUE(LockedElsewhere(&mutex));
    MutexUnlock(&mutex);
    MutexUnlock(&mutex);
    EXPECT_TRUE(LockedElsewhere(&mutex));
    MutexUnlock(&mutex);
    EXPECT_FALSE(LockedElsewhere(&mutex));
}

TEST(MutexTest, DestroyedMutexIsMadeAgainOnNextLock) {
    Mutex mutex;
    MutexInit(&mutex);
    ASSERT_NE(mutex, MUTEX_INVALID);
    MutexLock(&mutex);
    EXPECT_TRUE(LockedElsewhere(&mutex));
    MutexUnlock(&mutex);
    MutexDestroy(&mutex);
    EXPECT_EQ(mutex, MUTEX_INVALID);
    MutexDestroy(&mutex);  // a second destroy finds nothing to do
    EXPECT_EQ(mutex, MUTEX_INVALID);
    MutexLock(&mutex);
    EXPECT_NE(mutex, MUTEX_INVALID);
    EXPECT_TRUE(LockedElsewhere(&mutex));
    MutexUnlock(&mutex);
    MutexDestroy(&mutex);
}

TEST(MutexTest, RecursiveMutexExcludesOtherThreads) {
    RecursiveMutex mutex;
    RecursiveMutexInit(&mutex);
    constexpr int kThreads = 4;
    constexpr int kIncrements = 2000;
    long counter = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; i++) {
        threads.emplace_back([&] {
            for (int k = 0; k < kIncrements; k++) {
                RecursiveMutexLock(&mutex);
                RecursiveMutexLock(&mutex);
                counter++;
                RecursiveMutexUnlock(&mutex);
                counter++;
                RecursiveMutexUnlock(&mutex);
            }
        });
    }
    for (auto &thread : threads) thread.join();
    EXPECT_EQ(counter, 2L * kThreads * kIncrements);
    RecursiveMutexDestroy(&mutex);
    EXPECT_EQ(mutex, nullptr);
}

}  // namespace
