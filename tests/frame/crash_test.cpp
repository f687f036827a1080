// Crash capture: protected calls, the handler's answers, nesting, the crash
// report and its outputs, threads, the unhandled path in a child process,
// and the memory counters.
#include <sys/resource.h>

#include <regex>

#include "frame/frame_test.h"

// The faults below are real: keep the sanitizers from catching them first.
#define QK_FAULTY __attribute__((noinline, no_sanitize("address", "undefined", "thread")))

namespace {

const char kAccessExplanation[] =
    "The thread tried to read from or write to a virtual address for which it does not have the "
    "appropriate access.";
const UInt kReport = QK_EXCEPTION_REPORT | QK_EXCEPTION_HANDLED, kHandled = QK_EXCEPTION_HANDLED;
const UInt kAccess = QK_EXCEPTION_ACCESS_VIOLATION, kDivide = QK_EXCEPTION_INT_DIVIDE_BY_ZERO;
volatile int zero = 0;
volatile intptr_t stopDepth = -1;

// Faulting functions: the address comes as the argument; Overflow recurses
// from the depth it is given.
QK_FAULTY intptr_t Write(void *address) {
    *static_cast<volatile int *>(address) = 5;
    return 5;
}
QK_FAULTY intptr_t Read(void *address) {
    return *static_cast<volatile int *>(address);
}
QK_FAULTY intptr_t DivideByZero(void *) {
    return 17 / zero;
}
QK_FAULTY intptr_t Overflow(void *depth) {
    volatile char pad[1024];
    pad[0] = (char)(intptr_t)depth;
    return (intptr_t)depth == stopDepth ? 0 : Overflow((char *)depth + 1) + pad[0];
}
#if defined(__x86_64__)
intptr_t Breakpoint(void *) {
    __asm__ volatile("int3");
    return 7;
}
#endif

// What the recording handler saw on this thread, and what it answers. It
// runs inside the signal handler, so the record must not allocate.
using Calls = std::vector<std::pair<UInt, Int>>;
thread_local std::pair<UInt, Int> calls[256];
thread_local size_t callCount = 0;
thread_local UInt answer = kHandled;

UInt RecordingHandler(UInt code, Int argument) {
    if (callCount < 256) calls[callCount++] = {code, argument};
    return answer;
}
// What the handler saw since the last call; it answers `next` from now on.
Calls Recorded(UInt next = kHandled) {
    Calls seen(calls, calls + callCount);
    callCount = 0, answer = next;
    return seen;
}

// Runs `function` protected by `handler`, which answers `next`: standard
// error, after checking what the call returned.
std::string Report(QKProtectedFunction function, UInt next, void *argument = nullptr,
                   intptr_t result = 0, QKExceptionHandler handler = RecordingHandler) {
    Recorded(next);
    testing::internal::CaptureStderr();
    EXPECT_EQ(QKRunProtected(function, argument, handler), result);
    return testing::internal::GetCapturedStderr();
}

// The outer handler of nested calls records its calls with argument 2.
UInt OuterHandler(UInt code, Int) {
    return RecordingHandler(code, 2), kHandled;
}
intptr_t RunInner(void *) {
    return QKRunProtected(Write, nullptr, RecordingHandler), 9;
}

// A fresh directory for crash files while it lives.
struct CrashDirectory {
    TempDir dir;
    std::string log = dir / "ERRORLOG.TXT";
    CrashDirectory() { QKRunProtectedSetPath(dir.Path().c_str()); }
    ~CrashDirectory() { QKRunProtectedSetPath("."); }
};

bool Matches(const std::string &text, const std::string &pattern) {
    return std::regex_search(text, std::regex(pattern));
}

// A regular expression that matches `text` literally.
std::string Literal(const std::string &text) {
    std::string pattern;
    for (char c : text) pattern += (strchr(".[]{}()\\*+?|^$", c) ? "\\" : "") + std::string(1, c);
    return pattern;
}

}  // namespace

// Each row: the function, the handler's answer; then what the protected call
// returns and what the handler saw. Without the report bit nothing is
// written; the thread stays usable after each fault.
TEST(CrashProtected, HandlerAnswers) {
    const std::tuple<QKProtectedFunction, UInt, intptr_t, Calls> cases[] = {
        {Write, kHandled, 0, {{kAccess, 1}}},
        {DivideByZero, kHandled, 0, {{kDivide, 1}}},
        // Exactly 2 calls the handler again, with code 0.
        {Write, QK_EXCEPTION_HANDLED_AGAIN, 0, {{kAccess, 1}, {0, 1}}},
        // Nested: when the inner call handles, the outer function finishes;
        // when it passes on, the outer call catches.
        {RunInner, kHandled, 9, {{kAccess, 1}}},
        {RunInner, 0, 0, {{kAccess, 1}, {kAccess, 2}}},
        {Write, kHandled, 0, {{kAccess, 1}}},  // the inner frame is gone
#if defined(__x86_64__)
        {Breakpoint, QK_EXCEPTION_CONTINUE, 7, {{QK_EXCEPTION_BREAKPOINT, 1}}},
#endif
    };
    for (const auto &[function, answer, result, calls] : cases) {
        QKExceptionHandler handler = function == RunInner ? OuterHandler : RecordingHandler;
        EXPECT_EQ(Report(function, answer, nullptr, result, handler), "");
        EXPECT_EQ(Recorded(), calls) << "answer " << answer;
    }
    // Only the word 2 itself asks for another call, not 2 with report bits.
    std::string report = Report(Write, QK_EXCEPTION_REPORT | QK_EXCEPTION_HANDLED_AGAIN);
    EXPECT_EQ(Recorded(), (Calls{{kAccess, 1}}));
    EXPECT_TRUE(Matches(report, "\\(ACCESS_VIOLATION\\)"));
    // Without a handler: the global one, else the default one, which reports
    // to standard error and the log file.
    QKSetGlobalExceptionHandler(RecordingHandler);
    EXPECT_EQ(Report(Read, kHandled, nullptr, 0, nullptr), "");
    QKSetGlobalExceptionHandler(nullptr);
    EXPECT_EQ(Recorded(), (Calls{{kAccess, 1}}));
    CrashDirectory directory;
    report = Report(Write, kHandled, nullptr, 0, nullptr);
    EXPECT_EQ(report, ReadWhole(directory.log));
    EXPECT_TRUE(Matches(report, "\\(ACCESS_VIOLATION\\)"));
}

// ---- The report ----

// Only an access violation tells the kind of access and the address; the
// thread's last state, with its place and age, follows the explanation.
TEST(CrashReport, TextOfEachFaultAndTheLastState) {
    std::string text =
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
        text += std::string(names[i]) + (i == 17 ? ": 0x\\1\t" : ": 0x[0-9A-F]{16}\t");
        if (i % 2) text += "\n";
    }
    text += "(SegSs: 0x[0-9A-F]{16}\t)?\n";
#endif
    int line = __LINE__ + 1;
    QKState("loading %s %d", "index", 12);
    const std::string state = std::string("\n\nLast thread state: loading index 12\n  at ") +
                              __FILE__ + ":" + std::to_string(line) + "\n  ";
    const std::tuple<QKProtectedFunction, void *, std::string> cases[] = {
        {Read, nullptr, Literal(" : bad read at 0x0000000000000000. ")},
        {Write, (void *)0x10, Literal(" : bad write at 0x0000000000000010. ")},
        {DivideByZero, nullptr,
         "^" + Literal("A fatal exception 0xC0000094 (INT_DIVIDE_BY_ZERO) occured at 0x") +
             "[0-9A-F]{16} in [^:]*" +
             Literal(". The thread tried to divide an integer value by an integer divisor of "
                     "zero." +
                     state) +
             "[0-9]+ us ago\\.\n"},
    };
    for (const auto &[function, address, pattern] : cases) {
        std::string report = Report(function, kReport, address);
        EXPECT_TRUE(Matches(report, pattern)) << report;
    }
    QKStateClear();
    std::string report = Report(Write, kReport);
    EXPECT_TRUE(Matches(report, text + "$")) << report;
}

// Only both bits write the log file, created anew for each report with mode
// 0600 at most: the report bit alone writes to standard error, the file bit
// alone writes nothing at all.
TEST(CrashReport, LogFileOnlyWhenBothBitsAreSet) {
    CrashDirectory directory;
    const UInt file = QK_EXCEPTION_REPORT_FILE | kHandled;
    for (auto [function, word, logged] :
         {std::tuple(&Write, kReport, false), std::tuple(&Write, 0x200 | kHandled, false),
          std::tuple(&DivideByZero, file, true), std::tuple(&Write, file, true)}) {
        std::string report = Report(function, word);
        EXPECT_EQ(report.empty(), word == (0x200 | kHandled));
        EXPECT_EQ(ReadWhole(directory.log), logged ? report : "<missing>");
        struct stat info;
        if (logged && stat(directory.log.c_str(), &info) == 0) {
            EXPECT_EQ(std::tuple(info.st_mode & 0777 & ~0644u, info.st_mode & 0600),
                      std::tuple(0u, 0600u));
        }
    }
    EXPECT_TRUE(Matches(ReadWhole(directory.log), "\\(ACCESS_VIOLATION\\)"));
}

// ---- Threads and stack overflow ----

TEST(CrashThreads, EachThreadCatchesItsOwnFaults) {
    std::atomic<int> caught{0};
    RunAtOnce(4, [&caught](int t) {
        Calls expected;
        for (int i = 0; i < 50; i++) {
            bool write = (i + t) % 2;
            caught += QKRunProtected(write ? Write : DivideByZero, nullptr, RecordingHandler) == 0;
            expected.push_back({write ? kAccess : kDivide, 1});
        }
        caught -= Recorded() == expected ? 0 : 1000;
    });
    EXPECT_EQ(200, caught.load());
}

// Two overflows in a row in a thread with a small stack: the alternate stack
// survives the first.
TEST(CrashThreads, StackOverflowInAThread) {
    pthread_attr_t attributes;
    pthread_t thread;
    void *caught = nullptr;
    pthread_attr_init(&attributes), pthread_attr_setstacksize(&attributes, 256 * 1024);
    auto overflowTwice = [](void *) -> void * {
        bool caught = QKRunProtected(Overflow, nullptr, RecordingHandler) == 0 &&
                      QKRunProtected(Overflow, nullptr, RecordingHandler) == 0;
        const UInt overflow = QK_EXCEPTION_STACK_OVERFLOW;
        return (void *)(uintptr_t)(caught && Recorded() == Calls{{overflow, 1}, {overflow, 1}});
    };
    ASSERT_EQ(0, pthread_create(&thread, &attributes, overflowTwice, nullptr));
    pthread_join(thread, &caught), pthread_attr_destroy(&attributes);
    EXPECT_TRUE(caught);
}

// ---- The unhandled path, in a child process ----

namespace {

const QKExceptionHandler kReportHandled = [](UInt, Int) -> UInt { return kReport; };
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

std::string ChildReport(const char *code, const char *name, const char *access) {
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
        ChildReport("C0000005", "ACCESS_VIOLATION", " : bad write at 0x0000000000000000");
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
                ChildReport("C0000094", "INT_DIVIDE_BY_ZERO", ""));
    // A protected call that passes on reaches the global handler; the
    // report seen is the global handler's.
    EXPECT_EXIT(Child(kReportHandled, [] { QKRunProtected(Read, nullptr, kNothing); }), segv,
                ChildReport("C0000005", "ACCESS_VIOLATION", " : bad read at 0x0000000000000000"));
    EXPECT_EXIT(
        Child(kReportHandled, [] { Overflow(nullptr); }), segv,
        ChildReport("C00000FD", "STACK_OVERFLOW", "") + Literal("The thread used up its stack.\n"));
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
    EXPECT_TRUE(Matches(ReadWhole(log), "^" + badWrite)) << ReadWhole(log);
    unlink(log.c_str());
    rmdir(directory.c_str());
    unsetenv("QK_CRASH_TEST_DIR");
}

// ---- Memory counters ----

TEST(CrashMemStats, CountersInBytes) {
    char buffer[512], small[10];
    long v[8];
    QKDumpMemStats(buffer, sizeof buffer);
    ASSERT_EQ(8, sscanf(buffer,
                        "PeakWorkingSetSize=%ld, WorkingSetSize=%ld, "
                        "QuotaPeakPagedPoolUsage=%ld, QuotaPagedPoolUsage=%ld, "
                        "QuotaPeakNonPagedPoolUsage=%ld, QuotaNonPagedPoolUsage=%ld, "
                        "PagefileUsage=%ld, PeakPagefileUsage=%ld",
                        v, v + 1, v + 2, v + 3, v + 4, v + 5, v + 6, v + 7))
        << buffer;
    EXPECT_TRUE(v[1] > 0 && v[1] % 1024 == 0 && v[1] <= v[0] && v[2] == v[3] && v[4] == v[5] &&
                v[6] <= v[7] && v[6] >= v[1])
        << buffer;
    QKDumpMemStats(small, sizeof small);
    EXPECT_STREQ("PeakWorki", small);
}
