// A small store on a logged arena for the tests: keys that name cells of a
// data file written directly, outside the arena, as a document store does.
// Its state (which cell each key holds, the free cells, the cells freed and
// not yet marked, those marked and waiting for the readers) lives in one
// arena array, and the same State serves as the tests' reference model.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "frame/endian.h"
#include "qk/qkcommon.h"

namespace lvmtest {

constexpr UInt kKeys = 8, kCells = 48;
constexpr UInt kPut = LVM_ACTION_STORE, kDelete = LVM_ACTION_STORE + 1;

struct State {
    std::vector<UInt> map = std::vector<UInt>(kKeys);  // cell + 1, 0 when absent
    std::vector<UInt> free, waiting;
    std::vector<std::pair<UInt, ULong>> freed;  // cell and the tag of the op that freed it

    State() {
        for (UInt c = 0; c < kCells; c++) free.push_back(c);
    }
    // Tags aside: the model tags by op number, the store by log serial.
    bool operator==(const State &o) const {
        auto cells = [](const State &s) {
            std::vector<UInt> c;
            for (auto &f : s.freed) c.push_back(f.first);
            return c;
        };
        return map == o.map && free == o.free && waiting == o.waiting && cells(*this) == cells(o);
    }
    // False when no cell is free.
    bool Put(UInt key, ULong tag) {
        if (free.empty()) return false;
        UInt cell = free.back();
        free.pop_back();
        Delete(key, tag);
        map[key] = cell + 1;
        return true;
    }
    void Delete(UInt key, ULong tag) {
        if (map[key] != 0) freed.push_back({map[key] - 1, tag});
        map[key] = 0;
    }
    // Marks what was freed by ops tagged up to `bound`.
    void SetNew(ULong bound) {
        auto rest = std::stable_partition(freed.begin(), freed.end(),
                                          [&](auto &f) { return f.second <= bound; });
        for (auto it = freed.begin(); it != rest; ++it) waiting.push_back(it->first);
        freed.erase(freed.begin(), rest);
    }
    void Recycle() {
        free.insert(free.end(), waiting.begin(), waiting.end());
        waiting.clear();
    }
    // "" when every cell is in exactly one place.
    std::string Accounting() const {
        std::vector<int> seen(kCells);
        for (UInt m : map)
            if (m != 0) seen[m - 1]++;
        for (UInt c : free) seen[c]++;
        for (UInt c : waiting) seen[c]++;
        for (auto &f : freed) seen[f.first]++;
        for (UInt c = 0; c < kCells; c++)
            if (seen[c] != 1)
                return "cell " + std::to_string(c) + " held " + std::to_string(seen[c]) + " times";
        return "";
    }
    // Fixed length: kKeys, then each list as a count and its entries.
    static constexpr UInt kEncoded = kKeys + 3 + 4 * kCells;
    std::vector<ULong> Encode() const {
        std::vector<ULong> e(map.begin(), map.end());
        e.push_back(free.size());
        e.insert(e.end(), free.begin(), free.end());
        e.push_back(waiting.size());
        e.insert(e.end(), waiting.begin(), waiting.end());
        e.push_back(freed.size());
        for (auto &f : freed) e.insert(e.end(), {f.first, f.second});
        e.resize(kEncoded);
        return e;
    }
    static State Decode(const ULong *e) {
        State s;
        s.map.assign(e, e + kKeys);
        e += kKeys;
        s.free.assign(e + 1, e + 1 + *e);
        e += 1 + *e;
        s.waiting.assign(e + 1, e + 1 + *e);
        e += 1 + *e;
        s.freed.clear();
        for (ULong i = 0; i < *e; i++) s.freed.push_back({(UInt)e[1 + 2 * i], e[2 + 2 * i]});
        return s;
    }
};

class Store {
  public:
    State state;  // changed under the store's lock and `view`
    LoggedVM *lvm = nullptr;
    // Runs inside the checkpoint, after the data file's sync: a writer that
    // logs after the checkpoint's serial.
    std::function<void()> duringCheckpoint;

    ~Store() { MutexDestroy(&view_); }
    // Opens (creates) the store in `dir` and recovers it.
    bool Open(const std::string &dir, bool create) {
        int created = 0;
        lvm = LoggedVMOpen(dir.c_str(), 2, create, 0, &created, OnCheckpoint, OnRecycleSetNew,
                           OnRecycle, OnReplay, this);
        if (lvm == nullptr) return false;
        fd_ = open((dir + "/cells").c_str(), O_RDWR | O_CREAT, 0644);
        char path[VMARENA_PATH_SIZE] = "";
        int make = 1;
        VMArena *arena = LoggedVMArenaGet(lvm);
        if (fd_ < 0 || !VMAArrayInitFromPath(arena, &make, created, 0, 0, path, "kv", "state",
                                             (VMAArrayHandle *)&array_))
            return false;
        if (created) {
            std::vector<ULong> e = State().Encode();
            if (!VMAArrayAppend_(arena, array_.ids[NEWGEN], ARENA_MAX_BLOCK_SIZE, e.data(),
                                 e.size(), NEWGEN, 8) ||
                !VMArenaCommit(arena, nullptr, nullptr))
                return false;
        }
        Load();
        return LoggedVMRecover(lvm);
    }
    bool Close() {
        bool ok = LoggedVMClose(lvm) && close(fd_) == 0;
        lvm = nullptr;
        return ok;
    }
    bool Put(UInt key, ULong value) { return Write(kPut, key, value); }
    bool Delete(UInt key) { return Write(kDelete, key, 0); }
    bool Checkpoint(bool commit) { return LoggedVMCheckpoint(lvm, commit, ~(ULong)0); }
    ULong Cell(UInt cell) {
        UByte bytes[8] = {};
        return pread(fd_, bytes, 8, cell * 8) == 8 ? qk::LoadLE64(bytes) : ~(ULong)0;
    }
    // "" when every key's cell holds the model's value.
    std::string Values(const std::vector<ULong> &values) {
        for (UInt k = 0; k < kKeys; k++)
            if (state.map[k] != 0 && Cell(state.map[k] - 1) != values[k])
                return "key " + std::to_string(k) + " lost its value";
        return "";
    }
    // A key's cell + 1, as a reader sees it: readers take `view`, never the
    // store's lock, which a committing checkpoint holds while the arena
    // waits for the readers to switch its image.
    UInt CellOf(UInt key) {
        MutexLock(&view_);
        UInt cell = state.map[key];
        MutexUnlock(&view_);
        return cell;
    }
    // The committed image's first element, as a reader sees it.
    ULong OldImageFirst() {
        UInt end = 0;
        auto *first = VMAArrayRange(array_, 0, &end, OLDGEN, 1);
        return first != nullptr ? *first : 0;  // the first key's cell
    }

  private:
    int fd_ = -1;
    Mutex view_ = MUTEX_INITIALIZER;
    VMAARRAY(ULong) array_;

    void Load() {
        UInt end = 0;
        state = State::Decode(VMAArrayRange(array_, 0, &end, NEWGEN, 1));
    }
    bool Save() {
        std::vector<ULong> e = state.Encode();
        return VMAArraySetRange(array_, 0, e.data(), e.size());
    }
    template <typename F>
    bool Change(F change) {
        MutexLock(&view_);
        bool ok = change();
        MutexUnlock(&view_);
        return ok && Save();
    }
    // Applies an op; a live put first writes its value into the cell that it
    // takes, so that a reader never finds the new mapping before the data.
    bool Apply(UInt action, UInt key, ULong tag, const ULong *value) {
        UByte bytes[8];
        if (value != nullptr && action == kPut) {
            qk::StoreLE(bytes, *value, 8);
            if (state.free.empty() || pwrite(fd_, bytes, 8, state.free.back() * 8) != 8)
                return false;
        }
        return Change(
            [&] { return action == kPut ? state.Put(key, tag) : (state.Delete(key, tag), true); });
    }
    bool Write(UInt action, UInt key, ULong value) {
        ULong epoch = LoggedVMWriterAcquire(lvm), serial = 0;
        UByte payload[12];
        qk::StoreLE(payload, key, 4);
        qk::StoreLE(payload + 4, value, 8);
        LoggedVMAcquire(lvm);
        bool ok = (action != kPut || !state.free.empty()) &&
                  LogWrite(LoggedVMLogGet(lvm), action, payload, 12, &serial) &&
                  Apply(action, key, serial, &value);
        LoggedVMRelease(lvm);
        LoggedVMWriterRelease(lvm, epoch);
        return ok;
    }

    static int OnCheckpoint(void *arg) {
        Store *s = static_cast<Store *>(arg);
        if (fsync(s->fd_) != 0) return 0;
        if (s->duringCheckpoint) s->duringCheckpoint();
        return 1;
    }
    static int OnRecycleSetNew(void *arg) {
        Store *s = static_cast<Store *>(arg);
        return s->Change([&] { return s->state.SetNew(LoggedVMRecycleSerial(s->lvm)), true; });
    }
    static int OnRecycle(void *arg) {
        Store *s = static_cast<Store *>(arg);
        return s->Change([&] { return s->state.Recycle(), true; });
    }
    static int OnReplay(LogReadContext *context, ULong from, ULong to, void *arg) {
        Store *s = static_cast<Store *>(arg);
        ULong at = 0;
        if (to < from) return 1;
        if (!LogFirstSerial(context, from, &at, 0, 0)) return 0;
        while (at <= to) {
            UByte payload[12];
            UInt action = 0, size = sizeof payload;
            ULong next = 0;
            if (!LogRead(context, at, &action, payload, &size, &next, nullptr)) return 0;
            bool ok = action >= LVM_ACTION_STORE
                          ? s->Apply(action, qk::LoadLE32(payload), at, nullptr)
                          : LoggedVMProcessFun(s->lvm, at, action);
            if (!ok) return 0;
            at = next;
        }
        return 1;
    }
};

}  // namespace lvmtest
