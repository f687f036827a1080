// Status records: parameters by letter, user data, and the file names.
#include <trio.h>

#include "log/status_internal.h"

namespace {

// The table slot of a parameter name, or none for a name that is no letter.
ULong *Slot(Status *status, int name) {
    if (name >= 'a' && name <= 'z') return &status->lower[name - 'a'];
    if (name >= 'A' && name <= 'Z') return &status->upper[name - 'A'];
    return nullptr;
}

}  // namespace

namespace qk::status {

void MakePath(char *buffer, const char *dir, const char *name, ULong serial) {
    if (serial == STATUS_NO_SERIAL) {
        trio_snprintf(buffer, STATUS_PATH_SIZE, "%s/%s", dir, name);
    } else {
        trio_snprintf(buffer, STATUS_PATH_SIZE, "%s/%s.%I64u", dir, name, serial);
    }
}

void ThrowFormat(const char *format, Int line) {
    QKErrorThrow(QK_ERR_FAILURE, QK_DOMAIN_GENERAL, format, line);
}

}  // namespace qk::status

extern "C" {

QK_API ULong StatusGetParameter(const Status *status, int name) {
    ULong *slot = Slot(const_cast<Status *>(status), name);
    return slot ? *slot : 0;
}

QK_API void StatusSetParameter(Status *status, int name, ULong value) {
    ULong *slot = Slot(status, name);
    if (slot == nullptr) qkassert_("FALSE", __FILE__, __LINE__);
    *slot = value;
}

QK_API int StatusAddData(Status *status, void *item) {
    if (status->dataCount >= STATUS_MAX_DATA) {
        QKErrorThrow(QK_ERR_FAILURE, QK_DOMAIN_GENERAL, "too many user data fields");
        return 0;
    }
    status->data[status->dataCount++] = item;
    return 1;
}

}  // extern "C"
