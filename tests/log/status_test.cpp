// Status files: the exact text, parse failures, replacement and recovery,
// serial forms and their removal.
#include <gtest/gtest.h>

#include <deque>
#include <filesystem>
#include <numeric>
#include <set>
#include <string>

#include "frame/file_test_dir.h"
#include "qk/qkcommon.h"

namespace {

// Items are strings owned by the test, which never move; a parsed one keeps
// its line number.
std::deque<std::string> gItems;

void *ParseItem(const char *line, Int lineNumber, void *) {
    return &gItems.emplace_back(std::to_string(lineNumber) + ":" + line);
}

class StatusTest : public ::testing::Test {
  protected:
    void SetUp() override { QKLibInit("statustest"); }
    static int Print(FILE *f, void *s, void *) { return fputs(((std::string *)s)->data(), f) >= 0; }
    int Read(int create = 0, StatusParseFn parse = nullptr, ULong serial = STATUS_NO_SERIAL) {
        return StatusRead(dir.Path().c_str(), serial, &status, create, parse, nullptr);
    }
    int Write(StatusPrintFn print = Print) { return StatusWrite(&status, print, nullptr); }
    // The files of the directory in order of name, each as "name:content|".
    std::string Files() const {
        std::set<std::string> files;
        for (auto &e : std::filesystem::directory_iterator(dir.Path()))
            files.insert(e.path().filename().string() + ":" + ReadWhole(e.path()) + "|");
        return std::accumulate(files.begin(), files.end(), std::string());
    }
    // "ok" or the error (code/domain text), then the parameters that are not
    // zero (names that are no letter have none), the bucket count and last
    // bucket, the data count and last item.
    std::string Outcome(int ok) const {
        ULong e = QKErrorCode();
        std::string s = ok ? "ok "
                           : std::to_string((UInt)e) + "/" + std::to_string(e >> 32) + " " +
                                 QKErrorMessage() + " ";
        for (char c = '0'; c <= '~'; c++)
            if (ULong v = StatusGetParameter(&status, c)) s += c + std::to_string(v) + " ";
        UInt b = status.bucketCount, d = status.dataCount;
        s += "#" + std::to_string(b) + (b ? ":" + std::to_string(status.buckets[b - 1]) : "");
        return s + " @" + std::to_string(d) +
               (d ? ":" + *static_cast<std::string *>(status.data[d - 1]) : "");
    }

    TempDir dir;
    Status status = {};
};

TEST_F(StatusTest, WritesTheLinesInOrderAndSerialFormsInPlaceAndRemovesThem) {
    ASSERT_EQ(Read(1), 1);
    ASSERT_EQ(Write(), 1);
    EXPECT_EQ(Files(), "status.txt:|");  // all zero: an empty file
    for (auto [name, value] : {std::pair('b', 7ull), {'A', 18446744073709551615ull}, {'a', 1ull}})
        StatusSetParameter(&status, name, value);
    status.bucketCount = 2, status.buckets[0] = 5;
    std::string one = "one", two = "t w o";
    ASSERT_EQ(StatusAddData(&status, &one) + StatusAddData(&status, &two), 2);
    ASSERT_EQ(Write(), 1);
    EXPECT_EQ(Files(), "status.txt:a=1\nA=18446744073709551615\nb=7\n#5\n#0\n@one\n@t w o\n|");
    EXPECT_DEATH(StatusSetParameter(&status, '1', 1), "FALSE");

    // A serial form that does not exist yet is written under its name.
    std::filesystem::remove(dir / "status.txt");
    for (ULong n : {3ull, 12ull, 13ull}) {  // 13 replaces the form of 12
        ASSERT_EQ(Read(1, nullptr, n == 13 ? 12 : n), 1);
        StatusSetParameter(&status, 'n', n);
        ASSERT_EQ(Write(), 1);
    }
    EXPECT_EQ(Files(), "status.txt.12:n=13\n|status.txt.3:n=3\n|");

    for (const char *name : {"status.new.4", "status.old.5", "status.txt", "status.txt.x",
                             "other.4", "status.old.18446744073709551616"})
        WriteWhole(dir / name, "");
    EXPECT_EQ(StatusRemoveFiles(dir.Path().c_str(), 4, 12, nullptr), 1);
    // No replication log can be told: a status that has one is refused.
    status.replication = reinterpret_cast<ReplicationLog *>(&status);
    EXPECT_EQ(Outcome(Write()).substr(0, 17), "6/2 not supported");
    EXPECT_EQ(StatusRemoveFiles(dir.Path().c_str(), 0, 99, status.replication), 0);
    EXPECT_EQ(
        Files(),
        "other.4:|status.old.18446744073709551616:|status.txt.3:n=3\n|status.txt.x:|status.txt:|");
}

// A failed read names the line and keeps what was read before the failure.
TEST_F(StatusTest, ReadsTheLinesOrNamesTheOneThatFails) {
    std::string buckets, data;
    for (int i = 0; i < 1001; i++) buckets += "#" + std::to_string(i) + "\n", data += "@x\n";
    const std::pair<std::string, std::string> cases[] = {
        {"Q=3\n#9\n@x y\n@\n", "ok Q3 #1:9 @2:4:"},
        {"a=1", "0/2 parse error line 1 #0 @0"},  // no final line feed
        {"@data", "0/2 parse error line 1 #0 @0"},
        {"a1\n", "0/2 parse error line 1 #0 @0"},
        {"a=1\n?=2\n", "0/2 parse error line 2 a1 #0 @0"},
        {"c=4\nd=2x\n", "0/2 invalid value line 2 c4 #0 @0"},
        {"#-1\n", "0/2 invalid value line 1 #0 @0"},
        {"a=18446744073709551616\n", "0/2 invalid value line 1 #0 @0"},
        {buckets, "0/2 too many buckets #1000:999 @0"},
        {data, "0/2 too many user data fields #0 @1000:1000:x"}};
    for (const auto &[text, expected] : cases) {
        WriteWhole(dir / "status.txt", text);
        EXPECT_EQ(Outcome(Read(0, ParseItem)), expected);
    }
    EXPECT_EQ(StatusAddData(&status, nullptr), 0);
    EXPECT_EQ(Outcome(Read()), "ok #0 @0");  // without a parser the data lines are skipped
    std::string tooLong(STATUS_DIR_SIZE, 'd');
    EXPECT_EQ(Outcome(StatusRead(tooLong.c_str(), 0, &status, 1, 0, 0)).substr(0, 21),
              "1/2 path too long: \"d");
}

TEST_F(StatusTest, AReadFinishesAnInterruptedReplacement) {
    // Cut after "status.txt" became "status.old": the new version wins.
    WriteWhole(dir / "status.old", "a=1\n");
    WriteWhole(dir / "status.new", "a=2\n");
    EXPECT_EQ(Outcome(Read()), "ok a2 #0 @0");
    EXPECT_EQ(Files(), "status.old:a=1\n|status.txt:a=2\n|");
    std::filesystem::remove(dir / "status.txt");  // only the previous version is left
    EXPECT_EQ(Outcome(Read()), "ok a1 #0 @0");

    // A stale "status.new" beside a whole "status.txt" is ignored, and the
    // next write replaces it. A write whose printer fails leaves the file.
    WriteWhole(dir / "status.new", "garbage");
    ASSERT_EQ(Read(), 1);
    StatusSetParameter(&status, 'b', 3);
    ASSERT_EQ(Write(), 1);
    EXPECT_EQ(Files(), "status.txt:a=1\nb=3\n|");
    ASSERT_EQ(StatusAddData(&status, &status), 1);
    EXPECT_EQ(Write([](FILE *, void *, void *) { return 0; }), 0);
    EXPECT_EQ(ReadWhole(dir / "status.txt"), "a=1\nb=3\n");

    for (const char *name : {"status.txt", "status.new"}) std::filesystem::remove(dir / name);
    EXPECT_EQ(Outcome(Read()).substr(0, 4), "2/1 ");  // ENOENT
    errno = 33;
    EXPECT_EQ(Read(1), 1);
    EXPECT_EQ(errno, 33);
    std::filesystem::remove(dir.Path());  // a missing directory cannot take one
    EXPECT_EQ(Outcome(Write()).substr(0, 4), "2/1 ");
}

}  // namespace
