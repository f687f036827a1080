// Mutex, Condition and Pool: static initial values made by racing threads,
// recursive entry, signalled, timed-out and broadcast waits, and the limit
// on the items a pool lends out.
#include "frame/frame_test.h"

namespace {

// Whether another thread finds the lock behind a mutex word taken.
bool LockedElsewhere(Mutex *mutex) {
    int error = 0;
    std::thread([&] {
        auto *lock = reinterpret_cast<pthread_mutex_t *>(__atomic_load_n(mutex, __ATOMIC_ACQUIRE));
        if ((error = pthread_mutex_trylock(lock)) == 0) pthread_mutex_unlock(lock);
    }).join();
    return error == EBUSY;
}

// Threads racing on the first use of a static mutex and condition, the
// mutex made again after each destruction, agree on one of each: they pass
// a turn around in order. The explicitly made RecursiveMutex excludes them
// as well, entered twice.
TEST(MutexTest, ThreadsRacingOnFirstUseAgreeOnOneLock) {
    RecursiveMutex recursive;
    RecursiveMutexInit(&recursive);
    Mutex mutex = MUTEX_INITIALIZER;
    Condition condition = CONDITION_INITIALIZER;
    long turn = 0, total = 0;
    for (int round = 0; round < 20; round++) {
        uintptr_t seen[8];
        RunAtOnce(8, [&](int me) {
            MutexLock(&mutex), seen[me] = __atomic_load_n(&mutex, __ATOMIC_RELAXED);
            for (int k = 0; k < 5; k++, turn++, ConditionBroadcast(&condition)) {
                while (turn % 8 != me) ConditionTimedWait(&condition, &mutex, QK_INFINITE);
            }
            MutexUnlock(&mutex);
            for (int k = 0; k < 500; k++) {
                RecursiveMutexLock(&recursive), RecursiveMutexLock(&recursive), total++;
                RecursiveMutexUnlock(&recursive), RecursiveMutexUnlock(&recursive);
            }
        });
        EXPECT_EQ(std::count(seen, seen + 8, mutex), 8);
        MutexDestroy(&mutex);
    }
    RecursiveMutexDestroy(&recursive), ConditionDestroy(&condition);
    EXPECT_EQ(std::tuple(turn, total, recursive), std::tuple(20 * 8 * 5, 20 * 8 * 500, nullptr));
    // Entered twice, the mutex is free only after the second unlock.
    MutexInit(&mutex), MutexLock(&mutex), MutexLock(&mutex), MutexUnlock(&mutex);
    EXPECT_TRUE(LockedElsewhere(&mutex));
    MutexUnlock(&mutex);
    EXPECT_FALSE(LockedElsewhere(&mutex));
    MutexDestroy(&mutex), MutexDestroy(&mutex);  // a second destroy finds nothing to do
    EXPECT_EQ(mutex, MUTEX_INVALID);
}

class ConditionTest : public FrameTest {
  protected:
    void SetUp() override { FrameTest::SetUp(), ConditionInit(&condition), MutexInit(&mutex); }
    void TearDown() override { ConditionDestroy(&condition), MutexDestroy(&mutex); }
    Condition condition;
    Mutex mutex;
};

// A wait returns with the mutex held again: 0 on timeout, 1 when signalled.
// Signals and broadcasts with nobody waiting are lost.
TEST_F(ConditionTest, WaitsSignalsAndBroadcasts) {
    ConditionSignal(&condition);
    MutexLock(&mutex);
    ConditionBroadcast(&condition);
    for (UInt timeout : {20u, 0u}) {
        EXPECT_EQ(ConditionTimedWait(&condition, &mutex, timeout), 0);
        EXPECT_TRUE(LockedElsewhere(&mutex));
    }
    std::thread signaller([&] {
        ASSERT_TRUE(WaitFor([&] { return Waiting(&condition); }));
        MutexLock(&mutex), ConditionSignal(&condition), MutexUnlock(&mutex);
    });
    EXPECT_EQ(ConditionTimedWait(&condition, &mutex, 60000), 1);
    EXPECT_TRUE(LockedElsewhere(&mutex));
    MutexUnlock(&mutex);
    signaller.join();
    // A broadcast returns only when every waiter has woken.
    for (int round = 0; round < 5; round++) {
        int woken = 0;
        bool go = false;
        std::vector<std::thread> waiters;
        for (int i = 0; i < 6; i++) {
            waiters.emplace_back([&] {
                MutexLock(&mutex);
                while (!go) ConditionWait(&condition, &mutex);
                woken++, MutexUnlock(&mutex);
            });
        }
        ASSERT_TRUE(WaitFor([&] { return Waiting(&condition, 6); }));
        MutexLock(&mutex), go = true, ConditionBroadcast(&condition);
        // Every waiter has passed its wait; none has the mutex back yet.
        EXPECT_EQ(Under(&condition, [](Condition *c) { return c->waiters + c->broadcasting; }), 0u);
        EXPECT_EQ(woken, 0);
        MutexUnlock(&mutex);
        for (auto &waiter : waiters) waiter.join();
        EXPECT_EQ(woken, 6);
        // No release is left over for a later waiter.
        MutexLock(&mutex);
        EXPECT_EQ(ConditionTimedWait(&condition, &mutex, 10), 0);
        MutexUnlock(&mutex);
    }
}

// ---- Pools ----

// What the callback saw, a word a call: the operation (New, Reuse, Release,
// Delete), the item in the order of making (a, b, c) and the argument (x, y,
// or - for none).
std::string events;
std::vector<void *> items;
int x, y;

void Record(int operation, void *item, void *argument) {
    if (operation == POOL_NEW) items.push_back(item);
    size_t index = items.rend() - std::find(items.rbegin(), items.rend(), item) - 1;
    events +=
        {"NURD"[operation], char('a' + index), argument ? argument == &x ? 'x' : 'y' : '-', ' '};
}

struct Item {
    char payload[64];
};

using PoolTest = FrameTest;

// The item at rest is reused, the last released first. Compaction deletes the
// items at rest and keeps the count of those out; freeing deletes them from
// the first on the free list. Releasing with nothing out is an assertion.
TEST_F(PoolTest, CallbacksReuseCompactionAndTheLimit) {
    Pool pool = POOL_INITIALIZER(Record);
    Item *a = PoolAcquire(pool, &x, Item, -1), *b = PoolAcquire(pool, &y, Item, -1);
    PoolRelease(pool, a, &y);
    EXPECT_EQ(PoolAcquire(pool, &x, Item, -1), a);
    PoolRelease(pool, a, &x);
    PoolRelease(pool, b, &x);
    EXPECT_EQ(PoolAcquire(pool, &y, Item, -1), b);
    PoolCompact(pool, &x);
    EXPECT_EQ(std::tuple(pool.free.length, pool.t.count), std::tuple(0u, 1u));
    PoolRelease(pool, PoolAcquire(pool, &y, Item, -1), nullptr);
    PoolRelease(pool, b, nullptr);
    PoolFree(pool, &y);
    EXPECT_EQ(events, "Nax Nby Ray Uax Rax Rbx Uby Dax Ncy Rc- Rb- Dcy Dby ");
    EXPECT_EQ(std::tuple(pool.free.data, pool.free.capacity, pool.t.mutex),
              std::tuple(nullptr, 0u, MUTEX_INVALID));
    ConditionDestroy(&pool.t.condition);  // PoolFree leaves it to the pool's owner
    Pool empty = POOL_INITIALIZER(nullptr);
    void *item = Allocate(16, nullptr);
    EXPECT_DEATH(PoolRelease_(&empty, item, nullptr), "'pool->t.count > 0' failed");
    UnAllocate(item);
    PoolFree_(&empty, nullptr);
    // Under load, threads never hold more than the limit: the others sleep on
    // the pool's condition until an item comes back.
    static Pool limited = POOL_INITIALIZER(nullptr);
    std::atomic<int> out{0}, exceeded{0};
    RunAtOnce(4, [&](int) {
        for (int i = 0; i < 2000; i++) {
            Item *item = PoolAcquire(limited, nullptr, Item, 2);
            exceeded += ++out > 2;
            item->payload[0] = (char)i, --out;  // the item is ours alone
            PoolRelease(limited, item, nullptr);
        }
    });
    EXPECT_EQ(std::tuple(exceeded.load(), limited.t.count), std::tuple(0, 0u));
    EXPECT_LE(limited.free.length, 2u);
    PoolFree(limited, nullptr);
}

}  // namespace
