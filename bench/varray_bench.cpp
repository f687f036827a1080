// Arena arrays: 10 million 4-byte elements appended one by one and read at
// random indices. In memory the peer is std::vector; persistent, LMDB with
// integer keys (the element's index as a native 4-byte key, MDB_INTEGERKEY),
// both committing every 100,000 appends; against the vector the arena does
// not commit. Random reads of the committed
// image go through VMAArrayRange_ (the old generation, a call per element)
// against mdb_get in one read transaction, and through the handle's macro
// (the new generation's block cache, no call) against the vector. Both
// persistent sides work in a directory on the disk ($QK_BENCH_DISK_DIR,
// else /var/tmp).
#include <random>
#include <string>
#include <vector>

#include "bench_disk.h"
#include "compare.h"
#include "qk/qkcommon.h"

namespace {

using namespace qkbench;

constexpr UInt kCount = 10000000;
constexpr UInt kCommitEvery = 100000;
constexpr UInt kReads = 1000000;  // random reads per iteration

UInt Value(UInt i) {
    return i * 2654435761u;
}

struct ArenaSide {
    std::string dir;
    VMArena *arena;
    VMAARRAY(UInt) array;
};

ArenaSide OpenArena(const std::string &what) {
    ArenaSide side;
    side.dir = DiskDir("varray_" + what);
    RemoveDir(side.dir);
    side.arena = VMArenaOpen(side.dir.c_str(), VM_FLAG_CREATE | VM_FLAG_MAPPED, 1, STATUS_NO_SERIAL,
                             STATUS_NO_SERIAL, nullptr, nullptr);
    if (side.arena == nullptr) abort();
    char path[VMARENA_PATH_SIZE] = "";
    int create = 1;
    if (!VMAArrayInitFromPath(side.arena, &create, 1, 0, 0, path, "bench", "values",
                              (VMAArrayHandle *)&side.array))
        abort();
    return side;
}

// Appends every element, with `commit` committing every kCommitEvery.
void Fill(ArenaSide &side, bool commit) {
    for (UInt i = 0; i < kCount; i++) {
        UInt v = Value(i);
        VMAArrayAppend(side.array, &v, 1);
        if (commit && (i + 1) % kCommitEvery == 0 && !VMArenaCommit(side.arena, nullptr, nullptr))
            abort();
    }
}

void Fill(LmdbSide &side) {
    MDB_txn *txn = nullptr;
    for (UInt i = 0; i < kCount; i++) {
        if (txn == nullptr) LMDB_CHECK(mdb_txn_begin(side.env, nullptr, 0, &txn));
        UInt key = i, v = Value(i);
        MDB_val k = {sizeof key, &key}, d = {sizeof v, &v};
        LMDB_CHECK(mdb_put(txn, side.dbi, &k, &d, MDB_APPEND));
        if ((i + 1) % kCommitEvery == 0) {
            LMDB_CHECK(mdb_txn_commit(txn));
            txn = nullptr;
        }
    }
}

void AppendArena(benchmark::State &state, bool commit) {
    for (auto _ : state) {
        state.PauseTiming();
        ArenaSide side = OpenArena("append");
        state.ResumeTiming();
        Fill(side, commit);
        state.PauseTiming();
        VMArenaClose(side.arena);
        RemoveDir(side.dir);
        state.ResumeTiming();
    }
    state.SetItemsProcessed((int64_t)state.iterations() * kCount);
}

void AppendLmdb(benchmark::State &state) {
    for (auto _ : state) {
        state.PauseTiming();
        LmdbSide side = OpenLmdb("append-lmdb");
        state.ResumeTiming();
        Fill(side);
        state.PauseTiming();
        CloseLmdb(side);
        state.ResumeTiming();
    }
    state.SetItemsProcessed((int64_t)state.iterations() * kCount);
}

void AppendVector(benchmark::State &state) {
    for (auto _ : state) {
        std::vector<UInt> values;
        for (UInt i = 0; i < kCount; i++) values.push_back(Value(i));
        benchmark::DoNotOptimize(values.data());
    }
    state.SetItemsProcessed((int64_t)state.iterations() * kCount);
}

// Filled and committed once per run, shared by the read benchmarks.
struct ReadFixture {
    ArenaSide arena;
    LmdbSide lmdb;
    std::vector<UInt> vector;
    std::vector<UInt> indices;
};

ReadFixture &Fixture() {
    static ReadFixture *f = [] {
        auto *f = new ReadFixture;
        f->arena = OpenArena("read");
        Fill(f->arena, true);
        f->lmdb = OpenLmdb("read-lmdb");
        Fill(f->lmdb);
        for (UInt i = 0; i < kCount; i++) f->vector.push_back(Value(i));
        std::mt19937 rng(10);
        for (UInt i = 0; i < kReads; i++) f->indices.push_back(rng() % kCount);
        atexit([] {
            ReadFixture &f = Fixture();
            VMArenaClose(f.arena.arena);
            RemoveDir(f.arena.dir);
            CloseLmdb(f.lmdb);
        });
        return f;
    }();
    return *f;
}

template <typename Read>
void RandomReads(benchmark::State &state, Read read) {
    ReadFixture &f = Fixture();
    ULong warm = 0;  // the first pass faults the pages in and resolves the blocks
    for (UInt index : f.indices) warm += read(f, index);
    benchmark::DoNotOptimize(warm);
    for (auto _ : state) {
        ULong sum = 0;
        for (UInt index : f.indices) sum += read(f, index);
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed((int64_t)state.iterations() * kReads);
}

UInt ReadOldGen(ReadFixture &f, UInt index) {
    UInt end;
    return *(const UInt *)VMAArrayRange_(f.arena.arena, f.arena.array.ids[OLDGEN],
                                         ARENA_MAX_BLOCK_SIZE, index, &end, OLDGEN, 1, 4, 0);
}

UInt ReadMacro(ReadFixture &f, UInt index) {
    UInt end;
    return *VMAArrayRange(f.arena.array, index, &end, NEWGEN, 1);
}

UInt ReadVector(ReadFixture &f, UInt index) {
    return f.vector[index];
}

void ReadLmdb(benchmark::State &state) {
    ReadFixture &f = Fixture();
    MDB_txn *txn;
    LMDB_CHECK(mdb_txn_begin(f.lmdb.env, nullptr, MDB_RDONLY, &txn));
    RandomReads(state, [txn](ReadFixture &f, UInt index) {
        MDB_val k = {sizeof index, &index}, d;
        LMDB_CHECK(mdb_get(txn, f.lmdb.dbi, &k, &d));
        return *(const UInt *)d.mv_data;
    });
    mdb_txn_abort(txn);
}

void ReadOldGenLocked(benchmark::State &state) {
    ReadFixture &f = Fixture();
    VMArenaOldGenAcquire(f.arena.arena);
    RandomReads(state, ReadOldGen);
    VMArenaOldGenRelease(f.arena.arena);
}

int registered = [] {
    using qkbench::Name;
    auto slow = [](benchmark::internal::Benchmark *b) {
        b->Iterations(2)->UseRealTime()->Unit(benchmark::kMillisecond);
    };
    slow(benchmark::RegisterBenchmark(Name("varray/append-10M-4B-commit-100k", "qk").c_str(),
                                      [](benchmark::State &s) { AppendArena(s, true); }));
    slow(benchmark::RegisterBenchmark(Name("varray/append-10M-4B-commit-100k", "lmdb").c_str(),
                                      AppendLmdb));
    slow(benchmark::RegisterBenchmark(Name("varray/append-10M-4B-memory", "qk").c_str(),
                                      [](benchmark::State &s) { AppendArena(s, false); }));
    slow(benchmark::RegisterBenchmark(Name("varray/append-10M-4B-memory", "vector").c_str(),
                                      AppendVector));
    benchmark::RegisterBenchmark(Name("varray/read-random-oldgen-range", "qk").c_str(),
                                 ReadOldGenLocked)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(Name("varray/read-random-oldgen-range", "lmdb").c_str(), ReadLmdb)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(Name("varray/read-random-macro", "qk").c_str(),
                                 [](benchmark::State &s) { RandomReads(s, ReadMacro); })
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(Name("varray/read-random-macro", "vector").c_str(),
                                 [](benchmark::State &s) { RandomReads(s, ReadVector); })
        ->Unit(benchmark::kMillisecond);
    return 0;
}();

}  // namespace
