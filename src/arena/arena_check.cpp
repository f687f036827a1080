// The consistency check of an arena: every raw block accounted for once,
// flags that agree with the maps, free lists that name real pieces, and no
// file of a commit left half done.
#include "arena/arena_check.h"

#include <dirent.h>
#include <string.h>
#include <trio.h>

#include <algorithm>
#include <set>
#include <vector>

#include "arena/arena_internal.h"

namespace qk::arena {
namespace {

std::string Format(const char *format, ...) {
    char text[512];
    va_list args;
    va_start(args, format);
    trio_vsnprintf(text, sizeof text, format, args);
    va_end(args);
    return text;
}

// Where each raw block of a bucket is named.
enum : UByte { kInMap = 1, kInFreeOld = 2, kInFreeNew = 4 };

struct BucketView {
    LocalBlockServer0 *s;
    UInt index;
    std::vector<UInt> map;
    std::vector<UByte> flags;
    std::vector<UInt> oldMap;
};

std::string Where(const BucketView &b) {
    return Format("bucket %u: ", b.index);
}

bool CheckRawAccounting(const BucketView &b, std::string *why) {
    LocalBlockServer0RW *rw = &b.s->rw_gen;
    const MemoryMapping *m = &b.s->mapping;
    ULong end = (ULong)m->rsize + m->rwLength;
    if (end % b.s->blockSize != 0) {
        *why = Where(b) + Format("mapped size %I64u is no multiple of the block size", end);
        return false;
    }
    UInt rawCount = (UInt)(end / b.s->blockSize);
    std::vector<UByte> seen(rawCount, 0);
    auto mark = [&](UInt raw, UByte where, const char *list) {
        if (raw >= rawCount) {
            *why = Where(b) + Format("raw block %u of %s lies beyond the data (%u blocks)", raw,
                                     list, rawCount);
            return false;
        }
        if (seen[raw] != 0) {
            *why = Where(b) + Format("raw block %u is named twice (%s, earlier %u)", raw, list,
                                     (UInt)seen[raw]);
            return false;
        }
        seen[raw] = where;
        return true;
    };
    for (UInt raw : b.map) {
        if (raw != INVALID_RAW_BLOCK_ID && !mark(raw, kInMap, "the new map")) return false;
    }
    for (UInt i = 0; i < ArrayLength(rw->freeRawBlocksOld); i++) {
        if (!mark(ArrayNth(rw->freeRawBlocksOld, i), kInFreeOld, "freeRawBlocksOld")) return false;
        if (i > 0 && ArrayNth(rw->freeRawBlocksOld, i - 1) <= ArrayNth(rw->freeRawBlocksOld, i)) {
            *why = Where(b) + Format("freeRawBlocksOld is not in descending order at %u", i);
            return false;
        }
    }
    for (UInt i = 0; i < ArrayLength(rw->freeRawBlocksNew); i++) {
        if (!mark(ArrayNth(rw->freeRawBlocksNew, i), kInFreeNew, "freeRawBlocksNew")) return false;
    }
    for (UInt raw = 0; raw < rawCount; raw++) {
        if (seen[raw] == 0) {
            *why = Where(b) + Format("raw block %u is in no list (%u blocks)", raw, rawCount);
            return false;
        }
    }
    UInt readBlocks = m->rsize / b.s->blockSize;
    std::set<UInt> oldRaw;
    for (UInt raw : b.oldMap) {
        if (raw == INVALID_RAW_BLOCK_ID) continue;
        if (raw >= readBlocks) {
            *why = Where(b) + Format("old map names raw block %u beyond the read part", raw);
            return false;
        }
        if (!oldRaw.insert(raw).second) {
            *why = Where(b) + Format("old map names raw block %u twice", raw);
            return false;
        }
        if (seen[raw] == kInFreeOld) {
            *why = Where(b) + Format("raw block %u of the old map is in freeRawBlocksOld", raw);
            return false;
        }
    }
    return true;
}

bool CheckFlags(const BucketView &b, std::string *why) {
    LocalBlockServer0RW *rw = &b.s->rw_gen;
    std::set<UInt> oldRaw(b.oldMap.begin(), b.oldMap.end());
    std::set<UInt> modified, freeBlock;
    for (UInt i = 0; i < ArrayLength(rw->modified); i++) {
        UInt id = ArrayNth(rw->modified, i);
        if (id >= b.map.size() || !modified.insert(id).second) {
            *why = Where(b) + Format("modified entry %u is out of range or twice", id);
            return false;
        }
    }
    for (UInt i = 0; i < ArrayLength(rw->freeBlock); i++) {
        UInt id = ArrayNth(rw->freeBlock, i);
        if (id >= b.map.size() || !freeBlock.insert(id).second) {
            *why = Where(b) + Format("free logical block %u is out of range or twice", id);
            return false;
        }
    }
    if (b.flags.size() != b.map.size()) {
        *why = Where(b) +
               Format("%u flags for %u logical blocks", (UInt)b.flags.size(), (UInt)b.map.size());
        return false;
    }
    for (UInt i = 0; i < b.map.size(); i++) {
        UInt raw = b.map[i];
        UByte flag = b.flags[i];
        bool invalid = raw == INVALID_RAW_BLOCK_ID;
        if (invalid != (freeBlock.count(i) != 0)) {
            *why = Where(b) + Format("logical block %u: raw %u but %s the free list", i, raw,
                                     invalid ? "not in" : "in");
            return false;
        }
        const char *fault = nullptr;
        if (flag & MAP_FLAG_FREED) {
            if (!invalid) fault = "freed with a raw block";
            if ((flag & MAP_FLAG_NEW) && !modified.count(i)) fault = "freed, new, not modified";
        } else if (flag == MAP_FLAG_OLD) {
            UInt old = i < b.oldMap.size() ? b.oldMap[i] : INVALID_RAW_BLOCK_ID;
            if (raw != old) fault = "old generation's block away from the old map's raw block";
        } else if (flag == MAP_FLAG_NEW) {
            if (invalid) {
                fault = "new without a raw block";
            } else if (oldRaw.count(raw)) {
                fault = "new in a raw block of the old map";
            } else if (!modified.count(i)) {
                fault = "new but not in modified";
            }
        } else {
            fault = "invalid flag";
        }
        if (fault != nullptr) {
            *why = Where(b) +
                   Format("logical block %u (flag %u, raw %u): %s", i, (UInt)flag, raw, fault);
            return false;
        }
    }
    return true;
}

// The pieces that the arena's lists and arrays name.
bool CheckPieces(VMArena *arena, const std::vector<BucketView> &buckets, std::string *why) {
    VMArenaRW *rw = &arena->rw_gen;
    UInt bits = arena->server.bucketBits;
    auto allocated = [&](ULong logical) {
        if (logical > 0xFFFFFFFFull) return false;
        UInt b = (UInt)logical & ((1u << bits) - 1), index = (UInt)logical >> bits;
        return b < buckets.size() && index < buckets[b].map.size() &&
               buckets[b].map[index] != INVALID_RAW_BLOCK_ID;
    };
    auto valid = [&](ULong id, std::string *fault) {
        BlockRef ref = BlockIDDecode(id);
        if ((ULong)(ref.slot + 1) * kSizes[ref.sizeClass] > ARENA_MAX_BLOCK_SIZE) {
            *fault = Format("piece %I64u has slot %u beyond its class", id, ref.slot);
            return false;
        }
        if (!allocated(ref.logical)) {
            *fault = Format("piece %I64u lies in logical block %I64u, which is not allocated", id,
                            ref.logical);
            return false;
        }
        return true;
    };
    std::set<ULong> free;
    for (UInt c = 0; c < kSizeClasses; c++) {
        if (c == kSizeClasses - 1 && ArrayLength(rw->freeBlock[c]) > 0) {
            *why = "whole blocks in the free list of class 15";
            return false;
        }
        for (UInt i = 0; i < ArrayLength(rw->freeBlock[c]); i++) {
            ULong id = ArrayNth(rw->freeBlock[c], i);
            if ((id & 15) != c) {
                *why = Format("piece %I64u in the free list of class %u", id, c);
                return false;
            }
            if (!valid(id, why)) return false;
            if (!free.insert(id).second) {
                *why = Format("piece %I64u is free twice", id);
                return false;
            }
        }
        VMArenaPartial partial = rw->partial[c];
        if (partial.block == 0xFFFFFFFFu) continue;
        if (partial.slot == 0 || partial.slot >= ARENA_MAX_BLOCK_SIZE / kSizes[c] ||
            !allocated(partial.block)) {
            *why = Format("class %u: partial block %u slot %u", c, partial.block, partial.slot);
            return false;
        }
    }
    for (UInt a = 0; a < FArrayLength(rw->array); a++) {
        VMAArray *array = ArrayRecord(rw, a);
        for (UInt i = 0; i < FArrayLength(array->blockID); i++) {
            ULong id = FArrayNth(array->blockID, ULong, i);
            if (id == INVALID_VMARENA_BLOCK_ID) continue;
            std::string fault;
            if (!valid(id, &fault)) {
                *why = Format("array %u block %u: ", a, i) + fault;
                return false;
            }
            if (free.count(id)) {
                *why = Format("array %u block %u: piece %I64u is also free", a, i, id);
                return false;
            }
        }
    }
    return true;
}

bool Temporary(const char *name) {
    if (strcmp(name, "committing") == 0) return true;
    size_t length = strlen(name);
    if (length < 8) return false;
    const char *tail = name + length - 8;
    return strcmp(tail, ".new.new") == 0 || strcmp(tail, ".old.new") == 0 ||
           strcmp(tail, ".new.old") == 0 || strcmp(tail, ".old.old") == 0;
}

bool CheckNoTemporaries(const char *dir, std::string *why) {
    DIR *d = opendir(dir);
    if (d == nullptr) return true;  // a missing block directory has nothing left over
    bool ok = true;
    while (struct dirent *entry = readdir(d)) {
        if (Temporary(entry->d_name)) {
            *why = Format("left over: \"%s/%s\"", dir, entry->d_name);
            ok = false;
            break;
        }
    }
    closedir(d);
    return ok;
}

}  // namespace

bool VMArenaCheckAccounting(VMArena *arena, std::string *why) {
    return VMArenaCheckMemory(arena, why) && VMArenaCheckFiles(arena->dir, why);
}

bool VMArenaCheckFiles(const char *dir, std::string *why) {
    std::string ignored;
    if (why == nullptr) why = &ignored;
    why->clear();
    std::string blockDir = std::string(dir) + "/block";
    return CheckNoTemporaries(dir, why) && CheckNoTemporaries(blockDir.c_str(), why);
}

bool VMArenaCheckMemory(VMArena *arena, std::string *why) {
    std::string ignored;
    if (why == nullptr) why = &ignored;
    why->clear();
    std::vector<BucketView> buckets;
    UInt count = ArrayLength(arena->server.buckets);
    if (count != arena->bucketCount) {
        *why = Format("%u buckets open, %u in the metadata", count, arena->bucketCount);
        return false;
    }
    for (UInt b = 0; b < count; b++) {
        BucketView view;
        view.s = ArrayNth(arena->server.buckets, b);
        view.index = b;
        LocalBlockServer0RW *rw = &view.s->rw_gen;
        MutexLock(&rw->mutex);
        for (UInt i = 0; i < FArrayLength(rw->map); i++)
            view.map.push_back(FArrayNth(rw->map, UInt, i));
        for (UInt i = 0; i < FArrayLength(rw->mapFlags); i++)
            view.flags.push_back(FArrayNth(rw->mapFlags, UByte, i));
        for (UInt i = 0; i < FArrayLength(view.s->r_gen); i++)
            view.oldMap.push_back(FArrayNth(view.s->r_gen, UInt, i));
        bool ok = CheckRawAccounting(view, why) && CheckFlags(view, why);
        MutexUnlock(&rw->mutex);
        if (!ok) return false;
        buckets.push_back(std::move(view));
    }
    MutexLock(&arena->rw_gen.mutex);
    bool ok = CheckPieces(arena, buckets, why);
    MutexUnlock(&arena->rw_gen.mutex);
    return ok;
}

}  // namespace qk::arena
