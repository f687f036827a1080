// Thread variables: pthread keys, with destructors that the library runs
// itself at the end of its threads (and in ThreadCleanup), in rounds, so that
// a destructor may use other thread variables.
#include <errno.h>
#include <pthread.h>
#include <stdlib.h>

#include "frame/internal.h"

namespace {

struct Destructor {
    ThreadVar slot;
    ThreadVarDestructor destructor;
};

// Rounds over all destructors before giving up on values that keep coming back.
constexpr int kDestructorRounds = 4;

QK_ARRAY(Destructor) destructors;
Mutex destructorsMutex = MUTEX_INITIALIZER;

[[noreturn]] void ThreadVarFailed(int error, const char *text) {
    QKSetLastError(error);
    errno = -1;
    QKSetMessageContext_(__FILE__, __LINE__, 4, 1);
    QKMessage_(text);
    abort();  // a fatal message does not return
}

}  // namespace

namespace qk {

void ThreadVarRunDestructors() {
    MutexLock(&destructorsMutex);
    for (int round = 0; round < kDestructorRounds; round++) {
        bool ran = false;
        // The list may grow while it is unlocked: read it afresh each time.
        for (UInt i = 0; i < ArrayLength(destructors); i++) {
            Destructor entry = ArrayNth(destructors, i);
            void *value = pthread_getspecific(entry.slot);
            if (value == nullptr) continue;
            MutexUnlock(&destructorsMutex);
            pthread_setspecific(entry.slot, nullptr);
            entry.destructor(value);
            MutexLock(&destructorsMutex);
            ran = true;
        }
        if (!ran) break;
    }
    MutexUnlock(&destructorsMutex);
}

}  // namespace qk

extern "C" {

QK_API ThreadVar ThreadVarCreate(ThreadVarDestructor destructor) {
    pthread_key_t key;
    int error = pthread_key_create(&key, nullptr);
    if (error) ThreadVarFailed(error, "TlsAlloc failed");
    if (destructor) {
        MutexLock(&destructorsMutex);
        Destructor *entry = ArrayAddPtr(destructors);
        entry->slot = key;
        entry->destructor = destructor;
        MutexUnlock(&destructorsMutex);
    }
    return key;
}

QK_API void *ThreadVarGet(ThreadVar var) {
    return pthread_getspecific(var);
}

QK_API void ThreadVarSet(ThreadVar var, void *value) {
    int error = pthread_setspecific(var, value);
    if (error) ThreadVarFailed(error, "thread operation failed");
}

}  // extern "C"
