// Raw files: a QKFile is the system's descriptor. Files are opened without
// any sharing restriction; every descriptor takes asynchronous transfers
// (file_async.cpp).
//
// Writing through without system buffering asks for direct, synchronous
// writes. File systems that refuse direct access (in memory, for one) get
// synchronous writes through the cache instead.
#include <fcntl.h>
#include <unistd.h>

#include "frame/file_internal.h"

extern "C" {

QK_API QKFile QKFileOpen(const char *path, int flags) {
    qk::FilePath checked;
    Int c = checked.Join(nullptr, path);
    qkassert(c == READ_EOF);

    int mode = O_RDONLY;
    if ((flags & QKFILE_READ) && (flags & QKFILE_WRITE))
        mode = O_RDWR;
    else if (flags & QKFILE_WRITE)
        mode = O_WRONLY;
    if (flags & QKFILE_WRITE) mode |= (flags & QKFILE_CREATE) ? O_CREAT | O_TRUNC : O_CREAT;
    if (flags & QKFILE_WRITE_THROUGH) mode |= O_DSYNC | O_DIRECT;
    mode |= O_CLOEXEC;

    int fd = open(checked.Get(), mode, 0666);
    if (fd < 0 && errno == EINVAL && (mode & O_DIRECT))
        fd = open(checked.Get(), mode & ~O_DIRECT, 0666);
    if (fd < 0) {
        QKSetLastErrorFromErrno();
        return QKFILE_INVALID;
    }
    if (flags & QKFILE_RANDOM)
        posix_fadvise(fd, 0, 0, POSIX_FADV_RANDOM);
    else if (flags & QKFILE_SEQUENTIAL)
        posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    return fd;
}

QK_API int QKFileClose(QKFile file) {
    if (close(file) != 0) {
        QKSetLastErrorFromErrno();
        return 0;
    }
    return 1;
}

QK_API int QKFileSync(QKFile file) {
    if (fsync(file) != 0) {
        QKSetLastErrorFromErrno();
        return 0;
    }
    return 1;
}

QK_API int QKFileSetSize(QKFile file, ULong size, int fill) {
    return FileTruncateFD(file, size, fill, 0);
}

QK_API int QKFileSeek(QKFile file, Long offset) {
    Int hi = (Int)(offset >> 32);
    qkassert(hi >= 0);
    if (lseek(file, (off_t)offset, SEEK_SET) < 0) {
        QKSetLastErrorFromErrno();
        return 0;
    }
    return 1;
}

}  // extern "C"
