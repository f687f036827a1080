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
#include <string>
#include <thread>
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

UInt SlotsInUse() {
    UInt length, inUse;
    qk::ThreadResultsStats(&length, &inUse);
    return inUse;
}

UInt SlotsLength() {
    UInt length, inUse;
    qk::ThreadResultsStats(&length, &inUse);
    return length;
}

bool TaskExists(int tid) {
    struct stat info;
    return stat(("/proc/self/task/" + std::to_string(tid)).c_str(), &info) == 0;
}

class ThreadTest : public ::testing::Test {
  protected:
    void SetUp() override { QKLibInit("threadtest"); }
};

UInt ReturnArgument(void *argument) {
    return (UInt)(uintptr_t)argument;
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

TEST_F(ThreadTest, JoinGivesBackEachThreadsResult) {
    const UInt values[] = {0, 1, 42, 0x7FFFFFFF, 0x80000000u, 0xFFFFFFFEu, 0xFFFFFFFFu};
    std::vector<ThreadHandle> handles;
    for (UInt value : values) {
        handles.push_back(ThreadCreate(ReturnArgument, (void *)(uintptr_t)value, 0));
    }
    // Joined in reverse order of creation: each result stays with its thread.
    for (size_t i = handles.size(); i-- > 0;) EXPECT_EQ(ThreadJoin(handles[i]), values[i]);
}

TEST_F(ThreadTest, JoinedSlotsAreReused) {
    UInt inUse = SlotsInUse();
    ThreadJoin(ThreadCreate(ReturnArgument, nullptr, 0));
    UInt length = SlotsLength();
    for (UInt i = 0; i < 50; i++) {
        EXPECT_EQ(ThreadJoin(ThreadCreate(ReturnArgument, (void *)(uintptr_t)i, 0)), i);
    }
    EXPECT_EQ(SlotsLength(), length);
    EXPECT_EQ(SlotsInUse(), inUse);

    // With three threads alive, the slot freed by joining the middle one is
    // the one that the next creation takes.
    Gate gates[4];
    ThreadHandle a = ThreadCreate(WaitAtGate, &gates[0], 0);
    ThreadHandle b = ThreadCreate(WaitAtGate, &gates[1], 0);
    ThreadHandle c = ThreadCreate(WaitAtGate, &gates[2], 0);
    UInt grown = SlotsLength();
    gates[1].result = 7;
    gates[1].open = true;
    EXPECT_EQ(ThreadJoin(b), 7u);
    gates[3].result = 9;
    ThreadHandle d = ThreadCreate(WaitAtGate, &gates[3], 0);
    EXPECT_EQ(SlotsLength(), grown);
    EXPECT_EQ(SlotsInUse(), inUse + 3);
    gates[0].result = 5;
    gates[2].result = 6;
    gates[0].open = gates[2].open = gates[3].open = true;
    EXPECT_EQ(ThreadJoin(c), 6u);
    EXPECT_EQ(ThreadJoin(d), 9u);
    EXPECT_EQ(ThreadJoin(a), 5u);
    EXPECT_EQ(SlotsInUse(), inUse);
}

TEST_F(ThreadTest, DetachBeforeTheEndFreesTheSlotAtTheEnd) {
    UInt inUse = SlotsInUse();
    Gate gate;
    ThreadHandle t = ThreadCreate(WaitAtGate, &gate, 0);
    EXPECT_EQ(SlotsInUse(), inUse + 1);
    EXPECT_EQ(ThreadDetach(t), 1);
    EXPECT_EQ(SlotsInUse(), inUse + 1);
    gate.open = true;
    EXPECT_TRUE(WaitFor([&] { return SlotsInUse() == inUse; }));
    UInt length = SlotsLength();
    EXPECT_EQ(ThreadJoin(ThreadCreate(ReturnArgument, (void *)3, 0)), 3u);
    EXPECT_EQ(SlotsLength(), length);
}

TEST_F(ThreadTest, DetachAfterTheEndKeepsTheSlot) {
    UInt inUse = SlotsInUse();
    Gate gate;
    gate.open = true;
    ThreadHandle t = ThreadCreate(WaitAtGate, &gate, 0);
    ASSERT_TRUE(WaitFor([&] { return gate.tid != 0; }));
    ASSERT_TRUE(WaitFor([&] { return !TaskExists(gate.tid); }));
    EXPECT_EQ(ThreadDetach(t), 1);
    // Nobody frees a slot whose thread ended before it was detached.
    EXPECT_EQ(SlotsInUse(), inUse + 1);
    EXPECT_EQ(ThreadJoin(ThreadCreate(ReturnArgument, (void *)4, 0)), 4u);
    EXPECT_EQ(SlotsInUse(), inUse + 1);
}

struct Observed {
    std::string name;
    ULong id = 0;
    int tid = 0;
    size_t stackSize = 0;
};

UInt Observe(void *argument) {
    auto *observed = static_cast<Observed *>(argument);
    observed->name = ThreadGetName();
    observed->id = ThreadId();
    observed->tid = (int)gettid();
    pthread_attr_t attributes;
    if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
        pthread_attr_getstacksize(&attributes, &observed->stackSize);
        pthread_attr_destroy(&attributes);
    }
    return 0;
}

TEST_F(ThreadTest, ThreadIsNamedAfterItsCreationSiteAndGetsItsStack) {
    Observed observed;
    const UInt stackSize = 3 * 1024 * 1024 + 1;
    int line = __LINE__ + 1;
    ThreadJoin(ThreadCreate(Observe, &observed, stackSize));
    EXPECT_EQ(observed.name, std::string(__FILE__) + ":" + std::to_string(line));
    EXPECT_GE(observed.stackSize, stackSize);
    EXPECT_EQ(observed.id, (ULong)observed.tid);
    EXPECT_NE(observed.id, ThreadId());
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
    // A value not in the table is the normal priority.
    EXPECT_EQ(ThreadSetPriority(t, 3), 1);
    EXPECT_EQ(NiceOf(tid), 0);
    EXPECT_EQ(ThreadSetPriority(t, 5), 1);
    EXPECT_EQ(NiceOf(tid), 5);
    EXPECT_EQ(ThreadSetPriority(t, 10), 1);
    EXPECT_EQ(NiceOf(tid), 10);
    EXPECT_EQ(ThreadSetPriority(t, 20), 1);
    EXPECT_EQ(NiceOf(tid), 19);
    // Back to normal needs the right to raise a priority.
    if (ThreadSetPriority(t, 7) == 1) {
        EXPECT_EQ(NiceOf(tid), 0);
        EXPECT_EQ(ThreadSetPriority(t, -5), 1);
        EXPECT_EQ(NiceOf(tid), -5);
        EXPECT_EQ(ThreadSetPriority(t, -10), 1);
        EXPECT_EQ(NiceOf(tid), -10);
        EXPECT_EQ(ThreadSetPriority(t, -20), 1);
        EXPECT_EQ(NiceOf(tid), -20);
        EXPECT_EQ(ThreadSetPriority(t, -19), 1);
        EXPECT_EQ(NiceOf(tid), 0);
    } else {
        EXPECT_EQ(errno, -1);
        EXPECT_TRUE(QKGetLastError() == EACCES || QKGetLastError() == EPERM);
        EXPECT_EQ(NiceOf(tid), 19);
    }
    gate.open = true;
    ThreadJoin(t);
}

UInt LowerOwnPriority(void *argument) {
    *static_cast<int *>(argument) =
        ThreadSetPriority(ThreadGetCurrent(), 10) == 1 ? NiceOf((int)gettid()) : -100;
    return 0;
}

TEST_F(ThreadTest, CurrentHandleWorksInItsThread) {
    int nice = 0;
    ThreadJoin(ThreadCreate(LowerOwnPriority, &nice, 0));
    EXPECT_EQ(nice, 10);
    // The handle of the calling thread cannot be given away.
    EXPECT_EQ(ThreadDetach(ThreadGetCurrent()), 0);
    EXPECT_EQ(errno, -1);
}

struct HookCall {
    ThreadFunction function = nullptr;
    void *argument = nullptr;
    UInt stackSize = 0;
    std::string file;
    int line = 0;
    int calls = 0;
};
HookCall hookCall;
HookCall detachedHookCall;
ThreadHandle const kHookHandle = reinterpret_cast<ThreadHandle>(0x1234);

ThreadHandle CreateHook(ThreadFunction function, void *argument, UInt stackSize, const char *file,
                        int line) {
    hookCall = {function, argument, stackSize, file, line, hookCall.calls + 1};
    return kHookHandle;
}

void CreateDetachedHook(ThreadFunction function, void *argument, UInt stackSize, const char *file,
                        int line) {
    detachedHookCall = {function, argument, stackSize, file, line, detachedHookCall.calls + 1};
}

TEST_F(ThreadTest, HooksTakeOverCreation) {
    int marker = 0;
    hookCall = {};
    detachedHookCall = {};
    SetThreadCreateHooks(CreateHook, CreateDetachedHook);
    UInt inUse = SlotsInUse();
    int line = __LINE__ + 1;
    ThreadHandle t = ThreadCreate(ReturnArgument, &marker, 12345);
    ThreadCreateDetached(ReturnArgument, &marker, 777);
    SetThreadCreateHooks(nullptr, nullptr);

    EXPECT_EQ(t, kHookHandle);
    EXPECT_EQ(SlotsInUse(), inUse);
    EXPECT_EQ(hookCall.calls, 1);
    EXPECT_EQ(hookCall.function, ReturnArgument);
    EXPECT_EQ(hookCall.argument, &marker);
    EXPECT_EQ(hookCall.stackSize, 12345u);
    EXPECT_EQ(hookCall.file, __FILE__);
    EXPECT_EQ(hookCall.line, line);
    EXPECT_EQ(detachedHookCall.calls, 1);
    EXPECT_EQ(detachedHookCall.stackSize, 777u);
    EXPECT_EQ(detachedHookCall.line, line + 1);

    // Without hooks, creation is the library's again.
    EXPECT_EQ(ThreadJoin(ThreadCreate(ReturnArgument, (void *)8, 0)), 8u);
    EXPECT_EQ(hookCall.calls, 1);
}

TEST_F(ThreadTest, JoiningOneselfIsFatal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(ThreadJoin(ThreadGetCurrent()), "thread operation failed");
}

// ---- Thread variables ----

struct VarLog {
    std::atomic<int> calls{0};
    std::atomic<uintptr_t> lastValue{0};
};

ThreadVar plainVar;
VarLog plainLog;
void PlainDestructor(void *value) {
    plainLog.lastValue = (uintptr_t)value;
    plainLog.calls++;
}

// A destructor that keeps setting its own variable again.
ThreadVar stubbornVar;
VarLog stubbornLog;
void StubbornDestructor(void *value) {
    stubbornLog.calls++;
    ThreadVarSet(stubbornVar, (char *)value + 1);
}

// A destructor that sets another variable: that one's destructor runs in
// the next round.
ThreadVar chainVar;
VarLog chainLog;
void ChainDestructor(void *value) {
    chainLog.lastValue = (uintptr_t)value;
    chainLog.calls++;
    ThreadVarSet(plainVar, (void *)0x77);
}

class ThreadVarTest : public ThreadTest {
  protected:
    static void SetUpTestSuite() {
        plainVar = ThreadVarCreate(PlainDestructor);
        stubbornVar = ThreadVarCreate(StubbornDestructor);
        chainVar = ThreadVarCreate(ChainDestructor);
    }
    void SetUp() override {
        ThreadTest::SetUp();
        for (VarLog *log : {&plainLog, &stubbornLog, &chainLog}) {
            log->calls = 0;
            log->lastValue = 0;
        }
    }
};

UInt SetPlain(void *value) {
    ThreadVarSet(plainVar, value);
    return ThreadVarGet(plainVar) == value;
}

TEST_F(ThreadVarTest, DestructorRunsWhenTheThreadEnds) {
    EXPECT_EQ(ThreadJoin(ThreadCreate(SetPlain, (void *)0x55, 0)), 1u);
    EXPECT_EQ(plainLog.calls, 1);
    EXPECT_EQ(plainLog.lastValue, 0x55u);
    // A variable left empty calls nothing.
    EXPECT_EQ(ThreadJoin(ThreadCreate(SetPlain, nullptr, 0)), 1u);
    EXPECT_EQ(plainLog.calls, 1);
}

TEST_F(ThreadVarTest, DetachedThreadRunsDestructorsToo) {
    ThreadCreateDetached(SetPlain, (void *)0x66, 0);
    EXPECT_TRUE(WaitFor([] { return plainLog.calls == 1; }));
    EXPECT_EQ(plainLog.lastValue, 0x66u);
}

UInt SetStubborn(void *) {
    ThreadVarSet(stubbornVar, (void *)0x100);
    return 0;
}

TEST_F(ThreadVarTest, DestructorThatSetsItsValueAgainRunsAtMostFourTimes) {
    ThreadJoin(ThreadCreate(SetStubborn, nullptr, 0));
    EXPECT_EQ(stubbornLog.calls, 4);
}

UInt SetChain(void *) {
    ThreadVarSet(chainVar, (void *)0x200);
    return 0;
}

TEST_F(ThreadVarTest, DestructorMayFillAnotherVariable) {
    ThreadJoin(ThreadCreate(SetChain, nullptr, 0));
    EXPECT_EQ(chainLog.calls, 1);
    EXPECT_EQ(chainLog.lastValue, 0x200u);
    EXPECT_EQ(plainLog.calls, 1);
    EXPECT_EQ(plainLog.lastValue, 0x77u);
}

TEST_F(ThreadVarTest, ForeignThreadCleansUpWithThreadCleanup) {
    std::atomic<bool> contextMade{false};
    std::atomic<int> callsBeforeCleanup{-1};
    std::thread foreign([&] {
        contextMade = ThreadInit() != nullptr;
        ThreadVarSet(plainVar, (void *)0x99);
        callsBeforeCleanup = plainLog.calls.load();
        ThreadCleanup();
    });
    foreign.join();
    EXPECT_TRUE(contextMade);
    EXPECT_EQ(callsBeforeCleanup, 0);
    EXPECT_EQ(plainLog.calls, 1);
    EXPECT_EQ(plainLog.lastValue, 0x99u);
}

}  // namespace
