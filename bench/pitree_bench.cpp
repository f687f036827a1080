// PITree: 1 million URL-like keys (1,000 hosts, paths of one to four words,
// some with a query string), one byte per atom. Inserted in random order
// with a commit every 100,000; looked up at random in the committed image;
// and enumerated below a host's prefix, for 1,000 hosts. The peer is LMDB
// with the URL as its key: mdb_put, mdb_get, and a cursor placed with
// MDB_SET_RANGE on the prefix and stepped while the keys start with it.
#include <string.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "bench_disk.h"
#include "compare.h"

namespace {

using namespace qkbench;

constexpr UInt kCount = 1000000;
constexpr UInt kHosts = 1000;
constexpr UInt kCommitEvery = 100000;

struct Urls {
    std::vector<std::string> keys;     // in insertion order
    std::vector<std::string> lookups;  // keys in another random order
    std::vector<std::string> prefixes;
};

const Urls &TheUrls() {
    static const Urls *u = [] {
        auto *u = new Urls;
        std::mt19937 rng(25);
        const char *words[] = {"news", "sport", "index",  "a",    "products", "2024",
                               "img",  "about", "search", "list", "item",     "page",
                               "view", "docs",  "en",     "fr"};
        const char *tlds[] = {".com", ".org", ".net", ".fr", ".de"};
        std::vector<std::string> hosts;
        for (UInt h = 0; h < kHosts; h++)
            hosts.push_back("http://www.site" + std::to_string(h * 7) + tlds[h % 5] + "/");
        while (u->keys.size() < kCount) {
            std::string url = hosts[rng() % kHosts];
            for (UInt d = 0, depth = 1 + rng() % 4; d < depth; d++)
                url += std::string(words[rng() % 16]) + (d + 1 < depth ? "/" : "");
            url += std::to_string(rng() % 1000);
            if (rng() % 4 == 0) url += "?id=" + std::to_string(rng() % 100000);
            u->keys.push_back(url);
        }
        std::sort(u->keys.begin(), u->keys.end());
        u->keys.erase(std::unique(u->keys.begin(), u->keys.end()), u->keys.end());
        std::shuffle(u->keys.begin(), u->keys.end(), rng);
        u->lookups = u->keys;
        std::shuffle(u->lookups.begin(), u->lookups.end(), rng);
        for (UInt h = 0; h < kHosts; h++) u->prefixes.push_back(hosts[(h * 37) % kHosts]);
        return u;
    }();
    return *u;
}

struct TreeSide {
    std::string dir;
    VMArena *arena;
    PITree *tree;
    PITreeThreadData *td;
    std::vector<UInt> atoms;

    const UInt *Atoms(const std::string &s) {
        atoms.assign(s.begin(), s.end());
        return atoms.data();
    }
};

TreeSide OpenTree(const std::string &what) {
    TreeSide side;
    side.dir = DiskDir("pitree_" + what);
    RemoveDir(side.dir);
    side.arena = VMArenaOpen(side.dir.c_str(), VM_FLAG_CREATE | VM_FLAG_MAPPED, 1, STATUS_NO_SERIAL,
                             STATUS_NO_SERIAL, nullptr, nullptr);
    char path[VMARENA_PATH_SIZE] = "";
    int create = 1;
    side.tree = side.arena ? PITreeNew(side.arena, path, "bench", &create, 1) : nullptr;
    side.td = PITreeThreadDataNew();
    if (side.tree == nullptr) abort();
    return side;
}

void CloseTree(TreeSide &side) {
    PITreeThreadDataFree(side.td);
    PITreeFree(side.tree);
    VMArenaClose(side.arena);
    RemoveDir(side.dir);
}

void Insert(TreeSide &side) {
    const Urls &u = TheUrls();
    for (UInt i = 0; i < u.keys.size(); i++) {
        const std::string &k = u.keys[i];
        PITreeFind(side.tree, side.td, side.Atoms(k), (UInt)k.size(), i + 1, NEWGEN, 1, 0, 0);
        if ((i + 1) % kCommitEvery == 0 || i + 1 == u.keys.size()) {
            if (!VMArenaCommit(side.arena, nullptr, nullptr)) abort();
            PITreeCommit(side.tree);
        }
    }
}

void Insert(LmdbSide &side) {
    const Urls &u = TheUrls();
    MDB_txn *txn = nullptr;
    for (UInt i = 0; i < u.keys.size(); i++) {
        if (txn == nullptr) LMDB_CHECK(mdb_txn_begin(side.env, nullptr, 0, &txn));
        UInt value = i + 1;
        MDB_val k = {u.keys[i].size(), (void *)u.keys[i].data()}, d = {sizeof value, &value};
        LMDB_CHECK(mdb_put(txn, side.dbi, &k, &d, 0));
        if ((i + 1) % kCommitEvery == 0 || i + 1 == u.keys.size()) {
            LMDB_CHECK(mdb_txn_commit(txn));
            txn = nullptr;
        }
    }
}

// LMDB with byte-string keys in memcmp order.
LmdbSide OpenUrlLmdb(const std::string &what) {
    return OpenLmdb("pitree_lmdb_" + what, 0);
}

template <typename Side, typename Open, typename Close>
void InsertRun(benchmark::State &state, Open open, Close close) {
    TheUrls();  // made before the clock runs
    for (auto _ : state) {
        state.PauseTiming();
        Side side = open("insert");
        state.ResumeTiming();
        Insert(side);
        state.PauseTiming();
        close(side);
        state.ResumeTiming();
    }
    state.SetItemsProcessed((int64_t)state.iterations() * TheUrls().keys.size());
}

struct ReadFixture {
    TreeSide tree;
    LmdbSide lmdb;
};

ReadFixture &Fixture() {
    static ReadFixture *f = [] {
        auto *f = new ReadFixture{OpenTree("read"), OpenUrlLmdb("read")};
        Insert(f->tree);
        Insert(f->lmdb);
        atexit([] {
            CloseTree(Fixture().tree);
            CloseLmdb(Fixture().lmdb);
        });
        return f;
    }();
    return *f;
}

void LookupTree(benchmark::State &state) {
    ReadFixture &f = Fixture();
    VMArenaOldGenAcquire(f.tree.arena);
    for (auto _ : state) {
        ULong sum = 0;
        for (const std::string &k : TheUrls().lookups)
            sum += PITreeFind(f.tree.tree, f.tree.td, f.tree.Atoms(k), (UInt)k.size(), 0, OLDGEN, 0,
                              0, 0);
        if (sum == 0) abort();
        benchmark::DoNotOptimize(sum);
    }
    VMArenaOldGenRelease(f.tree.arena);
    state.SetItemsProcessed((int64_t)state.iterations() * TheUrls().lookups.size());
}

void LookupLmdb(benchmark::State &state) {
    ReadFixture &f = Fixture();
    MDB_txn *txn;
    LMDB_CHECK(mdb_txn_begin(f.lmdb.env, nullptr, MDB_RDONLY, &txn));
    for (auto _ : state) {
        ULong sum = 0;
        for (const std::string &k : TheUrls().lookups) {
            MDB_val key = {k.size(), (void *)k.data()}, d;
            LMDB_CHECK(mdb_get(txn, f.lmdb.dbi, &key, &d));
            sum += *(const UInt *)d.mv_data;
        }
        benchmark::DoNotOptimize(sum);
    }
    mdb_txn_abort(txn);
    state.SetItemsProcessed((int64_t)state.iterations() * TheUrls().lookups.size());
}

void PrefixTree(benchmark::State &state) {
    ReadFixture &f = Fixture();
    PITreeEnumeration *e = PITreeEnumerationNew();
    ULong found = 0;
    VMArenaOldGenAcquire(f.tree.arena);
    for (auto _ : state) {
        for (const std::string &p : TheUrls().prefixes) {
            PITreeEnumerationInit(f.tree.tree, e, f.tree.Atoms(p), (UInt)p.size(), -1, OLDGEN, 0,
                                  0);
            ULong data;
            while (PITreeEnumerationGetNext(e, nullptr, nullptr, &data)) found += data != 0;
        }
    }
    VMArenaOldGenRelease(f.tree.arena);
    PITreeEnumerationFree(e);
    state.SetItemsProcessed((int64_t)found);
}

void PrefixLmdb(benchmark::State &state) {
    ReadFixture &f = Fixture();
    MDB_txn *txn;
    MDB_cursor *cursor;
    LMDB_CHECK(mdb_txn_begin(f.lmdb.env, nullptr, MDB_RDONLY, &txn));
    LMDB_CHECK(mdb_cursor_open(txn, f.lmdb.dbi, &cursor));
    ULong found = 0;
    for (auto _ : state) {
        for (const std::string &p : TheUrls().prefixes) {
            MDB_val key = {p.size(), (void *)p.data()}, d;
            for (int rc = mdb_cursor_get(cursor, &key, &d, MDB_SET_RANGE);
                 rc == MDB_SUCCESS && key.mv_size >= p.size() &&
                 memcmp(key.mv_data, p.data(), p.size()) == 0;
                 rc = mdb_cursor_get(cursor, &key, &d, MDB_NEXT))
                found++;
        }
    }
    mdb_cursor_close(cursor);
    mdb_txn_abort(txn);
    state.SetItemsProcessed((int64_t)found);
}

int registered = [] {
    auto slow = [](benchmark::internal::Benchmark *b) {
        b->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
    };
    slow(benchmark::RegisterBenchmark(
        Name("pitree/insert-1M-urls", "qk").c_str(),
        [](benchmark::State &s) { InsertRun<TreeSide>(s, OpenTree, CloseTree); }));
    slow(benchmark::RegisterBenchmark(
        Name("pitree/insert-1M-urls", "lmdb").c_str(),
        [](benchmark::State &s) { InsertRun<LmdbSide>(s, OpenUrlLmdb, CloseLmdb); }));
    for (auto *b :
         {benchmark::RegisterBenchmark(Name("pitree/lookup-1M-urls", "qk").c_str(), LookupTree),
          benchmark::RegisterBenchmark(Name("pitree/lookup-1M-urls", "lmdb").c_str(), LookupLmdb),
          benchmark::RegisterBenchmark(Name("pitree/prefix-1000-hosts", "qk").c_str(), PrefixTree),
          benchmark::RegisterBenchmark(Name("pitree/prefix-1000-hosts", "lmdb").c_str(),
                                       PrefixLmdb)})
        b->Unit(benchmark::kMillisecond);
    return 0;
}();

}  // namespace
