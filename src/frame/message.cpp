// Messages: the context that says where the next message comes from, the
// handler that delivers it, and the default handler's line format.
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <trio.h>

#include "frame/internal.h"

namespace {

void DefaultMessageHandler(const char *file, int line, int level, int showError, const char *format,
                           va_list args);

QKMessageHandler messageHandler = DefaultMessageHandler;
FILE *messageStreams[2] = {nullptr, nullptr};
Mutex defaultHandlerMutex = MUTEX_INITIALIZER;

const char *BaseName(const char *path) {
    if (path == nullptr) return "";
    const char *base = path;
    for (const char *p = path; *p; p++) {
        if (*p == '/' || *p == '\\') base = p + 1;
    }
    return base;
}

void DefaultMessageHandler(const char *file, int line, int level, int showError, const char *format,
                           va_list args) {
    if (showError) QKErrorMessage();
    MutexLock(&defaultHandlerMutex);
    FILE *stream = QKGetMessageStream(level < 3 ? 0 : 1);
    if (level == 2) {
        time_t now = time(nullptr);
        struct tm local;
        if (localtime_r(&now, &local)) {
            char stamp[64];
            trio_snprintf(stamp, sizeof stamp, "%04u/%02u/%02u-%02u:%02u:%02u",
                          (unsigned)local.tm_year + 1900, (unsigned)local.tm_mon + 1,
                          (unsigned)local.tm_mday, (unsigned)local.tm_hour, (unsigned)local.tm_min,
                          (unsigned)local.tm_sec);
            trio_fprintf(stream, "[%s] ", stamp);
        }
    } else if (level >= 3) {
        trio_fprintf(stream, "%s: ", QKProgramName());
        if (format[0] != ':') {
            trio_fprintf(stream, "\"%s:%d\": ", BaseName(file), line);
        } else {
            format++;
        }
    }
    trio_vfprintf(stream, format, args);
    if (showError) {
        int savedErrno = errno;
        trio_fprintf(stream, ": %s", QKErrorMessage());
        errno = savedErrno;
    }
    fputs("\r\n", stream);
    fflush(stream);
    MutexUnlock(&defaultHandlerMutex);
}

}  // namespace

extern "C" {

QK_API MessageContext *QKSetMessageContext_(const char *file, int line, int level, int showError) {
    MessageContext *context = qk::GetContext(true);
    context->file = file;
    context->line = line;
    context->level = level;
    context->showError = showError;
    return context;
}

QK_API void QKVMessage_(const char *format, va_list args) {
    MessageContext *context = qk::GetContext(true);
    int level = context->level;
    messageHandler(context->file, context->line, level, context->showError, format, args);
    if (level >= 4) {
        qk::CallAbortHook("message handler", __FILE__, __LINE__);
        exit(1);
    }
}

QK_API void QKMessage_(const char *format, ...) {
    va_list args;
    va_start(args, format);
    QKVMessage_(format, args);
    va_end(args);
}

QK_API void QKSetMessageHandler(QKMessageHandler handler) {
    messageHandler = handler ? handler : DefaultMessageHandler;
}

QK_API void QKSetMessageStream(int which, FILE *stream) {
    messageStreams[which ? 1 : 0] = stream;
}

QK_API FILE *QKGetMessageStream(int which) {
    FILE *stream = messageStreams[which ? 1 : 0];
    if (stream) return stream;
    return which ? stderr : stdout;
}

}  // extern "C"
