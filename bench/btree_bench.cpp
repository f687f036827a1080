// B-trees: 10 million random 64-bit keys with 8-byte values inserted with a
// commit every 100,000; 1 million point lookups of present keys in the
// committed image; 10,000 range scans of 100 keys from a random present
// key; and the reopening of the 10M-key store read-only followed by one
// lookup. The peer is LMDB with native 8-byte integer keys
// (MDB_INTEGERKEY), a transaction per 100,000 puts, mdb_get, and a cursor
// placed with MDB_SET_RANGE and stepped 99 times.
#include <random>
#include <vector>

#include "bench_disk.h"
#include "compare.h"

namespace {

using namespace qkbench;

constexpr UInt kCount = 10000000;
constexpr UInt kCommitEvery = 100000;
constexpr UInt kLookups = 1000000;
constexpr UInt kScans = 10000;
constexpr UInt kScanLength = 100;

struct Keys {
    std::vector<ULong> inserted;  // in insertion order
    std::vector<ULong> lookups;
};

const Keys &TheKeys() {
    static const Keys *k = [] {
        auto *k = new Keys;
        std::mt19937_64 rng(26);
        for (UInt i = 0; i < kCount; i++) k->inserted.push_back(rng() >> 1);
        for (UInt i = 0; i < kLookups; i++) k->lookups.push_back(k->inserted[rng() % kCount]);
        return k;
    }();
    return *k;
}

struct TreeSide {
    std::string dir;
    VMArena *arena = nullptr;
    BTree *tree = nullptr;
};

void OpenTree(TreeSide &side, UInt flags) {
    side.arena = VMArenaOpen(side.dir.c_str(), flags | VM_FLAG_MAPPED, 1, STATUS_NO_SERIAL,
                             STATUS_NO_SERIAL, nullptr, nullptr);
    char path[VMARENA_PATH_SIZE] = "";
    int create = !(flags & VM_FLAG_READ_ONLY);
    side.tree = side.arena ? BTreeNew(side.arena, path, "bench", &create, 0, 8, 8) : nullptr;
    if (side.tree == nullptr) abort();
}

void CloseTree(TreeSide &side) {
    BTreeFree(side.tree);
    VMArenaClose(side.arena);
}

void Fill(TreeSide &side) {
    const Keys &k = TheKeys();
    for (UInt i = 0; i < kCount; i++) {
        BTreeFind(side.tree, k.inserted[i], i, 0, 1, 0, 0, NEWGEN);
        if ((i + 1) % kCommitEvery == 0) {
            if (!VMArenaCommit(side.arena, nullptr, nullptr)) abort();
            BTreeCommit(side.tree);
        }
    }
}

void Fill(LmdbSide &side) {
    const Keys &k = TheKeys();
    MDB_txn *txn = nullptr;
    for (UInt i = 0; i < kCount; i++) {
        if (txn == nullptr) LMDB_CHECK(mdb_txn_begin(side.env, nullptr, 0, &txn));
        ULong key = k.inserted[i], value = i;
        MDB_val kv = {sizeof key, &key}, d = {sizeof value, &value};
        LMDB_CHECK(mdb_put(txn, side.dbi, &kv, &d, 0));
        if ((i + 1) % kCommitEvery == 0) {
            LMDB_CHECK(mdb_txn_commit(txn));
            txn = nullptr;
        }
    }
}

// Filled once by the insertion benchmarks and kept for the others.
struct Stores {
    TreeSide tree;
    LmdbSide lmdb;
    bool treeFilled = false, lmdbFilled = false;
};

Stores &TheStores() {
    static Stores *s = [] {
        auto *s = new Stores;
        s->tree.dir = DiskDir("btree");
        RemoveDir(s->tree.dir);
        s->lmdb = OpenLmdb("btree_lmdb");
        atexit([] {
            CloseTree(TheStores().tree);
            RemoveDir(TheStores().tree.dir);
            CloseLmdb(TheStores().lmdb);
        });
        return s;
    }();
    return *s;
}

void InsertTree(benchmark::State &state) {
    TheKeys();
    Stores &s = TheStores();
    for (auto _ : state) {
        OpenTree(s.tree, VM_FLAG_CREATE);
        Fill(s.tree);
    }
    s.treeFilled = true;
    state.SetItemsProcessed((int64_t)state.iterations() * kCount);
}

void InsertLmdb(benchmark::State &state) {
    TheKeys();
    Stores &s = TheStores();
    for (auto _ : state) Fill(s.lmdb);
    s.lmdbFilled = true;
    state.SetItemsProcessed((int64_t)state.iterations() * kCount);
}

void LookupTree(benchmark::State &state) {
    Stores &s = TheStores();
    if (!s.treeFilled) return state.SkipWithError("the insertion runs first");
    VMArenaOldGenAcquire(s.tree.arena);
    for (auto _ : state) {
        ULong sum = 0;
        for (ULong key : TheKeys().lookups)
            sum += BTreeFind(s.tree.tree, key, 0, 0, 0, 0, 0, OLDGEN);
        benchmark::DoNotOptimize(sum);
    }
    VMArenaOldGenRelease(s.tree.arena);
    state.SetItemsProcessed((int64_t)state.iterations() * kLookups);
}

void LookupLmdb(benchmark::State &state) {
    Stores &s = TheStores();
    if (!s.lmdbFilled) return state.SkipWithError("the insertion runs first");
    MDB_txn *txn;
    LMDB_CHECK(mdb_txn_begin(s.lmdb.env, nullptr, MDB_RDONLY, &txn));
    for (auto _ : state) {
        ULong sum = 0;
        for (ULong key : TheKeys().lookups) {
            MDB_val k = {sizeof key, &key}, d;
            LMDB_CHECK(mdb_get(txn, s.lmdb.dbi, &k, &d));
            sum += *(const ULong *)d.mv_data;
        }
        benchmark::DoNotOptimize(sum);
    }
    mdb_txn_abort(txn);
    state.SetItemsProcessed((int64_t)state.iterations() * kLookups);
}

// Each scan: the start key and the 99 keys above it, summing the values.
void ScanTree(benchmark::State &state) {
    Stores &s = TheStores();
    if (!s.treeFilled) return state.SkipWithError("the insertion runs first");
    VMArenaOldGenAcquire(s.tree.arena);
    for (auto _ : state) {
        ULong sum = 0;
        for (UInt i = 0; i < kScans; i++) {
            ULong key = TheKeys().lookups[i], value;
            sum += BTreeFind(s.tree.tree, key, 0, 0, 0, 0, 0, OLDGEN);
            for (UInt n = 1; n < kScanLength && key != BTREE_NO_KEY; n++) {
                key = BTreeNextKey(s.tree.tree, key, &value, OLDGEN);
                sum += value;
            }
        }
        benchmark::DoNotOptimize(sum);
    }
    VMArenaOldGenRelease(s.tree.arena);
    state.SetItemsProcessed((int64_t)state.iterations() * kScans * kScanLength);
}

void ScanLmdb(benchmark::State &state) {
    Stores &s = TheStores();
    if (!s.lmdbFilled) return state.SkipWithError("the insertion runs first");
    MDB_txn *txn;
    MDB_cursor *cursor;
    LMDB_CHECK(mdb_txn_begin(s.lmdb.env, nullptr, MDB_RDONLY, &txn));
    LMDB_CHECK(mdb_cursor_open(txn, s.lmdb.dbi, &cursor));
    for (auto _ : state) {
        ULong sum = 0;
        for (UInt i = 0; i < kScans; i++) {
            ULong key = TheKeys().lookups[i];
            MDB_val k = {sizeof key, &key}, d;
            int rc = mdb_cursor_get(cursor, &k, &d, MDB_SET_RANGE);
            for (UInt n = 0; n < kScanLength && rc == MDB_SUCCESS; n++) {
                sum += *(const ULong *)d.mv_data;
                rc = mdb_cursor_get(cursor, &k, &d, MDB_NEXT);
            }
        }
        benchmark::DoNotOptimize(sum);
    }
    mdb_cursor_close(cursor);
    mdb_txn_abort(txn);
    state.SetItemsProcessed((int64_t)state.iterations() * kScans * kScanLength);
}

// The committed 10M-key store opened read-only, one key looked up, closed.
void ReopenTree(benchmark::State &state) {
    Stores &s = TheStores();
    if (!s.treeFilled) return state.SkipWithError("the insertion runs first");
    for (auto _ : state) {
        TreeSide reader{s.tree.dir};
        OpenTree(reader, VM_FLAG_READ_ONLY);
        benchmark::DoNotOptimize(
            BTreeFind(reader.tree, TheKeys().lookups[0], 0, 0, 0, 0, 0, OLDGEN));
        CloseTree(reader);
    }
}

void ReopenLmdb(benchmark::State &state) {
    Stores &s = TheStores();
    if (!s.lmdbFilled) return state.SkipWithError("the insertion runs first");
    for (auto _ : state) {
        MDB_env *env;
        MDB_txn *txn;
        MDB_dbi dbi;
        LMDB_CHECK(mdb_env_create(&env));
        LMDB_CHECK(mdb_env_set_mapsize(env, (size_t)4 << 30));
        LMDB_CHECK(mdb_env_open(env, s.lmdb.dir.c_str(), MDB_RDONLY | MDB_NOLOCK, 0600));
        LMDB_CHECK(mdb_txn_begin(env, nullptr, MDB_RDONLY, &txn));
        LMDB_CHECK(mdb_dbi_open(txn, nullptr, MDB_INTEGERKEY, &dbi));
        ULong key = TheKeys().lookups[0];
        MDB_val k = {sizeof key, &key}, d;
        LMDB_CHECK(mdb_get(txn, dbi, &k, &d));
        mdb_txn_abort(txn);
        mdb_env_close(env);
    }
}

int registered = [] {
    auto once = [](benchmark::internal::Benchmark *b) {
        b->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
    };
    once(benchmark::RegisterBenchmark(Name("btree/insert-10M-u64", "qk").c_str(), InsertTree));
    once(benchmark::RegisterBenchmark(Name("btree/insert-10M-u64", "lmdb").c_str(), InsertLmdb));
    for (auto *b : {
             benchmark::RegisterBenchmark(Name("btree/lookup-1M", "qk").c_str(), LookupTree),
             benchmark::RegisterBenchmark(Name("btree/lookup-1M", "lmdb").c_str(), LookupLmdb),
             benchmark::RegisterBenchmark(Name("btree/scan-10k-x100", "qk").c_str(), ScanTree),
             benchmark::RegisterBenchmark(Name("btree/scan-10k-x100", "lmdb").c_str(), ScanLmdb),
         })
        b->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(Name("btree/reopen-read-only-10M", "qk").c_str(), ReopenTree)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark(Name("btree/reopen-read-only-10M", "lmdb").c_str(), ReopenLmdb)
        ->Unit(benchmark::kMicrosecond);
    return 0;
}();

}  // namespace
