// Crash capture, private to its files: the table of exception names and the
// report writer. Everything here runs inside a signal handler: no allocation,
// no formatter, no lock that another thread could hold for long.
#pragma once

#include <signal.h>

#include "qk/frame.h"

namespace qk {

// The name and explanation of an exception code; "UNKNOWN" for a code that
// is not in the table.
struct CrashExceptionText {
    UInt code;
    const char *name;
    const char *explanation;
};
const CrashExceptionText &CrashDescribe(UInt code);

// Builds the crash report of `code` raised at the context `ucontext` (a
// ucontext_t from the signal handler) and sends it where `flags` asks: with
// QK_EXCEPTION_REPORT to standard error and the system log, with both bits of
// QK_EXCEPTION_REPORT_FILE also to `logPath`, created anew.
void CrashReport(UInt flags, UInt code, const siginfo_t *info, const void *ucontext,
                 const char *logPath);

}  // namespace qk
