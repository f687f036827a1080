// The committed Unicode tables are what qkgen makes of the installed
// character database.
#include <gtest/gtest.h>

#include <string>

#include "frame/file_test_dir.h"

namespace {

constexpr char kUnicodeData[] = "/usr/share/unicode/UnicodeData.txt";

class Regenerate : public testing::TestWithParam<const char *> {};

TEST_P(Regenerate, MatchesTheCommittedFile) {
    if (access(kUnicodeData, R_OK) != 0) GTEST_SKIP() << "no Unicode character database";
    std::string table = GetParam(), file = table;
    for (char &c : file) c = c == '-' ? '_' : c;
    std::string committed = std::string(QK_SOURCE_DIR) + "/src/text/generated/" + file + ".inc";
    TempDir dir;
    std::string output = dir / "table.inc";
    std::string command = std::string(QKGEN_PATH) + " " + table + " " + output;
    ASSERT_EQ(system(command.c_str()), 0) << command;
    std::string generated = ReadWhole(output), expected = ReadWhole(committed);
    ASSERT_FALSE(expected.empty() || expected == "<missing>") << committed;
    // Compared as a whole, not with EXPECT_EQ: the files are large.
    EXPECT_TRUE(generated == expected) << committed << " differs from: " << command;
}

INSTANTIATE_TEST_SUITE_P(Tables, Regenerate,
                         testing::Values("unicode-case", "unicode-numeric", "unicode-names",
                                         "unicode-normal"));

TEST(Qkgen, RefusesUnknownTablesAndMissingDataWithoutOutput) {
    TempDir dir;
    std::string output = dir / "never";
    std::string unknown = std::string(QKGEN_PATH) + " no-such-table " + output + " 2>/dev/null";
    EXPECT_NE(system(unknown.c_str()), 0);
    std::string missing = std::string(QKGEN_PATH) + " --unicode-dir /nonexistent unicode-case " +
                          output + " 2>/dev/null";
    EXPECT_NE(system(missing.c_str()), 0);
    EXPECT_EQ(ReadWhole(output) + ReadWhole(output + ".tmp"), "<missing><missing>");
}

}  // namespace
