// FArray against a vector on random operations; its layout, its callbacks
// and their failures, compaction, and misuse.
#include "container/container_test.h"

namespace {

// Memory through callbacks that record the blocks freed (pointer, offset,
// size) and fail once their allowance runs out; with `release` off the free
// callback only records, as a visitor for Exec.
class FArrayTest : public ContainerTest {
  protected:
    static void *Alloc(void *old, size_t size, int *ok, void *self, const char *file, int line) {
        if (((FArrayTest *)self)->allocs-- > 0) return Allocate_(size, old, file, line);
        QKErrorThrow(QK_ERR_FAILURE, QK_DOMAIN_GENERAL, "no memory for the test");
        return *ok = 0, nullptr;
    }
    static void Free(void *pointer, UInt offset, size_t size, int *ok, void *self) {
        auto *t = (FArrayTest *)self;
        if (t->frees-- <= 0)
            QKErrorThrow(QK_ERR_FAILURE, QK_DOMAIN_GENERAL, "cannot free at %u", offset), *ok = 0;
        if (*ok)
            t->freed.emplace_back(pointer, offset, size), t->release ? UnAllocate(pointer) : void();
    }
    // An array of ints of the given block size, holding 0..count-1.
    FArray New(UInt blockSize, int count = 0) {
        FArray a;
        FArrayInit(a, blockSize, Alloc, Free, this);
        for (int i = 0, ok = 1; i < count; i++) EXPECT_EQ(FArrayAdd(a, &i, &ok), i);
        return a;
    }
    int allocs = 1 << 30, frees = 1 << 30, release = 1;
    std::vector<std::tuple<void *, UInt, size_t>> freed;
};

// Appends one by one and by runs, a first block set while it may be,
// compactions (the first of an empty array). Elements stay where they are
// until compacted; a range ends with its block (data0, then fragments of
// blockSize, blockSize, 2 blockSize, 4 blockSize ...); the capacity doubles
// from the second fragment; copying out gives the vector.
TEST_F(FArrayTest, RandomOperationsAgreeWithAVector) {
    std::mt19937 random(3);
    for (UInt blockSize : {1u, 3u, 8u}) {
        FArray a = New(blockSize);
        if (blockSize == 8) FArrayInitHeap(a, 8);  // the heap callbacks
        std::vector<int> model;
        std::vector<int *> where;  // of the elements added one by one
        for (int step = 0, ok = 1; step < 120; step++) {
            int op = step ? random() % 10 : 1, value = random();
            if (op == 0 && a.length <= a.length0) {
                ASSERT_EQ(FArrayEnsureCapacity0(a, int, a.length + random() % 20), 1);
            } else if (op == 1) {
                ASSERT_EQ(FArrayCompact(a, int), 1);
                ASSERT_EQ(std::tuple(a.length0, a.capacity, a.data[0], a.data0 != nullptr),
                          std::tuple(a.length, 0u, nullptr, a.length > 0));
            } else if (op < 5) {
                std::vector<int> run(random() % 40, value);
                ASSERT_EQ(FArrayAppendFromPtr(a, run.data(), run.size()), 1);
                model.insert(model.end(), run.begin(), run.end());
            } else {
                ASSERT_EQ(FArrayAdd(a, &value, &ok), (Long)model.size());
                model.push_back(value), where.push_back(&FArrayNth(a, int, a.length - 1));
            }
            if (op < 2) where.clear();  // data0 may have moved
            where.resize(model.size(), nullptr);
            ASSERT_EQ(
                std::pair(a.length, a.capacity),
                std::pair((UInt)model.size(), a.capIndex ? blockSize << (a.capIndex - 1) : 0));
            for (UInt i = random() % 29, end; i < model.size(); i += 29) {
                int *p = FArrayRange(a, int, i, &end);
                ULong stop = i < a.length0 ? a.length0 : a.length0 + blockSize;
                while (i >= stop) stop = a.length0 + 2 * (stop - a.length0);  // the next fragment
                ASSERT_EQ(std::tuple(p, *p, end, where[i] ? where[i] : p),
                          std::tuple(&FArrayNth(a, int, i), model[i],
                                     (UInt)std::min<ULong>(stop, a.length), p));
            }
        }
        std::vector<int> out(model.size());
        FArrayAppendToPtr(a, out.data());
        UInt end = 0;  // past the length: none, the end at the index
        EXPECT_EQ(std::tuple(out, FArrayRange(a, int, a.length + 5, &end), end),
                  std::tuple(model, nullptr, a.length + 5));
        EXPECT_EQ(FArrayFree(a, int), 1);
        static const FArray cleared = {};
        EXPECT_EQ(memcmp(&a, &cleared, sizeof a), 0);
    }
}

// Exec and Free visit data0 and the fragments in order of position, each
// block with the position of its first element and its size; a free that
// clears `ok` stops the walk, which can be resumed. Allocation failures
// clear `ok` and keep the error; what was not allocated is not counted. A
// failed release during compaction keeps the first error; the array is
// compacted all the same and forgets the blocks.
TEST_F(FArrayTest, CallbacksVisitTheBlocksInOrderAndMayFail) {
    FArray a = New(4);
    ASSERT_EQ(FArrayEnsureCapacity0(a, int, 6), 1);
    for (int i = 0, ok = 1; i < 20; i++) FArrayAdd(a, &i, &ok);  // 6 in data0, then 4 + 4 + 8
    const std::vector<std::tuple<void *, UInt, size_t>> blocks = {
        {a.data0, 0, 24}, {a.data[0], 6, 16}, {a.data[1], 10, 16}, {a.data[2], 14, 32}};
    release = 0;
    EXPECT_EQ(FArrayExec(a, int, Free, this), 1);
    EXPECT_EQ(freed, blocks);
    freed.clear(), release = 1, frees = 2;
    EXPECT_EQ(FArrayFree(a, int), 0);
    EXPECT_EQ(std::tuple(errno, a.data0, a.data[0], a.data[1] == nullptr, a.blockSize),
              std::tuple(-2, nullptr, nullptr, false, 4u));
    frees = 1 << 30;  // still set up for another try
    EXPECT_EQ(FArrayFree(a, int), 1);
    EXPECT_EQ(freed, blocks);

    allocs = 2;
    a = New(2, 4);  // data[0] and data[1]
    int value = 4, ok = 1, more[3] = {1, 2, 3};
    EXPECT_EQ(FArrayAdd(a, &value, &ok), -1);
    EXPECT_EQ(std::tuple(ok, a.length, errno, std::string(QKErrorMessage())),
              std::tuple(0, 5u, -2, "no memory for the test"));
    a.length = 4;  // grown by one all the same
    EXPECT_EQ(
        FArrayEnsureCapacity(a, int, 10) + FArrayAppendFromPtr(a, more, 3) + FArrayCompact(a, int),
        0);
    allocs = 1;
    EXPECT_EQ(std::tuple(FArrayEnsureCapacity(a, int, 8), a.length, a.capacity),
              std::tuple(1, 4u, 8u));
    EXPECT_EQ(FArrayFree(a, int), 1);
    allocs = 1 << 30;
    a = New(4, 16);  // fragments at offsets 0, 4 and 8
    void *lost[] = {a.data[1], a.data[2]};
    frees = 1;
    EXPECT_EQ(FArrayCompact(a, int), 0);
    EXPECT_EQ(Error().second, "cannot free at 4");
    EXPECT_EQ(std::tuple(a.length0, a.length, (int)a.capIndex, a.capacity, FArrayNth(a, int, 15)),
              std::tuple(16u, 16u, 0, 0u, 15));
    frees = 10;
    EXPECT_EQ(FArrayFree(a, int), 1);
    for (void *block : lost) UnAllocate(block);
}

TEST_F(FArrayTest, MisuseIsAnAssertion) {
    FArray a = New(4);
    a.length = 40;
    UInt end;
    EXPECT_DEATH(FArrayRange(a, int, 1, &end), "'array->data\\[0\\] != NULL' failed");
    EXPECT_DEATH(FArrayRange(a, int, 5, &end), "'array->data\\[1\\] != NULL' failed");
    EXPECT_DEATH(FArrayRange(a, int, 20, &end), "'array->data\\[capIndex\\] != NULL' failed");
    EXPECT_DEATH(FArrayEnsureCapacity0(a, int, 50), "'array->length <= array->length0' failed");
    EXPECT_DEATH(FArrayAppendFromPtr_(&a, &end, 1, 4, 8, __FILE__, __LINE__),
                 "'eltSize == eltSize0' failed");
    a.length0 = 2;
    EXPECT_DEATH(FArrayRange(a, int, 1, &end), "'array->data0 != NULL' failed");
}

}  // namespace
