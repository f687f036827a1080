// Database arrays: block bytes by hand, random changes against a model of
// byte strings in both generations and after a reopen, large elements,
// refusals and damaged blocks.
#include <map>
#include <random>
#include <string>
#include <vector>

#include "collection/collection_test.h"
#include "collection/dbarray_internal.h"

namespace {

using Model = std::vector<std::vector<std::string>>;  // per bucket, per handle

std::string Fill(size_t length, int i) {
    return std::string(length, (char)('a' + i % 26));
}

class DBArrayTest : public CollectionTest {
  protected:
    DBArray *Make(UInt buckets, int create = 1) {
        DBArray *a = DBArrayNew(arena, path, "db", &create, 0, buckets);
        EXPECT_TRUE(a != nullptr && std::string(path) == "c/") << QKErrorMessage();
        return a;
    }
    static std::string Get(DBArray *a, UInt bucket, UInt handle, Int genID) {
        UInt length = 99;
        auto *p = (const char *)DBArrayGet(a, bucket, handle, genID, 1, &length);
        EXPECT_TRUE(p != nullptr || length == 0);
        return p ? std::string(p, length) : "<none>";
    }
    static void Expect(DBArray *a, const Model &m, Int genID) {
        for (UInt b = 0; b < m.size(); b++) {
            ASSERT_EQ(DBArraySize(a, b, genID), m[b].size()) << b;
            for (UInt h = 0; h < m[b].size(); h++) ASSERT_EQ(Get(a, b, h, genID), m[b][h]) << h;
            EXPECT_EQ(Get(a, b, (UInt)m[b].size(), genID), "<none>");
        }
    }
    // The check's faults, its report in *report.
    static UInt Check(DBArray *a, std::string *report = nullptr) {
        testing::internal::CaptureStdout();
        UInt faults = DBArrayCheck(a, NEWGEN);
        std::string text = testing::internal::GetCapturedStdout();
        if (report != nullptr) *report = text;
        return faults;
    }
    // The block's header and data, and its in-block index, as stored.
    static std::pair<std::string, std::string> Bytes(DBArray *a, UInt b) {
        qk::dbarray::Block block = qk::dbarray::BlockGet(qk::dbarray::BucketOf(a, 0), b, NEWGEN, 1);
        auto *base = (const char *)block.base;
        return {std::string(base, 4 + block.dataSize),
                std::string(base + block.size - 2 * block.indexSize, 2 * block.indexSize) + "/" +
                    std::to_string(block.size)};
    }
};

// Lengths added to a new array, and block 0 as stored: header and data,
// then the index entries with the block's size.
TEST_F(DBArrayTest, BlockBytes) {
    using S = std::string;
    struct Case {
        std::vector<UInt> lengths;
        S data, index;
    } cases[] = {
        {{3}, S("\0\0\4\0\6aaa", 8), "/64"},
        {{0, 0}, S("\0\0\2\0\0\0", 6), "/64"},
        {{1, 1, 1, 1, 1, 1, 1, 1, 1},
         S("\1\0\x12\0\2a\2b\2c\2d\2e\2f\2g\2h\2i", 22),
         S("\x10\0/64", 5)},
        {{127, 128}, S("\0\0\2\1\xFE", 5) + Fill(127, 0) + "\1\2" + Fill(128, 1), "/312"},
        {{4090}, S("\0\0\xFC\x0F\xF5\x3E", 6) + Fill(4090, 0), "/4096"},
    };
    for (const Case &c : cases) {
        DBArray *a = Make(1);
        for (UInt i = 0; i < c.lengths.size(); i++)
            ASSERT_EQ(DBArrayAdd(a, 0, Fill(c.lengths[i], i).data(), c.lengths[i], NEWGEN), i);
        EXPECT_EQ(Bytes(a, 0), std::make_pair(c.data, c.index));
        DBArrayClear(a, NEWGEN);
        DBArrayFree(a);
    }
}

// Names, refusals, and what an unknown handle gives.
TEST_F(DBArrayTest, NamesAndRefusals) {
    DBArray *a = Make(3);
    int create = 0;
    Int id;
    EXPECT_TRUE(
        VMAArrayLookupFromPath(arena, NEWGEN, path, "db/dbarray", "firstHandle0002", 0, &id));
    EXPECT_FALSE(VMAArrayLookupFromPath(arena, NEWGEN, path, "db/dbarray", "data0003", 0, &id));
    // An array that exists keeps its bucket count, whatever is asked.
    DBArray *again = DBArrayNew(arena, path, "db", &create, 0, 9);
    EXPECT_TRUE(again && DBArrayBucketCount(again) == 3 && !create);
    DBArrayFree(again);
    EXPECT_EQ(DBArrayNew(arena, path, "other", &create, 0, 1), nullptr);

    std::string big(DBARRAY_MAX_ELEMENT_SIZE + 1, 'x');
    EXPECT_EQ(DBArrayAdd(a, 1, big.data(), (UInt)big.size(), NEWGEN), DBARRAY_NO_HANDLE);
    EXPECT_STREQ(QKErrorMessage(), "element of 4091 bytes: a database array takes at most 4090");
    EXPECT_EQ(DBArrayAdd(a, 1, "x", 1, NEWGEN), 0u);
    EXPECT_EQ(DBArrayLengthSet(a, 1, 0, NEWGEN, 4091), 0);
    EXPECT_EQ(DBArraySet(a, 1, 1, NEWGEN, "y", 1), 0);
    EXPECT_STREQ(QKErrorMessage(), "no element 1 in bucket 1");
    EXPECT_EQ(Get(a, 1, 0, OLDGEN), "<none>");
    EXPECT_EQ(DBArrayHintGet(a, 0, 0, NEWGEN), 0u);
    DBArrayFree(a);
}

struct Mode {
    UInt buckets;
    int compact;
    UInt maxBlocks;
};

class DBArrayRandomTest : public DBArrayTest, public ::testing::WithParamInterface<Mode> {};

// Random adds and resizes against the model; the old generation keeps what
// the last commit saw; a read-only reopen reads the last commit back.
TEST_P(DBArrayRandomTest, AgainstModel) {
    Mode mode = GetParam();
    DBArray *a = Make(mode.buckets);
    DBArraySetCompact(a, mode.compact);
    DBArraySetMaxBlocks(a, mode.maxBlocks);
    std::mt19937 rng(mode.buckets * 7 + mode.compact + mode.maxBlocks);
    const UInt edges[] = {0, 1, 127, 128, 129, 4089, 4090};
    auto length = [&] {
        UInt r = rng() % 20;
        return r == 0 ? edges[rng() % 7] : r < 4 ? rng() % 1500 : rng() % 200;
    };
    Model model(mode.buckets), committed = model;
    for (int step = 0; step < 6000; step++) {
        UInt b = rng() % mode.buckets, n = length();
        std::string value = Fill(n, step);
        if (model[b].empty() || rng() % 3 == 0) {
            ASSERT_EQ(DBArrayAdd(a, b, value.data(), n, NEWGEN), model[b].size());
            model[b].push_back(value);
        } else {
            UInt h = rng() % model[b].size();
            if (rng() % 4 == 0) {
                // A resize keeps the first bytes and zeroes the new ones.
                ASSERT_TRUE(DBArrayLengthSet(a, b, h, NEWGEN, n));
                value = model[b][h].substr(0, n);
                value.resize(n, '\0');
            } else {
                ASSERT_TRUE(DBArraySet(a, b, h, NEWGEN, value.data(), n));
            }
            model[b][h] = value;
        }
        if (step % 1000 == 999) {
            Expect(a, model, NEWGEN);
            Expect(a, committed, OLDGEN);
            ASSERT_EQ(Check(a), 0u);
            Commit();
            DBArrayCommit(a);
            committed = model;
        }
    }
    ULong data, total = DBArrayUsage(a, OLDGEN, &data);
    EXPECT_GT(data, total / 4);
    DBArrayFree(a);
    Open(VM_FLAG_MAPPED | VM_FLAG_READ_ONLY);
    int create = 0;
    a = DBArrayNew(arena, path, "db", &create, 0, 1);
    ASSERT_NE(a, nullptr);
    Expect(a, committed, OLDGEN);
    DBArrayFree(a);
}

INSTANTIATE_TEST_SUITE_P(Modes, DBArrayRandomTest,
                         ::testing::Values(Mode{1, 1, 0}, Mode{3, 0, 0}, Mode{2, 1, 1}));

// Large elements, inline and in chunks, against a model: adds, rewrites
// that need more, as many or fewer chunks, clears, ranges across chunks.
TEST_F(DBArrayTest, LargeElementsAgainstModel) {
    int create = 1;
    LDBArray *a = LDBArrayNew(arena, path, "big", &create, 0, 2);
    ASSERT_TRUE(a != nullptr && create) << QKErrorMessage();
    LDBArrayThreadData *td = LDBArrayThreadDataNew();
    std::mt19937 rng(3);
    const UInt sizes[] = {0, 1, 4080, 4081, 8180, 8181, 16383, 16384, 40000};
    Model model(2), committed = model;
    auto check = [&](const Model &m, Int genID) {
        for (UInt b = 0; b < 2; b++) {
            ASSERT_EQ(LDBArraySize(a, b, genID), m[b].size());
            for (UInt h = 0; h < m[b].size(); h++) {
                const std::string &v = m[b][h];
                ByteArray all = {};
                ASSERT_TRUE(LDBArrayGetArray(a, b, h, genID, &all));
                EXPECT_EQ(std::string((const char *)all.data, all.length), v);
                ArrayFree(all);
                UInt from = v.empty() ? 0 : rng() % v.size(), n = rng() % (v.size() - from + 1);
                auto *p = (const char *)LDBArrayRange(a, td, b, h, from, n, genID);
                ASSERT_TRUE(p != nullptr && LDBArrayLength(a, b, h, genID) == v.size());
                EXPECT_EQ(std::string(p, n), v.substr(from, n)) << from << "+" << n;
            }
        }
    };
    for (int step = 0; step < 300; step++) {
        UInt b = rng() % 2, n = rng() % 3 ? rng() % 300 : sizes[rng() % 9];
        std::string value(n, 0);
        for (char &c : value) c = (char)rng();
        if (model[b].empty() || rng() % 3 == 0) {
            ASSERT_EQ(LDBArrayAdd(a, b, value.data(), n, NEWGEN), model[b].size());
            model[b].push_back(value);
        } else {
            UInt h = rng() % model[b].size();
            if (rng() % 5 == 0) value.clear();
            ASSERT_TRUE(value.empty() ? LDBArrayClearElement(a, b, h, NEWGEN)
                                      : LDBArrayDataSet(a, b, h, value.data(), n, NEWGEN));
            model[b][h] = value;
        }
        if (step % 100 == 99) {
            check(model, NEWGEN);
            check(committed, OLDGEN);
            Commit();
            LDBArrayCommit(a);
            committed = model;
        }
    }
    EXPECT_EQ(LDBArrayRange(a, td, 0, 0, 0, (UInt)model[0][0].size() + 1, NEWGEN), nullptr);
    EXPECT_EQ(LDBArrayCheck(a, NEWGEN), 0u);
    LDBArrayThreadDataFree(td);
    LDBArrayFree(a);
}

// The calls that bring blocks in or hand out addresses reach the element's
// block, in both arrays, and nothing for a handle that does not exist.
TEST_F(DBArrayTest, LoadsAndHints) {
    int create = 1;
    LDBArray *large = LDBArrayNew(arena, path, "big", &create, 0, 1);
    DBArray *a = Make(1);
    std::string value(9000, 'v');
    ASSERT_EQ(LDBArrayAdd(large, 0, value.data(), 9000, NEWGEN), 0u);
    ASSERT_EQ(DBArrayAdd(a, 0, "abc", 3, NEWGEN), 0u);
    Commit();
    DBArrayCommit(a);
    LDBArrayCommit(large);
    for (Int gen : {NEWGEN, OLDGEN}) {
        UInt length;
        auto *p = (const char *)DBArrayGet(a, 0, 0, gen, 1, &length);
        EXPECT_EQ(DBArrayHintGet(a, 0, 0, gen) + 4 + 1, (uintptr_t)p);
        EXPECT_NE(LDBArrayHintGet(large, 0, 0, gen), 0u);
        DBArrayPrefetch(a, 0, 0, gen);
        DBArrayPrefetchLocked(a, 0, 1, gen);
        LDBArrayPrefetch(large, 0, 0, gen);
        EXPECT_GT(DBArrayIndexLoad(a, gen), 0u);
        EXPECT_GT(LDBArrayIndexLoad(large, gen), DBArrayIndexLoad(a, gen));
        ULong data;
        EXPECT_EQ(LDBArrayUsage(large, gen, &data), 64u + 4096 + 4096 + 1024);
        EXPECT_EQ(data, 4u + 4092 + 4092 + 822);  // chunks of 4090, 4090, 820
    }
    DBArrayLoadRegister(a, 1, 1, 1);
    LDBArrayLoadRegister(large, 1, 1, 1);
    VMArenaMemoryLoadCB(arena);
    EXPECT_TRUE(DBArrayMSync(a) && LDBArrayMSync(large));
    EXPECT_EQ(LDBArrayAdd(large, 0, nullptr, 0x80000000u, NEWGEN), DBARRAY_NO_HANDLE);
    EXPECT_STREQ(QKErrorMessage(),
                 "element of 2147483648 bytes: a large-element array takes at most 2147483647");
    LDBArrayClear(large, NEWGEN);
    EXPECT_EQ(LDBArraySize(large, 0, NEWGEN) + LDBArrayLength(large, 0, 0, NEWGEN), 0u);
    DBArrayFree(a);
    LDBArrayFree(large);
}

// A damaged block: the check reports it and goes on; a read of it tags the
// arena corrupted and ends on the assertion.
TEST_F(DBArrayTest, DamagedBlock) {
    DBArray *a = Make(1);
    for (int i = 0; i < 20; i++) DBArrayAdd(a, 0, "abcdef", 6, NEWGEN);
    qk::dbarray::Block block = qk::dbarray::BlockGet(qk::dbarray::BucketOf(a, 0), 0, NEWGEN, 0);
    block.Data()[7] = 0xFE;  // the second element's length: 127
    std::string report;
    EXPECT_GE(Check(a, &report), 1u);
    EXPECT_NE(report.find("block 0: elements or in-block index"), std::string::npos) << report;
    UInt length;
    EXPECT_DEATH(DBArrayGet(a, 0, 5, NEWGEN, 1, &length), "offset < dataSize");
    EXPECT_TRUE(FileExists((dir / "corrupted").c_str()));
    DBArrayFree(a);
}

}  // namespace
