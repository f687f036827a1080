// Paths: absolute forms, attributes, temporary names, C tables, making,
// walking and emptying directories, and the UTF-8 check of every path.
#include "frame/frame_test.h"

namespace {

using Names = std::vector<std::string>;
using Walker = int (*)(const char *, DirectoryCallback, void *);

// U+1F600 in four bytes: the library's UTF-8 has no such sequences.
const char kFourBytes[] = "smile\xF0\x9F\x98\x80";

class FilePathTest : public FileTest {
  protected:
    static std::u16string Wide(const std::string &ascii) { return {ascii.begin(), ascii.end()}; }
    static const UShort *Units(const std::u16string &text) { return (const UShort *)text.data(); }

    // Runs `body` with the current directory at `where`.
    static void InDirectory(const std::string &where, const std::function<void()> &body) {
        char previous[4096];
        ASSERT_TRUE(getcwd(previous, sizeof previous) && chdir(where.c_str()) == 0);
        body();
        ASSERT_EQ(chdir(previous), 0);
    }

    // The names `walk` gives for `directory`, sorted, until it has `stop`;
    // the walk's result in `result`.
    static Names Walk(const std::string &directory, Walker walk = DirectoryEnumerateRelative,
                      size_t stop = 1000, int *result = nullptr) {
        std::pair<Names, size_t> seen{{}, stop};
        auto note = [](const char *name, void *argument) {
            auto *seen = (std::pair<Names, size_t> *)argument;
            return seen->first.push_back(name), (int)(seen->first.size() < seen->second);
        };
        int done = walk(directory.c_str(), note, &seen);
        if (result) *result = done;
        std::sort(seen.first.begin(), seen.first.end());
        return seen.first;
    }
};

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
        plain = Text(out) + (char)out.data[out.length];
        EXPECT_EQ(PathMakeAbsolute(&out, "../a/./b/c/../f"), 1);
        dotted = Text(out);
        EXPECT_EQ(PathMakeAbsoluteUCS2(&wide, Units(u"b/f"), 3), 1);
    });
    EXPECT_EQ(std::tuple(plain, dotted), std::tuple(here + '\0', here));
    EXPECT_EQ(std::u16string((const char16_t *)wide.data, wide.length + 1), Wide(here) + u'\0');
    EXPECT_EQ(PathMakeAbsolute(&out, "/x/../y"), 1);
    EXPECT_EQ(std::tuple(Text(out), out.capacity >= 261), std::tuple("/x/../y", true));
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
    EXPECT_EQ(Left(FileSize(missing.c_str())), OS_FAILURE(~(ULong)0, ENOENT));
    const std::string prefix = dir / "tmp.";
    char first[256], second[256];
    strcpy(first, prefix.c_str()), strcpy(second, prefix.c_str());
    EXPECT_TRUE(CreateTemporaryFileName(first) == first &&
                CreateTemporaryFileName(second) == second);
    EXPECT_TRUE(strncmp(first, prefix.c_str(), prefix.size()) == 0 && strcmp(first, second) &&
                strlen(first) == prefix.size() + 6 && strcmp(first + prefix.size(), "XXXXXX"))
        << first << " " << second;
}

TEST_F(FilePathTest, CArraysOfEverySize) {
    const UByte bytes[17] = {0, 255};
    const UShort shorts[] = {65535};
    const UInt ints[] = {4294967295u, 7};
    const ULong longs[] = {18446744073709551615ull};
    const std::tuple<const void *, UInt, UInt, const char *> cases[] = {
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
TEST_F(FilePathTest, CreateAndPathsThatAreNotWellFormed) {
    // The raw open asserts on a path that is not well-formed; first, as the
    // dying child could not remove what the test makes.
    EXPECT_DEATH(QKFileOpen(("/tmp/" + std::string(kFourBytes)).c_str(), QKFILE_READ),
                 "c == READ_EOF");
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
        EXPECT_EQ(WithErrno(DirectoryCreate(directory, name, recursive)), std::tuple(result, error))
            << name;
    }
    InDirectory(dir.Path(), [] {
        EXPECT_EQ(DirectoryCreate("", "here", 0), 1);
        EXPECT_EQ(DirectoryCreateUCS2(Units(u"wide"), 0, Units(u"wide"), 4, 0), 1);
    });
    EXPECT_EQ(std::tuple(Walk(dir / "a/b"), Walk(dir / "x")), std::tuple(Names{"c"}, Names{"y"}));
    EXPECT_EQ(Walk(dir.Path()), (Names{"a", "here", "plain", "wide", "x", "\xE2\x82\xAC"}));
    // The other calls refuse a path that is not well-formed, though it exists.
    WriteWhole(dir / kFourBytes, "x");
    std::vector<int> errors;
    auto failed = [&](bool failed) { errors.push_back(failed ? errno : 0); };
    failed(FileMapRead(Dir(), kFourBytes, nullptr, nullptr) == nullptr);
    failed(FileOpen(Dir(), kFourBytes, 1, 0) == -1);
    failed(FileLockAcquire(Dir(), kFourBytes, 1) == nullptr);
    failed(!FileRename((dir / "x").c_str(), (dir / kFourBytes).c_str(), nullptr));
    EXPECT_EQ(errors, std::vector<int>(4, EILSEQ));
    EXPECT_FALSE(FileExists((dir / kFourBytes).c_str()));
    EXPECT_EQ(FileSize((dir / kFourBytes).c_str()), ~(ULong)0);
}

// Every entry but the dots, with the directory or bare, until the callback
// says no; the UCS2 forms decode the names and replace what they cannot.
TEST_F(FilePathTest, EnumerateAndRemove) {
    Names names = {".hidden", "one", "sub", "\xE2\x82\xAC", "\xF0\x9F\x98\x80"}, joined;
    for (const std::string &name : names) WriteWhole(dir / name, "");
    ASSERT_TRUE(unlink((dir / "sub").c_str()) == 0 && DirectoryCreate(Dir(), "sub", 0));
    for (const std::string &name : names) joined.push_back(dir / name);
    EXPECT_EQ(Walk(dir.Path()), names);
    EXPECT_EQ(Walk(dir.Path(), DirectoryEnumerate), joined);
    int stopped = -1;
    EXPECT_TRUE(Walk(dir.Path(), DirectoryEnumerateRelative, 2, &stopped).size() == 2 && !stopped);
    EXPECT_EQ(Left(DirectoryEnumerate((dir / "no").c_str(), nullptr, nullptr)),
              OS_FAILURE(0, ENOENT));
    auto collect = [](const UShort *name, UInt length, void *argument) {
        EXPECT_EQ(name[length], 0);
        ((std::vector<std::u16string> *)argument)->emplace_back((const char16_t *)name, length);
        return 1;
    };
    std::u16string wide = Wide(dir.Path());
    std::vector<std::u16string> bare, full;
    EXPECT_EQ(DirectoryEnumerateRelativeUCS2(Units(wide), (UInt)wide.size(), collect, &bare), 1);
    EXPECT_EQ(DirectoryEnumerateUCS2(Units(wide), (UInt)wide.size(), collect, &full), 1);
    std::sort(bare.begin(), bare.end()), std::sort(full.begin(), full.end());
    EXPECT_EQ(bare,
              (std::vector<std::u16string>{u".hidden", u"one", u"sub", u"\u20AC", u"\uFFFD"}));
    EXPECT_EQ(full[3], wide + u"/\u20AC");
    // Emptying keeps the directory and does not follow links; removing the files
    // reports the first failure but goes on, and success leaves errno alone.
    TempDir outside;
    WriteWhole(outside / "keep", "precious");
    ASSERT_EQ(DirectoryCreate(Dir(), "t/u/v", 1), 1);
    for (const char *name : {"t/u/v/deep", "t/file", "top"}) WriteWhole(dir / name, name);
    ASSERT_EQ(symlink(outside.Path().c_str(), (dir / "t/link").c_str()), 0);
    EXPECT_TRUE(DirectoryRemoveContents(Dir()) && Walk(dir.Path()).empty());
    EXPECT_EQ(ReadWhole(outside / "keep"), "precious");
    for (const char *name : {"f1", "f2", "f3"}) WriteWhole(dir / name, "");
    ASSERT_EQ(DirectoryCreate(Dir(), "sub", 0), 1);
    EXPECT_EQ(WithErrno(DirectoryRemoveFiles(Dir())), std::tuple(0, EISDIR));
    EXPECT_EQ(Walk(dir.Path()), Names{"sub"});
    ASSERT_EQ(rmdir((dir / "sub").c_str()), 0);
    WriteWhole(dir / "f4", "");
    errno = 7;
    EXPECT_EQ(WithErrno(DirectoryRemoveFiles(Dir())), std::tuple(1, 7));
}

}  // namespace
