// Crash capture: protected calls, the crash report and its outputs, nesting,
// the unhandled path in a child process, and the memory counters.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
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

int *volatile nullTarget = nullptr;
int *volatile smallTarget = reinterpret_cast<int *>(0x10);
volatile int zeroDivisor = 0;
volatile int dividend = 17;
volatile int stopDepth = -1;

QK_FAULTY intptr_t WriteNull(void *) {
    *nullTarget = 1;
    return 5;
}

QK_FAULTY intptr_t ReadNull(void *) {
    return *nullTarget;
}

QK_FAULTY intptr_t WriteSmall(void *) {
    *smallTarget = 1;
    return 5;
}

QK_FAULTY intptr_t DivideByZero(void *) {
    return dividend / zeroDivisor;
}

intptr_t AddOne(void *argument) {
    return *static_cast<intptr_t *>(argument) + 1;
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

// What handlers saw. They run inside the signal handler, so the record
// must not allocate.
template <typename T>
class FixedLog {
  public:
    void push_back(const T &value) {
        if (count_ < kCapacity) items_[count_++] = value;
    }
    void clear() { count_ = 0; }
    size_t size() const { return count_; }
    bool empty() const { return count_ == 0; }
    const T &operator[](size_t i) const { return items_[i]; }
    const T *begin() const { return items_; }
    const T *end() const { return items_ + count_; }

  private:
    static constexpr size_t kCapacity = 256;
    T items_[kCapacity];
    size_t count_ = 0;
};

// A handler that records what it was called with and answers `answer`.
struct HandlerLog {
    FixedLog<std::pair<UInt, Int>> calls;
    UInt answer = QK_EXCEPTION_HANDLED;
};
thread_local HandlerLog handlerLog;

UInt RecordingHandler(UInt code, Int argument) {
    handlerLog.calls.push_back({code, argument});
    return handlerLog.answer;
}

void ResetHandlerLog(UInt answer) {
    handlerLog.calls.clear();
    handlerLog.answer = answer;
}

// Catches what is written on file descriptor 2 while it lives.
class StderrCapture {
  public:
    StderrCapture() {
        fflush(stderr);
        char path[] = "/tmp/qkcrash_stderr_XXXXXX";
        fd_ = mkstemp(path);
        unlink(path);
        saved_ = dup(2);
        dup2(fd_, 2);
    }
    ~StderrCapture() { Finish(); }

    std::string Finish() {
        if (fd_ < 0) return text_;
        dup2(saved_, 2);
        close(saved_);
        lseek(fd_, 0, SEEK_SET);
        char buffer[4096];
        ssize_t n;
        while ((n = read(fd_, buffer, sizeof buffer)) > 0) text_.append(buffer, (size_t)n);
        close(fd_);
        fd_ = -1;
        return text_;
    }

  private:
    int fd_ = -1;
    int saved_ = -1;
    std::string text_;
};

std::string ReadFile(const std::string &path) {
    std::string text;
    int fd = open(path.c_str(), O_RDONLY);
    if (fd < 0) return text;
    char buffer[4096];
    ssize_t n;
    while ((n = read(fd, buffer, sizeof buffer)) > 0) text.append(buffer, (size_t)n);
    close(fd);
    return text;
}

bool FileExists(const std::string &path) {
    return access(path.c_str(), F_OK) == 0;
}

// A fresh directory for crash files, removed with what it holds.
class CrashDirectory {
  public:
    CrashDirectory() {
        char path[] = "/tmp/qkcrash_dir_XXXXXX";
        path_ = mkdtemp(path);
    }
    ~CrashDirectory() {
        unlink(LogPath().c_str());
        rmdir(path_.c_str());
        QKRunProtectedSetPath(".");
    }
    const std::string &Path() const { return path_; }
    std::string LogPath() const { return path_ + "/ERRORLOG.TXT"; }

  private:
    std::string path_;
};

// The value after "<name>: 0x" in a report, or "" when absent.
std::string RegisterValue(const std::string &report, const std::string &name) {
    size_t at = report.find(name + ": 0x");
    if (at == std::string::npos) return "";
    return report.substr(at + name.size() + 4, 16);
}

bool IsUpperHex(const std::string &text, size_t length) {
    if (text.size() != length) return false;
    for (char c : text) {
        if (!((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'))) return false;
    }
    return true;
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

std::string CrashReportOf(QKProtectedFunction function, UInt answer) {
    ResetHandlerLog(answer);
    StderrCapture capture;
    intptr_t result = QKRunProtected(function, nullptr, RecordingHandler);
    std::string text = capture.Finish();
    EXPECT_EQ(0, result);
    return text;
}

}  // namespace

// ---- Protected calls ----

TEST(CrashProtected, ReturnsTheFunctionsResult) {
    intptr_t value = 41;
    ResetHandlerLog(QK_EXCEPTION_HANDLED);
    EXPECT_EQ(42, QKRunProtected(AddOne, &value, RecordingHandler));
    EXPECT_TRUE(handlerLog.calls.empty());
}

TEST(CrashProtected, NullWriteIsCaughtAndTheProgramGoesOn) {
    ResetHandlerLog(QK_EXCEPTION_HANDLED);
    StderrCapture capture;
    EXPECT_EQ(0, QKRunProtected(WriteNull, nullptr, RecordingHandler));
    // Without the report bit nothing is written.
    EXPECT_EQ("", capture.Finish());
    ASSERT_EQ(1u, handlerLog.calls.size());
    EXPECT_EQ(QK_EXCEPTION_ACCESS_VIOLATION, handlerLog.calls[0].first);
    EXPECT_EQ(1, handlerLog.calls[0].second);

    // The thread is usable afterwards, faults included.
    intptr_t value = 1;
    EXPECT_EQ(2, QKRunProtected(AddOne, &value, RecordingHandler));
    EXPECT_EQ(0, QKRunProtected(WriteNull, nullptr, RecordingHandler));
    EXPECT_EQ(2u, handlerLog.calls.size());
}

TEST(CrashProtected, IntegerDivisionByZero) {
    std::string report = CrashReportOf(DivideByZero, QK_EXCEPTION_REPORT | QK_EXCEPTION_HANDLED);
    ASSERT_EQ(1u, handlerLog.calls.size());
    EXPECT_EQ(QK_EXCEPTION_INT_DIVIDE_BY_ZERO, handlerLog.calls[0].first);
    EXPECT_EQ(0u, report.find("A fatal exception 0xC0000094 (INT_DIVIDE_BY_ZERO) occured at 0x"))
        << report;
    EXPECT_NE(std::string::npos,
              report.find(". The thread tried to divide an integer value by an integer divisor "
                          "of zero.\n"));
    // Only an access violation tells the address.
    EXPECT_EQ(std::string::npos, report.find(" : bad "));
}

TEST(CrashProtected, HandlerAnsweringTwoIsCalledAgain) {
    ResetHandlerLog(QK_EXCEPTION_HANDLED_AGAIN);
    EXPECT_EQ(0, QKRunProtected(WriteNull, nullptr, RecordingHandler));
    ASSERT_EQ(2u, handlerLog.calls.size());
    EXPECT_EQ(QK_EXCEPTION_ACCESS_VIOLATION, handlerLog.calls[0].first);
    EXPECT_EQ(0u, handlerLog.calls[1].first);
    EXPECT_EQ(1, handlerLog.calls[1].second);

    // Only the word 2 itself asks for it, not 2 with report bits.
    std::string report = CrashReportOf(WriteNull, QK_EXCEPTION_REPORT | QK_EXCEPTION_HANDLED_AGAIN);
    EXPECT_EQ(1u, handlerLog.calls.size());
    EXPECT_NE(std::string::npos, report.find("(ACCESS_VIOLATION)"));
}

#if defined(__x86_64__)
intptr_t Breakpoint(void *) {
    __asm__ volatile("int3");
    return 7;
}

TEST(CrashProtected, ContinueResumesAfterABreakpoint) {
    ResetHandlerLog(QK_EXCEPTION_CONTINUE);
    EXPECT_EQ(7, QKRunProtected(Breakpoint, nullptr, RecordingHandler));
    ASSERT_EQ(1u, handlerLog.calls.size());
    EXPECT_EQ(QK_EXCEPTION_BREAKPOINT, handlerLog.calls[0].first);
}
#endif

// ---- Nesting ----

struct NestedCall {
    QKExceptionHandler innerHandler;
    QKProtectedFunction innerFunction;
    bool afterInner = false;
};

FixedLog<const char *> nestedOrder;
UInt InnerPassesOn(UInt, Int) {
    nestedOrder.push_back("inner");
    return 0;
}
UInt InnerHandles(UInt, Int) {
    nestedOrder.push_back("inner");
    return QK_EXCEPTION_HANDLED;
}
UInt OuterHandles(UInt code, Int) {
    nestedOrder.push_back(code == QK_EXCEPTION_ACCESS_VIOLATION ? "outer" : "outer?");
    return QK_EXCEPTION_HANDLED;
}

intptr_t RunInner(void *argument) {
    auto *call = static_cast<NestedCall *>(argument);
    QKRunProtected(call->innerFunction, nullptr, call->innerHandler);
    call->afterInner = true;
    return 9;
}

TEST(CrashNesting, InnerPassingOnLetsTheOuterCallCatch) {
    nestedOrder.clear();
    NestedCall call{InnerPassesOn, WriteNull, false};
    EXPECT_EQ(0, QKRunProtected(RunInner, &call, OuterHandles));
    EXPECT_FALSE(call.afterInner);
    ASSERT_EQ(2u, nestedOrder.size());
    EXPECT_STREQ("inner", nestedOrder[0]);
    EXPECT_STREQ("outer", nestedOrder[1]);

    // The inner frame is gone: the next fault reaches the handler given.
    ResetHandlerLog(QK_EXCEPTION_HANDLED);
    EXPECT_EQ(0, QKRunProtected(WriteNull, nullptr, RecordingHandler));
    EXPECT_EQ(1u, handlerLog.calls.size());
    EXPECT_EQ(2u, nestedOrder.size());
}

TEST(CrashNesting, InnerHandlingLetsTheOuterFunctionFinish) {
    nestedOrder.clear();
    NestedCall call{InnerHandles, WriteNull, false};
    EXPECT_EQ(9, QKRunProtected(RunInner, &call, OuterHandles));
    EXPECT_TRUE(call.afterInner);
    ASSERT_EQ(1u, nestedOrder.size());
    EXPECT_STREQ("inner", nestedOrder[0]);
}

// ---- Handlers ----

UInt GlobalRecording(UInt code, Int argument) {
    return RecordingHandler(code, argument);
}

TEST(CrashHandlers, AbsentHandlerMeansTheGlobalOne) {
    ResetHandlerLog(QK_EXCEPTION_HANDLED);
    QKSetGlobalExceptionHandler(GlobalRecording);
    EXPECT_EQ(0, QKRunProtected(ReadNull, nullptr, nullptr));
    QKSetGlobalExceptionHandler(nullptr);
    ASSERT_EQ(1u, handlerLog.calls.size());
    EXPECT_EQ(QK_EXCEPTION_ACCESS_VIOLATION, handlerLog.calls[0].first);
}

TEST(CrashHandlers, DefaultHandlerReportsToStderrAndFile) {
    CrashDirectory directory;
    QKRunProtectedSetPath(directory.Path().c_str());
    QKSetGlobalExceptionHandler(nullptr);
    StderrCapture capture;
    EXPECT_EQ(0, QKRunProtected(WriteNull, nullptr, nullptr));
    std::string report = capture.Finish();
    EXPECT_EQ(0u, report.find("A fatal exception 0xC0000005 (ACCESS_VIOLATION)")) << report;
    EXPECT_EQ(report, ReadFile(directory.LogPath()));
}

// ---- The report ----

TEST(CrashReport, AccessViolationText) {
    QKStateClear();
    std::string report = CrashReportOf(WriteNull, QK_EXCEPTION_REPORT | QK_EXCEPTION_HANDLED);
    const std::string prefix = "A fatal exception 0xC0000005 (ACCESS_VIOLATION) occured at 0x";
    ASSERT_EQ(0u, report.find(prefix)) << report;
    std::string where = report.substr(prefix.size(), 16);
    EXPECT_TRUE(IsUpperHex(where, 16)) << where;
    std::string rest = report.substr(prefix.size() + 16);
    std::string expected = std::string(" in ") + QKProgramName() +
                           " : bad write at 0x0000000000000000. " + kAccessExplanation +
                           "\n\nLast thread state: no state found.\n\n";
    EXPECT_EQ(0u, rest.find(expected)) << report;

#if defined(__x86_64__)
    // The address of the fault is the instruction pointer of the context.
    EXPECT_EQ(where, RegisterValue(report, "Rip"));
    const char *names[] = {"SegGs", "SegFs", "Rdi", "Rsi", "Rbx",   "Rdx",    "Rcx",
                           "Rax",   "R8",    "R9",  "R10", "R11",   "R12",    "R13",
                           "R14",   "R15",   "Rbp", "Rip", "SegCs", "EFlags", "Rsp"};
    for (const char *name : names) {
        EXPECT_TRUE(IsUpperHex(RegisterValue(report, name), 16)) << name << "\n" << report;
    }
    // Pairs, each value followed by a tab, each pair on its own line.
    size_t registers = report.find("\nSegGs: 0x");
    ASSERT_NE(std::string::npos, registers);
    EXPECT_NE(std::string::npos,
              report.find("\tSegFs: 0x" + RegisterValue(report, "SegFs") + "\t\nRdi: 0x"));
    EXPECT_NE(std::string::npos, report.find("\tRip: 0x" + where + "\t\nSegCs: 0x"));
    EXPECT_EQ('\n', report.back());
    int lines = 0;
    for (size_t i = registers + 1; i < report.size(); i++) lines += report[i] == '\n';
    EXPECT_EQ(11, lines) << report;
#endif
}

TEST(CrashReport, ReadAndAddressOfTheAccess) {
    std::string report = CrashReportOf(ReadNull, QK_EXCEPTION_REPORT | QK_EXCEPTION_HANDLED);
    EXPECT_NE(std::string::npos, report.find(" : bad read at 0x0000000000000000. ")) << report;
    report = CrashReportOf(WriteSmall, QK_EXCEPTION_REPORT | QK_EXCEPTION_HANDLED);
    EXPECT_NE(std::string::npos, report.find(" : bad write at 0x0000000000000010. ")) << report;
}

TEST(CrashReport, LastThreadState) {
    int line = __LINE__ + 1;
    QKState("loading %s %d", "index", 12);
    std::string report = CrashReportOf(WriteNull, QK_EXCEPTION_REPORT | QK_EXCEPTION_HANDLED);
    QKStateClear();
    std::string expected = std::string("\n\nLast thread state: loading index 12\n  at ") +
                           __FILE__ + ":" + std::to_string(line) + "\n  ";
    size_t at = report.find(expected);
    ASSERT_NE(std::string::npos, at) << report;
    size_t digits = at + expected.size();
    size_t end = report.find(" us ago.\n", digits);
    ASSERT_NE(std::string::npos, end) << report;
    std::string elapsed = report.substr(digits, end - digits);
    ASSERT_FALSE(elapsed.empty());
    EXPECT_EQ(std::string::npos, elapsed.find_first_not_of("0123456789")) << elapsed;
    // Cleared again: no state.
    report = CrashReportOf(WriteNull, QK_EXCEPTION_REPORT | QK_EXCEPTION_HANDLED);
    EXPECT_NE(std::string::npos, report.find("\nLast thread state: no state found.\n"));
}

TEST(CrashReport, LogFileOnlyWhenBothBitsAreSet) {
    CrashDirectory directory;
    QKRunProtectedSetPath(directory.Path().c_str());

    std::string report = CrashReportOf(WriteNull, QK_EXCEPTION_REPORT | QK_EXCEPTION_HANDLED);
    EXPECT_FALSE(report.empty());
    EXPECT_FALSE(FileExists(directory.LogPath()));

    // The file bit alone writes nothing at all.
    report = CrashReportOf(WriteNull, 0x200 | QK_EXCEPTION_HANDLED);
    EXPECT_TRUE(report.empty());
    EXPECT_FALSE(FileExists(directory.LogPath()));

    report = CrashReportOf(DivideByZero, QK_EXCEPTION_REPORT_FILE | QK_EXCEPTION_HANDLED);
    EXPECT_EQ(report, ReadFile(directory.LogPath()));
    struct stat info;
    ASSERT_EQ(0, stat(directory.LogPath().c_str(), &info));
    EXPECT_EQ(0u, info.st_mode & 0777 & ~0644u);
    EXPECT_EQ(0600u, info.st_mode & 0600);

    // Created anew: a second report replaces the first.
    report = CrashReportOf(WriteNull, QK_EXCEPTION_REPORT_FILE | QK_EXCEPTION_HANDLED);
    EXPECT_EQ(report, ReadFile(directory.LogPath()));
    EXPECT_NE(std::string::npos, report.find("(ACCESS_VIOLATION)"));
}

// ---- Threads and stack overflow ----

TEST(CrashThreads, EachThreadCatchesItsOwnFaults) {
    std::atomic<int> caught{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([&caught, t] {
            ResetHandlerLog(QK_EXCEPTION_HANDLED);
            for (int i = 0; i < 50; i++) {
                QKProtectedFunction function = (i + t) % 2 ? WriteNull : DivideByZero;
                if (QKRunProtected(function, nullptr, RecordingHandler) == 0) caught++;
            }
            for (size_t i = 0; i < handlerLog.calls.size(); i++) {
                UInt expected =
                    (i + t) % 2 ? QK_EXCEPTION_ACCESS_VIOLATION : QK_EXCEPTION_INT_DIVIDE_BY_ZERO;
                if (handlerLog.calls[i].first != expected) caught -= 1000;
            }
        });
    }
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(200, caught.load());
}

void *OverflowThread(void *argument) {
    auto *codes = static_cast<std::vector<UInt> *>(argument);
    ResetHandlerLog(QK_EXCEPTION_HANDLED);
    intptr_t first = QKRunProtected(Overflow, nullptr, RecordingHandler);
    // The alternate stack survives: a second overflow is caught as well.
    intptr_t second = QKRunProtected(Overflow, nullptr, RecordingHandler);
    if (first == 0 && second == 0) {
        for (auto &call : handlerLog.calls) codes->push_back(call.first);
    }
    return nullptr;
}

TEST(CrashThreads, StackOverflowInAThread) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, 256 * 1024);
    std::vector<UInt> codes;
    pthread_t thread;
    ASSERT_EQ(0, pthread_create(&thread, &attributes, OverflowThread, &codes));
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
    ASSERT_EQ(2u, codes.size());
    EXPECT_EQ(QK_EXCEPTION_STACK_OVERFLOW, codes[0]);
    EXPECT_EQ(QK_EXCEPTION_STACK_OVERFLOW, codes[1]);
}

// ---- The unhandled path, in a child process ----

namespace {

UInt AnswerHandled(UInt, Int) {
    return QK_EXCEPTION_REPORT | QK_EXCEPTION_HANDLED;
}
UInt AnswerPassOn(UInt, Int) {
    return QK_EXCEPTION_REPORT;
}
UInt AnswerNothing(UInt, Int) {
    return 0;
}

void StartChild() {
    struct rlimit none = {0, 0};
    setrlimit(RLIMIT_CORE, &none);
    QKLibInit("crash_child");
}

std::string ChildReportPattern(const char *code, const char *name, const char *access) {
    return Literal(std::string("A fatal exception 0x") + code + " (" + name + ") occured at 0x") +
           "[0-9A-F]{16}" + Literal(std::string(" in crash_child") + access + ". ");
}

}  // namespace

TEST(CrashUnhandledDeathTest, HandledEndsTheProcessQuietly) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            StartChild();
            QKSetGlobalExceptionHandler(AnswerHandled);
            WriteNull(nullptr);
            _exit(0);
        },
        testing::ExitedWithCode(128 + SIGSEGV),
        ChildReportPattern("C0000005", "ACCESS_VIOLATION", " : bad write at 0x0000000000000000") +
            Literal(kAccessExplanation));
}

TEST(CrashUnhandledDeathTest, PassingOnGivesTheSystemsDefaultAction) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            StartChild();
            QKSetGlobalExceptionHandler(AnswerPassOn);
            DivideByZero(nullptr);
            _exit(0);
        },
        testing::KilledBySignal(SIGFPE), ChildReportPattern("C0000094", "INT_DIVIDE_BY_ZERO", ""));
}

TEST(CrashUnhandledDeathTest, ProtectedCallPassingOnReachesTheGlobalHandler) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // The protected call's handler asks for no report; the one seen is the
    // global handler's.
    EXPECT_EXIT(
        {
            StartChild();
            QKSetGlobalExceptionHandler(AnswerHandled);
            QKRunProtected(ReadNull, nullptr, AnswerNothing);
            _exit(0);
        },
        testing::ExitedWithCode(128 + SIGSEGV),
        ChildReportPattern("C0000005", "ACCESS_VIOLATION", " : bad read at 0x0000000000000000"));
}

TEST(CrashUnhandledDeathTest, DefaultHandlerWritesTheLogFile) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // The child re-runs this test up to the statement: it finds the
    // directory made by the parent in the environment.
    const char *inherited = getenv("QK_CRASH_TEST_DIR");
    std::string directory;
    if (inherited) {
        directory = inherited;
    } else {
        char path[] = "/tmp/qkcrash_child_XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(path));
        directory = path;
        setenv("QK_CRASH_TEST_DIR", path, 1);
    }
    EXPECT_EXIT(
        {
            StartChild();
            QKRunProtectedSetPath(directory.c_str());
            WriteNull(nullptr);
            _exit(0);
        },
        testing::ExitedWithCode(128 + SIGSEGV),
        ChildReportPattern("C0000005", "ACCESS_VIOLATION", " : bad write at 0x0000000000000000"));
    unsetenv("QK_CRASH_TEST_DIR");
    std::string log = ReadFile(directory + "/ERRORLOG.TXT");
    EXPECT_EQ(0u, log.find("A fatal exception 0xC0000005 (ACCESS_VIOLATION) occured at 0x")) << log;
    EXPECT_NE(std::string::npos, log.find(" in crash_child : bad write at 0x0000000000000000. "));
    unlink((directory + "/ERRORLOG.TXT").c_str());
    rmdir(directory.c_str());
}

TEST(CrashUnhandledDeathTest, StackOverflowOfTheMainThread) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            StartChild();
            QKSetGlobalExceptionHandler(AnswerHandled);
            Overflow(nullptr);
            _exit(0);
        },
        testing::ExitedWithCode(128 + SIGSEGV),
        ChildReportPattern("C00000FD", "STACK_OVERFLOW", "") +
            Literal("The thread used up its stack.\n"));
}

// Without the library's filter (no QKLibInit), a fault that no protected
// call takes goes to the handler that was there before.
void PreviousHandler(int) {
    _exit(42);
}

TEST(CrashUnhandledDeathTest, WithoutTheFilterTheFormerHandlerRuns) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            struct rlimit none;
            none.rlim_cur = none.rlim_max = 0;
            setrlimit(RLIMIT_CORE, &none);
            signal(SIGSEGV, PreviousHandler);
            QKRunProtected(WriteNull, nullptr, AnswerPassOn);
            _exit(0);
        },
        testing::ExitedWithCode(42), "ACCESS_VIOLATION");
}

// ---- Memory counters ----

TEST(CrashMemStats, CountersInBytes) {
    char buffer[512];
    QKDumpMemStats(buffer, sizeof buffer);
    long peakSet = -1, set = -1, peakPaged = -1, paged = -1, peakNonPaged = -1, nonPaged = -1,
         pagefile = -1, peakPagefile = -1;
    ASSERT_EQ(8, sscanf(buffer,
                        "PeakWorkingSetSize=%ld, WorkingSetSize=%ld, "
                        "QuotaPeakPagedPoolUsage=%ld, QuotaPagedPoolUsage=%ld, "
                        "QuotaPeakNonPagedPoolUsage=%ld, QuotaNonPagedPoolUsage=%ld, "
                        "PagefileUsage=%ld, PeakPagefileUsage=%ld",
                        &peakSet, &set, &peakPaged, &paged, &peakNonPaged, &nonPaged, &pagefile,
                        &peakPagefile))
        << buffer;
    EXPECT_GT(set, 0);
    EXPECT_EQ(0, set % 1024);
    EXPECT_LE(set, peakSet);
    EXPECT_EQ(paged, peakPaged);
    EXPECT_EQ(nonPaged, peakNonPaged);
    EXPECT_LE(pagefile, peakPagefile);
    EXPECT_GE(pagefile, set);

    char small[10];
    QKDumpMemStats(small, sizeof small);
    EXPECT_STREQ("PeakWorki", small);
}
