// Deleting log files: those wholly before a serial, or all of them.
#include <errno.h>
#include <unistd.h>

#include "log/log_internal.h"
#include "qk/file.h"

namespace qk::log {
namespace {

// Unlinks a log file; one already gone is no failure.
bool Remove(const char *path) {
    if (unlink(path) == 0 || errno == ENOENT) return true;
    QKSetLastErrorFromErrno();
    QKErrorRethrow("error deleting file \"%s\"", path);
    return false;
}

}  // namespace
}  // namespace qk::log

using namespace qk::log;

extern "C" {

QK_API int LogTruncate(Log *log, ULong serial) {
    if (log->readOnly) {
        ThrowReadOnly();
        return 0;
    }
    MutexLock(&log->lock);
    UInt number = log->firstFileno;
    UInt target = SERIAL_FILENO(serial) < log->fileno ? SERIAL_FILENO(serial) : log->fileno;
    MutexUnlock(&log->lock);
    ByteArray name = {};
    bool ok = true;
    for (; ok && number < target; number++) {
        MakeFileName(&name, log->path, number);
        ok = Remove(Name(name));
    }
    ArrayFree(name);
    if (!ok) number--;
    MutexLock(&log->lock);
    if (log->firstFileno < number) log->firstFileno = number;
    MutexUnlock(&log->lock);
    return ok;
}

QK_API int LogDelete(const char *directory) {
    UIntArray numbers = {};
    auto note = [](const char *name, void *argument) {
        if (UInt number = ParseFileName(name))
            ArrayAdd(*static_cast<UIntArray *>(argument), number);
        return 1;
    };
    bool ok = DirectoryEnumerateRelative(directory, note, &numbers);
    if (!ok) QKErrorRethrow("error reading log directory \"%s\"", directory);
    ByteArray name = {};
    for (UInt i = 0; ok && i < numbers.length; i++) {
        MakeFileName(&name, directory, numbers.data[i]);
        ok = Remove(Name(name));
    }
    ArrayFree(name);
    ArrayFree(numbers);
    return ok;
}

}  // extern "C"
