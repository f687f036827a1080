// HashTable against std::unordered_map and tsl::robin_map: insertion of 1M
// fixed-size keys into an empty table (growth included), then lookup of
// all of them. HashDict against cmph's BDZ: building a minimal perfect hash
// of 1M strings (the system word list and generated keys), and looking all
// of them up in random order.
#include <cmph.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <string>
#include <unordered_map>
#include <vector>

#include <tsl/robin_map.h>

#include "compare.h"
#include "qk/qkcommon.h"

namespace {

constexpr UInt kKeys = 1000000;

ULong SplitMix(ULong &state) {
    ULong z = (state += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

// Keys of N 64-bit words, random and distinct.
template <size_t N>
using Key = std::array<ULong, N>;

template <size_t N>
const std::vector<Key<N>> &FixedKeys() {
    static std::vector<Key<N>> keys = [] {
        std::vector<Key<N>> k(kKeys);
        ULong state = 42 + N;
        for (auto &key : k) {
            for (ULong &word : key) word = SplitMix(state);
        }
        return k;
    }();
    return keys;
}

template <size_t N>
struct KeyHash {
    size_t operator()(const Key<N> &key) const {
        ULong h = 0;
        for (ULong word : key) h = (h ^ word) * 0x9E3779B97F4A7C15ull;
        return (size_t)(h ^ (h >> 29));
    }
};

// ---- HashTable ----

// Entries: a 4-byte value, the length, the key.
template <size_t N>
HashTable *QKFill(const std::vector<Key<N>> &keys) {
    HashTable *table = HashTableNew(16, NULL, NULL, NULL, 4, 1, 0);
    for (UInt i = 0; i < keys.size(); i++) {
        if (HashTableFull(table)) HashTableGrow(table, 2.0, NULL);
        HashTableFind(table, keys[i].data(), sizeof(Key<N>), &i, NULL, NULL);
    }
    return table;
}

template <size_t N>
void QKInsert(benchmark::State &state) {
    const auto &keys = FixedKeys<N>();
    for (auto _ : state) {
        HashTable *table = QKFill<N>(keys);
        benchmark::DoNotOptimize(table->t_data);
        HashTableFree(table);
    }
    state.SetItemsProcessed(state.iterations() * keys.size());
}

template <size_t N>
void QKFind(benchmark::State &state) {
    const auto &keys = FixedKeys<N>();
    HashTable *table = QKFill<N>(keys);
    for (auto _ : state) {
        ULong sum = 0;
        for (const Key<N> &key : keys) {
            void *entry = HashTableFind(table, key.data(), sizeof(Key<N>), NULL, NULL, NULL);
            UInt value;
            memcpy(&value, entry, 4);
            sum += value;
        }
        benchmark::DoNotOptimize(sum);
    }
    HashTableFree(table);
    state.SetItemsProcessed(state.iterations() * keys.size());
}

template <class Map, size_t N>
void MapInsert(benchmark::State &state) {
    const auto &keys = FixedKeys<N>();
    for (auto _ : state) {
        Map map;
        for (UInt i = 0; i < keys.size(); i++) map.emplace(keys[i], i);
        benchmark::DoNotOptimize(map.size());
    }
    state.SetItemsProcessed(state.iterations() * keys.size());
}

template <class Map, size_t N>
void MapFind(benchmark::State &state) {
    const auto &keys = FixedKeys<N>();
    Map map;
    for (UInt i = 0; i < keys.size(); i++) map.emplace(keys[i], i);
    for (auto _ : state) {
        ULong sum = 0;
        for (const Key<N> &key : keys) sum += map.find(key)->second;
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * keys.size());
}

template <size_t N>
using StdMap = std::unordered_map<Key<N>, UInt, KeyHash<N>>;
template <size_t N>
using RobinMap = tsl::robin_map<Key<N>, UInt, KeyHash<N>>;

// ---- HashDict ----

// The word list, then generated keys up to 1M, all distinct.
const std::vector<std::string> &StringKeys() {
    static std::vector<std::string> keys = [] {
        std::vector<std::string> k;
        std::ifstream words("/usr/share/dict/american-english");
        std::string line;
        while (k.size() < kKeys && std::getline(words, line)) {
            if (!line.empty()) k.push_back(line);
        }
        std::sort(k.begin(), k.end());
        k.erase(std::unique(k.begin(), k.end()), k.end());
        size_t base = k.size();
        ULong state = 7;
        for (UInt i = 0; k.size() < kKeys; i++) {
            // A word and a number: keys of the shapes found in indexes.
            std::string word = base ? k[SplitMix(state) % base] : std::string("key");
            k.push_back(word + "#" + std::to_string(i));
        }
        return k;
    }();
    return keys;
}

// The order of lookups, the same for both: random (`shuffled`), or that of
// the key set.
const std::vector<UInt> &LookupOrder(bool shuffled) {
    static std::vector<UInt> orders[2];
    std::vector<UInt> &o = orders[shuffled];
    if (o.empty()) {
        o.resize(StringKeys().size());
        for (UInt i = 0; i < o.size(); i++) o[i] = i;
        ULong state = 99;
        for (size_t i = o.size(); shuffled && i > 1; i--)
            std::swap(o[i - 1], o[SplitMix(state) % i]);
    }
    return o;
}

UInt GetStringKey(void *dict, UInt index, const void **bytes) {
    const std::string &key = (*(const std::vector<std::string> *)dict)[index];
    *bytes = key.data();
    return (UInt)key.size();
}

HashDict *QKDictBuild(UInt probe) {
    auto &keys = const_cast<std::vector<std::string> &>(StringKeys());
    return HashDictBuild((UInt)keys.size(), &keys, GetStringKey, NULL, 0, probe, 0);
}

struct Cmph {
    std::vector<char *> pointers;
    cmph_io_adapter_t *source = nullptr;
    cmph_t *hash = nullptr;

    Cmph() {
        for (const std::string &key : StringKeys()) pointers.push_back((char *)key.c_str());
        source = cmph_io_vector_adapter(pointers.data(), (cmph_uint32)pointers.size());
        cmph_config_t *config = cmph_config_new(source);
        cmph_config_set_algo(config, CMPH_BDZ);
        hash = cmph_new(config);
        cmph_config_destroy(config);
    }
    ~Cmph() {
        if (hash) cmph_destroy(hash);
        cmph_io_vector_adapter_destroy(source);
    }
};

void QKDictBuildBench(benchmark::State &state) {
    StringKeys();
    for (auto _ : state) {
        HashDict *hdict = QKDictBuild(0);
        if (!hdict) state.SkipWithError(QKErrorMessage());
        HashDictFree(hdict);
    }
    state.SetItemsProcessed(state.iterations() * StringKeys().size());
}

void CmphBuildBench(benchmark::State &state) {
    StringKeys();
    for (auto _ : state) {
        Cmph cmph;
        if (!cmph.hash) state.SkipWithError("cmph_new failed");
    }
    state.SetItemsProcessed(state.iterations() * StringKeys().size());
}

void QKDictFindBench(benchmark::State &state) {
    const auto &keys = StringKeys();
    const auto &order = LookupOrder(state.range(1));
    HashDict *hdict = QKDictBuild((UInt)state.range(0));
    for (auto _ : state) {
        Long sum = 0;
        for (UInt i : order) sum += HashDictFind(hdict, keys[i].data(), (UInt)keys[i].size());
        benchmark::DoNotOptimize(sum);
    }
    state.counters["bytes/key"] = (double)HashDictFileSize(hdict) / (double)keys.size();
    HashDictFree(hdict);
    state.SetItemsProcessed(state.iterations() * keys.size());
}

void CmphFindBench(benchmark::State &state) {
    const auto &keys = StringKeys();
    const auto &order = LookupOrder(state.range(1));
    Cmph cmph;
    for (auto _ : state) {
        ULong sum = 0;
        for (UInt i : order)
            sum += cmph_search(cmph.hash, keys[i].data(), (cmph_uint32)keys[i].size());
        benchmark::DoNotOptimize(sum);
    }
    state.counters["bytes/key"] = (double)cmph_packed_size(cmph.hash) / (double)keys.size();
    state.SetItemsProcessed(state.iterations() * keys.size());
}

template <size_t N>
void RegisterTables(const std::string &size) {
    using qkbench::Name;
    benchmark::RegisterBenchmark(Name("hash/insert-" + size, "qk").c_str(), QKInsert<N>)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(Name("hash/insert-" + size, "std::unordered_map").c_str(),
                                 MapInsert<StdMap<N>, N>)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(Name("hash/insert-" + size, "tsl::robin_map").c_str(),
                                 MapInsert<RobinMap<N>, N>)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(Name("hash/find-" + size, "qk").c_str(), QKFind<N>)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(Name("hash/find-" + size, "std::unordered_map").c_str(),
                                 MapFind<StdMap<N>, N>)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(Name("hash/find-" + size, "tsl::robin_map").c_str(),
                                 MapFind<RobinMap<N>, N>)
        ->Unit(benchmark::kMillisecond);
}

int registered = [] {
    using qkbench::Name;
    RegisterTables<1>("8B");
    RegisterTables<2>("16B");
    benchmark::RegisterBenchmark(Name("hdict/build-1M", "qk").c_str(), QKDictBuildBench)
        ->Unit(benchmark::kMillisecond)
        ->Iterations(3);
    benchmark::RegisterBenchmark(Name("hdict/build-1M", "cmph BDZ").c_str(), CmphBuildBench)
        ->Unit(benchmark::kMillisecond)
        ->Iterations(3);
    // Lookups without probe bytes, as cmph has none, in random order and in
    // the order of the keys (arguments: probe bytes, shuffled); and with
    // two probe bytes.
    benchmark::RegisterBenchmark(Name("hdict/find-1M", "qk").c_str(), QKDictFindBench)
        ->Args({0, 1})
        ->Args({0, 0})
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(Name("hdict/find-1M", "cmph BDZ").c_str(), CmphFindBench)
        ->Args({0, 1})
        ->Args({0, 0})
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(Name("hdict/find-1M-probes", "qk").c_str(), QKDictFindBench)
        ->Args({2, 1})
        ->Unit(benchmark::kMillisecond);
    return 0;
}();

}  // namespace
