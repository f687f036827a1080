// Threads: results through join, slot reuse, detaching, names, priorities,
// creation hooks and thread variables with their destructors.
#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "frame/internal.h"
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

// The size of the results table and the number of its slots in use.
struct Slots {
    UInt length, inUse;
};
Slots SlotsNow() {
    Slots slots;
    qk::ThreadResultsStats(&slots.length, &slots.inUse);
    return slots;
}

class ThreadTest : public ::testing::Test {
  protected:
    void SetUp() override { QKLibInit("threadtest"); }
};

UInt ReturnArgument(void *argument) {
    return (UInt)(uintptr_t)argument;
}

UInt Returned(UInt value) {
    return ThreadJoin(ThreadCreate(ReturnArgument, (void *)(uintptr_t)value, 0));
}

// A thread held until its gate opens; it records its kernel id first.
struct Gate {
    std::atomic<bool> open{false};
    std::atomic<int> tid{0};
    UInt result = 0;
};

UInt WaitAtGate(void *argument) {
    auto *gate = static_cast<Gate *>(argument);
    gate->tid = (int)ThreadId();
    while (!gate->open) std::this_thread::yield();
    return gate->result;
}

TEST_F(ThreadTest, JoinGivesBackEachResultAndFreesTheSlot) {
    UInt inUse = SlotsNow().inUse;
    const UInt values[] = {0, 1, 42, 0x7FFFFFFF, 0x80000000u, 0xFFFFFFFEu, 0xFFFFFFFFu};
    std::vector<ThreadHandle> handles;
    for (UInt value : values) {
        handles.push_back(ThreadCreate(ReturnArgument, (void *)(uintptr_t)value, 0));
    }
    // Joined in reverse order of creation: each result stays with its thread.
    for (size_t i = handles.size(); i-- > 0;) EXPECT_EQ(ThreadJoin(handles[i]), values[i]);
    UInt length = SlotsNow().length;
    for (UInt i = 0; i < 50; i++) EXPECT_EQ(Returned(i), i);
    EXPECT_EQ(SlotsNow().length, length);
    EXPECT_EQ(SlotsNow().inUse, inUse);

    // With three threads alive, the slot freed by joining the middle one is
    // the one that the next creation takes.
    Gate gates[4];
    ThreadHandle gated[4];
    for (UInt i = 0; i < 4; i++) gates[i].result = 10 + i;
    for (int i = 0; i < 3; i++) gated[i] = ThreadCreate(WaitAtGate, &gates[i], 0);
    UInt grown = SlotsNow().length;
    gates[1].open = true;
    EXPECT_EQ(ThreadJoin(gated[1]), 11u);
    gated[3] = ThreadCreate(WaitAtGate, &gates[3], 0);
    EXPECT_EQ(SlotsNow().length, grown);
    EXPECT_EQ(SlotsNow().inUse, inUse + 3);
    for (Gate &gate : gates) gate.open = true;
    for (UInt i : {2, 3, 0}) EXPECT_EQ(ThreadJoin(gated[i]), 10 + i);
    EXPECT_EQ(SlotsNow().inUse, inUse);
}

// A slot is freed at the end of a thread detached before its end; nobody
// frees the slot of a thread that ended before it was detached.
TEST_F(ThreadTest, DetachFreesTheSlotOnlyBeforeTheEnd) {
    UInt inUse = SlotsNow().inUse;
    Gate running;
    ThreadHandle t = ThreadCreate(WaitAtGate, &running, 0);
    EXPECT_EQ(SlotsNow().inUse, inUse + 1);
    EXPECT_EQ(ThreadDetach(t), 1);
    EXPECT_EQ(SlotsNow().inUse, inUse + 1);
    running.open = true;
    EXPECT_TRUE(WaitFor([&] { return SlotsNow().inUse == inUse; }));
    UInt length = SlotsNow().length;
    EXPECT_EQ(Returned(3), 3u);
    EXPECT_EQ(SlotsNow().length, length);

    Gate ended;
    ended.open = true;
    t = ThreadCreate(WaitAtGate, &ended, 0);
    ASSERT_TRUE(WaitFor([&] { return ended.tid != 0; }));
    struct stat info;
    std::string task = "/proc/self/task/" + std::to_string(ended.tid);
    ASSERT_TRUE(WaitFor([&] { return stat(task.c_str(), &info) != 0; }));
    EXPECT_EQ(ThreadDetach(t), 1);
    EXPECT_EQ(SlotsNow().inUse, inUse + 1);
    EXPECT_EQ(Returned(4), 4u);
    EXPECT_EQ(SlotsNow().inUse, inUse + 1);
}

struct Observed {
    std::string name;
    size_t stackSize = 0;
};

UInt Observe(void *argument) {
    auto *observed = static_cast<Observed *>(argument);
    observed->name = ThreadGetName();
    pthread_attr_t attributes;
    if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
        pthread_attr_getstacksize(&attributes, &observed->stackSize);
        pthread_attr_destroy(&attributes);
    }
    return (UInt)ThreadId();
}

TEST_F(ThreadTest, ThreadIsNamedAfterItsCreationSiteAndGetsItsStack) {
    Observed observed;
    const UInt stackSize = 3 * 1024 * 1024 + 1;
    int line = __LINE__ + 1;
    UInt tid = ThreadJoin(ThreadCreate(Observe, &observed, stackSize));
    EXPECT_EQ(observed.name, std::string(__FILE__) + ":" + std::to_string(line));
    EXPECT_GE(observed.stackSize, stackSize);
    EXPECT_NE(tid, (UInt)ThreadId());
    EXPECT_EQ(ThreadId(), (ULong)gettid());
}

int NiceOf(int tid) {
    errno = 0;
    int value = getpriority(PRIO_PROCESS, (id_t)tid);
    EXPECT_EQ(errno, 0);
    return value;
}

TEST_F(ThreadTest, SetPriorityMapsNiceThroughTheTable) {
    Gate gate;
    ThreadHandle t = ThreadCreate(WaitAtGate, &gate, 0);
    // The handle is usable before the thread has told its id.
    EXPECT_EQ(ThreadSetPriority(t, 0), 1);
    ASSERT_TRUE(WaitFor([&] { return gate.tid != 0; }));
    int tid = gate.tid;
    if (NiceOf(tid) != 0) {
        gate.open = true;
        ThreadJoin(t);
        GTEST_SKIP() << "the test runs at a nice value other than 0";
    }
    // A value not in the table is the normal priority. Lowering needs no
    // right; raising again does, and fails with the system's error without.
    const int table[][2] = {{3, 0},   {5, 5},     {10, 10},   {20, 19}, {7, 0},
                            {-5, -5}, {-10, -10}, {-20, -20}, {-19, 0}};
    for (auto [nice, expected] : table) {
        if (ThreadSetPriority(t, nice) != 1) {
            EXPECT_EQ(errno, -1);
            EXPECT_TRUE(QKGetLastError() == EACCES || QKGetLastError() == EPERM);
            EXPECT_EQ(NiceOf(tid), 19) << nice;
            break;
        }
        EXPECT_EQ(NiceOf(tid), expected) << nice;
    }
    gate.open = true;
    ThreadJoin(t);
}

UInt LowerOwnPriority(void *) {
    return ThreadSetPriority(ThreadGetCurrent(), 10) == 1 ? NiceOf((int)gettid()) : 100;
}

TEST_F(ThreadTest, CurrentHandleWorksInItsThread) {
    EXPECT_EQ(ThreadJoin(ThreadCreate(LowerOwnPriority, nullptr, 0)), 10u);
    // The handle of the calling thread cannot be given away nor joined.
    EXPECT_EQ(ThreadDetach(ThreadGetCurrent()), 0);
    EXPECT_EQ(errno, -1);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(ThreadJoin(ThreadGetCurrent()), "thread operation failed");
}

// What the creation hooks were called with.
struct HookCall {
    ThreadFunction function;
    void *argument;
    UInt stackSize;
    std::string file;
    int line;
    bool operator==(const HookCall &) const = default;
};
std::vector<HookCall> hookCalls;
ThreadHandle const kHookHandle = reinterpret_cast<ThreadHandle>(0x1234);

ThreadHandle CreateHook(ThreadFunction function, void *argument, UInt stackSize, const char *file,
                        int line) {
    hookCalls.push_back({function, argument, stackSize, file, line});
    return kHookHandle;
}

void CreateDetachedHook(ThreadFunction function, void *argument, UInt stackSize, const char *file,
                        int line) {
    CreateHook(function, argument, stackSize, file, line);
}

TEST_F(ThreadTest, HooksTakeOverCreation) {
    int marker = 0;
    hookCalls.clear();
    SetThreadCreateHooks(CreateHook, CreateDetachedHook);
    UInt inUse = SlotsNow().inUse;
    int line = __LINE__ + 1;
    ThreadHandle t = ThreadCreate(ReturnArgument, &marker, 12345);
    ThreadCreateDetached(Observe, &marker, 777);
    SetThreadCreateHooks(nullptr, nullptr);
    EXPECT_EQ(t, kHookHandle);
    EXPECT_EQ(SlotsNow().inUse, inUse);
    EXPECT_EQ(hookCalls, (std::vector<HookCall>{{ReturnArgument, &marker, 12345, __FILE__, line},
                                                {Observe, &marker, 777, __FILE__, line + 1}}));
    // Without hooks, creation is the library's again.
    EXPECT_EQ(Returned(8), 8u);
    EXPECT_EQ(hookCalls.size(), 2u);
}

// ---- Thread variables ----

// What the destructors were called with: "<variable>=<value>".
using Log = std::vector<std::string>;
std::mutex destroyedMutex;
Log destroyed;
ThreadVar plain, stubborn, chain;

void Note(const char *variable, void *value) {
    std::lock_guard<std::mutex> guard(destroyedMutex);
    destroyed.push_back(variable + ("=" + std::to_string((uintptr_t)value)));
}
// Takes what was noted so far.
Log Destroyed() {
    std::lock_guard<std::mutex> guard(destroyedMutex);
    return std::exchange(destroyed, {});
}

const ThreadVarDestructor kPlain = [](void *value) { Note("plain", value); };
// Keeps setting its own variable again.
void StubbornDestructor(void *value) {
    Note("stubborn", value);
    ThreadVarSet(stubborn, (char *)value + 1);
}
// Sets another variable: that one's destructor runs in the next round.
void ChainDestructor(void *value) {
    Note("chain", value);
    ThreadVarSet(plain, (void *)7);
}

class ThreadVarTest : public ThreadTest {
  protected:
    static void SetUpTestSuite() {
        plain = ThreadVarCreate(kPlain);
        stubborn = ThreadVarCreate(StubbornDestructor);
        chain = ThreadVarCreate(ChainDestructor);
    }
};

// Sets a variable to a value; 1 when it reads the value back.
struct Setting {
    ThreadVar var;
    uintptr_t value;
};
UInt SetVar(void *argument) {
    auto *setting = static_cast<Setting *>(argument);
    ThreadVarSet(setting->var, (void *)setting->value);
    return ThreadVarGet(setting->var) == (void *)setting->value;
}

// Sets `var` to `value` in a thread of its own, and returns what the
// destructors were called with.
Log SetInThread(ThreadVar var, uintptr_t value) {
    Setting setting{var, value};
    EXPECT_EQ(ThreadJoin(ThreadCreate(SetVar, &setting, 0)), 1u);
    return Destroyed();
}

TEST_F(ThreadVarTest, DestructorsRunInRoundsWhenTheThreadEnds) {
    EXPECT_EQ(SetInThread(plain, 5), Log{"plain=5"});
    EXPECT_EQ(SetInThread(plain, 0), Log{});  // an empty variable calls nothing
    // One that sets its value again runs at most four times.
    EXPECT_EQ(SetInThread(stubborn, 10),
              (Log{"stubborn=10", "stubborn=11", "stubborn=12", "stubborn=13"}));
    // One that fills another variable has that one's destructor run.
    EXPECT_EQ(SetInThread(chain, 20), (Log{"chain=20", "plain=7"}));

    static Setting detached{plain, 6};
    ThreadCreateDetached(SetVar, &detached, 0);
    Log log;
    EXPECT_TRUE(WaitFor([&] { return !(log = Destroyed()).empty(); }));
    EXPECT_EQ(log, Log{"plain=6"});
}

TEST_F(ThreadVarTest, ForeignThreadCleansUpWithThreadCleanup) {
    std::thread([] {
        EXPECT_NE(ThreadInit(), nullptr);
        ThreadVarSet(plain, (void *)9);
        EXPECT_EQ(Destroyed(), Log{});
        ThreadCleanup();
    }).join();
    EXPECT_EQ(Destroyed(), Log{"plain=9"});
}

}  // namespace
