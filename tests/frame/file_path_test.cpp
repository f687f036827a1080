// Paths: absolute forms, attributes, temporary names, C tables, making,
// walking and emptying directories, and the UTF-8 check of every path.
#include "frame/frame_test.h"

namespace {

using Names = std::vector<std::string>;

// Runs `body` with the current directory at `where`.
void InDirectory(const std::string &where, const std::function<void()> &body) {
    char previous[4096];
    ASSERT_TRUE(getcwd(previous, sizeof previous) && chdir(where.c_str()) == 0);
    body();
    ASSERT_EQ(chdir(previous), 0);
}

std::u16string Wide(const std::string &ascii) {
    return std::u16string(ascii.begin(), ascii.end());
}
const UShort *Units(const std::u16string &text) {
    return (const UShort *)text.data();
}

// The names a walk of `directory` gives, sorted, until it has `stopAfter`;
// and its result.
struct Walk {
    Names names;
    size_t stopAfter;
    int result;
    Walk(int (*walk)(const char *, DirectoryCallback, void *), const std::string &directory,
         size_t stop = 1000)
        : stopAfter(stop) {
        result = walk(
            directory.c_str(),
            [](const char *name, void *self) {
                auto *w = (Walk *)self;
                return w->names.push_back(name), (int)(w->names.size() < w->stopAfter);
            },
            this);
        std::sort(names.begin(), names.end());
    }
};

// U+1F600 in four bytes: the library's UTF-8 has no such sequences.
const char kFourBytes[] = "smile\xF0\x9F\x98\x80";

using FilePathTest = FileTest;

TEST_F(FilePathTest, AbsoluteForms) {
    const std::pair<const char *, bool> cases[] = {
        {"C:\\x", true}, {"c:/x", true}, {"\\\\server\\x", true}, {"//x", true},  {"/x", true},
        {"/", true},     {"\\/x", true}, {"x/y", false},          {"C:x", false}, {"C:", false},
        {"\\x", false},  {"", false},    {"1:/x", false},         {"x:", false}};
    for (auto [path, absolute] : cases) {
        std::u16string wide = Wide(path);
        EXPECT_EQ(PathIsAbsolute(path) != 0, absolute) << path;
        EXPECT_EQ(PathIsAbsoluteUCS2(Units(wide), (UInt)wide.size()) != 0, absolute) << path;
    }
}

// Relative paths resolve against the current directory, "." and ".."
// taken away; an absolute path stands as it is. The array keeps a zero after
// the path and has room for a long one.
TEST_F(FilePathTest, MakeAbsoluteResolvesAgainstTheCurrentDirectory) {
    ASSERT_EQ(DirectoryCreate(Dir(), "a/b", 1), 1);
    ByteArray out{};
    UShortArray wide{};
    std::string here, plain, dotted;
    InDirectory(dir / "a", [&] {
        char cwd[4096];  // /tmp itself may be a link
        here = getcwd(cwd, sizeof cwd) ? std::string(cwd) + "/b/f" : "";
        EXPECT_EQ(PathMakeAbsolute(&out, "./b//f"), 1);
        plain.assign((char *)out.data, out.length + 1);
        EXPECT_EQ(PathMakeAbsolute(&out, "../a/./b/c/../f"), 1);
        dotted.assign((char *)out.data, out.length);
        EXPECT_EQ(PathMakeAbsoluteUCS2(&wide, Units(u"b/f"), 3), 1);
    });
    EXPECT_EQ(plain, here + '\0');
    EXPECT_EQ(dotted, here);
    EXPECT_EQ(std::u16string((const char16_t *)wide.data, wide.length + 1), Wide(here) + u'\0');
    EXPECT_EQ(PathMakeAbsolute(&out, "/x/../y"), 1);
    EXPECT_EQ(std::string((char *)out.data, out.length), "/x/../y");
    EXPECT_GE(out.capacity, 261u);
    ArrayFree(out), ArrayFree(wide);
}

// A path that cannot be read counts as hidden, is no directory and has the
// size all ones; errno stays. Temporary names are fresh and keep their
// prefix.
TEST_F(FilePathTest, AttributesAndTemporaryNames) {
    std::string dotted = dir / ".dotted", missing = dir / "missing";
    WriteWhole(dotted, "12345");
    EXPECT_EQ(FileSize(dotted.c_str()), 5u);
    EXPECT_TRUE(FileIsHidden(dotted.c_str()) && !FileIsHidden(Dir()));
    EXPECT_TRUE(FileIsDirectory(Dir()) && !FileIsDirectory(dotted.c_str()));
    errno = 3;
    EXPECT_TRUE(FileIsHidden(missing.c_str()));
    EXPECT_FALSE(FileIsDirectory(missing.c_str()) || FileExists(missing.c_str()));
    EXPECT_EQ(errno, 3);
    EXPECT_EQ(FileSize(missing.c_str()), ~(ULong)0);
    EXPECT_EQ(Left(), OS_FAILURE(ENOENT));
    std::string prefix = dir / "tmp.";
    char first[256], second[256];
    strcpy(first, prefix.c_str()), strcpy(second, prefix.c_str());
    EXPECT_TRUE(CreateTemporaryFileName(first) == first &&
                CreateTemporaryFileName(second) == second);
    EXPECT_EQ(std::string(first).substr(0, prefix.size()), prefix);
    EXPECT_TRUE(strlen(first) == prefix.size() + 6 && strcmp(first + prefix.size(), "XXXXXX") &&
                strcmp(first, second))
        << first << " " << second;
}

TEST_F(FilePathTest, CArraysOfEverySize) {
    const UByte bytes[17] = {0, 255};
    const UShort shorts[] = {65535};
    const UInt ints[] = {4294967295u, 7};
    const ULong longs[] = {18446744073709551615ull};
    const std::tuple<const void *, UInt, UInt, const char *> cases[] = {
        {bytes, 2, 1, "static UByte t[2] = { \n0, 255\n};\n"},
        {shorts, 1, 2, "static UShort t[1] = { \n65535\n};\n"},
        {ints, 2, 4, "static UInt t[2] = { \n4294967295U, 7U\n};\n"},
        {longs, 1, 8, "static ULong t[1] = { \n18446744073709551615UL\n};\n"},
        {bytes, 17, 1,
         "static UByte t[17] = { \n0, 255, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,\n0\n};\n"},
        {bytes, 2, 3, ""}};
    for (auto [data, length, size, expected] : cases) {
        FILE *f = tmpfile();
        ULong position = 0;
        EXPECT_EQ(FileWriteCArray(f, "t", data, length, size) && FileGetPos(f, &position),
                  *expected != 0);
        std::string text(4096, '\0');
        rewind(f);
        text.resize(fread(text.data(), 1, text.size(), f));
        EXPECT_EQ(std::tuple(text, text.size(), fclose(f)), std::tuple(expected, position, 0));
    }
    EXPECT_ERROR(QK_ERR_INVALID, ": invalid element size in FileWriteCArray (size=3)");
}

// Each row: directory, name, recursive; the result and the errno of a
// failure. An empty directory part means the current directory.
TEST_F(FilePathTest, CreateMakesParentsAndAcceptsWhatStands) {
    WriteWhole(dir / "plain", "x");
    const std::string absolute = dir / "x/y";
    const std::tuple<const char *, const char *, int, int, int> cases[] = {
        {Dir(), "a/b", 0, 0, ENOENT},                                     // no parent, no recursion
        {Dir(), "a//b///c//", 1, 1, 0},       {Dir(), "a/b/c", 0, 1, 0},  // already there
        {Dir(), "plain", 0, 0, EEXIST},       {Dir(), "plain/under", 1, 0, ENOTDIR},
        {nullptr, absolute.c_str(), 1, 1, 0},  // starts below the root
        {Dir(), "\xE2\x82\xAC", 0, 1, 0},      // three-byte characters are fine
        {Dir(), "sub\xC0\xAF", 0, 0, EILSEQ},  // an overlong '/'
        {Dir(), kFourBytes, 1, 0, EILSEQ}};
    for (auto [directory, name, recursive, result, error] : cases) {
        errno = 0;
        EXPECT_EQ(DirectoryCreate(directory, name, recursive), result) << name;
        EXPECT_EQ(errno, result ? errno : error) << name;
    }
    InDirectory(dir.Path(), [] {
        EXPECT_EQ(DirectoryCreate("", "here", 0), 1);
        EXPECT_EQ(DirectoryCreateUCS2(Units(u"wide"), 0, Units(u"wide"), 4, 0), 1);
    });
    EXPECT_EQ(Walk(DirectoryEnumerateRelative, dir / "a/b").names, Names{"c"});
    EXPECT_EQ(Walk(DirectoryEnumerateRelative, dir / "x").names, Names{"y"});
    EXPECT_EQ(Walk(DirectoryEnumerateRelative, dir.Path()).names,
              (Names{"a", "here", "plain", "wide", "x", "\xE2\x82\xAC"}));
}

// The other calls refuse a path that is not well-formed, though it exists;
// the raw open asserts. A death test makes no directory: the dying child
// could not remove it.
TEST_F(FilePathTest, PathsThatAreNotWellFormedFailEverywhere) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(QKFileOpen(("/tmp/" + std::string(kFourBytes)).c_str(), QKFILE_READ),
                 "c == READ_EOF");
    WriteWhole(dir / kFourBytes, "x");
    std::vector<int> errors;
    auto failed = [&](bool failed) { errors.push_back(failed ? errno : 0); };
    failed(FileMapRead(Dir(), kFourBytes, nullptr, nullptr) == nullptr);
    failed(FileOpen(Dir(), kFourBytes, 1, 0) == -1);
    failed(FileMapRead(Dir(), "bad\x80", nullptr, nullptr) == nullptr);
    failed(FileLockAcquire(Dir(), kFourBytes, 1) == nullptr);
    failed(!FileRename((dir / "x").c_str(), (dir / kFourBytes).c_str(), nullptr));
    EXPECT_EQ(errors, std::vector<int>(5, EILSEQ));
    EXPECT_FALSE(FileExists((dir / kFourBytes).c_str()));
    EXPECT_EQ(FileSize((dir / kFourBytes).c_str()), ~(ULong)0);
}

// Every entry but the dots, with the directory or bare, until the callback
// says no; the UCS2 forms decode the names and replace what they cannot.
TEST_F(FilePathTest, EnumerateGivesEveryEntryButDots) {
    Names names = {".hidden", "one", "sub", "\xE2\x82\xAC", "\xF0\x9F\x98\x80"}, joined;
    for (const std::string &name : names) WriteWhole(dir / name, "");
    ASSERT_TRUE(unlink((dir / "sub").c_str()) == 0 && DirectoryCreate(Dir(), "sub", 0));
    for (const std::string &name : names) joined.push_back(dir / name);
    EXPECT_EQ(Walk(DirectoryEnumerateRelative, dir.Path()).names, names);
    EXPECT_EQ(Walk(DirectoryEnumerate, dir.Path()).names, joined);
    Walk stopped(DirectoryEnumerateRelative, dir.Path(), 2),
        missing(DirectoryEnumerate, dir / "no");
    EXPECT_EQ(std::tuple(stopped.result, stopped.names.size(), missing.result),
              std::tuple(0, 2u, 0));
    EXPECT_EQ(Left(), OS_FAILURE(ENOENT));
    auto collect = [](const UShort *name, UInt length, void *argument) {
        EXPECT_EQ(name[length], 0);
        ((std::vector<std::u16string> *)argument)->emplace_back((const char16_t *)name, length);
        return 1;
    };
    std::u16string wide = Wide(dir.Path());
    std::vector<std::u16string> bare, full;
    EXPECT_EQ(DirectoryEnumerateRelativeUCS2(Units(wide), (UInt)wide.size(), collect, &bare), 1);
    EXPECT_EQ(DirectoryEnumerateUCS2(Units(wide), (UInt)wide.size(), collect, &full), 1);
    std::sort(bare.begin(), bare.end());
    EXPECT_EQ(bare,
              (std::vector<std::u16string>{u".hidden", u"one", u"sub", u"\u20AC", u"\uFFFD"}));
    EXPECT_NE(std::find(full.begin(), full.end(), wide + u"/\u20AC"), full.end());
}

// Emptying keeps the directory and does not follow links; removing the files
// reports the first failure but goes on, and success leaves errno alone.
TEST_F(FilePathTest, RemoveContentsAndRemoveFiles) {
    TempDir outside;
    WriteWhole(outside / "keep", "precious");
    ASSERT_EQ(DirectoryCreate(Dir(), "t/u/v", 1), 1);
    for (const char *name : {"t/u/v/deep", "t/file", "top"}) WriteWhole(dir / name, name);
    ASSERT_EQ(symlink(outside.Path().c_str(), (dir / "t/link").c_str()), 0);
    EXPECT_EQ(DirectoryRemoveContents(Dir()), 1);
    EXPECT_EQ(Walk(DirectoryEnumerateRelative, dir.Path()).names, Names{});
    EXPECT_EQ(ReadWhole(outside / "keep"), "precious");
    for (const char *name : {"f1", "f2", "f3"}) WriteWhole(dir / name, "");
    ASSERT_EQ(DirectoryCreate(Dir(), "sub", 0), 1);
    EXPECT_EQ(std::tuple(DirectoryRemoveFiles(Dir()), errno), std::tuple(0, EISDIR));
    EXPECT_EQ(Walk(DirectoryEnumerateRelative, dir.Path()).names, Names{"sub"});
    ASSERT_EQ(rmdir((dir / "sub").c_str()), 0);
    WriteWhole(dir / "f4", "");
    errno = 7;
    EXPECT_EQ(std::tuple(DirectoryRemoveFiles(Dir()), errno), std::tuple(1, 7));
}

}  // namespace
