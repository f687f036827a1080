// Opening and mapping files, and the UTF-8 check of every path.
#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/stat.h>

#include "frame/file_test_dir.h"
#include "qk/file.h"
#include "qk/qkcommon.h"

namespace {

class FileMapTest : public ::testing::Test {
  protected:
    void SetUp() override {
        QKLibInit("filemaptest");
        QKErrorClear();
    }
    TempDir dir;
};

TEST_F(FileMapTest, EmptyFileMapsToNoneWithoutFailure) {
    WriteWhole(dir / "empty", "");
    size_t size = 99;
    int empty = 0;
    errno = 12345;
    EXPECT_EQ(FileMapRead(dir.Path().c_str(), "empty", &size, &empty), nullptr);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(empty, 1);
}

TEST_F(FileMapTest, ViewsReachTheFileFromAnyOffsetAndOutliveTheDescriptor) {
    std::string content;
    for (int i = 0; i < 20000; i++) content += (char)('a' + i % 26);
    WriteWhole(dir / "data", content);
    size_t size = 0;
    int empty = 1;
    char *whole = (char *)FileMapReadWrite(dir.Path().c_str(), "data", &size, &empty);
    ASSERT_NE(whole, nullptr);
    EXPECT_EQ(size, content.size());
    EXPECT_EQ(empty, 0);
    memcpy(whole + 19990, "0123456789", 10);
    EXPECT_EQ(FileMapSync(whole, size), 1);
    EXPECT_EQ(ReadWhole(dir / "data").substr(19990), "0123456789");

    int fd = FileOpen(dir.Path().c_str(), "data", 0, FILE_ADVICE_RANDOM);
    ASSERT_GE(fd, 0);
    const ULong offset = 4096 * 2 + 77;  // inside a page
    char *part = (char *)FileMapSegment(fd, 0, offset, 300);
    close(fd);
    ASSERT_NE(part, nullptr);
    EXPECT_EQ(std::string(part, 300), content.substr(offset, 300));
    part[0] = '#';
    EXPECT_EQ(FileMapSync(part, 1), 1);
    EXPECT_EQ(whole[offset], '#');
    EXPECT_EQ(FileUnmap(part), 1);
    EXPECT_EQ(FileUnmap(whole), 1);
    EXPECT_EQ(FileUnmap(whole), 0);  // gone: a failure, not a crash
    EXPECT_EQ(errno, -1);
}

TEST_F(FileMapTest, ReadOnlyDescriptorRefusesWritableViewAndMissingFileFails) {
    WriteWhole(dir / "ro", "abc");
    int fd = FileOpen(dir.Path().c_str(), "ro", 1, FILE_ADVICE_SEQUENTIAL);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(FileMapSegment(fd, 0, 0, 3), nullptr);
    EXPECT_EQ(errno, -1);
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(EACCES, QK_DOMAIN_OS));
    void *view = FileMapFD(fd, 1, nullptr, nullptr);
    ASSERT_NE(view, nullptr);
    EXPECT_EQ(memcmp(view, "abc", 3), 0);
    EXPECT_EQ(FileUnmap(view), 1);
    close(fd);
    EXPECT_EQ(FileMapRead(dir.Path().c_str(), "missing", nullptr, nullptr), nullptr);
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(ENOENT, QK_DOMAIN_OS));
}

TEST_F(FileMapTest, UCS2NamesReachTheSameFiles) {
    // "é€" in UTF-8 on disk.
    WriteWhole(dir / "\xC3\xA9\xE2\x82\xAC", "wide");
    std::u16string directory(dir.Path().begin(), dir.Path().end());
    const UShort name[] = {0xE9, 0x20AC};
    size_t size = 0;
    void *view = FileMapReadUCS2((const UShort *)directory.data(), (UInt)directory.size(), name, 2,
                                 &size, nullptr);
    ASSERT_NE(view, nullptr);
    EXPECT_EQ(std::string((const char *)view, size), "wide");
    EXPECT_EQ(FileUnmap(view), 1);
}

// U+1F600 in four bytes: the library's UTF-8 has no such sequences.
const char kFourBytes[] = "smile\xF0\x9F\x98\x80";

TEST_F(FileMapTest, PathsThatAreNotWellFormedFailEverywhere) {
    const char *d = dir.Path().c_str();
    WriteWhole(dir / kFourBytes, "x");  // it exists, yet cannot be named
    EXPECT_EQ(FileMapRead(d, kFourBytes, nullptr, nullptr), nullptr);
    EXPECT_EQ(errno, EILSEQ);
    EXPECT_EQ(FileOpen(d, kFourBytes, 1, 0), -1);
    EXPECT_EQ(errno, EILSEQ);
    EXPECT_EQ(FileMapRead(d, "bad\x80", nullptr, nullptr), nullptr);
    EXPECT_EQ(errno, EILSEQ);
    EXPECT_EQ(DirectoryCreate(d, "sub\xC0\xAF", 0), 0);  // an overlong '/'
    EXPECT_EQ(errno, EILSEQ);
    EXPECT_FALSE(FileExists((dir / kFourBytes).c_str()));
    EXPECT_EQ(FileSize((dir / kFourBytes).c_str()), ~(ULong)0);
    EXPECT_EQ(FileLockAcquire(d, kFourBytes, 1), nullptr);
    EXPECT_EQ(errno, EILSEQ);
    EXPECT_EQ(FileRename((dir / "x").c_str(), (dir / kFourBytes).c_str(), nullptr), 0);
    EXPECT_EQ(errno, EILSEQ);
    // Three-byte characters are fine.
    EXPECT_EQ(DirectoryCreate(d, "\xE2\x82\xAC", 0), 1);
}

// A death test makes no directory: the dying child could not remove it.
TEST(FileMapDeathTest, RawOpenAssertsOnMalformedPath) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    std::string path = std::string("/tmp/") + kFourBytes;
    EXPECT_DEATH(QKFileOpen(path.c_str(), QKFILE_READ), "c == READ_EOF");
}

TEST_F(FileMapTest, SetReadSizeIsNotSupported) {
    EXPECT_EQ(FileSetReadSize(0, 65536), 0);
    EXPECT_EQ(errno, -2);
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(QK_ERR_NOT_SUPPORTED, QK_DOMAIN_GENERAL));
    EXPECT_STREQ(QKErrorMessage(), "not supported");
}

}  // namespace
