// Path tests, attributes, temporary names and C tables.
#include <errno.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "frame/file_test_dir.h"
#include "qk/file.h"
#include "qk/qkcommon.h"

namespace {

class FilePathTest : public ::testing::Test {
  protected:
    void SetUp() override {
        QKLibInit("filepathtest");
        QKErrorClear();
    }
    TempDir dir;
};

bool AbsoluteBoth(const char *path) {
    std::u16string wide;
    for (const char *p = path; *p; p++) wide += (char16_t)*p;
    bool narrow = PathIsAbsolute(path) != 0;
    EXPECT_EQ(narrow, PathIsAbsoluteUCS2((const UShort *)wide.data(), (UInt)wide.size()) != 0)
        << path;
    return narrow;
}

TEST_F(FilePathTest, AbsoluteForms) {
    for (const char *yes : {"C:\\x", "c:/x", "\\\\server\\x", "//x", "/x", "/", "\\/x"})
        EXPECT_TRUE(AbsoluteBoth(yes)) << yes;
    for (const char *no : {"x/y", "C:x", "C:", "\\x", "", "1:/x", "x:"})
        EXPECT_FALSE(AbsoluteBoth(no)) << no;
}

// Runs `body` with the current directory at `where`.
template <typename Body>
void InDirectory(const std::string &where, Body body) {
    char previous[4096];
    ASSERT_NE(getcwd(previous, sizeof previous), nullptr);
    ASSERT_EQ(chdir(where.c_str()), 0);
    body();
    ASSERT_EQ(chdir(previous), 0);
}

TEST_F(FilePathTest, MakeAbsoluteResolvesAgainstTheCurrentDirectory) {
    ASSERT_EQ(DirectoryCreate(dir.Path().c_str(), "a/b", 1), 1);
    ByteArray out{};
    UShortArray wide{};
    const UShort relative[] = {'b', '/', 'f'};
    std::string here, plain, dotted;
    InDirectory(dir / "a", [&] {
        char cwd[4096];  // /tmp itself may be a link
        here = getcwd(cwd, sizeof cwd) ? cwd : "";
        EXPECT_EQ(PathMakeAbsolute(&out, "./b//f"), 1);
        plain.assign((char *)out.data, out.length + 1);  // with the terminator
        EXPECT_EQ(PathMakeAbsolute(&out, "../a/./b/c/../f"), 1);
        dotted.assign((char *)out.data, out.length);
        EXPECT_EQ(PathMakeAbsoluteUCS2(&wide, relative, 3), 1);
    });
    std::string expected = here + "/b/f";
    EXPECT_EQ(plain, expected + '\0');
    EXPECT_EQ(dotted, expected);
    EXPECT_EQ(std::u16string((const char16_t *)wide.data, wide.length + 1),
              std::u16string(expected.begin(), expected.end()) + u'\0');
    // An absolute path stands as it is; the array has room for a long path.
    EXPECT_EQ(PathMakeAbsolute(&out, "/x/../y"), 1);
    EXPECT_EQ(std::string((char *)out.data, out.length), "/x/../y");
    EXPECT_GE(out.capacity, 261u);
    ArrayFree(out);
    ArrayFree(wide);
}

TEST_F(FilePathTest, AttributesOfPresentAndMissingPaths) {
    std::string dotted = dir / ".dotted", missing = dir / "missing";
    WriteWhole(dotted, "12345");
    EXPECT_EQ(FileSize(dotted.c_str()), 5u);
    EXPECT_TRUE(FileIsHidden(dotted.c_str()));
    EXPECT_FALSE(FileIsHidden(dir.Path().c_str()));
    EXPECT_TRUE(FileIsDirectory(dir.Path().c_str()) && !FileIsDirectory(dotted.c_str()));
    errno = 3;
    EXPECT_TRUE(FileIsHidden(missing.c_str()));  // unseen counts as hidden
    EXPECT_FALSE(FileIsDirectory(missing.c_str()) || FileExists(missing.c_str()));
    EXPECT_EQ(errno, 3);
    EXPECT_EQ(FileSize(missing.c_str()), ~(ULong)0);
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(ENOENT, QK_DOMAIN_OS));
}

TEST_F(FilePathTest, TemporaryNamesAreFreshAndKeepTheirPrefix) {
    std::string prefix = dir / "tmp.";
    char first[256], second[256];
    strcpy(first, prefix.c_str());
    strcpy(second, prefix.c_str());
    ASSERT_EQ(CreateTemporaryFileName(first), first);
    ASSERT_EQ(CreateTemporaryFileName(second), second);
    EXPECT_EQ(std::string(first, prefix.size()), prefix);
    EXPECT_EQ(strlen(first), prefix.size() + 6);
    EXPECT_STRNE(first + prefix.size(), "XXXXXX");
    EXPECT_STRNE(first, second);
}

std::string Table(const void *data, UInt length, UInt size) {
    FILE *f = tmpfile();
    std::string text(4096, '\0');
    ULong position = 0;
    int ok = FileWriteCArray(f, "t", data, length, size) && FileGetPos(f, &position);
    rewind(f);
    text.resize(fread(text.data(), 1, text.size(), f));
    EXPECT_EQ(text.size(), position);
    fclose(f);
    return ok ? text : "<failed>";
}

TEST_F(FilePathTest, CArraysOfEverySize) {
    const UByte bytes[17] = {0, 255};
    const UShort shorts[] = {65535};
    const UInt ints[] = {4294967295u, 7};
    const ULong longs[] = {18446744073709551615ull};
    EXPECT_EQ(Table(bytes, 2, 1), "static UByte t[2] = { \n0, 255\n};\n");
    EXPECT_EQ(Table(shorts, 1, 2), "static UShort t[1] = { \n65535\n};\n");
    EXPECT_EQ(Table(ints, 2, 4), "static UInt t[2] = { \n4294967295U, 7U\n};\n");
    EXPECT_EQ(Table(longs, 1, 8), "static ULong t[1] = { \n18446744073709551615UL\n};\n");
    EXPECT_NE(Table(bytes, 17, 1).find("0,\n0\n};"), std::string::npos);
    EXPECT_EQ(Table(bytes, 2, 3), "<failed>");
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(QK_ERR_INVALID, QK_DOMAIN_GENERAL));
    EXPECT_STREQ(QKErrorMessage(), ": invalid element size in FileWriteCArray (size=3)");
}

}  // namespace
