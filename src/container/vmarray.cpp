// VMArray: the Array header over an anonymous mapping, for tables large
// enough that they should go back to the system when freed. Growth always
// copies into a new mapping; running out of address space is fatal.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "qk/array.h"
#include "qk/frame.h"
#include "qk/memory.h"

namespace {

constexpr ULong kMaxCapacity = 0xFFFFFFFFu;

UInt CopyCapacity(UInt capacity, UInt length) {
    ULong next = capacity == 0 ? 4 : 2 * (ULong)capacity;
    while (next < length) next *= 2;
    return next > kMaxCapacity ? length : (UInt)next;
}

[[noreturn]] void MapFailed(void *pointer, size_t size, const char *file, int line) {
    QKSetMessageContext_(file, line, 4, 1);
    QKMessage_("memory map failed: ptr=%p size=%lu", pointer, (unsigned long)size);
    abort();  // not reached: a fatal message ends the process
}

}  // namespace

extern "C" {

void VMArrayInit_(void *array) {
    ArrayInit_(array);
}

void VMArrayFree_(void *array, size_t eltSize, const char *, int) {
    Array *a = (Array *)array;
    MemoryUnmap_(a->data, (size_t)a->capacity * eltSize);
    ArrayInit_(a);
}

void VMArrayGrow_(void *array, size_t eltSize, const char *file, int line) {
    Array *a = (Array *)array;
    qkassert(a->capacity <= SIZE_MAX / 2);
    // The count itself is 32-bit, whatever the width of a size.
    qkassert(a->capacity <= kMaxCapacity / 2);
    UInt capacity = a->capacity == 0 ? 4 : a->capacity * 2;
    size_t oldSize = (size_t)a->capacity * eltSize;
    size_t newSize = (size_t)capacity * eltSize;
    void *data = MemoryRemap_(a->data, oldSize, newSize, file, line);
    if (data == NULL && newSize > 0) MapFailed(a->data, newSize, file, line);
    a->data = data;
    a->capacity = capacity;
}

void VMArrayCopy_(void *target, size_t aSize, const void *source, size_t bSize, const char *file,
                  int line) {
    qkassert(aSize == bSize);
    Array *a = (Array *)target;
    const Array *b = (const Array *)source;
    if (a == b) return;
    if (a->capacity < b->length) {
        UInt capacity = CopyCapacity(a->capacity, b->length);
        size_t size = (size_t)capacity * aSize;
        MemoryUnmap_(a->data, (size_t)a->capacity * aSize);
        a->data = NULL;
        a->capacity = 0;
        void *data = MemoryMap_(size, file, line);
        if (data == NULL && size > 0) MapFailed(NULL, size, file, line);
        a->data = data;
        a->capacity = capacity;
    }
    if (b->length > 0) memcpy(a->data, b->data, (size_t)b->length * aSize);
    a->length = b->length;
}

}  // extern "C"
