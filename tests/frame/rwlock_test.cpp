// RWLock and RWULock: readers share, waiting writers come first, timeouts,
// misuse, the upgradable reader, upgrade and downgrade, and both locks under
// load from their static initial values.
#include "frame/frame_test.h"

namespace {

// The counters of a lock, read under its mutex: the state, the writers
// waiting and, for the upgradable lock, `upgradable`.
std::tuple<Int, UInt> Counters(RWLock *lock) {
    return Under(lock, [](RWLock *l) { return std::tuple(l->state, l->writersWaiting); });
}
std::tuple<Int, UInt, Int> Counters(RWULock *lock) {
    return Under(lock,
                 [](RWULock *l) { return std::tuple(l->state, l->writersWaiting, l->upgradable); });
}

// A fresh lock of each kind for every test, and the order in which threads
// got into them: one at a time, as the locks let them in.
class RWLockTest : public FrameTest {
  protected:
    void SetUp() override { FrameTest::SetUp(), RWLockInit(&lock), RWULockInit(&ulock); }
    void TearDown() override { RWLockDestroy(&lock), RWULockDestroy(&ulock); }
    void Add(char step) { steps[length] = step, length++; }
    std::string Steps() const { return std::string(steps, length); }
    static void Release(RWLock *lock) { RWLockRelease(lock); }
    static void Release(RWULock *lock) { RWULockRelease(lock); }
    // A thread that takes `lock` with `acquire`, notes `step` and lets go.
    template <class Lock>
    std::thread Visitor(Lock *lock, void (*acquire)(Lock *), char step) {
        return std::thread([=, this] { acquire(lock), Add(step), Release(lock); });
    }
    // Waits until a thread sleeps on `condition`.
    static void AwaitSleeper(Condition *condition) {
        ASSERT_TRUE(WaitFor([=] { return Waiting(condition); }));
    }

    RWLock lock;
    RWULock ulock;
    char steps[8] = {};
    std::atomic<int> length{0};
};

TEST_F(RWLockTest, ReaderStandsBackForAWaitingWriterEvenWhileReadersHoldIt) {
    RWLockAcquireRead(&lock);
    std::thread([&] { RWLockAcquireRead(&lock); }).join();  // readers share
    EXPECT_EQ(Counters(&lock), std::tuple(2, 0u));
    RWLockRelease(&lock);
    std::thread writer = Visitor(&lock, RWLockAcquireWrite, 'W');
    ASSERT_TRUE(WaitFor([&] { return Counters(&lock) == std::tuple(1, 1u); }));
    std::thread reader = Visitor(&lock, RWLockAcquireRead, 'R');
    AwaitSleeper(&lock.readers);
    EXPECT_EQ(Steps(), "");
    RWLockRelease(&lock);
    writer.join(), reader.join();
    EXPECT_EQ(Steps(), "WR");
    EXPECT_EQ(Counters(&lock), std::tuple(0, 0u));
}

// Held for writing, then for reading: what another thread gets with a timed
// write and a timed read. A reader held back by a writer that gives up comes
// in, though the first reader still holds the lock.
TEST_F(RWLockTest, TimeoutsLeaveTheCountersRightAndLetReadersIn) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(RWLockRelease(&lock), "'lock->state > 0' failed");  // a free lock
    for (auto [write, read] : {std::pair(1, 0), std::pair(0, 1)}) {
        write ? RWLockAcquireWrite(&lock) : RWLockAcquireRead(&lock);
        std::thread([&] {
            EXPECT_EQ(RWLockAcquireWriteTimeout(&lock, 20), 0);
            EXPECT_EQ(RWLockAcquireReadTimeout(&lock, 20), read);
            if (read) RWLockRelease(&lock);
        }).join();
        EXPECT_EQ(Counters(&lock), std::tuple(write ? -1 : 1, 0u));
        RWLockRelease(&lock);
    }
    EXPECT_EQ(RWLockAcquireWriteTimeout(&lock, 20), 1);
    EXPECT_EQ(Counters(&lock), std::tuple(-1, 0u));
    RWLockRelease(&lock);
    EXPECT_EQ(RWLockAcquireReadTimeout(&lock, QK_INFINITE), 1);
    std::thread writer([&] { EXPECT_EQ(RWLockAcquireWriteTimeout(&lock, 1000), 0); });
    ASSERT_TRUE(WaitFor([&] { return Counters(&lock) == std::tuple(1, 1u); }));
    std::thread reader = Visitor(&lock, RWLockAcquireRead, 'R');
    writer.join();
    EXPECT_TRUE(WaitFor([&] { return Steps() == "R"; }));
    RWLockRelease(&lock);
    reader.join();
    EXPECT_EQ(Counters(&lock), std::tuple(0, 0u));
}

// ---- Upgradable lock ----

TEST_F(RWLockTest, SecondUpgradableWaitsWhilePlainReadersPass) {
    RWULockAcquireUpgradable(&ulock);
    EXPECT_EQ(Counters(&ulock), std::tuple(1, 0u, 1));
    EXPECT_EQ(ulock.upgradableThread, ThreadId());
    std::thread second = Visitor(&ulock, RWULockAcquireUpgradable, 'U');
    AwaitSleeper(&ulock.upgraders);
    Visitor(&ulock, RWULockAcquireRead, 'R').join();
    EXPECT_EQ(Steps(), "R");
    EXPECT_EQ(Counters(&ulock), std::tuple(1, 0u, 1));
    RWULockRelease(&ulock);
    second.join();
    EXPECT_EQ(Steps(), "RU");
    EXPECT_EQ(Counters(&ulock), std::tuple(0, 0u, 0));
}

// The upgrade waits for the other readers, and keeps new ones out.
TEST_F(RWLockTest, UpgradeWaitsForTheOtherReaders) {
    RWULockAcquireRead(&ulock);
    std::atomic<Int> stateAfterUpgrade{0};
    std::thread upgrader([&] {
        RWULockAcquireUpgradable(&ulock), Add('u'), RWULockUpgrade(&ulock);
        stateAfterUpgrade = ulock.state;
        Add('W'), RWULockRelease(&ulock);
    });
    AwaitSleeper(&ulock.upgrader);
    EXPECT_EQ(Counters(&ulock), std::tuple(2, 1u, -1));
    std::thread reader = Visitor(&ulock, RWULockAcquireRead, 'R');
    AwaitSleeper(&ulock.readers);
    EXPECT_EQ(Steps(), "u");
    RWULockRelease(&ulock);
    upgrader.join(), reader.join();
    EXPECT_EQ(Steps(), "uWR");
    EXPECT_EQ(stateAfterUpgrade, -1);
    EXPECT_EQ(Counters(&ulock), std::tuple(0, 0u, 0));
}

// A downgrade lets readers in and keeps the right to upgrade again.
TEST_F(RWLockTest, DowngradeLetsReadersInAndKeepsTheUpgradeRight) {
    RWULockAcquireWrite(&ulock);
    std::thread reader = Visitor(&ulock, RWULockAcquireRead, 'R');
    AwaitSleeper(&ulock.readers);
    RWULockDowngrade(&ulock);
    reader.join();
    EXPECT_EQ(Steps(), "R");
    EXPECT_EQ(Counters(&ulock), std::tuple(1, 0u, 1));
    std::thread second = Visitor(&ulock, RWULockAcquireUpgradable, 'U');
    AwaitSleeper(&ulock.upgraders);
    RWULockUpgrade(&ulock);
    EXPECT_EQ(std::get<0>(Counters(&ulock)), -1);
    RWULockRelease(&ulock);
    second.join();
    EXPECT_EQ(Steps(), "RU");
    EXPECT_EQ(std::get<0>(Counters(&ulock)), 0);
}

// Who is inside a lock under load, and how often the rules were broken.
struct Occupancy {
    std::atomic<int> readers{0}, writers{0}, violations{0}, written{0};
    void Read() { readers++, violations += writers != 0, readers--; }
    void Write() { violations += writers++ != 0 || readers != 0, written++, writers--; }
};

// Both locks from their static initial values under mixed use by threads
// that start at once; the upgradable lock has one upgradable reader at most.
TEST(RWLockStaticTest, MixedUseKeepsTheRules) {
    static RWLock lock = RWLOCK_INITIALIZER;
    static RWULock ulock = RWULOCK_INITIALIZER;
    Occupancy inside, uinside;
    std::atomic<int> upgradables{0};
    RunAtOnce(6, [&](int thread) {
        std::minstd_rand random(thread + 1);
        for (int k = 0; k < 1500; k++) {
            bool write = random() % 4 == 0, wait = random() % 2;
            if (wait) write ? RWLockAcquireWrite(&lock) : RWLockAcquireRead(&lock);
            if (wait || (write ? RWLockAcquireWriteTimeout : RWLockAcquireReadTimeout)(&lock, 1)) {
                write ? inside.Write() : inside.Read();
                RWLockRelease(&lock);
            }
            int kind = random() % 6;
            if (kind == 0) RWULockAcquireWrite(&ulock), uinside.Write();
            if (kind >= 3) RWULockAcquireRead(&ulock), uinside.Read();
            if (kind == 1 || kind == 2) {
                RWULockAcquireUpgradable(&ulock);
                uinside.violations += upgradables++ != 0;
                uinside.Read();
                bool upgrade = random() % 2;
                if (upgrade) RWULockUpgrade(&ulock), uinside.Write();
                if (upgrade && random() % 2) RWULockDowngrade(&ulock), uinside.Read();
                upgradables--;
            }
            RWULockRelease(&ulock);
        }
    });
    for (Occupancy *o : {&inside, &uinside})
        EXPECT_EQ(std::tuple(o->violations > 0, o->written > 0), std::tuple(false, true));
    EXPECT_EQ(Counters(&lock), std::tuple(0, 0u));
    EXPECT_EQ(Counters(&ulock), std::tuple(0, 0u, 0));
}

}  // namespace
