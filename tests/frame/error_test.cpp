// The thread's error state: codes, texts, wrapping, saving and locations.
#include "frame/frame_test.h"

namespace {

using ErrorTest = FrameTest;

// Each case makes an error state; its text and code follow, and reading the
// text turns whatever was pending into the thread's record (errno -2).
TEST_F(ErrorTest, TextAndCodeOfEachKindOfError) {
    const std::string big(1500, 'x'), fits(1020, 'y');
    const std::tuple<std::function<void()>, std::string, ULong> cases[] = {
        {[] { QKSetLastError(EACCES), errno = -1; }, strerror(EACCES), QK_ERROR_CODE(EACCES, 1)},
        {[] { errno = ENOENT; }, strerror(ENOENT), QK_ERROR_CODE(ENOENT, 0)},
        {[] { errno = 0; }, strerror(0), 0},
        {[] { QKErrorThrow(1, 2, "invalid log serial number: 0x%I64x", 0x1234567890abULL); },
         "invalid log serial number: 0x1234567890ab", QK_ERROR_CODE(1, 2)},
        {[] { QKErrorThrow(3, 2, "bad magic"), QKErrorThrow(7, 2, "read EOF"); }, "read EOF",
         QK_ERROR_CODE(7, 2)},
        {[] { QKErrorThrow(5, 2, "t"), QKErrorRethrow("a"), QKErrorRethrow("b"); }, "b: a: t",
         QK_ERROR_CODE(5, 2)},
        {[] { QKSetLastError(ENOSPC), errno = -1, QKErrorRethrow("cannot write %s", "x"); },
         std::string("cannot write x: ") + strerror(ENOSPC), QK_ERROR_CODE(ENOSPC, 1)},
        // A wrapping text too long for the old text to follow replaces it.
        {[&] { QKErrorThrow(1, 2, "old"), QKErrorRethrow("%s", big.c_str()); }, big.substr(0, 1023),
         QK_ERROR_CODE(1, 2)},
        {[&] { QKErrorThrow(1, 2, "old"), QKErrorRethrow("%s", fits.c_str()); }, fits + ": o",
         QK_ERROR_CODE(1, 2)},
        // Restore brings back the first error, whatever came after; saving
        // turns a pending errno into a record.
        {[] {
             QKErrorThrow(2, 2, "read"), QKErrorSave(), QKErrorThrow(0, 2, "x"), QKErrorRestore();
         },
         "read", QK_ERROR_CODE(2, 2)},
        {[] { errno = EINTR, QKErrorSave(), errno = 0, QKErrorRestore(); }, strerror(EINTR),
         QK_ERROR_CODE(EINTR, 0)},
    };
    for (const auto &[make, text, code] : cases) {
        QKErrorClear();
        make();
        EXPECT_EQ(QKErrorCode(), code) << text;
        EXPECT_EQ(QKErrorMessage(), text);
        EXPECT_EQ(errno, -2);
        EXPECT_EQ(QKErrorCode(), code) << text;
    }
}

// Saved errors stack; a failing, saving loop takes its records from the
// spare list; clearing keeps the record for reuse. Restoring with nothing
// saved, and throwing in a thread without a context, are assertions.
TEST_F(ErrorTest, SavedErrorsStackAndRecordsAreRecycled) {
    EXPECT_DEATH(QKErrorRestore(), "'context != NULL && context->saved != NULL' failed");
    EXPECT_DEATH(std::thread([] { QKErrorThrow_(1, 2, "x"); }).join(), "'! create' failed");
    QKErrorThrow(1, 2, "first"), QKErrorSave();
    QKErrorThrow(2, 2, "second"), QKErrorSave();
    MessageContext *context = QKSetMessageContext_(__FILE__, __LINE__, 4, 0);
    QKErrorThrow(3, 2, "third");
    ErrorContext *third = context->error;
    QKErrorRestore();
    EXPECT_EQ(std::tuple(std::string(QKErrorMessage()), context->spare),
              std::tuple("second", third));
    QKErrorRestore();
    for (int i = 0; i < 100; i++) QKErrorSave(), QKErrorThrow(i, 2, "loop %d", i), QKErrorRestore();
    EXPECT_STREQ(QKErrorMessage(), "first");
    int spares = 0;
    for (ErrorContext *r = context->spare; r; r = r->next) spares++;
    EXPECT_LE(spares, 2);
    ErrorContext *record = context->error;
    QKErrorClear();
    EXPECT_EQ(std::tuple(errno, context->error), std::tuple(0, record));
}

// The location of the thread's error, "file:line".
std::string Location() {
    int line = -1;
    const char *file = QKErrorLocation(&line);
    return file + (":" + std::to_string(line));
}

// The location is relative to the library's tree, whose marker is looked
// for from the second character on. A thread has its own error, and none at
// first; with a context set, a throw works there.
TEST_F(ErrorTest, LocationsAndThreads) {
    for (auto [file, expected] :
         {std::pair("/home/build/qk/src/frame/error.cpp", "frame/error.cpp:42"),
          {"/qk/src/a.c", "/qk/src/a.c:42"}}) {
        QKSetMessageContext_(file, 42, 4, 0);
        QKErrorThrow_(1, 2, "x");
        EXPECT_EQ(Location(), expected);
    }
    std::thread([] {
        EXPECT_EQ(Location(), "(no file):0");
        QKSetMessageContext_(__FILE__, __LINE__, 4, 0);
        QKErrorThrow_(6, 2, "not supported");
        EXPECT_STREQ(QKErrorMessage(), "not supported");
    }).join();
    EXPECT_EQ(Location(), "/qk/src/a.c:42");
}

}  // namespace
