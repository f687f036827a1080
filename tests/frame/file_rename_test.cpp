// Sizes of files and the replacing rename.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "frame/file_test_dir.h"
#include "qk/file.h"
#include "qk/qkcommon.h"

namespace {

class FileSizeTest : public ::testing::Test {
  protected:
    void SetUp() override {
        QKLibInit("filesizetest");
        QKErrorClear();
    }
    TempDir dir;
};

TEST_F(FileSizeTest, FillWritesRealBlocksAndKeepsTheData) {
    std::string path = dir / "filled";
    EXPECT_EQ(FileTruncate(path.c_str(), 4, 0, 0), 1);  // the call makes the file
    EXPECT_EQ(ReadWhole(path), std::string(4, '\0'));
    WriteWhole(path, "head");
    int fd = open(path.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    const ULong size = 3 * 0x100000 + 17;  // three whole pieces and a part
    EXPECT_EQ(FileTruncateFD(fd, size, 1, 0), 1);
    struct stat st;
    ASSERT_EQ(fstat(fd, &st), 0);
    EXPECT_EQ((ULong)st.st_size, size);
    EXPECT_GE((ULong)st.st_blocks * 512, size);
    std::string content = ReadWhole(path);
    EXPECT_EQ(content.substr(0, 4), "head");
    EXPECT_EQ(content.find_first_not_of('\0', 4), std::string::npos);

    // Filling to a smaller size cuts.
    EXPECT_EQ(FileTruncateFD(fd, 2, 1, 0), 1);
    EXPECT_EQ(ReadWhole(path), "he");
    close(fd);
    EXPECT_EQ(FileTruncate((dir / "no/such").c_str(), 10, 1, 0), 0);
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(ENOENT, QK_DOMAIN_OS));
}

class FileRenameTest : public FileSizeTest {};

TEST_F(FileRenameTest, ReplacesTheTargetAndKeepsABackup) {
    std::string from = dir / "from", to = dir / "to", backup = dir / "backup";
    WriteWhole(from, "new");
    WriteWhole(to, "old");
    WriteWhole(backup, "older");
    errno = 5;
    EXPECT_EQ(FileRename(from.c_str(), to.c_str(), backup.c_str()), 1);
    EXPECT_EQ(errno, 5);
    EXPECT_EQ(ReadWhole(to), "new");
    EXPECT_EQ(ReadWhole(backup), "old");
    EXPECT_FALSE(FileExists(from.c_str()));

    // A missing target with a backup is no failure; the backup stays.
    WriteWhole(from, "newer");
    std::string fresh = dir / "fresh";
    EXPECT_EQ(FileRename(from.c_str(), fresh.c_str(), backup.c_str()), 1);
    EXPECT_EQ(ReadWhole(fresh), "newer");
    EXPECT_EQ(ReadWhole(backup), "old");

    // Without a backup the old target is simply replaced.
    WriteWhole(from, "last");
    EXPECT_EQ(FileRename(from.c_str(), to.c_str(), nullptr), 1);
    EXPECT_EQ(ReadWhole(to), "last");

    EXPECT_EQ(FileRename(from.c_str(), to.c_str(), nullptr), 0);  // from is gone
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(ENOENT, QK_DOMAIN_OS));
    EXPECT_EQ(ReadWhole(to), "last");
}

TEST_F(FileRenameTest, ReadersNeverSeeTheTargetMissingOrPartial) {
    std::string to = dir / "target";
    const std::string contents[2] = {std::string(50000, 'A'), std::string(70000, 'B')};
    WriteWhole(to, contents[0]);
    std::atomic<bool> done{false};
    std::atomic<int> bad{0}, reads{0};
    std::thread reader([&] {
        while (!done.load()) {
            std::string seen = ReadWhole(to);
            if (seen != contents[0] && seen != contents[1]) bad++;
            reads++;
        }
    });
    for (int i = 0; i < 40; i++) {
        std::string from = dir / ("next" + std::to_string(i));
        WriteWhole(from, contents[(i + 1) % 2]);
        EXPECT_EQ(FileRename(from.c_str(), to.c_str(), nullptr), 1);
    }
    // Keep the reader going until it has looked a fair number of times.
    while (reads.load() < 200) std::this_thread::yield();
    done = true;
    reader.join();
    EXPECT_EQ(bad.load(), 0);
}

}  // namespace
