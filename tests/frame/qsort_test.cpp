// QSort against std::sort on many shapes of input, in each swapping mode.
#include <gtest/gtest.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "qk/qkcommon.h"

namespace {

// What a comparison sees: the array bounds to check its pointers against,
// and a count of calls.
struct SortContext {
    const char *base;
    size_t count;
    size_t size;
    size_t calls = 0;
    bool badPointer = false;
    bool descending = false;

    void Check(const void *p) {
        const char *c = (const char *)p;
        if (c < base || c >= base + count * size || (size_t)(c - base) % size != 0)
            badPointer = true;
    }
};

// Elements of `size` bytes whose key is the first four bytes, read without
// alignment; the remaining bytes are payload.
UInt KeyOf(const void *p) {
    UInt key;
    memcpy(&key, p, sizeof(key));
    return key;
}

int CompareKeys(const void *a, const void *b, void *argument) {
    auto *context = (SortContext *)argument;
    context->calls++;
    context->Check(a);
    context->Check(b);
    UInt x = KeyOf(a), y = KeyOf(b);
    if (context->descending) std::swap(x, y);
    return x < y ? -1 : x > y ? 1 : 0;
}

// 3-byte elements: the key is the whole element, big-endian.
UInt Key3(const void *p) {
    auto *b = (const unsigned char *)p;
    return (UInt)b[0] << 16 | (UInt)b[1] << 8 | b[2];
}

int Compare3(const void *a, const void *b, void *argument) {
    auto *context = (SortContext *)argument;
    context->calls++;
    context->Check(a);
    context->Check(b);
    UInt x = Key3(a), y = Key3(b);
    return x < y ? -1 : x > y ? 1 : 0;
}

enum class Shape { Random, FewValues, Sorted, Reverse, Equal, OrganPipe, Sawtooth };

std::vector<UInt> MakeKeys(Shape shape, size_t n, std::mt19937 &random) {
    std::vector<UInt> keys(n);
    for (size_t i = 0; i < n; i++) {
        switch (shape) {
            case Shape::Random:
                keys[i] = random();
                break;
            case Shape::FewValues:
                keys[i] = random() % 5;
                break;
            case Shape::Sorted:
                keys[i] = (UInt)i;
                break;
            case Shape::Reverse:
                keys[i] = (UInt)(n - i);
                break;
            case Shape::Equal:
                keys[i] = 42;
                break;
            case Shape::OrganPipe:
                keys[i] = (UInt)std::min(i, n - i);
                break;
            case Shape::Sawtooth:
                keys[i] = (UInt)(i % 17);
                break;
        }
    }
    return keys;
}

const Shape kShapes[] = {Shape::Random, Shape::FewValues, Shape::Sorted,  Shape::Reverse,
                         Shape::Equal,  Shape::OrganPipe, Shape::Sawtooth};
const size_t kCounts[] = {0, 1, 2, 3, 6, 7, 8, 9, 40, 41, 63, 64, 65, 100, 257, 1000, 5000};

// Sorts records of `size` bytes (size >= 4) placed at `offset` bytes past an
// 8-aligned buffer, each with its key and a payload that identifies it, and
// checks the result against a stable sort of the same records.
void CheckRecords(size_t size, size_t offset) {
    std::mt19937 random(1234 + (unsigned)size * 10 + (unsigned)offset);
    for (Shape shape : kShapes) {
        for (size_t n : kCounts) {
            std::vector<UInt> keys = MakeKeys(shape, n, random);
            std::vector<uint64_t> storage((n * size + offset) / 8 + 2);
            char *base = (char *)storage.data() + offset;
            std::vector<std::vector<unsigned char>> records(n);
            for (size_t i = 0; i < n; i++) {
                records[i].resize(size);
                memcpy(records[i].data(), &keys[i], 4);
                for (size_t j = 4; j < size; j++) records[i][j] = (unsigned char)(i * 31 + j);
                memcpy(base + i * size, records[i].data(), size);
            }
            SortContext context{base, n, size};
            QSort(base, (UInt)n, (UInt)size, CompareKeys, &context);
            ASSERT_FALSE(context.badPointer) << "size " << size << " n " << n;

            // Keys in order, and the records a permutation of the input.
            std::stable_sort(records.begin(), records.end(), [](const auto &a, const auto &b) {
                return KeyOf(a.data()) < KeyOf(b.data());
            });
            std::vector<std::vector<unsigned char>> sorted(n);
            for (size_t i = 0; i < n; i++) {
                sorted[i].assign(base + i * size, base + (i + 1) * size);
                ASSERT_EQ(KeyOf(sorted[i].data()), KeyOf(records[i].data()))
                    << "size " << size << " offset " << offset << " n " << n << " at " << i;
            }
            std::sort(sorted.begin(), sorted.end());
            std::sort(records.begin(), records.end());
            ASSERT_EQ(sorted, records) << "size " << size << " offset " << offset << " n " << n;
        }
    }
}

TEST(QSortTest, NoElementOrOneNeedsNoComparison) {
    SortContext context{nullptr, 0, 4};
    QSort(nullptr, 0, 4, CompareKeys, &context);
    UInt one = 5;
    context = SortContext{(const char *)&one, 1, 4};
    QSort(&one, 1, 4, CompareKeys, &context);
    EXPECT_EQ(context.calls, 0u);
    EXPECT_EQ(one, 5u);
}

TEST(QSortTest, OneWordElements) {
    CheckRecords(4, 0);
}
TEST(QSortTest, TwoWordElements) {
    CheckRecords(8, 0);
}
TEST(QSortTest, EightByteElementsOnFourByteBoundary) {
    CheckRecords(8, 4);
}
TEST(QSortTest, ElementsOfSeveralWords) {
    CheckRecords(12, 0);
    CheckRecords(24, 0);
    CheckRecords(24, 4);
}
TEST(QSortTest, UnalignedElementsSwapByBytes) {
    CheckRecords(24, 1);
    CheckRecords(5, 0);
    CheckRecords(6, 2);
}

TEST(QSortTest, ThreeByteElementsAtAnOddAddress) {
    std::mt19937 random(99);
    for (size_t n : kCounts) {
        std::vector<unsigned char> buffer(n * 3 + 1);
        char *base = (char *)buffer.data() + 1;
        std::vector<UInt> expected(n);
        for (size_t i = 0; i < n; i++) {
            UInt key = random() % 5000;  // duplicates
            base[i * 3] = (char)(key >> 16);
            base[i * 3 + 1] = (char)(key >> 8);
            base[i * 3 + 2] = (char)key;
            expected[i] = key;
        }
        SortContext context{base, n, 3};
        QSort(base, (UInt)n, 3, Compare3, &context);
        EXPECT_FALSE(context.badPointer);
        std::sort(expected.begin(), expected.end());
        for (size_t i = 0; i < n; i++) ASSERT_EQ(Key3(base + i * 3), expected[i]) << n << " " << i;
    }
}

TEST(QSortTest, ArgumentReachesTheComparison) {
    std::vector<UInt> keys = {5, 1, 9, 3, 3, 7, 0, 8, 2, 6, 4, 11, 10};
    SortContext context{(const char *)keys.data(), keys.size(), 4};
    context.descending = true;
    QSort(keys.data(), (UInt)keys.size(), 4, CompareKeys, &context);
    EXPECT_EQ(keys, (std::vector<UInt>{11, 10, 9, 8, 7, 6, 5, 4, 3, 3, 2, 1, 0}));
    EXPECT_GT(context.calls, 0u);
}

TEST(QSortTest, AllEqualTakesLinearComparisons) {
    const size_t n = 100000;
    std::vector<UInt> keys(n, 7);
    SortContext context{(const char *)keys.data(), n, 4};
    QSort(keys.data(), (UInt)n, 4, CompareKeys, &context);
    EXPECT_LE(context.calls, 2 * n);
}

// n log n bound with a generous constant; a quadratic sort exceeds it by far.
size_t Bound(size_t n) {
    return (size_t)(4 * n * std::log2((double)n));
}

TEST(QSortTest, SortedAndReversedInputsStayNLogN) {
    const size_t n = 20000;
    for (Shape shape : {Shape::Sorted, Shape::Reverse, Shape::OrganPipe, Shape::Sawtooth}) {
        std::mt19937 random(1);
        std::vector<UInt> keys = MakeKeys(shape, n, random);
        SortContext context{(const char *)keys.data(), n, 4};
        QSort(keys.data(), (UInt)n, 4, CompareKeys, &context);
        EXPECT_TRUE(std::is_sorted(keys.begin(), keys.end()));
        EXPECT_LE(context.calls, Bound(n)) << (int)shape;
    }
}

// A partition that makes no swap but leaves both sides in reverse order: an
// insertion sort over the whole range would take quadratic time.
TEST(QSortTest, SwaplessPartitionOfALargeRangeGoesOnPartitioning) {
    const size_t half = 2000, n = 2 * half + 1;
    std::vector<UInt> keys(n);
    for (size_t i = 0; i < half; i++) keys[i] = (UInt)(half - 1 - i);        // below the median
    keys[half] = (UInt)half;                                                 // the median
    for (size_t i = half + 1; i < n; i++) keys[i] = (UInt)(n - (i - half));  // above it
    SortContext context{(const char *)keys.data(), n, 4};
    QSort(keys.data(), (UInt)n, 4, CompareKeys, &context);
    for (size_t i = 0; i < n; i++) ASSERT_EQ(keys[i], i);
    EXPECT_LE(context.calls, Bound(n));
}

}  // namespace
