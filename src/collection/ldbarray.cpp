// Large elements over two database arrays: a head element per handle with
// the length and either the bytes or the first of the chunks that hold them.
#include <string.h>

#include <vector>

#include "collection/dbarray_internal.h"
#include "collection/path.h"
#include "container/varint.h"
#include "qk/frame.h"

using namespace qk;
using namespace qk::dbarray;

struct LDBArray {
    DBArray *head;
    DBArray *chunks;
};

struct LDBArrayThreadData {
    std::vector<UByte> buffer;  // a range that spans chunks
};

namespace {

constexpr UInt kChunk = DBARRAY_MAX_ELEMENT_SIZE;

struct Head {
    UInt length;
    const UByte *bytes;  // inline bytes, else none
    UInt firstChunk;
};

UInt ChunkCount(UInt length) {
    return length <= LDBARRAY_INLINE_SIZE ? 0 : (length + kChunk - 1) / kChunk;
}

bool HeadRead(LDBArray *array, UInt bucket, UInt handle, Int genID, Head *out) {
    UInt size;
    auto *p = (const UByte *)DBArrayGet(array->head, bucket, handle, genID, 1, &size);
    if (p == nullptr) return false;
    ULong length, first = 0;
    size_t n = VarIntRead(p, size, &length);
    bool inlined = length <= LDBARRAY_INLINE_SIZE;
    DB_CHECK(BucketOf(array->head, bucket),
             n > 0 && (inlined ? size == n + length : VarIntRead(p + n, size - n, &first) > 0),
             "headLength == elementLength");
    *out = {(UInt)length, inlined ? p + n : nullptr, (UInt)first};
    return true;
}

// Chunk `index` of an element: its bytes and length.
const UByte *ChunkGet(LDBArray *array, UInt bucket, const Head &head, UInt index, Int genID,
                      UInt *length) {
    auto *p =
        (const UByte *)DBArrayGet(array->chunks, bucket, head.firstChunk + index, genID, 1, length);
    UInt expected = index + 1 < ChunkCount(head.length) ? kChunk : head.length - index * kChunk;
    DB_CHECK(BucketOf(array->chunks, bucket), p != nullptr && *length == expected,
             "chunkLength == expectedLength");
    return p;
}

// The head element of `length` bytes, inline or pointing at `firstChunk`.
UInt HeadEncode(UByte *out, const void *data, UInt length, UInt firstChunk) {
    size_t n = VarIntWrite(out, kVarIntMaxSize, length);
    if (length <= LDBARRAY_INLINE_SIZE) {
        if (length > 0) memcpy(out + n, data, length);
        return (UInt)n + length;
    }
    return (UInt)(n + VarIntWrite(out + n, kVarIntMaxSize, firstChunk));
}

bool TooLarge(UInt length) {
    if (length <= LDBARRAY_MAX_ELEMENT_SIZE) return false;
    QKErrorThrow(QK_ERR_INVALID, QK_DOMAIN_GENERAL,
                 "element of %u bytes: a large-element array takes at most %u", length,
                 LDBARRAY_MAX_ELEMENT_SIZE);
    return true;
}

// Writes chunks [0, count) of `data` at handles from `first`, reusing the
// handles below `reuse` and appending the rest.
bool ChunksWrite(LDBArray *array, UInt bucket, const UByte *data, UInt length, UInt first,
                 UInt reuse) {
    for (UInt i = 0, count = ChunkCount(length); i < count; i++) {
        UInt size = i + 1 < count ? kChunk : length - i * kChunk;
        bool ok = i < reuse ? DBArraySet(array->chunks, bucket, first + i, NEWGEN,
                                         data + (size_t)i * kChunk, size)
                            : DBArrayAdd(array->chunks, bucket, data + (size_t)i * kChunk, size,
                                         NEWGEN) == first + i;
        if (!ok) return false;
    }
    return true;
}

}  // namespace

extern "C" {

QK_API LDBArray *LDBArrayNew_(VMArena *arena, char *path, const char *name, int linear, int *create,
                              int newGenOnly, UInt bucketCount) {
    size_t keep;
    if (!qk::collection::PathEnter(path, name, "/ldbarray/", "array", &keep)) return nullptr;
    int madeHead = *create, madeChunks = *create;
    auto *array = new LDBArray{
        DBArrayNew_(arena, path, "head", linear, &madeHead, newGenOnly, bucketCount), nullptr};
    if (array->head != nullptr)
        array->chunks = DBArrayNew_(arena, path, "chunks", linear, &madeChunks, newGenOnly,
                                    DBArrayBucketCount(array->head));
    path[keep] = 0;
    *create = madeHead || madeChunks;
    if (array->chunks == nullptr ||
        DBArrayBucketCount(array->chunks) != DBArrayBucketCount(array->head)) {
        if (array->chunks != nullptr)
            QKErrorThrow(QK_ERR_FORMAT, QK_DOMAIN_GENERAL,
                         "large-element array \"%s%s\": %u head buckets, %u chunk buckets", path,
                         name, DBArrayBucketCount(array->head), DBArrayBucketCount(array->chunks));
        LDBArrayFree(array);
        return nullptr;
    }
    return array;
}

QK_API LDBArray *LDBArrayNew(VMArena *arena, char *path, const char *name, int *create,
                             int newGenOnly, UInt bucketCount) {
    return LDBArrayNew_(arena, path, name, 0, create, newGenOnly, bucketCount);
}

QK_API void LDBArrayFree(LDBArray *array) {
    if (array == nullptr) return;
    if (array->head) DBArrayFree(array->head);
    if (array->chunks) DBArrayFree(array->chunks);
    delete array;
}

QK_API void LDBArrayCommit(LDBArray *array) {
    DBArrayCommit(array->head);
    DBArrayCommit(array->chunks);
}

QK_API UInt LDBArrayBucketCount(LDBArray *array) {
    return DBArrayBucketCount(array->head);
}

QK_API LDBArrayThreadData *LDBArrayThreadDataNew(void) {
    return new LDBArrayThreadData;
}

QK_API void LDBArrayThreadDataReInit(LDBArrayThreadData *data) {
    if (data->buffer.capacity() > QK_ARRAY_KEEP_LIMIT) std::vector<UByte>().swap(data->buffer);
    data->buffer.clear();
}

QK_API void LDBArrayThreadDataFree(LDBArrayThreadData *data) {
    delete data;
}

QK_API UInt LDBArraySize(LDBArray *array, UInt bucket, Int genID) {
    return DBArraySize(array->head, bucket, genID);
}

QK_API UInt LDBArrayAdd(LDBArray *array, UInt bucket, const void *data, UInt length, Int genID) {
    qkassert(genID == NEWGEN);
    if (TooLarge(length)) return DBARRAY_NO_HANDLE;
    UInt first = DBArraySize(array->chunks, bucket, NEWGEN);
    if (!ChunksWrite(array, bucket, (const UByte *)data, length, first, 0))
        return DBARRAY_NO_HANDLE;
    UByte head[DBARRAY_MAX_BLOCK_SIZE];
    return DBArrayAdd(array->head, bucket, head, HeadEncode(head, data, length, first), NEWGEN);
}

QK_API UInt LDBArrayLength(LDBArray *array, UInt bucket, UInt handle, Int genID) {
    Head head;
    return HeadRead(array, bucket, handle, genID, &head) ? head.length : 0;
}

QK_API const void *LDBArrayRange(LDBArray *array, LDBArrayThreadData *threadData, UInt bucket,
                                 UInt handle, UInt offset, UInt length, Int genID) {
    Head head;
    if (!HeadRead(array, bucket, handle, genID, &head) || offset > head.length ||
        length > head.length - offset) {
        QKErrorThrow(QK_ERR_INVALID, QK_DOMAIN_GENERAL,
                     "range %u + %u outside element %u of bucket %u", offset, length, handle,
                     bucket);
        return nullptr;
    }
    if (head.bytes != nullptr) return head.bytes + offset;
    UInt index = offset / kChunk, at = offset % kChunk, size;
    const UByte *chunk = ChunkGet(array, bucket, head, index, genID, &size);
    if (at + length <= size) return chunk + at;
    threadData->buffer.clear();
    for (;;) {
        UInt take = size - at < length ? size - at : length;
        threadData->buffer.insert(threadData->buffer.end(), chunk + at, chunk + at + take);
        length -= take;
        if (length == 0) return threadData->buffer.data();
        chunk = ChunkGet(array, bucket, head, ++index, genID, &size);
        at = 0;
    }
}

QK_API int LDBArrayGetArray(LDBArray *array, UInt bucket, UInt handle, Int genID, ByteArray *out) {
    Head head;
    if (!HeadRead(array, bucket, handle, genID, &head)) return 0;
    if (head.bytes != nullptr) ArrayAppend(*out, head.bytes, head.length);
    for (UInt i = 0, size; i < ChunkCount(head.length); i++) {
        const UByte *chunk = ChunkGet(array, bucket, head, i, genID, &size);
        ArrayAppend(*out, chunk, size);
    }
    return 1;
}

QK_API uintptr_t LDBArrayHintGet(LDBArray *array, UInt bucket, UInt handle, Int genID) {
    return DBArrayHintGet(array->head, bucket, handle, genID);
}

QK_API void LDBArrayRelease(LDBArray *array, Int genID, const void *address) {
    DBArrayRelease(array->head, genID, 1, (void *)address);
}

QK_API int LDBArrayDataSet(LDBArray *array, UInt bucket, UInt handle, const void *data, UInt length,
                           Int genID) {
    qkassert(genID == NEWGEN);
    Head old;
    if (TooLarge(length)) return 0;
    if (!HeadRead(array, bucket, handle, NEWGEN, &old)) {
        QKErrorThrow(QK_ERR_INVALID, QK_DOMAIN_GENERAL, "no element %u in bucket %u", handle,
                     bucket);
        return 0;
    }
    UInt had = ChunkCount(old.length), needs = ChunkCount(length);
    UInt first = needs <= had ? old.firstChunk : DBArraySize(array->chunks, bucket, NEWGEN);
    UInt reuse = needs <= had ? needs : 0;
    if (!ChunksWrite(array, bucket, (const UByte *)data, length, first, reuse)) return 0;
    // Chunks that the element no longer uses keep their handles, emptied.
    for (UInt i = needs <= had ? needs : 0; i < had; i++)
        if (!DBArrayLengthSet(array->chunks, bucket, old.firstChunk + i, NEWGEN, 0)) return 0;
    UByte head[DBARRAY_MAX_BLOCK_SIZE];
    return DBArraySet(array->head, bucket, handle, NEWGEN, head,
                      HeadEncode(head, data, length, first));
}

QK_API int LDBArrayClearElement(LDBArray *array, UInt bucket, UInt handle, Int genID) {
    return LDBArrayDataSet(array, bucket, handle, nullptr, 0, genID);
}

QK_API void LDBArrayClear(LDBArray *array, Int genID) {
    DBArrayClear(array->head, genID);
    DBArrayClear(array->chunks, genID);
}

QK_API UInt LDBArrayCheck(LDBArray *array, Int genID) {
    return DBArrayCheck(array->head, genID) + DBArrayCheck(array->chunks, genID);
}

QK_API ULong LDBArrayUsage(LDBArray *array, Int genID, ULong *dataBytes) {
    ULong headData, chunkData;
    ULong total = DBArrayUsage(array->head, genID, &headData) +
                  DBArrayUsage(array->chunks, genID, &chunkData);
    if (dataBytes != nullptr) *dataBytes = headData + chunkData;
    return total;
}

QK_API void LDBArrayLoadRegister(LDBArray *array, int loadData, int loadCache, int loadContent) {
    DBArrayLoadRegister(array->head, loadData, loadCache, loadContent);
    DBArrayLoadRegister(array->chunks, loadData, loadCache, loadContent);
}

QK_API void LDBArrayPrefetch(LDBArray *array, UInt bucket, UInt handle, Int genID) {
    DBArrayPrefetch(array->head, bucket, handle, genID);
}

QK_API int LDBArrayMSync(LDBArray *array) {
    return DBArrayMSync(array->head);
}

QK_API ULong LDBArrayIndexLoad(LDBArray *array, Int genID) {
    return DBArrayIndexLoad(array->head, genID) + DBArrayIndexLoad(array->chunks, genID);
}

QK_API void LDBArraySetCompact(LDBArray *array, int compact) {
    DBArraySetCompact(array->head, compact);
    DBArraySetCompact(array->chunks, compact);
}

QK_API void LDBArraySetMaxBlocks(LDBArray *array, UInt maxBlocks) {
    DBArraySetMaxBlocks(array->head, maxBlocks);
    DBArraySetMaxBlocks(array->chunks, maxBlocks);
}

}  // extern "C"
