/*
 * Growable arrays.
 *
 * Array and VMArray share one three-word header { data, length, capacity }
 * embedded by value in its owner; an all-zero header is a valid empty array.
 * Typed arrays are declared with QK_ARRAY(T); the macros below take the
 * element size from the element type and pass the source position to the
 * untyped functions, which alone grow, copy and release.
 *
 * FArray is a fragmented array whose elements never move while it grows.
 *
 * The reusable array keeps initialised elements between uses: `capacity`
 * counts elements that have been initialised, `length` those in use.
 */
#ifndef QK_ARRAY_H
#define QK_ARRAY_H

#include <string.h>

#include "qk/types.h"

QK_BEGIN_DECLS

/* The untyped header. Typed headers have the same layout. */
typedef struct Array {
    void *data;
    UInt length;
    UInt capacity;
} Array;

#define QK_ARRAY(T)    \
    struct {           \
        T *data;       \
        UInt length;   \
        UInt capacity; \
    }

typedef QK_ARRAY(UByte) ByteArray;
typedef QK_ARRAY(char) CharArray;
typedef QK_ARRAY(UShort) UShortArray;
typedef QK_ARRAY(UInt) UIntArray;
typedef QK_ARRAY(ULong) ULongArray;
typedef QK_ARRAY(void *) PtrArray;

/* Arrays larger than this many elements are freed, not just emptied, when a
 * reusable working array is reset. */
#define QK_ARRAY_KEEP_LIMIT 10000

QK_API void ArrayInit_(void *array);
QK_API void ArrayFree_(void *array);
QK_API void ArrayGrow_(void *array, size_t eltSize, const char *file, int line);
QK_API void ArrayGrowExact_(void *array, UInt capacity, size_t eltSize, const char *file, int line);
QK_API void ArrayCopy_(void *target, size_t targetEltSize, const void *source, size_t sourceEltSize,
                       const char *file, int line);

#define ArrayEltSize(a) sizeof(*(a).data)
#define ArrayInit(a) ArrayInit_(&(a))
#define ArrayFree(a) ArrayFree_(&(a))
#define ArrayGrow(a) ArrayGrow_(&(a), ArrayEltSize(a), __FILE__, __LINE__)
#define ArrayGrowExact(a, n) ArrayGrowExact_(&(a), (n), ArrayEltSize(a), __FILE__, __LINE__)
#define ArrayCopy(target, source) \
    ArrayCopy_(&(target), ArrayEltSize(target), &(source), ArrayEltSize(source), __FILE__, __LINE__)

#define ArrayLength(a) ((a).length)
#define ArrayCapacity(a) ((a).capacity)
#define ArrayData(a) ((a).data)
#define ArrayNth(a, i) ((a).data[i])
#define ArrayLast(a) ((a).data[(a).length - 1])
#define ArrayClear(a) ((a).length = 0)

/* Makes room for n elements in all, doubling as often as needed. */
#define ArrayEnsure(a, n)                              \
    do {                                               \
        while ((a).capacity < (UInt)(n)) ArrayGrow(a); \
    } while (0)

/* Appends one element. The length is read once and written after the
 * element, so that a loop of appends keeps it in a register even when the
 * elements have the length's type. */
#define ArrayAdd(a, value)                            \
    do {                                              \
        UInt qk_length_ = (a).length;                 \
        if (qk_length_ == (a).capacity) ArrayGrow(a); \
        (a).data[qk_length_] = (value);               \
        (a).length = qk_length_ + 1;                  \
    } while (0)

/* Appends one uninitialised element and yields a pointer to it. */
#define ArrayAddPtr(a) \
    (((a).length == (a).capacity ? ArrayGrow(a) : (void)0), &(a).data[(a).length++])

/* Appends n elements copied from p. */
#define ArrayAppend(a, p, n)                                                    \
    do {                                                                        \
        UInt qk_n_ = (UInt)(n);                                                 \
        ArrayEnsure(a, (a).length + qk_n_);                                     \
        if (qk_n_) memcpy((a).data + (a).length, (p), qk_n_ * ArrayEltSize(a)); \
        (a).length += qk_n_;                                                    \
    } while (0)

/* Sets the length, growing as needed; new elements are not initialised. */
#define ArraySetLength(a, n)    \
    do {                        \
        ArrayEnsure(a, (n));    \
        (a).length = (UInt)(n); \
    } while (0)

/* Empties a working array, freeing it when it has grown past the keep limit. */
#define ArrayReset(a)                           \
    do {                                        \
        if ((a).capacity > QK_ARRAY_KEEP_LIMIT) \
            ArrayFree(a);                       \
        else                                    \
            (a).length = 0;                     \
    } while (0)

/* VMArray: the same header, its memory in anonymous mappings. */
#define QK_VMARRAY(T) QK_ARRAY(T)

QK_API void VMArrayInit_(void *array);
QK_API void VMArrayFree_(void *array, size_t eltSize, const char *file, int line);
QK_API void VMArrayGrow_(void *array, size_t eltSize, const char *file, int line);
QK_API void VMArrayCopy_(void *target, size_t targetEltSize, const void *source,
                         size_t sourceEltSize, const char *file, int line);

#define VMArrayInit(a) VMArrayInit_(&(a))
#define VMArrayFree(a) VMArrayFree_(&(a), ArrayEltSize(a), __FILE__, __LINE__)
#define VMArrayGrow(a) VMArrayGrow_(&(a), ArrayEltSize(a), __FILE__, __LINE__)
#define VMArrayCopy(target, source)                                                          \
    VMArrayCopy_(&(target), ArrayEltSize(target), &(source), ArrayEltSize(source), __FILE__, \
                 __LINE__)
#define VMArrayLength(a) ArrayLength(a)
#define VMArrayNth(a, i) ArrayNth(a, i)
#define VMArrayEnsure(a, n)                              \
    do {                                                 \
        while ((a).capacity < (UInt)(n)) VMArrayGrow(a); \
    } while (0)
#define VMArrayAdd(a, value)                            \
    do {                                                \
        UInt qk_length_ = (a).length;                   \
        if (qk_length_ == (a).capacity) VMArrayGrow(a); \
        (a).data[qk_length_] = (value);                 \
        (a).length = qk_length_ + 1;                    \
    } while (0)

/*
 * FArray. Fragment k holds blockSize elements for k = 0 and 1, then
 * blockSize * 2^(k-1). Element i at or above length0 lies at offset
 * i - length0 in the concatenation of the fragments.
 */
#define FARRAY_FRAGMENTS 28

/* Memory callbacks; a failing callback clears *ok and sets the error state.
 * `offset` is the position in the array of the block's first element. */
typedef void *(*FArrayAllocFn)(void *oldPointer, size_t size, int *ok, void *userData,
                               const char *file, int line);
typedef void (*FArrayFreeFn)(void *pointer, UInt offset, size_t size, int *ok, void *userData);
typedef FArrayFreeFn FArrayExecFn;

typedef struct FArray {
    void *data0;
    UInt length0;
    UInt blockSize;
    void *data[FARRAY_FRAGMENTS];
    UByte capIndex;
    UInt capacity;
    UInt length;
    FArrayAllocFn alloc;
    FArrayFreeFn free;
    void *userData;
} FArray;

QK_API void FArrayInit_(FArray *array, UInt blockSize, FArrayAllocFn alloc, FArrayFreeFn free,
                        void *userData);
QK_API int FArrayFree_(FArray *array, size_t eltSize);
QK_API int FArrayEnsureCapacity_(FArray *array, UInt count, size_t eltSize, const char *file,
                                 int line);
QK_API int FArrayEnsureCapacity0_(FArray *array, UInt count, size_t eltSize, const char *file,
                                  int line);
QK_API Long FArrayAdd_(FArray *array, const void *element, int *ok, size_t eltSize,
                       const char *file, int line);
QK_API void *FArrayRange_(const FArray *array, UInt index, UInt *end, size_t eltSize);
QK_API int FArrayAppendFromPtr_(FArray *array, const void *source, UInt count, size_t eltSize,
                                size_t eltSize0, const char *file, int line);
QK_API void FArrayAppendToPtr_(const FArray *array, void *target, size_t eltSize, size_t eltSize0);
QK_API int FArrayCompact_(FArray *array, size_t eltSize, const char *file, int line);
QK_API int FArrayExec_(FArray *array, FArrayExecFn function, void *userData, size_t eltSize);

/* Element access without bounds checks: the fragment that holds element
 * `index` must exist. */
static inline void *FArrayNth_(const FArray *a, UInt index, size_t eltSize) {
    if (index < a->length0) return (char *)a->data0 + (size_t)index * eltSize;
    UInt r = index - a->length0;
    if (r < a->blockSize) return (char *)a->data[0] + (size_t)r * eltSize;
    if (r < 2 * a->blockSize) return (char *)a->data[1] + (size_t)(r - a->blockSize) * eltSize;
    ULong s = 2 * (ULong)a->blockSize;
    UInt k = 2;
    while (r >= 2 * s) {
        s <<= 1;
        k++;
    }
    return (char *)a->data[k] + (size_t)(r - s) * eltSize;
}

/* Heap callbacks, for an FArray that lives in process memory. */
QK_API void *FArrayHeapAlloc(void *oldPointer, size_t size, int *ok, void *userData,
                             const char *file, int line);
QK_API void FArrayHeapFree(void *pointer, UInt offset, size_t size, int *ok, void *userData);

#define FArrayInit(a, blockSize, alloc, free, userData) \
    FArrayInit_(&(a), (blockSize), (alloc), (free), (userData))
#define FArrayInitHeap(a, blockSize) \
    FArrayInit_(&(a), (blockSize), FArrayHeapAlloc, FArrayHeapFree, NULL)
#define FArrayFree(a, T) FArrayFree_(&(a), sizeof(T))
#define FArrayLength(a) ((a).length)
#define FArrayEnsureCapacity(a, T, n) \
    FArrayEnsureCapacity_(&(a), (n), sizeof(T), __FILE__, __LINE__)
#define FArrayEnsureCapacity0(a, T, n) \
    FArrayEnsureCapacity0_(&(a), (n), sizeof(T), __FILE__, __LINE__)
#define FArrayAdd(a, elementPtr, okPtr) \
    FArrayAdd_(&(a), (elementPtr), (okPtr), sizeof(*(elementPtr)), __FILE__, __LINE__)
#define FArrayRange(a, T, index, endPtr) ((T *)FArrayRange_(&(a), (index), (endPtr), sizeof(T)))
#define FArrayNth(a, T, index) (*(T *)FArrayNth_(&(a), (index), sizeof(T)))
#define FArrayAppendFromPtr(a, sourcePtr, count)                                                 \
    FArrayAppendFromPtr_(&(a), (sourcePtr), (count), sizeof(*(sourcePtr)), sizeof(*(sourcePtr)), \
                         __FILE__, __LINE__)
#define FArrayAppendToPtr(a, targetPtr) \
    FArrayAppendToPtr_(&(a), (targetPtr), sizeof(*(targetPtr)), sizeof(*(targetPtr)))
#define FArrayCompact(a, T) FArrayCompact_(&(a), sizeof(T), __FILE__, __LINE__)
#define FArrayExec(a, T, function, userData) FArrayExec_(&(a), (function), (userData), sizeof(T))

/*
 * Reusable arrays. Each element type has up to four functions, any of which
 * may be absent: Init (first use of the memory), ReInit (reset between uses),
 * UseInit (taken into use) and Free.
 */
typedef void (*RArrayElementFn)(void *element, UInt index, void *context);

/* Takes the next element into use and returns it. */
static inline void *RArrayAdd_(void *array, void *context, RArrayElementFn init,
                               RArrayElementFn reInit, RArrayElementFn useInit, size_t eltSize) {
    Array *a = (Array *)array;
    UInt index = a->length;
    void *element;
    if (a->length < a->capacity) {
        a->length++;
        element = (char *)a->data + (size_t)index * eltSize;
    } else {
        ArrayGrowExact_(a, a->capacity + 1, eltSize, __FILE__, __LINE__);
        a->length++;
        element = (char *)a->data + (size_t)index * eltSize;
        if (init) init(element, index, context);
    }
    if (reInit) reInit(element, index, context);
    if (useInit) useInit(element, index, context);
    return element;
}

/* Returns element `index`; with `create` the array grows to hold it, else an
 * element that is not in use gives none. `use` calls UseInit on the result. */
static inline void *RArrayNth_(void *array, UInt index, int create, void *context,
                               RArrayElementFn init, RArrayElementFn reInit,
                               RArrayElementFn useInit, size_t eltSize, int use) {
    Array *a = (Array *)array;
    if (index >= a->capacity) {
        if (!create) return NULL;
        UInt first = a->capacity;
        ArrayGrowExact_(a, index + 1, eltSize, __FILE__, __LINE__);
        for (UInt i = first; i <= index; i++) {
            if (init) init((char *)a->data + (size_t)i * eltSize, i, context);
        }
    }
    while (index >= a->length) {
        if (!create) return NULL;
        if (reInit) reInit((char *)a->data + (size_t)a->length * eltSize, a->length, context);
        a->length++;
    }
    void *element = (char *)a->data + (size_t)index * eltSize;
    if (use && useInit) useInit(element, index, context);
    return element;
}

/* Frees every initialised element, then the array. */
static inline void RArrayFree_(void *array, void *context, RArrayElementFn freeFn, size_t eltSize) {
    Array *a = (Array *)array;
    if (freeFn) {
        for (UInt i = 0; i < a->capacity; i++)
            freeFn((char *)a->data + (size_t)i * eltSize, i, context);
    }
    ArrayFree_(a);
}

#define RArrayAdd(a, context, Init, ReInit, UseInit)                                         \
    ((__typeof__((a).data))RArrayAdd_(&(a), (context), (RArrayElementFn)(Init),              \
                                      (RArrayElementFn)(ReInit), (RArrayElementFn)(UseInit), \
                                      ArrayEltSize(a)))
#define RArrayNth(a, index, create, context, Init, ReInit, UseInit, use)                           \
    ((__typeof__((a).data))RArrayNth_(&(a), (index), (create), (context), (RArrayElementFn)(Init), \
                                      (RArrayElementFn)(ReInit), (RArrayElementFn)(UseInit),       \
                                      ArrayEltSize(a), (use)))
#define RArrayFree(a, context, Free) \
    RArrayFree_(&(a), (context), (RArrayElementFn)(Free), ArrayEltSize(a))

/* ReInit of a byte array: empties it, freeing it past the keep limit. */
static inline void ByteArrayReInit(ByteArray *a) {
    if (a->length > QK_ARRAY_KEEP_LIMIT) ArrayFree_(a);
    a->length = 0;
}

QK_END_DECLS

#endif /* QK_ARRAY_H */
