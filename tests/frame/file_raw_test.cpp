// Raw files: open modes and asynchronous transfers.
#include <errno.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "frame/file_test_dir.h"
#include "qk/file.h"
#include "qk/qkcommon.h"

namespace {

class RawFileTest : public ::testing::Test {
  protected:
    void SetUp() override {
        QKLibInit("rawfiletest");
        QKErrorClear();
    }
    TempDir dir;
};

TEST_F(RawFileTest, OpenFlagsDecideCreationAndReplacement) {
    std::string path = dir / "f";
    EXPECT_EQ(QKFileOpen(path.c_str(), QKFILE_READ), QKFILE_INVALID);
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(ENOENT, QK_DOMAIN_OS));
    EXPECT_EQ(QKFileOpen(path.c_str(), QKFILE_READ | QKFILE_CREATE), QKFILE_INVALID);

    QKFile f = QKFileOpen(path.c_str(), QKFILE_WRITE);  // write alone makes it
    ASSERT_NE(f, QKFILE_INVALID);
    EXPECT_EQ(QKFileWriteData(f, 0, "hello", 5, nullptr), 5);
    EXPECT_EQ(QKFileClose(f), 1);

    f = QKFileOpen(path.c_str(), QKFILE_WRITE | QKFILE_SEQUENTIAL);  // and keeps it
    ASSERT_NE(f, QKFILE_INVALID);
    EXPECT_EQ(QKFileWriteData(f, 5, "!", 1, nullptr), 1);
    EXPECT_EQ(QKFileSync(f), 1);
    EXPECT_EQ(QKFileClose(f), 1);
    EXPECT_EQ(ReadWhole(path), "hello!");

    f = QKFileOpen(path.c_str(), QKFILE_READ | QKFILE_WRITE | QKFILE_CREATE | QKFILE_RANDOM);
    ASSERT_NE(f, QKFILE_INVALID);  // write with create replaces it
    EXPECT_EQ(ReadWhole(path), "");
    EXPECT_EQ(QKFileSetSize(f, 8192, 1), 1);
    EXPECT_EQ(FileSize(path.c_str()), 8192u);
    EXPECT_EQ(QKFileSeek(f, 100), 1);
    EXPECT_EQ(lseek(f, 0, SEEK_CUR), 100);
    EXPECT_EQ(QKFileClose(f), 1);
    EXPECT_EQ(QKFileClose(f), 0);
    EXPECT_EQ(errno, -1);
}

TEST_F(RawFileTest, TransfersFinishInAnyOrderAndStayFinished) {
    std::string path = dir / "async";
    const int kParts = 8;
    const UInt kPart = 65536;
    std::string content;
    for (int i = 0; i < kParts; i++) content += std::string(kPart, (char)('A' + i));
    QKFile f = QKFileOpen(path.c_str(), QKFILE_READ | QKFILE_WRITE);
    ASSERT_NE(f, QKFILE_INVALID);

    // Writes in flight together, each waited for by the lowest finished index.
    std::vector<QKFileAsyncIO *> pending(kParts);
    for (int i = 0; i < kParts; i++)
        ASSERT_EQ(
            QKFileWriteData(f, (ULong)i * kPart, content.data() + i * kPart, kPart, &pending[i]),
            0);
    std::vector<QKFileAsyncIO *> all = pending;
    while (!pending.empty()) {
        UInt bytes = 0;
        Int index = QKFileWaitAsyncIO(pending.data(), (UInt)pending.size(), &bytes);
        ASSERT_GE(index, 0);
        ASSERT_LT(index, (Int)pending.size());
        EXPECT_EQ(bytes, kPart);
        pending.erase(pending.begin() + index);
    }
    // All have finished: a wait on all of them gives the first, again and again.
    UInt bytes = 0;
    EXPECT_EQ(QKFileWaitAsyncIO(all.data(), kParts, &bytes), 0);
    EXPECT_EQ(QKFileWaitAsyncIO(all.data() + 3, kParts - 3, &bytes), 0);
    for (QKFileAsyncIO *io : all) QKFileDeleteAsyncIO(io);
    EXPECT_EQ(ReadWhole(path), content);

    // A read past the end moves what there is.
    std::string buffer(kPart, '\0');
    QKFileAsyncIO *read = nullptr;
    ASSERT_EQ(QKFileReadData(f, content.size() - 100, buffer.data(), kPart, &read), 0);
    EXPECT_EQ(QKFileWaitAsyncIO(&read, 1, &bytes), 0);
    EXPECT_EQ(bytes, 100u);
    EXPECT_EQ(buffer.substr(0, 100), content.substr(content.size() - 100));
    QKFileDeleteAsyncIO(read);
    EXPECT_EQ(QKFileClose(f), 1);
}

TEST_F(RawFileTest, FailedTransferIsReportedByTheWait) {
    std::string path = dir / "ro";
    WriteWhole(path, "data");
    QKFile f = QKFileOpen(path.c_str(), QKFILE_READ);
    ASSERT_NE(f, QKFILE_INVALID);
    QKFileAsyncIO *io = nullptr;
    ASSERT_EQ(QKFileWriteData(f, 0, "xx", 2, &io), 0);
    UInt bytes = 12345;
    EXPECT_EQ(QKFileWaitAsyncIO(&io, 1, &bytes), -1);
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(EBADF, QK_DOMAIN_OS));
    QKFileDeleteAsyncIO(io);
    EXPECT_EQ(QKFileWriteData(f, 0, "xx", 2, nullptr), -1);
    EXPECT_EQ(errno, -1);
    // Deleting a transfer that may still run waits for it.
    char buffer[4];
    ASSERT_EQ(QKFileReadData(f, 0, buffer, 4, &io), 0);
    QKFileDeleteAsyncIO(io);
    EXPECT_EQ(std::string(buffer, 4), "data");
    EXPECT_EQ(QKFileClose(f), 1);
}

TEST(RawFileDeathTest, SeekAssertsOnANegativeHighHalf) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(QKFileSeek(0, -1), "hi >= 0");
}

}  // namespace
