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

// Calls on a lock by letter: r, w and u acquire for reading, for writing and
// as the upgradable reader, U upgrades, D downgrades and - releases.
void Call(RWLock *lock, char call) {
    static void (*const calls[])(RWLock *) = {RWLockAcquireRead, RWLockAcquireWrite, RWLockRelease};
    calls[strchr("rw-", call) - "rw-"](lock);
}
void Call(RWULock *lock, char call) {
    static void (*const calls[])(RWULock *) = {RWULockAcquireRead,       RWULockAcquireWrite,
                                               RWULockAcquireUpgradable, RWULockUpgrade,
                                               RWULockDowngrade,         RWULockRelease};
    calls[strchr("rwuUD-", call) - "rwuUD-"](lock);
}

// One step of an ordering scenario: the main thread's calls, then maybe a
// visitor thread with its own calls, which either sleeps on `sleeps` or, with
// none, is joined at once; then the counters the lock settles at.
template <class Lock>
struct Step {
    const char *main, *visitor;
    Condition Lock::*sleeps;
    decltype(Counters((Lock *)nullptr)) counters;
};

// A fresh lock of each kind for every test, and the order in which the
// visitors got into them, a letter for each call but a release.
class RWLockTest : public FrameTest {
  protected:
    void SetUp() override { FrameTest::SetUp(), RWLockInit(&lock), RWULockInit(&ulock); }
    void TearDown() override { RWLockDestroy(&lock), RWULockDestroy(&ulock); }
    void Add(char step) { steps[length] = step, length++; }
    std::string Steps() const { return std::string(steps, length); }
    // Plays `script` on `lock`: the visitors come in `order`, the lock ends free.
    template <class Lock>
    void Play(Lock *lock, const std::vector<Step<Lock>> &script, const char *order) {
        std::vector<std::thread> visitors;
        length = 0;
        for (const Step<Lock> &step : script) {
            for (const char *c = step.main; *c; c++) Call(lock, *c);
            if (step.visitor) {
                visitors.emplace_back([=, this, calls = step.visitor] {
                    for (const char *c = calls; *c; c++)
                        Call(lock, *c), *c == '-' ? void() : Add(*c);
                });
            }
            if (step.visitor && !step.sleeps) visitors.back().join(), visitors.pop_back();
            auto sleeping = [&] { return !step.sleeps || Waiting(&(lock->*step.sleeps)); };
            ASSERT_TRUE(WaitFor(sleeping));
            ASSERT_TRUE(WaitFor([&] { return Counters(lock) == step.counters; })) << order;
        }
        for (auto &visitor : visitors) visitor.join();
        EXPECT_EQ(Steps(), order);
    }

    RWLock lock;
    RWULock ulock;
    char steps[8] = {};
    std::atomic<int> length{0};
};

// Held for writing, then for reading: what another thread gets with a timed
// write and a timed read. A reader held back by a writer that gives up comes
// in, though the first reader still holds the lock.
TEST_F(RWLockTest, TimeoutsAndOrderingScenarios) {
    EXPECT_DEATH(RWLockRelease(&lock), "'lock->state > 0' failed");  // a free lock
    for (auto [write, read] : {std::pair(1, 0), std::pair(0, 1)}) {
        ASSERT_EQ(write ? RWLockAcquireWriteTimeout(&lock, 20)
                        : RWLockAcquireReadTimeout(&lock, QK_INFINITE),
                  1);
        std::thread([&] {
            EXPECT_EQ(RWLockAcquireWriteTimeout(&lock, 20), 0);
            EXPECT_EQ(RWLockAcquireReadTimeout(&lock, 20), read);
            if (read) RWLockRelease(&lock);
        }).join();
        EXPECT_EQ(Counters(&lock), std::tuple(write ? -1 : 1, 0u));
        RWLockRelease(&lock);
    }
    RWLockAcquireRead(&lock);
    std::thread writer([&] { EXPECT_EQ(RWLockAcquireWriteTimeout(&lock, 1000), 0); });
    ASSERT_TRUE(WaitFor([&] { return Counters(&lock) == std::tuple(1, 1u); }));
    std::thread reader([&] { RWLockAcquireRead(&lock), Add('R'), RWLockRelease(&lock); });
    writer.join();
    EXPECT_TRUE(WaitFor([&] { return Steps() == "R"; }));
    RWLockRelease(&lock);
    reader.join();
    EXPECT_EQ(Counters(&lock), std::tuple(0, 0u));
    // A reader stands back for a waiting writer, even while readers hold the
    // lock; a writer that leaves wakes a waiting writer. A second upgradable
    // reader waits while plain readers pass. An upgrade waits for the other
    // readers and keeps new ones out. A downgrade lets readers in and keeps the
    // right to upgrade again.
    const std::pair<std::vector<Step<RWLock>>, const char *> plain[] = {
        {{{"r", "w-", &RWLock::writers, {1, 1u}},
          {"", "r-", &RWLock::readers, {1, 1u}},
          {"-", nullptr, nullptr, {0, 0u}}},
         "wr"},
        {{{"w", "w-", &RWLock::writers, {-1, 1u}}, {"-", nullptr, nullptr, {0, 0u}}}, "w"},
    };
    for (const auto &[script, order] : plain) Play(&lock, script, order);
    const std::pair<std::vector<Step<RWULock>>, const char *> upgradable[] = {
        {{{"w", "w-", &RWULock::writers, {-1, 1u, 0}}, {"-", nullptr, nullptr, {0, 0u, 0}}}, "w"},
        {{{"u", "w-", &RWULock::writers, {1, 1u, 1}}, {"-", nullptr, nullptr, {0, 0u, 0}}}, "w"},
        {{{"u", "u-", &RWULock::upgraders, {1, 0u, 1}},
          {"", "r-", nullptr, {1, 0u, 1}},
          {"-", nullptr, nullptr, {0, 0u, 0}}},
         "ru"},
        {{{"r", "uU-", &RWULock::upgrader, {2, 1u, -1}},
          {"", "r-", &RWULock::readers, {2, 1u, -1}},
          {"-", nullptr, nullptr, {0, 0u, 0}}},
         "uUr"},
        {{{"w", "r-", &RWULock::readers, {-1, 0u, 0}},
          {"D", "u-", &RWULock::upgraders, {1, 0u, 1}},
          {"U", nullptr, nullptr, {-1, 0u, 0}},
          {"-", nullptr, nullptr, {0, 0u, 0}}},
         "ru"},
    };
    for (const auto &[script, order] : upgradable) Play(&ulock, script, order);
}

// Who is inside a lock under load, and how often the rules were broken.
struct Occupancy {
    std::atomic<int> readers{0}, writers{0}, violations{0}, written{0};
    void Read() { readers++, violations += writers != 0, readers--; }
    void Write() { violations += writers++ != 0 || readers != 0, written++, writers--; }
};

// Both locks from their static initial values under mixed use by threads
// that start at once, some calls timed; the upgradable lock has one
// upgradable reader at most.
TEST(RWLockStaticTest, MixedUseKeepsTheRules) {
    static RWLock lock = RWLOCK_INITIALIZER;
    static RWULock ulock = RWULOCK_INITIALIZER;
    Occupancy inside, uinside;
    std::atomic<int> upgradables{0};
    const char *scripts[] = {"w", "r", "r", "r", "u", "uU", "uUD"};
    RunAtOnce(6, [&](int thread) {
        std::minstd_rand random(thread + 1);
        for (int k = 0; k < 1500; k++) {
            bool write = random() % 4 == 0, wait = random() % 2;
            if (wait) Call(&lock, write ? 'w' : 'r');
            if (wait || (write ? RWLockAcquireWriteTimeout : RWLockAcquireReadTimeout)(&lock, 1))
                write ? inside.Write() : inside.Read(), Call(&lock, '-');
            const char *script = scripts[random() % 7];
            for (const char *c = script; *c; c++) {
                Call(&ulock, *c);
                uinside.violations += *c == 'u' && upgradables++ != 0;
                strchr("wU", *c) ? uinside.Write() : uinside.Read();
            }
            upgradables -= *script == 'u';
            Call(&ulock, '-');
        }
    });
    for (Occupancy *o : {&inside, &uinside})
        EXPECT_EQ(std::tuple(o->violations > 0, o->written > 0), std::tuple(false, true));
    EXPECT_EQ(std::tuple(Counters(&lock), Counters(&ulock)),
              std::tuple(std::tuple(0, 0u), std::tuple(0, 0u, 0)));
}

}  // namespace
