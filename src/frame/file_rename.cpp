// The replacing rename under the library's commit protocols. rename() swaps
// the name atomically; for the result to survive a power cut the file's data
// is synced before the move, and the directories that hold the names after
// it.
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "frame/file_internal.h"

namespace {

// The system's answer to a name in use; tried once more after a second.
constexpr int kBusy = EBUSY;
constexpr useconds_t kRetryMicros = 1000 * 1000;

// fsync of the file or directory at `path`, opened read-only.
bool SyncPath(const char *path, int extraFlags) {
    int fd = open(path, O_RDONLY | O_CLOEXEC | extraFlags);
    if (fd < 0) {
        QKSetLastErrorFromErrno();
        return false;
    }
    if (fsync(fd) != 0) {
        QKSetLastErrorFromErrno();
        qk::CloseKeepingError(fd);
        return false;
    }
    close(fd);
    return true;
}

std::string ParentOf(const char *path) {
    const char *slash = strrchr(path, '/');
    if (slash == nullptr) return ".";
    if (slash == path) return "/";
    return std::string(path, slash - path);
}

bool SyncParent(const char *path) {
    return SyncPath(ParentOf(path).c_str(), O_DIRECTORY);
}

// rename() with one retry on a busy name; errno as rename left it.
bool Move(const char *from, const char *to) {
    if (rename(from, to) == 0) return true;
    if (errno != kBusy) return false;
    usleep(kRetryMicros);
    return rename(from, to) == 0;
}

bool CheckPath(const char *path) {
    if (qk::CheckUTF8(path, strlen(path)) == READ_EOF) return true;
    errno = EILSEQ;
    return false;
}

}  // namespace

extern "C" {

QK_API int FileRename(const char *from, const char *to, const char *backup) {
    if (!CheckPath(from) || !CheckPath(to) || (backup != nullptr && !CheckPath(backup))) return 0;
    int saved = errno;
    if (backup != nullptr) {
        if (Move(to, backup)) {
            if (!SyncParent(backup)) return 0;
        } else if (errno != ENOENT) {
            QKSetLastErrorFromErrno();
            return 0;
        }
    }
    if (!SyncPath(from, 0)) return 0;
    if (!Move(from, to)) {
        QKSetLastErrorFromErrno();
        return 0;
    }
    if (!SyncParent(to)) return 0;
    std::string fromParent = ParentOf(from);
    if (fromParent != ParentOf(to) && !SyncPath(fromParent.c_str(), O_DIRECTORY)) return 0;
    errno = saved;
    return 1;
}

}  // extern "C"
