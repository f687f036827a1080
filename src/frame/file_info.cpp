// What a path's attributes tell, stream positions and unique temporary
// names. A name that starts with '.' carries the hidden attribute here.
#include <string.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>

#include "frame/file_internal.h"
#include "qk/frame.h"

namespace {

// stat() of a checked path; errno as the call left it.
bool Stat(const char *path, struct stat *st) {
    qk::FilePath checked;
    if (!checked.Set(nullptr, path)) return false;
    if (stat(checked.Get(), st) == 0) return true;
    QKSetLastErrorFromErrno();
    return false;
}

// The same for the yes-or-no questions, which leave errno alone.
bool StatQuietly(const char *path, struct stat *st) {
    int saved = errno;
    int lastError = QKGetLastError();
    bool ok = Stat(path, st);
    QKSetLastError(lastError);
    errno = saved;
    return ok;
}

// The last component of `path`, trailing '/' left out.
bool NameStartsWithDot(const char *path) {
    size_t end = strlen(path);
    while (end > 1 && path[end - 1] == '/') end--;
    size_t start = end;
    while (start > 0 && path[start - 1] != '/') start--;
    size_t length = end - start;
    if (length == 0 || path[start] != '.') return false;
    if (length == 1 || (length == 2 && path[start + 1] == '.')) return false;
    return true;
}

constexpr char kNameChars[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
constexpr int kNameTries = 1000;

// Six bytes of randomness: from the system, or from a counter mixed with the
// time and the process when the system has none to give.
void RandomBytes(UByte bytes[6]) {
    if (getrandom(bytes, 6, GRND_NONBLOCK) == 6) return;
    static std::atomic<ULong> counter{0};
    ULong x = counter.fetch_add(0x9E3779B97F4A7C15ull) ^ ((ULong)getpid() << 32) ^
              (ULong)(uintptr_t)bytes ^ (ULong)time(nullptr);
    x ^= x >> 31;
    x *= 0xBF58476D1CE4E5B9ull;
    x ^= x >> 29;
    for (int i = 0; i < 6; i++) bytes[i] = (UByte)(x >> (8 * i));
}

}  // namespace

extern "C" {

QK_API ULong FileSize(const char *path) {
    struct stat st;
    if (!Stat(path, &st)) return ~(ULong)0;
    return (ULong)st.st_size;
}

QK_API Long FileLastModified(const char *path) {
    struct stat st;
    if (!Stat(path, &st)) return -1;
    return (Long)st.st_mtime;
}

QK_API int FileIsDirectory(const char *path) {
    struct stat st;
    return StatQuietly(path, &st) && S_ISDIR(st.st_mode) ? 1 : 0;
}

QK_API int FileExists(const char *path) {
    struct stat st;
    return StatQuietly(path, &st) ? 1 : 0;
}

QK_API int FileIsHidden(const char *path) {
    struct stat st;
    if (!StatQuietly(path, &st)) return 1;
    return NameStartsWithDot(path) ? 1 : 0;
}

QK_API int FileGetPos(FILE *stream, ULong *position) {
    off_t at = ftello(stream);
    if (at < 0) {
        QKSetLastErrorFromErrno();
        return 0;
    }
    *position = (ULong)at;
    return 1;
}

QK_API char *CreateTemporaryFileName(char *name) {
    size_t length = strlen(name);
    memcpy(name + length, "XXXXXX", 7);
    char *tail = name + length;
    int saved = errno;
    for (int attempt = 0; attempt < kNameTries; attempt++) {
        UByte bytes[6];
        RandomBytes(bytes);
        for (int i = 0; i < 6; i++) tail[i] = kNameChars[bytes[i] % (sizeof kNameChars - 1)];
        struct stat st;
        if (lstat(name, &st) != 0 && errno == ENOENT) {
            errno = saved;
            return name;
        }
    }
    errno = EEXIST;
    return nullptr;
}

}  // extern "C"
