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
// With `release` off, the free callback only records: a visitor for Exec.
struct Recorder {
    int allocsLeft = 1 << 30;  // allocations that succeed before failures
    int freesLeft = 1 << 30;
    bool release = true;
    std::vector<std::tuple<void *, UInt, size_t>> frees;  // pointer, offset, size
};

void *RecordingAlloc(void *old, size_t size, int *ok, void *userData, const char *file, int line) {
    auto *r = (Recorder *)userData;
    if (r->allocsLeft-- <= 0) {
        QKErrorThrow(QK_ERR_FAILURE, QK_DOMAIN_GENERAL, "no memory for the test");
        *ok = 0;
        return nullptr;
    }
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
    if (r->release) UnAllocate(pointer);
}

FArray HeapArray(UInt blockSize) {
    FArray a;
    FArrayInitHeap(a, blockSize);
    return a;
}

FArray RecordedArray(UInt blockSize, Recorder &recorder) {
    FArray a;
    FArrayInit(a, blockSize, RecordingAlloc, RecordingFree, &recorder);
    return a;
}

// The counts of an array: length0, length, capIndex, capacity.
std::tuple<UInt, UInt, int, UInt> Counts(const FArray &a) {
    return {a.length0, a.length, a.capIndex, a.capacity};
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

// Fragments 0 and 1 hold 4 elements, 2 holds 8, 3 holds 16; a range runs
// to the end of its fragment or of the array.
TEST_F(FArrayTest, ElementsLieInTheirFragmentsAndRangesEndWithThem) {
    FArray a = HeapArray(4);
    AddInts(a, 0, 25);
    EXPECT_EQ(Counts(a), std::tuple(0u, 25u, 4, 32u));
    EXPECT_EQ(a.data[4], nullptr);
    struct {
        UInt index, end, fragment, offset;
    } cases[] = {{0, 4, 0, 0},  {3, 4, 0, 3},   {4, 8, 1, 0},   {7, 8, 1, 3},
                 {8, 16, 2, 0}, {15, 16, 2, 7}, {16, 25, 3, 0}, {24, 25, 3, 8}};
    for (auto c : cases) {
        UInt end = 0;
        int *p = FArrayRange(a, int, c.index, &end);
        EXPECT_EQ(p, (int *)a.data[c.fragment] + c.offset) << c.index;
        EXPECT_EQ(p, &FArrayNth(a, int, c.index));
        EXPECT_EQ(*p, (int)c.index);
        EXPECT_EQ(end, c.end) << c.index;
    }
    UInt end = 0;
    EXPECT_EQ(FArrayRange(a, int, 25, &end), nullptr);
    EXPECT_EQ(end, 25u);
    EXPECT_EQ(FArrayRange(a, int, 100, &end), nullptr);
    EXPECT_EQ(end, 100u);
    EXPECT_EQ(FArrayFree(a, int), 1);
}

// From fragment 2 on, each fragment doubles the capacity.
TEST_F(FArrayTest, ElementsNeverMoveWhileGrowing) {
    FArray a = HeapArray(3);
    std::vector<long *> pointers;
    for (long i = 0; i < 20000; i++) {
        int ok = 1;
        ASSERT_EQ(FArrayAdd(a, &i, &ok), i);
        if (i < 200) pointers.push_back(&FArrayNth(a, long, (UInt)i));
    }
    for (long i = 0; i < 200; i++) {
        EXPECT_EQ(pointers[i], &FArrayNth(a, long, (UInt)i));
        EXPECT_EQ(*pointers[i], i);
    }
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
    FArray a = RecordedArray(2, recorder);
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

TEST_F(FArrayTest, ExecAndFreeGoOverTheBlocksInOrderOfPosition) {
    Recorder recorder;
    FArray a = RecordedArray(4, recorder);
    ASSERT_EQ(FArrayEnsureCapacity0(a, int, 6), 1);
    AddInts(a, 0, 20);  // 6 in data0, then 4 + 4 + 8 in fragments
    const std::vector<std::tuple<void *, UInt, size_t>> blocks = {{a.data0, 0, 6 * sizeof(int)},
                                                                  {a.data[0], 6, 4 * sizeof(int)},
                                                                  {a.data[1], 10, 4 * sizeof(int)},
                                                                  {a.data[2], 14, 8 * sizeof(int)}};
    recorder.release = false;
    EXPECT_EQ(FArrayExec(a, int, RecordingFree, &recorder), 1);
    EXPECT_EQ(recorder.frees, blocks);
    // A visitor that clears `ok` stops the walk.
    recorder.frees.clear();
    recorder.freesLeft = 2;
    EXPECT_EQ(FArrayExec(a, int, RecordingFree, &recorder), 0);
    EXPECT_EQ(recorder.frees.size(), 2u);

    recorder = Recorder();
    ASSERT_EQ(FArrayFree(a, int), 1);
    EXPECT_EQ(recorder.frees, blocks);
    static const FArray cleared = {};
    EXPECT_EQ(memcmp(&a, &cleared, sizeof a), 0);

    // A failed free can be resumed: the blocks released are forgotten.
    recorder = Recorder();
    recorder.freesLeft = 1;
    a = RecordedArray(4, recorder);
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
    FArray a = RecordedArray(4, recorder);
    AddInts(a, 0, 50);
    ASSERT_EQ(FArrayCompact(a, int), 1);
    EXPECT_EQ(recorder.frees.size(), 5u);  // fragments 0 to 4
    EXPECT_EQ(Counts(a), std::tuple(50u, 50u, 0, 0u));
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

    // An empty array compacts to no block at all.
    a = HeapArray(8);
    ASSERT_EQ(FArrayEnsureCapacity(a, int, 10), 1);
    ASSERT_EQ(FArrayCompact(a, int), 1);
    EXPECT_EQ(a.data0, nullptr);
    EXPECT_EQ(a.length0, 0u);
    EXPECT_EQ(a.data[0], nullptr);
    AddInts(a, 0, 3);
    EXPECT_EQ(FArrayNth(a, int, 2), 2);
    FArrayFree(a, int);
}

TEST_F(FArrayTest, CompactionWithAFailedReleaseKeepsTheFirstError) {
    Recorder recorder;
    FArray a = RecordedArray(4, recorder);
    AddInts(a, 0, 16);  // fragments at offsets 0, 4 and 8
    void *lost[] = {a.data[1], a.data[2]};
    recorder.freesLeft = 1;
    EXPECT_EQ(FArrayCompact(a, int), 0);
    EXPECT_EQ(errno, -2);
    EXPECT_STREQ(QKErrorMessage(), "cannot free at 4");
    // Compacted all the same.
    EXPECT_EQ(Counts(a), std::tuple(16u, 16u, 0, 0u));
    for (UInt i = 0; i < 16; i++) ASSERT_EQ(FArrayNth(a, int, i), (int)i);
    recorder.freesLeft = 10;
    EXPECT_EQ(FArrayFree(a, int), 1);
    // The array forgot the blocks that could not be released.
    for (void *block : lost) UnAllocate(block);
}

TEST_F(FArrayTest, FirstBlockTakesTheFirstElements) {
    FArray a = HeapArray(4);
    ASSERT_EQ(FArrayEnsureCapacity0(a, int, 10), 1);
    EXPECT_EQ(Counts(a), std::tuple(10u, 0u, 0, 0u));
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

    // Without, it grows keeping its elements.
    a = HeapArray(4);
    ASSERT_EQ(FArrayEnsureCapacity0(a, int, 3), 1);
    AddInts(a, 0, 3);
    ASSERT_EQ(FArrayEnsureCapacity0(a, int, 100), 1);
    AddInts(a, 3, 100);
    EXPECT_EQ(a.data[0], nullptr);  // all within the block
    for (UInt i = 0; i < 100; i++) ASSERT_EQ(FArrayNth(a, int, i), (int)i);
    FArrayFree(a, int);
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
