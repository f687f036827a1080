// The heap functions of the library: allocation never reports exhaustion to
// its caller, it ends the process with a fatal message instead. Also the
// process limits, heap debugging entry points and virtual mapping, which
// have no effect on this platform.
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "qk/frame.h"
#include "qk/memory.h"

namespace {

// Failures of allocations above this size report the process's memory
// counters; for a small failure there may not even be room to format them.
constexpr size_t kMemStatsThreshold = 8192;
constexpr size_t kMemStatsSize = 255;

const char kNoDebugInfo[] = "No malloc debugging info available";

}  // namespace

extern "C" {

void *Allocate_(size_t size, void *pointer, const char *file, int line) {
    if (size == 0) {
        free(pointer);
        return NULL;
    }
    void *result = realloc(pointer, size);
    if (result != NULL) return result;

    QKSetMessageContext_(file, line, 4, 1);
    char stats[kMemStatsSize];
    stats[0] = '\0';
    if (size > kMemStatsThreshold) QKDumpMemStats(stats, sizeof(stats));
    // The system's text of the failure is appended to the message.
    errno = ENOMEM;
    if (stats[0] != '\0') {
        QKMessage_("malloc failed: ptr=0x%p size=%lu, process={%s}", pointer, (unsigned long)size,
                   stats);
    } else {
        QKMessage_("malloc failed: ptr=0x%p size=%lu", pointer, (unsigned long)size);
    }
    abort();  // not reached: a fatal message ends the process
}

char *Strdup_(const char *string, const char *file, int line) {
    char *copy = strdup(string);
    if (copy != NULL) return copy;
    QKSetMessageContext_(file, line, 4, 1);
    errno = ENOMEM;
    QKMessage_("strdup failed: ptr=0x%p", (const void *)string);
    abort();  // not reached
}

void UnAllocate_(void *pointer) {
    free(pointer);
}

int QKSetProcessMaxSize(ULong) {
    return 1;
}
int QKSetProcessMaxCore(ULong) {
    return 1;
}

int DEBUG_MALLOC_CHECK(void) {
    return 1;
}
int DEBUG_MALLOC_CHECK_BLOCK(void *) {
    return 1;
}
void DEBUG_MALLOC_DUMP(void) {
    QKMessage(1, kNoDebugInfo);
}
void DEBUG_MALLOC_DUMP_SORTED(void) {
    QKMessage(1, kNoDebugInfo);
}
void DEBUG_MALLOC_DUMP_SORTED_SIZE(void) {
    QKMessage(1, kNoDebugInfo);
}
void DEBUG_MALLOC_DUMP_INFO(void) {
    QKMessage(1, kNoDebugInfo);
}
void DEBUG_MALLOC_LOCK(void) {
    QKMessage(1, kNoDebugInfo);
}
void DEBUG_MALLOC_UNLOCK(void) {
    QKMessage(1, kNoDebugInfo);
}

void *DEBUG_MALLOC_FIND_BLOCK_START(void *) {
    QKMessage(1, kNoDebugInfo);
    return NULL;
}

void VMapInit(void) {}
void VMapFree(void *) {}
void *VMapAlloc(size_t) {
    return NULL;
}
void *VMapRealloc(void *, size_t) {
    return NULL;
}

}  // extern "C"
