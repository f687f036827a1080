// A PITree whose leaf holds the fuzzer's bytes. The tree is made anew for
// each input: key {1} in the head, leading to a leaf whose content the
// input replaces. A leaf that does not validate is damage, which the tree
// meets with its assertion: such input goes no further. A leaf that
// validates, whatever trie it holds, is enumerated, every node found, and
// a key inserted below it (which may explode the leaf) and removed again,
// after which the tree enumerates as before.
#include <vector>

#include "collection/pictree_internal.h"
#include "collection/pitree_internal.h"
#include "fuzz_util.h"

namespace {

using Nodes = std::vector<std::pair<std::vector<UInt>, ULong>>;

struct Fixture {
    VMArena *arena;
    PITree *tree;
    PITreeThreadData *td;
};

Fixture &TheTree() {
    static Fixture *f = [] {
        auto *f = new Fixture{qkfuzz::KeptArena(), nullptr, nullptr};
        char path[VMARENA_PATH_SIZE] = "";
        int create = 1;
        f->tree = PITreeNew(f->arena, path, "fuzz", &create, 1);
        f->td = PITreeThreadDataNew();
        FUZZ_CHECK(f->tree != nullptr);
        atexit([] {
            PITreeThreadDataFree(TheTree().td);
            PITreeFree(TheTree().tree);
        });
        return f;
    }();
    return *f;
}

Nodes Enumerate(PITree *tree) {
    Nodes nodes;
    PITreeEnumeration *e = PITreeEnumerationNew();
    PITreeEnumerationInit(tree, e, nullptr, 0, -1, NEWGEN, 0, 1);
    const UInt *key;
    UInt length;
    ULong data;
    while (PITreeEnumerationGetNext(e, &key, &length, &data))
        nodes.push_back({std::vector<UInt>(key, key + length), data});
    PITreeEnumerationFree(e);
    return nodes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size >= PICTREE_LENGTH_LIMIT || !qk::pictree::Validate(data, (UInt)size)) return 0;
    Fixture &f = TheTree();
    PITreeClear(f.tree, NEWGEN);
    const UInt one[3] = {1, 0x7FFFFFFF, 3};
    FUZZ_CHECK(PITreeFind(f.tree, f.td, one, 1, 7, NEWGEN, 1, 0, 0) == 7);
    PIMTreeResult head =
        PIMTreeFind(f.tree->head, f.td->pim, one, 1, 0, 0, 0, 0, 0, nullptr, nullptr, NEWGEN);
    FUZZ_CHECK(head.found && !head.internal);
    FUZZ_CHECK(PITreeFillLeaf(f.tree, head.to & ~PIMTREE_LEAF_BIT, data, (UInt)size, NEWGEN));

    const Nodes before = Enumerate(f.tree);
    FUZZ_CHECK(!before.empty() && before.back().first == std::vector<UInt>{1});
    for (const auto &[key, value] : before)
        FUZZ_CHECK(PITreeFind(f.tree, f.td, key.data(), (UInt)key.size(), 0, NEWGEN, 0, 0, 0) ==
                   value);
    for (const auto &node : before)
        if (node.first == std::vector<UInt>(one, one + 3)) return 0;
    FUZZ_CHECK(PITreeFind(f.tree, f.td, one, 3, 5, NEWGEN, 1, 0, 0) == 5);
    FUZZ_CHECK(PITreeFind(f.tree, f.td, one, 3, 0, NEWGEN, 0, 0, 0) == 5);
    FUZZ_CHECK(PITreeFind(f.tree, f.td, one, 3, 0, NEWGEN, 0, 1, 0) == 5);
    // The removal prunes the new nodes, and a node without data or sons on
    // their way: {1, 0x7FFFFFFF} when it was such a node.
    Nodes expected = before;
    const std::vector<UInt> middle(one, one + 2);
    bool hasSons = false;
    for (const auto &node : before) hasSons |= node.first.size() > 2 && node.first[1] == middle[1];
    for (size_t i = 0; i < expected.size(); i++)
        if (expected[i].first == middle && expected[i].second == 0 && !hasSons)
            expected.erase(expected.begin() + (long)i);
    FUZZ_CHECK(Enumerate(f.tree) == expected);
    return 0;
}
