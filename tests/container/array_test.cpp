// Array and VMArray: growth, exact growth, copy and release.
#include <gtest/gtest.h>
#include <stdint.h>

#include <vector>

#include "qk/qkcommon.h"

namespace {

class ArrayTest : public ::testing::Test {
  protected:
    void SetUp() override { QKLibInit("arraytest"); }
};

TEST_F(ArrayTest, ZeroHeaderGrowsToFourThenDoubles) {
    UIntArray a = {};
    std::vector<UInt> capacities;
    for (UInt i = 0; i < 17; i++) {
        ArrayAdd(a, i * 3);
        capacities.push_back(a.capacity);
    }
    EXPECT_EQ(capacities,
              (std::vector<UInt>{4, 4, 4, 4, 8, 8, 8, 8, 16, 16, 16, 16, 16, 16, 16, 16, 32}));
    ASSERT_EQ(ArrayLength(a), 17u);
    for (UInt i = 0; i < 17; i++) EXPECT_EQ(ArrayNth(a, i), i * 3);
    ArrayFree(a);
    EXPECT_EQ(a.data, nullptr);
    EXPECT_EQ(a.length, 0u);
    EXPECT_EQ(a.capacity, 0u);
    ArrayFree(a);  // a freed array is again a valid empty one
}

TEST_F(ArrayTest, EnsureAndAppendGrowByDoubling) {
    ByteArray a;
    ArrayInit(a);
    ArrayAppend(a, "hello, world", 12);
    EXPECT_EQ(a.capacity, 16u);
    EXPECT_EQ(memcmp(a.data, "hello, world", 12), 0);
    ArrayEnsure(a, 100);
    EXPECT_EQ(a.capacity, 128u);
    EXPECT_EQ(a.length, 12u);
    EXPECT_EQ(memcmp(a.data, "hello, world", 12), 0);
    ArrayFree(a);
}

TEST_F(ArrayTest, GrowAboveHalfTheRangeIsAnAssertion) {
    // The capacity is set by hand: no memory stands behind it.
    Array a = {nullptr, 0, 2147483648u};
    EXPECT_DEATH(ArrayGrow_(&a, 1, __FILE__, __LINE__),
                 "'a->capacity <= UINT_MAX_VALUE / 2' failed");
    // At the limit itself, growth goes through (elements of size 0 need no
    // memory).
    Array b = {nullptr, 0, 2147483647u};
    ArrayGrow_(&b, 0, __FILE__, __LINE__);
    EXPECT_EQ(b.capacity, 4294967294u);
    EXPECT_EQ(b.data, nullptr);
}

TEST_F(ArrayTest, GrowExactOnlyGrows) {
    ULongArray a = {};
    ArrayGrowExact(a, 3);
    EXPECT_EQ(a.capacity, 3u);
    a.data[0] = 11;
    a.data[2] = 33;
    a.length = 3;
    ULong *data = a.data;
    ArrayGrowExact(a, 2);
    ArrayGrowExact(a, 3);
    EXPECT_EQ(a.data, data);
    EXPECT_EQ(a.capacity, 3u);
    ArrayGrowExact(a, 5);
    EXPECT_EQ(a.capacity, 5u);
    EXPECT_EQ(a.data[0], 11u);
    EXPECT_EQ(a.data[2], 33u);
    EXPECT_EQ(a.length, 3u);
    ArrayFree(a);
}

TEST_F(ArrayTest, CopyIntoEmptyTarget) {
    UIntArray source = {}, target = {};
    for (UInt i = 0; i < 5; i++) ArrayAdd(source, i + 100);
    ArrayCopy(target, source);
    EXPECT_EQ(target.length, 5u);
    EXPECT_EQ(target.capacity, 8u);  // 4, doubled until 5 fit
    EXPECT_NE(target.data, source.data);
    for (UInt i = 0; i < 5; i++) EXPECT_EQ(target.data[i], i + 100);
    ArrayFree(source);
    ArrayFree(target);
}

TEST_F(ArrayTest, CopyIntoSmallTargetDoublesItsCapacity) {
    UIntArray source = {}, target = {};
    for (UInt i = 0; i < 20; i++) ArrayAdd(source, i);
    for (UInt i = 0; i < 3; i++) ArrayAdd(target, 7);
    ASSERT_EQ(target.capacity, 4u);
    ArrayCopy(target, source);
    EXPECT_EQ(target.capacity, 32u);  // 8, 16, 32
    EXPECT_EQ(target.length, 20u);
    for (UInt i = 0; i < 20; i++) EXPECT_EQ(target.data[i], i);
    ArrayFree(source);
    ArrayFree(target);
}

TEST_F(ArrayTest, CopyIntoLargeEnoughTargetKeepsItsMemory) {
    UIntArray source = {}, target = {};
    for (UInt i = 0; i < 3; i++) ArrayAdd(source, i + 1);
    ArrayGrowExact(target, 10);
    UInt *data = target.data;
    ArrayCopy(target, source);
    EXPECT_EQ(target.data, data);
    EXPECT_EQ(target.capacity, 10u);
    EXPECT_EQ(target.length, 3u);
    EXPECT_EQ(target.data[2], 3u);

    UIntArray empty = {};
    ArrayCopy(target, empty);
    EXPECT_EQ(target.data, data);
    EXPECT_EQ(target.capacity, 10u);
    EXPECT_EQ(target.length, 0u);
    ArrayFree(source);
    ArrayFree(target);
}

TEST_F(ArrayTest, CopyBetweenElementSizesIsAnAssertion) {
    UIntArray a = {};
    ULongArray b = {};
    EXPECT_DEATH(ArrayCopy(a, b), "'aSize == bSize' failed");
}

// ---- VMArray ----

TEST_F(ArrayTest, VMArrayGrowsInPagesAndKeepsContents) {
    QK_VMARRAY(ULong) a;
    VMArrayInit(a);
    std::vector<UInt> capacities;
    for (ULong i = 0; i < 5000; i++) {
        UInt before = a.capacity;
        VMArrayAdd(a, i * i);
        if (a.capacity != before) capacities.push_back(a.capacity);
        ASSERT_EQ((uintptr_t)a.data % PageSize(), 0u);
    }
    EXPECT_EQ(capacities,
              (std::vector<UInt>{4, 8, 16, 32, 64, 128, 256, 512, 1024, 2048, 4096, 8192}));
    for (ULong i = 0; i < 5000; i++) ASSERT_EQ(VMArrayNth(a, i), i * i);
    VMArrayFree(a);
    EXPECT_EQ(a.data, nullptr);
    EXPECT_EQ(a.capacity, 0u);
    EXPECT_EQ(a.length, 0u);
}

TEST_F(ArrayTest, VMArrayCopy) {
    QK_VMARRAY(UInt) source, target;
    VMArrayInit(source);
    VMArrayInit(target);
    for (UInt i = 0; i < 9; i++) VMArrayAdd(source, i ^ 0x55);
    VMArrayCopy(target, source);
    EXPECT_EQ(target.capacity, 16u);
    EXPECT_EQ(target.length, 9u);
    for (UInt i = 0; i < 9; i++) EXPECT_EQ(target.data[i], i ^ 0x55);

    UInt *data = target.data;
    source.length = 0;
    VMArrayCopy(target, source);
    EXPECT_EQ(target.data, data);
    EXPECT_EQ(target.length, 0u);
    EXPECT_EQ(target.capacity, 16u);

    QK_VMARRAY(UShort) other;
    VMArrayInit(other);
    EXPECT_DEATH(VMArrayCopy(other, source), "'aSize == bSize' failed");
    VMArrayFree(source);
    VMArrayFree(target);
}

TEST_F(ArrayTest, VMArrayMapFailureIsFatal) {
    Array a = {nullptr, 0, 0};
    EXPECT_EXIT(VMArrayGrow_(&a, SIZE_MAX / 8, __FILE__, __LINE__), ::testing::ExitedWithCode(1),
                "memory map failed: ptr=.* size=");
}

TEST_F(ArrayTest, VMArrayCountBeyondThirtyTwoBitsIsAnAssertion) {
    Array a = {nullptr, 0, 2147483648u};
    EXPECT_DEATH(VMArrayGrow_(&a, 0, __FILE__, __LINE__), "'a->capacity <= .*' failed");
}

}  // namespace
