// Crash capture on signals: protected calls that catch a fault in the code
// they run, the process-wide handlers that report a fault nobody caught, and
// the per-thread alternate signal stacks that let a stack overflow be told.
//
// A protected call pushes a frame (jump buffer, handler, source position) on
// a per-thread stack. At a fault the signal handler asks the frames, inner
// first, what to do: jump back behind the call, continue at the fault, or
// pass the fault on. When no frame takes it, the global handler decides.
// No dump file is written: the system's core file, where it writes one,
// stands in for it.
#include <errno.h>
#include <pthread.h>
#include <setjmp.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <trio.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>

#include "frame/crash_report.h"
#include "frame/internal.h"

namespace {

struct ProtectFrame {
    sigjmp_buf jump;
    QKExceptionHandler handler;  // none: the global one
    const char *file;
    int line;
    ProtectFrame *previous;
    volatile UInt word;  // what the handler returned at the fault
};

const int crashSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP};
constexpr int kSignalCount = sizeof crashSignals / sizeof crashSignals[0];

// Read in the signal handler: initial-exec TLS needs no call into the
// dynamic loader, which may allocate.
#define QK_SIGNAL_TLS __attribute__((tls_model("initial-exec"))) thread_local

// Innermost protected call of the thread.
QK_SIGNAL_TLS ProtectFrame *currentFrame = nullptr;
// Bounds of the thread's stack and its guard size; 0 when not yet known.
QK_SIGNAL_TLS uintptr_t stackLow = 0;
QK_SIGNAL_TLS uintptr_t stackHigh = 0;
QK_SIGNAL_TLS uintptr_t stackGuard = 0;
QK_SIGNAL_TLS bool threadPrepared = false;

std::atomic<QKExceptionHandler> globalHandler{nullptr};
// Read once when the handlers are installed: sysconf is not for signal
// handlers.
uintptr_t pageSize = 4096;
// Set by CrashInstallFilter: faults that no protected call takes are then
// ours; otherwise they go to whatever handled them before us.
std::atomic<bool> filterInstalled{false};
struct sigaction previousActions[kSignalCount];

// Room for a directory of PATH_MAX bytes and the file name.
char logPath[4096 + 16] = "./ERRORLOG.TXT";
char dumpPath[4096 + 16] = "./CRASH.DMP";

// How far below the lowest stack address a fault still counts as a stack
// overflow: a frame may jump over the guard page by its own size.
constexpr uintptr_t kOverflowMargin = 256 * 1024;
// Usable size of an alternate signal stack, beyond the signal minimum: the
// handler runs the caller's exception handler and the system log there.
constexpr size_t kAltStackSize = 64 * 1024;

UInt DefaultHandler(UInt, Int) {
    return QK_EXCEPTION_DEFAULT;
}

QKExceptionHandler EffectiveHandler(QKExceptionHandler handler) {
    if (handler) return handler;
    QKExceptionHandler global = globalHandler.load(std::memory_order_acquire);
    return global ? global : DefaultHandler;
}

int SignalIndex(int sig) {
    for (int i = 0; i < kSignalCount; i++) {
        if (crashSignals[i] == sig) return i;
    }
    return -1;
}

ULong StackPointer([[maybe_unused]] const void *ucontext) {
    [[maybe_unused]] const ucontext_t *uc = static_cast<const ucontext_t *>(ucontext);
#if defined(__x86_64__)
    return (ULong)uc->uc_mcontext.gregs[REG_RSP];
#elif defined(__aarch64__)
    return (ULong)uc->uc_mcontext.sp;
#else
    return 0;
#endif
}

// A fault just below the thread's stack is the stack running out. When the
// thread's bounds are not known, a fault close to the stack pointer is taken
// for one: the stack itself is mapped, so nothing else faults there.
bool IsStackOverflow(uintptr_t address, const void *ucontext) {
    const uintptr_t page = pageSize;
    if (stackHigh != 0) {
        uintptr_t margin = stackGuard > kOverflowMargin ? stackGuard : kOverflowMargin;
        uintptr_t bottom = stackLow > margin ? stackLow - margin : 0;
        return address >= bottom && address < stackLow + page;
    }
    uintptr_t sp = (uintptr_t)StackPointer(ucontext);
    if (sp == 0) return false;
    uintptr_t distance = address > sp ? address - sp : sp - address;
    return distance < kOverflowMargin;
}

// The exception that a signal stands for.
UInt ExceptionCode(int sig, const siginfo_t *info, const void *ucontext) {
    switch (sig) {
        case SIGSEGV:
            return IsStackOverflow((uintptr_t)info->si_addr, ucontext)
                       ? QK_EXCEPTION_STACK_OVERFLOW
                       : QK_EXCEPTION_ACCESS_VIOLATION;
        case SIGBUS:
            return info->si_code == BUS_ADRALN ? QK_EXCEPTION_DATATYPE_MISALIGNMENT
                                               : QK_EXCEPTION_IN_PAGE_ERROR;
        case SIGFPE:
            switch (info->si_code) {
                case FPE_INTDIV:
                    return QK_EXCEPTION_INT_DIVIDE_BY_ZERO;
                case FPE_INTOVF:
                    return QK_EXCEPTION_INT_OVERFLOW;
                case FPE_FLTDIV:
                    return QK_EXCEPTION_FLT_DIVIDE_BY_ZERO;
                case FPE_FLTOVF:
                    return QK_EXCEPTION_FLT_OVERFLOW;
                case FPE_FLTUND:
                    return QK_EXCEPTION_FLT_UNDERFLOW;
                case FPE_FLTRES:
                    return QK_EXCEPTION_FLT_INEXACT_RESULT;
                case FPE_FLTSUB:
                    return QK_EXCEPTION_ARRAY_BOUNDS_EXCEEDED;
                default:
                    return QK_EXCEPTION_FLT_INVALID_OPERATION;
            }
        case SIGILL:
            return info->si_code == ILL_PRVOPC || info->si_code == ILL_PRVREG
                       ? QK_EXCEPTION_PRIV_INSTRUCTION
                       : QK_EXCEPTION_ILLEGAL_INSTRUCTION;
        case SIGTRAP:
            return info->si_code == TRAP_TRACE ? QK_EXCEPTION_SINGLE_STEP : QK_EXCEPTION_BREAKPOINT;
        default:
            return 0;  // reported as UNKNOWN
    }
}

// Puts back the disposition `action` and sends the signal again; it is
// blocked while the handler runs, so it arrives when the handler returns.
void Reraise(int sig, const struct sigaction *action) {
    sigaction(sig, action, nullptr);
    raise(sig);
}

// Without the filter, a fault that no protected call takes goes where it
// would have gone had the library not been there.
void PassToPrevious(int sig, siginfo_t *info, void *ucontext) {
    int index = SignalIndex(sig);
    if (index < 0) return;
    const struct sigaction &previous = previousActions[index];
    if (previous.sa_handler != SIG_DFL && previous.sa_handler != SIG_IGN) {
        if (previous.sa_flags & SA_SIGINFO) {
            previous.sa_sigaction(sig, info, ucontext);
        } else {
            previous.sa_handler(sig);
        }
        return;
    }
    // An ignored fault comes back when the handler returns, and the system
    // then ends the process itself.
    Reraise(sig, &previous);
}

void Unhandled(int sig, siginfo_t *info, void *ucontext, UInt code) {
    if (!filterInstalled.load(std::memory_order_acquire)) {
        PassToPrevious(sig, info, ucontext);
        return;
    }
    // The filter's view: the global handler, for source "unknown", line 0.
    UInt word = EffectiveHandler(nullptr)(code, 1);
    qk::CrashReport(word, code, info, ucontext, logPath);
    switch (word & 0xF) {
        case QK_EXCEPTION_HANDLED:
        case QK_EXCEPTION_HANDLED_AGAIN:
            _exit(128 + sig);
        case QK_EXCEPTION_CONTINUE:
            return;
        default: {
            // The system's default action: the process ends, with a core file
            // where the system writes one.
            struct sigaction action;
            memset(&action, 0, sizeof action);
            action.sa_handler = SIG_DFL;
            sigemptyset(&action.sa_mask);
            Reraise(sig, &action);
            return;
        }
    }
}

void OnCrashSignal(int sig, siginfo_t *info, void *ucontext) {
    const int savedErrno = errno;
    const UInt code = ExceptionCode(sig, info, ucontext);
    for (ProtectFrame *frame = currentFrame; frame; frame = frame->previous) {
        UInt word = EffectiveHandler(frame->handler)(code, 1);
        frame->word = word;
        qk::CrashReport(word, code, info, ucontext, logPath);
        switch (word & 0xF) {
            case QK_EXCEPTION_HANDLED:
            case QK_EXCEPTION_HANDLED_AGAIN:
                // Inner frames end here with the jump.
                currentFrame = frame;
                siglongjmp(frame->jump, 1);
            case QK_EXCEPTION_CONTINUE:
                errno = savedErrno;
                return;
            default:
                break;  // passed on to the next frame out
        }
    }
    Unhandled(sig, info, ucontext, code);
    errno = savedErrno;
}

bool InstallHandlers() {
    long page = sysconf(_SC_PAGESIZE);
    if (page > 0) pageSize = (uintptr_t)page;
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_sigaction = OnCrashSignal;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigemptyset(&action.sa_mask);
    for (int i = 0; i < kSignalCount; i++) {
        sigaction(crashSignals[i], &action, &previousActions[i]);
    }
    return true;
}

void EnsureHandlers() {
    static const bool installed = InstallHandlers();
    (void)installed;
}

// Learns the bounds of the calling thread's stack, so that the signal
// handler can tell a stack overflow without asking the system.
void LearnStackBounds() {
    pthread_attr_t attributes;
    if (pthread_getattr_np(pthread_self(), &attributes) != 0) return;
    void *address = nullptr;
    size_t size = 0, guard = 0;
    if (pthread_attr_getstack(&attributes, &address, &size) == 0 && size != 0) {
        pthread_attr_getguardsize(&attributes, &guard);
        stackLow = (uintptr_t)address;
        stackGuard = guard;
        stackHigh = (uintptr_t)address + size;
    }
    pthread_attr_destroy(&attributes);
}

// The alternate signal stack that the library gave the thread, freed when
// the thread detaches or ends. A stack that someone else installed is left
// alone.
struct AltStack {
    void *mapping = nullptr;
    size_t mappingSize = 0;
    size_t guardSize = 0;

    ~AltStack() { Release(); }

    void Acquire() {
        if (mapping) return;
        stack_t current;
        if (sigaltstack(nullptr, &current) == 0 && !(current.ss_flags & SS_DISABLE)) return;
        long pageSize = sysconf(_SC_PAGESIZE);
        size_t page = pageSize > 0 ? (size_t)pageSize : 4096;
        long minimum = sysconf(_SC_SIGSTKSZ);
        size_t size = kAltStackSize + (minimum > 0 ? (size_t)minimum : (size_t)SIGSTKSZ);
        size = (size + page - 1) / page * page;
        // One page below the stack stays inaccessible, so that a handler
        // that runs out of it faults instead of writing over other memory.
        void *memory =
            mmap(nullptr, size + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) return;  // faults are still caught; overflows end the process
        mprotect(memory, page, PROT_NONE);
        stack_t stack;
        memset(&stack, 0, sizeof stack);
        stack.ss_sp = static_cast<char *>(memory) + page;
        stack.ss_size = size;
        if (sigaltstack(&stack, nullptr) != 0) {
            munmap(memory, size + page);
            return;
        }
        mapping = memory;
        mappingSize = size + page;
        guardSize = page;
    }

    void Release() {
        if (mapping == nullptr) return;
        stack_t current;
        if (sigaltstack(nullptr, &current) == 0 &&
            current.ss_sp == static_cast<char *>(mapping) + guardSize) {
            stack_t disable;
            memset(&disable, 0, sizeof disable);
            disable.ss_flags = SS_DISABLE;
            if (sigaltstack(&disable, nullptr) != 0) return;  // running on it: keep it
        }
        munmap(mapping, mappingSize);
        mapping = nullptr;
    }
};

thread_local AltStack altStack;

// What a thread needs once before faults can be reported well: its stack
// bounds and an alternate stack to run the handler on.
void PrepareThread() {
    if (threadPrepared) return;
    LearnStackBounds();
    altStack.Acquire();
    threadPrepared = true;
}

}  // namespace

namespace qk {

void CrashInstallFilter() {
    EnsureHandlers();
    filterInstalled.store(true, std::memory_order_release);
    PrepareThread();
}

void CrashThreadAttach() {
    threadPrepared = false;
    PrepareThread();
}

void CrashThreadDetach() {
    altStack.Release();
    threadPrepared = false;
    stackLow = stackHigh = stackGuard = 0;
}

}  // namespace qk

extern "C" {

QK_API intptr_t QKRunProtected_(QKProtectedFunction function, void *argument,
                                QKExceptionHandler handler, const char *file, int line) {
    EnsureHandlers();
    PrepareThread();
    ProtectFrame frame;
    frame.handler = handler;
    frame.file = file;
    frame.line = line;
    frame.previous = currentFrame;
    frame.word = 0;
    if (sigsetjmp(frame.jump, 1) == 0) {
        currentFrame = &frame;
        intptr_t result = function(argument);
        currentFrame = frame.previous;
        return result;
    }
    // Back from the signal handler: the fault was taken by this frame.
    currentFrame = frame.previous;
    if (frame.word == QK_EXCEPTION_HANDLED_AGAIN) EffectiveHandler(frame.handler)(0, 1);
    return 0;
}

QK_API void QKRunProtectedSetPath(const char *directory) {
    if (directory == nullptr) directory = ".";
    trio_snprintf(dumpPath, sizeof dumpPath, "%s/CRASH.DMP", directory);
    trio_snprintf(logPath, sizeof logPath, "%s/ERRORLOG.TXT", directory);
}

QK_API void QKSetGlobalExceptionHandler(QKExceptionHandler handler) {
    globalHandler.store(handler, std::memory_order_release);
}

}  // extern "C"
