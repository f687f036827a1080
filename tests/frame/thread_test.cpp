// Threads: results through join, slot reuse, detaching, names, priorities,
// creation hooks, and thread variables with their destructors.
#include <sys/resource.h>

#include <mutex>

#include "frame/frame_test.h"
#include "frame/internal.h"

namespace {

// The number of slots in use in the results table, and its size.
std::pair<UInt, UInt> Slots() {
    UInt length, inUse;
    qk::ThreadResultsStats(&length, &inUse);
    return {inUse, length};
}

// A thread held until its gate opens; it records its kernel id first.
struct Gate {
    std::atomic<bool> open{false};
    std::atomic<int> tid{0};
    UInt result = 0;
};
UInt WaitAtGate(void *argument) {
    auto *gate = static_cast<Gate *>(argument);
    for (gate->tid = (int)ThreadId(); !gate->open;) std::this_thread::yield();
    return gate->result;
}
// A thread that gives back `value` at once.
UInt Returned(UInt value) {
    auto give = [](void *argument) { return (UInt)(uintptr_t)argument; };
    return ThreadJoin(ThreadCreate(give, (void *)(uintptr_t)value, 0));
}

int NiceOf(int tid) {
    return getpriority(PRIO_PROCESS, (id_t)tid);
}

using ThreadTest = FrameTest;

// Results come back whatever the order of joining, and joining frees the
// slot, which the next creation takes; a slot is freed at the end of a
// thread detached before its end, and nobody frees the slot of a thread that
// ended before it was detached.
TEST_F(ThreadTest, JoinAndDetachGiveBackResultsAndSlots) {
    const UInt before = Slots().first, values[] = {0, 1, 0x80000000u, ~0u};
    Gate gates[4];
    ThreadHandle handles[4];
    for (int i = 0; i < 4; i++) {
        gates[i].result = values[i], handles[i] = ThreadCreate(WaitAtGate, &gates[i], 0);
    }
    const std::pair<UInt, UInt> busy = Slots();
    for (int i : {2, 0, 3, 1}) gates[i].open = true, gates[i].result = ThreadJoin(handles[i]);
    for (int i = 0; i < 4; i++) EXPECT_EQ(gates[i].result, values[i]);
    for (UInt i = 0; i < 30; i++) EXPECT_EQ(Returned(i), i);
    EXPECT_EQ(std::pair(busy.first, Slots().second), std::pair(before + 4, busy.second));
    Gate running, ended;
    EXPECT_TRUE(ThreadDetach(ThreadCreate(WaitAtGate, &running, 0)) && Slots().first == before + 1);
    running.open = ended.open = true;
    EXPECT_TRUE(WaitFor([&] { return Slots().first == before; }));
    ThreadHandle t = ThreadCreate(WaitAtGate, &ended, 0);
    ASSERT_TRUE(WaitFor([&] { return ended.tid != 0; }));
    std::string task = "/proc/self/task/" + std::to_string(ended.tid);
    ASSERT_TRUE(WaitFor([&] { return access(task.c_str(), F_OK) != 0; }));
    EXPECT_TRUE(ThreadDetach(t) == 1 && Returned(4) == 4);
    EXPECT_EQ(Slots().first, before + 1);
}

// Named after the place of creation, with the stack asked for, running at
// the nice values of the table: a value not in it is the normal priority.
// Lowering needs no right; raising again does, and fails with the system's
// error without. The handle of the calling thread sets its priority, but can
// be neither given away nor joined.
TEST_F(ThreadTest, NameStackAndPriority) {
    EXPECT_DEATH(ThreadJoin(ThreadGetCurrent()), "thread operation failed");
    static std::string name;
    auto observe = [](void *) -> UInt {
        pthread_attr_t attributes;
        size_t stack = 0;
        pthread_getattr_np(pthread_self(), &attributes), name = ThreadGetName();
        pthread_attr_getstacksize(&attributes, &stack), pthread_attr_destroy(&attributes);
        return stack >= 3 * 1024 * 1024 + 1;
    };
    int line = __LINE__ + 1;
    EXPECT_EQ(ThreadJoin(ThreadCreate(observe, nullptr, 3 * 1024 * 1024 + 1)), 1u);
    EXPECT_EQ(name, std::string(__FILE__) + ":" + std::to_string(line));
    Gate gate;
    ThreadHandle t = ThreadCreate(WaitAtGate, &gate, 0);
    EXPECT_EQ(ThreadSetPriority(t, 0), 1);  // usable before the thread has told its id
    ASSERT_TRUE(WaitFor([&] { return gate.tid != 0; }));
    const int table[][2] = {{3, 0},   {5, 5},     {10, 10},   {20, 19}, {7, 0},
                            {-5, -5}, {-10, -10}, {-20, -20}, {-19, 0}};
    for (auto [nice, expected] : table) {
        if (NiceOf(gate.tid) != 0 && nice == 3) break;  // a test run at another nice value
        if (ThreadSetPriority(t, nice) != 1) {
            EXPECT_TRUE(errno == -1 && (QKGetLastError() == EACCES || QKGetLastError() == EPERM));
            EXPECT_EQ(NiceOf(gate.tid), 19) << nice;
            break;
        }
        EXPECT_EQ(NiceOf(gate.tid), expected) << nice;
    }
    gate.open = true, ThreadJoin(t);
    auto lowerOwnPriority = [](void *) -> UInt {
        return ThreadSetPriority(ThreadGetCurrent(), 10) == 1 ? NiceOf((int)gettid()) : 100;
    };
    EXPECT_EQ(ThreadJoin(ThreadCreate(lowerOwnPriority, nullptr, 0)), 10u);
    EXPECT_EQ(WithErrno(ThreadDetach(ThreadGetCurrent())), std::tuple(0, -1));
}

// What the creation hooks were called with: function, argument, stack size,
// file and line.
std::vector<std::tuple<ThreadFunction, void *, UInt, std::string, int>> hookCalls;

ThreadHandle CreateHook(ThreadFunction function, void *argument, UInt stack, const char *file,
                        int line) {
    return hookCalls.emplace_back(function, argument, stack, file, line), (ThreadHandle)&hookCalls;
}

TEST_F(ThreadTest, HooksTakeOverCreation) {
    SetThreadCreateHooks(CreateHook, [](ThreadFunction f, void *a, UInt s, const char *file,
                                        int line) { CreateHook(f, a, s, file, line); });
    int marker = 0, line = __LINE__ + 1;
    EXPECT_EQ(ThreadCreate(WaitAtGate, &marker, 12345), (ThreadHandle)&hookCalls);
    ThreadCreateDetached(WaitAtGate, &marker, 777);
    SetThreadCreateHooks(nullptr, nullptr);
    EXPECT_EQ(hookCalls, (decltype(hookCalls){{WaitAtGate, &marker, 12345, __FILE__, line},
                                              {WaitAtGate, &marker, 777, __FILE__, line + 1}}));
    // Without hooks, creation is the library's again.
    EXPECT_TRUE(Returned(8) == 8 && hookCalls.size() == 2);
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

// Sets a variable to a value; 1 when it reads the value back.
using Setting = std::pair<ThreadVar, uintptr_t>;
UInt SetVar(void *argument) {
    auto [var, value] = *static_cast<Setting *>(argument);
    ThreadVarSet(var, (void *)value);
    return ThreadVarGet(var) == (void *)value;
}

// An empty variable calls nothing; one that sets its value again runs four
// times at most; one that fills another has that one's destructor run in the
// next round. A detached thread and a thread of another maker, which calls
// ThreadCleanup, run them too.
TEST_F(ThreadTest, VariableDestructorsRunInRoundsWhenTheThreadEnds) {
    plain = ThreadVarCreate([](void *value) { Note("plain", value); });
    stubborn = ThreadVarCreate(
        [](void *value) { Note("stubborn", value), ThreadVarSet(stubborn, (char *)value + 1); });
    chain =
        ThreadVarCreate([](void *value) { Note("chain", value), ThreadVarSet(plain, (void *)7); });
    const std::tuple<ThreadVar &, uintptr_t, Log> cases[] = {
        {plain, 5, {"plain=5"}},
        {plain, 0, {}},
        {stubborn, 10, {"stubborn=10", "stubborn=11", "stubborn=12", "stubborn=13"}},
        {chain, 20, {"chain=20", "plain=7"}}};
    for (const auto &[var, value, expected] : cases) {
        Setting setting{var, value};
        EXPECT_EQ(ThreadJoin(ThreadCreate(SetVar, &setting, 0)), 1u);
        EXPECT_EQ(Destroyed(), expected);
    }
    static Setting detached{plain, 6};
    ThreadCreateDetached(SetVar, &detached, 0);
    Log log;
    EXPECT_TRUE(WaitFor([&] { return !(log = Destroyed()).empty(); }) && log == Log{"plain=6"});
    std::thread([] {
        EXPECT_NE(ThreadInit(), nullptr);
        ThreadVarSet(plain, (void *)9);
        EXPECT_EQ(Destroyed(), Log{});
        ThreadCleanup();
    }).join();
    EXPECT_EQ(Destroyed(), Log{"plain=9"});
}

}  // namespace
