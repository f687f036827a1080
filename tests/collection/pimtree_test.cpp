// PIMTree: random inserts, overwrites and removals against a map of atom
// strings, in both generations across commits; the record's bytes; moves of
// a run across blocks; corruption.
#include <gtest/gtest.h>

#include <map>
#include <random>

#include "collection/pictree_model.h"
#include "collection/pimtree_internal.h"
#include "frame/file_test_dir.h"
#include "qk/qkcommon.h"

namespace {

using pictest::Key;
using pictest::Model;  // every node of the head and its data

class PIMTreeTest : public ::testing::Test {
  protected:
    void SetUp() override {
        arena = VMArenaOpen(dir.Path().c_str(), VM_FLAG_CREATE | VM_FLAG_MAPPED, 1,
                            STATUS_NO_SERIAL, STATUS_NO_SERIAL, nullptr, nullptr);
        ASSERT_NE(arena, nullptr) << QKErrorMessage();
        char path[VMARENA_PATH_SIZE] = "t/";
        int create = 1;
        tree = PIMTreeNew(arena, path, "head", &create, 1);
        ASSERT_TRUE(tree && create && std::string(path) == "t/");
        td = PIMTreeThreadDataNew();
    }
    void TearDown() override {
        PIMTreeThreadDataFree(td);
        PIMTreeFree(tree);
        VMArenaClose(arena);
    }
    void Commit() {
        ASSERT_TRUE(VMArenaCommit(arena, nullptr, nullptr));
        PIMTreeCommit(tree);
    }
    PIMTreeResult Find(const Key &key, ULong data, int create, int remove, int force,
                       int *changed = nullptr) {
        return PIMTreeFind(tree, td, key.data(), (UInt)key.size(), data, 7, create, remove, force,
                           changed, nullptr, NEWGEN);
    }
    // Puts the whole key in the head: a transition that the find made to a
    // leaf becomes a new node, as a tree's explosion does.
    void Insert(const Key &key, ULong data, bool force) {
        PIMTreeResult r;
        while ((r = Find(key, data, 1, 0, force)).found && r.matched < key.size())
            PIMTreeNodeSetInternalTo(tree, r.transition, PIMTreeNodeNew(tree, nullptr, NEWGEN),
                                     NEWGEN);
        ASSERT_TRUE(r.found);
    }
    // Every transition reachable from `node`, as key and data.
    Model Contents(Int genID, UInt node = 0, Key prefix = {}) {
        Model out;
        UInt end, first = PIMTreeNodeFirst(tree, node, &end, genID), previous = 0;
        for (UInt i = first; i < end; i++) {
            PIMTreeTransition t = PIMTreeTransGet(tree, i, genID);
            EXPECT_TRUE(i == first || t.atom > previous) << "atoms ascend";
            prefix.push_back(previous = t.atom);
            out[prefix] = t.data;
            if (!(t.to & PIMTREE_LEAF_BIT)) out.merge(Contents(genID, t.to, prefix));
            prefix.pop_back();
        }
        return out;
    }

    TempDir dir;
    VMArena *arena = nullptr;
    PIMTree *tree = nullptr;
    PIMTreeThreadData *td = nullptr;
};

TEST_F(PIMTreeTest, RandomAgainstMapOfAtomStrings) {
    EXPECT_TRUE(PIMTreeEmpty(tree, NEWGEN) && PIMTreeNodeCount(tree, NEWGEN) == 1);
    std::mt19937 rng(55);
    Model model, committed;
    Commit();
    for (int step = 0; step < 4000; step++) {
        Key key(rng() % 5 + 1);
        for (UInt &a : key) a = rng() % 6 + (rng() % 50 == 0 ? 0xFFFFFFF0u : 'a');
        ULong data = rng() % 4 == 0 ? 0 : ((ULong)rng() << 32 | rng());
        int op = rng() % 10, changed = -1;
        if (op < 6) {
            Insert(key, data, op == 0);
            pictest::Insert(model, key, data, op == 0);
        } else {
            // Removing or finding a key: often one that the model holds.
            if (!model.empty() && rng() % 2)
                key = std::next(model.begin(), rng() % model.size())->first;
            auto it = model.find(key);
            bool held = it != model.end();
            PIMTreeResult r = Find(key, 0, 0, op < 9, 0, &changed);
            ASSERT_EQ(r.found && r.matched == key.size(), held);
            // A removal tells whether it cleared data; a find gives the data.
            EXPECT_TRUE(op < 9 ? changed == (held && it->second != 0)
                               : !held || r.data == it->second);
            if (op < 9) pictest::Remove(model, key);
        }
        if (step % 400 == 399) {
            ASSERT_EQ(Contents(NEWGEN), model) << step;
            ASSERT_EQ(Contents(OLDGEN), committed) << step;
            Commit();
            committed = model;
        }
    }
    EXPECT_GT(VMAArrayLength(tree->trans, NEWGEN), 2 * ARENA_MAX_BLOCK_SIZE / kTransSize);
    PIMTreeClear(tree, NEWGEN);
    EXPECT_TRUE(PIMTreeEmpty(tree, NEWGEN) && PIMTreeNodeCount(tree, NEWGEN) == 1);
}

// A transition's 16 bytes: data, atom and to, little-endian.
TEST_F(PIMTreeTest, RecordBytes) {
    PIMTreeResult r = Find({0xA1B2C3D4u}, 0x1122334455667788ull, 1, 0, 0);
    EXPECT_TRUE(r.to == 0x80000007u && !r.internal && !PIMTreeEmpty(tree, NEWGEN));
    UInt upBound;
    const PIMTreeRecord *record = VMAArrayRange(tree->trans, 0, &upBound, NEWGEN, 1);
    const UByte expected[16] = {0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11,
                                0xD4, 0xC3, 0xB2, 0xA1, 0x07, 0x00, 0x00, 0x80};
    EXPECT_EQ(memcmp(record->bytes, expected, 16), 0);
    const UInt *heads = VMAArrayRange(tree->headIndex, 0, &upBound, NEWGEN, 1);
    EXPECT_EQ(std::vector<UInt>(heads, heads + upBound), std::vector<UInt>({0, 1}));
}

// A run inserted into a node before another moves the later node's run,
// across blocks, and its transIndex entry by the run's count.
TEST_F(PIMTreeTest, InsertSonMovesTailAcrossBlocks) {
    std::vector<PIMTreeTransition> many;
    for (UInt a = 0; a < 1200; a++) many.push_back({a, a * 2, PIMTREE_LEAF_BIT | a});
    UInt n1 = PIMTreeNodeNew(tree, nullptr, NEWGEN), n2 = PIMTreeNodeNew(tree, nullptr, NEWGEN);
    PIMTreeNodeInsertSon(tree, td, n2, 0, many.data(), 1200, NEWGEN);
    PIMTreeNodeInsertSon(tree, td, n1, 0, many.data(), 3, NEWGEN);
    UInt end, first = PIMTreeNodeFirst(tree, n2, &end, NEWGEN);
    EXPECT_EQ(first * 10000 + end, 31203u);
    for (UInt i = 0; i < 1203; i++)
        ASSERT_EQ(PIMTreeTransGet(tree, i, NEWGEN).data, i < 3 ? i : i - 3);
}

// A transIndex out of order is corruption.
TEST_F(PIMTreeTest, HeadIndexOutOfOrderIsCorruption) {
    Insert({1}, 1, false);
    UInt bad = 5;
    VMAArraySetRange(tree->headIndex, 0, &bad, 1);
    EXPECT_DEATH(Find({1}, 0, 0, 0, 0), "s <= e");
    EXPECT_TRUE(FileExists((dir / "corrupted").c_str()));
}

}  // namespace
