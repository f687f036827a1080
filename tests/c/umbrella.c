/* The umbrella header compiles as strict C11, and a C program can use the
 * interface: typed arrays, errors and the version. */
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "qk/qkcommon.h"

typedef QK_ARRAY(double) DoubleArray;

static Mutex lock = MUTEX_INITIALIZER;

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
    printf("%s %s\n", QKVersionString(), QKArchitecture());
    return 0;
}
