// Crash capture: protected calls, the crash report and its outputs, nesting,
// the unhandled path in a child process, and the memory counters.
#include <gtest/gtest.h>
#include <pthread.h>
#include <regex.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "qk/qkcommon.h"

// The faults below are real: keep the sanitizers from catching them first.
#define QK_FAULTY __attribute__((noinline, no_sanitize("address", "undefined", "thread")))

namespace {

const char kAccessExplanation[] =
    "The thread tried to read from or write to a virtual address for which it does not have the "
    "appropriate access.";
const UInt kReport = QK_EXCEPTION_REPORT | QK_EXCEPTION_HANDLED;

volatile int zeroDivisor = 0;
volatile int dividend = 17;
volatile int stopDepth = -1;

// Faulting functions: the address comes as the argument.
QK_FAULTY intptr_t Write(void *address) {
    *static_cast<volatile int *>(address) = 1;
    return 5;
}

QK_FAULTY intptr_t Read(void *address) {
    return *static_cast<volatile int *>(address);
}

QK_FAULTY intptr_t DivideByZero(void *) {
    return dividend / zeroDivisor;
}

QK_FAULTY int Recurse(int depth) {
    volatile char pad[1024];
    pad[0] = (char)depth;
    pad[sizeof pad - 1] = pad[0];
    if (depth == stopDepth) return 0;
    return Recurse(depth + 1) + pad[sizeof pad - 1];
}

intptr_t Overflow(void *) {
    return Recurse(0);
}

// What the recording handler saw on this thread, and what it answers. It
// runs inside the signal handler, so the record must not allocate.
struct HandlerLog {
    std::pair<UInt, Int> calls[256];
    size_t count = 0;
    UInt answer = QK_EXCEPTION_HANDLED;
};
thread_local HandlerLog handlerLog;

UInt RecordingHandler(UInt code, Int argument) {
    if (handlerLog.count < 256) handlerLog.calls[handlerLog.count++] = {code, argument};
    return handlerLog.answer;
}

void ResetHandlerLog(UInt answer) {
    handlerLog.count = 0;
    handlerLog.answer = answer;
}

// The calls that the recording handler saw: code, argument.
using Calls = std::vector<std::pair<UInt, Int>>;
Calls Recorded() {
    return Calls(handlerLog.calls, handlerLog.calls + handlerLog.count);
}
const UInt kAccess = QK_EXCEPTION_ACCESS_VIOLATION;
const UInt kDivide = QK_EXCEPTION_INT_DIVIDE_BY_ZERO;

std::string ReadFile(const std::string &path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// A fresh directory for crash files while it lives, removed with the log.
struct CrashDirectory {
    std::string path = [] {
        char path[] = "/tmp/qkcrash_dir_XXXXXX";
        return std::string(mkdtemp(path));
    }();
    std::string log = path + "/ERRORLOG.TXT";

    CrashDirectory() { QKRunProtectedSetPath(path.c_str()); }
    ~CrashDirectory() {
        unlink(log.c_str());
        rmdir(path.c_str());
        QKRunProtectedSetPath(".");
    }
};

// True when the POSIX extended regular expression `pattern` matches in
// `text`.
bool Matches(const std::string &text, const std::string &pattern) {
    regex_t compiled;
    if (regcomp(&compiled, pattern.c_str(), REG_EXTENDED | REG_NOSUB) != 0) return false;
    bool found = regexec(&compiled, text.c_str(), 0, nullptr, 0) == 0;
    regfree(&compiled);
    return found;
}

// A POSIX extended regular expression that matches `text` literally.
std::string Literal(const std::string &text) {
    std::string pattern;
    for (char c : text) {
        if (strchr(".[]{}()\\*+?|^$", c)) pattern += '\\';
        pattern += c;
    }
    return pattern;
}

// Runs `function` on `address`, protected by the recording handler
// answering `answer`, and returns what was written on standard error.
std::string CrashReportOf(QKProtectedFunction function, UInt answer, void *address = nullptr) {
    ResetHandlerLog(answer);
    testing::internal::CaptureStderr();
    EXPECT_EQ(0, QKRunProtected(function, address, RecordingHandler));
    return testing::internal::GetCapturedStderr();
}

bool Contains(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

}  // namespace

// ---- Protected calls ----

TEST(CrashProtected, FaultIsCaughtAndTheProgramGoesOn) {
    auto addOne = [](void *argument) -> intptr_t { return *static_cast<intptr_t *>(argument) + 1; };
    intptr_t value = 41;
    ResetHandlerLog(QK_EXCEPTION_HANDLED);
    EXPECT_EQ(42, QKRunProtected(addOne, &value, RecordingHandler));
    EXPECT_EQ(Recorded(), Calls{});

    // Without the report bit nothing is written.
    EXPECT_EQ("", CrashReportOf(Write, QK_EXCEPTION_HANDLED));
    EXPECT_EQ(Recorded(), (Calls{{kAccess, 1}}));

    // The thread is usable afterwards, faults included.
    EXPECT_EQ(42, QKRunProtected(addOne, &value, RecordingHandler));
    EXPECT_EQ(0, QKRunProtected(DivideByZero, nullptr, RecordingHandler));
    EXPECT_EQ(Recorded(), (Calls{{kAccess, 1}, {kDivide, 1}}));
}

#if defined(__x86_64__)
intptr_t Breakpoint(void *) {
    __asm__ volatile("int3");
    return 7;
}
#endif

TEST(CrashProtected, HandlerAnswers) {
    // Exactly 2 calls the handler again, with code 0.
    ResetHandlerLog(QK_EXCEPTION_HANDLED_AGAIN);
    EXPECT_EQ(0, QKRunProtected(Write, nullptr, RecordingHandler));
    EXPECT_EQ(Recorded(), (Calls{{kAccess, 1}, {0, 1}}));
    // Only the word 2 itself asks for it, not 2 with report bits.
    std::string report = CrashReportOf(Write, QK_EXCEPTION_REPORT | QK_EXCEPTION_HANDLED_AGAIN);
    EXPECT_EQ(Recorded(), (Calls{{kAccess, 1}}));
    EXPECT_TRUE(Contains(report, "(ACCESS_VIOLATION)"));

#if defined(__x86_64__)
    // Continue resumes after a breakpoint.
    ResetHandlerLog(QK_EXCEPTION_CONTINUE);
    EXPECT_EQ(7, QKRunProtected(Breakpoint, nullptr, RecordingHandler));
    EXPECT_EQ(Recorded(), (Calls{{QK_EXCEPTION_BREAKPOINT, 1}}));
#endif
}

// ---- Nesting ----

// The outer handler of nested calls records its calls with argument 2.
UInt OuterHandler(UInt code, Int) {
    RecordingHandler(code, 2);
    return QK_EXCEPTION_HANDLED;
}

bool afterInner;
intptr_t RunInner(void *) {
    QKRunProtected(Write, nullptr, RecordingHandler);
    afterInner = true;
    return 9;
}

TEST(CrashNesting, InnerHandlerFirstThenTheOuter) {
    // When the inner call handles, the outer function finishes; when it
    // passes on, the outer call catches.
    for (UInt answer : {QK_EXCEPTION_HANDLED, 0u}) {
        ResetHandlerLog(answer);
        afterInner = false;
        EXPECT_EQ(answer ? 9 : 0, QKRunProtected(RunInner, nullptr, OuterHandler));
        EXPECT_EQ(answer != 0, afterInner);
        EXPECT_EQ(Recorded(), (answer ? Calls{{kAccess, 1}} : Calls{{kAccess, 1}, {kAccess, 2}}));
    }
    // The inner frame is gone: the next fault reaches the handler given.
    ResetHandlerLog(QK_EXCEPTION_HANDLED);
    EXPECT_EQ(0, QKRunProtected(Write, nullptr, RecordingHandler));
    EXPECT_EQ(Recorded(), (Calls{{kAccess, 1}}));
}

// ---- Handlers ----

TEST(CrashHandlers, AbsentHandlerMeansTheGlobalOneOrTheDefault) {
    ResetHandlerLog(QK_EXCEPTION_HANDLED);
    QKSetGlobalExceptionHandler(RecordingHandler);
    EXPECT_EQ(0, QKRunProtected(Read, nullptr, nullptr));
    QKSetGlobalExceptionHandler(nullptr);
    EXPECT_EQ(Recorded(), (Calls{{kAccess, 1}}));

    // The default handler reports to standard error and the log file.
    CrashDirectory directory;
    testing::internal::CaptureStderr();
    EXPECT_EQ(0, QKRunProtected(Write, nullptr, nullptr));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), ReadFile(directory.log));
    EXPECT_TRUE(Contains(ReadFile(directory.log), "(ACCESS_VIOLATION)"));
}

// ---- The report ----

TEST(CrashReport, AccessViolationText) {
    QKStateClear();
    std::string report = CrashReportOf(Write, kReport);
    std::string pattern =
        "^" + Literal("A fatal exception 0xC0000005 (ACCESS_VIOLATION) occured at 0x") +
        "([0-9A-F]{16})" +
        Literal(std::string(" in ") + QKProgramName() + " : bad write at 0x0000000000000000. " +
                kAccessExplanation + "\n\nLast thread state: no state found.\n\n");
#if defined(__x86_64__)
    // The registers in pairs, each value followed by a tab, each pair on its
    // own line; the address of the fault is the instruction pointer.
    const char *names[] = {"SegGs", "SegFs", "Rdi", "Rsi", "Rbx",   "Rdx",    "Rcx",
                           "Rax",   "R8",    "R9",  "R10", "R11",   "R12",    "R13",
                           "R14",   "R15",   "Rbp", "Rip", "SegCs", "EFlags", "Rsp"};
    for (int i = 0; i < 21; i++) {
        pattern += std::string(names[i]) + (i == 17 ? ": 0x\\1\t" : ": 0x[0-9A-F]{16}\t");
        if (i % 2) pattern += "\n";
    }
    pattern += "(SegSs: 0x[0-9A-F]{16}\t)?\n";
#endif
    EXPECT_TRUE(Matches(report, pattern + "$")) << report;
}

TEST(CrashReport, KindOfAccessAndOtherFaults) {
    std::string report = CrashReportOf(Read, kReport);
    EXPECT_TRUE(Contains(report, " : bad read at 0x0000000000000000. ")) << report;
    report = CrashReportOf(Write, kReport, (void *)0x10);
    EXPECT_TRUE(Contains(report, " : bad write at 0x0000000000000010. ")) << report;

    report = CrashReportOf(DivideByZero, kReport);
    EXPECT_EQ(0u, report.find("A fatal exception 0xC0000094 (INT_DIVIDE_BY_ZERO) occured at 0x"))
        << report;
    EXPECT_TRUE(Contains(report,
                         ". The thread tried to divide an integer value by an integer "
                         "divisor of zero.\n"));
    // Only an access violation tells the address.
    EXPECT_FALSE(Contains(report, " : bad "));
}

TEST(CrashReport, LastThreadState) {
    int line = __LINE__ + 1;
    QKState("loading %s %d", "index", 12);
    std::string report = CrashReportOf(Write, kReport);
    QKStateClear();
    std::string expected = std::string("\n\nLast thread state: loading index 12\n  at ") +
                           __FILE__ + ":" + std::to_string(line) + "\n  ";
    EXPECT_TRUE(Matches(report, Literal(expected) + "[0-9]+ us ago\\.\n")) << report;
    // Cleared again: no state.
    report = CrashReportOf(Write, kReport);
    EXPECT_TRUE(Contains(report, "\nLast thread state: no state found.\n"));
}

TEST(CrashReport, LogFileOnlyWhenBothBitsAreSet) {
    CrashDirectory directory;

    EXPECT_FALSE(CrashReportOf(Write, kReport).empty());
    EXPECT_NE(0, access(directory.log.c_str(), F_OK));
    // The file bit alone writes nothing at all.
    EXPECT_TRUE(CrashReportOf(Write, 0x200 | QK_EXCEPTION_HANDLED).empty());
    EXPECT_NE(0, access(directory.log.c_str(), F_OK));

    std::string report =
        CrashReportOf(DivideByZero, QK_EXCEPTION_REPORT_FILE | QK_EXCEPTION_HANDLED);
    EXPECT_EQ(report, ReadFile(directory.log));
    struct stat info;
    ASSERT_EQ(0, stat(directory.log.c_str(), &info));
    EXPECT_EQ(0u, info.st_mode & 0777 & ~0644u);
    EXPECT_EQ(0600u, info.st_mode & 0600);

    // Created anew: a second report replaces the first.
    report = CrashReportOf(Write, QK_EXCEPTION_REPORT_FILE | QK_EXCEPTION_HANDLED);
    EXPECT_EQ(report, ReadFile(directory.log));
    EXPECT_TRUE(Contains(report, "(ACCESS_VIOLATION)"));
}

// ---- Threads and stack overflow ----

TEST(CrashThreads, EachThreadCatchesItsOwnFaults) {
    std::atomic<int> caught{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([&caught, t] {
            ResetHandlerLog(QK_EXCEPTION_HANDLED);
            for (int i = 0; i < 50; i++) {
                QKProtectedFunction function = (i + t) % 2 ? Write : DivideByZero;
                if (QKRunProtected(function, nullptr, RecordingHandler) == 0) caught++;
            }
            Calls calls = Recorded();
            for (size_t i = 0; i < calls.size(); i++) {
                if (calls[i].first != ((i + t) % 2 ? kAccess : kDivide)) caught -= 1000;
            }
        });
    }
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(200, caught.load());
}

// Two overflows in a row: the alternate stack survives the first.
void *OverflowTwice(void *) {
    ResetHandlerLog(QK_EXCEPTION_HANDLED);
    bool caught = QKRunProtected(Overflow, nullptr, RecordingHandler) == 0 &&
                  QKRunProtected(Overflow, nullptr, RecordingHandler) == 0;
    const UInt overflow = QK_EXCEPTION_STACK_OVERFLOW;
    return (void *)(uintptr_t)(caught && Recorded() == Calls{{overflow, 1}, {overflow, 1}});
}

TEST(CrashThreads, StackOverflowInAThread) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, 256 * 1024);
    pthread_t thread;
    void *caught = nullptr;
    ASSERT_EQ(0, pthread_create(&thread, &attributes, OverflowTwice, nullptr));
    pthread_join(thread, &caught);
    pthread_attr_destroy(&attributes);
    EXPECT_TRUE(caught);
}

// ---- The unhandled path, in a child process ----

namespace {

const QKExceptionHandler kHandled = [](UInt, Int) -> UInt { return kReport; };
const QKExceptionHandler kPassOn = [](UInt, Int) -> UInt { return QK_EXCEPTION_REPORT; };
const QKExceptionHandler kNothing = [](UInt, Int) -> UInt { return 0; };

void NoCoreFile() {
    struct rlimit none = {0, 0};
    setrlimit(RLIMIT_CORE, &none);
}

// The child: no core file, the library's filter, `global` as the global
// handler (none: the default one), then `fault`.
[[noreturn]] void Child(QKExceptionHandler global, void (*fault)()) {
    NoCoreFile();
    QKLibInit("crash_child");
    QKSetGlobalExceptionHandler(global);
    fault();
    _exit(0);
}

std::string ChildReportPattern(const char *code, const char *name, const char *access) {
    return Literal(std::string("A fatal exception 0x") + code + " (" + name + ") occured at 0x") +
           "[0-9A-F]{16}" + Literal(std::string(" in crash_child") + access + ". ");
}

}  // namespace

TEST(CrashUnhandledDeathTest, TheGlobalHandlerDecidesHowTheProcessEnds) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // Each child re-runs this test up to its statement: it finds the
    // directory made by the parent in the environment.
    if (getenv("QK_CRASH_TEST_DIR") == nullptr) {
        char path[] = "/tmp/qkcrash_child_XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(path));
        setenv("QK_CRASH_TEST_DIR", path, 1);
    }
    const std::string directory = getenv("QK_CRASH_TEST_DIR"), log = directory + "/ERRORLOG.TXT";
    const auto segv = testing::ExitedWithCode(128 + SIGSEGV);
    const std::string badWrite =
        ChildReportPattern("C0000005", "ACCESS_VIOLATION", " : bad write at 0x0000000000000000");
    // The default handler reports, also to the log file, and ends the
    // process quietly.
    EXPECT_EXIT(Child(nullptr,
                      [] {
                          QKRunProtectedSetPath(getenv("QK_CRASH_TEST_DIR"));
                          Write(nullptr);
                      }),
                segv, badWrite + Literal(kAccessExplanation));
    // Passed on: the system's default action.
    EXPECT_EXIT(Child(kPassOn, [] { DivideByZero(nullptr); }), testing::KilledBySignal(SIGFPE),
                ChildReportPattern("C0000094", "INT_DIVIDE_BY_ZERO", ""));
    // A protected call that passes on reaches the global handler; the
    // report seen is the global handler's.
    EXPECT_EXIT(
        Child(kHandled, [] { QKRunProtected(Read, nullptr, kNothing); }), segv,
        ChildReportPattern("C0000005", "ACCESS_VIOLATION", " : bad read at 0x0000000000000000"));
    EXPECT_EXIT(Child(kHandled, [] { Overflow(nullptr); }), segv,
                ChildReportPattern("C00000FD", "STACK_OVERFLOW", "") +
                    Literal("The thread used up its stack.\n"));
    // Without the library's filter (no QKLibInit), a fault that no protected
    // call takes goes to the handler that was there before.
    EXPECT_EXIT(
        {
            NoCoreFile();
            signal(SIGSEGV, [](int) { _exit(42); });
            QKRunProtected(Write, nullptr, kPassOn);
        },
        testing::ExitedWithCode(42), "ACCESS_VIOLATION");
    // Checked last: the children run the test up to their statements.
    EXPECT_TRUE(Matches(ReadFile(log), "^" + badWrite)) << ReadFile(log);
    unlink(log.c_str());
    rmdir(directory.c_str());
    unsetenv("QK_CRASH_TEST_DIR");
}

// ---- Memory counters ----

TEST(CrashMemStats, CountersInBytes) {
    char buffer[512];
    QKDumpMemStats(buffer, sizeof buffer);
    long set[2], paged[2], nonPaged[2], pagefile[2];  // as they come in the text
    ASSERT_EQ(8, sscanf(buffer,
                        "PeakWorkingSetSize=%ld, WorkingSetSize=%ld, "
                        "QuotaPeakPagedPoolUsage=%ld, QuotaPagedPoolUsage=%ld, "
                        "QuotaPeakNonPagedPoolUsage=%ld, QuotaNonPagedPoolUsage=%ld, "
                        "PagefileUsage=%ld, PeakPagefileUsage=%ld",
                        &set[0], &set[1], &paged[0], &paged[1], &nonPaged[0], &nonPaged[1],
                        &pagefile[0], &pagefile[1]))
        << buffer;
    EXPECT_GT(set[1], 0);
    EXPECT_EQ(0, set[1] % 1024);
    EXPECT_LE(set[1], set[0]);
    EXPECT_EQ(paged[0], paged[1]);
    EXPECT_EQ(nonPaged[0], nonPaged[1]);
    EXPECT_LE(pagefile[0], pagefile[1]);
    EXPECT_GE(pagefile[0], set[1]);

    char small[10];
    QKDumpMemStats(small, sizeof small);
    EXPECT_STREQ("PeakWorki", small);
}
