// Authentication: keys, challenges and responses, the process key and its
// option, and the handshake, both between two channels and against the
// server byte by byte, with the obfuscated traffic that follows it.
#include <stdarg.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "server/server_support.h"

using namespace qktest;

namespace {

std::string Text(const ByteArray &array) {
    return std::string((const char *)array.data, array.length);
}

std::string KeyBytes(const QKAuthKey *key) {
    ByteArray bytes = {nullptr, 0, 0};
    if (!QKAuthKeyToBuffer(key, &bytes)) return "(none)";
    std::string text = Text(bytes);
    ArrayFree(bytes);
    return text;
}

std::string Response(const QKAuthKey *key, const std::string &challenge) {
    ByteArray response = {nullptr, 0, 0};
    EXPECT_EQ(QKAuthKeyGetResponse(key, challenge.data(), (UInt)challenge.size(), &response), 1);
    std::string text = Text(response);
    EXPECT_EQ(response.data[response.length], 0);  // kept beyond the length
    ArrayFree(response);
    return text;
}

std::string WriteFile(const std::string &name, const std::string &bytes) {
    std::string path = ::testing::TempDir() + "/" + name;
    FILE *file = fopen(path.c_str(), "wb");
    fwrite(bytes.data(), 1, bytes.size(), file);
    fclose(file);
    return path;
}

TEST(AuthKeyTest, KeysAndTheProcessKey) {
    QKAuthKey *key = QKAuthKeyFromBuffer("sec\0ret", 7);
    EXPECT_EQ(KeyBytes(key), std::string("sec\0ret", 7));
    QKAuthKey *copy = QKAuthKeyDuplicate(key);
    EXPECT_NE(copy, key);
    EXPECT_TRUE(QKAuthKeyEqual(copy, key));
    EXPECT_EQ(QKAuthKeyDuplicate(QK_AUTH_PROCESS_KEY), QK_AUTH_PROCESS_KEY);
    QKAuthKeyDelete(QK_AUTH_PROCESS_KEY);  // harmless
    EXPECT_TRUE(QKAuthKeyEqual(nullptr, nullptr));
    EXPECT_FALSE(QKAuthKeyEqual(key, nullptr));

    // The value 1 is the process key, looked up when used.
    EXPECT_EQ(QKAuthGetProcessKey(), nullptr);
    EXPECT_FALSE(QKAuthKeyEqual(QK_AUTH_PROCESS_KEY, key));
    EXPECT_EQ(QKAuthKeyToBuffer(QK_AUTH_PROCESS_KEY, nullptr), 0);
    EXPECT_STREQ(QKErrorMessage(), "no authentication key");
    QKAuthSetProcessKey(copy);
    EXPECT_TRUE(QKAuthKeyEqual(QK_AUTH_PROCESS_KEY, key));
    EXPECT_EQ(KeyBytes(QK_AUTH_PROCESS_KEY), std::string("sec\0ret", 7));
    QKAuthSetProcessKey(nullptr);  // deletes the copy
    EXPECT_EQ(QKAuthGetProcessKey(), nullptr);

    QKAuthKey *a = QKAuthKeyGenerate(), *b = QKAuthKeyGenerate();
    EXPECT_EQ(KeyBytes(a).size(), 128u);
    EXPECT_FALSE(QKAuthKeyEqual(a, b));
    QKAuthKeyDelete(a);
    QKAuthKeyDelete(b);
    QKAuthKeyDelete(key);
}

TEST(AuthKeyTest, ChallengesAndResponses) {
    ByteArray first = {nullptr, 0, 0}, second = {nullptr, 0, 0};
    ASSERT_EQ(QKAuthKeyCreateChallenge(nullptr, &first), 1);
    ASSERT_EQ(QKAuthKeyCreateChallenge(nullptr, &second), 1);
    EXPECT_TRUE(Matches(Text(first), std::string(32, 'x')));
    EXPECT_NE(Text(first), Text(second));
    ArrayFree(first);
    ArrayFree(second);

    // The MD5 of the key's bytes followed by the challenge.
    QKAuthKey *key = QKAuthKeyFromBuffer("secret", 6);
    const std::string challenge = "0123456789abcdef0123456789abcdef";
    EXPECT_EQ(Response(key, challenge), "14de2d5da652c6991bcd71ea1f0922a3");
    QKAuthKey *empty = QKAuthKeyFromBuffer(nullptr, 0);
    EXPECT_EQ(Response(empty, "abc"), "900150983cd24fb0d6963f7d28e17f72");
    const char *right = "14de2d5da652c6991bcd71ea1f0922a3";
    EXPECT_TRUE(QKAuthKeyCheckResponse(key, challenge.data(), 32, right, 32));
    EXPECT_FALSE(QKAuthKeyCheckResponse(key, challenge.data(), 31, right, 32));
    EXPECT_FALSE(QKAuthKeyCheckResponse(key, challenge.data(), 32, right, 31));
    EXPECT_FALSE(QKAuthKeyCheckResponse(empty, challenge.data(), 32, right, 32));
    QKAuthKeyDelete(key);
    QKAuthKeyDelete(empty);
}

std::vector<std::string> messages;

void Capture(const char *, int, int level, int, const char *format, va_list args) {
    char text[1024];
    vsnprintf(text, sizeof text, format, args);
    messages.push_back(std::to_string(level) + " " + text);
}

TEST(AuthKeyTest, InitTakesTheOptionOrTheEnvironment) {
    std::string path = WriteFile("qk_auth_key", "file key");
    QKAuthKey *expected = QKAuthKeyFromBuffer("file key", 8);
    const char *arguments[] = {"prog", "-a", "-authkey", path.c_str(), "x", nullptr};
    char **argv = const_cast<char **>(arguments);
    int argc = 5;
    QKAuthInit(&argc, argv);
    EXPECT_EQ(argc, 3);
    EXPECT_STREQ(argv[1], "-a");
    EXPECT_STREQ(argv[2], "x");
    EXPECT_EQ(argv[3], nullptr);
    EXPECT_TRUE(QKAuthKeyEqual(QK_AUTH_PROCESS_KEY, expected));
    QKAuthSetProcessKey(nullptr);

    // As the last argument the option stays; the environment names the file.
    std::string other = WriteFile("qk_auth_key2", "env key");
    setenv("QKAUTHKEY", other.c_str(), 1);
    const char *last[] = {"prog", "-authkey", nullptr};
    argv = const_cast<char **>(last);
    argc = 2;
    QKAuthInit(&argc, argv);
    EXPECT_EQ(argc, 2);
    EXPECT_EQ(KeyBytes(QK_AUTH_PROCESS_KEY), "env key");
    QKAuthSetProcessKey(nullptr);

    setenv("QKAUTHKEY", "/nonexistent/qk/key", 1);
    messages.clear();
    QKSetMessageHandler(Capture);
    QKAuthInit(&argc, argv);
    QKSetMessageHandler(nullptr);
    unsetenv("QKAUTHKEY");
    EXPECT_EQ(QKAuthGetProcessKey(), nullptr);
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0], "3 unable to load authentication key file \"/nonexistent/qk/key\"");
    EXPECT_EQ(QKAuthKeyFromFile("/nonexistent/qk/key"), nullptr);
    QKAuthKeyDelete(expected);
}

// ---- The handshake between two channels ----

struct Pair {
    Pair() {
        int fds[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        initiator = ChannelNew(-1, -1);
        acceptor = ChannelNew(-1, -1);
        ChannelSetFD(initiator, fds[0], 1);
        ChannelSetFD(acceptor, fds[1], 1);
    }
    ~Pair() {
        ChannelClose(initiator);
        ChannelClose(acceptor);
    }
    Channel *initiator;
    Channel *acceptor;
};

// The accepting side: reads "auth CHALLENGE" and answers it.
int Accept(Channel *channel, const QKAuthKey *key, std::string *error) {
    ByteArray line = {nullptr, 0, 0};
    int ok = ChannelReadLine(channel, &line, 0) && line.length > 5 &&
             ChannelAuthenticate(channel, key, 0, (char *)line.data + 5, line.length - 5) &&
             ChannelFlush(channel);
    if (!ok) *error = QKErrorMessage();
    ArrayFree(line);
    ThreadCleanup();
    return ok;
}

TEST(HandshakeTest, SameKeysAuthenticateAndObfuscateBothWays) {
    QKAuthKey *key = QKAuthKeyFromBuffer("shared", 6);
    Pair pair;
    int accepted = 0;
    std::string error;
    std::thread acceptor([&] { accepted = Accept(pair.acceptor, key, &error); });
    EXPECT_EQ(ChannelAuthenticate(pair.initiator, key, 1, nullptr, 0), 1) << QKErrorMessage();
    acceptor.join();
    EXPECT_EQ(accepted, 1) << error;
    EXPECT_TRUE(pair.initiator->obfuscated && pair.acceptor->obfuscated);
    ChannelWriteString(pair.initiator, "ping\n");
    ChannelFlush(pair.initiator);
    ByteArray line = {nullptr, 0, 0};
    ASSERT_EQ(ChannelReadLine(pair.acceptor, &line, 0), 1);
    EXPECT_EQ(Text(line), "ping");
    ChannelWriteString(pair.acceptor, "pong\n");
    ChannelFlush(pair.acceptor);
    ASSERT_EQ(ChannelReadLine(pair.initiator, &line, 0), 1);
    EXPECT_EQ(Text(line), "pong");
    ArrayFree(line);
    QKAuthKeyDelete(key);
}

TEST(HandshakeTest, DifferentKeysFailOnBothSides) {
    QKAuthKey *mine = QKAuthKeyFromBuffer("mine", 4), *theirs = QKAuthKeyFromBuffer("theirs", 6);
    Pair pair;
    int accepted = 1;
    std::string error;
    std::thread acceptor([&] { accepted = Accept(pair.acceptor, theirs, &error); });
    EXPECT_EQ(ChannelAuthenticate(pair.initiator, mine, 1, nullptr, 0), 0);
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(1, 9));
    EXPECT_STREQ(QKErrorMessage(), "invalid response to the challenge sent");
    ChannelDisconnect(pair.initiator);  // the initiator gives up
    acceptor.join();
    EXPECT_EQ(accepted, 0);
    EXPECT_EQ(error, "premature eof");
    QKAuthKeyDelete(mine);
    QKAuthKeyDelete(theirs);
}

TEST(HandshakeTest, AChannelMustBeConnected) {
    Channel *channel = ChannelNew(-1, -1);
    EXPECT_EQ(ChannelAuthenticate(channel, QK_AUTH_PROCESS_KEY, 1, nullptr, 0), 0);
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(0, 2));
    EXPECT_STREQ(QKErrorMessage(), "the channel is not connected");
    ChannelClose(channel);
}

// ---- Against the server ----

// The keystream of one direction: each byte is XORed with the top byte of
// the key, and the key moves on by the fingerprint of a zero byte.
struct KeyStream {
    ULong key;
    std::string Apply(const std::string &bytes) {
        std::string out;
        for (char c : bytes) {
            out += (char)((UByte)c ^ (UByte)(key >> 56));
            key = FingerprintExtend(key, "", 1);
        }
        return out;
    }
};

class ServerAuthTest : public ::testing::Test {
  protected:
    ServerAuthTest()
        : key_(QKAuthKeyFromBuffer("server key", 10)),
          server_(NewServer({}, 0, 1, key_)),
          client_(server_.port()) {}
    ~ServerAuthTest() override { QKAuthKeyDelete(key_); }

    // Sends "auth C1" by hand and checks the answer "C1 R1 C2"; leaves the
    // two key streams ready and gives C2.
    std::string Begin() {
        const std::string c1 = "00112233445566778899aabbccddeeff";
        client_.Send("auth " + c1 + "\n");
        std::string r1 = Response(key_, c1);
        ULong k = Fingerprint((c1 + r1).data(), 64);
        in_.key = out_.key = k;
        std::string answer = in_.Apply(client_.ReadExactly(99));
        EXPECT_EQ(answer.substr(0, 66), c1 + " " + r1 + " ");
        EXPECT_TRUE(Matches(answer.substr(66), std::string(32, 'x') + "\n"));
        return answer.substr(66, 32);
    }

    QKAuthKey *key_;
    TestServer server_;
    RawClient client_;
    KeyStream in_{0}, out_{0};
};

TEST_F(ServerAuthTest, HandshakeByteForByteThenObfuscatedCommands) {
    std::string c2 = Begin();
    client_.Send(out_.Apply(std::string(1, '\0') + Response(key_, c2) + "\n"));
    EXPECT_EQ(in_.Apply(client_.ReadExactly(1)), std::string(1, '\0'));
    client_.Send(out_.Apply("pid\n"));
    std::string pid = std::to_string(getpid());
    std::string expected = "! " + pid + "\n" + pid + "\n" + std::string(1, '\0');
    std::string raw = client_.ReadExactly(expected.size());
    EXPECT_NE(raw, expected);
    EXPECT_EQ(in_.Apply(raw), expected);
}

TEST_F(ServerAuthTest, AWrongResponseIsAnsweredOneAndDropped) {
    std::string c2 = Begin();
    client_.Send(out_.Apply(std::string(1, '\0') + Response(key_, c2 + "x").substr(0, 32) + "\n"));
    EXPECT_EQ(in_.Apply(client_.ReadExactly(1)), std::string(1, '\1'));
    EXPECT_TRUE(client_.AtEnd());
}

TEST_F(ServerAuthTest, ARefusalDropsTheConnection) {
    Begin();
    client_.Send(out_.Apply(std::string(1, '\1')));
    EXPECT_TRUE(client_.AtEnd());
}

TEST_F(ServerAuthTest, LibraryClientsAuthenticateWithTheRightKeyOnly) {
    client_.Send("auth\n");
    EXPECT_EQ(client_.ReadThrough('\0'),
              std::string("? 2 illegal argument: missing challenge\n") + '\0');

    Channel *channel = ChannelNew(-1, -1);
    ASSERT_EQ(ChannelConnect(channel, TCPAddrLocal(QK_FAMILY_IPV4, server_.port())), 1);
    ASSERT_EQ(ChannelAuthenticate(channel, key_, 1, nullptr, 0), 1) << QKErrorMessage();
    ULong value = 0;
    ByteArray text = {nullptr, 0, 0};
    ASSERT_EQ(QKCommandSend(channel, "pid"), 1);
    EXPECT_EQ(QKCommandStatus(channel, &value, &text), 0);
    EXPECT_EQ(value, (ULong)getpid());
    ChannelClose(channel);

    QKAuthKey *wrong = QKAuthKeyFromBuffer("not the key", 11);
    channel = ChannelNew(-1, -1);
    ASSERT_EQ(ChannelConnect(channel, TCPAddrLocal(QK_FAMILY_IPV4, server_.port())), 1);
    EXPECT_EQ(ChannelAuthenticate(channel, wrong, 1, nullptr, 0), 0);
    EXPECT_STREQ(QKErrorMessage(), "invalid response to the challenge sent");
    ChannelClose(channel);
    QKAuthKeyDelete(wrong);
    ArrayFree(text);
}

TEST(ProcessKeyTest, ProcessCommandsNeedAnAuthenticatedConnection) {
    QKAuthSetProcessKey(QKAuthKeyFromBuffer("process", 7));
    TestServer server(NewServer({}, 0, 1, QK_AUTH_PROCESS_KEY));
    RawClient client(server.port());
    for (const char *command : {"exit\n", "abort\n", "rotate\n"}) {
        client.Send(command);
        EXPECT_EQ(client.ReadThrough('\0'),
                  std::string("? 1 illegal command: connection not authenticated\n") + '\0');
    }
    Channel *channel = ChannelNew(-1, -1);
    ASSERT_EQ(ChannelConnect(channel, TCPAddrLocal(QK_FAMILY_IPV4, server.port())), 1);
    ASSERT_EQ(ChannelAuthenticate(channel, QK_AUTH_PROCESS_KEY, 1, nullptr, 0), 1);
    ByteArray text = {nullptr, 0, 0};
    ULong value = 1;
    ASSERT_EQ(QKCommandSend(channel, "rotate -d 1"), 1);
    EXPECT_EQ(QKCommandStatus(channel, &value, &text), 0);
    EXPECT_EQ(QKCommandReadOutput(channel, &text), 1);
    EXPECT_EQ(text.length, 0u);
    ChannelClose(channel);
    ArrayFree(text);
    QKAuthSetProcessKey(nullptr);
}

}  // namespace
