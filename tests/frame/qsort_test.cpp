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

    void Check(const void *p) {
        const char *c = (const char *)p;
        if (c < base || c >= base + count * size || (size_t)(c - base) % size != 0)
            badPointer = true;
    }
};

// The key of an element is its first four bytes (all of it when smaller),
// read without alignment; the remaining bytes are payload.
UInt KeyOf(const void *p, size_t size) {
    UInt key = 0;
    memcpy(&key, p, std::min(size, sizeof key));
    return key;
}

int CompareKeys(const void *a, const void *b, void *argument) {
    auto *context = (SortContext *)argument;
    context->calls++;
    context->Check(a);
    context->Check(b);
    UInt x = KeyOf(a, context->size), y = KeyOf(b, context->size);
    return x < y ? -1 : x > y ? 1 : 0;
}

// Shapes of input: the key at position i of n.
using Shape = UInt (*)(size_t i, size_t n, std::mt19937 &random);
const Shape kRandom = [](size_t, size_t, std::mt19937 &random) -> UInt { return random(); };
const Shape kFewValues = [](size_t, size_t, std::mt19937 &random) -> UInt { return random() % 5; };
const Shape kSorted = [](size_t i, size_t, std::mt19937 &) { return (UInt)i; };
const Shape kReverse = [](size_t i, size_t n, std::mt19937 &) { return (UInt)(n - i); };
const Shape kEqual = [](size_t, size_t, std::mt19937 &) -> UInt { return 42; };
const Shape kOrganPipe = [](size_t i, size_t n, std::mt19937 &) {
    return (UInt)std::min(i, n - i);
};
const Shape kSawtooth = [](size_t i, size_t, std::mt19937 &) { return (UInt)(i % 17); };

std::vector<UInt> MakeKeys(Shape shape, size_t n, std::mt19937 &random) {
    std::vector<UInt> keys(n);
    for (size_t i = 0; i < n; i++) keys[i] = shape(i, n, random);
    return keys;
}

// Sorts `keys` as 4-byte elements and returns the number of comparisons.
size_t SortKeys(std::vector<UInt> &keys) {
    SortContext context{(const char *)keys.data(), keys.size(), 4};
    QSort(keys.data(), (UInt)keys.size(), 4, CompareKeys, &context);
    EXPECT_FALSE(context.badPointer);
    return context.calls;
}

// Sorts records of `size` bytes placed at `offset` bytes past an 8-aligned
// buffer, each with its key and a payload that identifies it, and checks
// that the keys come out in order and the records are those that went in.
void CheckRecords(size_t size, size_t offset) {
    SCOPED_TRACE(testing::Message() << "size " << size << " offset " << offset);
    const size_t counts[] = {0, 1, 2, 3, 6, 7, 8, 9, 40, 41, 63, 64, 65, 100, 257, 1000, 5000};
    std::mt19937 random(1234 + (unsigned)size * 10 + (unsigned)offset);
    for (Shape shape : {kRandom, kFewValues, kSorted, kReverse, kEqual, kOrganPipe, kSawtooth}) {
        for (size_t n : counts) {
            std::vector<UInt> keys = MakeKeys(shape, n, random);
            std::vector<uint64_t> storage((n * size + offset) / 8 + 2);
            char *base = (char *)storage.data() + offset;
            std::vector<std::vector<unsigned char>> records(n);
            for (size_t i = 0; i < n; i++) {
                records[i].resize(size);
                memcpy(records[i].data(), &keys[i], std::min(size, sizeof keys[i]));
                for (size_t j = 4; j < size; j++) records[i][j] = (unsigned char)(i * 31 + j);
                memcpy(base + i * size, records[i].data(), size);
            }
            SortContext context{base, n, size};
            QSort(base, (UInt)n, (UInt)size, CompareKeys, &context);
            ASSERT_FALSE(context.badPointer) << "n " << n;
            ASSERT_TRUE(n >= 2 || context.calls == 0) << "n " << n;

            // Keys in order, and the records a permutation of the input.
            std::vector<std::vector<unsigned char>> sorted(n);
            for (size_t i = 0; i < n; i++) sorted[i].assign(base + i * size, base + (i + 1) * size);
            ASSERT_TRUE(std::is_sorted(
                sorted.begin(), sorted.end(),
                [size](auto &a, auto &b) { return KeyOf(a.data(), size) < KeyOf(b.data(), size); }))
                << "n " << n;
            std::sort(sorted.begin(), sorted.end());
            std::sort(records.begin(), records.end());
            ASSERT_EQ(sorted, records) << "n " << n;
        }
    }
}

// One word, two words, several words, on word and half-word boundaries, and
// sizes or addresses that are not multiples of four (byte swaps).
TEST(QSortTest, SortsRecordsInEverySwappingMode) {
    const size_t layouts[][2] = {{4, 0},  {8, 0},  {8, 4}, {12, 0}, {24, 0},
                                 {24, 4}, {24, 1}, {5, 0}, {6, 2},  {3, 1}};
    for (auto [size, offset] : layouts) CheckRecords(size, offset);
}

// n log n bound with a generous constant; a quadratic sort exceeds it by far.
size_t Bound(size_t n) {
    return (size_t)(4 * n * std::log2((double)n));
}

TEST(QSortTest, NoInputTakesQuadraticTime) {
    std::vector<UInt> equal(100000, 7);
    EXPECT_LE(SortKeys(equal), 2 * equal.size());  // runs of equal keys are linear

    const size_t n = 20000;
    const Shape shapes[] = {kSorted, kReverse, kOrganPipe, kSawtooth};
    for (int shape = 0; shape < 4; shape++) {
        std::mt19937 random(1);
        std::vector<UInt> keys = MakeKeys(shapes[shape], n, random);
        EXPECT_LE(SortKeys(keys), Bound(n)) << "shape " << shape;
        EXPECT_TRUE(std::is_sorted(keys.begin(), keys.end()));
    }

    // A partition that makes no swap but leaves both sides in reverse order:
    // an insertion sort over the whole range would take quadratic time.
    const size_t half = 2000, m = 2 * half + 1;
    std::vector<UInt> keys(m);
    for (size_t i = 0; i < half; i++) keys[i] = (UInt)(half - 1 - i);        // below the median
    keys[half] = (UInt)half;                                                 // the median
    for (size_t i = half + 1; i < m; i++) keys[i] = (UInt)(m - (i - half));  // above it
    EXPECT_LE(SortKeys(keys), Bound(m));
    for (size_t i = 0; i < m; i++) ASSERT_EQ(keys[i], i);
}

}  // namespace
