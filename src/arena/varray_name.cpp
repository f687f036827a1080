// Arrays by name: the name table of array 0 through the name service, and
// the handles that collections fill from a path.
#include <string.h>

#include "arena/varray_internal.h"

using namespace qk::arena;

namespace {

// Appends `str1` and, when given, '/' and `str2` to the path's content;
// false when that does not fit.
bool PathJoin(char *path, const char *str1, const char *str2) {
    size_t at = strlen(path), n1 = strlen(str1), n2 = str2 ? strlen(str2) + 1 : 0;
    if (at + n1 + n2 >= VMARENA_PATH_SIZE) {
        QKErrorThrow(QK_ERR_INVALID, QK_DOMAIN_GENERAL, "array name too long: \"%s%s\"", path,
                     str1);
        return false;
    }
    memcpy(path + at, str1, n1);
    if (str2 != nullptr) {
        path[at + n1] = '/';
        memcpy(path + at + n1 + 1, str2, n2 - 1);
    }
    path[at + n1 + n2] = 0;
    return true;
}

}  // namespace

extern "C" {

QK_API Int VMAArrayFind(VMArena *arena, Int genID, const char *name, UInt length, int linear,
                        int *create, int blockArray, UInt blockSize) {
    qkassert(genID == NEWGEN || !*create);
    NameService *names = &arena->nameService;
    MutexLock(&names->mutex);
    Int id = NameServiceFind(arena, genID, name, length, linear != 0, create, blockArray != 0,
                             blockSize);
    MutexUnlock(&names->mutex);
    return id;
}

QK_API int VMAArrayLookupFromPath(VMArena *arena, Int genID, char *path, const char *str1,
                                  const char *str2, int linear, Int *id) {
    size_t keep = strlen(path);
    int create = 0;
    *id = VMA_NO_ARRAY;
    if (PathJoin(path, str1, str2))
        *id = VMAArrayFind(arena, genID, path, (UInt)strlen(path), linear, &create, 0, 0);
    path[keep] = 0;
    return *id >= 0;
}

QK_API int VMAArrayInitFromPath_(VMArena *arena, int *create, int newGenOnly, int blockArray,
                                 UInt blockSize, char *path, const char *str1, const char *str2,
                                 int linear, VMAArrayHandle *handle) {
    size_t keep = strlen(path);
    handle->arena = arena;
    handle->ids[NEWGEN] = handle->ids[OLDGEN] = VMA_NO_ARRAY;
    if (!PathJoin(path, str1, str2)) {
        *create = 0;
        return 0;
    }
    UInt length = (UInt)strlen(path);
    int made = *create;
    handle->ids[NEWGEN] =
        VMAArrayFind(arena, NEWGEN, path, length, linear, &made, blockArray, blockSize);
    if (newGenOnly) {
        handle->ids[OLDGEN] = handle->ids[NEWGEN];
    } else {
        int none = 0;
        handle->ids[OLDGEN] = VMAArrayFind(arena, OLDGEN, path, length, linear, &none, 0, 0);
    }
    *create = made;
    bool found = handle->ids[NEWGEN] >= 0;
    if (!found && handle->ids[NEWGEN] == VMA_NO_ARRAY)
        QKErrorThrow(QK_ERR_FAILURE, QK_DOMAIN_GENERAL, "no array \"%s\"", path);
    path[keep] = 0;
    return found;
}

QK_API int VMAArrayInitFromPath(VMArena *arena, int *create, int newGenOnly, int blockArray,
                                UInt blockSize, char *path, const char *str1, const char *str2,
                                VMAArrayHandle *handle) {
    return VMAArrayInitFromPath_(arena, create, newGenOnly, blockArray, blockSize, path, str1, str2,
                                 0, handle);
}

QK_API int VMABlockArrayInitFromPath_(VMArena *arena, int *create, int newGenOnly, UInt blockSize,
                                      char *path, const char *str1, const char *str2, int linear,
                                      VMAArrayHandle *handle) {
    return VMAArrayInitFromPath_(arena, create, newGenOnly, 1, blockSize, path, str1, str2, linear,
                                 handle);
}

QK_API int VMABlockArrayInitFromPath(VMArena *arena, int *create, int newGenOnly, UInt blockSize,
                                     char *path, const char *str1, const char *str2,
                                     VMAArrayHandle *handle) {
    return VMAArrayInitFromPath_(arena, create, newGenOnly, 1, blockSize, path, str1, str2, 0,
                                 handle);
}

}  // extern "C"
