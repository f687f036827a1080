// Opening, committing and clearing a B-tree, and the facade that reaches
// the family of its key width through a table.
#include <string.h>

#include "collection/btree_internal.h"
#include "qk/memory.h"

using namespace qk::btree;

namespace {

constexpr UInt kParamsValueSize = 1;

// Node geometry for both kinds; the sons of an internal node must fit
// before the flags.
void Geometry(BTree *tree) {
    for (UInt indexIsLeaf = 0; indexIsLeaf < 2; indexIsLeaf++) {
        UInt maxKeyCount = kNodeUsable / (tree->valueSize + tree->keySize + (indexIsLeaf ? 0 : 4));
        tree->maxKeyCount[indexIsLeaf] = maxKeyCount;
        tree->valueOffset[indexIsLeaf] = maxKeyCount * tree->keySize;
        tree->blockOffset[indexIsLeaf] = maxKeyCount * (tree->keySize + tree->valueSize);
        UInt blockLength = kNodeUsable;
        if (!(tree->blockOffset[indexIsLeaf] <= blockLength))
            qkassert_("btree->blockOffset[indexIsLeaf] <= blockLength", __FILE__, __LINE__);
        if (!indexIsLeaf &&
            !(tree->blockOffset[indexIsLeaf] + (UInt)(maxKeyCount * sizeof(UInt)) <= blockLength))
            qkassert_(
                "btree->blockOffset[indexIsLeaf] + (UInt)(maxKeyCount * sizeof(BlockID)) <= "
                "blockLength",
                __FILE__, __LINE__);
    }
}

// The stored valueSize, from the generation that has the array.
bool StoredValueSize(BTree *tree, UInt *valueSize) {
    Int genID = VMAArrayExists(tree->params, NEWGEN) ? NEWGEN : OLDGEN;
    if (!VMAArrayExists(tree->params, genID)) return false;
    UInt upBound;
    BT_CHECK(tree, VMAArrayLength(tree->params, genID) > kParamsValueSize, "params length >= 2");
    const UInt *p = VMAArrayRange(tree->params, kParamsValueSize, &upBound, genID, 1);
    BT_CHECK(tree, p != nullptr && *p <= BTREE_MAX_VALUE_SIZE, "valueSize <= 8");
    *valueSize = *p;
    return true;
}

}  // namespace

extern "C" {

QK_API BTree *BTreeNew_(VMArena *arena, char *path, const char *name, int linear, int *create,
                        int newGenOnly, UInt keySize, UInt valueSize) {
    qkassert(keySize == 4 || keySize == 8);
    qkassert(valueSize <= BTREE_MAX_VALUE_SIZE);
    if (strlen(path) + strlen(name) + 8 >= VMARENA_PATH_SIZE) {
        QKErrorThrow(QK_ERR_INVALID, QK_DOMAIN_GENERAL, "tree name too long: \"%s%s\"", path, name);
        return nullptr;
    }
    auto *tree = AllocateZero(BTree);
    tree->arena = arena;
    tree->keySize = keySize;
    tree->ops = keySize == 4 ? &kUIntOps : &kULongOps;
    int madeRoot = *create, madeParams = *create;
    bool ok = VMAArrayInitFromPath_(arena, &madeRoot, newGenOnly, 0, 0, path, name, "root", linear,
                                    (VMAArrayHandle *)&tree->root) &&
              VMAArrayInitFromPath_(arena, &madeParams, newGenOnly, 0, 0, path, name, "params",
                                    linear, (VMAArrayHandle *)&tree->params);
    *create = madeRoot || madeParams;
    if (ok && madeParams) {
        const UInt params[2] = {0, valueSize};
        VMAArrayAppend(tree->params, params, 2);
    }
    if (!ok || !StoredValueSize(tree, &tree->valueSize)) {
        UnAllocate(tree);
        return nullptr;
    }
    Geometry(tree);
    return tree;
}

QK_API BTree *BTreeNew(VMArena *arena, char *path, const char *name, int *create, int newGenOnly,
                       UInt keySize, UInt valueSize) {
    return BTreeNew_(arena, path, name, 0, create, newGenOnly, keySize, valueSize);
}

QK_API void BTreeFree(BTree *tree) {
    if (tree == nullptr) return;
    ArrayFree(tree->path);
    ArrayFree(tree->keys);
    ArrayFree(tree->values);
    ArrayFree(tree->sons);
    UnAllocate(tree);
}

QK_API void BTreeCommit(BTree *tree) {
    tree->root.ids[OLDGEN] = tree->root.ids[NEWGEN];
    tree->params.ids[OLDGEN] = tree->params.ids[NEWGEN];
}

QK_API void BTreeClear(BTree *tree, Int genID) {
    qkassert(genID == NEWGEN);
    UIntArray blocks = {};
    auto collect = [](UInt block, int, void *arg) {
        ArrayAdd(*(UIntArray *)arg, block);
        return 0;
    };
    tree->ops->blockEnumerate(tree, collect, &blocks, NEWGEN);
    for (UInt i = 0; i < blocks.length; i++)
        VMArenaDataBlockFree(tree->arena, blocks.data[i], NEWGEN);
    ArrayFree(blocks);
    VMAArrayClear(tree->root);
}

QK_API UInt BTreeRoot(BTree *tree, Int genID) {
    return RootBlock(tree, genID);
}

QK_API UInt BTreeKeySize(BTree *tree) {
    return tree->keySize;
}

QK_API UInt BTreeValueSize(BTree *tree) {
    return tree->valueSize;
}

QK_API ULong BTreeFind(BTree *tree, ULong key, ULong value, ULong def, int create, int update,
                       int remove, Int genID) {
    return tree->ops->find(tree, key, value, def, nullptr, nullptr, nullptr, nullptr, create,
                           update, remove, genID);
}

QK_API ULong BTreePrevKey(BTree *tree, ULong key, ULong *value, Int genID) {
    ULong prev;
    tree->ops->find(tree, key, 0, 0, &prev, value, nullptr, nullptr, 0, 0, 0, genID);
    return prev;
}

QK_API ULong BTreeNextKey(BTree *tree, ULong key, ULong *value, Int genID) {
    ULong next;
    tree->ops->find(tree, key, 0, 0, nullptr, nullptr, &next, value, 0, 0, 0, genID);
    return next;
}

QK_API int BTreeEnumerate(BTree *tree, UInt keySize, BTreeCB callback, void *arg, Int genID) {
    qkassert(keySize == tree->keySize);
    return tree->ops->enumerate(tree, callback, arg, genID);
}

QK_API int BTreeBlockEnumerate(BTree *tree, UInt keySize, BTreeBlockCB callback, void *arg,
                               Int genID) {
    qkassert(keySize == tree->keySize);
    return tree->ops->blockEnumerate(tree, callback, arg, genID);
}

QK_API BTreeEnumeration *BTreeEnumerationNew(BTree *tree, UInt keySize, Int genID) {
    qkassert(keySize == tree->keySize);
    auto *e = AllocateZero(BTreeEnumeration);
    e->tree = tree;
    e->genID = genID;
    return e;
}

QK_API int BTreeEnumerationNext(BTreeEnumeration *e, ULong *key, ULong *value) {
    return e->tree->ops->next(e, key, value);
}

QK_API void BTreeEnumerationFree(BTreeEnumeration *e) {
    if (e == nullptr) return;
    ArrayFree(e->stack);
    UnAllocate(e);
}

}  // extern "C"
