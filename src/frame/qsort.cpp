// The library's sort: a three-way quicksort with an extra argument for the
// comparison. Elements equal to the pivot gather at both ends during the
// partition and are then swapped into the middle, so runs of equal keys
// cost linear time. Small ranges, and ranges of fewer than 64 elements that
// the partition found already in order, finish with an insertion sort; a
// larger range always goes on by partitioning, so that no input makes the
// insertion sort quadratic.
//
// The swap is chosen once per call by the alignment of the base and the
// element size, and the sort is instantiated for each swap so that the inner
// loops have no indirect call but the comparison.
#include <stdint.h>
#include <string.h>

#include <algorithm>

#include "qk/memory.h"

namespace {

// Below this many elements a range is sorted by insertion.
constexpr size_t kInsertionLimit = 7;
// Above this many elements the pivot is the median of three medians.
constexpr size_t kNintherLimit = 40;
// Below this many elements a partition without swaps finishes by insertion.
constexpr size_t kPresortedLimit = 64;

// Exchanges n bytes (a positive multiple of sizeof(Word)) word by word.
template <typename Word>
inline void SwapWords(char *a, char *b, size_t n) {
    do {
        Word x, y;
        memcpy(&x, a, sizeof(Word));
        memcpy(&y, b, sizeof(Word));
        memcpy(a, &y, sizeof(Word));
        memcpy(b, &x, sizeof(Word));
        a += sizeof(Word);
        b += sizeof(Word);
        n -= sizeof(Word);
    } while (n > 0);
}

// Base or size not a multiple of 4: any length, by unaligned 8-byte chunks
// and then bytes.
struct ByteSwap {
    static constexpr size_t kFixedSize = 0;
    static inline void Exchange(char *a, char *b, size_t n) {
        size_t chunks = n & ~(size_t)7;
        if (chunks) SwapWords<uint64_t>(a, b, chunks);
        if (n > chunks) SwapWords<uint8_t>(a + chunks, b + chunks, n - chunks);
    }
    static inline void Swap(char *a, char *b, size_t size) { Exchange(a, b, size); }
    static inline void Block(char *a, char *b, size_t n) { Exchange(a, b, n); }
};

// Base and size multiples of sizeof(Word): elements of several words.
template <typename Word>
struct WordsSwap {
    static constexpr size_t kFixedSize = 0;
    static inline void Swap(char *a, char *b, size_t size) { SwapWords<Word>(a, b, size); }
    static inline void Block(char *a, char *b, size_t n) { SwapWords<Word>(a, b, n); }
};

// Elements of exactly one word.
template <typename Word>
struct OneWordSwap {
    static constexpr size_t kFixedSize = sizeof(Word);
    static inline void Swap(char *a, char *b, size_t) {
        Word x, y;
        memcpy(&x, a, sizeof(Word));
        memcpy(&y, b, sizeof(Word));
        memcpy(a, &y, sizeof(Word));
        memcpy(b, &x, sizeof(Word));
    }
    static inline void Block(char *a, char *b, size_t n) { SwapWords<Word>(a, b, n); }
};

template <class S>
class Sorter {
  public:
    Sorter(size_t size, QSortCompare compare, void *argument)
        : size_(S::kFixedSize ? S::kFixedSize : size), compare_(compare), argument_(argument) {}

    void Sort(char *a, size_t n) {
        const size_t es = size_;
        for (;;) {
            if (n < kInsertionLimit) {
                InsertionSort(a, n);
                return;
            }
            char *pm = a + (n / 2) * es;
            if (n > kInsertionLimit) {
                char *pl = a;
                char *pn = a + (n - 1) * es;
                if (n > kNintherLimit) {
                    size_t d = (n / 8) * es;
                    pl = Median3(pl, pl + d, pl + 2 * d);
                    pm = Median3(pm - d, pm, pm + d);
                    pn = Median3(pn - 2 * d, pn - d, pn);
                }
                pm = Median3(pl, pm, pn);
            }
            S::Swap(a, pm, es);

            // a: the pivot. [a+es, pa): equal; [pa, pb): less; (pc, pd]:
            // greater; (pd, end): equal.
            char *pa = a + es;
            char *pb = pa;
            char *pc = a + (n - 1) * es;
            char *pd = pc;
            bool swapped = false;
            for (;;) {
                int r;
                while (pb <= pc && (r = Compare(pb, a)) <= 0) {
                    if (r == 0) {
                        swapped = true;
                        S::Swap(pa, pb, es);
                        pa += es;
                    }
                    pb += es;
                }
                while (pb <= pc && (r = Compare(pc, a)) >= 0) {
                    if (r == 0) {
                        swapped = true;
                        S::Swap(pc, pd, es);
                        pd -= es;
                    }
                    pc -= es;
                }
                if (pb > pc) break;
                S::Swap(pb, pc, es);
                swapped = true;
                pb += es;
                pc -= es;
            }

            if (!swapped && n < kPresortedLimit) {
                InsertionSort(a, n);
                return;
            }

            // Move the equal blocks from both ends into the middle.
            char *end = a + n * es;
            size_t r = std::min((size_t)(pa - a), (size_t)(pb - pa));
            if (r > 0) S::Block(a, pb - r, r);
            r = std::min((size_t)(pd - pc), (size_t)(end - pd) - es);
            if (r > 0) S::Block(pb, end - r, r);

            r = (size_t)(pb - pa);
            if (r > es) Sort(a, r / es);
            r = (size_t)(pd - pc);
            if (r <= es) return;
            a = end - r;
            n = r / es;
        }
    }

  private:
    inline int Compare(const char *a, const char *b) const { return compare_(a, b, argument_); }

    inline char *Median3(char *a, char *b, char *c) const {
        return Compare(a, b) < 0 ? (Compare(b, c) < 0 ? b : (Compare(a, c) < 0 ? c : a))
                                 : (Compare(b, c) > 0 ? b : (Compare(a, c) < 0 ? a : c));
    }

    void InsertionSort(char *a, size_t n) const {
        const size_t es = size_;
        char *end = a + n * es;
        for (char *pm = a + es; pm < end; pm += es) {
            for (char *pl = pm; pl > a && Compare(pl - es, pl) > 0; pl -= es)
                S::Swap(pl, pl - es, es);
        }
    }

    const size_t size_;
    const QSortCompare compare_;
    void *const argument_;
};

template <class S>
inline void SortWith(void *base, size_t count, size_t size, QSortCompare compare, void *argument) {
    Sorter<S>(size, compare, argument).Sort((char *)base, count);
}

}  // namespace

extern "C" int QSort(void *base, UInt count, UInt size, QSortCompare compare, void *argument) {
    if (count < 2 || size == 0) return 0;
    uintptr_t alignment = (uintptr_t)base | size;
    if (alignment % 4 != 0) {
        SortWith<ByteSwap>(base, count, size, compare, argument);
    } else if (size == 4) {
        SortWith<OneWordSwap<uint32_t>>(base, count, size, compare, argument);
    } else if (alignment % 8 != 0) {
        SortWith<WordsSwap<uint32_t>>(base, count, size, compare, argument);
    } else if (size == 8) {
        SortWith<OneWordSwap<uint64_t>>(base, count, size, compare, argument);
    } else {
        SortWith<WordsSwap<uint64_t>>(base, count, size, compare, argument);
    }
    return 0;
}
