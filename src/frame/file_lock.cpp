// Whole-file advisory locks that do not wait. They are open-file-description
// locks, owned by the open file rather than by the process, so two
// acquisitions conflict even within one process, and a lock ends with the
// descriptor that holds it.
//
// A lock held by someone else fails with errno EBUSY (16) itself, a runtime
// code, so that QKErrorCode reports (16, 0) whatever the system said.
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <trio.h>

#include "frame/file_internal.h"
#include "qk/memory.h"

namespace {

constexpr size_t kReadPiece = 1024;

bool SetLock(int fd, short type) {
    struct flock region;
    memset(&region, 0, sizeof region);
    region.l_type = type;
    region.l_whence = SEEK_SET;
    region.l_start = 0;
    region.l_len = 0;  // to the end of the file, however far it grows
    return fcntl(fd, F_OFD_SETLK, &region) == 0;
}

bool WriteAll(int fd, const char *text, size_t length) {
    size_t done = 0;
    while (done < length) {
        ssize_t n = pwrite(fd, text + done, length - done, (off_t)done);
        if (n < 0) {
            if (errno == EINTR) continue;
            QKSetLastErrorFromErrno();
            return false;
        }
        done += (size_t)n;
    }
    return true;
}

}  // namespace

extern "C" {

QK_API FileLock *FileLockAcquire(const char *directory, const char *name, int exclusive) {
    char path[FILE_LOCK_PATH_SIZE + 1];
    size_t length = strlen(name) + (directory != nullptr ? strlen(directory) + 1 : 0);
    if (length > FILE_LOCK_PATH_SIZE) {
        errno = EINVAL;
        return nullptr;
    }
    if (directory != nullptr)
        trio_snprintf(path, sizeof path, "%s/%s", directory, name);
    else
        trio_snprintf(path, sizeof path, "%s", name);
    if (qk::CheckUTF8(path, length) != READ_EOF) {
        errno = EILSEQ;
        return nullptr;
    }
    int fd = exclusive ? open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600)
                       : open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        QKSetLastErrorFromErrno();
        return nullptr;
    }
    if (!SetLock(fd, exclusive ? F_WRLCK : F_RDLCK)) {
        if (errno == EAGAIN || errno == EACCES) {
            close(fd);
            errno = EBUSY;
        } else {
            QKSetLastErrorFromErrno();
            qk::CloseKeepingError(fd);
        }
        return nullptr;
    }
    FileLock *lock = AllocateZero(FileLock);
    memcpy(lock->path, path, length + 1);
    lock->exclusive = exclusive ? 1 : 0;
    lock->fd = fd;
    lock->mutex = MUTEX_INITIALIZER;
    return lock;
}

QK_API int FileLockWrite(FileLock *lock, const char *text) {
    if (!lock->exclusive) {
        qk::SetSystemError(EBADF);  // a shared lock's file is open for reading only
        return 0;
    }
    MutexLock(&lock->mutex);
    int result = 0;
    if (ftruncate(lock->fd, 0) != 0) {
        QKSetLastErrorFromErrno();
    } else {
        result = WriteAll(lock->fd, text, strlen(text)) ? 1 : 0;
    }
    MutexUnlock(&lock->mutex);
    return result;
}

QK_API int FileLockRead(FileLock *lock, ByteArray *array) {
    MutexLock(&lock->mutex);
    int result = 1;
    off_t offset = 0;
    for (;;) {
        ArrayEnsure(*array, array->length + kReadPiece + 1);
        ssize_t n = pread(lock->fd, array->data + array->length, kReadPiece, offset);
        if (n < 0) {
            if (errno == EINTR) continue;
            QKSetLastErrorFromErrno();
            result = 0;
            break;
        }
        array->length += (UInt)n;
        offset += n;
        if ((size_t)n < kReadPiece) break;
    }
    array->data[array->length] = 0;
    MutexUnlock(&lock->mutex);
    return result;
}

QK_API int FileLockRelease(FileLock *lock) {
    int result = 1;
    if (!SetLock(lock->fd, F_UNLCK)) {
        QKSetLastErrorFromErrno();
        result = 0;
    }
    if (result) {
        if (close(lock->fd) != 0) {
            QKSetLastErrorFromErrno();
            result = 0;
        }
    } else {
        qk::CloseKeepingError(lock->fd);
    }
    MutexDestroy(&lock->mutex);
    UnAllocate(lock);
    return result;
}

}  // extern "C"
