// FArray: a fragmented array whose elements never move while it grows.
//
// Elements below `length0` lie in the contiguous block `data0`; element i at
// or above it lies at offset i - length0 in the concatenation of the
// fragments, where fragments 0 and 1 hold `blockSize` elements and each
// further one twice the one before. Fragment k thus starts at offset
// blockSize * 2^(k-1) for k >= 1, which is also its size for k >= 2.
//
// Memory comes through the array's callbacks, so that the same code serves
// arrays on the heap and in a persistent arena; a callback reports failure
// by clearing its `ok` flag after setting the error state.
#include <string.h>

#include "qk/array.h"
#include "qk/frame.h"
#include "qk/memory.h"

namespace {

constexpr ULong kMaxCount = 0xFFFFFFFFu;

// Number of elements in fragment k.
inline ULong FragmentElements(const FArray *array, unsigned k) {
    return k < 2 ? (ULong)array->blockSize : (ULong)array->blockSize << (k - 1);
}

// Offset of fragment k's first element in the concatenation of fragments.
inline ULong FragmentStart(const FArray *array, unsigned k) {
    return k == 0 ? 0 : FragmentElements(array, k);
}

// Calls fn(pointer, offset, size, &ok) for data0 and each fragment, in order
// of position, and returns 0 at the first block for which it clears ok.
template <class Fn>
int ForEachBlock(const FArray *array, size_t eltSize, Fn fn) {
    int ok = 1;
    if (array->data0 != NULL) {
        fn(-1, array->data0, 0, (size_t)array->length0 * eltSize, &ok);
        if (!ok) return 0;
    }
    for (unsigned k = 0; k < FARRAY_FRAGMENTS; k++) {
        if (array->data[k] == NULL) continue;
        UInt offset = (UInt)(array->length0 + FragmentStart(array, k));
        fn((int)k, array->data[k], offset, (size_t)(FragmentElements(array, k) * eltSize), &ok);
        if (!ok) return 0;
    }
    return 1;
}

// Allocates fragment k unless it is already there.
int AllocateFragment(FArray *array, unsigned k, size_t eltSize, const char *file, int line) {
    if (array->data[k] != NULL) return 1;
    int ok = 1;
    size_t size = (size_t)(FragmentElements(array, k) * eltSize);
    void *block = array->alloc(NULL, size, &ok, array->userData, file, line);
    if (!ok) return 0;
    array->data[k] = block;
    return 1;
}

}  // namespace

extern "C" {

void FArrayInit_(FArray *array, UInt blockSize, FArrayAllocFn alloc, FArrayFreeFn free,
                 void *userData) {
    memset(array, 0, sizeof(*array));
    array->blockSize = blockSize;
    array->alloc = alloc;
    array->free = free;
    array->userData = userData;
}

// Stops at the first block whose release fails; the blocks released so far
// are forgotten, so that a second call resumes with the rest.
int FArrayFree_(FArray *array, size_t eltSize) {
    int done = ForEachBlock(array, eltSize,
                            [array](int k, void *block, UInt offset, size_t size, int *ok) {
                                if (array->free)
                                    array->free(block, offset, size, ok, array->userData);
                                if (!*ok) return;
                                if (k < 0) {
                                    array->data0 = NULL;
                                } else {
                                    array->data[k] = NULL;
                                }
                            });
    if (!done) return 0;
    memset(array, 0, sizeof(*array));
    return 1;
}

int FArrayEnsureCapacity_(FArray *array, UInt count, size_t eltSize, const char *file, int line) {
    while (count > (ULong)array->capacity + array->length0) {
        qkassert(array->blockSize > 0);
        if (array->capIndex == 0) {
            if (!AllocateFragment(array, 0, eltSize, file, line)) return 0;
            array->capacity = array->blockSize;
            array->capIndex = 1;
        } else if (array->capIndex == 1) {
            if (!AllocateFragment(array, 1, eltSize, file, line)) return 0;
            array->capacity = 2 * array->blockSize;
            array->capIndex = 2;
        } else {
            qkassert(array->capIndex < FARRAY_FRAGMENTS);
            qkassert(array->capacity <= kMaxCount / 2);
            if (!AllocateFragment(array, array->capIndex, eltSize, file, line)) return 0;
            array->capIndex++;
            array->capacity *= 2;
        }
    }
    return 1;
}

int FArrayEnsureCapacity0_(FArray *array, UInt count, size_t eltSize, const char *file, int line) {
    // Only data0 may hold elements: the fragments' positions move with
    // length0.
    qkassert(array->length <= array->length0);
    qkassert(array->length <= count);
    int ok = 1;
    void *block =
        array->alloc(array->data0, (size_t)count * eltSize, &ok, array->userData, file, line);
    if (!ok) return 0;
    array->data0 = block;
    array->length0 = count;
    return 1;
}

Long FArrayAdd_(FArray *array, const void *element, int *ok, size_t eltSize, const char *file,
                int line) {
    qkassert(array->length < kMaxCount);
    UInt index = array->length++;
    if (!FArrayEnsureCapacity_(array, array->length, eltSize, file, line)) {
        *ok = 0;
        return -1;
    }
    memcpy(FArrayNth_(array, index, eltSize), element, eltSize);
    return index;
}

void *FArrayRange_(const FArray *array, UInt index, UInt *end, size_t eltSize) {
    UInt length = array->length;
    if (index >= length) {
        *end = index;
        return NULL;
    }
    if (index < array->length0) {
        qkassert(array->data0 != NULL);
        *end = array->length0 < length ? array->length0 : length;
        return (char *)array->data0 + (size_t)index * eltSize;
    }
    ULong r = index - array->length0;
    ULong blockSize = array->blockSize;
    ULong stop;
    char *element;
    if (r < blockSize) {
        qkassert(array->data[0] != NULL);
        element = (char *)array->data[0] + (size_t)r * eltSize;
        stop = array->length0 + blockSize;
    } else if (r < 2 * blockSize) {
        qkassert(array->data[1] != NULL);
        element = (char *)array->data[1] + (size_t)(r - blockSize) * eltSize;
        stop = array->length0 + 2 * blockSize;
    } else {
        ULong s = 2 * blockSize;
        unsigned capIndex = 2;
        while (r >= 2 * s) {
            s *= 2;
            capIndex++;
        }
        qkassert(capIndex < FARRAY_FRAGMENTS);
        qkassert(array->data[capIndex] != NULL);
        element = (char *)array->data[capIndex] + (size_t)(r - s) * eltSize;
        stop = array->length0 + 2 * s;
    }
    *end = stop < length ? (UInt)stop : length;
    return element;
}

int FArrayAppendFromPtr_(FArray *array, const void *source, UInt count, size_t eltSize,
                         size_t eltSize0, const char *file, int line) {
    qkassert(eltSize == eltSize0);
    if (count == 0) return 1;
    ULong total = (ULong)array->length + count;
    qkassert(total <= kMaxCount);
    if (!FArrayEnsureCapacity_(array, (UInt)total, eltSize, file, line)) return 0;
    UInt index = array->length;
    array->length = (UInt)total;
    const char *from = (const char *)source;
    while (index < total) {
        UInt end;
        char *to = (char *)FArrayRange_(array, index, &end, eltSize);
        size_t size = (size_t)(end - index) * eltSize;
        memcpy(to, from, size);
        from += size;
        index = end;
    }
    return 1;
}

void FArrayAppendToPtr_(const FArray *array, void *target, size_t eltSize, size_t eltSize0) {
    qkassert(eltSize == eltSize0);
    char *to = (char *)target;
    UInt index = 0;
    while (index < array->length) {
        UInt end;
        const char *from = (const char *)FArrayRange_(array, index, &end, eltSize);
        size_t size = (size_t)(end - index) * eltSize;
        memcpy(to, from, size);
        to += size;
        index = end;
    }
}

// The array keeps its length: the compacted array holds all its elements in
// data0. A failed release of an old block is reported, but the array is
// compacted all the same, and the first error stays in the error state.
int FArrayCompact_(FArray *array, size_t eltSize, const char *file, int line) {
    UInt length = array->length;
    void *block = NULL;
    if (length > 0) {
        int ok = 1;
        block = array->alloc(NULL, (size_t)length * eltSize, &ok, array->userData, file, line);
        if (!ok) return 0;
        FArrayAppendToPtr_(array, block, eltSize, eltSize);
    }
    bool failed = false;
    ForEachBlock(array, eltSize, [array, &failed](int, void *old, UInt offset, size_t size, int *) {
        if (array->free == NULL) return;
        int ok = 1;
        array->free(old, offset, size, &ok, array->userData);
        if (!ok) {
            if (!failed) QKErrorSave();  // keep the first error
            failed = true;
        }
    });
    if (failed) QKErrorRestore();
    array->data0 = block;
    array->length0 = length;
    memset(array->data, 0, sizeof(array->data));
    array->capIndex = 0;
    array->capacity = 0;
    return failed ? 0 : 1;
}

int FArrayExec_(FArray *array, FArrayExecFn function, void *userData, size_t eltSize) {
    return ForEachBlock(array, eltSize,
                        [function, userData](int, void *block, UInt offset, size_t size, int *ok) {
                            function(block, offset, size, ok, userData);
                        });
}

void *FArrayHeapAlloc(void *oldPointer, size_t size, int *, void *, const char *file, int line) {
    return Allocate_(size, oldPointer, file, line);
}

void FArrayHeapFree(void *pointer, UInt, size_t, int *, void *) {
    UnAllocate_(pointer);
}

}  // extern "C"
