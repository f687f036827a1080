// The thread's error state: throwing, wrapping, reading, saving and
// restoring errors. `errno` tells where the current error lives: -2 in the
// context's record, -1 in the OS last error, otherwise a runtime errno.
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <trio.h>

#include "frame/internal.h"

namespace {

// The marker in front of a source path inside the library's tree.
const char kSourceMarker[] = "/qk/src/";

void ClearRecord(ErrorContext *record) {
    record->file = nullptr;
    record->line = 0;
    record->code = 0;
    record->domain = 0;
    record->message[0] = '\0';
    record->next = nullptr;
}

ErrorContext *ErrorContextNew() {
    auto *record = static_cast<ErrorContext *>(calloc(1, sizeof(ErrorContext)));
    if (record == nullptr) {
        perror("ErrorContextNew: out of memory");
        qk::CallAbortHook("ErrorContextNew: out of memory", __FILE__, __LINE__);
        exit(1);
    }
    return record;
}

}  // namespace

namespace qk {

ErrorContext *GetErrorRecord(MessageContext *context, bool create) {
    if (context == nullptr) {
        // The assertion's text is "! create"; keep the space.
        // clang-format off
        qkassert(! create);
        // clang-format on
        return nullptr;
    }
    if (context->error == nullptr && create) {
        ErrorContext *record = context->spare;
        if (record) {
            context->spare = record->next;
            ClearRecord(record);
        } else {
            int savedErrno = errno;
            record = ErrorContextNew();
            errno = savedErrno;
        }
        context->error = record;
    }
    return context->error;
}

}  // namespace qk

extern "C" {

QK_API void QKErrorVThrow_(Int code, Int domain, const char *format, va_list args) {
    MessageContext *context = qk::GetContext(false);
    ErrorContext *record = qk::GetErrorRecord(context, true);
    record->file = context->file;
    record->line = context->line;
    record->code = code;
    record->domain = domain;
    trio_vsnprintf(context->buffer, QK_MESSAGE_SIZE, format, args);
    memcpy(record->message, context->buffer, QK_MESSAGE_SIZE);
    errno = -2;
}

QK_API void QKErrorThrow_(Int code, Int domain, const char *format, ...) {
    va_list args;
    va_start(args, format);
    QKErrorVThrow_(code, domain, format, args);
    va_end(args);
}

QK_API void QKErrorRethrow_(const char *format, ...) {
    MessageContext *context = qk::GetContext(true);
    ErrorContext *record = qk::GetErrorRecord(context, true);
    QKErrorMessage();  // a pending errno or OS error becomes the record
    record->file = context->file;
    record->line = context->line;
    va_list args;
    va_start(args, format);
    int length = trio_vsnprintf(context->buffer, QK_MESSAGE_SIZE, format, args);
    va_end(args);
    if (length >= 0 && length < QK_MESSAGE_SIZE) {
        trio_snprintf(context->buffer + length, QK_MESSAGE_SIZE - length, ": %s", record->message);
    }
    memcpy(record->message, context->buffer, QK_MESSAGE_SIZE);
    errno = -2;
}

QK_API const char *QKErrorMessage(void) {
    MessageContext *context = qk::GetContext(true);
    ErrorContext *record = qk::GetErrorRecord(context, true);
    if (errno == -2) return record->message;
    if (errno == -1) {
        int error = QKGetLastError();
        char text[QK_MESSAGE_SIZE];
        const char *systemText = strerror_r(error, text, sizeof text);
        if (systemText == nullptr || systemText[0] == '\0') {
            trio_snprintf(record->message, QK_MESSAGE_SIZE, "(Windows error %d)", error);
        } else {
            // The text goes on one line.
            size_t i = 0;
            for (; systemText[i] && i < QK_MESSAGE_SIZE - 1; i++) {
                char c = systemText[i];
                record->message[i] = (c == '\r' || c == '\n') ? ' ' : c;
            }
            record->message[i] = '\0';
        }
        record->code = error;
        record->domain = QK_DOMAIN_OS;
    } else {
        int saved = errno;
        errno = 0;
        char text[QK_MESSAGE_SIZE];
        const char *runtimeText = strerror_r(saved, text, sizeof text);
        if (errno != 0 || runtimeText == nullptr) {
            trio_snprintf(record->message, QK_MESSAGE_SIZE, "(errno=%d)", saved);
        } else {
            trio_snprintf(record->message, QK_MESSAGE_SIZE, "%s", runtimeText);
        }
        record->code = saved;
        record->domain = QK_DOMAIN_RUNTIME;
    }
    errno = -2;
    return record->message;
}

QK_API ULong QKErrorCode(void) {
    int current = errno;
    if (current == -2 || current == -3) {
        MessageContext *context = qk::GetContext(false);
        ErrorContext *record = context ? context->error : nullptr;
        return record ? QK_ERROR_CODE(record->code, record->domain) : 0;
    }
    if (current == -1) return QK_ERROR_CODE(QKGetLastError(), QK_DOMAIN_OS);
    return QK_ERROR_CODE(current, QK_DOMAIN_RUNTIME);
}

QK_API const char *QKErrorLocation(int *line) {
    MessageContext *context = qk::GetContext(false);
    ErrorContext *record = context ? context->error : nullptr;
    if (record && record->file) {
        if (line) *line = record->line;
        const char *file = record->file;
        const char *marker = file[0] ? strstr(file + 1, kSourceMarker) : nullptr;
        return marker ? marker + sizeof kSourceMarker - 1 : file;
    }
    if (line) *line = 0;
    return "(no file)";
}

QK_API void QKErrorClear(void) {
    errno = 0;
}

QK_API void QKErrorSave(void) {
    MessageContext *context = qk::GetContext(true);
    QKErrorMessage();
    ErrorContext *record = context->error;
    record->next = context->saved;
    context->saved = record;
    context->error = nullptr;
}

QK_API void QKErrorRestore(void) {
    MessageContext *context = qk::GetContext(false);
    qkassert(context != NULL && context->saved != NULL);
    if (context->error) {
        context->error->next = context->spare;
        context->spare = context->error;
    }
    ErrorContext *record = context->saved;
    context->saved = record->next;
    record->next = nullptr;
    context->error = record;
    errno = -2;
}

}  // extern "C"
