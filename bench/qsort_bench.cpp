// QSort against the C library's qsort and std::sort, on random, sorted and
// all-equal input, for elements of 4, 8 and 24 bytes.
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <random>
#include <vector>

#include "compare.h"
#include "qk/qkcommon.h"

namespace {

constexpr size_t kCount = 200000;

struct Wide {
    ULong key;
    ULong payload[2];
};
static_assert(sizeof(Wide) == 24);

template <typename T>
ULong KeyOf(const T &v) {
    if constexpr (sizeof(T) == 24) {
        return v.key;
    } else {
        return (ULong)v;
    }
}

template <typename T>
T Make(ULong key) {
    if constexpr (sizeof(T) == 24) {
        return Wide{key, {key, ~key}};
    } else {
        return (T)key;
    }
}

template <typename T>
int CompareQK(const void *a, const void *b, void *) {
    ULong x = KeyOf(*(const T *)a), y = KeyOf(*(const T *)b);
    return x < y ? -1 : x > y;
}

template <typename T>
int CompareC(const void *a, const void *b) {
    ULong x = KeyOf(*(const T *)a), y = KeyOf(*(const T *)b);
    return x < y ? -1 : x > y;
}

enum class Shape { Random, Sorted, Equal };

template <typename T>
std::vector<T> Input(Shape shape) {
    std::vector<T> v(kCount);
    std::mt19937_64 random(42);
    for (size_t i = 0; i < kCount; i++) {
        ULong key = shape == Shape::Random   ? random() % (kCount * 4)
                    : shape == Shape::Sorted ? i
                                             : 7;
        v[i] = Make<T>(key);
    }
    return v;
}

template <typename T, int Implementation>
void Sort(benchmark::State &state, Shape shape) {
    const std::vector<T> input = Input<T>(shape);
    std::vector<T> work(kCount);
    for (auto _ : state) {
        memcpy(work.data(), input.data(), kCount * sizeof(T));
        if constexpr (Implementation == 0) {
            QSort(work.data(), (UInt)kCount, sizeof(T), CompareQK<T>, nullptr);
        } else if constexpr (Implementation == 1) {
            qsort(work.data(), kCount, sizeof(T), CompareC<T>);
        } else {
            std::sort(work.begin(), work.end(),
                      [](const T &a, const T &b) { return KeyOf(a) < KeyOf(b); });
        }
        benchmark::DoNotOptimize(work.data());
    }
    state.SetItemsProcessed(state.iterations() * kCount);
}

template <typename T>
void RegisterSize(const char *size) {
    const struct {
        const char *name;
        Shape shape;
    } shapes[] = {{"random", Shape::Random}, {"sorted", Shape::Sorted}, {"equal", Shape::Equal}};
    for (const auto &s : shapes) {
        std::string group = std::string("sort/") + s.name + "/elt" + size;
        Shape shape = s.shape;
        benchmark::RegisterBenchmark(qkbench::Name(group, "qk").c_str(), [shape](
                                                                             benchmark::State &st) {
            Sort<T, 0>(st, shape);
        })->Unit(benchmark::kMicrosecond);
        benchmark::RegisterBenchmark(qkbench::Name(group, "qsort").c_str(),
                                     [shape](benchmark::State &st) { Sort<T, 1>(st, shape); })
            ->Unit(benchmark::kMicrosecond);
        benchmark::RegisterBenchmark(qkbench::Name(group, "std::sort").c_str(),
                                     [shape](benchmark::State &st) { Sort<T, 2>(st, shape); })
            ->Unit(benchmark::kMicrosecond);
    }
}

int registered = [] {
    RegisterSize<UInt>("4");
    RegisterSize<ULong>("8");
    RegisterSize<Wide>("24");
    return 0;
}();

}  // namespace
