/* The umbrella header compiles as strict C11, and a C program can use the
 * interface: typed arrays, errors, the version, and an arena array through
 * its typed handle and macros. */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "qk/qkcommon.h"

typedef QK_ARRAY(double) DoubleArray;

static Mutex lock = MUTEX_INITIALIZER;

/* 3000 elements appended, read back in both generations after a commit. */
static int ArenaArray(void) {
    char dir[] = "/tmp/qkcXXXXXX", path[VMARENA_PATH_SIZE] = "";
    if (mkdtemp(dir) == NULL) return 0;
    VMArena *arena = VMArenaOpen(dir, VM_FLAG_CREATE | VM_FLAG_MAPPED, 1, STATUS_NO_SERIAL,
                                 STATUS_NO_SERIAL, NULL, NULL);
    VMAARRAY(UInt) a;
    int create = 1, ok = arena != NULL && VMAArrayInitFromPath(arena, &create, 1, 0, 0, path, "c",
                                                               "values", (VMAArrayHandle *)&a);
    for (UInt i = 0; ok && i < 3000; i++) ok = VMAArrayAppend(a, &i, 1);
    ok = ok && VMArenaCommit(arena, NULL, NULL) && VMAArrayLength(a, OLDGEN) == 3000;
    for (UInt i = 0, end; ok && i < 3000; i++)
        ok = *VMAArrayRange(a, i, &end, OLDGEN, 1) == i &&
             *VMAArrayRange(a, i, &end, NEWGEN, 1) == i;
    VMArenaClose(arena);
    DirectoryRemoveContents(dir);
    return ok && rmdir(dir) == 0;
}

int main(void) {
    QKLibInit("c-check");
    DoubleArray values = {0};
    for (int i = 0; i < 100; i++) ArrayAdd(values, i * 0.5);
    if (ArrayLength(values) != 100 || ArrayNth(values, 99) != 49.5) return 1;
    ArrayFree(values);

    MutexLock(&lock);
    MutexUnlock(&lock);

    QKErrorThrow(QK_ERR_INVALID, QK_DOMAIN_GENERAL, "bad argument(s)");
    if (QKErrorCode() != QK_ERROR_CODE(1, 2)) return 2;
    if (strcmp(QKErrorMessage(), "bad argument(s)") != 0) return 3;
    if (strcmp(QKProgramName(), "c-check") != 0) return 4;
    if (!ArenaArray()) return 5;
    printf("%s %s\n", QKVersionString(), QKArchitecture());
    return 0;
}
