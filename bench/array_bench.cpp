// Appending to an Array against std::vector::push_back.
#include <vector>

#include "compare.h"
#include "qk/qkcommon.h"

namespace {

constexpr UInt kAppends = 1000000;

void QKAppend(benchmark::State &state) {
    for (auto _ : state) {
        UIntArray a = {};
        for (UInt i = 0; i < kAppends; i++) ArrayAdd(a, i);
        benchmark::DoNotOptimize(a.data);
        ArrayFree(a);
    }
    state.SetItemsProcessed(state.iterations() * kAppends);
}

void VectorAppend(benchmark::State &state) {
    for (auto _ : state) {
        std::vector<UInt> v;
        for (UInt i = 0; i < kAppends; i++) v.push_back(i);
        benchmark::DoNotOptimize(v.data());
    }
    state.SetItemsProcessed(state.iterations() * kAppends);
}

// Appending into an array emptied by length, which keeps its memory: the
// cost of the append itself, without growth.
void QKAppendReused(benchmark::State &state) {
    UIntArray a = {};
    for (auto _ : state) {
        ArrayClear(a);
        for (UInt i = 0; i < kAppends; i++) ArrayAdd(a, i);
        benchmark::DoNotOptimize(a.data);
    }
    ArrayFree(a);
    state.SetItemsProcessed(state.iterations() * kAppends);
}

void VectorAppendReused(benchmark::State &state) {
    std::vector<UInt> v;
    for (auto _ : state) {
        v.clear();
        for (UInt i = 0; i < kAppends; i++) v.push_back(i);
        benchmark::DoNotOptimize(v.data());
    }
    state.SetItemsProcessed(state.iterations() * kAppends);
}

int registered = [] {
    benchmark::RegisterBenchmark(qkbench::Name("array/append", "qk").c_str(), QKAppend)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark(qkbench::Name("array/append", "std::vector").c_str(), VectorAppend)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark(qkbench::Name("array/append-reused", "qk").c_str(), QKAppendReused)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark(qkbench::Name("array/append-reused", "std::vector").c_str(),
                                 VectorAppendReused)
        ->Unit(benchmark::kMicrosecond);
    return 0;
}();

}  // namespace
