// Reading a status file: recovery of a replacement that a crash cut short,
// then a byte-by-byte parse of the whole file in four states.
#include <errno.h>
#include <string.h>

#include <initializer_list>

#include "log/status_internal.h"
#include "qk/file.h"
#include "qk/memory.h"

using namespace qk::status;

namespace {

enum class State { kLineStart, kName, kValue, kData };

// Where a value line stores its number.
struct Target {
    ULong *slot;
    bool bucket;  // a new bucket: the count grows when the line ends
};

bool IsLetter(UByte c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool Parse(Status *status, const UByte *bytes, size_t size, StatusParseFn parse, void *argument) {
    State state = State::kLineStart;
    Int line = 1;
    Target target = {nullptr, false};
    ULong value = 0;
    ByteArray text = {};
    bool ok = true;
    for (size_t i = 0; i < size && ok; i++) {
        UByte c = bytes[i];
        switch (state) {
            case State::kLineStart:
                if (IsLetter(c)) {
                    target = {c <= 'Z' ? &status->upper[c - 'A'] : &status->lower[c - 'a'], false};
                    state = State::kName;
                } else if (c == '#') {
                    if (status->bucketCount >= STATUS_MAX_BUCKETS) {
                        QKErrorThrow(QK_ERR_FAILURE, QK_DOMAIN_GENERAL, "too many buckets");
                        ok = false;
                        break;
                    }
                    target = {&status->buckets[status->bucketCount], true};
                    value = 0;
                    state = State::kValue;
                } else if (c == '@') {
                    ArrayClear(text);
                    state = State::kData;
                } else {
                    ThrowFormat("parse error line %d", line);
                    ok = false;
                }
                break;
            case State::kName:
                if (c != '=') {
                    ThrowFormat("parse error line %d", line);
                    ok = false;
                    break;
                }
                value = 0;
                state = State::kValue;
                break;
            case State::kValue:
                if (c == '\n') {
                    *target.slot = value;
                    if (target.bucket) status->bucketCount++;
                    line++;
                    state = State::kLineStart;
                } else if (c >= '0' && c <= '9' && value <= (~(ULong)0 - (c - '0')) / 10) {
                    value = value * 10 + (c - '0');
                } else {
                    ThrowFormat("invalid value line %d", line);
                    ok = false;
                }
                break;
            case State::kData:
                if (c != '\n') {
                    ArrayAdd(text, c);
                    break;
                }
                if (parse != nullptr) {
                    if (status->dataCount >= STATUS_MAX_DATA) {
                        QKErrorThrow(QK_ERR_FAILURE, QK_DOMAIN_GENERAL,
                                     "too many user data fields");
                        ok = false;
                        break;
                    }
                    ArrayAdd(text, 0);
                    void *item = parse((const char *)text.data, line, argument);
                    if (item != nullptr) status->data[status->dataCount++] = item;
                }
                line++;
                state = State::kLineStart;
                break;
        }
    }
    ArrayFree(text);
    if (ok && state != State::kLineStart) {
        ThrowFormat("parse error line %d", line);
        ok = false;
    }
    return ok;
}

// Finishes a replacement: the current name comes back from "status.new" or,
// failing that, from "status.old".
void Recover(Status *status) {
    MakePath(status->path, status->dir, kCurrent, status->serial);
    for (const char *name : {kNew, kOld}) {
        if (FileExists(status->path)) return;
        MakePath(status->tempPath, status->dir, name, status->serial);
        if (FileExists(status->tempPath)) FileRename(status->tempPath, status->path, nullptr);
    }
}

}  // namespace

extern "C" {

QK_API int StatusRead(const char *dir, ULong serial, Status *status, int create,
                      StatusParseFn parse, void *argument) {
    if (dir != status->dir) {
        size_t length = strlen(dir);
        if (length >= STATUS_DIR_SIZE) {
            QKErrorThrow(QK_ERR_INVALID, QK_DOMAIN_GENERAL, "path too long: \"%s\"", dir);
            return 0;
        }
        memcpy(status->dir, dir, length + 1);
    }
    memset(status->lower, 0, sizeof status->lower);
    memset(status->upper, 0, sizeof status->upper);
    memset(status->buckets, 0, sizeof status->buckets);
    status->bucketCount = 0;
    status->dataCount = 0;
    status->serial = serial;
    int saved = errno;
    Recover(status);
    errno = saved;

    size_t size = 0;
    int empty = 0;
    void *view = FileMapRead(nullptr, status->path, &size, &empty);
    if (view == nullptr && !empty) {
        if (create && errno == -1 && QKGetLastError() == ENOENT) {
            errno = saved;
            return 1;
        }
        return 0;
    }
    if (!Parse(status, (const UByte *)view, size, parse, argument)) {
        QKErrorSave();
        FileUnmap(view);
        QKErrorRestore();
        return 0;
    }
    FileUnmap(view);
    errno = saved;
    return 1;
}

}  // extern "C"
