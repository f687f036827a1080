// The byte stream of a channel over a socket pair: random reads of bytes,
// blocks and lines against a model of the stream, numbers as text, UTF-8
// characters, obfuscation against the fingerprint keystream computed here,
// time-outs and the blocking mode, shutting down, and a closed peer.
#include "channel/channel_test_util.h"
#include "qk/file.h"
#include "qk/fingerprint.h"

namespace {

// The read limit of the reading end (a socket wait counts seconds), and the
// obfuscation key of both ends.
class StreamModelTest : public ChannelTest,
                        public ::testing::WithParamInterface<std::pair<Int, ULong>> {};

// Lines of every length up to three buffers, with CRs and bytes of all
// kinds, and a last line without LF.
std::string Stream(std::mt19937 &random) {
    std::string text;
    while (text.size() < 8 * CHANNEL_BUFFER_SIZE) {
        size_t length = random() % (random() % 8 ? 12 : 3 * CHANNEL_BUFFER_SIZE);
        // Any byte but LF: 11..255 and 0..9.
        for (size_t i = 0; i < length; i++)
            text += random() % 9 ? (char)(random() % 255 + 11) : '\r';
        text += '\n';
    }
    return text + "last";
}

// What ChannelReadLine gives for a line that ends in LF: the bytes up to the
// LF without CRs, or the first `max` of them (0: no limit) and no more.
std::string ModelLine(const std::string &text, size_t *pos, UInt max) {
    std::string line;
    for (char c; (max == 0 || line.size() < max) && (c = text[(*pos)++]) != '\n';)
        if (c != '\r') line += c;
    return line;
}

TEST_P(StreamModelTest, ReadsMatchAModelOfTheStream) {
    const auto [readTimeout, key] = GetParam();
    std::mt19937 random(readTimeout + 3);
    Pair pair(readTimeout, -1);
    ChannelSetObfuscationKey(pair.channel, key);
    ChannelSetObfuscationKey(pair.far, key);
    const std::string text = Stream(random);
    std::thread writer([&] {  // pieces of every size, some not flushed at once
        std::mt19937 sizes(1);
        for (size_t done = 0, n; done < text.size(); done += n) {
            n = std::min<size_t>(text.size() - done, sizes() % (2 * CHANNEL_BUFFER_SIZE) + 1);
            EXPECT_EQ(ChannelWriteBuf(pair.far, text.data() + done, (UInt)n), 1);
            EXPECT_TRUE(sizes() % 2 || ChannelFlush(pair.far));
        }
        EXPECT_EQ(ChannelFlush(pair.far), 1);
        shutdown(pair.peer, SHUT_WR);
    });
    size_t pos = 0;
    int result = -5;
    for (int op; pos + 4 < text.size();) {  // up to the last line
        if ((op = random() % 4) == 0) {
            const int next = (UByte)text[pos++];
            EXPECT_EQ(ChannelPeekByte(pair.channel), next);
            ASSERT_EQ(ChannelReadByte(pair.channel), next) << pos;
        } else if (op == 1) {
            const UInt n = random() % (random() % 8 ? 30 : 3 * CHANNEL_BUFFER_SIZE);
            ASSERT_TRUE(ReadBuf(pair.channel, n, &result) == text.substr(pos, n))
                << pos << "+" << n;
            EXPECT_EQ(result, pos + n > text.size() ? -1 : 0);
            pos += n;
        } else {
            const UInt max = op == 2 ? 0 : random() % 6 + 1;
            ASSERT_EQ(ReadLine(pair.channel, max, &result), ModelLine(text, &pos, max)) << pos;
            ASSERT_EQ(result, 1) << pos;
        }
    }
    // The rest of the last line, which has no LF; then nothing for any read.
    EXPECT_EQ(ReadLine(pair.channel, 0, &result), text.substr(std::min(pos, text.size())));
    EXPECT_EQ(Outcome(result), "0 7,2: read EOF");
    EXPECT_TRUE(ReadBuf(pair.channel, 1, &result) == "" && result == -1 && errno == 0);
    writer.join();
}

INSTANTIATE_TEST_SUITE_P(Modes, StreamModelTest,
                         ::testing::Values(std::pair{-1, ~0ULL}, std::pair{10, ~0ULL},
                                           std::pair{-1, 0x0123456789abcdefULL}));

TEST_F(ChannelTest, NumbersAsTextAlsoNearTheEndOfTheBuffer) {
    Pair pair;
    Channel *c = pair.channel;
    EXPECT_TRUE(ChannelWriteInt(c, -2147483647 - 1) && ChannelWriteUInt(c, 0) &&
                ChannelWriteLong(c, -9223372036854775807LL - 1) && ChannelWriteHexInt(c, 0xabcd) &&
                ChannelWriteHexLong(c, 0x123456789abcdefULL) && ChannelWriteDouble(c, 3.14159265) &&
                ChannelWriteDouble(c, -1e20));
    EXPECT_EQ(pair.Drain(), "-21474836480-92233720368547758080000abcd0123456789abcdef3.1416-1e+20");
    // Every prefix length near the end of the buffer, then long numbers.
    for (UInt fill = CHANNEL_BUFFER_SIZE - 40; fill < CHANNEL_BUFFER_SIZE; fill += 3) {
        std::string prefix(fill, 'p');
        ASSERT_TRUE(ChannelWriteBuf(c, prefix.data(), fill) &&
                    ChannelWriteULong(c, 18446744073709551615ULL) &&
                    ChannelWriteDouble(c, -1.2345678e-300));
        EXPECT_EQ(pair.Drain(), prefix + "18446744073709551615-1.2346e-300") << fill;
    }
}

TEST_F(ChannelTest, TimeoutsShutdownDisconnectAndAClosedPeer) {
    // Limits of 0 seconds: the first wait on the full or empty socket gives up.
    Pair full(0, 0);
    EXPECT_EQ(Outcome(WriteUntilFailure(full.channel)), "0 2,2: timeout");
    EXPECT_EQ(ChannelReadByte(full.channel), -3);
    // Each limit set switches the socket's mode at once; either limit makes
    // it non-blocking.
    Channel *c = full.channel;
    EXPECT_TRUE(ChannelSetReadTimeout(c, -1) == 0 && IsNonBlocking(c->fd));
    EXPECT_TRUE(ChannelSetWriteTimeout(c, -1) == 0 && !IsNonBlocking(c->fd));
    EXPECT_TRUE(ChannelSetReadTimeout(c, 5000) == -1 && IsNonBlocking(c->fd));
    // Shutting down sends what is buffered, then the end of the stream.
    Pair pair;
    int result;
    EXPECT_TRUE(ChannelWriteString(pair.channel, "bye") && ChannelShutdown(pair.channel));
    EXPECT_TRUE(pair.Drain() == "bye" && recv(pair.peer, &result, 1, 0) == 0);  // then the end
    pair.Send("abc");
    EXPECT_EQ(ChannelReadByte(pair.channel), 'a');
    // Disconnect drops both buffers at once; the object can be used again.
    EXPECT_EQ(ChannelWriteString(pair.channel, "never"), 1);
    ChannelDisconnect(pair.channel);
    EXPECT_EQ(pair.Drain(), "");  // nothing pending, nothing sent
    EXPECT_EQ(Outcome(ChannelReadByte(pair.channel)), "-2 22,0: Invalid argument");
    EXPECT_EQ(Outcome(ChannelSetFD(pair.channel, -1, 1)), "0 22,0: Invalid argument");
    EXPECT_EQ(Outcome(ChannelShutdown(pair.channel)), "0 22,0: Invalid argument");
    // Writing to a closed peer fails without a signal; closing tries the
    // flush again and reports it.
    Pair closed;
    closed.Leave();
    EXPECT_EQ(Outcome(ChannelWriteString(closed.channel, "lost") && !ChannelFlush(closed.channel)),
              "1 32,1: Broken pipe");
    EXPECT_EQ(ChannelClose(std::exchange(closed.channel, nullptr)), 0);
}

// The results of ChannelReadUTF8 over `bytes` up to the end, or up to a
// time-out (a read limit of 0 seconds) when the peer stays.
std::vector<int> Decode(const std::string &bytes, bool stays = false) {
    Pair pair(0, -1);
    pair.Send(bytes);
    if (!stays) pair.Leave();
    std::vector<int> out;
    for (int c = 0; c != -3 && (c = ChannelReadUTF8(pair.channel)) != -1;) out.push_back(c);
    return out;
}

TEST_F(ChannelTest, EveryCharacterRoundTrips) {
    std::string path = dir_ / "utf8";
    Channel *channel = ChannelNew(-1, -1);
    ASSERT_EQ(ChannelOpenFile(channel, path.c_str(), "w"), 1);
    for (UInt c = 0; c <= 0xFFFF; c++) ASSERT_EQ(ChannelWriteUTF8(channel, (UShort)c), 1);
    // One, two and three bytes by the usual rule: 128 + 2 * 1920 + 3 * 63488.
    ASSERT_TRUE(ChannelFileSeek(channel, 0) &&
                FileSize(path.c_str()) == 128 + 2 * 1920 + 3 * 63488);
    for (UInt c = 0; c <= 0xFFFF; c++) ASSERT_EQ(ChannelReadUTF8(channel), (int)c) << c;
    EXPECT_TRUE(ChannelReadUTF8(channel) == -1 && ChannelClose(channel));
}

TEST_F(ChannelTest, MalformedSequencesAndFields) {
    const std::pair<const char *, std::vector<int>> cases[] = {
        // clang-format off
        {"\x80" "a", {-4, 'a'}}, {"\xBF", {-4}},
        // Four-byte and longer leads do not exist here; what follows is stray.
        {"\xF0\x9F\x98\x80", {-4, -4, -4, -4}}, {"\xF8\xFF", {-4, -4}},
        // A byte that does not continue the sequence is left for the next.
        {"\xC3" "A", {-4, 'A'}}, {"\xC3\xC3\xA9", {-4, 0xE9}}, {"\xE2" "B", {-4, 'B'}},
        {"\xE2\x82" "C", {-4, 'C'}}, {"\xE2\x82\xE2\x82\xAC", {-4, 0x20AC}},
        // The end of the stream inside a sequence.
        {"\xC3", {-4}}, {"\xE2", {-4}}, {"\xE2\x82", {-4}},
        // Overlong forms, the limits of each length, and a surrogate.
        {"\xC0\x80", {-4}}, {"\xC1\xBF", {-4}}, {"\xE0\x80\x80", {-4}}, {"\xE0\x9F\xBF", {-4}},
        {"\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF", {0x80, 0x7FF, 0x800, 0xFFFF}},
        {"\xED\xA0\x80", {0xD800}},
        // clang-format on
    };
    for (const auto &[bytes, decoded] : cases) EXPECT_EQ(Decode(bytes), decoded) << bytes;
    EXPECT_EQ(Decode("\xE2\x82", true), std::vector<int>{-3});  // a time-out inside a sequence
    // A field that is used up acts as the end though more bytes follow;
    // within a character, running out is malformed.
    Pair pair;
    pair.Send("\xC3\xA9\xE2\x82\xAC");
    // Bytes left before, result, bytes left after.
    const UInt steps[][3] = {{3, 0xE9, 1}, {0, (UInt)-1, 0}, {2, (UInt)-4, 0}};
    for (const auto &s : steps) {
        UInt remaining = s[0];
        EXPECT_TRUE(ChannelReadUTF8Field(pair.channel, &remaining) == (int)s[1] &&
                    remaining == s[2])
            << s[0];
    }
    EXPECT_EQ(ChannelReadByte(pair.channel), 0xAC);
}

// The bytes with the keystream from `*key` applied, which moves on: each
// byte is XORed with the key's top byte, and the next key is the
// fingerprint of one zero byte fed to it.
std::string Apply(ULong *key, std::string bytes) {
    for (char &c : bytes) {
        c = (char)((UByte)c ^ (UByte)(*key >> 56));
        *key = FingerprintExtend(*key, "\0", 1);
    }
    return bytes;
}

// Small, exactly a buffer, and well above a buffer: written (which,
// obfuscated, still goes through the buffer) and read (straight into the
// caller's memory when large). The socket holds it all. Then writes that
// give up on a full socket keep what did not leave; flushes retried while
// the peer reads send each byte once, scrambled once.
TEST_F(ChannelTest, BytesOnTheWireAndRetriedFlushes) {
    ULong out = 0x0123456789abcdefULL, in = out;
    Pair pair(-1, 0);
    ChannelSetObfuscationKey(pair.channel, out);
    for (size_t size : {(size_t)1, (size_t)CHANNEL_BUFFER_SIZE, (size_t)40000}) {
        const std::string plain = Random(size, (unsigned)size);
        EXPECT_EQ(ChannelWriteBuf(pair.channel, plain.data(), (UInt)size), 1);
        EXPECT_TRUE(pair.Drain() == Apply(&out, plain)) << size;
        pair.Send(Apply(&in, plain + "line\r\n"));
        int result = -1;
        EXPECT_TRUE(ReadBuf(pair.channel, (UInt)size, &result) == plain && result == 0) << size;
        EXPECT_EQ(ReadLine(pair.channel), "line");
    }
    std::string written, wire;
    for (unsigned i = 0; written.size() < (64u << 20); i++) {
        written += Random(1000, i);
        if (!ChannelWriteBuf(pair.channel, &written[written.size() - 1000], 1000)) break;
    }
    char buffer[65536];
    for (bool flushed = false;;) {
        for (ssize_t n; (n = recv(pair.peer, buffer, sizeof buffer, MSG_DONTWAIT)) > 0;)
            wire.append(buffer, n);
        if (flushed) break;
        flushed = ChannelFlush(pair.channel) == 1;
    }
    wire = Apply(&out, wire);
    EXPECT_GE(wire.size(), written.size() - 1000);
    EXPECT_TRUE(wire == written.substr(0, wire.size()));
}

}  // namespace
