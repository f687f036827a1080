// Arena arrays: random operations on arrays of every type against a model
// across commits and a read-only reopen, the moves between types, names,
// block arrays, spanning ranges, and old-generation readers beside a
// writer.
#include <algorithm>
#include <atomic>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "arena/arena_check.h"
#include "arena/varray_internal.h"
#include "arena_test_util.h"

using namespace arenatest;
using namespace qk::arena;

namespace {

class VArrayTest : public ArenaTest {
  protected:
    void SetUp() override {
        ArenaTest::SetUp();
        Open(kCreate);
    }
    Int Make(const char *name, bool blockArray = false, UInt blockSize = 8192) {
        int create = 1;
        return VMAArrayFind(arena, NEWGEN, name, (UInt)strlen(name), 1, &create, blockArray,
                            blockSize);
    }
    // A new array of the given 4-byte elements.
    Int Filled(const std::vector<UInt> &values) {
        Int id = VMAArrayNew(arena, 0, 8192, NEWGEN);
        VMAArrayAppend_(arena, id, 8192, values.data(), (UInt)values.size(), NEWGEN, 4);
        return id;
    }
    // The elements through the fast path, stretch by stretch.
    std::string Read(Int id, Int genID, UInt eltSize) {
        std::string out;
        UInt length = VMAArrayLength_(arena, id, genID);
        for (UInt i = 0, end; i < length; i = end) {
            auto *p = (const char *)VMAArrayRangeFast_(arena, id, 8192, i, &end, genID, 1, eltSize);
            if (p == nullptr || end <= i) return "<" + std::string(QKErrorMessage()) + ">";
            out.append(p, (size_t)(end - i) * eltSize);
        }
        return out;
    }
    VMAArray *Record(Int id) { return ArrayRecord(&arena->rw_gen, (UInt)id); }
};

std::string Elements(const std::vector<UInt> &v, size_t n) {
    return {(const char *)v.data(), n * 4};
}

std::string RandomBytes(std::mt19937 &rng, size_t n) {
    std::string b(n, 0);
    for (char &c : b) c = (char)rng();
    return b;
}

// Random appends, inserts, removes, overwrites, copies, clears, frees and
// length changes on arrays of several element sizes, read back in both
// generations after every step, across commits and a read-only reopen.
TEST_F(VArrayTest, RandomOperationsAgainstModel) {
    struct Subject {
        Int id;
        UInt eltSize;
        std::string now, committed;
    };
    std::mt19937 rng(15);
    std::vector<Subject> subjects;
    for (UInt eltSize : {1u, 4u, 4u, 12u, 100u})
        subjects.push_back(
            {Make(("m" + std::to_string(subjects.size())).c_str()), eltSize, "", ""});
    Int scratch = VMAArrayNew(arena, 0, 8192, NEWGEN);  // freed and made again
    Commit();
    for (int step = 0; step < 360; step++) {
        Subject &s = subjects[rng() % subjects.size()], &o = subjects[rng() % subjects.size()];
        UInt e = s.eltSize, n = (UInt)(s.now.size() / e), at = rng() % (n + 1);
        UInt count = rng() % 3 ? rng() % 40 : rng() % (3 * 8192 / e + 10);  // past 3 blocks
        std::string data = RandomBytes(rng, (size_t)(count + 1) * e), s1(e, 0), s2(e, 0);
        bool ok = true;
        switch (rng() % 8) {
            case 0:
                ok = VMAArrayAppend_(arena, s.id, 8192, data.data(), count, NEWGEN, e);
                s.now.append(data, 0, (size_t)count * e);
                break;
            case 1:
                ok = VMAArrayInsert_(arena, s.id, 8192, at, data.data(), s1.data(), s2.data(),
                                     NEWGEN, e);
                s.now.insert((size_t)at * e, data.substr(0, e));
                break;
            case 2:
                if (at == n) break;
                ok = VMAArrayRemove_(arena, s.id, 8192, at, NEWGEN, e);
                s.now.erase((size_t)at * e, e);
                break;
            case 3:
                count = std::min(count, n - at);
                ok = VMAArraySetRange_(arena, s.id, 8192, at, data.data(), count, NEWGEN, e);
                s.now.replace((size_t)at * e, (size_t)count * e, data.substr(0, (size_t)count * e));
                break;
            case 4:
                if (&o == &s || o.eltSize != e) break;
                ok = VMAArrayCopy_(arena, s.id, o.id, 8192, NEWGEN, e, count % 2);
                s.now = (count % 2 ? s.now : std::string()) + o.now;
                break;
            case 5:
                if (count % 4) break;
                VMAArrayClear_(arena, s.id, NEWGEN);
                s.now.clear();
                break;
            case 6:
                VMAArrayLengthSet_(arena, s.id, at, NEWGEN);
                s.now.resize((size_t)at * e);
                break;
            case 7:
                VMAArrayAppend_(arena, scratch, 8192, data.data(), count, NEWGEN, e);
                VMAArrayFree(arena, scratch, NEWGEN);
                ASSERT_EQ(VMAArrayNew(arena, 0, 8192, NEWGEN), scratch);
                ASSERT_EQ(VMAArrayLength_(arena, scratch, NEWGEN), 0u);
        }
        ASSERT_TRUE(ok) << QKErrorMessage();
        for (Subject &t : subjects) {
            ASSERT_TRUE(Read(t.id, NEWGEN, t.eltSize) == t.now) << t.eltSize;
            ASSERT_TRUE(Read(t.id, OLDGEN, t.eltSize) == t.committed) << t.eltSize;
            // The capacity holds the elements; a partial array is at most three blocks.
            UInt cap = VMAArrayCapacity(Record(t.id), 8192, t.eltSize), perBlock = 8192 / t.eltSize;
            ASSERT_TRUE(cap * t.eltSize >= t.now.size() &&
                        (Record(t.id)->type != PARTIAL_ARRAY_TYPE || cap <= 3 * perBlock));
        }
        if (step % 60 == 59) {
            ExpectConsistent();
            ASSERT_EQ(VMArenaCheck(arena), 0u);
            Commit();
            for (Subject &t : subjects) t.committed = t.now;
            ASSERT_EQ(VMArenaCheckR(arena), 0u);
        }
    }
    Open(kRead);
    for (Subject &t : subjects)
        for (Int genID : {OLDGEN, NEWGEN}) EXPECT_TRUE(Read(t.id, genID, t.eltSize) == t.committed);
}

// The moves between types at their thresholds, 4-byte elements.
TEST_F(VArrayTest, TypeMovesAtThresholds) {
    // Length reached one element at a time; type, blocks, last block's size.
    const UInt cases[][4] = {{0, 0, 0, 0},     {16, 2, 1, 64},     {17, 2, 1, 88},
                             {2049, 2, 2, 64}, {6144, 2, 3, 8192}, {6145, 1, 4, 8192}};
    std::vector<UInt> values(6145);
    for (UInt i = 0; i < values.size(); i++) values[i] = i * 2654435761u;
    for (const auto &c : cases) {
        Int id = Filled({});
        for (UInt i = 0; i < c[0]; i++) VMAArrayAppend_(arena, id, 8192, &values[i], 1, NEWGEN, 4);
        VMAArray *a = Record(id);
        UInt blocks = FArrayLength(a->blockID);
        UInt last = blocks ? kSizes[FArrayNth(a->blockID, ULong, blocks - 1) & 15] : 0;
        EXPECT_EQ(std::vector<UInt>({c[0], a->type, blocks, last}), std::vector<UInt>(c, c + 4));
        EXPECT_EQ(Read(id, NEWGEN, 4), Elements(values, c[0]));
    }
    // Asked for at once, 6144 elements make three full blocks, the partial
    // block's elements copied into the first.
    Int id = Filled({values.begin(), values.begin() + 3});
    ASSERT_TRUE(VMAArrayEnsureCapacity_(arena, id, 8192, 6144, NEWGEN, 0, 4));
    EXPECT_EQ(Record(id)->type * 10 + FArrayLength(Record(id)->blockID), 13u);
    EXPECT_EQ(Read(id, NEWGEN, 4), Elements(values, 3));
}

// Copy-on-write: the first write after a commit copies the block once,
// the old generation keeps its bytes, and the block cache's bit 0 tells
// which blocks may be written in place.
TEST_F(VArrayTest, FirstWriteAfterCommitCopiesOnce) {
    Int id = Make("cow");
    std::vector<UInt> values(3 * 2048, 7);
    VMAArrayAppend_(arena, id, 8192, values.data(), (UInt)values.size(), NEWGEN, 4);
    EXPECT_EQ(*BlockCacheSlot(Record(id), 1) & 1, 1u);
    Commit();
    EXPECT_EQ(*BlockCacheSlot(Record(id), 1) & 1, 0u);  // rebuilt for reading
    UInt end;
    auto *p = (UInt *)VMAArrayRangeFast_(arena, id, 8192, 2048, &end, NEWGEN, 0, 4);
    uintptr_t copied = *BlockCacheSlot(Record(id), 1);
    EXPECT_EQ((copied & 1) * 10000 + end, 14096u);
    *p = 99;
    // The second write takes the fast path: no copy, the same entry.
    EXPECT_EQ(VMAArrayRangeFast_(arena, id, 8192, 2049, &end, NEWGEN, 0, 4), p + 1);
    EXPECT_EQ(*BlockCacheSlot(Record(id), 1), copied);
    EXPECT_EQ(*(UInt *)VMAArrayRangeFast_(arena, id, 8192, 2048, &end, OLDGEN, 1, 4), 7u);
    EXPECT_EQ(*(UInt *)VMAArrayRangeFast_(arena, id, 8192, 2048, &end, NEWGEN, 1, 4), 99u);
}

// Bounds and types the new generation asserts on.
TEST_F(VArrayTest, BoundsOfTheNewGeneration) {
    Int id = Filled({1, 2, 3});
    UInt end = 0, v = 4;
    EXPECT_DEATH(VMAArrayRange_(arena, id, 8192, 3, &end, NEWGEN, 1, 4, 0),
                 "index < array->length");
    Record(id)->type = TWO_PART_ARRAY_TYPE;
    EXPECT_DEATH(VMAArrayRangeFast_(arena, id, 8192, 0, &end, NEWGEN, 1, 4), "TWO_PART");
    EXPECT_DEATH(VMAArrayAppend_(arena, id, 8192, &v, 1, NEWGEN, 4), "TWO_PART");
    EXPECT_DEATH(VMAArrayLength_(arena, 99, NEWGEN), "FArrayLength");
    Record(id)->type = PARTIAL_ARRAY_TYPE;
}

// Names: same ID the second time, -2 in OLDGEN until the commit, paths
// with one or two parts, newGenOnly, and no creation on a read-only arena.
TEST_F(VArrayTest, NamesAndPaths) {
    // (ID, *create after the call) of a find.
    auto find = [&](Int genID, const char *name, int create) {
        Int id = VMAArrayFind(arena, genID, name, (UInt)strlen(name), 1, &create, 0, 8192);
        return std::pair(id, create);
    };
    EXPECT_EQ(find(NEWGEN, "d/a", 1), std::pair(1, 1));
    EXPECT_EQ(find(NEWGEN, "d/a", 1), std::pair(1, 0));
    EXPECT_EQ(find(OLDGEN, "d/a", 0), std::pair(VMA_NO_ARRAY, 0));
    char path[VMARENA_PATH_SIZE] = "d/";
    VMAARRAY(UInt) h;
    auto *handle = (VMAArrayHandle *)&h;
    int create = 1;
    ASSERT_TRUE(VMABlockArrayInitFromPath(arena, &create, 1, 1024, path, "b", "c", handle));
    EXPECT_TRUE(create && std::string(path) == "d/");
    EXPECT_EQ(h.ids[NEWGEN] * 10 + h.ids[OLDGEN], 22);
    EXPECT_EQ(Record(2)->type * 100 + Record(2)->log2size, 410);
    Int found = -1;
    EXPECT_TRUE(VMAArrayLookupFromPath(arena, NEWGEN, path, "b", "c", 0, &found) && found == 2);
    EXPECT_FALSE(VMAArrayLookupFromPath(arena, OLDGEN, path, "b", "c", 0, &found));
    create = 0;
    EXPECT_FALSE(VMAArrayInitFromPath(arena, &create, 0, 0, 0, path, "missing", nullptr, handle));
    EXPECT_STREQ(QKErrorMessage(), "no array \"d/missing\"");
    Commit();
    ASSERT_TRUE(VMAArrayInitFromPath(arena, &create, 0, 0, 0, path, "a", nullptr, handle));
    EXPECT_EQ(h.ids[OLDGEN], 1);
    EXPECT_EQ(Read(0, OLDGEN, 1), std::string("d/a\0d/b/c\0", 10));
    Open(kRead);
    EXPECT_EQ(find(NEWGEN, "new", 1), std::pair(VMA_NO_ARRAY, 0));
}

// Block arrays against a model of bytes per place, with empty places,
// growth and removal; clearing keeps type 4.
TEST_F(VArrayTest, BlockArrayAgainstModel) {
    Int id = Make("blocks", true, 4096);
    Commit();
    std::vector<std::string> model, committed;
    std::mt19937 rng(4);
    auto check = [&](Int genID, const std::vector<std::string> &expect) {
        ASSERT_EQ(VMABlockArrayBlockCount_(arena, id, genID), expect.size());
        EXPECT_EQ(VMAArrayLength_(arena, id, genID), expect.size() * 4096);
        for (UInt b = 0, size; b < expect.size(); b++) {
            UInt n = (UInt)expect[b].size();
            auto *p = (const char *)VMABlockArrayGet_(arena, id, b, genID, 1, &size);
            EXPECT_EQ(size, n ? VMABlockArrayBlockRound_(arena, n, 4096) : 0);
            EXPECT_EQ(p ? std::string(p, n) : "<none>", n ? expect[b] : "<none>") << b;
        }
    };
    for (int step = 0; step < 200; step++) {
        UInt at = rng() % (model.size() + 1), size = rng() % 5 ? rng() % 4096 + 1 : 0, got;
        int op = model.empty() ? 0 : rng() % 4;
        if (op >= 2) at %= model.size();
        if (op == 3) {
            ASSERT_TRUE(VMABlockArrayRemove_(arena, id, 4096, at, NEWGEN));
            model.erase(model.begin() + at);
        } else if (op == 2 && size > 0) {  // grows or shrinks, keeping what fits
            EXPECT_EQ(VMABlockArrayBlockGrowNth_(arena, id, size, 4096, at, NEWGEN),
                      VMABlockArrayBlockRound_(arena, size, 4096));
            std::string kept = model[at].substr(0, size);
            auto *p = (char *)VMABlockArrayGet_(arena, id, at, NEWGEN, 0, &got);
            EXPECT_EQ(std::string(p, kept.size()), kept);
            model[at] = kept + RandomBytes(rng, size - kept.size());
            memcpy(p, model[at].data(), size);
        } else {
            ASSERT_TRUE(VMABlockArrayInsert_(arena, id, size, 4096, at, NEWGEN));
            model.insert(model.begin() + at, RandomBytes(rng, size));
            if (size)
                memcpy(VMABlockArrayGet_(arena, id, at, NEWGEN, 0, &got), model[at].data(), size);
        }
        if (step % 50 == 49) {
            ExpectConsistent();
            check(NEWGEN, model), check(OLDGEN, committed);
            Commit();
            committed = model;
        }
    }
    VMAArrayClear_(arena, id, NEWGEN);
    EXPECT_EQ(Record(id)->type * 10 + VMAArrayLength_(arena, id, NEWGEN), 40u);
    EXPECT_DEATH(VMABlockArrayBlockRound_(arena, 4097, 4096), "size <= maxBlockSize");
}

// Copy-on-write through the fast path: the old generation keeps its bytes.
// A range across blocks comes from the cache's buffer and is written back
// on release; one inside a block is the array's own memory.
TEST_F(VArrayTest, RangeCacheSpansBlocks) {
    std::vector<UInt> v(5000);
    std::iota(v.begin(), v.end(), 0);
    Int id = Filled(v);
    Commit();
    VMAArrayRangeCache *cache = VMAArrayRangeCacheNew(arena);
    UInt end;
    EXPECT_EQ(VMAArrayRangeAcquire_(arena, id, 8192, 10, 20, NEWGEN, 1, 4, cache),
              VMAArrayRangeFast_(arena, id, 8192, 10, &end, NEWGEN, 1, 4));
    auto *span = (UInt *)VMAArrayRangeAcquire_(arena, id, 8192, 2040, 2060, NEWGEN, 0, 4, cache);
    EXPECT_EQ(std::vector<UInt>(span, span + 20), std::vector<UInt>(&v[2040], &v[2060]));
    for (UInt i = 0; i < 20; i++) span[i] = 100000 + i;
    ASSERT_TRUE(VMAArrayRangeRelease_(cache));
    VMAArrayRangeCacheFree(cache);
    EXPECT_EQ(Read(id, OLDGEN, 4), Elements(v, v.size()));
    for (UInt i = 0; i < 20; i++) v[2040 + i] = 100000 + i;
    EXPECT_EQ(Read(id, NEWGEN, 4), Elements(v, v.size()));
}

// Loading, registered loads, the report and the clash check.
TEST_F(VArrayTest, LoadStatAndCheck) {
    Int id = Make("load"), other = Filled({5});
    VMAArrayAppend_(arena, id, 8192, std::vector<UInt>(3000, 5).data(), 3000, NEWGEN, 4);
    EXPECT_EQ(VMAArrayLoad_(arena, id, 8192, NEWGEN, 4, 0), 12000u);
    EXPECT_EQ(VMAArrayLoad_(arena, id, 8192, NEWGEN, 4, 1), 12000u);
    VMArenaArrayLoadRegister_(arena, 1, 1, 1, id, NEWGEN);
    VMArenaMemoryLoadCB(arena);
    testing::internal::CaptureStdout();
    VMAArenaStatPrint(arena, 1);
    std::string report = testing::internal::GetCapturedStdout();
    EXPECT_NE(report.find("# id = 1\nname = \"load\"\nlength = 3000\nblock count = 2, "
                          "max block size = 8192, average per block = 6144\n"),
              std::string::npos)
        << report;
    // Two arrays naming one block.
    ULong &block = FArrayNth(Record(other)->blockID, ULong, 0), own = block;
    block = FArrayNth(Record(id)->blockID, ULong, 0);
    testing::internal::CaptureStdout();
    EXPECT_EQ(VMArenaCheck(arena), 1u);
    EXPECT_TRUE(StartsWith(testing::internal::GetCapturedStdout(), "hard block clash !!!\n"));
    block = own;
    EXPECT_EQ(VMArenaCheck(arena), 0u);
}

// Readers of OLDGEN in threads see one committed image whole, and find it
// by its name, while the writer changes NEWGEN and commits: every element
// of image k is k, and image k has 1000 + 500 k elements.
TEST_F(VArrayTest, OldGenReadersBesideWriter) {
    std::vector<UInt> fill(1000 + 500 * 12, 0);
    Int id = Make("shared");
    VMAArrayAppend_(arena, id, 8192, fill.data(), 1000, NEWGEN, 4);
    Commit();
    std::atomic<int> faults{0}, reads{0}, stop{0};
    auto reader = [&] {
        for (; !stop; reads++) {
            VMArenaOldGenAcquire(arena);
            std::string image = Read(id, OLDGEN, 4);
            UInt n = (UInt)image.size() / 4, k = (n - 1000) / 500;
            if (image != Elements(std::vector<UInt>(n, k), n)) faults++;
            faults += Find(OLDGEN, "shared") != id;
            VMArenaOldGenRelease(arena);
        }
    };
    std::thread readers[] = {std::thread(reader), std::thread(reader)};
    for (UInt k = 1; k <= 12; k++) {
        VMArenaNewGenAcquire(arena, NEWGEN);
        std::fill(fill.begin(), fill.end(), k);
        VMAArraySetRange_(arena, id, 8192, 0, fill.data(), 1000 + 500 * (k - 1), NEWGEN, 4);
        VMAArrayAppend_(arena, id, 8192, fill.data(), 500, NEWGEN, 4);
        VMArenaNewGenRelease(arena, NEWGEN);
        Commit();
    }
    while (reads < 20) std::this_thread::yield();
    stop = 1;
    for (auto &t : readers) t.join();
    EXPECT_EQ(faults.load(), 0);
}

}  // namespace
