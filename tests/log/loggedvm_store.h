// A small store on a logged arena for the tests: keys name cells of a data
// file written directly, outside the arena. Its state lives in one arena
// array, and the same State is the tests' model.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "frame/endian.h"
#include "qk/qkcommon.h"

namespace lvmtest {

constexpr UInt kKeys = 8, kCells = 12, kPut = LVM_ACTION_STORE;
constexpr ULong kWaiting = kKeys + 1, kFreed = kKeys + 2;

// Words 0 to kCells - 1 are the cells: free (0), held by key k (k + 1),
// waiting for the readers, or freed by the op tagged t and not yet marked
// (kFreed + t). Then each key's last value put.
struct State {
    std::vector<ULong> words = std::vector<ULong>(kCells + kKeys);

    // What the tests compare, tags aside: the model tags by op number, the
    // store by log serial.
    std::vector<ULong> Kinds() const {
        std::vector<ULong> kinds = words;
        for (UInt c = 0; c < kCells; c++) kinds[c] = std::min(kinds[c], kFreed);
        return kinds;
    }
    UInt Find(ULong word) const {
        return std::find(words.begin(), words.begin() + kCells, word) - words.begin();
    }
    // A put to a full store changes nothing and returns false.
    bool Apply(bool put, UInt key, ULong tag, ULong value) {
        UInt free = Find(0), old = Find(key + 1);
        if (put && free == kCells) return false;
        if (old < kCells) words[old] = kFreed + tag;
        if (put) words[free] = key + 1, words[kCells + key] = value;
        return true;
    }
    // Marks what the ops tagged up to `bound` freed; Recycle frees it.
    void SetNew(ULong bound) {
        for (UInt c = 0; c < kCells; c++)
            if (words[c] >= kFreed && words[c] - kFreed <= bound) words[c] = kWaiting;
    }
    void Recycle() { std::replace(words.begin(), words.begin() + kCells, kWaiting, ULong(0)); }
};

class Store {
  public:
    State state;  // changed under the store's lock and `view_`
    LoggedVM *lvm = nullptr;
    // Runs inside the checkpoint: a writer that logs after its serial.
    std::function<void()> duringCheckpoint;

    ~Store() { MutexDestroy(&view_); }
    // Opens (creates) the store in `dir` and recovers it.
    bool Open(const std::string &dir, bool create) {
        int created = 0, make = 1;
        char path[VMARENA_PATH_SIZE] = "";
        lvm = LoggedVMOpen(dir.c_str(), 2, create, 0, &created, Sync, Mark<false>, Mark<true>,
                           Replay, this);
        VMArena *arena = lvm ? LoggedVMArenaGet(lvm) : nullptr;
        fd_ = open((dir + "/cells").c_str(), O_RDWR | O_CREAT, 0644);
        if (!arena || fd_ < 0 ||
            !VMAArrayInitFromPath(arena, &make, created, 0, 0, path, "kv", "state",
                                  (VMAArrayHandle *)&array_) ||
            (created && !(VMAArrayAppend_(arena, array_.ids[NEWGEN], ARENA_MAX_BLOCK_SIZE,
                                          state.words.data(), state.words.size(), NEWGEN, 8) &&
                          VMArenaCommit(arena, nullptr, nullptr))))
            return false;
        UInt end = 0;
        const ULong *stored = VMAArrayRange(array_, 0, &end, NEWGEN, 1);
        state.words.assign(stored, stored + state.words.size());
        return LoggedVMRecover(lvm);
    }
    bool Close() { return LoggedVMClose(std::exchange(lvm, nullptr)) && close(fd_) == 0; }
    // Logs an op and applies it; a put first writes its value into the cell
    // that it takes, so that a reader never finds the mapping before the data.
    bool Write(bool put, UInt key, ULong value) {
        ULong epoch = LoggedVMWriterAcquire(lvm), serial = 0;
        UByte op[12];
        qk::StoreLE(op, key, 4);
        qk::StoreLE(op + 4, value, 8);
        LoggedVMAcquire(lvm);
        bool ok = (!put || state.Find(0) < kCells) &&
                  LogWrite(LoggedVMLogGet(lvm), kPut + !put, op, 12, &serial) &&
                  (!put || pwrite(fd_, op + 4, 8, state.Find(0) * 8) == 8) &&
                  Change([&] { state.Apply(put, key, serial, value); });
        LoggedVMRelease(lvm);
        LoggedVMWriterRelease(lvm, epoch);
        return ok;
    }
    bool Checkpoint(bool commit) { return LoggedVMCheckpoint(lvm, commit, ~(ULong)0); }
    ULong Cell(UInt cell) {
        UByte bytes[8] = {};
        return pread(fd_, bytes, 8, cell * 8) == 8 ? qk::LoadLE64(bytes) : ~(ULong)0;
    }
    // "" when each key's cell in the data file holds the key's value.
    std::string Lost() {
        for (UInt k = 0; k < kKeys; k++)
            if (UInt c = state.Find(k + 1); c < kCells && Cell(c) != state.words[kCells + k])
                return "key " + std::to_string(k) + " lost its value";
        return "";
    }
    // A reader in its epoch: reads the committed image, and finds a key's
    // cell (kCells when absent) under `view_`, never the store's lock, which
    // a committing checkpoint holds while the arena waits for the readers.
    UInt Read(UInt key) {
        UInt end = 0;
        VMAArrayRange(array_, 0, &end, OLDGEN, 1);
        MutexLock(&view_);
        UInt cell = state.Find(key + 1);
        MutexUnlock(&view_);
        return cell;
    }

  private:
    int fd_ = -1;
    Mutex view_ = MUTEX_INITIALIZER;
    VMAARRAY(ULong) array_;

    template <typename F>
    bool Change(F change) {
        MutexLock(&view_);
        change();
        MutexUnlock(&view_);
        return VMAArraySetRange(array_, 0, state.words.data(), state.words.size());
    }
    static int Sync(void *arg) {
        Store *s = static_cast<Store *>(arg);
        if (fsync(s->fd_) != 0) return 0;
        if (s->duringCheckpoint) s->duringCheckpoint();
        return 1;
    }
    // Marks what was freed up to the checkpoint, or frees what was marked.
    template <bool recycle>
    static int Mark(void *arg) {
        Store *s = static_cast<Store *>(arg);
        return s->Change(
            [&] { recycle ? s->state.Recycle() : s->state.SetNew(LoggedVMRecycleSerial(s->lvm)); });
    }
    static int Replay(LogReadContext *context, ULong from, ULong to, void *arg) {
        Store *s = static_cast<Store *>(arg);
        ULong at = 0, next = 0;
        if (to < from) return 1;
        if (!LogFirstSerial(context, from, &at, 0, 0)) return 0;
        for (; at <= to; at = next) {
            UByte op[12];
            UInt action = 0, size = sizeof op;
            auto apply = [&] {
                s->state.Apply(action == kPut, qk::LoadLE32(op), at, qk::LoadLE64(op + 4));
            };
            if (!LogRead(context, at, &action, op, &size, &next, nullptr) ||
                !(action < kPut ? LoggedVMProcessFun(s->lvm, at, action) : s->Change(apply)))
                return 0;
        }
        return 1;
    }
};

}  // namespace lvmtest
