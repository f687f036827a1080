// What an arena holds, for the crash tests: every live block's ID and bytes.
// Changes go to the arena's new generation and to the model together; the
// model of a committed state is then compared block by block with either
// generation of a reopened arena.
#pragma once

#include <string.h>

#include <map>
#include <string>
#include <vector>

#include "qk/arena.h"
#include "qk/frame.h"

namespace crashtest {

// Deterministic bytes for a block at a version: 64-bit words of a mixed
// counter, so that any two (id, version) pairs differ in every word.
inline std::string Pattern(ULong id, UInt version, UInt size) {
    std::string bytes(size, '\0');
    for (UInt at = 0; at < size; at += 8) {
        ULong x = id * 0x9E3779B97F4A7C15ull + version * 0xBF58476D1CE4E5B9ull + at;
        x = (x ^ x >> 31) * 0x94D049BB133111EBull;
        x ^= x >> 29;
        memcpy(&bytes[at], &x, 8);
    }
    return bytes;
}

struct Model {
    std::map<ULong, std::string> blocks;
    std::vector<ULong> order;  // IDs in the order of their allocation
    bool operator==(const Model &other) const = default;
};

// Runs `body` under the hold of generation `genID`: the shared hold of the
// new generation against a commit, or the old generation's lock.
template <typename F>
auto Holding(VMArena *arena, Int genID, F body) {
    VMArenaNewGenAcquire(arena, genID);
    auto result = body();
    VMArenaNewGenRelease(arena, genID);
    return result;
}

// Writes the block's bytes at `version` into the new generation.
inline bool Write(VMArena *arena, Model *model, ULong id, UInt version) {
    return Holding(arena, NEWGEN, [&] {
        UInt size = 0;
        void *address = VMArenaDataAcquire(arena, id, NEWGEN, 0, &size, nullptr);
        if (address == nullptr) return false;
        model->blocks[id] = Pattern(id, version, size);
        memcpy(address, model->blocks[id].data(), size);
        VMArenaDataRelease(arena, NEWGEN, 0, address, 0);
        return true;
    });
}

// A new block of at least `size` bytes, written at `version`; the invalid
// ID when the allocation failed.
inline ULong New(VMArena *arena, Model *model, UInt size, UInt version) {
    ULong id =
        Holding(arena, NEWGEN, [&] { return VMArenaBlockNew(arena, size, nullptr, NEWGEN); });
    if (id == INVALID_VMARENA_BLOCK_ID || model->blocks.count(id) != 0)
        return INVALID_VMARENA_BLOCK_ID;
    model->order.push_back(id);
    return Write(arena, model, id, version) ? id : INVALID_VMARENA_BLOCK_ID;
}

inline void Free(VMArena *arena, Model *model, ULong id) {
    Holding(arena, NEWGEN, [&] { return VMArenaBlockFree(arena, id, NEWGEN), 0; });
    model->blocks.erase(id);
    std::erase(model->order, id);
}

// "" when every block of the model reads its bytes in generation `genID`,
// else the first difference.
inline std::string Mismatch(VMArena *arena, Int genID, const Model &model) {
    return Holding(arena, genID, [&] {
        for (const auto &[id, bytes] : model.blocks) {
            UInt size = 0;
            const void *address = VMArenaDataAcquire(arena, id, genID, 1, &size, nullptr);
            bool same = address && size == bytes.size() && !memcmp(address, bytes.data(), size);
            if (address) VMArenaDataRelease(arena, genID, 1, (void *)address, 0);
            if (same) continue;
            std::string why =
                size != bytes.size() ? " has size " + std::to_string(size) : " differs";
            return "block " + std::to_string(id) + (address ? why : " is missing");
        }
        return std::string();
    });
}

}  // namespace crashtest
