// Status files: the exact text, parse failures, replacement and recovery,
// serial forms and their removal.
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "frame/file_test_dir.h"
#include "qk/qkcommon.h"

namespace {

// Items are strings owned by the test.
std::vector<std::string> gItems;

void *ParseItem(const char *line, Int lineNumber, void *) {
    gItems.push_back(std::to_string(lineNumber) + ":" + line);
    return &gItems.back();
}

int PrintItem(FILE *file, void *item, void *) {
    return fputs(static_cast<std::string *>(item)->c_str(), file) >= 0;
}

class StatusTest : public ::testing::Test {
  protected:
    void SetUp() override {
        QKLibInit("statustest");
        gItems.clear();
        gItems.reserve(1100);
    }
    int Read(int create = 0, StatusParseFn parse = nullptr, ULong serial = STATUS_NO_SERIAL) {
        return StatusRead(dir.Path().c_str(), serial, status.get(), create, parse, nullptr);
    }
    int Write() { return StatusWrite(status.get(), PrintItem, nullptr); }
    std::string File(const std::string &name) const { return ReadWhole(dir / name); }
    bool Exists(const std::string &name) const { return FileExists((dir / name).c_str()); }

    TempDir dir;
    std::unique_ptr<Status> status = std::make_unique<Status>();
};

TEST_F(StatusTest, WritesTheLinesInOrderAndReadsThemBack) {
    ASSERT_EQ(Read(1), 1);
    ASSERT_EQ(Write(), 1);
    EXPECT_EQ(File("status.txt"), "");  // all zero: an empty file
    StatusSetParameter(status.get(), 'b', 7);
    StatusSetParameter(status.get(), 'A', 18446744073709551615ull);
    StatusSetParameter(status.get(), 'a', 1);
    StatusSetParameter(status.get(), 'z', 0);
    status->buckets[0] = 5;
    status->bucketCount = 2;
    std::string one = "one", two = "t w o";
    ASSERT_EQ(StatusAddData(status.get(), &one), 1);
    ASSERT_EQ(StatusAddData(status.get(), &two), 1);
    ASSERT_EQ(Write(), 1);
    EXPECT_EQ(File("status.txt"), "a=1\nA=18446744073709551615\nb=7\n#5\n#0\n@one\n@t w o\n");
    EXPECT_FALSE(Exists("status.new") || Exists("status.old"));

    WriteWhole(dir / "status.txt", "Q=3\n#9\n@x y\n@\n");
    ASSERT_EQ(Read(0, ParseItem), 1);
    EXPECT_EQ(StatusGetParameter(status.get(), 'Q'), 3u);
    EXPECT_EQ(StatusGetParameter(status.get(), 'a'), 0u);
    EXPECT_EQ(StatusGetParameter(status.get(), '1'), 0u);
    ASSERT_EQ(status->bucketCount, 1u);
    EXPECT_EQ(status->buckets[0], 9u);
    ASSERT_EQ(status->dataCount, 2u);
    EXPECT_EQ(*static_cast<std::string *>(status->data[0]), "3:x y");
    EXPECT_EQ(*static_cast<std::string *>(status->data[1]), "4:");
    EXPECT_STREQ(status->dir, dir.Path().c_str());
    EXPECT_DEATH(StatusSetParameter(status.get(), '1', 1), "FALSE");
}

TEST_F(StatusTest, ParseFailuresNameTheLine) {
    const std::pair<std::string, std::string> cases[] = {
        {"a=1", "parse error line 1"},  // no final line feed
        {"a=1\nb=", "parse error line 2"},
        {"@data", "parse error line 1"},
        {"a1\n", "parse error line 1"},
        {"a=1\n?=2\n", "parse error line 2"},
        {"a=1\nb=2x\n", "invalid value line 2"},
        {"#-1\n", "invalid value line 1"},
        {"a=18446744073709551616\n", "invalid value line 1"},
    };
    for (const auto &[text, message] : cases) {
        WriteWhole(dir / "status.txt", text);
        EXPECT_EQ(Read(1), 0) << text;
        EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(0, 2)) << text;
        EXPECT_STREQ(QKErrorMessage(), message.c_str()) << text;
    }
    // What was read before the failure stays.
    WriteWhole(dir / "status.txt", "c=4\nd=x\n");
    EXPECT_EQ(Read(), 0);
    EXPECT_EQ(StatusGetParameter(status.get(), 'c'), 4u);

    std::string text;
    for (int i = 0; i < 1001; i++) text.append("#").append(std::to_string(i)).append("\n");
    WriteWhole(dir / "status.txt", text);
    EXPECT_EQ(Read(), 0);
    EXPECT_STREQ(QKErrorMessage(), "too many buckets");
    EXPECT_EQ(status->bucketCount, 1000u);
    EXPECT_EQ(status->buckets[999], 999u);

    text.clear();
    for (int i = 0; i < 1001; i++) text += "@x\n";
    WriteWhole(dir / "status.txt", text);
    EXPECT_EQ(Read(0, ParseItem), 0);
    EXPECT_STREQ(QKErrorMessage(), "too many user data fields");
    EXPECT_EQ(status->dataCount, 1000u);
    EXPECT_EQ(StatusAddData(status.get(), nullptr), 0);
    EXPECT_EQ(Read(), 1);  // without a parser the data lines are skipped
    EXPECT_EQ(status->dataCount, 0u);
}

TEST_F(StatusTest, AReadFinishesAnInterruptedReplacement) {
    // Cut after "status.txt" became "status.old": the new version wins.
    WriteWhole(dir / "status.old", "a=1\n");
    WriteWhole(dir / "status.new", "a=2\n");
    ASSERT_EQ(Read(), 1);
    EXPECT_EQ(StatusGetParameter(status.get(), 'a'), 2u);
    EXPECT_EQ(File("status.txt"), "a=2\n");
    EXPECT_FALSE(Exists("status.new"));

    // Only the previous version is left.
    unlink((dir / "status.txt").c_str());
    ASSERT_EQ(Read(), 1);
    EXPECT_EQ(StatusGetParameter(status.get(), 'a'), 1u);

    // A stale "status.new" beside a whole "status.txt" is ignored, and the
    // next write replaces it.
    WriteWhole(dir / "status.new", "garbage");
    ASSERT_EQ(Read(), 1);
    StatusSetParameter(status.get(), 'b', 3);
    ASSERT_EQ(Write(), 1);
    EXPECT_EQ(File("status.txt"), "a=1\nb=3\n");
    EXPECT_FALSE(Exists("status.new") || Exists("status.old"));

    unlink((dir / "status.txt").c_str());
    EXPECT_EQ(Read(), 0);
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(ENOENT, QK_DOMAIN_OS));
    errno = 33;
    EXPECT_EQ(Read(1), 1);
    EXPECT_EQ(errno, 33);
}

TEST_F(StatusTest, SerialFormsAreWrittenInPlaceAndRemovedByRange) {
    for (ULong serial : {3ull, 12ull}) {
        ASSERT_EQ(Read(1, nullptr, serial), 1);
        StatusSetParameter(status.get(), 'n', serial);
        ASSERT_EQ(Write(), 1);
    }
    EXPECT_EQ(File("status.txt.3"), "n=3\n");
    EXPECT_EQ(File("status.txt.12"), "n=12\n");
    EXPECT_FALSE(Exists("status.txt"));
    StatusSetParameter(status.get(), 'n', 13);  // an existing one is replaced
    ASSERT_EQ(Write(), 1);
    EXPECT_EQ(File("status.txt.12"), "n=13\n");

    for (const char *name : {"status.new.4", "status.old.5", "status.txt", "status.txt.x",
                             "other.4", "status.old.18446744073709551616"})
        WriteWhole(dir / name, "");
    EXPECT_EQ(StatusRemoveFiles(dir.Path().c_str(), 4, 12, nullptr), 1);
    for (const char *name : {"status.txt.12", "status.new.4", "status.old.5"})
        EXPECT_FALSE(Exists(name)) << name;
    for (const char *name : {"status.txt.3", "status.txt", "status.txt.x", "other.4",
                             "status.old.18446744073709551616"})
        EXPECT_TRUE(Exists(name)) << name;

    // No replication log can be told: a status that has one is refused.
    status->replication = reinterpret_cast<ReplicationLog *>(status.get());
    EXPECT_EQ(Write(), 0);
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(6, 2));
    EXPECT_FALSE(Exists("status.txt.12"));
    EXPECT_EQ(StatusRemoveFiles(dir.Path().c_str(), 0, 9, status->replication), 0);
    EXPECT_TRUE(Exists("status.txt.3"));
}

}  // namespace
