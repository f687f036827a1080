// Arena: opening an arena that holds 1,000 arrays and 1 GiB of blocks, and
// reading its 8 KiB blocks through the mapping (the old generation's array
// path: block address from the resolved cache, then the bytes in place),
// in array order and in random order, against pread of the same blocks from
// the same data file, the cost of a read through the system's cache. Both
// sides sum every 8-byte word of each block. The file is in the page cache
// throughout; the mapping's first pass (page faults, address resolution) is
// made before timing. The arena lies in the benchmarks' disk directory.
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#include "arena/arena_internal.h"
#include "arena/block_id.h"
#include "arena/block_read.h"
#include "bench_disk.h"
#include "compare.h"

namespace {

constexpr UInt kArrays = 999;  // and the name table
constexpr UInt kBlocksPerArray = 131;
constexpr UInt kBatch = 4096;  // blocks per timed iteration
constexpr UInt kWords = ARENA_MAX_BLOCK_SIZE / sizeof(ULong);

struct Block {
    Int array;
    UInt index;
    UInt raw;
};

struct Fixture {
    std::string dir;
    std::vector<Block> sequential, random;
    VMArena *arena = nullptr;
    int fd = -1;
};

// Written once per run through the library: each array appended whole and
// committed, then the arena reopened read-only. A block's raw position in
// the data file comes from its bucket's old map.
Fixture &Get() {
    static Fixture *fixture = [] {
        auto *f = new Fixture;
        f->dir = qkbench::DiskDir("arena");
        qkbench::RemoveDir(f->dir);
        VMArena *w = VMArenaOpen(f->dir.c_str(), VM_FLAG_CREATE | VM_FLAG_MAPPED, 1,
                                 STATUS_NO_SERIAL, STATUS_NO_SERIAL, nullptr, nullptr);
        std::vector<ULong> words((size_t)kBlocksPerArray * kWords);
        std::vector<Int> ids;
        for (UInt a = 0; w != nullptr && a < kArrays; a++) {
            for (size_t i = 0; i < words.size(); i++) words[i] = a + i / kWords;
            VMAARRAY(ULong) array;
            char path[VMARENA_PATH_SIZE] = "";
            int create = 1;
            std::string name = "array" + std::to_string(a);
            if (!VMAArrayInitFromPath(w, &create, 1, 0, 0, path, "bench", name.c_str(),
                                      (VMAArrayHandle *)&array) ||
                !VMAArrayAppend(array, words.data(), (UInt)words.size()))
                abort();
            ids.push_back(array.ids[NEWGEN]);
        }
        if (w == nullptr || !VMArenaCommit(w, nullptr, nullptr)) abort();
        VMArenaClose(w);
        f->arena = VMArenaOpen(f->dir.c_str(), VM_FLAG_MAPPED | VM_FLAG_READ_ONLY, 1,
                               STATUS_NO_SERIAL, STATUS_NO_SERIAL, nullptr, nullptr);
        f->fd = open((f->dir + "/block/data0").c_str(), O_RDONLY);
        if (f->arena == nullptr || f->fd < 0) abort();
        for (Int id : ids) {
            for (UInt b = 0; b < kBlocksPerArray; b++) {
                ULong block = VMABlockArrayBlockIDGet_(f->arena, id, b, OLDGEN);
                UInt index;
                LocalBlockServer0 *bucket = qk::arena::LocalBlockServerBucket(
                    &f->arena->server, qk::arena::BlockIDDecode(block).logical, &index);
                f->sequential.push_back(
                    {id, b, qk::arena::LocalBlockServer0RawID(bucket, index, OLDGEN)});
            }
        }
        f->random = f->sequential;
        std::shuffle(f->random.begin(), f->random.end(), std::mt19937(5));
        static std::string name = f->dir;
        atexit([] { qkbench::RemoveDir(name); });
        return f;
    }();
    return *fixture;
}

inline ULong Sum(const ULong *words) {
    ULong sum = 0;
    for (UInt i = 0; i < kWords; i++) sum += words[i];
    return sum;
}

ULong ReadMapped(Fixture &f, const Block &block) {
    UInt end;
    const UByte *bytes =
        qk::arena::VMAArrayReadRange(f.arena, block.array, ARENA_MAX_BLOCK_SIZE,
                                     block.index * kWords, sizeof(ULong), &end, OLDGEN);
    return Sum((const ULong *)bytes);
}

ULong ReadFile(Fixture &f, const Block &block) {
    alignas(64) static ULong buffer[kWords];
    if (pread(f.fd, buffer, sizeof buffer, (off_t)block.raw * ARENA_MAX_BLOCK_SIZE) !=
        (ssize_t)sizeof buffer)
        abort();
    return Sum(buffer);
}

template <typename Read>
void Run(benchmark::State &state, const std::vector<Block> &order, Read read) {
    Fixture &f = Get();
    ULong warm = 0;
    for (const Block &block : order) warm += read(f, block);
    benchmark::DoNotOptimize(warm);
    size_t at = 0;
    for (auto _ : state) {
        ULong sum = 0;
        for (UInt i = 0; i < kBatch; i++) {
            sum += read(f, order[at]);
            if (++at == order.size()) at = 0;
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetBytesProcessed((int64_t)state.iterations() * kBatch * ARENA_MAX_BLOCK_SIZE);
}

void Open(benchmark::State &state) {
    Fixture &f = Get();
    for (auto _ : state) {
        VMArena *arena = VMArenaOpen(f.dir.c_str(), VM_FLAG_MAPPED | VM_FLAG_READ_ONLY, 1,
                                     STATUS_NO_SERIAL, STATUS_NO_SERIAL, nullptr, nullptr);
        if (arena == nullptr) state.SkipWithError(QKErrorMessage());
        VMArenaClose(arena);
    }
}

int registered = [] {
    benchmark::RegisterBenchmark(qkbench::Name("arena/open-1000-arrays-1GiB", "qk").c_str(), Open)
        ->Unit(benchmark::kMillisecond);
    for (bool random : {false, true}) {
        std::string group = random ? "arena/read-8KiB-random" : "arena/read-8KiB-sequential";
        benchmark::RegisterBenchmark(
            qkbench::Name(group, "qk").c_str(), [random](benchmark::State &s) {
                Run(s, random ? Get().random : Get().sequential, ReadMapped);
            });
        benchmark::RegisterBenchmark(qkbench::Name(group, "pread").c_str(),
                                     [random](benchmark::State &s) {
                                         Run(s, random ? Get().random : Get().sequential, ReadFile);
                                     });
    }
    return 0;
}();

}  // namespace
