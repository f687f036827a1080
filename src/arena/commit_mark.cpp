// Commit marks of a repository: parameter 99 ('c') of the status file in its
// directory, 1 while marked. The other lines of the status stay as they are.
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "qk/arena.h"
#include "qk/frame.h"
#include "qk/memory.h"

namespace {

constexpr int kCommitParameter = 99;

// The user data lines are kept as text and written back unchanged.
void *KeepLine(const char *line, Int, void *) {
    return Strdup(line);
}

int PrintLine(FILE *file, void *item, void *) {
    return fputs(static_cast<const char *>(item), file) >= 0;
}

void FreeLines(Status *status) {
    for (UInt i = 0; i < status->dataCount; i++) UnAllocate(status->data[i]);
    status->dataCount = 0;
}

bool ReadStatus(const char *dir, Status *status) {
    memset(status, 0, sizeof *status);
    if (StatusRead(dir, STATUS_NO_SERIAL, status, 1, KeepLine, nullptr)) return true;
    FreeLines(status);
    return false;
}

int SetMark(const char *dir, ULong value) {
    auto *status = AllocateZero(Status);
    if (!ReadStatus(dir, status)) {
        QKErrorRethrow("repository : could not read status in dir: \"%s\"", dir);
        UnAllocate(status);
        return 0;
    }
    StatusSetParameter(status, kCommitParameter, value);
    int savedErrno = errno;
    if (!StatusWrite(status, PrintLine, nullptr)) {
        // Reported only: the mark is the caller's hint, not its data.
        QKMessageSys(3, ":cannot save status file in directory \"%s\"", dir);
        errno = savedErrno;
    }
    FreeLines(status);
    UnAllocate(status);
    return 1;
}

}  // namespace

extern "C" {

QK_API int CommitMark(const char *dir) {
    return SetMark(dir, 1);
}

QK_API int CommitUnMark(const char *dir) {
    return SetMark(dir, 0);
}

QK_API int CommitMarked(const char *dir) {
    auto *status = AllocateZero(Status);
    int marked = 0;
    if (ReadStatus(dir, status)) {
        marked = StatusGetParameter(status, kCommitParameter) == 1;
    } else {
        QKMessageSys(3, "repository : could not read status in dir: \"%s\"", dir);
    }
    FreeLines(status);
    UnAllocate(status);
    return marked;
}

}  // extern "C"
