// PICTree: finds in leaf buffers of about 4 KiB against a
// std::map<std::u32string, ULong> per buffer holding the same keys. Each of
// 64 buffers is filled with random keys of 1 to 6 lower-case letters (one
// atom each) until the next insert would reach the leaf limit of 4090
// bytes; 200,000 lookups of keys that are there go over the buffers in
// random order.
#include <stdlib.h>

#include <map>
#include <random>
#include <string>
#include <vector>

#include "compare.h"
#include "qk/qkcommon.h"

namespace {

constexpr UInt kLeaves = 64;
constexpr UInt kQueries = 200000;

struct Leaf {
    std::vector<UByte> bytes;
    std::map<std::u32string, ULong> map;
    std::vector<std::u32string> keys;
};

struct Query {
    const Leaf *leaf;
    const std::u32string *key;
};

struct Fixture {
    std::vector<Leaf> leaves;
    std::vector<Query> queries;
};

ULong Find(const Leaf &leaf, const std::u32string &key) {
    return PICTreeFind(nullptr, leaf.bytes.data(), (UInt)leaf.bytes.size(), nullptr, nullptr,
                       nullptr, nullptr, (const UInt *)key.data(), (UInt)key.size(), 0, nullptr,
                       nullptr, 0, 0, 0, nullptr, nullptr, nullptr, OLDGEN);
}

void Fill(Leaf &leaf, PICTreeThreadData *td, std::mt19937 &rng) {
    for (;;) {
        std::u32string key(rng() % 6 + 1, U'a');
        for (char32_t &c : key) c = U'a' + rng() % 26;
        ULong data = rng() | 1;
        int rewrite;
        UByte *out;
        UInt length;
        PICTreeFind(nullptr, leaf.bytes.data(), (UInt)leaf.bytes.size(), td, &rewrite, &out,
                    &length, (const UInt *)key.data(), (UInt)key.size(), data, nullptr, nullptr, 1,
                    0, 0, nullptr, nullptr, nullptr, NEWGEN);
        if (!rewrite) continue;  // there already
        if (length >= PICTREE_LENGTH_LIMIT) return;
        leaf.bytes.assign(out, out + length);
        leaf.map[key] = data;
        leaf.keys.push_back(key);
    }
}

Fixture &Data() {
    static Fixture *f = [] {
        auto *f = new Fixture;
        std::mt19937 rng(16);
        PICTreeThreadData *td = PICTreeThreadDataNew();
        f->leaves.resize(kLeaves);
        for (Leaf &leaf : f->leaves) {
            Fill(leaf, td, rng);
            for (const auto &[key, data] : leaf.map)
                if (Find(leaf, key) != data) abort();
        }
        PICTreeThreadDataFree(td);
        for (UInt i = 0; i < kQueries; i++) {
            const Leaf &leaf = f->leaves[rng() % kLeaves];
            f->queries.push_back({&leaf, &leaf.keys[rng() % leaf.keys.size()]});
        }
        return f;
    }();
    return *f;
}

template <typename Lookup>
void Lookups(benchmark::State &state, Lookup lookup) {
    Fixture &f = Data();
    for (auto _ : state) {
        ULong sum = 0;
        for (const Query &q : f.queries) sum += lookup(*q.leaf, *q.key);
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed((int64_t)state.iterations() * kQueries);
    double keys = 0, bytes = 0;
    for (const Leaf &leaf : f.leaves) keys += leaf.keys.size(), bytes += leaf.bytes.size();
    state.counters["keys/leaf"] = keys / kLeaves;
    state.counters["bytes/leaf"] = bytes / kLeaves;
}

int registered = [] {
    using qkbench::Name;
    benchmark::RegisterBenchmark(Name("pictree/find-4KiB-leaf", "qk").c_str(),
                                 [](benchmark::State &s) { Lookups(s, Find); })
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(Name("pictree/find-4KiB-leaf", "std::map<u32string>").c_str(),
                                 [](benchmark::State &s) {
                                     Lookups(s, [](const Leaf &leaf, const std::u32string &key) {
                                         return leaf.map.find(key)->second;
                                     });
                                 })
        ->Unit(benchmark::kMillisecond);
    return 0;
}();

}  // namespace
