// Library start-up, version and system identification, and the hooks that
// end the process: assertions, the abort hook and the exit hook.
#include <errno.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/utsname.h>
#include <time.h>
#include <trio.h>
#include <unistd.h>

#include <atomic>

#include "frame/internal.h"

#ifndef QK_VERSION_BRANCH_NAME
#define QK_VERSION_BRANCH_NAME ""
#endif

namespace {

constexpr Int kVersionMajor = 4;
constexpr Int kVersionMinor = 5;
constexpr Int kVersionBuild = 68;
constexpr Int kVersionBranchBuild = 23;
constexpr size_t kProgramNameMax = 260;

std::atomic<int> libState{0};  // 0 not started, 1 starting, 2 started
bool embedded = false;
time_t startTime = 0;

Mutex programNameMutex = MUTEX_INITIALIZER;
char programName[kProgramNameMax + 1] = "qklib";

char versionString[64];
UInt kernelMajor = 0;
UInt kernelMinor = 0;
char kernelString[256];
char hostName[256] = "localhost";

void NoAbortHook(const char *, const char *, int) {}
QKAbortHook abortHook = NoAbortHook;
QKExitHook exitHook = exit;

void FormatVersion() {
    const char *branch = QKVersionBranch();
    if (branch) {
        trio_snprintf(versionString, sizeof versionString, "%d.%d.%d.%d", kVersionMajor,
                      kVersionMinor, kVersionBuild, kVersionBranchBuild);
    } else {
        trio_snprintf(versionString, sizeof versionString, "%d.%d.%d", kVersionMajor, kVersionMinor,
                      kVersionBuild);
    }
}

// Kernel numbers from the release string "major.minor.patch-...".
void ReadKernelVersion() {
    struct utsname name;
    if (uname(&name) != 0) {
        QKFatalSys(":unable to get operating system version information");
    }
    unsigned major = 0, minor = 0, patch = 0;
    sscanf(name.release, "%u.%u.%u", &major, &minor, &patch);
    kernelMajor = major;
    kernelMinor = minor;
    trio_snprintf(kernelString, sizeof kernelString, "%s %s (build %u)", name.sysname, name.release,
                  patch);
}

void ReadHostName() {
    char name[sizeof hostName];
    if (gethostname(name, sizeof name) == 0 && name[0]) {
        name[sizeof name - 1] = '\0';
        memcpy(hostName, name, sizeof name);
    } else {
        strcpy(hostName, "localhost");
    }
}

void StartUp() {
    QKSetGlobalExceptionHandler(nullptr);
    if (!embedded) qk::CrashInstallFilter();
    QKRunProtectedSetPath(".");
    tzset();
    startTime = time(nullptr);
    qk::GetContext(true);
    PageSize();
    FormatVersion();
    ReadKernelVersion();
    FingerprintInit();
    VMapInit();
    ReadHostName();
    QKTCPInit();
    // Streams carry bytes unchanged on this system; there is no text mode to leave.
    if (!SSLInit()) fputs("warning: could not initialize SSL\n", stderr);
}

// The base name of `name`: each '/' or '\\' restarts the copy.
void SetProgramName(const char *name) {
    MutexLock(&programNameMutex);
    size_t position = 0;
    for (const char *p = name; *p && position < kProgramNameMax; p++) {
        if (*p == '/' || *p == '\\') {
            position = 0;
        } else {
            programName[position++] = *p;
        }
    }
    programName[position] = '\0';
    MutexUnlock(&programNameMutex);
}

}  // namespace

namespace qk {

bool LibEmbedded() {
    return embedded;
}

void CallAbortHook(const char *expression, const char *file, int line) {
    abortHook(expression, file, line);
}

}  // namespace qk

extern "C" {

QK_API void QKLibInit(const char *name) {
    int expected = 0;
    if (libState.compare_exchange_strong(expected, 1)) {
        StartUp();
        libState.store(2);
    } else {
        while (expected == 1) {
            sched_yield();
            expected = libState.load();
        }
        int cur = expected;
        qkassert(cur == 2);
    }
    if (name) SetProgramName(name);
}

QK_API void QKLibSetEmbedded(void) {
    embedded = true;
}

QK_API const char *QKProgramName(void) {
    return programName;
}

QK_API Int QKVersionMajor(void) {
    return kVersionMajor;
}
QK_API Int QKVersionMinor(void) {
    return kVersionMinor;
}
QK_API Int QKVersionBuild(void) {
    return kVersionBuild;
}
QK_API Int QKVersionBranchBuild(void) {
    return kVersionBranchBuild;
}

QK_API const char *QKVersionBranch(void) {
    static const char branch[] = QK_VERSION_BRANCH_NAME;
    return branch[0] ? branch : nullptr;
}

QK_API const char *QKVersionString(void) {
    if (versionString[0] == '\0') FormatVersion();
    return versionString;
}

QK_API const char *QKArchitecture(void) {
#if defined(__x86_64__)
    return "x86_64-linux";
#elif defined(__aarch64__)
    return "aarch64-linux";
#elif defined(__i386__)
    return "i386-linux";
#else
    return "unknown-linux";
#endif
}

QK_API UInt KernelVersionMajor(void) {
    return kernelMajor;
}
QK_API UInt KernelVersionMinor(void) {
    return kernelMinor;
}
QK_API const char *KernelVersionString(void) {
    return kernelString;
}
QK_API const char *HostName(void) {
    return hostName;
}

QK_API Long GetProcessUptime(void) {
    return (Long)(time(nullptr) - startTime);
}

QK_API void qkassert_(const char *expression, const char *file, int line) {
    FILE *stream = QKGetMessageStream(1);
    trio_fprintf(stream, "'%s' failed at %s:%d\n", expression, file, line);
    fflush(stream);
    abortHook(expression, file, line);
    abort();
}

QK_API void QKSetAbort(QKAbortHook hook) {
    abortHook = hook;
}

QK_API void QKSetExit(QKExitHook hook) {
    exitHook = hook;
}

QK_API void QKExit(int status) {
    exitHook(status);
}

}  // extern "C"
