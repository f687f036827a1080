// The process-wide state of all servers: the number of requests in progress
// and the `exiting` flag of a clean exit, under one static mutex, with the
// condition on which a clean exit waits for the requests to finish.
#include "server/server_internal.h"

namespace {

Mutex stateLock = MUTEX_INITIALIZER;
Condition idle = CONDITION_INITIALIZER;
UInt active = 0;
int exiting = 0;

}  // namespace

namespace qk::server {

void ActiveEnter(UInt *count, bool *isExiting) {
    MutexLock(&stateLock);
    active++;
    qkassert(active > 0);
    *count = active;
    *isExiting = exiting != 0;
    MutexUnlock(&stateLock);
}

void ActiveLeave() {
    MutexLock(&stateLock);
    qkassert(active > 0);
    if (--active == 0) ConditionBroadcast(&idle);
    MutexUnlock(&stateLock);
}

bool BeginExit() {
    MutexLock(&stateLock);
    bool first = !exiting;
    exiting = 1;
    MutexUnlock(&stateLock);
    return first;
}

void WaitForIdle() {
    MutexLock(&stateLock);
    while (active > 0) ConditionWait(&idle, &stateLock);
    MutexUnlock(&stateLock);
}

}  // namespace qk::server

extern "C" {

QK_API int QKServerExiting(void) {
    MutexLock(&stateLock);
    int result = exiting;
    MutexUnlock(&stateLock);
    return result;
}

}  // extern "C"
