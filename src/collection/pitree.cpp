// Opening a PITree, its thread data, sizes, and the leaves: peeked, taken,
// filled and freed.
#include <string.h>

#include "collection/path.h"
#include "collection/pitree_internal.h"
#include "qk/frame.h"
#include "qk/memory.h"

using namespace qk::pitree;

namespace qk::pitree {

const UByte *LeafGet(PITree *tree, UInt leaf, Int genID, UInt *length) {
    UInt buckets = DBArrayBucketCount(tree->leaf);
    auto *buffer =
        (const UByte *)DBArrayGet(tree->leaf, leaf % buckets, leaf / buckets, genID, 1, length);
    PIT_CHECK(tree, buffer != nullptr, "leaf < leafCount");
    return buffer;
}

bool LeafEmpty(PITree *tree, UInt leaf) {
    UInt length;
    LeafGet(tree, leaf, NEWGEN, &length);
    return length == 0;
}

UInt LeafPeek(PITree *tree) {
    UInt length = VMAArrayLength(tree->free, NEWGEN), upBound;
    if (length > 0) return *VMAArrayRange(tree->free, length - 1, &upBound, NEWGEN, 1);
    return DBArraySize(tree->leaf, tree->nextBucket, NEWGEN) * DBArrayBucketCount(tree->leaf) +
           tree->nextBucket;
}

UInt LeafTake(PITree *tree, const UByte *buffer, UInt length) {
    UInt count = VMAArrayLength(tree->free, NEWGEN), upBound;
    if (count > 0) {
        UInt leaf = *VMAArrayRange(tree->free, count - 1, &upBound, NEWGEN, 1);
        VMAArrayLengthSet(tree->free, count - 1);
        PIT_CHECK(tree, PITreeFillLeaf(tree, leaf, buffer, length, NEWGEN), "fill == 1");
        return leaf;
    }
    UInt buckets = DBArrayBucketCount(tree->leaf), bucket = tree->nextBucket;
    UInt size = DBArraySize(tree->leaf, bucket, NEWGEN);
    UInt handle = DBArrayAdd(tree->leaf, bucket, buffer, length, NEWGEN);
    PIT_CHECK(tree, handle == size, "DBArrayAdd(leaf) == DBArraySize(leaf)");
    tree->nextBucket = (bucket + 1) % buckets;
    return handle * buckets + bucket;
}

void LeafFree(PITree *tree, UInt leaf) {
    PITreeFillLeaf(tree, leaf, nullptr, 0, NEWGEN);
    VMAArrayAppend(tree->free, &leaf, 1);
}

void SizeUpdate(PITree *tree, bool added) {
    if (!tree->hasParams) return;
    UInt upBound;
    UInt *size = VMAArrayRange(tree->params, 0, &upBound, NEWGEN, 0);
    PIT_CHECK(tree, size != nullptr && (added || *size > 0), "size > 0");
    *size += added ? 1 : (UInt)-1;
}

}  // namespace qk::pitree

extern "C" {

QK_API PITree *PITreeNew_(VMArena *arena, char *path, const char *name, int linear, int *create,
                          int newGenOnly) {
    size_t keep;
    if (!qk::collection::PathEnter(path, name, "/pitree/", "tree", &keep)) return nullptr;
    size_t named = strlen(path) - strlen("pitree/");  // "<name>/"
    auto *tree = new PITree{arena, nullptr, nullptr, {}, !linear, {}, 0};
    int made[4] = {*create, *create, *create, *create};
    tree->head = PIMTreeNew_(arena, path, "head", linear, &made[0], newGenOnly);
    tree->leaf =
        tree->head ? DBArrayNew_(arena, path, "leaf", linear, &made[1], newGenOnly, 64) : nullptr;
    path[named] = 0;
    bool ok = tree->leaf != nullptr &&
              VMAArrayInitFromPath_(arena, &made[2], newGenOnly, 0, 0, path, "pitree", "free",
                                    linear, (VMAArrayHandle *)&tree->free) &&
              (linear || VMAArrayInitFromPath_(arena, &made[3], newGenOnly, 0, 0, path, "pitree",
                                               "params", linear, (VMAArrayHandle *)&tree->params));
    path[keep] = 0;
    *create = made[0] || made[1] || made[2] || (!linear && made[3]);
    if (!ok) {
        PITreeFree(tree);
        return nullptr;
    }
    if (tree->leaf) DBArraySetCompact(tree->leaf, 0);
    if (!linear && made[3] && VMAArrayLength(tree->params, NEWGEN) == 0) {
        static const UInt kZero = 0;
        VMAArrayAppend(tree->params, &kZero, 1);
    }
    return tree;
}

QK_API PITree *PITreeNew(VMArena *arena, char *path, const char *name, int *create,
                         int newGenOnly) {
    return PITreeNew_(arena, path, name, 0, create, newGenOnly);
}

QK_API void PITreeFree(PITree *tree) {
    if (tree == nullptr) return;
    if (tree->head) PIMTreeFree(tree->head);
    if (tree->leaf) DBArrayFree(tree->leaf);
    delete tree;
}

QK_API void PITreeCommit(PITree *tree) {
    PIMTreeCommit(tree->head);
    DBArrayCommit(tree->leaf);
    tree->free.ids[OLDGEN] = tree->free.ids[NEWGEN];
    tree->params.ids[OLDGEN] = tree->params.ids[NEWGEN];
}

QK_API void PITreeClear(PITree *tree, Int genID) {
    qkassert(genID == NEWGEN);
    PIMTreeClear(tree->head, NEWGEN);
    DBArrayClear(tree->leaf, NEWGEN);
    VMAArrayClear(tree->free);
    tree->nextBucket = 0;
    if (tree->hasParams) {
        UInt upBound;
        *VMAArrayRange(tree->params, 0, &upBound, NEWGEN, 0) = 0;
    }
}

QK_API int PITreeEmpty(PITree *tree, Int genID) {
    return PIMTreeEmpty(tree->head, genID);
}

QK_API UInt PITreeGetSize(PITree *tree, Int genID) {
    if (!tree->hasParams || !VMAArrayExists(tree->params, genID) ||
        VMAArrayLength(tree->params, genID) == 0)
        return 0;
    UInt upBound;
    return *VMAArrayRange(tree->params, 0, &upBound, genID, 1);
}

QK_API PITreeThreadData *PITreeThreadDataNew(void) {
    auto *data = new PITreeThreadData;
    data->pim = PIMTreeThreadDataNew();
    data->pic = PICTreeThreadDataNew();
    ArrayInit(data->sons);
    return data;
}

QK_API void PITreeThreadDataFree(PITreeThreadData *data) {
    if (data == nullptr) return;
    PIMTreeThreadDataFree(data->pim);
    PICTreeThreadDataFree(data->pic);
    ArrayFree(data->sons);
    delete data;
}

QK_API void PITreeThreadDataReInit(PITreeThreadData *data) {
    PIMTreeThreadDataReInit(data->pim);
    PICTreeThreadDataReInit(data->pic);
    ArrayReset(data->sons);
    for (auto *list : {&data->round, &data->next}) {
        if (list->capacity() > QK_ARRAY_KEEP_LIMIT) std::vector<PITreeWork>().swap(*list);
        list->clear();
    }
    if (data->transitions.capacity() > QK_ARRAY_KEEP_LIMIT)
        std::vector<PIMTreeTransition>().swap(data->transitions);
    if (data->exploding.capacity() > QK_ARRAY_KEEP_LIMIT)
        std::vector<UByte>().swap(data->exploding);
}

QK_API int PITreeFillLeaf(PITree *tree, UInt leaf, const UByte *buffer, UInt length, Int genID) {
    qkassert(genID == NEWGEN);
    UInt buckets = DBArrayBucketCount(tree->leaf);
    return DBArraySet(tree->leaf, leaf % buckets, leaf / buckets, NEWGEN, buffer, length);
}

}  // extern "C"
