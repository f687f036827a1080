// Writing an array as the source text of a C table: sixteen items to a line.
#include <string.h>

#include <trio.h>

#include "frame/file_internal.h"

namespace {

constexpr UInt kItemsPerLine = 16;

const char *Separator(UInt index, UInt length) {
    if (index + 1 == length) return "\n";
    return (index + 1) % kItemsPerLine == 0 ? ",\n" : ", ";
}

template <typename T>
T Item(const void *data, UInt index) {
    T value;
    memcpy(&value, (const char *)data + (size_t)index * sizeof(T), sizeof(T));
    return value;
}

int WriteItem(FILE *file, const void *data, UInt index, UInt length, UInt elementSize) {
    const char *separator = Separator(index, length);
    switch (elementSize) {
        case 1:
            return trio_fprintf(file, "%u%s", (unsigned)Item<UByte>(data, index), separator);
        case 2:
            return trio_fprintf(file, "%u%s", (unsigned)Item<UShort>(data, index), separator);
        case 4:
            return trio_fprintf(file, "%uU%s", (unsigned)Item<UInt>(data, index), separator);
        default:
            return trio_fprintf(file, "%I64uUL%s", Item<ULong>(data, index), separator);
    }
}

}  // namespace

extern "C" {

QK_API int FileWriteCArray(FILE *file, const char *name, const void *data, UInt length,
                           UInt elementSize) {
    const char *head;
    switch (elementSize) {
        case 1:
            head = "static UByte %s[%u] = { \n";
            break;
        case 2:
            head = "static UShort %s[%u] = { \n";
            break;
        case 4:
            head = "static UInt %s[%u] = { \n";
            break;
        case 8:
            head = "static ULong %s[%u] = { \n";
            break;
        default:
            QKErrorThrow(QK_ERR_INVALID, QK_DOMAIN_GENERAL,
                         ": invalid element size in FileWriteCArray (size=%u)", elementSize);
            return 0;
    }
    int saved = errno;
    errno = 0;
    bool ok = trio_fprintf(file, head, name, length) >= 0;
    for (UInt i = 0; ok && i < length; i++) ok = WriteItem(file, data, i, length, elementSize) >= 0;
    ok = ok && trio_fprintf(file, "};\n") >= 0;
    if (!ok || ferror(file)) {
        if (errno <= 0) errno = EIO;
        QKSetLastErrorFromErrno();
        return 0;
    }
    errno = saved;
    return 1;
}

}  // extern "C"
