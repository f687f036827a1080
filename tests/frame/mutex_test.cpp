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

// Threads racing on the first use of a static mutex agree on one lock. The
// explicitly made RecursiveMutex excludes them as well, entered twice.
TEST(MutexTest, ThreadsRacingOnFirstUseAgreeOnOneLock) {
    constexpr int kThreads = 8, kRounds = 20, kIncrements = 500;
    RecursiveMutex recursive;
    RecursiveMutexInit(&recursive);
    long recursiveCounter = 0;
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
                    RecursiveMutexLock(&recursive);
                    RecursiveMutexLock(&recursive);
                    recursiveCounter++;
                    RecursiveMutexUnlock(&recursive);
                    recursiveCounter++;
                    RecursiveMutexUnlock(&recursive);
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
    EXPECT_EQ(recursiveCounter, 2L * kRounds * kThreads * kIncrements);
    RecursiveMutexDestroy(&recursive);
    EXPECT_EQ(recursive, nullptr);
}

// Recursive entry, then destruction: a destroyed mutex is made again by the
// next lock.
TEST(MutexTest, RecursiveEntryAndRemakingAfterDestroy) {
    Mutex mutex;
    MutexInit(&mutex);
    for (int life = 0; life < 2; life++) {
        MutexLock(&mutex);
        MutexLock(&mutex);
        EXPECT_NE(mutex, MUTEX_INVALID);
        MutexUnlock(&mutex);
        EXPECT_TRUE(LockedElsewhere(&mutex));
        MutexUnlock(&mutex);
        EXPECT_FALSE(LockedElsewhere(&mutex));
        MutexDestroy(&mutex);
        EXPECT_EQ(mutex, MUTEX_INVALID);
    }
    MutexDestroy(&mutex);  // a second destroy finds nothing to do
    EXPECT_EQ(mutex, MUTEX_INVALID);
}

}  // namespace
