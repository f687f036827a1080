// Opening arenas: creation and its files, byte for byte; reopening; every
// way an open refuses a directory; recovery of an interrupted commit.
#include <unistd.h>

#include "arena/arena_internal.h"
#include "arena_image.h"
#include "arena_test_util.h"

using namespace arenatest;
using namespace qk::arena;

namespace {

std::string EmptyNewGen(UInt buckets) {
    std::string bytes = LE(buckets, 8);
    for (int c = 0; c < 16; c++) bytes += Packed(1, {});
    for (int c = 0; c < 16; c++) bytes += LE(~0u, 4) + LE(0, 4);
    return bytes + Packed(1, {}) + LE(1, 8) + Raw(8, {}) + LE(0, 4) + LE(0, 1) + LE(13, 1);
}

const std::string kEmptyOldGen =
    Packed(1, {}) + Packed(1, {0, 0}) + Packed(1, {0}) + LE(1, 4) + std::string(1, '\0');
const std::string kEmptyIndexNew =
    LE(8192, 8) + LE(0, 8) + Raw(4, {}) + Packed(1, {}) + Packed(1, {}) + Packed(1, {});

class ArenaOpenTest : public ::testing::Test {
  protected:
    void SetUp() override { QKLibInit("arenaopentest"); }
    VMArena *Open(UInt flags, UInt buckets = 1, ULong serial = STATUS_NO_SERIAL) {
        return VMArenaOpen(dir.Path().c_str(), flags, buckets, serial, serial, nullptr, nullptr);
    }
    // The open fails with a message that starts with `text`, "%s" standing
    // for the directory.
    void ExpectFailure(UInt flags, std::string text) {
        VMArena *arena = Open(flags);
        EXPECT_EQ(arena, nullptr);
        VMArenaClose(arena);
        for (size_t at; (at = text.find("%s")) != std::string::npos;)
            text.replace(at, 2, dir.Path());
        EXPECT_TRUE(StartsWith(QKErrorMessage(), text)) << QKErrorMessage();
    }
    // The bytes of array `name` in the old generation.
    std::string ReadNamed(const std::string &name) {
        VMArena *arena = Open(kWrite);
        if (arena == nullptr) return std::string("<") + QKErrorMessage() + ">";
        Int id = NameServiceFind(arena, OLDGEN, name.data(), (UInt)name.size());
        std::string content = id > 0 ? Contents(arena, id, OLDGEN) : "<none>";
        VMArenaClose(arena);
        return content;
    }
    void Touch(const std::string &name) { WriteWhole(dir / name, ""); }
    bool Exists(const std::string &name) { return FileExists((dir / name).c_str()); }
    TempDir dir;
};

TEST_F(ArenaOpenTest, CreatesItsBucketsAndReopensWithTheFilesCount) {
    for (UInt buckets : {1u, 4u}) {
        DirectoryRemoveContents(dir.Path().c_str());
        ExpectFailure(kWrite, "could not read VMArena in \"%s\"");
        EXPECT_TRUE(Tree(dir.Path()).empty());
        VMArena *arena = Open(kCreate, buckets);
        ASSERT_NE(arena, nullptr) << QKErrorMessage();
        EXPECT_STREQ(VMArenaPath(arena), dir.Path().c_str());
        EXPECT_EQ(VMArenaArrayCount(arena, NEWGEN), 1u);
        EXPECT_EQ(VMArenaArrayCount(arena, OLDGEN), 1u);
        EXPECT_EQ(NameServiceFind(arena, NEWGEN, "x", 1), kNoArray);
        VMArenaClose(arena);
        std::set<std::string> files = {"arena.new", "arena.old", "block/"};
        EXPECT_EQ(ReadWhole(dir / "arena.new"), EmptyNewGen(buckets));
        EXPECT_EQ(ReadWhole(dir / "arena.old"), kEmptyOldGen);
        for (UInt b = 0; b < buckets; b++) {
            std::string x = "block/index" + std::to_string(b);
            files.insert({x + ".new", x + ".old", "block/data" + std::to_string(b)});
            EXPECT_EQ(ReadWhole(dir / (x + ".new")), kEmptyIndexNew);
            EXPECT_EQ(ReadWhole(dir / (x + ".old")), Raw(4, {}));
            EXPECT_EQ(ReadWhole(dir / ("block/data" + std::to_string(b))),
                      std::string(65536, '\0'));
        }
        EXPECT_EQ(Tree(dir.Path()), files);

        // The count given on reopening does not count; nothing is written.
        arena = Open(kWrite, 3);
        ASSERT_NE(arena, nullptr) << QKErrorMessage();
        EXPECT_EQ(ArrayLength(arena->server.buckets), buckets);
        EXPECT_EQ(arena->server.bucketBits, buckets == 4 ? 2u : 0u);
        VMArenaClose(arena);
        EXPECT_EQ(Tree(dir.Path()), files);
    }
    // A bucket whose index files are gone comes back empty, unless the
    // arena is opened to read.
    unlink((dir / "block/index2.new").c_str());
    unlink((dir / "block/index2.old").c_str());
    ExpectFailure(kRead, "existing but not openable VM in \"%s\"");
    EXPECT_FALSE(Exists("block/index2.new"));
    VMArenaClose(Open(kWrite));
    EXPECT_EQ(ReadWhole(dir / "block/index2.new"), kEmptyIndexNew);
    EXPECT_EQ(ReadWhole(dir / "block/index2.old"), Raw(4, {}));
}

TEST_F(ArenaOpenTest, SerialModeNamesEveryFileBySerial) {
    VMArena *arena = Open(kCreate, 2, 0);
    ASSERT_NE(arena, nullptr) << QKErrorMessage();
    VMArenaClose(arena);
    EXPECT_EQ(Tree(dir.Path()),
              (std::set<std::string>{"arena.new.0", "arena.old.0", "block/", "block/data0",
                                     "block/data1", "block/index0.new.0", "block/index0.old.0",
                                     "block/index1.new.0", "block/index1.old.0"}));
    EXPECT_EQ(ReadWhole(dir / "arena.new.0"), EmptyNewGen(2));
    EXPECT_EQ(ReadWhole(dir / "block/index1.new.0"), kEmptyIndexNew);
    // In serial mode the block directory is no sign of an arena.
    EXPECT_EQ(Open(kWrite, 2, 1), nullptr);
    EXPECT_TRUE(StartsWith(QKErrorMessage(), "could not read VMArena")) << QKErrorMessage();

    arena = Open(kRead, 2, 0);
    ASSERT_NE(arena, nullptr) << QKErrorMessage();
    EXPECT_EQ(VMArenaUnlinkGeneration(arena, 0, 0), 1);
    VMArenaClose(arena);
    EXPECT_EQ(Tree(dir.Path()), (std::set<std::string>{"block/", "block/data0", "block/data1"}));
}

TEST_F(ArenaOpenTest, MarkersDecideFirst) {
    for (UInt flags : {(UInt)VM_FLAG_CREATE, kRead | VM_FLAG_CREATE, kRead | VM_FLAG_RECOVER}) {
        EXPECT_EQ(Open(flags), nullptr);
        EXPECT_NE(QKErrorCode(), 0u);
    }
    int cache = 0;
    EXPECT_EQ(VMArenaOpen(dir.Path().c_str(), kCreate, 1, STATUS_NO_SERIAL, STATUS_NO_SERIAL,
                          nullptr, reinterpret_cast<PageCache *>(&cache)),
              nullptr);
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(QK_ERR_NOT_SUPPORTED, QK_DOMAIN_GENERAL));
    EXPECT_TRUE(Tree(dir.Path()).empty());

    VMArena *arena = Open(kCreate);
    VMArena *reader = Open(kRead);
    ASSERT_TRUE(arena != nullptr && reader != nullptr) << QKErrorMessage();
    VMArenaTagCorrupted(reader);  // a reader does not tag
    VMArenaClose(reader);
    EXPECT_FALSE(Exists("corrupted"));
    Touch("committing");
    ExpectFailure(kRead, "Cannot open read-only vm in \"%s\": incomplete commit");
    VMArenaTagCorrupted(arena);
    VMArenaClose(arena);
    struct stat st;
    ASSERT_EQ(stat((dir / "corrupted").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    for (UInt flags : {kRead, kWrite, kCreate}) ExpectFailure(flags, "Corrupted vm in \"%s\"");
    EXPECT_TRUE(Exists("committing"));
}

TEST_F(ArenaOpenTest, HalfMadeArenasAreNeverOverwritten) {
    for (const char *names : {"block/", "arena.old.new", "arena.new.old", "arena.old", "arena.new",
                              "arena.old.old", "arena.new.new", "arena.new arena.old"}) {
        DirectoryRemoveContents(dir.Path().c_str());
        std::string list = names;
        for (size_t at = 0, end; at < list.size(); at = end + 1) {
            end = std::min(list.find(' ', at), list.size());
            std::string name = list.substr(at, end - at);
            if (name.back() == '/') {
                mkdir((dir / name).c_str(), 0755);
            } else {
                Touch(name);  // empty
            }
        }
        auto before = Tree(dir.Path());
        ExpectFailure(kCreate, "existing but not openable VM in \"%s\"");
        // A recovery may rename, but nothing is made.
        EXPECT_EQ(Tree(dir.Path()).size(), before.size()) << names;
        EXPECT_EQ(Tree(dir.Path()).count("block/"), before.count("block/")) << names;
    }
}

TEST_F(ArenaOpenTest, DamagedFilesFailWithTheirOwnMessage) {
    ArenaImage image;
    image.arrays = {{"a", std::string(20000, 'a')}, {"b", "bb"}};
    ASSERT_TRUE(image.Write(dir.Path()));
    std::map<std::string, std::string> good;
    for (const char *name :
         {"arena.new", "arena.old", "block/index0.new", "block/index0.old", "block/data0"})
        good[name] = ReadWhole(dir / name);
    const std::string bucket =
        "LocalBlockServer0Open_: could not read block server in "
        "\"%s/block0\": ";
    const std::string newIndex = bucket +
                                 "LocalBlockServer0Read: could not read new generation from file "
                                 "\"%s/block/index0.new\"";
    const struct {
        std::string file, content, cause;  // the cause follows "existing ... in "<dir>": "
    } cases[] = {
        {"arena.new", good["arena.new"].substr(0, 5), "arena : could not read bucket count"},
        {"arena.new", LE(0, 8) + good["arena.new"].substr(8),
         "arena : could not read bucket count"},
        {"arena.new", good["arena.new"].substr(0, good["arena.new"].size() - 1),
         "arena : could not read new generation: \"%s/arena.new\": could not read data"},
        {"arena.new", good["arena.new"] + "x",
         "arena : could not read new generation: \"%s/arena.new\": unexpected data"},
        {"arena.old", good["arena.old"].substr(0, 9),
         "arena :could not read old generation: \"%s/arena.old\": could not read data"},
        {"block/index0.new", good["block/index0.new"].substr(0, 30), newIndex},
        {"block/index0.new", LE(4096, 8) + good["block/index0.new"].substr(8),
         bucket + "could not open file \"%s/block/index0.new\": invalid block size: 4096"},
        {"block/index0.old", good["block/index0.old"] + "\1",
         bucket + "LocalBlockServer0Read: could not read old generation from file "
                  "\"%s/block/index0.old\""},
        {"block/data0", std::string(8192, 'd'),
         newIndex + ": IndexFileNewGenRead: data file too short (file size=8192  rsize=65536)"},
    };
    for (const auto &c : cases) {
        WriteWhole(dir / c.file, c.content);
        ExpectFailure(kWrite, "existing but not openable VM in \"%s\": " + c.cause);
        ExpectFailure(kRead, "existing but not openable VM in \"%s\": " + c.cause);
        WriteWhole(dir / c.file, good[c.file]);
    }
    EXPECT_EQ(ReadNamed("b"), "bb");

    // A raw block beyond the committed size can only come from a mount.
    WriteWhole(dir / "block/index0.new", good["block/index0.new"].replace(24, 4, LE(9, 4)));
    EXPECT_DEATH(Open(kRead), "mount");
}

// The crash points of a commit's swap, with and without the marker.
TEST_F(ArenaOpenTest, AWritableOpenFinishesAnInterruptedCommit) {
    ArenaImage committed, next;
    committed.arrays = {{"x", "committed"}};
    next.arrays = {{"x", "next"}, {"y", "added"}};
    // With the marker made, the buckets hold the next generation (their
    // index files are swapped first), before it the committed one.
    auto prepare = [&](bool marker) {
        DirectoryRemoveContents(dir.Path().c_str());
        TempDir other;
        ASSERT_TRUE((marker ? committed : next).Write(other.Path()));
        ASSERT_TRUE((marker ? next : committed).Write(dir.Path()));
        for (std::string name : {"arena.new", "arena.old"}) {
            if (marker) rename((dir / name).c_str(), (dir / (name + ".new")).c_str());
            WriteWhole(dir / (marker ? name : name + ".new"), ReadWhole(other / name));
        }
        if (marker) Touch("committing");
    };

    prepare(false);  // metadata written, no marker: the commit never happened
    EXPECT_EQ(ReadNamed("x"), "committed");
    EXPECT_TRUE(Exists("arena.new.new"));

    prepare(true);  // the open rolls the swap forward and removes the marker
    ExpectFailure(kRead, "Cannot open read-only");
    EXPECT_EQ(ReadNamed("y"), "added");
    EXPECT_EQ(ReadNamed("x"), "next");
    EXPECT_EQ(Tree(dir.Path()).size(), 6u) << "no marker, no temporary file";

    // Cut between the two renames of a swap: the marker's commit finishes
    // it, and without the marker the recovery at reading does.
    for (bool marker : {true, false}) {
        prepare(true);
        rename((dir / "arena.new").c_str(), (dir / "arena.new.old").c_str());
        if (!marker) {
            unlink((dir / "committing").c_str());
            rename((dir / "arena.old").c_str(), (dir / "arena.old.old").c_str());
            rename((dir / "arena.old.new").c_str(), (dir / "arena.old").c_str());
            ExpectFailure(kRead, "existing but not openable");  // a reader renames nothing
            EXPECT_FALSE(Exists("arena.new"));
        }
        EXPECT_EQ(ReadNamed("y"), "added") << marker;
        EXPECT_FALSE(Exists("arena.new.new") || Exists("committing"));
    }

    // Marker made after every file was swapped: the extra commit fails, and
    // the recovery at reading puts the file back.
    ASSERT_TRUE(next.Write(dir.Path()));
    Touch("committing");
    EXPECT_EQ(ReadNamed("x"), "next");
    EXPECT_FALSE(Exists("arena.new.old") || Exists("committing"));

    // Without the marker VM_FLAG_RECOVER rolls nothing forward: a commit cut
    // before the marker may have left its temporary files half written.
    prepare(false);
    std::string partial = ReadWhole(dir / "arena.new.new");
    WriteWhole(dir / "arena.new.new", partial.substr(0, partial.size() / 2));
    VMArena *arena = Open(kWrite | VM_FLAG_RECOVER);
    ASSERT_NE(arena, nullptr) << QKErrorMessage();
    EXPECT_EQ(NameServiceFind(arena, NEWGEN, "y", 1), kNoArray);
    EXPECT_EQ(NameServiceFind(arena, NEWGEN, "x", 1), 1);
    VMArenaClose(arena);
    EXPECT_EQ(ReadNamed("x"), "committed");
}

}  // namespace
