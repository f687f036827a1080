// Arena commit: making 1, 100 and 10,000 changed 8 KiB blocks durable.
// Each iteration writes new bytes into every block of the set (the first
// write of a generation copies the block), then commits: the data file is
// synced, the metadata files are written, synced and renamed into place, the
// directories synced. The peer is LMDB with its default durability (a sync
// of the data at each commit), one write transaction that puts the same
// bytes under as many keys, overwriting the values of the last round. Both
// work on a real disk directory ($QK_BENCH_DISK_DIR, else /var/tmp), never a
// memory file system, since the syncs are most of the cost.
#include <lmdb.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "compare.h"
#include "qk/qkcommon.h"

namespace {

constexpr UInt kBlock = ARENA_MAX_BLOCK_SIZE;

std::string DiskDir(const std::string &what, UInt blocks) {
    const char *env = getenv("QK_BENCH_DISK_DIR");
    std::string base = env && *env ? env : "/var/tmp";
    return base + "/qkbench_commit_" + what + std::to_string(blocks) + "_" +
           std::to_string(getpid());
}

void RemoveDir(const std::string &dir) {
    DirectoryRemoveContents(dir.c_str());
    rmdir(dir.c_str());
}

// The bytes of round `round` for block `i`: one value per 8-byte word.
void Fill(void *block, ULong round, UInt i) {
    ULong *words = (ULong *)block;
    ULong base = round * 0x9E3779B97F4A7C15ull + i;
    for (UInt w = 0; w < kBlock / 8; w++) words[w] = base + w;
}

struct ArenaSide {
    std::string dir;
    VMArena *arena = nullptr;
    std::vector<ULong> ids;
    ULong round = 0;
};

ArenaSide *MakeArena(UInt blocks) {
    auto *side = new ArenaSide;
    side->dir = DiskDir("arena", blocks);
    RemoveDir(side->dir);
    side->arena = VMArenaOpen(side->dir.c_str(), VM_FLAG_CREATE | VM_FLAG_MAPPED, 1,
                              STATUS_NO_SERIAL, STATUS_NO_SERIAL, nullptr, nullptr);
    if (side->arena == nullptr) return side;
    VMArenaNewGenAcquire(side->arena, NEWGEN);
    for (UInt i = 0; i < blocks; i++) {
        ULong id = VMArenaBlockNew(side->arena, kBlock, nullptr, NEWGEN);
        void *address = VMArenaDataAcquire(side->arena, id, NEWGEN, 0, nullptr, nullptr);
        if (address == nullptr) abort();
        Fill(address, 0, i);
        side->ids.push_back(id);
    }
    VMArenaNewGenRelease(side->arena, NEWGEN);
    if (!VMArenaCommit(side->arena, nullptr, nullptr)) abort();
    return side;
}

void ArenaCommit(benchmark::State &state, UInt blocks) {
    ArenaSide *side = MakeArena(blocks);
    if (side->arena == nullptr) {
        state.SkipWithError(QKErrorMessage());
        delete side;
        return;
    }
    for (auto _ : state) {
        side->round++;
        VMArenaNewGenAcquire(side->arena, NEWGEN);
        for (UInt i = 0; i < blocks; i++) {
            void *address =
                VMArenaDataAcquire(side->arena, side->ids[i], NEWGEN, 0, nullptr, nullptr);
            Fill(address, side->round, i);
        }
        VMArenaNewGenRelease(side->arena, NEWGEN);
        if (!VMArenaCommit(side->arena, nullptr, nullptr)) {
            state.SkipWithError(QKErrorMessage());
            break;
        }
    }
    state.SetBytesProcessed((int64_t)state.iterations() * blocks * kBlock);
    VMArenaClose(side->arena);
    RemoveDir(side->dir);
    delete side;
}

#define LMDB_CHECK(call)                    \
    do {                                    \
        if ((call) != MDB_SUCCESS) abort(); \
    } while (0)

void LmdbCommit(benchmark::State &state, UInt blocks) {
    std::string dir = DiskDir("lmdb", blocks);
    RemoveDir(dir);
    if (!DirectoryCreate(nullptr, dir.c_str(), 1)) abort();
    MDB_env *env;
    LMDB_CHECK(mdb_env_create(&env));
    LMDB_CHECK(mdb_env_set_mapsize(env, (size_t)1 << 30));
    LMDB_CHECK(mdb_env_open(env, dir.c_str(), 0, 0600));
    MDB_dbi dbi;
    std::vector<char> value(kBlock);
    auto round = [&](ULong n) {
        MDB_txn *txn;
        LMDB_CHECK(mdb_txn_begin(env, nullptr, 0, &txn));
        if (n == 0) LMDB_CHECK(mdb_dbi_open(txn, nullptr, 0, &dbi));
        for (UInt i = 0; i < blocks; i++) {
            UInt key = __builtin_bswap32(i);  // big-endian: keys in their order
            MDB_val k = {sizeof key, &key};
            Fill(value.data(), n, i);
            MDB_val v = {kBlock, value.data()};
            LMDB_CHECK(mdb_put(txn, dbi, &k, &v, 0));
        }
        LMDB_CHECK(mdb_txn_commit(txn));
    };
    round(0);
    ULong n = 0;
    for (auto _ : state) round(++n);
    state.SetBytesProcessed((int64_t)state.iterations() * blocks * kBlock);
    mdb_env_close(env);
    RemoveDir(dir);
}

int registered = [] {
    for (UInt blocks : {1u, 100u, 10000u}) {
        std::string group = "arena-commit/" + std::to_string(blocks) + "-blocks-8KiB";
        // A few seconds per side: the 10,000-block commit moves 80 MB.
        double seconds = blocks >= 10000 ? 3.0 : 1.0;
        benchmark::RegisterBenchmark(qkbench::Name(group, "qk").c_str(),
                                     [blocks](benchmark::State &s) { ArenaCommit(s, blocks); })
            ->UseRealTime()
            ->MinTime(seconds)
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark(qkbench::Name(group, "lmdb").c_str(),
                                     [blocks](benchmark::State &s) { LmdbCommit(s, blocks); })
            ->UseRealTime()
            ->MinTime(seconds)
            ->Unit(benchmark::kMillisecond);
    }
    return 0;
}();

}  // namespace
