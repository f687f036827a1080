// Whole-file locks: conflicts within one process, and the lock file's text.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <thread>

#include "frame/file_test_dir.h"
#include "qk/file.h"
#include "qk/qkcommon.h"

namespace {

class FileLockTest : public ::testing::Test {
  protected:
    void SetUp() override {
        QKLibInit("filelocktest");
        QKErrorClear();
    }
    TempDir dir;
};

TEST_F(FileLockTest, ConflictsGiveErrno16) {
    const char *d = dir.Path().c_str();
    FileLock *first = FileLockAcquire(d, "lock", 1);
    ASSERT_NE(first, nullptr);
    struct stat st;
    ASSERT_EQ(stat((dir / "lock").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_EQ(FileLockAcquire(d, "lock", 1), nullptr);
    EXPECT_EQ(errno, 16);
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(16, QK_DOMAIN_RUNTIME));
    EXPECT_EQ(FileLockAcquire(d, "lock", 0), nullptr);
    EXPECT_EQ(errno, 16);
    EXPECT_EQ(FileLockRelease(first), 1);

    // Shared locks go together and keep an exclusive one out.
    FileLock *a = FileLockAcquire(d, "lock", 0);
    FileLock *b = FileLockAcquire(d, "lock", 0);
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(FileLockAcquire(d, "lock", 1), nullptr);
    EXPECT_EQ(errno, 16);
    EXPECT_EQ(FileLockRelease(a), 1);
    EXPECT_EQ(FileLockRelease(b), 1);
    FileLock *again = FileLockAcquire(d, "lock", 1);
    ASSERT_NE(again, nullptr);
    EXPECT_STREQ(again->path, (dir / "lock").c_str());
    EXPECT_EQ(FileLockRelease(again), 1);
}

TEST_F(FileLockTest, PathLengthAndMissingFile) {
    // The directory, '/' and the name: 260 bytes in all is the most.
    std::string name(260 - dir.Path().size() - 1, 'n');
    FileLock *longest = FileLockAcquire(dir.Path().c_str(), name.c_str(), 1);
    ASSERT_NE(longest, nullptr);
    EXPECT_EQ(FileLockRelease(longest), 1);
    name += 'n';
    EXPECT_EQ(FileLockAcquire(dir.Path().c_str(), name.c_str(), 1), nullptr);
    EXPECT_EQ(errno, 22);
    // A shared lock does not make the file.
    EXPECT_EQ(FileLockAcquire(dir.Path().c_str(), "absent", 0), nullptr);
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(ENOENT, QK_DOMAIN_OS));
}

TEST_F(FileLockTest, WriteReplacesAndReadAppendsWithATerminator) {
    FileLock *lock = FileLockAcquire(dir.Path().c_str(), "pid", 1);
    ASSERT_NE(lock, nullptr);
    std::string big(3000, 'x');
    ASSERT_EQ(FileLockWrite(lock, big.c_str()), 1);
    ASSERT_EQ(FileLockWrite(lock, "1234"), 1);  // shorter: nothing of the old text stays
    ByteArray text{};
    ArrayAdd(text, '>');
    EXPECT_EQ(FileLockRead(lock, &text), 1);
    EXPECT_EQ(std::string((char *)text.data, text.length), ">1234");
    EXPECT_EQ(text.data[text.length], 0);

    // Exactly two pieces: the read goes on until a short one.
    std::string two(2048, 'y');
    ASSERT_EQ(FileLockWrite(lock, two.c_str()), 1);
    text.length = 0;
    EXPECT_EQ(FileLockRead(lock, &text), 1);
    EXPECT_EQ(std::string((char *)text.data, text.length), two);
    EXPECT_EQ(text.data[text.length], 0);
    ArrayFree(text);

    FileLock *shared = nullptr;
    ASSERT_EQ(FileLockRelease(lock), 1);
    shared = FileLockAcquire(dir.Path().c_str(), "pid", 0);
    ASSERT_NE(shared, nullptr);
    EXPECT_EQ(FileLockWrite(shared, "no"), 0);
    EXPECT_EQ(ReadWhole(dir / "pid"), two);
    EXPECT_EQ(FileLockRelease(shared), 1);
}

TEST_F(FileLockTest, SharedLockObjectSerialisesReadsAndWrites) {
    FileLock *lock = FileLockAcquire(dir.Path().c_str(), "shared", 1);
    ASSERT_NE(lock, nullptr);
    const std::string texts[2] = {std::string(1500, 'a'), std::string(2600, 'b')};
    ASSERT_EQ(FileLockWrite(lock, texts[0].c_str()), 1);
    std::thread writer([&] {
        for (int i = 0; i < 300; i++) FileLockWrite(lock, texts[i % 2].c_str());
    });
    int torn = 0;
    ByteArray text{};
    for (int i = 0; i < 300; i++) {
        text.length = 0;
        ASSERT_EQ(FileLockRead(lock, &text), 1);
        std::string seen((char *)text.data, text.length);
        if (seen != texts[0] && seen != texts[1]) torn++;
    }
    writer.join();
    ArrayFree(text);
    EXPECT_EQ(torn, 0);
    EXPECT_EQ(FileLockRelease(lock), 1);
}

}  // namespace
