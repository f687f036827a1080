// Opening and mapping files. Views are shared mappings of the file; a view
// outlives its descriptor. The system's unmap needs the length of the
// mapping, which the callers do not keep: every view is registered with its
// mapping's start and length until FileUnmap.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <unordered_map>

#include "frame/file_internal.h"
#include "qk/memory.h"

namespace {

struct Mapping {
    void *start;
    size_t length;
};

Mutex gViewsMutex = MUTEX_INITIALIZER;

// Never destroyed: views may still be unmapped while the process ends.
std::unordered_map<uintptr_t, Mapping> &Views() {
    static auto *views = new std::unordered_map<uintptr_t, Mapping>();
    return *views;
}

void AdviseDescriptor(int fd, int advice) {
    if (advice == FILE_ADVICE_SEQUENTIAL)
        posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    else if (advice == FILE_ADVICE_RANDOM)
        posix_fadvise(fd, 0, 0, POSIX_FADV_RANDOM);
}

void AdviseView(void *view, size_t size, int advice) {
    if (view == nullptr || advice == FILE_ADVICE_NORMAL) return;
    uintptr_t cut = (uintptr_t)view % PageSize();
    int saved = errno;
    madvise((char *)view - cut, size + cut,
            advice == FILE_ADVICE_SEQUENTIAL ? MADV_SEQUENTIAL : MADV_RANDOM);
    errno = saved;
}

// Opens, maps and closes: the body of FileMap and its UCS2 form.
void *MapPath(const char *path, int readOnly, size_t *size, int *empty, int advice) {
    int fd = open(path, (readOnly ? O_RDONLY : O_RDWR) | O_CLOEXEC);
    if (fd < 0) {
        QKSetLastErrorFromErrno();
        return nullptr;
    }
    AdviseDescriptor(fd, advice);
    size_t mapped = 0;
    void *view = FileMapFD(fd, readOnly, &mapped, empty);
    if (size != nullptr) *size = mapped;
    AdviseView(view, mapped, advice);
    qk::CloseKeepingError(fd);
    return view;
}

}  // namespace

extern "C" {

QK_API int FileOpen(const char *directory, const char *name, int readOnly, int advice) {
    qk::FilePath path;
    if (!path.Set(directory, name)) return -1;
    int fd = open(path.Get(), (readOnly ? O_RDONLY : O_RDWR) | O_CLOEXEC);
    if (fd < 0) {
        QKSetLastErrorFromErrno();
        return -1;
    }
    AdviseDescriptor(fd, advice);
    return fd;
}

QK_API void *FileMapSegment(int fd, int readOnly, ULong offset, size_t size) {
    if (size == 0 || offset > (ULong)INT64_MAX) {
        qk::SetSystemError(EINVAL);
        return nullptr;
    }
    // The system maps from page boundaries; the view starts inside the page.
    size_t cut = (size_t)(offset % PageSize());
    int protection = readOnly ? PROT_READ : PROT_READ | PROT_WRITE;
    void *start = mmap(nullptr, size + cut, protection, MAP_SHARED, fd, (off_t)(offset - cut));
    if (start == MAP_FAILED) {
        QKSetLastErrorFromErrno();
        return nullptr;
    }
    char *view = (char *)start + cut;
    MutexLock(&gViewsMutex);
    Views()[(uintptr_t)view] = Mapping{start, size + cut};
    MutexUnlock(&gViewsMutex);
    return view;
}

QK_API void *FileMapFD(int fd, int readOnly, size_t *size, int *empty) {
    struct stat st;
    if (fstat(fd, &st) != 0) {
        QKSetLastErrorFromErrno();
        return nullptr;
    }
    if (st.st_size == 0) {
        if (size != nullptr) *size = 0;
        if (empty != nullptr) *empty = 1;
        errno = 0;
        return nullptr;
    }
    void *view = FileMapSegment(fd, readOnly, 0, (size_t)st.st_size);
    if (view == nullptr) return nullptr;
    if (size != nullptr) *size = (size_t)st.st_size;
    if (empty != nullptr) *empty = 0;
    return view;
}

QK_API void *FileMap(const char *directory, const char *name, int readOnly, size_t *size,
                     int *empty, int advice) {
    qk::FilePath path;
    if (!path.Set(directory, name)) return nullptr;
    return MapPath(path.Get(), readOnly, size, empty, advice);
}

QK_API void *FileMapUCS2(const UShort *directory, UInt directoryLength, const UShort *name,
                         UInt nameLength, int readOnly, size_t *size, int *empty, int advice) {
    qk::FilePath path;
    if (!path.SetUCS2(directory, directoryLength, name, nameLength)) return nullptr;
    return MapPath(path.Get(), readOnly, size, empty, advice);
}

QK_API void *FileMapRead(const char *directory, const char *name, size_t *size, int *empty) {
    return FileMap(directory, name, 1, size, empty, FILE_ADVICE_NORMAL);
}

QK_API void *FileMapReadUCS2(const UShort *directory, UInt directoryLength, const UShort *name,
                             UInt nameLength, size_t *size, int *empty) {
    return FileMapUCS2(directory, directoryLength, name, nameLength, 1, size, empty,
                       FILE_ADVICE_NORMAL);
}

QK_API void *FileMapReadWrite(const char *directory, const char *name, size_t *size, int *empty) {
    return FileMap(directory, name, 0, size, empty, FILE_ADVICE_NORMAL);
}

QK_API void *FileMapReadWriteUCS2(const UShort *directory, UInt directoryLength, const UShort *name,
                                  UInt nameLength, size_t *size, int *empty) {
    return FileMapUCS2(directory, directoryLength, name, nameLength, 0, size, empty,
                       FILE_ADVICE_NORMAL);
}

QK_API int FileUnmap(void *view) {
    if (view == nullptr) return 1;  // the view of an empty file
    MutexLock(&gViewsMutex);
    auto &views = Views();
    auto found = views.find((uintptr_t)view);
    if (found == views.end()) {
        MutexUnlock(&gViewsMutex);
        qk::SetSystemError(EINVAL);
        return 0;
    }
    Mapping mapping = found->second;
    views.erase(found);
    MutexUnlock(&gViewsMutex);
    if (munmap(mapping.start, mapping.length) != 0) {
        QKSetLastErrorFromErrno();
        return 0;
    }
    return 1;
}

QK_API int FileMapSync(void *view, size_t size) {
    if (size == 0) return 1;
    uintptr_t cut = (uintptr_t)view % PageSize();
    if (msync((char *)view - cut, size + cut, MS_SYNC) != 0) {
        QKSetLastErrorFromErrno();
        return 0;
    }
    return 1;
}

QK_API int FileSetReadSize(int, UInt) {
    QKErrorThrow(QK_ERR_NOT_SUPPORTED, QK_DOMAIN_GENERAL, "not supported");
    return 0;
}

}  // extern "C"
