// Messages and their default lines, the state of a thread, its name, the
// program name, version and the ending hooks.
#include <sys/utsname.h>

#include <regex>

#include "frame/frame_test.h"

namespace {

// Collects what the default handler writes on one of its two streams.
struct StreamCapture {
    int which;
    FILE *file = tmpfile();
    explicit StreamCapture(int which) : which(which) { QKSetMessageStream(which, file); }
    ~StreamCapture() { QKSetMessageStream(which, nullptr), fclose(file); }
    std::string Text() const { return ReadWhole("/proc/self/fd/" + std::to_string(fileno(file))); }
};

using MessageTest = FrameTest;

// Levels below 3 go to the output stream, the others to the error stream
// after the program name and the source position, which a leading colon
// hides; level 2 has a time stamp; the text of the pending error follows
// where asked for.
TEST_F(MessageTest, DefaultHandlerLines) {
    const std::tuple<int, int, std::function<void()>, std::string, std::string> cases[] = {
        {3, 0, [] { QKMessage_("cannot open %s", "x.dat"); }, "",
         R"(frametest: "message\.cpp:77": cannot open x\.dat\r\n)"},
        {3, 0, [] { QKMessage_(":unknown version: %u.%u", 7u, 1u); }, "",
         R"(frametest: unknown version: 7\.1\r\n)"},
        {0, 0, [] { QKMessage_(":stat %I64u", 1ull << 40); }, R"(:stat 1099511627776\r\n)", ""},
        {2, 0, [] { QKMessage_(":progress"); },
         R"(\[\d{4}/\d{2}/\d{2}-\d{2}:\d{2}:\d{2}\] :progress\r\n)", ""},
        {3, 1, [] { QKSetLastError(ENOENT), errno = -1, QKMessage_(":open failed"); }, "",
         std::string("frametest: open failed: ") + strerror(ENOENT) + "\r\n"},
    };
    for (const auto &[level, showError, emit, out, err] : cases) {
        StreamCapture outCapture(0), errCapture(1);
        QKSetMessageContext_("/src\\frame/message.cpp", 77, level, showError);
        emit();
        EXPECT_TRUE(std::regex_match(outCapture.Text(), std::regex(out))) << outCapture.Text();
        EXPECT_TRUE(std::regex_match(errCapture.Text(), std::regex(err))) << errCapture.Text();
    }
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(ENOENT, 1));  // the error stays
    EXPECT_EQ(std::tuple(QKGetMessageStream(0), QKGetMessageStream(1), QKGetMessageStream(5)),
              std::tuple(stdout, stderr, stderr));
}

// A thread's state, cut to 1023 bytes, and its name, cut to 255 bytes; the
// place of the state is seen in the crash report.
TEST_F(MessageTest, StateAndNameOfAThread) {
    std::thread([] {
        EXPECT_EQ(QKGetState(), nullptr);
        QKStateClear();  // a thread without a state
        QKState("%s", std::string(2000, 'z').c_str());
        const MessageState *state = QKGetState();
        ASSERT_NE(state, nullptr);
        EXPECT_EQ(Text(state->text) + (char)state->text.data[1023], std::string(1023, 'z') + '\0');
        // Microseconds since 1601: later than 2020 in that count.
        EXPECT_GT(state->stateTime, 13222310400000000ull);
        QKStateClear();
        EXPECT_EQ(QKGetState(), nullptr);
        // The name starts as the thread's identifier; the kernel's copy is
        // 15 bytes long.
        EXPECT_EQ(std::string(ThreadGetName()), std::to_string(ThreadId()));
        std::string longName = "worker-with-long-nam" + std::string(280, 'n');
        ThreadSetName(longName.c_str());
        EXPECT_EQ(std::string(ThreadGetName()), longName.substr(0, 255));
        char kernelName[32] = {0};
        pthread_getname_np(pthread_self(), kernelName, sizeof kernelName);
        EXPECT_STREQ(kernelName, "worker-with-lon");
        ThreadSetRefTime(123456789ull);
        EXPECT_EQ(ThreadGetRefTime(), 123456789ull);
    }).join();
}

// The program name is the base name after either separator, 260 bytes at
// most; none keeps it. Starts racing from several threads all return
// started.
TEST_F(MessageTest, ProgramNameVersionAndSystem) {
    const std::string longName = "/dir/" + std::string(300, 'p');
    for (auto [name, expected] : {std::pair("C:\\tools\\bin/sub\\crawler.exe", "crawler.exe"),
                                  {nullptr, "crawler.exe"},
                                  {longName.c_str(), longName.c_str() + 45}}) {
        QKLibInit(name);
        EXPECT_STREQ(QKProgramName(), expected);
    }
    const char *version = QKVersionBranch() ? "4.5.68.23" : "4.5.68";
    EXPECT_EQ(
        std::tuple(QKVersionMajor(), QKVersionMinor(), QKVersionBuild(), QKVersionBranchBuild()),
        std::tuple(4, 5, 68, 23));
    EXPECT_STREQ(QKVersionString(), version);
    RunAtOnce(8, [&](int) {
        QKLibInit(nullptr);
        EXPECT_STREQ(QKVersionString(), version);
    });
#if defined(__x86_64__)
    EXPECT_STREQ(QKArchitecture(), "x86_64-linux");
#endif
    struct utsname name;
    ASSERT_EQ(uname(&name), 0);
    const std::string release = name.release, kernel = KernelVersionString(),
                      major = std::to_string(KernelVersionMajor());
    EXPECT_TRUE(release.rfind(major + "." + std::to_string(KernelVersionMinor()) + ".", 0) == 0 &&
                kernel.rfind(name.sysname + (" " + release) + " (build ", 0) == 0)
        << kernel;
    char host[256];
    EXPECT_TRUE(gethostname(host, sizeof host) == 0 && strcmp(HostName(), host) == 0);
    EXPECT_GE(GetProcessUptime(), 0);
}

// QKExit goes through its hook; a fatal message ends the process even if
// the handler returns; an assertion writes its expression.
TEST_F(MessageTest, ExitFatalMessagesAndAssertions) {
    static int exitStatus = -1;
    QKSetExit([](int status) { exitStatus = status; });
    QKExit(3);
    EXPECT_EQ(exitStatus, 3);
    QKSetExit(exit);
    auto noisy = [](const char *expression, const char *file, int line) {
        fprintf(stderr, "abort hook: %s at %s:%d\n", expression, file ? "file" : "none", line > 0);
    };
    EXPECT_EXIT(
        {
            QKSetAbort(noisy);
            QKSetMessageHandler([](const char *, int, int, int, const char *, va_list) {});
            QKFatal("going down");
        },
        ::testing::ExitedWithCode(1), "abort hook: message handler at file:1");
    EXPECT_EXIT(QKFatal("fatal %d", 9), ::testing::ExitedWithCode(1),
                "frametest: \"message_test.cpp:[0-9]+\": fatal 9");
    EXPECT_DEATH(
        {
            QKSetAbort(noisy);
            int two = 2;
            qkassert(two == 3);
        },
        "'two == 3' failed at .*message_test.cpp:[0-9]+\nabort hook: two == 3 at file:1");
}

}  // namespace
