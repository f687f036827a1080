/*
 * The library frame: start-up, version, per-thread message contexts, the
 * error contract, messages, assertions, ending hooks and crash capture.
 *
 * Error contract: a function that can fail returns a value that says so; the
 * reason is then in the calling thread's error state, read with
 * QKErrorMessage and QKErrorCode. `errno` -2 means the record in the thread's
 * MessageContext, -1 the operating system's last error of the thread
 * (QKGetLastError), a positive value a runtime error.
 */
#ifndef QK_FRAME_H
#define QK_FRAME_H

#include <stdarg.h>
#include <stdio.h>

#include "qk/array.h"
#include "qk/types.h"

QK_BEGIN_DECLS

/* ---- Error domains and the library's general codes ---- */

enum {
    QK_DOMAIN_RUNTIME = 0, /* errno values */
    QK_DOMAIN_OS = 1,      /* operating system errors */
    QK_DOMAIN_GENERAL = 2, /* the library's general codes below */
    QK_DOMAIN_STORE = 3,   /* persistent store lookups */
    QK_DOMAIN_WEB = 4,     /* web document fetch */
    QK_DOMAIN_HFILE = 5,   /* file-like access to URLs */
    QK_DOMAIN_AUTH = 9     /* challenge authentication */
};

enum {
    QK_ERR_FAILURE = 0,
    QK_ERR_INVALID = 1,
    QK_ERR_TIMEOUT = 2,
    QK_ERR_FORMAT = 3,
    QK_ERR_CONNECTION = 5,
    QK_ERR_NOT_SUPPORTED = 6,
    QK_ERR_EOF = 7
};

#define QK_ERROR_CODE(code, domain) ((ULong)(UInt)(code) | ((ULong)(UInt)(domain) << 32))

/* ---- Per-thread context ---- */

#define QK_MESSAGE_SIZE 1024
#define QK_THREAD_NAME_SIZE 256

typedef struct ErrorContext {
    const char *file;
    Int line;
    Int code;
    Int domain;
    char message[QK_MESSAGE_SIZE];
    struct ErrorContext *next;
} ErrorContext;

/* The thread's last declared activity. */
typedef struct MessageState {
    ByteArray text; /* NUL-terminated */
    const char *stateFile;
    Int stateLine;
    ULong stateTime; /* microseconds since 1601-01-01 UTC; 0: no state */
} MessageState;

typedef struct MessageContext {
    ErrorContext *error;
    ErrorContext *saved;
    ErrorContext *spare;
    const char *file;
    Int line;
    Int level;
    Int showError;
    MessageState state;
    char buffer[QK_MESSAGE_SIZE];
    char name[QK_THREAD_NAME_SIZE];
    ULong refTime; /* milliseconds since 1970-01-01 UTC */
} MessageContext;

/* ---- Start and version ---- */

QK_API void QKLibInit(const char *name);
QK_API void QKLibSetEmbedded(void);
QK_API const char *QKProgramName(void);
QK_API Int QKVersionMajor(void);
QK_API Int QKVersionMinor(void);
QK_API Int QKVersionBuild(void);
QK_API Int QKVersionBranchBuild(void);
QK_API const char *QKVersionBranch(void);
QK_API const char *QKVersionString(void);
QK_API const char *QKArchitecture(void);
QK_API UInt KernelVersionMajor(void);
QK_API UInt KernelVersionMinor(void);
QK_API const char *KernelVersionString(void);
QK_API const char *HostName(void);
QK_API Long GetProcessUptime(void);

/* ---- The operating system's last error of the calling thread ---- */

QK_API int QKGetLastError(void);
QK_API void QKSetLastError(int error);
/* Records the current `errno` as the last error and sets `errno` to -1. */
QK_API void QKSetLastErrorFromErrno(void);

/* ---- Errors ---- */

QK_API MessageContext *QKSetMessageContext_(const char *file, int line, int level, int showError);
QK_API void QKErrorThrow_(Int code, Int domain, const char *format, ...);
QK_API void QKErrorVThrow_(Int code, Int domain, const char *format, va_list args);
QK_API void QKErrorRethrow_(const char *format, ...);
QK_API ULong QKErrorCode(void);
QK_API const char *QKErrorMessage(void);
QK_API const char *QKErrorLocation(int *line);
QK_API void QKErrorClear(void);
QK_API void QKErrorSave(void);
QK_API void QKErrorRestore(void);

#define QKErrorThrow(code, domain, ...) \
    (QKSetMessageContext_(__FILE__, __LINE__, 4, 0), QKErrorThrow_((code), (domain), __VA_ARGS__))
#define QKErrorRethrow(...) \
    (QKSetMessageContext_(__FILE__, __LINE__, 4, 0), QKErrorRethrow_(__VA_ARGS__))

/* ---- Messages ---- */

typedef void (*QKMessageHandler)(const char *file, int line, int level, int showError,
                                 const char *format, va_list args);

QK_API void QKMessage_(const char *format, ...);
QK_API void QKVMessage_(const char *format, va_list args);
QK_API void QKSetMessageHandler(QKMessageHandler handler);
QK_API void QKSetMessageStream(int which, FILE *stream);
QK_API FILE *QKGetMessageStream(int which);
QK_API void QKSetMessageState_(const char *file, int line);
QK_API void QKState_(const char *format, ...);
QK_API const MessageState *QKGetState(void);

/* level 0 statistics, 1 debugging, 2 progress, 3 error, 4 fatal */
#define QKMessage(level, ...) \
    (QKSetMessageContext_(__FILE__, __LINE__, (level), 0), QKMessage_(__VA_ARGS__))
/* The same, with the text of the pending error appended. */
#define QKMessageSys(level, ...) \
    (QKSetMessageContext_(__FILE__, __LINE__, (level), 1), QKMessage_(__VA_ARGS__))
#define QKError(...) QKMessage(3, __VA_ARGS__)
#define QKFatal(...) QKMessage(4, __VA_ARGS__)
/* A fatal message for the system call that just failed: its text follows. */
#define QKFatalSys(...) (QKSetLastErrorFromErrno(), QKMessageSys(4, __VA_ARGS__))
#define QKState(...) (QKSetMessageState_(__FILE__, __LINE__), QKState_(__VA_ARGS__))
#define QKStateClear() QKState_(NULL)

/* ---- Ending ---- */

typedef void (*QKAbortHook)(const char *expression, const char *file, int line);
typedef void (*QKExitHook)(int status);

QK_API QK_NORETURN void qkassert_(const char *expression, const char *file, int line);
QK_API void QKSetAbort(QKAbortHook hook);
QK_API void QKSetExit(QKExitHook hook);
QK_API void QKExit(int status);

#define qkassert(expression) ((expression) ? (void)0 : qkassert_(#expression, __FILE__, __LINE__))

/* ---- Thread context ---- */

QK_API void ThreadSetName(const char *name);
QK_API const char *ThreadGetName(void);
QK_API void ThreadSetRefTime(ULong milliseconds);
QK_API ULong ThreadGetRefTime(void);
QK_API void MessageContextDelete(MessageContext *context);
QK_API void MessageContextDeleteCurrent(void);

/* ---- Crash capture ---- */

/* Flags returned by an exception handler. */
#define QK_EXCEPTION_REPORT 0x100u      /* write the crash report */
#define QK_EXCEPTION_REPORT_FILE 0x300u /* also write it to ERRORLOG.TXT */
#define QK_EXCEPTION_HANDLED 1u         /* run the code behind the protected call */
#define QK_EXCEPTION_HANDLED_AGAIN 2u   /* the same; exactly 2 calls the handler again */
#define QK_EXCEPTION_CONTINUE 4u        /* continue at the fault */
#define QK_EXCEPTION_DEFAULT 0x301u

/* Exception codes, as reported. */
#define QK_EXCEPTION_ACCESS_VIOLATION 0xC0000005u
#define QK_EXCEPTION_IN_PAGE_ERROR 0xC0000006u
#define QK_EXCEPTION_ILLEGAL_INSTRUCTION 0xC000001Du
#define QK_EXCEPTION_NONCONTINUABLE_EXCEPTION 0xC0000025u
#define QK_EXCEPTION_INVALID_DISPOSITION 0xC0000026u
#define QK_EXCEPTION_ARRAY_BOUNDS_EXCEEDED 0xC000008Cu
#define QK_EXCEPTION_FLT_DENORMAL_OPERAND 0xC000008Du
#define QK_EXCEPTION_FLT_DIVIDE_BY_ZERO 0xC000008Eu
#define QK_EXCEPTION_FLT_INEXACT_RESULT 0xC000008Fu
#define QK_EXCEPTION_FLT_INVALID_OPERATION 0xC0000090u
#define QK_EXCEPTION_FLT_OVERFLOW 0xC0000091u
#define QK_EXCEPTION_FLT_STACK_CHECK 0xC0000092u
#define QK_EXCEPTION_FLT_UNDERFLOW 0xC0000093u
#define QK_EXCEPTION_INT_DIVIDE_BY_ZERO 0xC0000094u
#define QK_EXCEPTION_INT_OVERFLOW 0xC0000095u
#define QK_EXCEPTION_PRIV_INSTRUCTION 0xC0000096u
#define QK_EXCEPTION_STACK_OVERFLOW 0xC00000FDu
#define QK_EXCEPTION_DATATYPE_MISALIGNMENT 0x80000002u
#define QK_EXCEPTION_BREAKPOINT 0x80000003u
#define QK_EXCEPTION_SINGLE_STEP 0x80000004u

typedef UInt (*QKExceptionHandler)(UInt code, Int argument);
typedef intptr_t (*QKProtectedFunction)(void *argument);

QK_API intptr_t QKRunProtected_(QKProtectedFunction function, void *argument,
                                QKExceptionHandler handler, const char *file, int line);
QK_API void QKRunProtectedSetPath(const char *directory);
QK_API void QKSetGlobalExceptionHandler(QKExceptionHandler handler);
QK_API void QKDumpMemStats(char *buffer, size_t size);

#define QKRunProtected(function, argument, handler) \
    QKRunProtected_((function), (argument), (handler), __FILE__, __LINE__)

QK_END_DECLS

#endif /* QK_FRAME_H */
