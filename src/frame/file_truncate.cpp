// Setting a file's size. A file lengthened with `fill` gets real zero blocks
// written, not a hole, so that a later write into the range cannot fail for
// want of space.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "frame/file_internal.h"
#include "qk/memory.h"

namespace {

constexpr size_t kZeroBlock = 0x100000;

// Writes zeros from `from` until `delta` bytes are written.
bool WriteZeros(int fd, ULong from, ULong delta) {
    void *zeros = MemoryMap(kZeroBlock);
    if (zeros == nullptr) return false;
    ULong written = 0;
    bool ok = true;
    while (written < delta) {
        size_t piece = delta - written < kZeroBlock ? (size_t)(delta - written) : kZeroBlock;
        ssize_t n = pwrite(fd, zeros, piece, (off_t)(from + written));
        if (n < 0) {
            if (errno == EINTR) continue;
            QKSetLastErrorFromErrno();
            ok = false;
            break;
        }
        if (n == 0) {  // no room, and no error said so
            qk::SetSystemError(ENOSPC);
            ok = false;
            break;
        }
        written += (ULong)n;
        qkassert(written <= delta);
    }
    int saved = errno;
    MemoryUnmap(zeros, kZeroBlock);
    errno = saved;
    return ok;
}

}  // namespace

extern "C" {

QK_API int FileTruncateFD(int fd, ULong size, int fill, int) {
    if (size > (ULong)INT64_MAX) {
        qk::SetSystemError(EFBIG);
        return 0;
    }
    if (fill) {
        struct stat st;
        if (fstat(fd, &st) != 0) {
            QKSetLastErrorFromErrno();
            return 0;
        }
        ULong current = (ULong)st.st_size;
        if (current < size) return WriteZeros(fd, current, size - current) ? 1 : 0;
    }
    if (ftruncate(fd, (off_t)size) != 0) {
        QKSetLastErrorFromErrno();
        return 0;
    }
    return 1;
}

QK_API int FileTruncate(const char *path, ULong size, int fill, int flags) {
    qk::FilePath checked;
    if (!checked.Set(nullptr, path)) return 0;
    int fd = open(checked.Get(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0) {
        QKSetLastErrorFromErrno();
        return 0;
    }
    int result = FileTruncateFD(fd, size, fill, flags);
    if (result) {
        if (close(fd) != 0) {
            QKSetLastErrorFromErrno();
            return 0;
        }
    } else {
        qk::CloseKeepingError(fd);
    }
    return result;
}

}  // extern "C"
