// Pools: the callback's operations, the limit on items out, compaction.
#include <gtest/gtest.h>
#include <sched.h>

#include <atomic>
#include <thread>
#include <utility>
#include <vector>

#include "qk/qkcommon.h"

namespace {

struct Item {
    int uses;
    char payload[60];
};

struct Event {
    int operation;
    void *item;
    void *argument;
    bool operator==(const Event &) const = default;
};

std::vector<Event> gEvents;

void RecordingCB(int operation, void *item, void *argument) {
    gEvents.push_back({operation, item, argument});
    auto *it = (Item *)item;
    if (operation == POOL_NEW) it->uses = 0;
    if (operation == POOL_NEW || operation == POOL_REUSE) it->uses++;
}

class PoolTest : public ::testing::Test {
  protected:
    void SetUp() override {
        QKLibInit("pooltest");
        gEvents.clear();
    }
};

TEST_F(PoolTest, CallbackOperationsInOrder) {
    static Pool pool = POOL_INITIALIZER(RecordingCB);
    int arg1 = 0, arg2 = 0;
    Item *a = PoolAcquire(pool, &arg1, Item, -1);
    EXPECT_EQ(pool.t.count, 1u);
    Item *b = PoolAcquire(pool, &arg2, Item, -1);
    EXPECT_NE(a, b);
    EXPECT_EQ(pool.t.count, 2u);
    PoolRelease(pool, a, &arg2);
    EXPECT_EQ(pool.t.count, 1u);
    Item *c = PoolAcquire(pool, &arg1, Item, -1);
    EXPECT_EQ(c, a);  // the item at rest is reused
    EXPECT_EQ(c->uses, 2);
    PoolRelease(pool, c, &arg1);
    PoolRelease(pool, b, &arg1);
    EXPECT_EQ(pool.t.count, 0u);
    // The last one released is the first taken again.
    Item *d = PoolAcquire(pool, &arg2, Item, -1);
    EXPECT_EQ(d, b);
    PoolRelease(pool, d, &arg2);

    std::vector<Event> expected = {
        {POOL_NEW, a, &arg1},   {POOL_NEW, b, &arg2},     {POOL_RELEASE, a, &arg2},
        {POOL_REUSE, a, &arg1}, {POOL_RELEASE, a, &arg1}, {POOL_RELEASE, b, &arg1},
        {POOL_REUSE, b, &arg2}, {POOL_RELEASE, b, &arg2},
    };
    EXPECT_EQ(gEvents, expected);

    gEvents.clear();
    PoolFree(pool, &arg1);
    // Items at rest are deleted from the first on the free list.
    std::vector<Event> deleted = {{POOL_DELETE, a, &arg1}, {POOL_DELETE, b, &arg1}};
    EXPECT_EQ(gEvents, deleted);
    EXPECT_EQ(pool.free.data, nullptr);
    EXPECT_EQ(pool.free.capacity, 0u);
    EXPECT_EQ(pool.t.mutex, MUTEX_INVALID);
}

TEST_F(PoolTest, CompactFreesItemsAtRestAndKeepsTheCount) {
    Pool pool = POOL_INITIALIZER(RecordingCB);
    Item *items[3];
    for (auto &item : items) item = PoolAcquire(pool, nullptr, Item, -1);
    PoolRelease(pool, items[2], nullptr);
    PoolRelease(pool, items[0], nullptr);
    gEvents.clear();

    PoolCompact(pool, nullptr);
    std::vector<Event> deleted = {{POOL_DELETE, items[2], nullptr},
                                  {POOL_DELETE, items[0], nullptr}};
    EXPECT_EQ(gEvents, deleted);
    EXPECT_EQ(pool.free.length, 0u);
    EXPECT_EQ(pool.t.count, 1u);  // items[1] is still out

    gEvents.clear();
    Item *fresh = PoolAcquire(pool, nullptr, Item, -1);
    ASSERT_EQ(gEvents.size(), 1u);
    EXPECT_EQ(gEvents[0].operation, POOL_NEW);
    EXPECT_EQ(pool.t.count, 2u);
    PoolRelease(pool, fresh, nullptr);
    PoolRelease(pool, items[1], nullptr);
    PoolFree(pool, nullptr);
    // PoolFree leaves the condition alone; a pool on the stack destroys it.
    ConditionDestroy(&pool.t.condition);
}

TEST_F(PoolTest, PoolWithoutCallback) {
    Pool pool = POOL_INITIALIZER(nullptr);
    void *a = PoolAcquire_(&pool, nullptr, 32, __FILE__, __LINE__, 2);
    void *b = PoolAcquire_(&pool, nullptr, 32, __FILE__, __LINE__, 2);
    PoolRelease_(&pool, a, nullptr);
    PoolRelease_(&pool, b, nullptr);
    EXPECT_EQ(pool.free.length, 2u);
    PoolFree_(&pool, nullptr);
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
    void *first = PoolAcquire_(&pool, nullptr, 64, __FILE__, __LINE__, 1);
    std::atomic<bool> released{false};
    std::atomic<bool> releasedBeforeAcquire{false};
    void *second = nullptr;
    std::thread other([&] {
        second = PoolAcquire_(&pool, nullptr, 64, __FILE__, __LINE__, 1);
        releasedBeforeAcquire = released.load();
    });
    // The other thread waits on the pool's condition: only the limit puts it
    // there.
    AwaitWaiters(&pool, 1);
    EXPECT_EQ(pool.t.count, 1u);
    released = true;
    PoolRelease_(&pool, first, nullptr);
    other.join();
    EXPECT_TRUE(releasedBeforeAcquire);
    EXPECT_EQ(second, first);
    EXPECT_EQ(pool.t.count, 1u);
    PoolRelease_(&pool, second, nullptr);
    PoolFree_(&pool, nullptr);
}

std::atomic<int> gOut{0};
std::atomic<int> gMaxOut{0};

TEST_F(PoolTest, ThreadsNeverHoldMoreThanTheLimit) {
    static Pool pool = POOL_INITIALIZER(nullptr);
    const int limit = 2;
    gOut = 0;
    gMaxOut = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([&] {
            for (int i = 0; i < 2000; i++) {
                auto *item =
                    (int *)PoolAcquire_(&pool, nullptr, sizeof(int), __FILE__, __LINE__, limit);
                int out = ++gOut;
                int seen = gMaxOut.load();
                while (out > seen && !gMaxOut.compare_exchange_weak(seen, out)) {
                }
                *item = i;  // the item is ours alone
                --gOut;
                PoolRelease_(&pool, item, nullptr);
            }
        });
    }
    for (auto &thread : threads) thread.join();
    EXPECT_LE(gMaxOut.load(), limit);
    EXPECT_EQ(pool.t.count, 0u);
    EXPECT_LE(pool.free.length, (UInt)limit);
    PoolFree_(&pool, nullptr);
}

}  // namespace
