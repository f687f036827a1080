// Making, walking and emptying directories.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "frame/file_test_dir.h"
#include "qk/file.h"
#include "qk/qkcommon.h"

namespace {

class DirectoryTest : public ::testing::Test {
  protected:
    void SetUp() override {
        QKLibInit("dirtest");
        QKErrorClear();
    }
    TempDir dir;
};

struct Seen {
    std::vector<std::string> names;
    size_t stopAfter = 1000;
};

int Collect(const char *name, void *argument) {
    Seen *seen = (Seen *)argument;
    seen->names.push_back(name);
    return seen->names.size() < seen->stopAfter;
}

std::vector<std::string> Sorted(std::vector<std::string> v) {
    std::sort(v.begin(), v.end());
    return v;
}

TEST_F(DirectoryTest, CreateMakesParentsAndAcceptsWhatStands) {
    const char *d = dir.Path().c_str();
    EXPECT_EQ(DirectoryCreate(d, "a/b", 0), 0);  // no parent, no recursion
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(DirectoryCreate(d, "a//b///c//", 1), 1);
    EXPECT_TRUE(FileIsDirectory((dir / "a/b/c").c_str()));
    EXPECT_EQ(DirectoryCreate(d, "a/b/c", 0), 1);  // already there
    WriteWhole(dir / "plain", "x");
    EXPECT_EQ(DirectoryCreate(d, "plain", 0), 0);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(DirectoryCreate(d, "plain/under", 1), 0);
    // An absolute path with recursion starts below the root.
    EXPECT_EQ(DirectoryCreate(nullptr, (dir / "x/y").c_str(), 1), 1);
    EXPECT_TRUE(FileIsDirectory((dir / "x/y").c_str()));
}

TEST_F(DirectoryTest, EmptyDirectoryPartMeansTheCurrentDirectory) {
    char previous[4096];
    ASSERT_NE(getcwd(previous, sizeof previous), nullptr);
    ASSERT_EQ(chdir(dir.Path().c_str()), 0);
    const UShort name[] = {'w', 'i', 'd', 'e'};
    EXPECT_EQ(DirectoryCreate("", "here", 0), 1);
    EXPECT_EQ(DirectoryCreateUCS2(name, 0, name, 4, 0), 1);
    ASSERT_EQ(chdir(previous), 0);
    EXPECT_TRUE(FileIsDirectory((dir / "here").c_str()) && FileIsDirectory((dir / "wide").c_str()));
}

TEST_F(DirectoryTest, EnumerateGivesEveryEntryButDotsUntilTheCallbackSaysNo) {
    for (const char *name : {"one", "two", ".hidden"}) WriteWhole(dir / name, "");
    ASSERT_EQ(DirectoryCreate(dir.Path().c_str(), "sub", 0), 1);
    Seen joined, bare, stopped;
    EXPECT_EQ(DirectoryEnumerate(dir.Path().c_str(), Collect, &joined), 1);
    EXPECT_EQ(Sorted(joined.names),
              Sorted({dir / "one", dir / "two", dir / ".hidden", dir / "sub"}));
    EXPECT_EQ(DirectoryEnumerateRelative(dir.Path().c_str(), Collect, &bare), 1);
    EXPECT_EQ(Sorted(bare.names), Sorted({"one", "two", ".hidden", "sub"}));
    stopped.stopAfter = 2;
    EXPECT_EQ(DirectoryEnumerateRelative(dir.Path().c_str(), Collect, &stopped), 0);
    EXPECT_EQ(stopped.names.size(), 2u);
    EXPECT_EQ(DirectoryEnumerate((dir / "missing").c_str(), Collect, &stopped), 0);
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(ENOENT, QK_DOMAIN_OS));
}

int CollectUCS2(const UShort *name, UInt length, void *argument) {
    EXPECT_EQ(name[length], 0);
    ((std::vector<std::u16string> *)argument)->emplace_back((const char16_t *)name, length);
    return 1;
}

TEST_F(DirectoryTest, UCS2WalkDecodesNamesAndReplacesWhatItCannot) {
    WriteWhole(dir / "\xE2\x82\xAC", "");      // U+20AC
    WriteWhole(dir / "\xF0\x9F\x98\x80", "");  // above U+FFFF
    std::u16string wide(dir.Path().begin(), dir.Path().end());
    std::vector<std::u16string> names, joined;
    const UShort *d = (const UShort *)wide.data();
    EXPECT_EQ(DirectoryEnumerateRelativeUCS2(d, (UInt)wide.size(), CollectUCS2, &names), 1);
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::u16string>{u"\u20AC", u"\uFFFD"}));
    EXPECT_EQ(DirectoryEnumerateUCS2(d, (UInt)wide.size(), CollectUCS2, &joined), 1);
    std::sort(joined.begin(), joined.end());
    EXPECT_EQ(joined[0], wide + u"/\u20AC");
}

TEST_F(DirectoryTest, RemoveContentsKeepsTheDirectoryAndDoesNotFollowLinks) {
    TempDir outside;
    WriteWhole(outside / "keep", "precious");
    ASSERT_EQ(DirectoryCreate(dir.Path().c_str(), "t/u/v", 1), 1);
    WriteWhole(dir / "t/u/v/deep", "1");
    WriteWhole(dir / "t/file", "2");
    WriteWhole(dir / "top", "3");
    ASSERT_EQ(symlink(outside.Path().c_str(), (dir / "t/link").c_str()), 0);
    EXPECT_EQ(DirectoryRemoveContents(dir.Path().c_str()), 1);
    EXPECT_TRUE(FileIsDirectory(dir.Path().c_str()));
    Seen left;
    EXPECT_EQ(DirectoryEnumerate(dir.Path().c_str(), Collect, &left), 1);
    EXPECT_TRUE(left.names.empty());
    EXPECT_EQ(ReadWhole(outside / "keep"), "precious");
}

TEST_F(DirectoryTest, RemoveFilesReportsTheFirstFailureButGoesOn) {
    for (const char *name : {"f1", "f2", "f3"}) WriteWhole(dir / name, "");
    ASSERT_EQ(DirectoryCreate(dir.Path().c_str(), "sub", 0), 1);
    EXPECT_EQ(DirectoryRemoveFiles(dir.Path().c_str()), 0);
    EXPECT_EQ(errno, EISDIR);
    Seen left;
    DirectoryEnumerateRelative(dir.Path().c_str(), Collect, &left);
    EXPECT_EQ(left.names, std::vector<std::string>{"sub"});
    ASSERT_EQ(rmdir((dir / "sub").c_str()), 0);
    WriteWhole(dir / "f4", "");
    errno = 7;
    EXPECT_EQ(DirectoryRemoveFiles(dir.Path().c_str()), 1);
    EXPECT_EQ(errno, 7);  // success leaves errno alone
}

}  // namespace
