// The committed Unicode tables are what qkgen makes of the installed
// character database.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

namespace {

constexpr char kUnicodeData[] = "/usr/share/unicode/UnicodeData.txt";

std::string ReadFile(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

class Regenerate : public testing::TestWithParam<const char *> {};

TEST_P(Regenerate, MatchesTheCommittedFile) {
    if (access(kUnicodeData, R_OK) != 0) GTEST_SKIP() << "no Unicode character database";
    std::string table = GetParam();
    std::string file = table;
    for (char &c : file) c = c == '-' ? '_' : c;
    std::string committed = std::string(QK_SOURCE_DIR) + "/src/text/generated/" + file + ".inc";
    char output[] = "/tmp/qkgen_test_XXXXXX";
    int fd = mkstemp(output);
    ASSERT_GE(fd, 0);
    close(fd);
    std::string command = std::string(QKGEN_PATH) + " " + table + " " + output;
    ASSERT_EQ(system(command.c_str()), 0) << command;
    std::string generated = ReadFile(output);
    unlink(output);
    std::string expected = ReadFile(committed);
    ASSERT_FALSE(expected.empty()) << committed;
    // Compared as a whole, not with EXPECT_EQ: the files are large.
    EXPECT_TRUE(generated == expected) << committed << " differs from: " << command;
}

INSTANTIATE_TEST_SUITE_P(Tables, Regenerate,
                         testing::Values("unicode-case", "unicode-numeric", "unicode-names",
                                         "unicode-normal"));

TEST(Qkgen, RefusesUnknownTablesAndMissingDataWithoutOutput) {
    std::string output = "/tmp/qkgen_test_never_" + std::to_string(getpid());
    std::string unknown = std::string(QKGEN_PATH) + " no-such-table " + output + " 2>/dev/null";
    EXPECT_NE(system(unknown.c_str()), 0);
    std::string missing = std::string(QKGEN_PATH) + " --unicode-dir /nonexistent unicode-case " +
                          output + " 2>/dev/null";
    EXPECT_NE(system(missing.c_str()), 0);
    EXPECT_NE(access(output.c_str(), F_OK), 0);
    EXPECT_NE(access((output + ".tmp").c_str(), F_OK), 0);
}

}  // namespace
