// Private interfaces between the parts of the library frame.
#pragma once

#include "qk/qkcommon.h"

namespace qk {

// The calling thread's message context; with `create`, made on first need
// with the system allocator. Keeps the thread's last OS error unchanged.
MessageContext *GetContext(bool create);

// Time: microseconds since 1601-01-01 UTC, milliseconds since 1970-01-01 UTC.
ULong NowMicros1601();
ULong NowMillis1970();

// Crash capture (crash.cpp): the process-wide signal handlers that stand for
// the unhandled-exception filter, and the per-thread alternate signal stack
// that lets a stack overflow be reported.
void CrashInstallFilter();
void CrashThreadAttach();
void CrashThreadDetach();

// The size of the thread results table and the number of its slots in use
// (thread.cpp); exported for tests of slot reuse.
QK_API void ThreadResultsStats(UInt *length, UInt *inUse);

// Thread variables (threadvar.cpp): runs the destructors of the calling
// thread's variables, in rounds, as at the end of a thread.
void ThreadVarRunDestructors();

// True when QKLibSetEmbedded was called.
bool LibEmbedded();

// Calls the abort hook set by QKSetAbort (lib.cpp).
void CallAbortHook(const char *expression, const char *file, int line);

// The current error record of a context; with `create`, taken from the spare
// list or made. A missing context with `create` is an assertion (error.cpp).
ErrorContext *GetErrorRecord(MessageContext *context, bool create);

}  // namespace qk
