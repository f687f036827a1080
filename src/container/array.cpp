// Array: a three-word header { data, length, capacity } over a heap block.
// Capacity doubles from 4; growth cannot fail, since Allocate_ ends the
// process when memory runs out.
#include <string.h>

#include "qk/array.h"
#include "qk/frame.h"
#include "qk/memory.h"

#define UINT_MAX_VALUE 0xFFFFFFFFu

namespace {

// The capacity that ArrayCopy_ gives a target too small for `length`
// elements: 4 or twice the old one, doubled until it suffices.
UInt CopyCapacity(UInt capacity, UInt length) {
    ULong next = capacity == 0 ? 4 : 2 * (ULong)capacity;
    while (next < length) next *= 2;
    return next > UINT_MAX_VALUE ? length : (UInt)next;
}

}  // namespace

extern "C" {

void ArrayInit_(void *array) {
    Array *a = (Array *)array;
    a->data = NULL;
    a->length = 0;
    a->capacity = 0;
}

void ArrayFree_(void *array) {
    Array *a = (Array *)array;
    UnAllocate_(a->data);
    ArrayInit_(a);
}

void ArrayGrow_(void *array, size_t eltSize, const char *file, int line) {
    Array *a = (Array *)array;
    qkassert(a->capacity <= UINT_MAX_VALUE / 2);
    UInt capacity = a->capacity == 0 ? 4 : a->capacity * 2;
    a->data = Allocate_((size_t)capacity * eltSize, a->data, file, line);
    a->capacity = capacity;
}

void ArrayGrowExact_(void *array, UInt capacity, size_t eltSize, const char *file, int line) {
    Array *a = (Array *)array;
    if (capacity <= a->capacity) return;
    a->data = Allocate_((size_t)capacity * eltSize, a->data, file, line);
    a->capacity = capacity;
}

void ArrayCopy_(void *target, size_t aSize, const void *source, size_t bSize, const char *file,
                int line) {
    qkassert(aSize == bSize);
    Array *a = (Array *)target;
    const Array *b = (const Array *)source;
    if (a == b) return;
    if (a->capacity < b->length) {
        // The old contents are overwritten: free rather than copy them.
        UInt capacity = CopyCapacity(a->capacity, b->length);
        UnAllocate_(a->data);
        a->data = Allocate_((size_t)capacity * aSize, NULL, file, line);
        a->capacity = capacity;
    }
    if (b->length > 0) memcpy(a->data, b->data, (size_t)b->length * aSize);
    a->length = b->length;
}

}  // extern "C"
