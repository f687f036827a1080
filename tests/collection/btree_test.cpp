// B-trees: node geometry and bytes, both key widths against a map through
// growth to several levels and shrinking to nothing (splits, shares,
// merges), over commits with the committed image checked, a read-only
// reopen, and readers of the committed image beside a committing writer.
#include <atomic>
#include <map>
#include <random>
#include <thread>
#include <vector>

#include "collection/btree_internal.h"
#include "collection/collection_test.h"

namespace {

using qk::btree::Node;
using Model = std::map<ULong, ULong>;

class BTreeTest : public CollectionTest {
  protected:
    void TearDown() override {
        BTreeFree(tree);
        CollectionTest::TearDown();
    }
    void OpenTree(int create, UInt keySize, UInt valueSize) {
        BTreeFree(tree);
        tree = BTreeNew(arena, path, "bt", &create, 0, keySize, valueSize);
        ASSERT_NE(tree, nullptr) << QKErrorMessage();
    }
    const UByte *Block(UInt block, Int genID) {
        return (const UByte *)VMArenaDataBlockAcquire(arena, block, genID, 1);
    }
    std::vector<std::pair<ULong, ULong>> Entries(Int genID) {
        std::vector<std::pair<ULong, ULong>> out;
        BTreeEnumeration *e = BTreeEnumerationNew(tree, tree->keySize, genID);
        ULong key, value;
        while (BTreeEnumerationNext(e, &key, &value)) out.push_back({key, value});
        EXPECT_EQ(BTreeEnumerationNext(e, &key, &value), 0);  // stays finished
        BTreeEnumerationFree(e);
        return out;
    }
    // The tree's shape: keys ascending within their parent's bounds, counts
    // within bounds (a split of an even count may leave half less one),
    // every leaf at one depth; the number of nodes, and the depth.
    template <typename K>
    UInt Shape(UInt block, Int genID, ULong lo, ULong hi, bool root, UInt depth, UInt *leafDepth) {
        Node<K> n{(UByte *)Block(block, genID), tree};
        UInt count = n.Count(), nodes = 1;
        EXPECT_TRUE(root || count + 1 >= n.Max() / 2) << count;
        for (UInt i = 0; i < count; i++) {
            EXPECT_TRUE(n.Key(i) >= lo && n.Key(i) <= hi && (i == 0 || n.Key(i - 1) < n.Key(i)));
        }
        if (n.Leaf()) {
            if (*leafDepth == 0) *leafDepth = depth;
            EXPECT_EQ(*leafDepth, depth);
            return nodes;
        }
        for (UInt i = 0; i <= count; i++)
            nodes += Shape<K>(n.Son(i), genID, i ? n.Key(i - 1) + 1 : lo,
                              i < count ? n.Key(i) - 1 : hi, false, depth + 1, leafDepth);
        return nodes;
    }
    UInt Shape(Int genID, UInt *depth) {
        *depth = 0;
        UInt root = BTreeRoot(tree, genID);
        if (root == BTREE_INVALID_BLOCK_ID) return 0;
        return tree->keySize == 4 ? Shape<UInt>(root, genID, 0, ~0u, true, 1, depth)
                                  : Shape<ULong>(root, genID, 0, ~0ull, true, 1, depth);
    }
    // A generation against the model: the enumeration, the callback walk
    // (stopped early once), the shape, and finds with their neighbours.
    void Expect(const Model &m, Int genID, std::mt19937_64 &rng) {
        ASSERT_EQ(Entries(genID), (std::vector<std::pair<ULong, ULong>>(m.begin(), m.end())));
        // The callback walk, stopped by the callback half-way.
        struct Walk {
            Model::const_iterator it, end;
            size_t left;
        } walk{m.begin(), m.end(), m.size() / 2 + 1};
        auto check = [](ULong key, ULong value, void *arg) {
            auto *w = (Walk *)arg;
            if (w->it == w->end || w->it->first != key || w->it->second != value) return 1;
            ++w->it;
            return --w->left == 0 ? 7 : 0;
        };
        EXPECT_EQ(BTreeEnumerate(tree, tree->keySize, check, &walk, genID), m.empty() ? 0 : 7);
        UInt depth;
        Shape(genID, &depth);
        for (int i = 0; i < 200; i++) ExpectFind(m, Draw(rng), genID);
    }
    ULong Draw(std::mt19937_64 &rng) {
        ULong key = (rng() % span) * 0x9E3779B97F4A7C15ull;
        return tree->keySize == 4 ? (UInt)key : key;
    }
    // A lookup and its neighbours in the full form, against the model.
    void ExpectFind(const Model &m, ULong key, Int genID) {
        auto it = m.lower_bound(key);
        bool hit = it != m.end() && it->first == key;
        ULong prev[2], next[2], none = tree->keySize == 4 ? 0xFFFFFFFFull : ~0ull;
        ULong expectPrev = it == m.begin() ? none : std::prev(it)->first;
        auto after = hit ? std::next(it) : it;
        ULong expectNext = after == m.end() ? none : after->first;
        ULong got;
        if (tree->keySize == 4) {
            UInt pk, nk;
            got =
                UIntBTreeFind(tree, (UInt)key, 0, 99, &pk, &prev[1], &nk, &next[1], 0, 0, 0, genID);
            prev[0] = pk, next[0] = nk;
        } else {
            got = ULongBTreeFind(tree, key, 0, 99, &prev[0], &prev[1], &next[0], &next[1], 0, 0, 0,
                                 genID);
        }
        ASSERT_EQ(got, hit ? it->second : 99u) << key;
        ASSERT_EQ(prev[0], expectPrev) << key;
        ASSERT_EQ(next[0], expectNext) << key;
        if (expectPrev != none) {
            ASSERT_EQ(prev[1], m.at(expectPrev));
        }
        if (expectNext != none) {
            ASSERT_EQ(next[1], m.at(expectNext));
        }
        ULong value;
        ASSERT_EQ(BTreePrevKey(tree, key, &value, genID), it == m.begin() ? ~0ull : expectPrev);
    }

    BTree *tree = nullptr;
    ULong span = 1;
};

// Node geometry per key and value size, and the bytes of a leaf and of the
// root above its first split, computed by hand.
TEST_F(BTreeTest, NodeLayout) {
    struct Case {
        UInt keySize, valueSize, leafMax, internalMax;
    } cases[] = {{4, 0, 2046, 1023}, {8, 5, 629, 481}, {4, 3, 1169, 744}, {8, 8, 511, 409}};
    int n = 0;
    for (const Case &c : cases) {
        int create = 1;
        std::string name = "g" + std::to_string(n++);
        BTree *t = BTreeNew(arena, path, name.c_str(), &create, 0, c.keySize, c.valueSize);
        ASSERT_TRUE(t && create);
        EXPECT_EQ(t->maxKeyCount[1], c.leafMax);
        EXPECT_EQ(t->maxKeyCount[0], c.internalMax);
        BTreeFree(t);
        // The stored value size wins at an open.
        create = 0;
        t = BTreeNew(arena, path, name.c_str(), &create, 0, c.keySize, 7);
        EXPECT_EQ(BTreeValueSize(t), c.valueSize);
        BTreeFree(t);
    }
    // 32-bit keys, 3-byte values: values at 1169 * 4 = 4676, sons at
    // 1169 * 7 = 8183 in a leaf and 744 * 7 = 5208 in an internal node.
    OpenTree(1, 4, 3);
    BTreeFind(tree, 0x0A0B0C0D, 0x010203, 0, 1, 0, 0, NEWGEN);
    BTreeFind(tree, 5, 0xABCDEF, 0, 1, 0, 0, NEWGEN);
    UInt root = BTreeRoot(tree, NEWGEN);
    struct Bytes {
        UInt offset;
        std::vector<UByte> bytes;
    };
    auto expectBytes = [&](UInt block, const std::vector<Bytes> &table) {
        const UByte *b = Block(block, NEWGEN);
        for (const Bytes &t : table)
            EXPECT_EQ(std::vector<UByte>(b + t.offset, b + t.offset + t.bytes.size()), t.bytes)
                << t.offset;
    };
    expectBytes(root, {{0, {5, 0, 0, 0, 0x0D, 0x0C, 0x0B, 0x0A}},
                       {4676, {0xAB, 0xCD, 0xEF, 0x01, 0x02, 0x03}},
                       {8189, {1, 2, 0}}});
    // Keys 6 .. 1172 fill the leaf (1169 keys, 0x0A0B0C0D last); 1173
    // splits it: the key at 1169 / 2 = 584 (589) is below 1173, so the key
    // at 585 (590 = 0x24E) moves up; keys 5 .. 589 (585) stay left, 591 ..
    // 1173 and 0x0A0B0C0D (584) go right.
    for (UInt k = 6; k <= 1173; k++) BTreeFind(tree, k, k, 0, 1, 0, 0, NEWGEN);
    UInt top = BTreeRoot(tree, NEWGEN);
    const UByte *r = Block(top, NEWGEN);
    UInt right = r[5212] | r[5213] << 8 | r[5214] << 16 | (UInt)r[5215] << 24;
    expectBytes(
        top, {{0, {0x4E, 0x02, 0, 0}},
              {2976, {0x00, 0x02, 0x4E}},
              {5208, {(UByte)root, (UByte)(root >> 8), (UByte)(root >> 16), (UByte)(root >> 24)}},
              {8189, {0, 1, 0}}});
    expectBytes(root, {{2336, {0x4D, 0x02, 0, 0}}, {8189, {1, 0x49, 0x02}}});
    expectBytes(right, {{0, {0x4F, 0x02, 0, 0}},
                        {2332, {0x0D, 0x0C, 0x0B, 0x0A}},
                        {4676 + 583 * 3, {0x01, 0x02, 0x03}},
                        {8189, {1, 0x48, 0x02}}});
}

struct RandomCase {
    UInt keySize, valueSize, target, minDepth;
};

class BTreeRandom : public BTreeTest, public ::testing::WithParamInterface<RandomCase> {};

// Grows the tree to `target` keys with creates, updates and removals, then
// shrinks it to nothing; every op against the map, each generation checked
// at each commit, the committed one after a read-only reopen.
TEST_P(BTreeRandom, AgainstMap) {
    const RandomCase c = GetParam();
    OpenTree(1, c.keySize, c.valueSize);
    span = 2 * c.target;
    std::mt19937_64 rng(c.keySize * 100 + c.valueSize);
    ULong mask = c.valueSize == 8 ? ~0ull : (1ull << 8 * c.valueSize) - 1;
    Model model, committed;
    UInt maxDepth = 0, maxNodes = 0, step = 0;
    for (int phase = 0; phase < 2; phase++) {
        while (phase == 0 ? model.size() < c.target : !model.empty()) {
            int op = rng() % 20;
            bool grow = phase == 0 ? op < 15 : op < 4;
            ULong key = Draw(rng);
            if (phase == 1 && op % 2) {  // mostly present keys while shrinking
                auto near = model.lower_bound(key);
                key = near == model.end() ? model.begin()->first : near->first;
            }
            ULong value = rng() & mask;
            auto it = model.find(key);
            ULong had = it == model.end() ? 99 : it->second;
            if (op == 19) {
                ExpectFind(model, key, NEWGEN);
            } else if (grow) {
                int update = rng() % 3 == 0;
                ASSERT_EQ(BTreeFind(tree, key, value, 99, 1, update, 0, NEWGEN), had);
                if (it == model.end() || update) model[key] = value;
                maxDepth = std::max(maxDepth, tree->path.length);
            } else {
                ASSERT_EQ(BTreeFind(tree, key, 0, 99, 0, 0, 1, NEWGEN), had);
                model.erase(key);
            }
            if (++step % (c.target / 2) == 0) {
                UInt depth;
                maxNodes = std::max(maxNodes, Shape(NEWGEN, &depth));
                Expect(model, NEWGEN, rng);
                Expect(committed, OLDGEN, rng);
                Commit();
                BTreeCommit(tree);
                committed = model;
            }
        }
    }
    EXPECT_GE(maxDepth, c.minDepth);
    UInt depth;
    EXPECT_EQ(Shape(NEWGEN, &depth), 1u);  // merges brought it back to one leaf
    EXPECT_LT(1u, maxNodes);
    // Empty: a leaf root without keys, the root array keeps its element.
    EXPECT_EQ(VMAArrayLength(tree->root, NEWGEN), 1u);
    EXPECT_EQ(Entries(NEWGEN).size(), 0u);
    ULong all = BTreeNextKey(tree, 1, nullptr, NEWGEN);
    EXPECT_EQ(all, ~0ull);
    // Refill a little, commit, reopen read-only: the committed image.
    for (int i = 0; i < 3000; i++) {
        ULong key = Draw(rng);
        model.emplace(key, key & mask);
        BTreeFind(tree, key, key & mask, 0, 1, 0, 0, NEWGEN);
    }
    Commit();
    BTreeCommit(tree);
    // A create of a present key gives its value and copies no block.
    UInt root = BTreeRoot(tree, NEWGEN);
    UInt raw = VMABlockInfoGet(arena, root, NEWGEN, nullptr);
    ULong key = model.begin()->first;
    EXPECT_EQ(BTreeFind(tree, key, 1, 0, 1, 0, 0, NEWGEN), model.begin()->second);
    EXPECT_EQ(VMABlockInfoGet(arena, root, NEWGEN, nullptr), raw);
    EXPECT_EQ(BTreePrevKey(tree, key, nullptr, NEWGEN), ~0ull);
    EXPECT_EQ(BTreeNextKey(tree, model.rbegin()->first, nullptr, NEWGEN), ~0ull);
    BTreeFree(tree);
    tree = nullptr;
    Open(VM_FLAG_MAPPED | VM_FLAG_READ_ONLY);
    OpenTree(0, c.keySize, 0);
    EXPECT_EQ(BTreeValueSize(tree), c.valueSize);
    Expect(model, OLDGEN, rng);
    BTreeFree(tree);
    tree = nullptr;
    Open(VM_FLAG_MAPPED);
    OpenTree(0, c.keySize, c.valueSize);
    BTreeClear(tree, NEWGEN);
    Expect({}, NEWGEN, rng);
}

// Under ThreadSanitizer the trees stay smaller.
#if defined(__SANITIZE_THREAD__)
constexpr UInt kScale = 8;
#else
constexpr UInt kScale = 1;
#endif

INSTANTIATE_TEST_SUITE_P(Widths, BTreeRandom,
                         ::testing::Values(RandomCase{4, 2, 20000 / kScale, 2},
                                           RandomCase{8, 5, 12000 / kScale, 2},
                                           RandomCase{8, 8, 240000 / kScale, kScale == 1 ? 3 : 2}));

// Readers of the committed image in two threads beside a writer that
// inserts (splitting and sharing the committed nodes) and commits.
TEST_F(BTreeTest, OldGenerationReadersBesideTheWriter) {
    OpenTree(1, 4, 4);
    auto key = [](UInt i) { return i * 2654435761u; };
    for (UInt i = 0; i < 5000; i++) BTreeFind(tree, key(i), i + 1, 0, 1, 0, 0, NEWGEN);
    Commit();
    BTreeCommit(tree);
    std::atomic<bool> done{false};
    std::atomic<UInt> faults{0};
    std::vector<std::thread> readers;
    for (int r = 0; r < 2; r++) {
        readers.emplace_back([&, r] {
            for (UInt i = r; !done; i = (i + 7) % 5000) {
                VMArenaOldGenAcquire(arena);
                faults += BTreeFind(tree, key(i), 0, 0, 0, 0, 0, OLDGEN) != i + 1;
                if (i % 1000 == 0) {
                    ULong k = BTreeNextKey(tree, key(i), nullptr, OLDGEN);
                    faults += k != ~0ull && k <= key(i);
                }
                VMArenaOldGenRelease(arena);
            }
        });
    }
    for (UInt i = 5000; i < 30000; i++) {
        BTreeFind(tree, key(i), i + 1, 0, 1, 0, 0, NEWGEN);
        if (i % 5000 == 0) {
            Commit();
            VMArenaFlushCommitMemoryAcquire(arena);
            BTreeCommit(tree);
            VMArenaFlushCommitMemoryRelease(arena);
        }
    }
    done = true;
    for (std::thread &t : readers) t.join();
    EXPECT_EQ(faults, 0u);
}

// A node whose count passes its kind's maximum is corruption: the arena is
// tagged and the process ends.
TEST_F(BTreeTest, CorruptNode) {
    OpenTree(1, 8, 8);
    BTreeFind(tree, 1, 1, 0, 1, 0, 0, NEWGEN);
    auto *b = (UByte *)VMArenaDataBlockAcquire(arena, BTreeRoot(tree, NEWGEN), NEWGEN, 0);
    b[8191] = 0xFF;  // keyCount 0xFF01
    EXPECT_DEATH(BTreeFind(tree, 1, 0, 0, 0, 0, 0, NEWGEN), "keyCount <= maxKeyCount");
    EXPECT_TRUE(FileExists((dir / "corrupted").c_str()));
}

}  // namespace
