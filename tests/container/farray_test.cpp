// FArray: fragment layout, stretches, stability of elements, callbacks,
// compaction and the first block.
#include <gtest/gtest.h>

#include <tuple>
#include <vector>

#include "qk/qkcommon.h"

namespace {

class FArrayTest : public ::testing::Test {
  protected:
    void SetUp() override { QKLibInit("farraytest"); }
};

// Heap callbacks that record what they are asked and can be made to fail.
struct Recorder {
    int allocsLeft = 1 << 30;  // allocations that succeed before failures
    int freesLeft = 1 << 30;
    std::vector<std::tuple<void *, UInt, size_t>> frees;  // pointer, offset, size
    std::vector<size_t> allocs;
};

void *RecordingAlloc(void *old, size_t size, int *ok, void *userData, const char *file, int line) {
    auto *r = (Recorder *)userData;
    if (r->allocsLeft-- <= 0) {
        QKErrorThrow(QK_ERR_FAILURE, QK_DOMAIN_GENERAL, "no memory for the test");
        *ok = 0;
        return nullptr;
    }
    r->allocs.push_back(size);
    return Allocate_(size, old, file, line);
}

void RecordingFree(void *pointer, UInt offset, size_t size, int *ok, void *userData) {
    auto *r = (Recorder *)userData;
    if (r->freesLeft-- <= 0) {
        QKErrorThrow(QK_ERR_FAILURE, QK_DOMAIN_GENERAL, "cannot free at %u", offset);
        *ok = 0;
        return;
    }
    r->frees.emplace_back(pointer, offset, size);
    UnAllocate(pointer);
}

FArray HeapArray(UInt blockSize) {
    FArray a;
    FArrayInitHeap(a, blockSize);
    return a;
}

// Appends the ints from..to-1, each at the index that the length gave.
void AddInts(FArray &a, int from, int to) {
    for (int i = from; i < to; i++) {
        int ok = 1;
        Long expected = a.length;
        ASSERT_EQ(FArrayAdd(a, &i, &ok), expected);
        ASSERT_EQ(ok, 1);
    }
}

TEST_F(FArrayTest, FragmentsOfBlockSizeFour) {
    FArray a = HeapArray(4);
    AddInts(a, 0, 32);
    EXPECT_EQ(a.capIndex, 4);
    EXPECT_EQ(a.capacity, 32u);
    for (UInt i = 0; i < 32; i++) {
        int *p = &FArrayNth(a, int, i);
        int *expected = i < 4    ? (int *)a.data[0] + i
                        : i < 8  ? (int *)a.data[1] + (i - 4)
                        : i < 16 ? (int *)a.data[2] + (i - 8)
                                 : (int *)a.data[3] + (i - 16);
        EXPECT_EQ(p, expected) << i;
        EXPECT_EQ(*p, (int)i);
    }
    EXPECT_EQ(a.data[4], nullptr);
    EXPECT_EQ(FArrayFree(a, int), 1);
}

TEST_F(FArrayTest, RangeGivesContiguousStretches) {
    FArray a = HeapArray(4);
    AddInts(a, 0, 25);
    struct {
        UInt index, end;
    } cases[] = {{0, 4}, {3, 4}, {4, 8}, {7, 8}, {8, 16}, {15, 16}, {16, 25}, {24, 25}};
    for (auto c : cases) {
        UInt end = 0;
        int *p = FArrayRange(a, int, c.index, &end);
        ASSERT_NE(p, nullptr) << c.index;
        EXPECT_EQ(*p, (int)c.index);
        EXPECT_EQ(end, c.end) << c.index;
        EXPECT_EQ(p, &FArrayNth(a, int, c.index));
    }
    UInt end = 0;
    EXPECT_EQ(FArrayRange(a, int, 25, &end), nullptr);
    EXPECT_EQ(end, 25u);
    EXPECT_EQ(FArrayRange(a, int, 100, &end), nullptr);
    EXPECT_EQ(end, 100u);
    FArrayFree(a, int);
}

TEST_F(FArrayTest, ElementsNeverMoveWhileGrowing) {
    FArray a = HeapArray(3);
    std::vector<long *> pointers;
    for (long i = 0; i < 20000; i++) {
        int ok = 1;
        Long index = FArrayAdd(a, &i, &ok);
        ASSERT_EQ(index, i);
        if (i < 200) pointers.push_back(&FArrayNth(a, long, (UInt)i));
    }
    for (long i = 0; i < 200; i++) {
        EXPECT_EQ(pointers[i], &FArrayNth(a, long, (UInt)i));
        EXPECT_EQ(*pointers[i], i);
    }
    // Fragment k holds 3 * 2^(k-1) elements from k = 2 on: the capacity
    // doubles with each one.
    EXPECT_EQ(a.capacity, 3u << (a.capIndex - 1));
    EXPECT_GE(a.capacity, 20000u);
    EXPECT_LT(a.capacity / 2, 20000u);
    FArrayFree(a, long);
}

TEST_F(FArrayTest, AppendAndCopyOutAcrossFragments) {
    FArray a = HeapArray(5);
    std::vector<int> source(100);
    for (int i = 0; i < 100; i++) source[i] = i * 7;
    ASSERT_EQ(FArrayAppendFromPtr(a, source.data(), 3), 1);
    ASSERT_EQ(FArrayAppendFromPtr(a, source.data() + 3, 97), 1);
    ASSERT_EQ(FArrayAppendFromPtr(a, source.data(), 0), 1);
    EXPECT_EQ(a.length, 100u);
    for (UInt i = 0; i < 100; i++) ASSERT_EQ(FArrayNth(a, int, i), (int)i * 7);
    std::vector<int> target(100, -1);
    FArrayAppendToPtr(a, target.data());
    EXPECT_EQ(target, source);

    EXPECT_DEATH(FArrayAppendFromPtr_(&a, source.data(), 1, 4, 8, __FILE__, __LINE__),
                 "'eltSize == eltSize0' failed");
    FArrayFree(a, int);
}

TEST_F(FArrayTest, FailingAllocReportsThroughOk) {
    Recorder recorder;
    recorder.allocsLeft = 2;
    FArray a;
    FArrayInit(a, 2, RecordingAlloc, RecordingFree, &recorder);
    AddInts(a, 0, 4);  // data[0] and data[1]
    int value = 4, ok = 1;
    errno = 0;
    EXPECT_EQ(FArrayAdd(a, &value, &ok), -1);
    EXPECT_EQ(ok, 0);
    EXPECT_EQ(a.length, 5u);  // grown by one all the same
    EXPECT_EQ(errno, -2);
    EXPECT_STREQ(QKErrorMessage(), "no memory for the test");
    EXPECT_EQ(FArrayEnsureCapacity(a, int, 10), 0);
    a.length = 4;

    int more[3] = {1, 2, 3};
    EXPECT_EQ(FArrayAppendFromPtr(a, more, 3), 0);
    EXPECT_EQ(a.length, 4u);

    recorder.allocsLeft = 1;
    EXPECT_EQ(FArrayEnsureCapacity(a, int, 8), 1);
    EXPECT_EQ(a.capacity, 8u);
    EXPECT_EQ(FArrayFree(a, int), 1);
}

TEST_F(FArrayTest, FreeReleasesBlocksInOrderOfPosition) {
    Recorder recorder;
    FArray a;
    FArrayInit(a, 4, RecordingAlloc, RecordingFree, &recorder);
    ASSERT_EQ(FArrayEnsureCapacity0(a, int, 6), 1);
    AddInts(a, 0, 20);  // 6 in data0, then 4 + 4 + 8 in fragments
    EXPECT_EQ(a.length0, 6u);
    EXPECT_EQ(&FArrayNth(a, int, 5), (int *)a.data0 + 5);
    EXPECT_EQ(&FArrayNth(a, int, 6), (int *)a.data[0]);
    void *blocks[] = {a.data0, a.data[0], a.data[1], a.data[2]};

    ASSERT_EQ(FArrayFree(a, int), 1);
    std::vector<std::tuple<void *, UInt, size_t>> expected = {{blocks[0], 0, 6 * sizeof(int)},
                                                              {blocks[1], 6, 4 * sizeof(int)},
                                                              {blocks[2], 10, 4 * sizeof(int)},
                                                              {blocks[3], 14, 8 * sizeof(int)}};
    EXPECT_EQ(recorder.frees, expected);
    EXPECT_EQ(a.blockSize, 0u);
    EXPECT_EQ(a.alloc, nullptr);
    EXPECT_EQ(a.free, nullptr);
    EXPECT_EQ(a.userData, nullptr);
    EXPECT_EQ(a.length, 0u);
    EXPECT_EQ(a.data0, nullptr);
}

TEST_F(FArrayTest, FailedFreeCanBeResumed) {
    Recorder recorder;
    recorder.freesLeft = 1;
    FArray a;
    FArrayInit(a, 4, RecordingAlloc, RecordingFree, &recorder);
    AddInts(a, 0, 8);
    EXPECT_EQ(FArrayFree(a, int), 0);
    EXPECT_EQ(errno, -2);
    EXPECT_EQ(recorder.frees.size(), 1u);
    EXPECT_EQ(a.data[0], nullptr);
    EXPECT_NE(a.data[1], nullptr);
    EXPECT_EQ(a.blockSize, 4u);  // still set up for another try
    recorder.freesLeft = 10;
    EXPECT_EQ(FArrayFree(a, int), 1);
    EXPECT_EQ(recorder.frees.size(), 2u);
    EXPECT_EQ(std::get<1>(recorder.frees[1]), 4u);
}

TEST_F(FArrayTest, CompactionKeepsContents) {
    Recorder recorder;
    FArray a;
    FArrayInit(a, 4, RecordingAlloc, RecordingFree, &recorder);
    AddInts(a, 0, 50);
    ASSERT_EQ(FArrayCompact(a, int), 1);
    EXPECT_EQ(recorder.frees.size(), 5u);  // fragments 0 to 4
    EXPECT_EQ(a.length0, 50u);
    EXPECT_EQ(a.length, 50u);
    EXPECT_EQ(a.capIndex, 0);
    EXPECT_EQ(a.capacity, 0u);
    for (void *fragment : a.data) EXPECT_EQ(fragment, nullptr);
    UInt end = 0;
    EXPECT_EQ(FArrayRange(a, int, 0, &end), (int *)a.data0);
    EXPECT_EQ(end, 50u);
    for (UInt i = 0; i < 50; i++) ASSERT_EQ(FArrayNth(a, int, i), (int)i);

    // Appends go on in fresh fragments behind the block.
    AddInts(a, 50, 60);
    EXPECT_EQ(&FArrayNth(a, int, 50), (int *)a.data[0]);
    for (UInt i = 0; i < 60; i++) ASSERT_EQ(FArrayNth(a, int, i), (int)i);
    EXPECT_EQ(FArrayFree(a, int), 1);
}

TEST_F(FArrayTest, CompactionWithAFailedReleaseKeepsTheFirstError) {
    Recorder recorder;
    FArray a;
    FArrayInit(a, 4, RecordingAlloc, RecordingFree, &recorder);
    AddInts(a, 0, 16);  // fragments at offsets 0, 4 and 8
    void *lost[] = {a.data[1], a.data[2]};
    recorder.freesLeft = 1;
    EXPECT_EQ(FArrayCompact(a, int), 0);
    EXPECT_EQ(errno, -2);
    EXPECT_STREQ(QKErrorMessage(), "cannot free at 4");
    // Compacted all the same.
    EXPECT_EQ(a.length0, 16u);
    EXPECT_EQ(a.capIndex, 0);
    for (UInt i = 0; i < 16; i++) ASSERT_EQ(FArrayNth(a, int, i), (int)i);
    recorder.freesLeft = 10;
    EXPECT_EQ(FArrayFree(a, int), 1);
    // The array forgot the blocks that could not be released.
    for (void *block : lost) UnAllocate(block);
}

TEST_F(FArrayTest, CompactionOfAnEmptyArray) {
    FArray a = HeapArray(8);
    ASSERT_EQ(FArrayEnsureCapacity(a, int, 10), 1);
    ASSERT_EQ(FArrayCompact(a, int), 1);
    EXPECT_EQ(a.data0, nullptr);
    EXPECT_EQ(a.length0, 0u);
    EXPECT_EQ(a.data[0], nullptr);
    AddInts(a, 0, 3);
    EXPECT_EQ(FArrayNth(a, int, 2), 2);
    FArrayFree(a, int);
}

TEST_F(FArrayTest, FirstBlockTakesTheFirstElements) {
    FArray a = HeapArray(4);
    ASSERT_EQ(FArrayEnsureCapacity0(a, int, 10), 1);
    EXPECT_EQ(a.length0, 10u);
    EXPECT_EQ(a.length, 0u);
    AddInts(a, 0, 11);
    for (UInt i = 0; i < 10; i++) EXPECT_EQ(&FArrayNth(a, int, i), (int *)a.data0 + i);
    EXPECT_EQ(&FArrayNth(a, int, 10), (int *)a.data[0]);
    EXPECT_EQ(a.capacity, 4u);
    UInt end;
    FArrayRange(a, int, 2, &end);
    EXPECT_EQ(end, 10u);

    // With elements in the fragments, the block cannot be replaced.
    EXPECT_DEATH(FArrayEnsureCapacity0(a, int, 20), "'array->length <= array->length0' failed");
    FArrayFree(a, int);
}

TEST_F(FArrayTest, FirstBlockGrowsKeepingItsElements) {
    FArray a = HeapArray(4);
    ASSERT_EQ(FArrayEnsureCapacity0(a, int, 3), 1);
    AddInts(a, 0, 3);
    ASSERT_EQ(FArrayEnsureCapacity0(a, int, 100), 1);
    AddInts(a, 3, 100);
    EXPECT_EQ(a.data[0], nullptr);  // all within the block
    for (UInt i = 0; i < 100; i++) ASSERT_EQ(FArrayNth(a, int, i), (int)i);
    FArrayFree(a, int);
}

struct Visit {
    std::vector<std::pair<UInt, size_t>> blocks;
    size_t stopAfter = 100;
};

void Visitor(void *, UInt offset, size_t size, int *ok, void *userData) {
    auto *v = (Visit *)userData;
    v->blocks.emplace_back(offset, size);
    if (v->blocks.size() >= v->stopAfter) *ok = 0;
}

TEST_F(FArrayTest, ExecVisitsEveryBlockUntilStopped) {
    FArray a = HeapArray(2);
    ASSERT_EQ(FArrayEnsureCapacity0(a, short, 3), 1);
    for (short i = 0; i < 10; i++) {
        int ok = 1;
        FArrayAdd(a, &i, &ok);
    }
    Visit all;
    EXPECT_EQ(FArrayExec(a, short, Visitor, &all), 1);
    std::vector<std::pair<UInt, size_t>> expected = {{0, 6}, {3, 4}, {5, 4}, {7, 8}};
    EXPECT_EQ(all.blocks, expected);

    Visit some;
    some.stopAfter = 2;
    EXPECT_EQ(FArrayExec(a, short, Visitor, &some), 0);
    EXPECT_EQ(some.blocks.size(), 2u);
    FArrayFree(a, short);
}

TEST_F(FArrayTest, MissingFragmentsAreAssertions) {
    FArray a = HeapArray(4);
    a.length = 40;
    UInt end;
    EXPECT_DEATH(FArrayRange(a, int, 1, &end), "'array->data\\[0\\] != NULL' failed");
    EXPECT_DEATH(FArrayRange(a, int, 5, &end), "'array->data\\[1\\] != NULL' failed");
    EXPECT_DEATH(FArrayRange(a, int, 20, &end), "'array->data\\[capIndex\\] != NULL' failed");
    a.length0 = 2;
    EXPECT_DEATH(FArrayRange(a, int, 1, &end), "'array->data0 != NULL' failed");
}

}  // namespace
