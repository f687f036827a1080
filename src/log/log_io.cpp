// The log's file calls: each repeats a call that a signal interrupted, and
// on failure names the file in the error. Also the errors of the log's own.
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include "log/log_internal.h"

namespace qk::log {
namespace {

bool Fail(const char *format, const char *path) {
    QKSetLastErrorFromErrno();
    QKErrorRethrow(format, path);
    return false;
}

}  // namespace

int OpenFile(const char *path, int flags, const char *format) {
    int fd;
    do fd = open(path, flags | O_CLOEXEC, 0600);
    while (fd < 0 && errno == EINTR);
    if (fd < 0) Fail(format, path);
    return fd;
}

bool WriteAt(int fd, const void *bytes, size_t size, ULong offset, const char *path) {
    const UByte *p = static_cast<const UByte *>(bytes);
    while (size > 0) {
        ssize_t n = pwrite(fd, p, size, (off_t)offset);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            if (n == 0) errno = ENOSPC;
            return Fail("error writing log file \"%s\"", path);
        }
        p += n, size -= (size_t)n, offset += (ULong)n;
    }
    return true;
}

ssize_t ReadAt(int fd, void *bytes, size_t size, ULong offset, const char *path) {
    size_t done = 0;
    while (done < size) {
        ssize_t n = pread(fd, static_cast<UByte *>(bytes) + done, size - done, (off_t)offset);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            Fail("error reading log file \"%s\"", path);
            return -1;
        }
        if (n == 0) break;
        done += (size_t)n, offset += (ULong)n;
    }
    return (ssize_t)done;
}

bool SyncFile(int fd, const char *path) {
    int rc;
    do rc = fsync(fd);
    while (rc != 0 && errno == EINTR);
    return rc == 0 || Fail("error writing log file \"%s\"", path);
}

bool CloseFile(int fd, const char *path) {
    // After EINTR the descriptor is gone all the same.
    return close(fd) == 0 || errno == EINTR || Fail("error closing log file \"%s\"", path);
}

bool TruncateFile(int fd, ULong size, const char *path) {
    int rc;
    do rc = ftruncate(fd, (off_t)size);
    while (rc != 0 && errno == EINTR);
    return rc == 0 || Fail("error writing log file \"%s\"", path);
}

bool IsMissing() {
    return QKErrorCode() == QK_ERROR_CODE(ENOENT, QK_DOMAIN_OS);
}

void ThrowReadOnly() {
    QKErrorThrow(EINVAL, QK_DOMAIN_RUNTIME, "read-only log");
}

void ThrowUnavailable(ULong serial) {
    QKErrorThrow(2, QK_DOMAIN_STORE, "unavailable log serial number: 0x%I64x", serial);
}

void ThrowInvalid(ULong serial) {
    QKErrorThrow(QK_ERR_INVALID, QK_DOMAIN_GENERAL, "invalid log serial number: 0x%I64x", serial);
}

}  // namespace qk::log
