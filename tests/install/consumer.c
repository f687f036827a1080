/* A program outside the tree that uses the installed library. */
#include <stdio.h>

#include <qk/qkcommon.h>

int main(void) {
    QKLibInit("consumer");
    ByteArray bytes = {0};
    ArrayAppend(bytes, "abc", 3);
    QKErrorThrow(QK_ERR_TIMEOUT, QK_DOMAIN_GENERAL, "read timeout");
    int ok = bytes.length == 3 && QKErrorCode() == QK_ERROR_CODE(2, 2);
    ArrayFree(bytes);
    if (!ok) return 1;
    printf("consumer ok %s\n", QKVersionString());
    return 0;
}
