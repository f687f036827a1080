// PICTree: buffers of known bytes, random finds, inserts and removals against
// a map, and damaged buffers.
#include <gtest/gtest.h>

#include <random>

#include "collection/pictree_internal.h"
#include "collection/pictree_model.h"
#include "frame/file_test_dir.h"
#include "qk/qkcommon.h"

namespace {

using namespace pictest;
using Bytes = std::vector<UByte>;

struct Op {
    Key key;
    ULong data;
    char kind;  // 'c' create, 'f' create with force, 'r' remove, '?' find
};

class PICTreeTest : public ::testing::Test {
  protected:
    void TearDown() override { PICTreeThreadDataFree(td); }
    // Applies `op` to the buffer and to the model, and checks the results
    // against the model's; the new buffer is handed back in as it is.
    void Apply(const Op &op) {
        int rewrite, found, changed;
        UByte *out;
        UInt outLength;
        ULongArray path = {};
        const Model before = model;
        if (op.kind == 'c' || op.kind == 'f') Insert(model, op.key, op.data, op.kind == 'f');
        if (op.kind == 'r') Remove(model, op.key);
        ULong result = PICTreeFind(nullptr, buffer, length, td, &rewrite, &out, &outLength,
                                   op.key.data(), (UInt)op.key.size(), op.data, nullptr, nullptr,
                                   op.kind == 'c' || op.kind == 'f', op.kind == 'r', op.kind == 'f',
                                   &found, &changed, &path, NEWGEN);
        ULong was = DataOf(before, op.key), now = DataOf(model, op.key);
        EXPECT_EQ(result, op.kind == 'r' ? was : now);
        EXPECT_EQ(found, before.count(op.key));
        EXPECT_EQ(changed, (was == EMPTY_NODE_DATA) != (now == EMPTY_NODE_DATA));
        EXPECT_EQ(rewrite, before != model);
        Key prefix;  // the path has the data of the key's prefixes that were there
        for (UInt i = 0; i < op.key.size(); i++) {
            prefix.push_back(op.key[i]);
            EXPECT_EQ(i < path.length, before.count(prefix) == 1);
            EXPECT_TRUE(i >= path.length || path.data[i] == before.at(prefix)) << i;
        }
        ArrayFree(path);
        if (rewrite) buffer = out, length = outLength;
    }

    PICTreeThreadData *td = PICTreeThreadDataNew();
    const UByte *buffer = nullptr;
    UInt length = 0;
    Model model;
};

Bytes operator+(Bytes a, const Bytes &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// The sons {a}, data 0, for a in [1, last]: one byte each field.
Bytes Sons(UByte last) {
    Bytes bytes;
    for (UByte a = 1; a <= last; a++) bytes = bytes + Bytes{UByte(a << 1), 2, 0};
    return bytes;
}

// One buffer changed step by step, and its bytes after each step.
TEST_F(PICTreeTest, BytesWrittenByHand) {
    const Bytes wide = {0xFF, 0xFF, 0xFF, 0xFF, 0x1E, 2, 2};  // atom 2^32-1, data 1
    auto run = [&](const std::vector<std::pair<Op, Bytes>> &script) {
        for (const auto &[op, expected] : script) {
            Apply(op);
            EXPECT_EQ(Bytes(buffer, buffer + length), expected) << op.key[0] << op.kind;
            EXPECT_TRUE(qk::pictree::Validate(buffer, length));
        }
    };
    run({
        {{{1, 2, 3}, 7, 'c'}, {2, 14, 0, 4, 8, 0, 6, 2, 14}},  // a chain
        {{{1}, 5, 'c'}, {2, 14, 10, 4, 8, 0, 6, 2, 14}},       // data at an inner node
        {{{1}, 6, 'c'}, {2, 14, 10, 4, 8, 0, 6, 2, 14}},       // no overwrite without force
        {{{1, 2, 3}, 0, 'r'}, {2, 2, 10}},                     // {1, 2} goes, {1} has data
        {{{0}, 127, 'c'}, {0, 2, 0xFE, 2, 2, 10}},             // a sibling before
        {{{0}, 128, 'f'}, {0, 4, 1, 2, 2, 2, 10}},
        {{{1}, 0, 'r'}, {0, 4, 1, 2}},
        {{{0}, (1ull << 56) - 1, 'f'}, Bytes{0, 16} + Bytes(7, 0xFF) + Bytes{0xFE}},
        {{{0}, 1ull << 56, 'f'}, Bytes{0, 18} + Bytes(8, 1) + Bytes{2}},
        {{{0}, 1ull << 63, 'f'}, Bytes{0, 20} + Bytes(9, 1) + Bytes{2}},
        {{{0xFFFFFFFFu}, 1, 'c'}, Bytes{0, 20} + Bytes(9, 1) + Bytes{2} + wide},
        {{{0}, 0, 'r'}, wide},
        {{{0xFFFFFFFFu}, 0, 'r'}, {}},
    });
    // {1} with 42 sons: its size of 127 takes one byte, 128 two.
    for (UInt a = 1; a <= 42; a++) Apply({{1, a}, 0, 'c'});
    run({
        {{{1, 42}, 128, 'f'}, Bytes{2, 1, 2, 0} + Sons(41) + Bytes{84, 4, 1, 2}},
        {{{1, 42}, 0, 'f'}, Bytes{2, 0xFE, 0} + Sons(42)},
        {{{1, 42}, 0, 'r'}, Bytes{2, 0xF8, 0} + Sons(41)},
    });
}

// Keys of 1 to 5 atoms from an alphabet, now and then a wide atom; data of
// every width. A mode: the share of inserts in 10 (the rest removes and a
// find), the alphabet's size, the length the buffer must reach.
class PICTreeRandom : public PICTreeTest,
                      public ::testing::WithParamInterface<std::tuple<int, UInt, UInt>> {};

TEST_P(PICTreeRandom, AgainstMap) {
    const auto [inserts, alphabet, minLength] = GetParam();
    std::mt19937_64 rng(inserts);
    for (int step = 0; step < 2000; step++) {
        Key key(rng() % 5 + 1);
        for (UInt &a : key) a = rng() % 40 == 0 ? (UInt)rng() : (UInt)(rng() % alphabet);
        if (!model.empty() && rng() % 2)
            key = std::next(model.begin(), rng() % model.size())->first;
        ULong data = rng() % 4 == 0 ? 0 : rng() >> (rng() % 64);
        int op = rng() % 10;
        Apply({key, data, op < inserts ? (op == 0 ? 'f' : 'c') : op < 9 ? 'r' : '?'});
        ASSERT_EQ(Walk(buffer, length), model) << step;
        UInt from = 0, to = 0;  // the region of the key's sons
        PICTreeFind(nullptr, buffer, length, nullptr, nullptr, nullptr, nullptr, key.data(),
                    (UInt)key.size(), 0, &from, &to, 0, 0, 0, nullptr, nullptr, nullptr, OLDGEN);
        ASSERT_EQ(Walk(buffer + from, to - from, key), Below(model, key)) << step;
    }
    EXPECT_GE(length, minLength);
    PICTreeThreadDataReInit(td);
}

INSTANTIATE_TEST_SUITE_P(Inserts, PICTreeRandom,
                         ::testing::Values(std::tuple{5, 6u, 0u}, std::tuple{9, 30u, 8192u}));

// A damaged buffer fails validation, and a walk through it tags the arena
// and ends on the assertion.
TEST(PICTreeDamage, IsCorruption) {
    TempDir dir;
    VMArena *arena = VMArenaOpen(dir.Path().c_str(), VM_FLAG_CREATE | VM_FLAG_MAPPED, 1,
                                 STATUS_NO_SERIAL, STATUS_NO_SERIAL, nullptr, nullptr);
    ASSERT_NE(arena, nullptr);
    const struct {
        Bytes bytes;
        Key key;
        const char *text;
    } cases[] = {
        {{2, 4, 10}, {1}, "entry end <= run end"},
        {{2, 2, 10, 2, 3}, {3}, "size read within its run"},
        {{2, 2, 10, 2, 2, 12}, {2}, "lastAtom == UINT_MAX_VALUE || atom > lastAtom"},
        {{2, 0}, {1}, "data read within its entry"},
        {{0xFF, 0xFF, 0xFF, 0xFF, 0x3E, 2, 0}, {1}, "atom read within its run"},
        {{2, 8, 0, 4, 8, 0}, {1, 2}, "entry end <= run end"},  // a son past its parent's end
    };
    PICTreeSonArray sons = {};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        const UInt n = (UInt)c.bytes.size();
        EXPECT_FALSE(qk::pictree::Validate(c.bytes.data(), n));
        EXPECT_DEATH(PICTreeFind(arena, c.bytes.data(), n, nullptr, nullptr, nullptr, nullptr,
                                 c.key.data(), (UInt)c.key.size(), 0, nullptr, nullptr, 0, 0, 0,
                                 nullptr, nullptr, nullptr, NEWGEN),
                     c.text);
        if (c.key.size() == 1) {
            EXPECT_DEATH(PICTreeExplodes(arena, c.bytes.data(), n, &sons), c.text);
        }
    }
    EXPECT_TRUE(FileExists((dir / "corrupted").c_str()));
    VMArenaClose(arena);
}

}  // namespace
