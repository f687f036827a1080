// Array and VMArray: growth, exact growth, copy and release.
#include <gtest/gtest.h>
#include <stdint.h>

#include <tuple>
#include <vector>

#include "qk/qkcommon.h"

namespace {

class ArrayTest : public ::testing::Test {
  protected:
    void SetUp() override { QKLibInit("arraytest"); }
};

// The header of an array: data, length, capacity.
template <class A>
std::tuple<const void *, UInt, UInt> Header(const A &a) {
    return {a.data, a.length, a.capacity};
}

TEST_F(ArrayTest, GrowsFromFourByDoubling) {
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
    EXPECT_EQ(Header(a), Header(UIntArray{}));
    ArrayFree(a);  // a freed array is again a valid empty one

    ByteArray b;
    ArrayInit(b);
    ArrayAppend(b, "hello, world", 12);
    EXPECT_EQ(b.capacity, 16u);
    ArrayEnsure(b, 100);
    EXPECT_EQ(Header(b), std::tuple(b.data, 12u, 128u));
    EXPECT_EQ(memcmp(b.data, "hello, world", 12), 0);
    ArrayFree(b);

    // Exact growth only grows, and keeps the contents.
    ULongArray c = {};
    ArrayGrowExact(c, 3);
    c.data[0] = 11;
    c.data[2] = 33;
    c.length = 3;
    EXPECT_EQ(c.capacity, 3u);
    const ULong *data = c.data;
    ArrayGrowExact(c, 2);
    ArrayGrowExact(c, 3);
    EXPECT_EQ(Header(c), std::tuple(data, 3u, 3u));
    ArrayGrowExact(c, 5);
    EXPECT_EQ(c.capacity, 5u);
    EXPECT_EQ(c.data[0], 11u);
    EXPECT_EQ(c.data[2], 33u);
    ArrayFree(c);
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
    EXPECT_EQ(Header(b), std::tuple(nullptr, 0u, 4294967294u));
}

TEST_F(ArrayTest, CopyGrowsOnlyATooSmallTarget) {
    UIntArray source = {}, target = {};
    for (UInt i = 0; i < 20; i++) ArrayAdd(source, i + 100);
    source.length = 5;
    ArrayCopy(target, source);
    EXPECT_EQ(Header(target), std::tuple(target.data, 5u, 8u));  // 4, doubled until 5 fit
    EXPECT_NE(target.data, source.data);
    // A small target doubles its capacity until the source fits.
    source.length = 20;
    ArrayCopy(target, source);
    EXPECT_EQ(target.capacity, 32u);  // 16, 32
    EXPECT_EQ(std::vector<UInt>(target.data, target.data + target.length),
              std::vector<UInt>(source.data, source.data + 20));

    // One large enough keeps its memory.
    const UInt *data = target.data;
    source.length = 3;
    ArrayCopy(target, source);
    EXPECT_EQ(Header(target), std::tuple(data, 3u, 32u));
    EXPECT_EQ(target.data[2], 102u);
    source.length = 0;
    ArrayCopy(target, source);
    EXPECT_EQ(Header(target), std::tuple(data, 0u, 32u));
    ArrayFree(source);
    ArrayFree(target);

    ULongArray other = {};
    EXPECT_DEATH(ArrayCopy(target, other), "'aSize == bSize' failed");
}

// ---- VMArray ----

TEST_F(ArrayTest, VMArrayGrowsInPagesAndCopies) {
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

    QK_VMARRAY(ULong) target;
    VMArrayInit(target);
    a.length = 9;
    VMArrayCopy(target, a);
    EXPECT_EQ(Header(target), std::tuple(target.data, 9u, 16u));
    for (ULong i = 0; i < 9; i++) EXPECT_EQ(target.data[i], i * i);
    const ULong *data = target.data;
    a.length = 0;
    VMArrayCopy(target, a);
    EXPECT_EQ(Header(target), std::tuple(data, 0u, 16u));

    QK_VMARRAY(UShort) other;
    VMArrayInit(other);
    EXPECT_DEATH(VMArrayCopy(other, a), "'aSize == bSize' failed");
    VMArrayFree(a);
    VMArrayFree(target);
    EXPECT_EQ(Header(a), std::tuple(nullptr, 0u, 0u));
}

TEST_F(ArrayTest, VMArrayGrowthFailures) {
    Array a = {nullptr, 0, 0};
    EXPECT_EXIT(VMArrayGrow_(&a, SIZE_MAX / 8, __FILE__, __LINE__), ::testing::ExitedWithCode(1),
                "memory map failed: ptr=.* size=");
    // The count is 32-bit whatever the width of a size.
    Array b = {nullptr, 0, 2147483648u};
    EXPECT_DEATH(VMArrayGrow_(&b, 0, __FILE__, __LINE__), "'a->capacity <= .*' failed");
}

}  // namespace
