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

// Runs `function` on the address 0x10, protected by `handler`, which answers
// `next`: standard error, after checking what the call returned.
std::string Report(QKProtectedFunction function, QKExceptionHandler handler, UInt next,
                   intptr_t result) {
    Recorded(next);
    testing::internal::CaptureStderr();
    EXPECT_EQ(QKRunProtected(function, (void *)0x10, handler), result);
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

// A report with the address of the fault, the registers' values and the
// age of the thread's state as "#"; without SegSs, which only some kernels
// save.
std::string Masked(const std::string &report) {
    std::string text = std::regex_replace(report, std::regex("SegSs: 0x[0-9A-F]{16}\t"), "");
    text = std::regex_replace(text, std::regex("0x[0-9A-F]{16}(\t| in )"), "#$1");
    return std::regex_replace(text, std::regex("\n  [0-9]+ us ago"), "\n  # us ago");
}

// The registers of a masked report: in pairs, each value followed by a tab,
// each pair on its own line.
std::string Registers() {
    std::string text;
#if defined(__x86_64__)
    for (int i = 0; const char *name : {"SegGs", "SegFs", "Rdi", "Rsi", "Rbx",   "Rdx",    "Rcx",
                                        "Rax",   "R8",    "R9",  "R10", "R11",   "R12",    "R13",
                                        "R14",   "R15",   "Rbp", "Rip", "SegCs", "EFlags", "Rsp"}) {
        text += std::string(name) + ": #\t" + (i % 2 || i == 20 ? "\n" : "");
        i++;
    }
#endif
    return text;
}

// The masked report of a `kind` of access to 0x10 in a thread without a state.
std::string AccessReport(const std::string &kind) {
    return "A fatal exception 0xC0000005 (ACCESS_VIOLATION) occured at # in frametest : bad " +
           kind + " at 0x0000000000000010. " + kAccessExplanation +
           "\n\nLast thread state: no state found.\n\n" + Registers();
}

using CrashTest = FrameTest;

// Each row: the function, the handler and its answer; then what the
// protected call returns, what the handler saw, the masked report on standard
// error and whether the log file holds it. Only the report bit writes a
// report, and only with the file bit too the log file, created anew with mode
// 0600 at most; without a handler, nor a global one, the default one writes
// both. The thread stays usable after each fault.
TEST_F(CrashTest, HandlerAnswersAndReports) {
    CrashDirectory directory;
    const UInt again = QK_EXCEPTION_HANDLED_AGAIN, file = QK_EXCEPTION_REPORT_FILE | kHandled;
    const QKExceptionHandler rec = RecordingHandler, outer = OuterHandler;
    const std::tuple<QKProtectedFunction, QKExceptionHandler, UInt, intptr_t, Calls, std::string,
                     bool>
        cases[] =
    { {DivideByZero, rec, kHandled, 0, {{kDivide, 1}}, "", false},
      // Exactly 2 calls the handler again, with code 0; not 2 with the
      // report bit.
      {Write, rec, again, 0, {{kAccess, 1}, {0, 1}}, "", false},
      {Write, rec, QK_EXCEPTION_REPORT | again, 0, {{kAccess, 1}}, AccessReport("write"), false},
      // Nested: when the inner call handles, the outer function
      // finishes; when it passes on, the outer call catches.
      {RunInner, outer, kHandled, 9, {{kAccess, 1}}, "", false},
      {RunInner, outer, 0, 0, {{kAccess, 1}, {kAccess, 2}}, "", false},
      {Write, rec, kHandled, 0, {{kAccess, 1}}, "", false},  // the inner frame is gone
      {Read, rec, 0x200 | kHandled, 0, {{kAccess, 1}}, "", false},
      {Read, rec, file, 0, {{kAccess, 1}}, AccessReport("read"), true},
      {Write, nullptr, kHandled, 0, {}, AccessReport("write"), true},
#if defined(__x86_64__)
      {Breakpoint, rec, QK_EXCEPTION_CONTINUE, 7, {{QK_EXCEPTION_BREAKPOINT, 1}}, "", false},
#endif
    };
    std::string log = "<missing>";
    for (const auto &[function, handler, answer, result, calls, report, logged] : cases) {
        std::string written = Report(function, handler, answer, result);
        EXPECT_EQ(Masked(written), report);
        EXPECT_EQ(Recorded(), calls) << "answer " << answer;
        EXPECT_EQ(ReadWhole(directory.log), log = logged ? written : log);
    }
    struct stat info;
    ASSERT_EQ(stat(directory.log.c_str(), &info), 0);
    EXPECT_EQ(std::tuple(info.st_mode & 0777 & ~0644u, info.st_mode & 0600), std::tuple(0u, 0600u));
    // Without a handler: the global one.
    QKSetGlobalExceptionHandler(RecordingHandler);
    EXPECT_EQ(Report(Read, nullptr, kHandled, 0), "");
    QKSetGlobalExceptionHandler(nullptr);
    EXPECT_EQ(Recorded(), (Calls{{kAccess, 1}}));
    // The thread's last state, with its place and age, follows the explanation;
    // the address of the fault is the instruction pointer.
    int line = __LINE__ + 1;
    QKState("loading %s %d", "index", 12);
    std::string report = Report(DivideByZero, RecordingHandler, kReport, 0);
    QKStateClear();
    EXPECT_EQ(
        Masked(report),
        "A fatal exception 0xC0000094 (INT_DIVIDE_BY_ZERO) occured at # in frametest. The "
        "thread tried to divide an integer value by an integer divisor of zero.\n\nLast thread "
        "state: loading index 12\n  at " +
            std::string(__FILE__) + ":" + std::to_string(line) + "\n  # us ago.\n\n" + Registers());
#if defined(__x86_64__)
    EXPECT_TRUE(
        std::regex_search(report, std::regex("at (0x[0-9A-F]{16}) in[\\s\\S]*\tRip: \\1\t")));
#endif
}

// ---- Threads and stack overflow ----

// Threads catch their own faults, stack overflows among them, twice in a
// row: the alternate stack survives the first.
TEST_F(CrashTest, EachThreadCatchesItsOwnFaults) {
    std::atomic<int> wrong{0};
    RunAtOnce(4, [&wrong](int t) {
        const QKProtectedFunction faults[] = {DivideByZero, Write, Overflow};
        const UInt codes[] = {kDivide, kAccess, QK_EXCEPTION_STACK_OVERFLOW};
        Calls expected;
        for (int i = 0; i < 52; i++) {
            int kind = i >= 50 ? 2 : (i + t) % 2;
            wrong += QKRunProtected(faults[kind], nullptr, RecordingHandler) != 0;
            expected.push_back({codes[kind], 1});
        }
        wrong += Recorded() != expected;
    });
    EXPECT_EQ(wrong, 0);
}

// ---- The unhandled path, in a child process ----

const QKExceptionHandler kReportHandled = [](UInt, Int) -> UInt { return kReport; };
const QKExceptionHandler kPassOn = [](UInt, Int) -> UInt { return QK_EXCEPTION_REPORT; };
const QKExceptionHandler kNothing = [](UInt, Int) -> UInt { return 0; };

// The child: the library's filter, crash files in the
// directory the parent made, `global` as the global handler (none: the
// default one), then `fault`.
[[noreturn]] void Child(QKExceptionHandler global, void (*fault)()) {
    QKLibInit("crash_child");
    QKRunProtectedSetPath(getenv("QK_CRASH_TEST_DIR"));
    QKSetGlobalExceptionHandler(global);
    fault();
    _exit(0);
}

// A pattern for the start of a child's report of `code` and `name`.
std::string ChildReport(const char *code, const char *name) {
    return std::string("A fatal exception 0x") + code + " \\(" + name +
           "\\) occured at 0x[0-9A-F]{16} in crash_child";
}

TEST(CrashUnhandledDeathTest, TheGlobalHandlerDecidesHowTheProcessEnds) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // No core files from the children. Each child re-runs this test up to
    // its statement: it finds the directory made by the parent in the
    // environment.
    struct rlimit core, none = {0, 0};
    getrlimit(RLIMIT_CORE, &core), setrlimit(RLIMIT_CORE, &none);
    char path[] = "/tmp/qkcrash_child_XXXXXX";
    ASSERT_TRUE(getenv("QK_CRASH_TEST_DIR") || !setenv("QK_CRASH_TEST_DIR", mkdtemp(path), 1));
    const std::string directory = getenv("QK_CRASH_TEST_DIR"), log = directory + "/ERRORLOG.TXT";
    const auto segv = testing::ExitedWithCode(128 + SIGSEGV);
    const std::string access = ChildReport("C0000005", "ACCESS_VIOLATION") + " : bad ",
                      badWrite = access + "write at 0x0{16}\\. The thread tried to read from";
    // Each row: the global handler, the fault, how the process ends and what
    // it writes.
    const std::tuple<QKExceptionHandler, void (*)(), std::function<bool(int)>, std::string>
        cases[] = {
            // The default handler reports, also to the log file, and ends the
            // process quietly.
            {nullptr, [] { Write(nullptr); }, segv, badWrite},
            // Passed on: the system's default action.
            {kPassOn, [] { DivideByZero(nullptr); }, testing::KilledBySignal(SIGFPE),
             ChildReport("C0000094", "INT_DIVIDE_BY_ZERO") + "\\. "},
            // A protected call that passes on reaches the global handler; the
            // report seen is the global handler's.
            {kReportHandled, [] { QKRunProtected(Read, nullptr, kNothing); }, segv,
             access + "read at 0x0{16}\\. "},
            {kReportHandled, [] { Overflow(nullptr); }, segv,
             ChildReport("C00000FD", "STACK_OVERFLOW") + "\\. The thread used up its stack\\.\n"},
        };
    for (const auto &[global, fault, ends, text] : cases)
        EXPECT_EXIT(Child(global, fault), ends, text);
    // Without the library's filter (no QKLibInit), a fault that no protected
    // call takes goes to the handler that was there before.
    EXPECT_EXIT((signal(SIGSEGV, [](int) { _exit(42); }), QKRunProtected(Write, nullptr, kPassOn)),
                testing::ExitedWithCode(42), "ACCESS_VIOLATION");
    // Checked last: the children run the test up to their statements.
    EXPECT_TRUE(std::regex_search(ReadWhole(log), std::regex("^" + badWrite))) << ReadWhole(log);
    std::filesystem::remove_all(directory);
    unsetenv("QK_CRASH_TEST_DIR");
    setrlimit(RLIMIT_CORE, &core);
}

// ---- Memory counters ----

TEST_F(CrashTest, MemoryCountersInBytes) {
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

}  // namespace
