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
        x ^= x >> 31;
        x *= 0x94D049BB133111EBull;
        x ^= x >> 29;
        memcpy(&bytes[at], &x, 8);
    }
    return bytes;
}

struct Model {
    std::map<ULong, std::string> blocks;
    std::vector<ULong> order;  // IDs in the order of their allocation
    bool operator==(const Model &other) const { return blocks == other.blocks; }
};

// Writes the block's bytes at `version` into the new generation.
inline bool Write(VMArena *arena, Model *model, ULong id, UInt version) {
    UInt size = 0;
    VMArenaNewGenAcquire(arena, NEWGEN);
    void *address = VMArenaDataAcquire(arena, id, NEWGEN, 0, &size, nullptr);
    if (address != nullptr) {
        std::string bytes = Pattern(id, version, size);
        memcpy(address, bytes.data(), size);
        VMArenaDataRelease(arena, NEWGEN, 0, address, 0);
        model->blocks[id] = bytes;
    }
    VMArenaNewGenRelease(arena, NEWGEN);
    return address != nullptr;
}

// A new block of at least `size` bytes, written at `version`; the invalid
// ID when the allocation failed.
inline ULong New(VMArena *arena, Model *model, UInt size, UInt version) {
    VMArenaNewGenAcquire(arena, NEWGEN);
    ULong id = VMArenaBlockNew(arena, size, nullptr, NEWGEN);
    VMArenaNewGenRelease(arena, NEWGEN);
    if (id == INVALID_VMARENA_BLOCK_ID || model->blocks.count(id) != 0)
        return INVALID_VMARENA_BLOCK_ID;
    model->order.push_back(id);
    return Write(arena, model, id, version) ? id : INVALID_VMARENA_BLOCK_ID;
}

inline void Free(VMArena *arena, Model *model, ULong id) {
    VMArenaNewGenAcquire(arena, NEWGEN);
    VMArenaBlockFree(arena, id, NEWGEN);
    VMArenaNewGenRelease(arena, NEWGEN);
    model->blocks.erase(id);
    std::erase(model->order, id);
}

// "" when every block of the model reads its bytes in generation `genID`,
// else the first difference.
inline std::string Mismatch(VMArena *arena, Int genID, const Model &model) {
    std::string found;
    if (genID == OLDGEN) {
        VMArenaOldGenAcquire(arena);
    } else {
        VMArenaNewGenAcquire(arena, NEWGEN);
    }
    for (const auto &[id, bytes] : model.blocks) {
        UInt size = 0;
        const void *address = VMArenaDataAcquire(arena, id, genID, 1, &size, nullptr);
        char hex[32];
        snprintf(hex, sizeof hex, "%llx", (unsigned long long)id);
        if (address == nullptr) {
            found = std::string("block ") + hex + " is missing";
        } else if (size != bytes.size()) {
            found = std::string("block ") + hex + " has size " + std::to_string(size);
        } else if (memcmp(address, bytes.data(), size) != 0) {
            found = std::string("block ") + hex + " differs";
        }
        if (address != nullptr) VMArenaDataRelease(arena, genID, 1, (void *)address, 0);
        if (!found.empty()) break;
    }
    if (genID == OLDGEN) {
        VMArenaOldGenRelease(arena);
    } else {
        VMArenaNewGenRelease(arena, NEWGEN);
    }
    return found;
}

}  // namespace crashtest
