// Directories: making them with their parents, walking their entries, and
// emptying them.
//
// Only '/' separates components here: a backslash is an ordinary character
// in a name on this system. The root that is never made is the leading run
// of '/'.
#include <dirent.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "frame/file_internal.h"

namespace {

// Makes one level: success when the directory was made, or when the name
// now stands as a directory. Otherwise mkdir's errno stands.
bool MakeOne(const char *path) {
    if (mkdir(path, 0777) == 0) return true;
    int error = errno;
    struct stat st;
    if (stat(path, &st) == 0 && S_ISDIR(st.st_mode)) return true;
    errno = error;
    return false;
}

int CreatePath(char *path, UInt length, int recursive) {
    int saved = errno;
    UInt root = 0;
    while (root < length && path[root] == '/') root++;
    while (length > root && path[length - 1] == '/') path[--length] = 0;
    if (recursive) {
        for (UInt i = root + 1; i < length; i++) {
            if (path[i] != '/' || path[i - 1] == '/') continue;
            path[i] = 0;
            MakeOne(path);
            path[i] = '/';
        }
    }
    if (!MakeOne(path)) return 0;
    errno = saved;
    return 1;
}

// `directory` joined to `name`, with one '/' between them.
std::string JoinName(const char *directory, size_t length, const char *name) {
    std::string joined(directory, length);
    if (length == 0 || directory[length - 1] != '/') joined += '/';
    joined += name;
    return joined;
}

// Walks the entries of the checked path `directory`, "." and ".." left out;
// `visit(name)` returns false to end the walk. 1 when the walk is complete,
// 0 when it was ended or the directory cannot be read (errno -1).
template <typename Visit>
int Walk(const char *directory, Visit visit) {
    DIR *dir = opendir(directory);
    if (dir == nullptr) {
        QKSetLastErrorFromErrno();
        return 0;
    }
    int saved = errno;
    for (;;) {
        errno = 0;
        struct dirent *entry = readdir(dir);
        if (entry == nullptr) break;
        const char *name = entry->d_name;
        if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0) continue;
        errno = saved;
        if (!visit(name)) {
            closedir(dir);
            return 0;
        }
        saved = errno;
    }
    if (errno != 0) {
        QKSetLastErrorFromErrno();
        closedir(dir);
        errno = -1;
        return 0;
    }
    closedir(dir);
    errno = saved;
    return 1;
}

int Enumerate(const char *directory, bool relative, DirectoryCallback callback, void *argument) {
    qk::FilePath path;
    if (!path.Set(nullptr, directory)) return 0;
    return Walk(path.Get(), [&](const char *name) {
        if (relative) return callback(name, argument) != 0;
        std::string joined = JoinName(path.Get(), path.Length(), name);
        return callback(joined.c_str(), argument) != 0;
    });
}

int EnumerateUCS2(const UShort *directory, UInt directoryLength, bool relative,
                  DirectoryCallbackUCS2 callback, void *argument) {
    qk::FilePath path;
    if (!path.SetUCS2(nullptr, 0, directory, directoryLength)) return 0;
    UShortArray units{};
    int result = Walk(path.Get(), [&](const char *name) {
        units.length = 0;
        if (relative) {
            qk::AppendUTF8AsUCS2(&units, name, strlen(name));
        } else {
            std::string joined = JoinName(path.Get(), path.Length(), name);
            qk::AppendUTF8AsUCS2(&units, joined.data(), joined.size());
        }
        return callback(units.data, units.length, argument) != 0;
    });
    ArrayFree(units);
    return result;
}

// Removes everything below `directory`; returns the errno of the first
// failure, 0 when all went.
int RemoveBelow(const std::string &directory) {
    int firstError = 0;
    auto failed = [&](const std::string &path) {
        int error = errno;
        QKMessage(1, "Unlink failed %s %s", path.c_str(), strerror(error));
        if (firstError == 0) firstError = error;
    };
    int walked = Walk(directory.c_str(), [&](const char *name) {
        std::string path = JoinName(directory.data(), directory.size(), name);
        struct stat st;
        if (lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
            int error = RemoveBelow(path);
            if (error != 0 && firstError == 0) firstError = error;
            if (rmdir(path.c_str()) != 0) failed(path);
        } else if (unlink(path.c_str()) != 0) {
            failed(path);
        }
        return true;
    });
    if (!walked && firstError == 0) firstError = QKGetLastError();
    return firstError;
}

}  // namespace

extern "C" {

QK_API int DirectoryCreate(const char *directory, const char *name, int recursive) {
    qk::FilePath path;
    if (directory != nullptr && directory[0] == '\0') directory = ".";
    if (!path.Set(directory, name)) return 0;
    return CreatePath(path.Data(), path.Length(), recursive);
}

QK_API int DirectoryCreateUCS2(const UShort *directory, UInt directoryLength, const UShort *name,
                               UInt nameLength, int recursive) {
    static const UShort kDot[] = {'.'};
    qk::FilePath path;
    if (directory != nullptr && directoryLength == 0) {
        directory = kDot;
        directoryLength = 1;
    }
    if (!path.SetUCS2(directory, directoryLength, name, nameLength)) return 0;
    return CreatePath(path.Data(), path.Length(), recursive);
}

QK_API int DirectoryEnumerate(const char *directory, DirectoryCallback callback, void *argument) {
    return Enumerate(directory, false, callback, argument);
}

QK_API int DirectoryEnumerateUCS2(const UShort *directory, UInt directoryLength,
                                  DirectoryCallbackUCS2 callback, void *argument) {
    return EnumerateUCS2(directory, directoryLength, false, callback, argument);
}

QK_API int DirectoryEnumerateRelative(const char *directory, DirectoryCallback callback,
                                      void *argument) {
    return Enumerate(directory, true, callback, argument);
}

QK_API int DirectoryEnumerateRelativeUCS2(const UShort *directory, UInt directoryLength,
                                          DirectoryCallbackUCS2 callback, void *argument) {
    return EnumerateUCS2(directory, directoryLength, true, callback, argument);
}

QK_API int DirectoryRemoveFiles(const char *directory) {
    qk::FilePath path;
    if (!path.Set(nullptr, directory)) return 0;
    int saved = errno;
    int firstError = 0;
    int walked = Walk(path.Get(), [&](const char *name) {
        std::string file = JoinName(path.Get(), path.Length(), name);
        if (unlink(file.c_str()) != 0 && firstError == 0) firstError = errno;
        return true;
    });
    if (!walked) return 0;
    if (firstError != 0) {
        errno = firstError;
        return 0;
    }
    errno = saved;
    return 1;
}

QK_API int DirectoryRemoveContents(const char *directory) {
    qk::FilePath path;
    if (!path.Set(nullptr, directory)) return 0;
    int saved = errno;
    int error = RemoveBelow(std::string(path.Get(), path.Length()));
    if (error != 0) {
        errno = error;
        return 0;
    }
    errno = saved;
    return 1;
}

}  // extern "C"
