// QSort against std::sort on many shapes of input, in each swapping mode,
// and its bound on comparisons.
#include <cmath>

#include "frame/frame_test.h"

namespace {

// The key of an element is its first four bytes (all of it when smaller),
// read without alignment; the rest is payload.
UInt KeyOf(const void *p, size_t size) {
    UInt key = 0;
    memcpy(&key, p, std::min(size, sizeof key));
    return key;
}

// Sorts `count` elements of `size` bytes at `base` by key, checking that each
// pointer compared falls on an element: the number of comparisons.
struct Sorter {
    char *base;
    size_t count, size, calls = 0;
    bool badPointer = false;

    UInt Key(const void *p) {
        size_t at = (size_t)((const char *)p - base);
        badPointer |= at >= count * size || at % size != 0;
        return KeyOf(p, size);
    }
    size_t Sort() {
        auto compare = [](const void *a, const void *b, void *self) {
            auto *s = (Sorter *)self;
            UInt x = s->Key(a), y = s->Key(b);
            return s->calls++, x < y ? -1 : x > y ? 1 : 0;
        };
        QSort(base, (UInt)count, (UInt)size, compare, this);
        EXPECT_FALSE(badPointer);
        return calls;
    }
};

// Shapes of input: the key at position i of n.
using Shape = UInt (*)(size_t i, size_t n, std::mt19937 &random);
const Shape kShapes[] = {
    [](size_t i, size_t, std::mt19937 &) { return (UInt)i; },                     // sorted
    [](size_t i, size_t n, std::mt19937 &) { return (UInt)(n - i); },             // reversed
    [](size_t i, size_t n, std::mt19937 &) { return (UInt)std::min(i, n - i); },  // organ pipe
    [](size_t i, size_t, std::mt19937 &) { return (UInt)(i % 17); },              // sawtooth
    [](size_t, size_t, std::mt19937 &random) -> UInt { return random(); },
    [](size_t, size_t, std::mt19937 &random) -> UInt { return random() % 5; },
    [](size_t, size_t, std::mt19937 &) -> UInt { return 42; },
};

// Records of `size` bytes placed at `offset` bytes past an 8-aligned buffer,
// each with its key and a payload that tells it: one word, two words, several
// words, on word and half-word boundaries, and sizes or addresses that are
// not multiples of four (byte swaps). The keys come out in order, the
// records a permutation of the input, after n log n comparisons at most with
// a generous constant: a quadratic sort exceeds it by far.
class QSortTest : public ::testing::TestWithParam<std::pair<size_t, size_t>> {};

TEST_P(QSortTest, SortsRecordsLikeTheReference) {
    auto [size, offset] = GetParam();
    std::mt19937 random(1234 + (unsigned)size * 10 + (unsigned)offset);
    auto byKey = [&](const Bytes &a, const Bytes &b) {
        return KeyOf(a.data(), size) < KeyOf(b.data(), size);
    };
    for (Shape shape : kShapes) {
        for (size_t n : {0, 1, 2, 3, 6, 7, 8, 9, 40, 41, 63, 64, 65, 100, 257, 1000, 3000}) {
            std::vector<uint64_t> storage((n * size + offset) / 8 + 2);
            Sorter sorter{(char *)storage.data() + offset, n, size};
            std::vector<Bytes> records(n, Bytes(size)), sorted;
            for (size_t i = 0; i < n; i++) {
                UInt key = shape(i, n, random);
                memcpy(records[i].data(), &key, std::min(size, sizeof key));
                for (size_t j = 4; j < size; j++) records[i][j] = (UByte)(i * 31 + j);
                memcpy(sorter.base + i * size, records[i].data(), size);
            }
            EXPECT_LE(sorter.Sort(), n < 2 ? 0 : 4 * n * std::log2((double)n)) << "n " << n;
            for (char *p = sorter.base; sorted.size() < n; p += size)
                sorted.emplace_back(p, p + size);
            ASSERT_TRUE(std::is_sorted(sorted.begin(), sorted.end(), byKey)) << "n " << n;
            std::sort(sorted.begin(), sorted.end()), std::sort(records.begin(), records.end());
            ASSERT_EQ(sorted, records) << "n " << n;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Layouts, QSortTest,
                         ::testing::Values(std::pair(4, 0), std::pair(8, 0), std::pair(8, 4),
                                           std::pair(12, 0), std::pair(24, 0), std::pair(24, 4),
                                           std::pair(24, 1), std::pair(5, 0), std::pair(6, 2),
                                           std::pair(3, 1)));

// Runs of equal keys take linear time. A partition that makes no swap but
// leaves both sides in reverse order would take an insertion sort over the
// whole range quadratic time.
TEST(QSortBoundTest, NoInputTakesQuadraticTime) {
    std::vector<UInt> keys(100000, 7);
    auto sort = [&] { return Sorter{(char *)keys.data(), keys.size(), 4}.Sort(); };
    EXPECT_LE(sort(), 2 * keys.size());
    const UInt half = 2000, m = 2 * half + 1;
    keys.resize(m);
    for (UInt i = 0; i < m; i++)
        keys[i] = i < half ? half - 1 - i : i == half ? half : m - (i - half);
    EXPECT_LE(sort(), 4 * m * std::log2((double)m));
    for (UInt i = 0; i < m; i++) ASSERT_EQ(keys[i], i);
}

}  // namespace
