// UTF-8 on a channel: every 16-bit character round trips, and a malformed
// sequence gives -4 wherever the fault stands, leaving a byte that may start
// the next character unread; the field form counts its bytes.
#include "channel/channel_test_util.h"
#include "frame/file_test_dir.h"
#include "qk/file.h"

using namespace chantest;

namespace {

class ChannelUTF8Test : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { Init(); }

    // The results of ChannelReadUTF8 over `bytes` up to the end.
    static std::vector<int> Decode(const std::string &bytes) {
        Pair pair;
        pair.Send(bytes);
        pair.ClosePeer();
        std::vector<int> out;
        for (int c; (c = ChannelReadUTF8(pair.channel)) != -1;) {
            out.push_back(c);
            if (out.size() > bytes.size() + 2) break;
        }
        return out;
    }
};

using V = std::vector<int>;

TEST_F(ChannelUTF8Test, EveryCharacterRoundTrips) {
    TempDir dir;
    std::string path = dir / "utf8";
    Channel *channel = ChannelNew(-1, -1);
    ASSERT_EQ(ChannelOpenFile(channel, path.c_str(), "w"), 1);
    for (UInt c = 0; c <= 0xFFFF; c++) ASSERT_EQ(ChannelWriteUTF8(channel, (UShort)c), 1);
    ASSERT_EQ(ChannelFileSeek(channel, 0), 1);
    // One, two and three bytes by the usual rule: 128 + 2 * 1920 + 3 * 63488.
    EXPECT_EQ(FileSize(path.c_str()), 128u + 2 * 1920 + 3 * 63488);
    for (UInt c = 0; c <= 0xFFFF; c++) ASSERT_EQ(ChannelReadUTF8(channel), (int)c) << c;
    EXPECT_EQ(ChannelReadUTF8(channel), -1);
    EXPECT_EQ(ChannelClose(channel), 1);
}

TEST_F(ChannelUTF8Test, MalformedFirstBytes) {
    EXPECT_EQ(Decode("\x80"
                     "a"),
              (V{-4, 'a'}));
    EXPECT_EQ(Decode("\xBF"), (V{-4}));
    // Four-byte and longer leads do not exist here; their continuation bytes
    // are strays.
    EXPECT_EQ(Decode("\xF0\x9F\x98\x80"), (V{-4, -4, -4, -4}));
    EXPECT_EQ(Decode("\xF8\xFF"), (V{-4, -4}));
}

TEST_F(ChannelUTF8Test, MalformedSecondAndThirdBytes) {
    // A non-continuation byte is left for the next character.
    EXPECT_EQ(Decode("\xC3"
                     "A"),
              (V{-4, 'A'}));
    EXPECT_EQ(Decode("\xC3\xC3\xA9"), (V{-4, 0xE9}));
    EXPECT_EQ(Decode("\xE2"
                     "B"),
              (V{-4, 'B'}));
    EXPECT_EQ(Decode("\xE2\x82"
                     "C"),
              (V{-4, 'C'}));
    EXPECT_EQ(Decode("\xE2\x82\xE2\x82\xAC"), (V{-4, 0x20AC}));
    // The end of the stream inside a sequence.
    EXPECT_EQ(Decode("\xC3"), (V{-4}));
    EXPECT_EQ(Decode("\xE2"), (V{-4}));
    EXPECT_EQ(Decode("\xE2\x82"), (V{-4}));
}

TEST_F(ChannelUTF8Test, OverlongFormsAndLimits) {
    EXPECT_EQ(Decode("\xC0\x80"), (V{-4}));
    EXPECT_EQ(Decode("\xC1\xBF"), (V{-4}));
    EXPECT_EQ(Decode("\xE0\x80\x80"), (V{-4}));
    EXPECT_EQ(Decode("\xE0\x9F\xBF"), (V{-4}));
    EXPECT_EQ(Decode("\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF"), (V{0x80, 0x7FF, 0x800, 0xFFFF}));
    // Surrogates pass.
    EXPECT_EQ(Decode("\xED\xA0\x80"), (V{0xD800}));
}

TEST_F(ChannelUTF8Test, ErrorsPassThrough) {
    Pair pair(0, -1);  // a read time-out of 0 seconds
    pair.Send("\xE2\x82");
    EXPECT_EQ(ChannelReadUTF8(pair.channel), -3);
    EXPECT_TRUE(HasError(QK_ERR_TIMEOUT, QK_DOMAIN_GENERAL, "timeout"));
    Channel *unconnected = ChannelNew(-1, -1);
    EXPECT_EQ(ChannelReadUTF8(unconnected), -2);
    ChannelClose(unconnected);
}

TEST_F(ChannelUTF8Test, FieldsCountTheirBytes) {
    Pair pair;
    pair.Send(
        "a\xC3\xA9\xE2\x82\xAC"
        "b");
    UInt remaining = 6;
    EXPECT_EQ(ChannelReadUTF8Field(pair.channel, &remaining), 'a');
    EXPECT_EQ(remaining, 5u);
    EXPECT_EQ(ChannelReadUTF8Field(pair.channel, &remaining), 0xE9);
    EXPECT_EQ(remaining, 3u);
    EXPECT_EQ(ChannelReadUTF8Field(pair.channel, &remaining), 0x20AC);
    EXPECT_EQ(remaining, 0u);
    // A field that is used up acts as the end, though more bytes follow.
    EXPECT_EQ(ChannelReadUTF8Field(pair.channel, &remaining), -1);
    EXPECT_EQ(ChannelReadByte(pair.channel), 'b');

    // Within a character, running out is malformed.
    pair.Send("\xE2\x82\xAC");
    shutdown(pair.peer, SHUT_WR);
    remaining = 2;
    EXPECT_EQ(ChannelReadUTF8Field(pair.channel, &remaining), -4);
    EXPECT_EQ(remaining, 0u);
    EXPECT_EQ(ChannelReadByte(pair.channel), 0xAC);
}

}  // namespace
