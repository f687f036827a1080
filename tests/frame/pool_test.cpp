// Pools: the callback's operations, the limit on items out, compaction.
#include <gtest/gtest.h>
#include <sched.h>

#include <atomic>
#include <thread>
#include <vector>

#include "qk/qkcommon.h"

namespace {

struct Item {
    char payload[64];
};

struct Event {
    int operation;
    void *item;
    void *argument;
    bool operator==(const Event &) const = default;
};

using Events = std::vector<Event>;
Events gEvents;

void RecordingCB(int operation, void *item, void *argument) {
    gEvents.push_back({operation, item, argument});
}

class PoolTest : public ::testing::Test {
  protected:
    void SetUp() override {
        QKLibInit("pooltest");
        gEvents.clear();
    }
};

TEST_F(PoolTest, CallbackOperationsReuseAndCompaction) {
    Pool pool = POOL_INITIALIZER(RecordingCB);
    int arg1 = 0, arg2 = 0;
    Item *a = PoolAcquire(pool, &arg1, Item, -1);
    Item *b = PoolAcquire(pool, &arg2, Item, -1);
    EXPECT_NE(a, b);
    EXPECT_EQ(pool.t.count, 2u);
    PoolRelease(pool, a, &arg2);
    EXPECT_EQ(pool.t.count, 1u);
    Item *c = PoolAcquire(pool, &arg1, Item, -1);
    EXPECT_EQ(c, a);  // the item at rest is reused
    PoolRelease(pool, c, &arg1);
    PoolRelease(pool, b, &arg1);
    EXPECT_EQ(pool.t.count, 0u);
    // The last one released is the first taken again.
    EXPECT_EQ(PoolAcquire(pool, &arg2, Item, -1), b);
    EXPECT_EQ(gEvents, (Events{{POOL_NEW, a, &arg1},
                               {POOL_NEW, b, &arg2},
                               {POOL_RELEASE, a, &arg2},
                               {POOL_REUSE, a, &arg1},
                               {POOL_RELEASE, a, &arg1},
                               {POOL_RELEASE, b, &arg1},
                               {POOL_REUSE, b, &arg2}}));

    // Compaction deletes the items at rest and keeps the count of those out.
    gEvents.clear();
    PoolCompact(pool, &arg1);
    EXPECT_EQ(gEvents, (Events{{POOL_DELETE, a, &arg1}}));
    EXPECT_EQ(pool.free.length, 0u);
    EXPECT_EQ(pool.t.count, 1u);
    gEvents.clear();
    Item *fresh = PoolAcquire(pool, &arg2, Item, -1);
    EXPECT_EQ(gEvents, (Events{{POOL_NEW, fresh, &arg2}}));
    EXPECT_EQ(pool.t.count, 2u);
    PoolRelease(pool, b, nullptr);
    PoolRelease(pool, fresh, nullptr);

    // Items at rest are deleted from the first on the free list.
    gEvents.clear();
    PoolFree(pool, &arg2);
    EXPECT_EQ(gEvents, (Events{{POOL_DELETE, b, &arg2}, {POOL_DELETE, fresh, &arg2}}));
    EXPECT_EQ(pool.free.data, nullptr);
    EXPECT_EQ(pool.free.capacity, 0u);
    EXPECT_EQ(pool.t.mutex, MUTEX_INVALID);
    // PoolFree leaves the condition alone; a pool on the stack destroys it.
    ConditionDestroy(&pool.t.condition);
}

TEST_F(PoolTest, ReleaseWithNothingOutIsAnAssertion) {
    Pool pool = POOL_INITIALIZER(nullptr);
    void *item = Allocate(16, nullptr);
    EXPECT_DEATH(PoolRelease_(&pool, item, nullptr), "'pool->t.count > 0' failed");
    UnAllocate(item);
    PoolFree_(&pool, nullptr);
}

// Waits until `waiters` threads sleep on the pool's condition.
void AwaitWaiters(Pool *pool, UInt waiters) {
    for (;;) {
        MutexLock(&pool->t.condition.lock);
        UInt now = pool->t.condition.waiters;
        MutexUnlock(&pool->t.condition.lock);
        if (now == waiters) return;
        sched_yield();
    }
}

TEST_F(PoolTest, LimitOneBlocksASecondThreadUntilRelease) {
    static Pool pool = POOL_INITIALIZER(nullptr);
    Item *first = PoolAcquire(pool, nullptr, Item, 1);
    std::atomic<bool> released{false}, releasedBeforeAcquire{false};
    Item *second = nullptr;
    std::thread other([&] {
        second = PoolAcquire(pool, nullptr, Item, 1);
        releasedBeforeAcquire = released.load();
    });
    // The other thread waits on the pool's condition: only the limit puts it
    // there.
    AwaitWaiters(&pool, 1);
    EXPECT_EQ(pool.t.count, 1u);
    released = true;
    PoolRelease(pool, first, nullptr);
    other.join();
    EXPECT_TRUE(releasedBeforeAcquire);
    EXPECT_EQ(second, first);
    EXPECT_EQ(pool.t.count, 1u);
    PoolRelease(pool, second, nullptr);
    PoolFree(pool, nullptr);
}

TEST_F(PoolTest, ThreadsNeverHoldMoreThanTheLimit) {
    static Pool pool = POOL_INITIALIZER(nullptr);
    const int limit = 2;
    std::atomic<int> out{0}, maxOut{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([&] {
            for (int i = 0; i < 2000; i++) {
                int *item = PoolAcquire(pool, nullptr, int, limit);
                int now = ++out;
                int seen = maxOut.load();
                while (now > seen && !maxOut.compare_exchange_weak(seen, now)) {
                }
                *item = i;  // the item is ours alone
                --out;
                PoolRelease(pool, item, nullptr);
            }
        });
    }
    for (auto &thread : threads) thread.join();
    EXPECT_LE(maxOut.load(), limit);
    EXPECT_EQ(pool.t.count, 0u);
    EXPECT_LE(pool.free.length, (UInt)limit);
    PoolFree(pool, nullptr);
}

}  // namespace
