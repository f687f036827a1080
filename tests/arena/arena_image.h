// Writes an arena directory as a commit leaves it, from a description of
// its arrays: the library's own encoders produce the metadata files, and
// the blocks land in the data files at the raw places that the maps name.
// Array 0, the name table, is made from the other arrays' names.
//
// Blocks are laid out as the arena would: whole 8192-byte blocks, and a
// last piece of the smallest size class that holds the rest, carved from a
// logical block shared with other pieces of that class. Logical blocks go
// round robin over the buckets.
//
// `relocate` names logical blocks (by their order of creation) whose
// new-generation copy lives in another raw block with every byte inverted:
// the new and the old map then differ, and so do the generations.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "arena/arena_format.h"

namespace arenatest {

struct ImageArray {
    std::string name;
    std::string data;
    UInt eltSize = 1;  // the length counts elements
};

class ArenaImage {
  public:
    UInt buckets = 1;
    std::vector<ImageArray> arrays;  // arrays 1, 2, ...
    std::set<UInt> relocate;

    // After Write: each array's block IDs, array 0 first.
    std::vector<std::vector<ULong>> blockIDs;

    // The content of array `id` in a generation.
    std::string Content(UInt id, Int genID) const {
        std::string content = id == 0 ? Names() : arrays[id - 1].data;
        if (genID == OLDGEN) return content;
        for (size_t b = 0; b < blockIDs[id].size(); b++) {
            if (!relocated_.count(LogicalOf(blockIDs[id][b]))) continue;
            size_t at = b * ARENA_MAX_BLOCK_SIZE;
            size_t end = std::min(content.size(), at + ARENA_MAX_BLOCK_SIZE);
            for (size_t i = at; i < end; i++) content[i] = (char)~content[i];
        }
        return content;
    }

    std::string Names() const {
        std::string names;
        for (const ImageArray &a : arrays) names += a.name + std::string(1, '\0');
        return names;
    }

    bool Write(const std::string &dir) {
        using namespace qk::arena;
        bits_ = 0;
        next_ = 0;
        blocks_.clear();
        partial_.clear();
        relocated_.clear();
        while ((1u << bits_) < buckets) bits_++;
        mkdir(dir.c_str(), 0755);
        mkdir((dir + "/block").c_str(), 0755);
        VMArenaRW rw;
        VMArenaRWInit(&rw);
        blockIDs.clear();
        names_ = Names();
        for (UInt id = 0; id <= arrays.size(); id++)
            AddArray(&rw, id == 0 ? names_ : arrays[id - 1].data,
                     id == 0 ? 1 : arrays[id - 1].eltSize);
        bool ok = WriteArena(dir, &rw);
        VMArenaRWFree(&rw);
        for (UInt b = 0; ok && b < buckets; b++) ok = WriteBucket(dir, b);
        return ok;
    }

  private:
    // A whole block's bytes stay in the array's data; pieces are copied.
    struct Block {
        std::string bytes;  // 8192, for a block of pieces
        const std::string *source;
        size_t offset, size;
        UInt oldRaw, newRaw;

        std::string Bytes() const { return source ? source->substr(offset, size) : bytes; }
    };

    UInt LogicalOf(ULong id) const { return (UInt)qk::arena::BlockIDDecode(id).logical; }

    // A new logical block in its bucket; raw IDs follow the order.
    UInt NewLogical() {
        UInt k = next_++;
        UInt bucket = k % buckets, index = k / buckets;
        auto &blocks = blocks_[bucket];
        blocks.resize(index + 1);
        blocks[index] = {std::string(), nullptr, 0, 0, index, index};
        UInt logical = (index << bits_) | bucket;
        if (relocate.count(k)) relocated_.insert(logical);
        return logical;
    }

    Block &BlockOf(UInt logical) {
        return blocks_[logical & ((1u << bits_) - 1)][logical >> bits_];
    }

    void AddArray(VMArenaRW *rw, const std::string &data, UInt eltSize) {
        using namespace qk::arena;
        VMAArray array;
        VMAArrayRecordInit(&array, EMPTY_ARRAY_TYPE, 13);
        std::vector<ULong> ids;
        for (size_t at = 0; at < data.size(); at += ARENA_MAX_BLOCK_SIZE) {
            size_t size = std::min<size_t>(ARENA_MAX_BLOCK_SIZE, data.size() - at);
            UInt sizeClass = 0;
            while (kSizes[sizeClass] < size) sizeClass++;
            UInt slot = 0, logical;
            auto partial = partial_.find(sizeClass);
            if (sizeClass == 15 || partial == partial_.end()) {
                logical = NewLogical();
            } else {
                logical = partial->second.first;
                slot = partial->second.second;
            }
            if (sizeClass != 15) {
                UInt next = slot + 1;
                if (next == ARENA_MAX_BLOCK_SIZE / kSizes[sizeClass]) {
                    partial_.erase(sizeClass);
                } else {
                    partial_[sizeClass] = {logical, next};
                }
            }
            Block &block = BlockOf(logical);
            if (sizeClass == 15) {
                block.source = &data;
                block.offset = at;
                block.size = size;
            } else {
                block.bytes.resize(ARENA_MAX_BLOCK_SIZE);
                block.bytes.replace((size_t)slot * kSizes[sizeClass], size, data, at, size);
            }
            ids.push_back(BlockIDMake(sizeClass, slot, logical));
        }
        for (ULong id : ids) {
            int ok = 1;
            FArrayAdd(array.blockID, &id, &ok);
        }
        array.length = (UInt)(data.size() / eltSize);
        array.type = ids.empty() ? EMPTY_ARRAY_TYPE
                                 : (data.size() % ARENA_MAX_BLOCK_SIZE ? PARTIAL_ARRAY_TYPE
                                                                       : FULL_ARRAY_TYPE);
        int ok = 1;
        FArrayAdd(rw->array, &array, &ok);
        blockIDs.push_back(ids);
    }

    template <typename F>
    static bool WriteFile(const std::string &path, F write) {
        Channel *channel = ChannelNew(-1, -1);
        bool ok = ChannelOpenFile(channel, path.c_str(), "w") && write(channel);
        return ChannelClose(channel) && ok;
    }

    bool WriteArena(const std::string &dir, VMArenaRW *rw) {
        using namespace qk::arena;
        return WriteFile(dir + "/arena.new",
                         [&](Channel *c) {
                             return ChannelWriteIntegerLE(c, buckets, 8) &&
                                    ArenaNewGenEncode(c, rw);
                         }) &&
               WriteFile(dir + "/arena.old", [&](Channel *c) { return ArenaOldGenEncode(c, rw); });
    }

    bool WriteBucket(const std::string &dir, UInt b) {
        using namespace qk::arena;
        auto &blocks = blocks_[b];
        UInt used = (UInt)blocks.size();
        for (Block &block : blocks) {
            if (relocated_.count((UInt)(&block - blocks.data()) << bits_ | b))
                block.newRaw = used++;
        }
        // The committed size is padded to whole 64 KiB; the padding is free.
        UInt rawCount = (used + 7) / 8 * 8;
        LocalBlockServer0RW rw{};
        FArrayInitHeap(rw.map, 1024);
        FArray oldMap;
        FArrayInitHeap(oldMap, 1024);
        for (Block &block : blocks) {
            int ok = 1;
            FArrayAdd(rw.map, &block.newRaw, &ok);
            FArrayAdd(oldMap, &block.oldRaw, &ok);
        }
        for (UInt raw = rawCount; raw-- > used;) ArrayAdd(rw.freeRawBlocksOld, raw);
        ULong rsize = (ULong)rawCount * ARENA_MAX_BLOCK_SIZE;
        std::string suffix = Hex(b);
        bool ok = WriteFile(dir + "/block/index" + suffix + ".new",
                            [&](Channel *c) {
                                return IndexNewGenEncode(c, ARENA_MAX_BLOCK_SIZE, rsize, &rw);
                            }) &&
                  WriteFile(dir + "/block/index" + suffix + ".old",
                            [&](Channel *c) { return IndexOldGenEncode(c, &oldMap); });
        FArrayFree(rw.map, UInt);
        FArrayFree(oldMap, UInt);
        ArrayFree(rw.freeRawBlocksOld);
        int fd = open((dir + "/block/data" + suffix).c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
        if (fd < 0) return false;
        ok = ok && ftruncate(fd, rsize > 65536 ? (off_t)rsize : 65536) == 0;
        for (Block &block : blocks) {
            ok = ok && (block.source
                            ? Put(fd, block.oldRaw, block.source->data() + block.offset, block.size)
                            : Put(fd, block.oldRaw, block.bytes.data(), block.bytes.size()));
            if (block.newRaw != block.oldRaw) {
                std::string inverted = block.Bytes();
                for (char &c : inverted) c = (char)~c;
                ok = ok && Put(fd, block.newRaw, inverted.data(), inverted.size());
            }
        }
        return close(fd) == 0 && ok;
    }

    static bool Put(int fd, UInt raw, const char *bytes, size_t size) {
        return pwrite(fd, bytes, size, (off_t)raw * ARENA_MAX_BLOCK_SIZE) == (ssize_t)size;
    }

    static std::string Hex(UInt value) {
        char text[16];
        snprintf(text, sizeof text, "%x", value);
        return text;
    }

    std::string names_;
    UInt bits_ = 0;
    UInt next_ = 0;
    std::map<UInt, std::vector<Block>> blocks_;
    std::map<UInt, std::pair<UInt, UInt>> partial_;  // class -> logical block, next slot
    std::set<UInt> relocated_;                       // logical IDs
};

}  // namespace arenatest
