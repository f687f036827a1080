// Finding the first record at or after a serial: waiting for the log to
// get there, skipping the files already deleted, then walking forwards.
#include <chrono>

#include "log/log_internal.h"

namespace qk::log {
namespace {

// Waits until the log's last serial reaches `serial`, for at most
// `milliseconds` unless 0. Under the lock.
bool WaitFor(Log *log, ULong serial, UInt milliseconds) {
    using Clock = std::chrono::steady_clock;
    Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(milliseconds);
    while (LOG_SERIAL(log->fileno, log->lastOffset) < serial) {
        if (milliseconds == 0) {
            ConditionWait(&log->newRecord, &log->lock);
            continue;
        }
        auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) {
            QKErrorThrow(QK_ERR_TIMEOUT, QK_DOMAIN_GENERAL, "timeout");
            return false;
        }
        ConditionTimedWait(&log->newRecord, &log->lock, (UInt)left);
    }
    return true;
}

}  // namespace
}  // namespace qk::log

using namespace qk::log;

extern "C" {

QK_API int LogFirstSerial(LogReadContext *context, ULong serial, ULong *found, int wait,
                          UInt milliseconds) {
    Log *log = context->log;
    MutexLock(&log->lock);
    bool ok = !wait || WaitFor(log, serial, milliseconds);
    ULong last = LOG_SERIAL(log->fileno, log->lastOffset);
    UInt number =
        SERIAL_FILENO(serial) > log->firstFileno ? SERIAL_FILENO(serial) : log->firstFileno;
    MutexUnlock(&log->lock);
    if (!ok) return 0;
    if (serial > last) {
        ThrowUnavailable(serial);
        return 0;
    }
    // The first file that still exists; those before it are gone.
    ULong at = LOG_SERIAL(number, 0), next = 0;
    while (!LogRead(context, at, nullptr, nullptr, nullptr, &next, nullptr)) {
        if (QKErrorCode() != QK_ERROR_CODE(2, QK_DOMAIN_STORE)) return 0;
        MutexLock(&log->lock);
        bool newest = number >= log->fileno;
        if (!newest && log->firstFileno <= number) log->firstFileno = number + 1;
        MutexUnlock(&log->lock);
        if (newest) return 0;
        at = LOG_SERIAL(++number, 0);
    }
    while (at < serial) {
        at = next;
        if (at < serial && !LogRead(context, at, nullptr, nullptr, nullptr, &next, nullptr))
            return 0;
    }
    *found = at;
    return 1;
}

}  // extern "C"
