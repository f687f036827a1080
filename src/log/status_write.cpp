// Writing a status file by replacement, and removing the serial forms of a
// range of generations.
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <trio.h>
#include <unistd.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "log/status_internal.h"
#include "qk/file.h"

using namespace qk::status;

namespace {

// A replication log would be told of every file made or removed; none can
// be driven here, so a status that has one is refused before any change.
bool RefuseReplication(const ReplicationLog *replication) {
    if (replication == nullptr) return true;
    QKErrorThrow(QK_ERR_NOT_SUPPORTED, QK_DOMAIN_GENERAL, "not supported");
    return false;
}

// The lines of the file, flushed and synced. The stream stays open.
bool WriteLines(FILE *file, Status *status, StatusPrintFn print, void *argument) {
    for (int i = 0; i < 26; i++) {
        if (status->lower[i] != 0) trio_fprintf(file, "%c=%I64u\n", 'a' + i, status->lower[i]);
        if (status->upper[i] != 0) trio_fprintf(file, "%c=%I64u\n", 'A' + i, status->upper[i]);
    }
    for (UInt i = 0; i < status->bucketCount; i++)
        trio_fprintf(file, "#%I64u\n", status->buckets[i]);
    for (UInt i = 0; i < status->dataCount; i++) {
        fputc('@', file);
        if (!print(file, status->data[i], argument)) return false;
        fputc('\n', file);
    }
    if (fflush(file) != 0) {
        QKSetLastErrorFromErrno();
        QKMessageSys(3, "cannot fflush file");
        return false;
    }
    if (fsync(fileno(file)) != 0) {
        QKSetLastErrorFromErrno();
        QKMessageSys(3, "cannot fsync file");
        return false;
    }
    if (ferror(file)) {
        QKErrorThrow(QK_ERR_FAILURE, QK_DOMAIN_GENERAL, "cannot write file \"%s\"",
                     status->tempPath);
        return false;
    }
    return true;
}

// The serial of a name "<prefix>.<digits>", when the prefix is one of the
// three names.
bool SerialOf(const char *name, ULong *serial) {
    bool known = false;
    for (const char *prefix : {kCurrent, kNew, kOld}) {
        if (strncmp(name, prefix, strlen(prefix)) == 0) known = true;
    }
    const char *dot = strrchr(name, '.');
    if (!known || dot == nullptr || dot[1] == '\0') return false;
    ULong value = 0;
    for (const char *p = dot + 1; *p; p++) {
        if (*p < '0' || *p > '9' || value > (~(ULong)0 - (*p - '0')) / 10) return false;
        value = value * 10 + (*p - '0');
    }
    *serial = value;
    return true;
}

}  // namespace

extern "C" {

QK_API int StatusWrite(Status *status, StatusPrintFn print, void *argument) {
    if (!RefuseReplication(status->replication)) return 0;
    int saved = errno;
    MakePath(status->path, status->dir, kCurrent, status->serial);
    struct stat st;
    bool exists = stat(status->path, &st) == 0;
    if (!exists && errno != ENOENT) {
        QKSetLastErrorFromErrno();
        return 0;
    }
    // A serial form is new: it needs no replacement.
    bool replace = exists || status->serial == STATUS_NO_SERIAL;
    if (replace) {
        MakePath(status->tempPath, status->dir, kNew, status->serial);
    } else {
        memcpy(status->tempPath, status->path, STATUS_PATH_SIZE);
    }
    FILE *file = fopen(status->tempPath, "w");
    if (file == nullptr) {
        QKSetLastErrorFromErrno();
        return 0;
    }
    if (!WriteLines(file, status, print, argument)) {
        int error = errno, last = QKGetLastError();
        fclose(file);
        QKSetLastError(last);
        errno = error;
        return 0;
    }
    if (fclose(file) != 0) {
        QKSetLastErrorFromErrno();
        return 0;
    }
    if (replace) {
        char old[STATUS_PATH_SIZE];
        MakePath(old, status->dir, kOld, status->serial);
        if (!FileRename(status->tempPath, status->path, old)) return 0;
        unlink(old);
    }
    errno = saved;
    return 1;
}

QK_API int StatusRemoveFiles(const char *dir, ULong from, ULong to, ReplicationLog *replication) {
    if (!RefuseReplication(replication)) return 0;
    std::vector<std::string> names;
    auto collect = [](const char *name, void *argument) {
        static_cast<std::vector<std::string> *>(argument)->push_back(name);
        return 1;
    };
    if (!DirectoryEnumerateRelative(dir, collect, &names)) return 0;
    int saved = errno;
    int result = 1;
    for (const std::string &name : names) {
        ULong serial;
        if (!SerialOf(name.c_str(), &serial) || serial < from || serial > to) continue;
        std::string path = std::string(dir) + "/" + name;
        if (unlink(path.c_str()) != 0 && result) {
            QKSetLastErrorFromErrno();
            saved = errno;
            result = 0;
        }
    }
    errno = saved;
    return result;
}

}  // extern "C"
