// Key files: a key is the whole content of a file. The process key is named
// by the option "-authkey FILE" or the environment variable QKAUTHKEY.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "qk/memory.h"
#include "server/server_internal.h"

extern "C" {

QK_API QKAuthKey *QKAuthKeyFromFile(const char *path) {
    FILE *file = fopen(path, "rb");
    if (file == nullptr) {
        QKSetLastErrorFromErrno();
        return nullptr;
    }
    ByteArray bytes = {nullptr, 0, 0};
    UByte buffer[4096];
    size_t count;
    while ((count = fread(buffer, 1, sizeof buffer, file)) > 0) ArrayAppend(bytes, buffer, count);
    bool failed = ferror(file) != 0;
    if (failed) QKSetLastErrorFromErrno();
    fclose(file);
    QKAuthKey *key = failed ? nullptr : QKAuthKeyFromBuffer(bytes.data, bytes.length);
    if (bytes.data) memset(bytes.data, 0, bytes.length);
    ArrayFree(bytes);
    return key;
}

QK_API void QKAuthInit(int *argc, char **argv) {
    const char *path = nullptr;
    for (int i = 1; i + 1 < *argc; i++) {
        if (strcmp(argv[i], "-authkey") != 0) continue;
        path = argv[i + 1];
        for (int k = i; k + 2 <= *argc; k++) argv[k] = argv[k + 2];
        *argc -= 2;
        break;
    }
    if (path == nullptr) path = getenv("QKAUTHKEY");
    if (path == nullptr) return;
    QKAuthKey *key = QKAuthKeyFromFile(path);
    if (key == nullptr) {
        QKMessageSys(3, "unable to load authentication key file \"%s\"", path);
        return;
    }
    QKAuthSetProcessKey(key);
}

}  // extern "C"
