// The array directory: a scan of the name table for the tree's own arrays,
// the tree for every other name.
#include <string.h>

#include <vector>

#include "arena/block_read.h"
#include "arena/name_service.h"
#include "arena/varray_internal.h"
#include "qk/pitree.h"

namespace qk::arena {

namespace {

// Scans the name table of `genID` (names end in a NUL; the first is array
// 1's): the ID, or -2 with the number of names in *count, or -1 with the
// error state set when the table cannot be read.
Int ScanFind(VMArena *arena, Int genID, const char *key, UInt length, UInt *count) {
    UInt total = VMArenaArrayCount(arena, genID) > 0 ? VMAArrayReadLength(arena, 0, genID) : 0;
    Int arrayID = 1;
    UInt matched = 0;  // bytes of the current name that equal the key's
    bool differs = false;
    for (UInt i = 0; i < total;) {
        UInt end;
        const UByte *p = VMAArrayReadRange(arena, 0, ARENA_MAX_BLOCK_SIZE, i, 1, &end, genID);
        if (p == nullptr) return -1;
        const UByte *stop = p + (end - i);
        // Piece by piece up to each NUL: a name may go on in the next block.
        while (p < stop) {
            auto *nul = (const UByte *)memchr(p, 0, (size_t)(stop - p));
            size_t n = (size_t)((nul ? nul : stop) - p);
            if (!differs && matched + n <= length && memcmp(key + matched, p, n) == 0)
                matched += (UInt)n;
            else
                differs = true;
            if (nul == nullptr) break;
            if (!differs && matched == length) {
                *count = (UInt)arrayID - 1;
                return arrayID;
            }
            arrayID++;
            matched = 0;
            differs = false;
            p = nul + 1;
        }
        i = end;
    }
    *count = (UInt)arrayID - 1;
    return kNoArray;
}

// Whether every array but the name table has a name and no ID is free, as
// the directory needs to give the next ID to the next name.
bool TableMatchesArrays(VMArena *arena) {
    UInt total = VMAArrayReadLength(arena, 0, NEWGEN), names = 0;
    for (UInt i = 0; i < total;) {
        UInt end;
        const UByte *bytes = VMAArrayReadRange(arena, 0, ARENA_MAX_BLOCK_SIZE, i, 1, &end, NEWGEN);
        if (bytes == nullptr) return false;
        for (; i < end; i++) names += *bytes++ == 0;
    }
    return names + 1 == FArrayLength(arena->rw_gen.array) &&
           ArrayLength(arena->rw_gen.freeArrays) == 0;
}

// Makes the array `name` at the end of the name table; its ID must be
// `id`, so a freed ID that VMAArrayNew would take is a conflict (the
// collections that name their arrays never free them).
Int Add(VMArena *arena, const char *name, UInt length, Int id, bool blockArray, UInt blockSize) {
    static const char kEnd = 0;
    VMAArrayAppend_(arena, 0, ARENA_MAX_BLOCK_SIZE, name, length, NEWGEN, 1);
    VMAArrayAppend_(arena, 0, ARENA_MAX_BLOCK_SIZE, &kEnd, 1, NEWGEN, 1);
    Int ret = VMAArrayNew(arena, blockArray, blockSize, NEWGEN);
    VMA_CHECK(arena, id == ret);
    return ret;
}

void KeySet(NameService *names, const char *name, UInt length) {
    ArrayClear(names->key);
    ArrayEnsure(names->key, length);
    for (UInt i = 0; i < length; i++) names->key.data[i] = (UByte)name[i];
    names->key.length = length;
}

UInt *Count(NameService *names, Int genID, int read) {
    UInt upBound;
    return VMAArrayRange(names->params, 0, &upBound, genID, read);
}

// Enters every name of the table into the tree (a name there already keeps
// its ID), and the count of arrays.
bool Fill(VMArena *arena, NameService *names) {
    UInt total = VMAArrayReadLength(arena, 0, NEWGEN), arrayID = 1, start = 0;
    std::vector<char> table(total);
    for (UInt i = 0; i < total;) {
        UInt end;
        const UByte *bytes = VMAArrayReadRange(arena, 0, ARENA_MAX_BLOCK_SIZE, i, 1, &end, NEWGEN);
        if (bytes == nullptr) return false;
        memcpy(&table[i], bytes, end - i);
        i = end;
    }
    for (UInt i = 0; i < total; i++) {
        if (table[i] != 0) continue;
        KeySet(names, &table[start], i - start);
        ULong ret = PITreeFind(names->tree, names->threadData, names->key.data, names->key.length,
                               arrayID + 1, NEWGEN, 1, 0, 0);
        VMA_CHECK(arena, ret == (arrayID + 1));
        arrayID++;
        start = i + 1;
    }
    VMA_CHECK(arena, arrayID == FArrayLength(arena->rw_gen.array));
    if (VMAArrayLength(names->params, NEWGEN) == 0)
        return VMAArrayAppend(names->params, &arrayID, 1);
    *Count(names, NEWGEN, 0) = arrayID;
    return true;
}

}  // namespace

bool NameServiceOpen(VMArena *arena, bool tree) {
    NameService *names = &arena->nameService;
    ArrayInit(names->key);
    if (!tree) return true;
    if (!arena->readOnly && !TableMatchesArrays(arena)) {
        QKErrorThrow(QK_ERR_TIMEOUT, QK_DOMAIN_GENERAL,
                     "cannot create name service: the name table does not name every array");
        return false;
    }
    names->threadData = PITreeThreadDataNew();
    char path[VMARENA_PATH_SIZE] = "";
    int create = !arena->readOnly, createParams = create;
    names->tree = PITreeNew_(arena, path, "#name/lookup", 1, &create, 0);
    bool ok = names->tree != nullptr &&
              VMAArrayInitFromPath_(arena, &createParams, 0, 0, 0, path, "#name", "params", 1,
                                    (VMAArrayHandle *)&names->params);
    // A tree that has no count, or one behind the name table (arrays made
    // while the directory only scanned), is filled from the table.
    if (ok && (VMAArrayLength(names->params, NEWGEN) == 0 ||
               *Count(names, NEWGEN, 1) != VMArenaArrayCount(arena, NEWGEN)))
        ok = !arena->readOnly && Fill(arena, names);
    if (!ok) QKErrorThrow(QK_ERR_TIMEOUT, QK_DOMAIN_GENERAL, "cannot create name service");
    return ok;
}

void NameServiceClose(VMArena *arena) {
    NameService *names = &arena->nameService;
    PITreeFree(names->tree);
    PITreeThreadDataFree(names->threadData);
    names->tree = nullptr;
    names->threadData = nullptr;
    ArrayFree(names->key);
    MutexDestroy(&names->mutex);
}

void NameServiceCommit(VMArena *arena) {
    NameService *names = &arena->nameService;
    if (names->tree == nullptr) return;
    PITreeCommit(names->tree);
    names->params.ids[OLDGEN] = names->params.ids[NEWGEN];
}

Int NameServiceFind(VMArena *arena, Int genID, const char *name, UInt length, bool linear,
                    int *create, bool blockArray, UInt blockSize) {
    NameService *names = &arena->nameService;
    bool make = *create && !arena->readOnly;
    *create = 0;
    if (linear || names->tree == nullptr) {
        UInt count;
        Int id = ScanFind(arena, genID, name, length, &count);
        if (id != kNoArray || !make) return id;
        *create = 1;
        return Add(arena, name, length, (Int)count + 1, blockArray, blockSize);
    }
    if (!VMAArrayExists(names->params, genID) || length == 0) return kNoArray;
    UInt count = *Count(names, genID, 1);
    KeySet(names, name, length);
    ULong ret = PITreeFind(names->tree, names->threadData, names->key.data, length, count + 1,
                           genID, make, 0, 0);
    if (ret == 0) return kNoArray;
    if (ret - 1 != count) return (Int)(ret - 1);
    *Count(names, NEWGEN, 0) = count + 1;
    *create = 1;
    return Add(arena, name, length, (Int)count, blockArray, blockSize);
}

}  // namespace qk::arena
