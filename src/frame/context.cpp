// Per-thread message contexts: creation on first need, the thread's name,
// reference time and declared state, and deletion at the thread's end.
#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <trio.h>

#include "frame/internal.h"

namespace {

thread_local MessageContext *currentContext = nullptr;

// A thread that the library did not start and that never calls
// ThreadCleanup still gets its context freed when it ends.
struct ContextReaper {
    ~ContextReaper() {
        if (currentContext) {
            MessageContextDelete(currentContext);
            currentContext = nullptr;
        }
    }
};
thread_local ContextReaper reaper;

const char emptyString[] = "";

MessageContext *MessageContextNew() {
    auto *context = static_cast<MessageContext *>(calloc(1, sizeof(MessageContext)));
    if (context == nullptr) {
        perror("MessageContextNew: out of memory");
        qk::CallAbortHook("MessageContextNew: out of memory", __FILE__, __LINE__);
        exit(1);
    }
    context->state.stateFile = emptyString;
    trio_snprintf(context->name, sizeof context->name, "%I64u", (unsigned long long)ThreadId());
    context->refTime = qk::NowMillis1970();
    return context;
}

void FreeRecordList(ErrorContext *record) {
    while (record) {
        ErrorContext *next = record->next;
        free(record);
        record = next;
    }
}

}  // namespace

namespace qk {

MessageContext *GetContext(bool create) {
    MessageContext *context = currentContext;
    if (context == nullptr && create) {
        int savedErrno = errno;
        int savedLastError = QKGetLastError();
        context = MessageContextNew();
        currentContext = context;
        (void)&reaper;  // makes the reaper live for this thread
        QKSetLastError(savedLastError);
        errno = savedErrno;
    }
    return context;
}

}  // namespace qk

extern "C" {

QK_API void MessageContextDelete(MessageContext *context) {
    if (context == nullptr) return;
    if (context->error) qkassert(context->error->next == NULL);
    free(context->error);
    FreeRecordList(context->saved);
    FreeRecordList(context->spare);
    ArrayFree(context->state.text);
    if (context == currentContext) currentContext = nullptr;
    free(context);
}

QK_API void MessageContextDeleteCurrent(void) {
    MessageContextDelete(currentContext);
}

QK_API void ThreadSetName(const char *name) {
    MessageContext *context = qk::GetContext(true);
    if (name == nullptr) name = "";
    size_t length = strnlen(name, QK_THREAD_NAME_SIZE - 1);
    memcpy(context->name, name, length);
    context->name[length] = '\0';
    // The kernel keeps 15 bytes of a thread's name.
    char shortName[16];
    size_t shortLength = length < 15 ? length : 15;
    memcpy(shortName, name, shortLength);
    shortName[shortLength] = '\0';
    pthread_setname_np(pthread_self(), shortName);
}

QK_API const char *ThreadGetName(void) {
    return qk::GetContext(true)->name;
}

QK_API void ThreadSetRefTime(ULong milliseconds) {
    qk::GetContext(true)->refTime = milliseconds;
}

QK_API ULong ThreadGetRefTime(void) {
    return qk::GetContext(true)->refTime;
}

QK_API void QKSetMessageState_(const char *file, int line) {
    MessageContext *context = qk::GetContext(true);
    context->state.stateFile = file ? file : emptyString;
    context->state.stateLine = line;
    context->state.stateTime = qk::NowMicros1601();
}

QK_API void QKState_(const char *format, ...) {
    MessageContext *context = qk::GetContext(true);
    ByteArray &text = context->state.text;
    if (format == nullptr) {
        text.length = 0;
        if (text.data) text.data[0] = '\0';
        context->state.stateTime = 0;
        return;
    }
    ArrayEnsure(text, 258);
    va_list args;
    va_start(args, format);
    trio_vsnprintf(context->buffer, QK_MESSAGE_SIZE, format, args);
    va_end(args);
    size_t length = strlen(context->buffer);
    ArrayEnsure(text, length + 1);
    memcpy(text.data, context->buffer, length + 1);
    text.length = (UInt)length;
}

QK_API const MessageState *QKGetState(void) {
    MessageContext *context = qk::GetContext(false);
    if (context == nullptr || context->state.stateTime == 0) return nullptr;
    return &context->state;
}

}  // extern "C"
