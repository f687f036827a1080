// Log appends: 100,000 records of 100 bytes, forced to disk every 1,000
// (LogFlush), against RocksDB's write-ahead log with sync=false and
// FlushWAL(true) every 1,000, its log buffered in memory between them
// (manual_wal_flush) as ours is. RocksDB is measured twice: write batches
// that hold only log data (PutLogData: the log alone), and Put of an 8-byte
// key with a 92-byte value (the log and the memtable). Both sides work in a
// directory on the disk ($QK_BENCH_DISK_DIR, else /var/tmp).
#include <rocksdb/db.h>
#include <rocksdb/write_batch.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "compare.h"
#include "qk/qkcommon.h"

namespace {

constexpr UInt kRecords = 100000;
constexpr UInt kSyncEvery = 1000;
constexpr UInt kRecordSize = 100;

std::string DiskDir(const std::string &what) {
    const char *env = getenv("QK_BENCH_DISK_DIR");
    std::string base = env && *env ? env : "/var/tmp";
    return base + "/qkbench_log_" + what + "_" + std::to_string(getpid());
}

void RemoveDir(const std::string &dir) {
    DirectoryRemoveContents(dir.c_str());
    rmdir(dir.c_str());
}

std::string Record(UInt i) {
    std::string record(kRecordSize, 'a' + i % 26);
    memcpy(record.data(), &i, sizeof i);
    return record;
}

// Times `append(i)` for every record and `sync()` every kSyncEvery, between
// `open` and `close`, which are not timed.
template <typename Open, typename Append, typename Sync, typename Close>
void Appends(benchmark::State &state, Open open, Append append, Sync sync, Close close) {
    for (auto _ : state) {
        state.PauseTiming();
        std::string dir = DiskDir("append");
        RemoveDir(dir);
        if (!DirectoryCreate(nullptr, dir.c_str(), 1)) abort();
        open(dir);
        state.ResumeTiming();
        for (UInt i = 0; i < kRecords; i++) {
            append(i);
            if ((i + 1) % kSyncEvery == 0) sync();
        }
        state.PauseTiming();
        close();
        RemoveDir(dir);
        state.ResumeTiming();
    }
    state.SetItemsProcessed((int64_t)state.iterations() * kRecords);
}

void AppendLog(benchmark::State &state) {
    Log *log = nullptr;
    std::string record = Record(0);
    Appends(
        state, [&](const std::string &dir) { log = LogOpen(dir.c_str(), 0); },
        [&](UInt i) {
            memcpy(record.data(), &i, sizeof i);
            if (!LogWrite(log, 3, record.data(), kRecordSize, nullptr)) abort();
        },
        [&] {
            if (!LogFlush(log)) abort();
        },
        [&] { LogClose(log); });
}

// `put` adds record i to a batch that is written alone.
template <typename Put>
void AppendRocksDB(benchmark::State &state, Put put) {
    rocksdb::DB *db = nullptr;
    rocksdb::WriteOptions options;
    options.sync = false;
    std::string record = Record(0);
    Appends(
        state,
        [&](const std::string &dir) {
            rocksdb::Options open;
            open.create_if_missing = true;
            open.manual_wal_flush = true;
            if (!rocksdb::DB::Open(open, dir, &db).ok()) abort();
        },
        [&](UInt i) {
            memcpy(record.data(), &i, sizeof i);
            rocksdb::WriteBatch batch;
            put(&batch, record);
            if (!db->Write(options, &batch).ok()) abort();
        },
        [&] {
            if (!db->FlushWAL(true).ok()) abort();
        },
        [&] { delete db; });
}

int registered = [] {
    using qkbench::Name;
    auto slow = [](benchmark::internal::Benchmark *b) {
        b->Iterations(5)->UseRealTime()->Unit(benchmark::kMillisecond);
    };
    const std::string group = "log/append-100k-100B-sync-1000";
    slow(benchmark::RegisterBenchmark(Name(group, "qk").c_str(), AppendLog));
    slow(benchmark::RegisterBenchmark(Name(group, "rocksdb-wal").c_str(), [](benchmark::State &s) {
        AppendRocksDB(s, [](rocksdb::WriteBatch *b, const std::string &r) { b->PutLogData(r); });
    }));
    slow(benchmark::RegisterBenchmark(Name(group, "rocksdb-put").c_str(), [](benchmark::State &s) {
        AppendRocksDB(s, [](rocksdb::WriteBatch *b, const std::string &r) {
            b->Put(rocksdb::Slice(r.data(), 8), rocksdb::Slice(r.data() + 8, r.size() - 8));
        });
    }));
    return 0;
}();

}  // namespace
