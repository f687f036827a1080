// Publishing a file by renames: `name.new` takes the place of `name`, which
// waits as `name.old` until the new one stands. Each rename is synced with
// its directory, so at every moment after a crash one of the three names
// holds a whole file, and FileAtomicRecover finds it.
#include <errno.h>
#include <stdio.h>
#include <unistd.h>

#include "arena/arena_path.h"
#include "arena/file_atomic.h"
#include "qk/arena.h"
#include "qk/file.h"
#include "qk/frame.h"

using qk::arena::FormatPath;
using qk::arena::kPathSize;

namespace {

struct Names {
    char current[kPathSize];
    char next[kPathSize];
    char previous[kPathSize];
};

bool MakeNames(Names *names, const char *dir, const char *name) {
    return FormatPath(names->current, "%s/%s", dir, name) &&
           FormatPath(names->next, "%s/%s.new", dir, name) &&
           FormatPath(names->previous, "%s/%s.old", dir, name);
}

}  // namespace

namespace qk::arena {

bool FileAtomicSwap(const char *dir, const char *name) {
    Names names;
    if (!MakeNames(&names, dir, name)) return false;
    int saved = errno;
    if (rename(names.current, names.previous) != 0 && errno != ENOENT) {
        QKSetLastErrorFromErrno();
        return false;
    }
    if (rename(names.next, names.current) != 0) {
        QKSetLastErrorFromErrno();
        return false;
    }
    unlink(names.previous);
    errno = saved;
    return true;
}

}  // namespace qk::arena

extern "C" {

QK_API int FileAtomicCommit(const char *dir, const char *name) {
    Names names;
    if (!MakeNames(&names, dir, name)) return 0;
    if (!FileRename(names.next, names.current, names.previous)) return 0;
    int saved = errno;
    unlink(names.previous);
    errno = saved;
    return 1;
}

QK_API int FileAtomicRecover(const char *dir, const char *name) {
    Names names;
    int saved = errno;
    int last = QKGetLastError();
    if (MakeNames(&names, dir, name)) {
        if (!FileExists(names.current) && FileExists(names.next))
            FileRename(names.next, names.current, nullptr);
        if (!FileExists(names.current) && FileExists(names.previous))
            FileRename(names.previous, names.current, nullptr);
    }
    QKSetLastError(last);
    errno = saved;
    return 1;
}

}  // extern "C"
