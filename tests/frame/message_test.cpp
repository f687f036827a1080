// Messages, the state of a thread, the program name, version and hooks.
#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <atomic>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "qk/qkcommon.h"

namespace {

// Collects what the default handler writes on one of its two streams.
class StreamCapture {
  public:
    explicit StreamCapture(int which) : which_(which), file_(tmpfile()) {
        QKSetMessageStream(which_, file_);
    }
    ~StreamCapture() {
        QKSetMessageStream(which_, nullptr);
        fclose(file_);
    }
    std::string Text() {
        fflush(file_);
        std::string text;
        rewind(file_);
        char chunk[512];
        size_t n;
        while ((n = fread(chunk, 1, sizeof chunk, file_)) > 0) text.append(chunk, n);
        return text;
    }

  private:
    int which_;
    FILE *file_;
};

class MessageTest : public ::testing::Test {
  protected:
    void SetUp() override { QKLibInit("msgtest"); }
    void TearDown() override { QKSetMessageHandler(nullptr); }
};

TEST_F(MessageTest, ErrorLevelNamesProgramAndSourcePosition) {
    StreamCapture err(1);
    int line = __LINE__ + 1;
    QKError("cannot open %s", "x.dat");
    EXPECT_EQ(err.Text(),
              "msgtest: \"message_test.cpp:" + std::to_string(line) + "\": cannot open x.dat\r\n");
}

TEST_F(MessageTest, LeadingColonHidesThePositionAtErrorLevelsOnly) {
    StreamCapture out(0), err(1);
    QKError(":unknown version: %u.%u", 7u, 1u);
    EXPECT_EQ(err.Text(), "msgtest: unknown version: 7.1\r\n");
    QKMessage(0, ":plain");
    EXPECT_EQ(out.Text(), ":plain\r\n");
    QKMessage(2, ":progress");
    std::regex stamped(R"(:plain\r\n\[\d{4}/\d{2}/\d{2}-\d{2}:\d{2}:\d{2}\] :progress\r\n)");
    EXPECT_TRUE(std::regex_match(out.Text(), stamped)) << out.Text();
}

TEST_F(MessageTest, LevelsBelowThreeGoToTheOutputStream) {
    StreamCapture out(0), err(1);
    QKMessage(0, "stat %I64u", (unsigned long long)1 << 40);
    QKMessage(1, "dump");
    EXPECT_EQ(out.Text(), "stat 1099511627776\r\ndump\r\n");
    EXPECT_EQ(err.Text(), "");
}

TEST_F(MessageTest, ShowErrorAppendsThePendingErrorText) {
    StreamCapture err(1);
    QKSetLastError(ENOENT);
    errno = -1;
    QKMessageSys(3, ":open failed");
    EXPECT_EQ(err.Text(), std::string("msgtest: open failed: ") + strerror(ENOENT) + "\r\n");
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(ENOENT, 1));
}

struct Seen {
    std::string file, text;
    int line = 0, level = -1, showError = -1;
};
Seen seen;

void RecordingHandler(const char *file, int line, int level, int showError, const char *format,
                      va_list args) {
    char text[256];
    vsnprintf(text, sizeof text, format, args);
    seen = {file, text, line, level, showError};
}

TEST_F(MessageTest, ReplacedHandlerReceivesTheContextFields) {
    QKSetMessageHandler(RecordingHandler);
    int line = __LINE__ + 1;
    QKMessageSys(2, "n=%d", 12);
    EXPECT_EQ(seen.file, __FILE__);
    EXPECT_EQ(seen.line, line);
    EXPECT_EQ(seen.level, 2);
    EXPECT_EQ(seen.showError, 1);
    EXPECT_EQ(seen.text, "n=12");
    QKSetMessageHandler(nullptr);
    StreamCapture out(0);
    QKMessage(0, "back");
    EXPECT_EQ(out.Text(), "back\r\n");
}

TEST_F(MessageTest, StreamsDefaultToStandardOutputAndError) {
    EXPECT_EQ(QKGetMessageStream(0), stdout);
    EXPECT_EQ(QKGetMessageStream(1), stderr);
    EXPECT_EQ(QKGetMessageStream(5), stderr);
}

TEST_F(MessageTest, StateIsDeclaredAndCleared) {
    std::thread([] {
        EXPECT_EQ(QKGetState(), nullptr);
        int line = __LINE__ + 1;
        QKState("indexing %s", "doc 7");
        const MessageState *state = QKGetState();
        ASSERT_NE(state, nullptr);
        EXPECT_STREQ((const char *)state->text.data, "indexing doc 7");
        EXPECT_EQ(state->text.length, strlen("indexing doc 7"));
        EXPECT_GE(state->text.capacity, 258u);
        EXPECT_STREQ(state->stateFile, __FILE__);
        EXPECT_EQ(state->stateLine, line);
        // Microseconds since 1601: later than 2020 in that count.
        EXPECT_GT(state->stateTime, 13222310400000000ull);
        std::string big(2000, 'z');
        QKState("%s", big.c_str());
        EXPECT_EQ(strlen((const char *)QKGetState()->text.data), 1023u);
        QKStateClear();
        EXPECT_EQ(QKGetState(), nullptr);
    }).join();
}

TEST_F(MessageTest, ThreadNameStartsAsTheThreadIdentifier) {
    std::thread([] {
        EXPECT_EQ(std::string(ThreadGetName()), std::to_string(ThreadId()));
        std::string longName(300, 'n');
        longName.replace(0, 20, "worker-with-long-nam");
        ThreadSetName(longName.c_str());
        EXPECT_EQ(std::string(ThreadGetName()), longName.substr(0, 255));
        char kernelName[32] = {0};
        pthread_getname_np(pthread_self(), kernelName, sizeof kernelName);
        EXPECT_STREQ(kernelName, "worker-with-lon");
        ThreadSetRefTime(123456789ull);
        EXPECT_EQ(ThreadGetRefTime(), 123456789ull);
    }).join();
}

TEST_F(MessageTest, ProgramNameIsTheBaseNameAfterEitherSeparator) {
    QKLibInit("C:\\tools\\bin/sub\\crawler.exe");
    EXPECT_STREQ(QKProgramName(), "crawler.exe");
    QKLibInit(nullptr);
    EXPECT_STREQ(QKProgramName(), "crawler.exe");
    std::string longName = "/dir/" + std::string(300, 'p');
    QKLibInit(longName.c_str());
    EXPECT_EQ(std::string(QKProgramName()), std::string(260, 'p'));
    QKLibInit("msgtest");
}

TEST_F(MessageTest, VersionAndSystemIdentity) {
    EXPECT_EQ(QKVersionMajor(), 4);
    EXPECT_EQ(QKVersionMinor(), 5);
    EXPECT_EQ(QKVersionBuild(), 68);
    EXPECT_EQ(QKVersionBranchBuild(), 23);
    if (QKVersionBranch()) {
        EXPECT_STREQ(QKVersionString(), "4.5.68.23");
    } else {
        EXPECT_STREQ(QKVersionString(), "4.5.68");
    }
#if defined(__x86_64__)
    EXPECT_STREQ(QKArchitecture(), "x86_64-linux");
#endif
    struct utsname name;
    ASSERT_EQ(uname(&name), 0);
    unsigned major = 0, minor = 0;
    sscanf(name.release, "%u.%u", &major, &minor);
    EXPECT_EQ(KernelVersionMajor(), major);
    EXPECT_EQ(KernelVersionMinor(), minor);
    EXPECT_EQ(std::string(KernelVersionString())
                  .rfind(std::string(name.sysname) + " " + name.release + " (build ", 0),
              0u);
    char host[256];
    ASSERT_EQ(gethostname(host, sizeof host), 0);
    EXPECT_STREQ(HostName(), host);
    EXPECT_GE(GetProcessUptime(), 0);
}

TEST_F(MessageTest, ConcurrentStartsAllReturnStarted) {
    std::vector<std::thread> threads;
    std::atomic<int> ready{0};
    for (int i = 0; i < 8; i++) {
        threads.emplace_back([&] {
            ready++;
            while (ready.load() < 8) {
            }
            QKLibInit(nullptr);
            EXPECT_STREQ(QKVersionString(), QKVersionBranch() ? "4.5.68.23" : "4.5.68");
        });
    }
    for (auto &t : threads) t.join();
}

int exitStatus = -1;
void RecordExit(int status) {
    exitStatus = status;
}

TEST_F(MessageTest, ExitGoesThroughTheHook) {
    QKSetExit(RecordExit);
    QKExit(3);
    EXPECT_EQ(exitStatus, 3);
    QKSetExit(exit);
}

using MessageDeathTest = MessageTest;

void NoisyAbortHook(const char *expression, const char *file, int line) {
    fprintf(stderr, "abort hook: %s at %s:%d\n", expression, file ? "file" : "none", line > 0);
}

void SilentHandler(const char *, int, int, int, const char *, va_list) {}

TEST_F(MessageDeathTest, FatalMessageEndsTheProcessEvenIfTheHandlerReturns) {
    EXPECT_EXIT(
        {
            QKSetAbort(NoisyAbortHook);
            QKSetMessageHandler(SilentHandler);
            QKFatal("going down");
        },
        ::testing::ExitedWithCode(1), "abort hook: message handler at file:1");
    EXPECT_EXIT(QKFatal("fatal %d", 9), ::testing::ExitedWithCode(1),
                "msgtest: \"message_test.cpp:[0-9]+\": fatal 9");
}

TEST_F(MessageDeathTest, AssertionWritesItsExpressionAndAborts) {
    EXPECT_DEATH(
        {
            QKSetAbort(NoisyAbortHook);
            int two = 2;
            qkassert(two == 3);
        },
        "'two == 3' failed at .*message_test.cpp:[0-9]+\nabort hook: two == 3 at file:1");
}

}  // namespace
