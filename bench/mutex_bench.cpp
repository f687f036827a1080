// Mutex against std::recursive_mutex, uncontended and with two threads.
#include <mutex>

#include "compare.h"
#include "qk/qkcommon.h"

namespace {

Mutex qkMutex = MUTEX_INITIALIZER;
std::recursive_mutex stdMutex;
volatile ULong counter = 0;

void QKLockUnlock(benchmark::State &state) {
    for (auto _ : state) {
        MutexLock(&qkMutex);
        counter = counter + 1;
        MutexUnlock(&qkMutex);
    }
}

void StdLockUnlock(benchmark::State &state) {
    for (auto _ : state) {
        stdMutex.lock();
        counter = counter + 1;
        stdMutex.unlock();
    }
}

int registered = [] {
    benchmark::RegisterBenchmark(qkbench::Name("mutex/uncontended", "qk").c_str(), QKLockUnlock);
    benchmark::RegisterBenchmark(qkbench::Name("mutex/uncontended", "std::recursive_mutex").c_str(),
                                 StdLockUnlock);
    benchmark::RegisterBenchmark(qkbench::Name("mutex/contended", "qk").c_str(), QKLockUnlock)
        ->Threads(2)
        ->UseRealTime();
    benchmark::RegisterBenchmark(qkbench::Name("mutex/contended", "std::recursive_mutex").c_str(),
                                 StdLockUnlock)
        ->Threads(2)
        ->UseRealTime();
    return 0;
}();

}  // namespace
