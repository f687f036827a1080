// PITree: random keys with shared prefixes against a map of every node,
// through finds, enumerations below random prefixes and depths, commits and
// a read-only reopen; leaves exploding into head nodes on the way.
#include <algorithm>
#include <atomic>
#include <map>
#include <random>
#include <thread>
#include <vector>

#include "arena/arena_internal.h"
#include "collection/collection_test.h"
#include "collection/pictree_model.h"
#include "collection/pitree_internal.h"

namespace {

using pictest::Key;
using pictest::Model;  // every node and its data

// The random test has no threads; under ThreadSanitizer it takes fewer steps.
#if defined(__SANITIZE_THREAD__)
constexpr int kSteps = 30000;
#else
constexpr int kSteps = 100000;
#endif

bool IsPrefix(const Key &p, const Key &k) {
    return p.size() <= k.size() && std::equal(p.begin(), p.end(), k.begin());
}

// The nodes an enumeration gives, in its order: sons before their parent.
std::vector<std::pair<Key, ULong>> Expected(const Model &m, const Key &prefix, Int depth,
                                            bool includePrefix, bool includeEmpty) {
    std::vector<std::pair<Key, ULong>> out;
    for (auto it = m.lower_bound(prefix); it != m.end() && IsPrefix(prefix, it->first); ++it) {
        const auto &[key, data] = *it;
        if ((depth >= 0 && key.size() > prefix.size() + depth) ||
            (key == prefix && !includePrefix) || (data == 0 && !includeEmpty))
            continue;
        out.push_back({key, data});
    }
    if (!prefix.empty() && !m.count(prefix)) out.clear();  // nothing below an absent prefix
    std::sort(out.begin(), out.end(), [](const auto &a, const auto &b) {
        if (IsPrefix(a.first, b.first) || IsPrefix(b.first, a.first))
            return a.first.size() > b.first.size();
        return a.first < b.first;
    });
    return out;
}

class PITreeTest : public CollectionTest {
  protected:
    void SetUp() override {
        CollectionTest::SetUp();
        td = PITreeThreadDataNew();
        OpenTree(1);
    }
    void TearDown() override {
        PITreeThreadDataFree(td);
        PITreeFree(tree);
        CollectionTest::TearDown();
    }
    void OpenTree(int create) {
        PITreeFree(tree);
        tree = PITreeNew(arena, path, "tree", &create, 0);
        ASSERT_NE(tree, nullptr) << QKErrorMessage();
    }
    std::vector<std::pair<Key, ULong>> Enumerate(const Key &prefix, Int depth, Int genID,
                                                 bool includePrefix, bool includeEmpty) {
        PITreeEnumeration *e = PITreeEnumerationNew();
        PITreeEnumerationInit(tree, e, prefix.data(), (UInt)prefix.size(), depth, genID,
                              includePrefix, includeEmpty);
        std::vector<std::pair<Key, ULong>> out;
        const UInt *key;
        UInt length;
        ULong data;
        while (PITreeEnumerationGetNext(e, &key, &length, &data))
            out.push_back({Key(key, key + length), data});
        PITreeEnumerationFree(e);
        return out;
    }
    // Every node and the key count of a generation against the model.
    void Expect(const Model &m, Int genID) {
        ASSERT_EQ(Enumerate({}, -1, genID, 0, 1), Expected(m, {}, -1, 0, 1));
        UInt withData = 0;
        for (const auto &[key, data] : m) {
            withData += data != 0;
            ASSERT_EQ(PITreeFind(tree, td, key.data(), (UInt)key.size(), 0, genID, 0, 0, 0), data);
        }
        EXPECT_EQ(PITreeGetSize(tree, genID), withData);
    }

    PITreeThreadData *td = nullptr;
    PITree *tree = nullptr;
};

TEST_F(PITreeTest, RandomAgainstModel) {
    std::mt19937 rng(17);
    Model model, committed;
    EXPECT_TRUE(PITreeEmpty(tree, NEWGEN));
    EXPECT_EQ(Enumerate({}, -1, NEWGEN, 1, 1).size(), 0u);
    std::vector<Key> used;  // keys given so far, to come back to
    auto randomKey = [&] {
        if (!used.empty() && rng() % 3 == 0) {
            Key key = used[rng() % used.size()];
            if (rng() % 2) key.push_back(rng() % 6);
            return key;
        }
        Key key(rng() % 3 ? rng() % 6 + 1 : rng() % 40 + 1);
        for (UInt &a : key) a = rng() % 3 ? rng() % 4 + 'a' : rng();
        used.push_back(key);
        return key;
    };
    UInt explosions = 0;
    for (int step = 0; step < kSteps; step++) {
        Key key = randomKey();
        ULong data = rng() % 5 == 0 ? 0 : rng() % 3 ? rng() % 200 + 1 : (ULong)rng() << 40;
        int op = rng() % 100 == 0 ? 9 : rng() % 9;  // 1 in 100 enumerates
        UInt nodes = PIMTreeNodeCount(tree->head, NEWGEN);
        if (op < 6) {
            bool force = op == 0;
            ULong got =
                PITreeFind(tree, td, key.data(), (UInt)key.size(), data, NEWGEN, 1, 0, force);
            pictest::Insert(model, key, data, force);
            ASSERT_EQ(got, model[key]) << step;
        } else if (op < 9) {
            ASSERT_EQ(PITreeFind(tree, td, key.data(), (UInt)key.size(), 0, NEWGEN, 0, 1, 0),
                      pictest::DataOf(model, key));
            pictest::Remove(model, key);
        } else {
            // Enumerations below a node, with every option.
            Int depth = (Int)(rng() % 4) - 1;
            bool withPrefix = rng() % 2, withEmpty = rng() % 2;
            ASSERT_EQ(Enumerate(key, depth, NEWGEN, withPrefix, withEmpty),
                      Expected(model, key, depth, withPrefix, withEmpty))
                << step;
        }
        explosions += PIMTreeNodeCount(tree->head, NEWGEN) > nodes;
        if (step % (kSteps / 5) == kSteps / 5 - 1) {
            Expect(model, NEWGEN);
            Expect(committed, OLDGEN);
            Commit();
            PITreeCommit(tree);
            committed = model;
        }
    }
    EXPECT_GT(explosions, 3u);
    Open(VM_FLAG_MAPPED | VM_FLAG_READ_ONLY);
    OpenTree(0);
    Expect(committed, OLDGEN);
    Open(VM_FLAG_MAPPED);
    OpenTree(0);
    PITreeClear(tree, NEWGEN);
    Expect({}, NEWGEN);
}

// Readers of the committed image, each with its own thread data, beside a
// writer that grows the tree (leaves explode) and commits: every key of the
// first commit reads back with its data throughout.
TEST_F(PITreeTest, OldGenerationReadersBesideTheWriter) {
    auto key = [](UInt i) { return Key{'k', i % 7, i, i * 31}; };
    for (UInt i = 0; i < 2000; i++) PITreeFind(tree, td, key(i).data(), 4, i + 1, NEWGEN, 1, 0, 0);
    Commit();
    PITreeCommit(tree);
    std::atomic<bool> done{false};
    std::atomic<UInt> faults{0};
    std::vector<std::thread> readers;
    for (int r = 0; r < 2; r++) {
        readers.emplace_back([&, r] {
            PITreeThreadData *own = PITreeThreadDataNew();
            for (UInt i = r; !done; i = (i + 7) % 2000) {
                VMArenaOldGenAcquire(arena);
                faults += PITreeFind(tree, own, key(i).data(), 4, 0, OLDGEN, 0, 0, 0) != i + 1;
                VMArenaOldGenRelease(arena);
            }
            PITreeThreadDataFree(own);
        });
    }
    for (UInt i = 2000; i < 12000; i++) {
        PITreeFind(tree, td, key(i).data(), 4, i + 1, NEWGEN, 1, 0, 0);
        if (i % 2500 == 0) {
            Commit();
            VMArenaFlushCommitMemoryAcquire(arena);
            PITreeCommit(tree);
            VMArenaFlushCommitMemoryRelease(arena);
        }
    }
    done = true;
    for (std::thread &t : readers) t.join();
    EXPECT_EQ(faults, 0u);
    EXPECT_GT(PIMTreeNodeCount(tree->head, NEWGEN), 3u);  // leaves exploded
}

// A key that ends in the head keeps its data and its leaf's sons apart; the
// last key of a leaf takes the leaf and its transition with it.
TEST_F(PITreeTest, HeadAndLeafBoundaries) {
    // Enough keys below 'x' to explode the leaf that holds them.
    std::vector<Key> keys;
    for (UInt i = 0; i < 1500; i++) keys.push_back({'x', i, i * 7});
    for (const Key &k : keys) PITreeFind(tree, td, k.data(), 3, 5, NEWGEN, 1, 0, 0);
    ASSERT_GT(PIMTreeNodeCount(tree->head, NEWGEN), 1u);
    Key x = {'x'};
    EXPECT_EQ(PITreeFind(tree, td, x.data(), 1, 9, NEWGEN, 1, 0, 0), 9u);
    EXPECT_EQ(PITreeFind(tree, td, x.data(), 1, 0, NEWGEN, 0, 1, 0), 9u);
    EXPECT_EQ(PITreeGetSize(tree, NEWGEN), 1500u);
    // The callback form stops at the first answer that is not 0; a walker
    // gives back the leaves it read.
    int calls = 0;
    auto third = [](const UInt *, UInt, UInt, UInt, void *n) { return ++*(int *)n == 3 ? 42 : 0; };
    EXPECT_EQ(PITreeEnumerate(tree, td, x.data(), 1, -1, third, &calls, NEWGEN, 1, 0), 42);
    PtrArray acquired = {};
    PITreeState root = PITreeStateOfNode(tree, 0, NEWGEN, &acquired), son, sibling;
    UInt atom;
    ULong data;
    PITreeStateNext(tree, &root, &atom, &data, &son, &sibling, NEWGEN, &acquired);
    EXPECT_TRUE(atom == 'x' && PITreeStateAtEnd(&sibling) && !PITreeStateAtEnd(&son));
    PITreeStateRelease(tree, NEWGEN, &acquired);
    EXPECT_EQ(acquired.length, 0u);
    ArrayFree(acquired);
    PITreePrefetch(tree, td, keys[0].data(), 3, NEWGEN);
    PITreeThreadDataReInit(td);
    for (const Key &k : keys) PITreeFind(tree, td, k.data(), 3, 0, NEWGEN, 0, 1, 0);
    EXPECT_TRUE(PITreeEmpty(tree, NEWGEN));
    EXPECT_EQ(PITreeGetSize(tree, NEWGEN), 0u);
    // Every leaf is free again, and the next ones are taken from there.
    UInt freed = VMAArrayLength(tree->free, NEWGEN);
    EXPECT_GT(freed, 1u);
    PITreeFind(tree, td, x.data(), 1, 1, NEWGEN, 1, 0, 0);
    EXPECT_EQ(VMAArrayLength(tree->free, NEWGEN), freed - 1);
}

}  // namespace

namespace {

// The arena's array directory runs on a tree: 10,000 names found after a
// read-only reopen, and an arena whose directory only scanned gains a tree
// (or brings it up to date) from its name table at its next writable open.
TEST_F(CollectionTest, ArrayNamesThroughTheTree) {
    auto make = [&](UInt from, UInt to) {
        for (UInt i = from; i < to; i++) {
            VMAArrayHandle h;
            int create = 1;
            std::string name = "n" + std::to_string(i * 7919);
            ASSERT_TRUE(
                VMAArrayInitFromPath(arena, &create, 0, 0, 0, path, "names", name.c_str(), &h) &&
                create);
        }
    };
    auto expectAll = [&](UInt count, Int genID) {
        for (UInt i = 0; i < count; i++) {
            std::string name = "c/names/n" + std::to_string(i * 7919);
            int create = 0;
            Int id = VMAArrayFind(arena, genID, name.data(), (UInt)name.size(), 0, &create, 0, 0);
            ASSERT_TRUE(id > 0 && create == 0) << name;
            int linear = 0;
            ASSERT_EQ(VMAArrayFind(arena, genID, name.data(), (UInt)name.size(), 1, &linear, 0, 0),
                      id);
        }
        int create = 0;
        EXPECT_EQ(VMAArrayFind(arena, genID, "c/names/n1", 10, 0, &create, 0, 0), -2);
    };
    make(0, 10000);
    Commit();
    Open(VM_FLAG_MAPPED | VM_FLAG_READ_ONLY);
    expectAll(10000, OLDGEN);

    TempDir other;
    std::swap(dir, other);
    Open(VM_FLAG_CREATE | VM_FLAG_MAPPED | qk::arena::kFlagNameScan);
    make(0, 50);
    Commit();
    Open(VM_FLAG_MAPPED);
    expectAll(50, NEWGEN);
    make(50, 60);
    expectAll(60, NEWGEN);
    // Names made while the directory scanned again catch up at the next open.
    Commit();
    Open(VM_FLAG_MAPPED | qk::arena::kFlagNameScan);
    make(60, 70);
    Commit();
    Open(VM_FLAG_MAPPED);
    expectAll(70, NEWGEN);
    std::swap(dir, other);
}

}  // namespace
