// Channels on files: random seeks, tells, reads, writes and truncations
// against a model of the file, the open modes, and failures to open, in
// one test on one channel.
#include "channel/channel_test_util.h"
#include "qk/file.h"

namespace {

// What is buffered decides what the model allows: a write only when nothing
// read is buffered, a read only when nothing written is.
TEST_F(ChannelTest, MatchesAModelOfTheFileAndOpenFailures) {
    const std::string path = dir_ / "model";
    std::string model = Random(2 * CHANNEL_BUFFER_SIZE, 1);
    WriteWhole(path, model);
    Channel *channel = ChannelNew(-1, -1);
    ASSERT_EQ(ChannelOpenFile(channel, path.c_str(), "a"), 1);  // at the end
    size_t pos = model.size();
    int result = 0;
    enum { kNone, kReading, kWriting } buffered = kNone;
    std::mt19937 random(7);
    for (int step = 0; step < 400; step++) {
        const UInt n = random() % (random() % 2 ? 20 : 2 * CHANNEL_BUFFER_SIZE);
        const int op = random() % 5;
        Long offset = (Long)(random() % (model.size() + 1)) * (random() % 2 ? 1 : -1);
        if (op == 0) {  // a negative offset counts from the end
            ASSERT_EQ(ChannelFileSeek(channel, offset), 1);
            pos = offset >= 0 ? (size_t)offset : model.size() + offset;
            buffered = kNone;
        } else if (op == 1) {
            ASSERT_TRUE(ChannelFileTell(channel, &offset) && offset == (Long)pos) << step;
            if (buffered == kWriting) buffered = kNone;
        } else if (op == 2 && buffered != kWriting) {
            const std::string expected = pos < model.size() ? model.substr(pos, n) : "";
            ASSERT_TRUE(ReadBuf(channel, n, &result) == expected) << step;
            EXPECT_EQ(result, expected.size() < n ? -1 : 0);
            pos += expected.size();
            buffered = kReading;
        } else if (op == 3 && buffered != kReading && n > 0) {
            const std::string bytes = Random(n, step);
            ASSERT_EQ(ChannelWriteBuf(channel, bytes.data(), n), 1);
            if (pos > model.size()) model.resize(pos, '\0');  // a hole
            model.replace(pos, n, bytes);
            pos += n;
            buffered = kWriting;
        } else if (op == 4) {
            model.resize(random() % (model.size() + 1));
            ASSERT_TRUE(ChannelFileTruncate(channel, model.size()) &&
                        FileSize(path.c_str()) == model.size());
            buffered = kNone;
        }
    }
    // Synced, "r" reads what is there; "w" empties the file.
    ASSERT_EQ(ChannelSync(channel), 1);
    for (const char *mode : {"r", "w"}) {
        ASSERT_EQ(ChannelOpenFile(channel, path.c_str(), mode), 1);
        EXPECT_TRUE(ReadBuf(channel, (UInt)model.size() + 1, &result) ==
                    (*mode == 'r' ? model : ""));
    }
    // Failures to open, and the modes that are refused.
    const std::string missing = "0 2,0: No such file or directory",
                      invalid = "0 22,0: Invalid argument";
    const std::tuple<std::string, const char *, std::string> cases[] = {
        // path, mode, outcome
        // clang-format off
        {dir_ / "g", "r", missing}, {dir_ / "no/dir/f", "w", missing}, {path, "", invalid},
        {path, "rw", invalid}, {path, "x", invalid}, {path, "R", invalid}, {path, "w+", invalid},
        {dir_ / "bad\xff", "w", invalid}, {dir_ / "bad\xC0\x80", "w", invalid},
        {dir_.Path(), "w", "0 21,1: Is a directory"},
        // clang-format on
    };
    for (const auto &[file, mode, outcome] : cases) {
        QKErrorClear();
        EXPECT_EQ(Outcome(ChannelOpenFile(channel, file.c_str(), mode)), outcome) << mode;
    }
    EXPECT_FALSE(FileExists((dir_ / "g").c_str()));
    // A UCS2 path goes as UTF-8, and a zero unit in it is refused.
    std::vector<UShort> wide(dir_.Path().begin(), dir_.Path().end());
    wide.insert(wide.end(), {'/', 0x00E9, 0x20AC, '.', 't'});
    ASSERT_EQ(ChannelOpenFileUCS2(channel, wide.data(), (UInt)wide.size(), "w"), 1);
    EXPECT_TRUE(ChannelWriteString(channel, "x") && ChannelFlush(channel));
    EXPECT_EQ(ReadWhole(dir_ / "\xC3\xA9\xE2\x82\xAC.t"), "x");
    wide.insert(wide.end() - 1, 0);
    EXPECT_EQ(Outcome(ChannelOpenFileUCS2(channel, wide.data(), (UInt)wide.size(), "w")), invalid);
    EXPECT_EQ(ChannelClose(channel), 1);
}

}  // namespace
