// The thread's error state: codes, texts, wrapping, saving and locations.
#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <thread>

#include "qk/qkcommon.h"

namespace {

class ErrorTest : public ::testing::Test {
  protected:
    void SetUp() override {
        QKLibInit("errortest");
        QKErrorClear();
    }
};

TEST_F(ErrorTest, OsErrorKeepsItsCodeOnceTurnedIntoARecord) {
    QKSetLastError(EACCES);
    errno = -1;
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(EACCES, 1));
    EXPECT_STREQ(QKErrorMessage(), strerror(EACCES));
    EXPECT_EQ(errno, -2);
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(EACCES, 1));
    EXPECT_EQ(QKErrorCode() >> 32, 1u);
}

TEST_F(ErrorTest, FailedSystemCallRecordsItsErrno) {
    errno = ENOENT;
    QKSetLastErrorFromErrno();
    EXPECT_EQ(errno, -1);
    EXPECT_EQ(QKGetLastError(), ENOENT);
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(ENOENT, 1));
}

TEST_F(ErrorTest, RuntimeErrnoHasDomainZero) {
    errno = ENOENT;
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(ENOENT, 0));
    EXPECT_STREQ(QKErrorMessage(), strerror(ENOENT));
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(ENOENT, 0));
}

TEST_F(ErrorTest, ZeroErrnoTakesTheRuntimeTextBranch) {
    errno = 0;
    std::string expected = strerror(0);
    errno = 0;
    EXPECT_EQ(QKErrorMessage(), expected);
    EXPECT_EQ(errno, -2);
    EXPECT_EQ(QKErrorCode(), 0u);
}

TEST_F(ErrorTest, ThrowFormatsWithSixtyFourBitConversions) {
    QKErrorThrow(1, 2, "invalid log serial number: 0x%I64x", (unsigned long long)0x1234567890abULL);
    EXPECT_EQ(errno, -2);
    EXPECT_STREQ(QKErrorMessage(), "invalid log serial number: 0x1234567890ab");
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(1, 2));
}

TEST_F(ErrorTest, NewThrowReplacesTheCurrentError) {
    QKErrorThrow(3, 2, "bad magic");
    QKErrorThrow(7, 2, "read EOF");
    EXPECT_STREQ(QKErrorMessage(), "read EOF");
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(7, 2));
}

TEST_F(ErrorTest, RethrowPutsEachCallersWordsInFrontAndKeepsTheCode) {
    QKErrorThrow(5, 2, "t");
    QKErrorRethrow("a");
    QKErrorRethrow("b");
    EXPECT_STREQ(QKErrorMessage(), "b: a: t");
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(5, 2));
}

TEST_F(ErrorTest, RethrowOfAPendingOsErrorWrapsItsText) {
    QKSetLastError(ENOSPC);
    errno = -1;
    QKErrorRethrow("cannot write %s", "x");
    EXPECT_EQ(std::string(QKErrorMessage()), std::string("cannot write x: ") + strerror(ENOSPC));
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(ENOSPC, 1));
}

TEST_F(ErrorTest, LongRethrowTextLosesTheOldText) {
    QKErrorThrow(1, 2, "old");
    std::string big(1500, 'x');
    QKErrorRethrow("%s", big.c_str());
    EXPECT_EQ(strlen(QKErrorMessage()), 1023u);
    EXPECT_EQ(std::string(QKErrorMessage()), big.substr(0, 1023));

    QKErrorThrow(1, 2, "old");
    std::string fits(1020, 'y');
    QKErrorRethrow("%s", fits.c_str());
    EXPECT_EQ(std::string(QKErrorMessage()), fits + ": o");
}

TEST_F(ErrorTest, SaveAndRestoreKeepTheFirstError) {
    QKErrorThrow(2, 2, "read timeout");
    QKErrorSave();
    EXPECT_EQ(errno, -2);
    QKErrorThrow(0, 2, "clean-up failed");
    EXPECT_STREQ(QKErrorMessage(), "clean-up failed");
    QKErrorRestore();
    EXPECT_EQ(errno, -2);
    EXPECT_STREQ(QKErrorMessage(), "read timeout");
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(2, 2));
}

TEST_F(ErrorTest, SavedErrorsStackAndRecordsAreRecycled) {
    QKErrorThrow(1, 2, "first");
    QKErrorSave();
    QKErrorThrow(2, 2, "second");
    QKErrorSave();
    MessageContext *context = QKSetMessageContext_(__FILE__, __LINE__, 4, 0);
    ErrorContext *cleanup = nullptr;
    QKErrorThrow(3, 2, "third");
    cleanup = context->error;
    QKErrorRestore();
    EXPECT_STREQ(QKErrorMessage(), "second");
    EXPECT_EQ(context->spare, cleanup);
    QKErrorRestore();
    EXPECT_STREQ(QKErrorMessage(), "first");
    // A failing, saving loop takes its records from the spare list.
    for (int i = 0; i < 100; i++) {
        QKErrorSave();
        QKErrorThrow(i, 2, "loop %d", i);
        QKErrorRestore();
    }
    EXPECT_STREQ(QKErrorMessage(), "first");
    int spares = 0;
    for (ErrorContext *r = context->spare; r; r = r->next) spares++;
    EXPECT_LE(spares, 2);
}

TEST_F(ErrorTest, SaveTurnsAPendingErrnoIntoARecord) {
    errno = EINTR;
    QKErrorSave();
    errno = 0;
    QKErrorRestore();
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(EINTR, 0));
    EXPECT_STREQ(QKErrorMessage(), strerror(EINTR));
}

TEST_F(ErrorTest, LocationIsRelativeToTheLibraryTree) {
    QKSetMessageContext_("/home/build/qk/src/frame/error.cpp", 42, 4, 0);
    QKErrorThrow_(1, 2, "x");
    int line = -1;
    EXPECT_STREQ(QKErrorLocation(&line), "frame/error.cpp");
    EXPECT_EQ(line, 42);

    // The search starts at the second character.
    QKSetMessageContext_("/qk/src/a.c", 7, 4, 0);
    QKErrorThrow_(1, 2, "x");
    EXPECT_STREQ(QKErrorLocation(&line), "/qk/src/a.c");
    EXPECT_EQ(line, 7);

    int here = __LINE__ + 1;
    QKErrorThrow(1, 2, "x");
    EXPECT_STREQ(QKErrorLocation(&line), __FILE__);
    EXPECT_EQ(line, here);
}

TEST_F(ErrorTest, AThreadWithoutAnErrorHasNoLocation) {
    std::thread([] {
        int line = -1;
        EXPECT_STREQ(QKErrorLocation(&line), "(no file)");
        EXPECT_EQ(line, 0);
    }).join();
}

TEST_F(ErrorTest, ClearKeepsTheRecordForReuse) {
    QKErrorThrow(1, 2, "x");
    MessageContext *context = QKSetMessageContext_(__FILE__, __LINE__, 0, 0);
    ErrorContext *record = context->error;
    QKErrorClear();
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(context->error, record);
}

TEST_F(ErrorTest, ErrorsAreKeptPerThread) {
    QKErrorThrow(1, 2, "main");
    std::thread([] {
        QKErrorThrow(6, 2, "not supported");
        EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(6, 2));
        EXPECT_STREQ(QKErrorMessage(), "not supported");
    }).join();
    EXPECT_STREQ(QKErrorMessage(), "main");
}

using ErrorDeathTest = ErrorTest;

TEST_F(ErrorDeathTest, RestoreWithAnEmptyStackIsAnAssertion) {
    EXPECT_DEATH(QKErrorRestore(), "'context != NULL && context->saved != NULL' failed");
}

TEST_F(ErrorDeathTest, ThrowWithoutAContextIsAnAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(std::thread([] { QKErrorThrow_(1, 2, "x"); }).join(), "'! create' failed");
    // With a context set first, the same throw works.
    std::thread([] {
        QKSetMessageContext_(__FILE__, __LINE__, 4, 0);
        QKErrorThrow_(1, 2, "x");
        EXPECT_STREQ(QKErrorMessage(), "x");
    }).join();
}

}  // namespace
