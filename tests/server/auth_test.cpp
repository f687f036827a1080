// Authentication: keys, challenges and responses, the process key, and the
// handshake against the server, byte by byte and through the library's
// client side, with the obfuscated traffic that follows it; and the
// commands that need an authenticated connection. (The option and the
// variable that name the process key's file are driven end to end by the
// programs, in qkd_e2e_test.cpp.)
#include "server/server_support.h"

namespace {

using Key = std::unique_ptr<QKAuthKey, void (*)(QKAuthKey *)>;

Key MakeKey(const void *bytes, UInt length) {
    return Key(QKAuthKeyFromBuffer(bytes, length), QKAuthKeyDelete);
}

std::string KeyBytes(const QKAuthKey *key) {
    ByteArray bytes = {nullptr, 0, 0};
    std::string text = QKAuthKeyToBuffer(key, &bytes) ? Text(bytes) : "(none)";
    ArrayFree(bytes);
    return text;
}

// The response to a challenge, which stays zero-terminated beyond its length.
std::string Response(const QKAuthKey *key, const std::string &challenge) {
    ByteArray response = {nullptr, 0, 0};
    EXPECT_EQ(QKAuthKeyGetResponse(key, challenge.data(), (UInt)challenge.size(), &response), 1);
    std::string text = Text(response) + (response.data[response.length] ? "(no NUL)" : "");
    ArrayFree(response);
    return text;
}

const std::regex kChallenge("[0-9a-f]{32}");

// Keys, challenges, and the responses: the MD5 of the key's bytes followed
// by the challenge.
TEST(AuthKeyTest, KeysChallengesResponsesAndTheProcessKey) {
    const std::string bytes("sec\0ret", 7);
    Key key = MakeKey(bytes.data(), 7), a(QKAuthKeyGenerate(), QKAuthKeyDelete),
        b(QKAuthKeyGenerate(), QKAuthKeyDelete), secret = MakeKey("secret", 6),
        empty = MakeKey(nullptr, 0);
    QKAuthKey *copy = QKAuthKeyDuplicate(key.get());
    EXPECT_EQ(KeyBytes(key.get()), bytes);
    EXPECT_TRUE(copy != key.get() && QKAuthKeyEqual(copy, key.get()));
    EXPECT_TRUE(QKAuthKeyEqual(nullptr, nullptr) && !QKAuthKeyEqual(key.get(), nullptr));
    EXPECT_TRUE(KeyBytes(a.get()).size() == 128 && !QKAuthKeyEqual(a.get(), b.get()));
    ByteArray first = {nullptr, 0, 0}, second = {nullptr, 0, 0};
    EXPECT_TRUE(QKAuthKeyCreateChallenge(nullptr, &first) &&
                QKAuthKeyCreateChallenge(nullptr, &second));
    EXPECT_TRUE(std::regex_match(Text(first), kChallenge) && Text(first) != Text(second));
    ArrayFree(first);
    ArrayFree(second);
    const char *challenge = "0123456789abcdef0123456789abcdef",
               *right = "14de2d5da652c6991bcd71ea1f0922a3";
    EXPECT_EQ(Response(secret.get(), challenge), right);
    EXPECT_EQ(Response(empty.get(), "abc"), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_TRUE(QKAuthKeyCheckResponse(secret.get(), challenge, 32, right, 32));
    EXPECT_FALSE(QKAuthKeyCheckResponse(secret.get(), challenge, 31, right, 32));
    EXPECT_FALSE(QKAuthKeyCheckResponse(secret.get(), challenge, 32, right, 31));
    EXPECT_FALSE(QKAuthKeyCheckResponse(empty.get(), challenge, 32, right, 32));

    // The value 1 is the process key, looked up when used.
    EXPECT_EQ(QKAuthKeyDuplicate(QK_AUTH_PROCESS_KEY), QK_AUTH_PROCESS_KEY);
    QKAuthKeyDelete(QK_AUTH_PROCESS_KEY);  // harmless
    QKAuthSetProcessKey(nullptr);          // there is none: nothing to delete
    EXPECT_FALSE(QKAuthKeyEqual(QK_AUTH_PROCESS_KEY, key.get()));
    EXPECT_EQ(QKAuthKeyToBuffer(QK_AUTH_PROCESS_KEY, nullptr), 0);
    EXPECT_STREQ(QKErrorMessage(), "no authentication key");
    QKAuthSetProcessKey(copy);
    EXPECT_TRUE(QKAuthKeyEqual(QK_AUTH_PROCESS_KEY, key.get()));
    EXPECT_EQ(KeyBytes(QK_AUTH_PROCESS_KEY), bytes);
    QKAuthSetProcessKey(nullptr);  // deletes the copy
    EXPECT_EQ(QKAuthGetProcessKey(), nullptr);
}

// ---- Against the server ----

// A channel to the server on `port` (or to none, for port 0) that
// authenticates with `key`, then sends `line` through the library's client
// calls: "VALUE|OUTPUT" of the success, or the error.
std::string Request(UShort port, const QKAuthKey *key, const char *line) {
    Channel *channel = ChannelNew(-1, -1);
    ByteArray text = {nullptr, 0, 0};
    ULong value = 0;
    bool ok = (port == 0 || ChannelConnect(channel, TCPAddrLocal(QK_FAMILY_IPV4, port))) &&
              ChannelAuthenticate(channel, key, 1, nullptr, 0) && QKCommandSend(channel, line) &&
              QKCommandStatus(channel, &value, &text) == 0 && QKCommandReadOutput(channel, &text);
    std::string out = ok ? std::to_string(value) + "|" + Text(text) : QKErrorMessage();
    ArrayFree(text);
    ChannelClose(channel);
    return out;
}

// The keystream of one direction: each byte is XORed with the top byte of
// the key, and the key moves on by the fingerprint of a zero byte.
struct KeyStream {
    ULong key;
    std::string Apply(std::string bytes) {
        for (char &c : bytes) c ^= (char)(key >> 56), key = FingerprintExtend(key, "", 1);
        return bytes;
    }
};

class ServerAuthTest : public ::testing::Test {
  protected:
    Key key_ = MakeKey("server key", 10);  // outlives the server, which keeps it
    TestServer server_{{}, {.http = 0, .key = key_.get()}};
};

// The handshake by hand: "auth C1" is answered "C1 R1 C2", obfuscated from
// there on both ways. Then the client sends its status byte, and R2 to C2
// (or a wrong one) and LF, or bytes that never end R2; the server answers
// its status byte, or ends the connection.
TEST_F(ServerAuthTest, HandshakeByteForByte) {
    const std::string c1 = "00112233445566778899aabbccddeeff", r1 = Response(key_.get(), c1);
    const struct {
        std::string sent;
        int response;  // 0 none, 1 the right one, 2 a wrong one
        std::string reply;
    } cases[] = {
        // clang-format off
        {Nul(""), 1, Nul("")}, {Nul(""), 2, "\1"}, {"\1", 0, ""},
        {Nul("") + std::string(65, 'a'), 0, ""},
        // clang-format on
    };
    for (const auto &c : cases) {
        RawClient client(server_.port);
        client.Send("auth " + c1 + "\n");
        KeyStream in{Fingerprint((c1 + r1).data(), 64)}, out = in;
        std::string answer = in.Apply(client.Read(99)), c2 = answer.substr(66, 32);
        EXPECT_EQ(answer.substr(0, 66), c1 + " " + r1 + " ");
        EXPECT_TRUE(std::regex_match(c2, kChallenge) && answer[98] == '\n') << answer;
        std::string r2 = Response(key_.get(), c.response == 1 ? c2 : c2 + "x").substr(0, 32);
        client.Send(out.Apply(c.sent + (c.response ? r2 + "\n" : "")));
        EXPECT_EQ(in.Apply(client.Read(c.reply.size())), c.reply);
        EXPECT_TRUE(c.response == 1 || client.AtEnd());
        if (c.response != 1) continue;
        // Commands and replies go on obfuscated.
        client.Send(out.Apply("pid\n"));
        std::string expected = kPidReply, raw = client.Read(expected.size());
        EXPECT_NE(raw, expected);
        EXPECT_EQ(in.Apply(raw), expected);
    }
}

// Through the library's client side: only the right key authenticates, and
// a channel must be connected. While the process has a key, the commands
// that act on the process need an authenticated connection.
TEST_F(ServerAuthTest, LibraryClientsAndProcessCommands) {
    RawClient client(server_.port);
    client.Send("auth\n");
    EXPECT_EQ(client.ReadThrough('\0'), Nul("? 2 illegal argument: missing challenge\n"));
    EXPECT_EQ(Request(server_.port, key_.get(), "pid"), kPid + "|" + kPid + "\n");
    EXPECT_EQ(Request(server_.port, MakeKey("not the key", 11).get(), "pid"),
              "invalid response to the challenge sent");
    EXPECT_EQ(Request(server_.port, QK_AUTH_PROCESS_KEY, "pid"), "no authentication key");
    EXPECT_EQ(Request(0, key_.get(), "pid"), "the channel is not connected");

    QKAuthSetProcessKey(QKAuthKeyFromBuffer("process", 7));
    client.Send("exit\nabort\nrotate\n");
    const std::string refused = Nul("? 1 illegal command: connection not authenticated\n");
    EXPECT_EQ(client.Read(3 * refused.size()), refused + refused + refused);
    EXPECT_EQ(Request(server_.port, key_.get(), "rotate -d 1"), "0|");
    QKAuthSetProcessKey(nullptr);
}

}  // namespace
