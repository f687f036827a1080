// Database arrays: 1 million strings of 10 to 200 bytes added, then as many
// random rewrites with new lengths, both committing every 100,000, then
// random reads of the committed image. The peer is LMDB with the element's
// number as a native integer key. Ours spreads the strings over 64 buckets,
// as the trees do: element i is handle i / 64 of bucket i % 64.
#include <random>
#include <string>
#include <vector>

#include "bench_disk.h"
#include "compare.h"

namespace {

using namespace qkbench;

constexpr UInt kCount = 1000000;
constexpr UInt kBuckets = 64;
constexpr UInt kCommitEvery = 100000;

// The operations of a run: lengths of the strings added, then the
// rewrites (element, new length), then the elements read.
struct Work {
    std::string bytes;  // strings are cut from here
    std::vector<UInt> lengths;
    std::vector<std::pair<UInt, UInt>> updates;
    std::vector<UInt> reads;
};

const Work &TheWork() {
    static const Work *w = [] {
        auto *w = new Work;
        std::mt19937 rng(16);
        for (int i = 0; i < 4096; i++) w->bytes += (char)('a' + rng() % 26);
        for (UInt i = 0; i < kCount; i++) {
            w->lengths.push_back(10 + rng() % 191);
            w->updates.push_back({(UInt)(rng() % kCount), 10 + (UInt)(rng() % 191)});
            w->reads.push_back(rng() % kCount);
        }
        return w;
    }();
    return *w;
}

const char *Bytes(UInt i) {
    return TheWork().bytes.data() + i % 3800;
}

struct DBSide {
    std::string dir;
    VMArena *arena;
    DBArray *array;
};

DBSide OpenDB(const std::string &what) {
    DBSide side;
    side.dir = DiskDir("dbarray_" + what);
    RemoveDir(side.dir);
    side.arena = VMArenaOpen(side.dir.c_str(), VM_FLAG_CREATE | VM_FLAG_MAPPED, 1, STATUS_NO_SERIAL,
                             STATUS_NO_SERIAL, nullptr, nullptr);
    char path[VMARENA_PATH_SIZE] = "";
    int create = 1;
    side.array = side.arena ? DBArrayNew(side.arena, path, "bench", &create, 1, kBuckets) : nullptr;
    if (side.array == nullptr) abort();
    DBArraySetCompact(side.array, 0);
    return side;
}

void CloseDB(DBSide &side) {
    DBArrayFree(side.array);
    VMArenaClose(side.arena);
    RemoveDir(side.dir);
}

void Commit(DBSide &side) {
    if (!VMArenaCommit(side.arena, nullptr, nullptr)) abort();
    DBArrayCommit(side.array);
}

void Insert(DBSide &side) {
    const Work &w = TheWork();
    for (UInt i = 0; i < kCount; i++) {
        if (DBArrayAdd(side.array, i % kBuckets, Bytes(i), w.lengths[i], NEWGEN) ==
            DBARRAY_NO_HANDLE)
            abort();
        if ((i + 1) % kCommitEvery == 0) Commit(side);
    }
}

void Update(DBSide &side) {
    const Work &w = TheWork();
    for (UInt i = 0; i < kCount; i++) {
        auto [e, length] = w.updates[i];
        if (!DBArraySet(side.array, e % kBuckets, e / kBuckets, NEWGEN, Bytes(i), length)) abort();
        if ((i + 1) % kCommitEvery == 0) Commit(side);
    }
}

void Put(LmdbSide &side, UInt key, const char *bytes, UInt length, MDB_txn **txn, UInt i,
         UInt flags) {
    if (*txn == nullptr) LMDB_CHECK(mdb_txn_begin(side.env, nullptr, 0, txn));
    MDB_val k = {sizeof key, &key}, d = {length, (void *)bytes};
    LMDB_CHECK(mdb_put(*txn, side.dbi, &k, &d, flags));
    if ((i + 1) % kCommitEvery == 0) {
        LMDB_CHECK(mdb_txn_commit(*txn));
        *txn = nullptr;
    }
}

void Insert(LmdbSide &side) {
    MDB_txn *txn = nullptr;
    for (UInt i = 0; i < kCount; i++)
        Put(side, i, Bytes(i), TheWork().lengths[i], &txn, i, MDB_APPEND);
}

void Update(LmdbSide &side) {
    MDB_txn *txn = nullptr;
    for (UInt i = 0; i < kCount; i++) {
        auto [e, length] = TheWork().updates[i];
        Put(side, e, Bytes(i), length, &txn, i, 0);
    }
}

// Each iteration starts from a fresh store; with `update` the insertion is
// set-up, not timed.
template <typename Side, typename Open, typename Close>
void Run(benchmark::State &state, Open open, Close close, bool update) {
    TheWork();  // made before the clock runs
    for (auto _ : state) {
        state.PauseTiming();
        Side side = open(update ? "update" : "insert");
        if (update) Insert(side);
        state.ResumeTiming();
        if (update)
            Update(side);
        else
            Insert(side);
        state.PauseTiming();
        close(side);
        state.ResumeTiming();
    }
    state.SetItemsProcessed((int64_t)state.iterations() * kCount);
}

// Filled and committed once, shared by the read benchmarks.
struct ReadFixture {
    DBSide db;
    LmdbSide lmdb;
};

ReadFixture &Fixture() {
    static ReadFixture *f = [] {
        auto *f = new ReadFixture{OpenDB("read"), OpenLmdb("dbarray_read_lmdb")};
        Insert(f->db);
        Commit(f->db);
        Insert(f->lmdb);
        atexit([] {
            CloseDB(Fixture().db);
            CloseLmdb(Fixture().lmdb);
        });
        return f;
    }();
    return *f;
}

// A first pass faults the pages in; then every iteration reads the 1M
// elements in random order, summing a byte and the length of each.
template <typename Read>
void Reads(benchmark::State &state, Read read) {
    ULong warm = 0;
    for (UInt e : TheWork().reads) warm += read(e);
    benchmark::DoNotOptimize(warm);
    for (auto _ : state) {
        ULong sum = 0;
        for (UInt e : TheWork().reads) sum += read(e);
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed((int64_t)state.iterations() * kCount);
}

void ReadDB(benchmark::State &state) {
    ReadFixture &f = Fixture();
    VMArenaOldGenAcquire(f.db.arena);
    Reads(state, [&f](UInt e) {
        UInt length;
        auto *p =
            (const UByte *)DBArrayGet(f.db.array, e % kBuckets, e / kBuckets, OLDGEN, 1, &length);
        return (ULong)p[length - 1] + length;
    });
    VMArenaOldGenRelease(f.db.arena);
}

void ReadLmdb(benchmark::State &state) {
    ReadFixture &f = Fixture();
    MDB_txn *txn;
    LMDB_CHECK(mdb_txn_begin(f.lmdb.env, nullptr, MDB_RDONLY, &txn));
    Reads(state, [&f, txn](UInt e) {
        MDB_val k = {sizeof e, &e}, d;
        LMDB_CHECK(mdb_get(txn, f.lmdb.dbi, &k, &d));
        return (ULong)((const UByte *)d.mv_data)[d.mv_size - 1] + d.mv_size;
    });
    mdb_txn_abort(txn);
}

int registered = [] {
    using qkbench::Name;
    auto slow = [](benchmark::internal::Benchmark *b) {
        b->Iterations(2)->UseRealTime()->Unit(benchmark::kMillisecond);
    };
    for (bool update : {false, true}) {
        std::string group = update ? "dbarray/update-1M-10-200B" : "dbarray/insert-1M-10-200B";
        slow(benchmark::RegisterBenchmark(Name(group, "qk").c_str(), [update](benchmark::State &s) {
            Run<DBSide>(s, OpenDB, CloseDB, update);
        }));
        slow(benchmark::RegisterBenchmark(
            Name(group, "lmdb").c_str(), [update](benchmark::State &s) {
                Run<LmdbSide>(
                    s, [](const std::string &w) { return OpenLmdb("dbarray_lmdb_" + w); },
                    CloseLmdb, update);
            }));
    }
    benchmark::RegisterBenchmark(Name("dbarray/read-random-1M", "qk").c_str(), ReadDB)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(Name("dbarray/read-random-1M", "lmdb").c_str(), ReadLmdb)
        ->Unit(benchmark::kMillisecond);
    return 0;
}();

}  // namespace
