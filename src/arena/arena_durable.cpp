// Durable markers and directory syncs of the commit.
#include "arena/arena_durable.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <initializer_list>

#include "qk/file.h"

namespace qk::arena {
namespace {

// Removes `dir`/`name`.new and .old when `dir`/`name` stands.
void RemoveBeside(const char *dir, const char *name) {
    char path[kPathSize];
    if (!FormatPath(path, "%s/%s", dir, name) || !FileExists(path)) return;
    for (const char *suffix : {"new", "old"}) {
        if (FormatPath(path, "%s/%s.%s", dir, name, suffix) && FileExists(path)) unlink(path);
    }
}

}  // namespace

bool DirectorySync(const char *dir) {
    int fd = open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        QKSetLastErrorFromErrno();
        QKErrorRethrow("cannot sync directory \"%s\"", dir);
        return false;
    }
    if (fsync(fd) != 0) {
        QKSetLastErrorFromErrno();
        QKErrorRethrow("cannot sync directory \"%s\"", dir);
        QKErrorSave();
        close(fd);
        QKErrorRestore();
        return false;
    }
    close(fd);
    return true;
}

bool VMArenaSyncDirectories(VMArena *arena) {
    char block[kPathSize];
    return FormatPath(block, "%s/block", arena->dir) && DirectorySync(block) &&
           DirectorySync(arena->dir);
}

bool VMArenaMarkCommitting(VMArena *arena) {
    char path[kPathSize];
    if (!FormatPath(path, "%s/committing", arena->dir)) return false;
    int fd = open(path, O_CREAT | O_RDWR | O_CLOEXEC, 0600);
    if (fd < 0) {
        QKSetLastErrorFromErrno();
        QKErrorRethrow("cannot create file \"%s\"", path);
        return false;
    }
    close(fd);
    return DirectorySync(arena->dir);
}

bool VMArenaUnmarkCommitting(VMArena *arena) {
    char path[kPathSize];
    if (!FormatPath(path, "%s/committing", arena->dir)) return false;
    if (unlink(path) != 0) {
        QKSetLastErrorFromErrno();
        QKErrorRethrow("cannot remove file \"%s\"", path);
        return false;
    }
    return DirectorySync(arena->dir);
}

void VMArenaRemoveLeftovers(VMArena *arena) {
    if (arena->readOnly || arena->serialNew != STATUS_NO_SERIAL ||
        arena->serialOld != STATUS_NO_SERIAL)
        return;
    int savedErrno = errno;
    int savedLast = QKGetLastError();
    RemoveBeside(arena->dir, "arena.new");
    RemoveBeside(arena->dir, "arena.old");
    for (UInt i = 0; i < ArrayLength(arena->server.buckets); i++) {
        LocalBlockServer0 *s = ArrayNth(arena->server.buckets, i);
        char name[kPathSize];
        for (const char *which : {"new", "old"}) {
            if (FormatPath(name, "index%s.%s", s->suffix, which)) RemoveBeside(s->dir, name);
        }
    }
    QKSetLastError(savedLast);
    errno = savedErrno;
}

}  // namespace qk::arena
