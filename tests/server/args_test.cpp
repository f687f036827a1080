// The client object seen from a command: native arguments word by word,
// numbers within limits, the connection's environment, the request path and
// the log line.
#include <stdarg.h>
#include <stdlib.h>

#include <mutex>

#include "server/server_support.h"

using namespace qktest;

namespace {

int Reply(QKClient *client, const std::string &text) {
    QKClientSuccess(client, 0);
    QKClientWriteBuf(client, text.data(), (UInt)text.size());
    return QKClientWriteBuf(client, "", 1) ? QK_COMMAND_DONE : QK_COMMAND_DROP;
}

std::string NextWord(QKClient *client) {
    const char *word;
    return QKClientStringArg(client, &word) ? word : "";
}

// "words ...": each word as QKClientStringArg gives it.
int Words(QKClient *client, void *) {
    std::string out;
    const char *word;
    while (QKClientStringArg(client, &word)) out += std::string("[") + word + "]";
    return Reply(client, out);
}

// "quoted ...": each word as QKClientQuotedArg gives it, up to a failure.
int Quoted(QKClient *client, void *) {
    std::string out;
    const char *word;
    while (*QKClientArgs(client)) {
        if (!QKClientQuotedArg(client, &word)) {
            out += "(fail)";
            break;
        }
        out += std::string("[") + word + "]";
    }
    return Reply(client, out);
}

// "rest WORD ...": what is left after one word.
int Rest(QKClient *client, void *) {
    NextWord(client);
    return Reply(client, std::string("[") + QKClientArgs(client) + "]");
}

// "num KIND MIN MAX VALUE": the value read by the call of that kind within
// the limits, or "no".
int Number(QKClient *client, void *) {
    std::string kind = NextWord(client), minText = NextWord(client), maxText = NextWord(client);
    ULong umin = strtoull(minText.c_str(), nullptr, 10),
          umax = strtoull(maxText.c_str(), nullptr, 10);
    Long smin = strtoll(minText.c_str(), nullptr, 10), smax = strtoll(maxText.c_str(), nullptr, 10);
    std::string out = "no";
    if (kind == "int") {
        UInt value;
        if (QKClientIntegerArg(client, &value, (UInt)umin, (UInt)umax)) out = std::to_string(value);
    } else if (kind == "long") {
        ULong value;
        if (QKClientLongArg(client, &value, umin, umax)) out = std::to_string(value);
    } else if (kind == "slong") {
        Long value;
        if (QKClientSignedLongArg(client, &value, smin, smax)) out = std::to_string(value);
    } else if (kind == "hex") {
        UInt value;
        if (QKClientHexArg(client, &value, (UInt)umin, (UInt)umax)) out = std::to_string(value);
    } else if (kind == "hexlong") {
        ULong value;
        if (QKClientHexLongArg(client, &value, umin, umax)) out = std::to_string(value);
    } else if (kind == "double") {
        double value;
        if (QKClientDoubleArg(client, &value, strtod(minText.c_str(), nullptr),
                              strtod(maxText.c_str(), nullptr))) {
            char text[32];
            snprintf(text, sizeof text, "%g", value);
            out = text;
        }
    }
    return Reply(client, out);
}

// "env set NAME VALUE", "env unset NAME", "env get NAME".
int Env(QKClient *client, void *) {
    std::string action = NextWord(client), name = NextWord(client);
    if (action == "set") QKClientSetEnvString(client, name.c_str(), NextWord(client).c_str());
    if (action == "unset") QKClientSetEnvString(client, name.c_str(), nullptr);
    const char *value = QKClientGetEnvString(client, name.c_str());
    return Reply(client, value ? value : "(none)");
}

// The request path, then the log line of the request.
int Path(QKClient *client, void *) {
    ByteArray path = {nullptr, 0, 0};
    QKClientGetPath(client, &path);
    // The NUL at the end is counted in the length.
    std::string out = path.length > 0 && path.data[path.length - 1] == 0
                          ? std::string((const char *)path.data, path.length - 1)
                          : "(no NUL)";
    ArrayFree(path);
    QKClientLog(client);
    if (QKClientProtocol(client) != PROTOCOL_NATIVE) {
        QKClientSuccess(client, 0);
        return QKClientWriteBuf(client, out.data(), (UInt)out.size()) ? QK_COMMAND_DONE
                                                                      : QK_COMMAND_DROP;
    }
    return Reply(client, out);
}

int WrongProtocol(QKClient *client, void *) {
    const char *name, *value;
    QKClientScriptArg(client, &name, &value);
    return QK_COMMAND_DONE;
}

QKServerCommand wordsCommand = {"words", Words, nullptr, PROTOCOL_NATIVE, nullptr};
QKServerCommand quotedCommand = {"quoted", Quoted, nullptr, PROTOCOL_NATIVE, nullptr};
QKServerCommand restCommand = {"rest", Rest, nullptr, PROTOCOL_NATIVE, nullptr};
QKServerCommand numCommand = {"num", Number, nullptr, PROTOCOL_NATIVE, nullptr};
QKServerCommand envCommand = {"env", Env, nullptr, PROTOCOL_NATIVE, nullptr};
QKServerCommand pathCommand = {"path", Path, nullptr, PROTOCOL_NATIVE, nullptr};
QKServerCommand httpPathCommand = {"/path", Path, nullptr, PROTOCOL_HTTP, nullptr};
QKServerCommand wrongCommand = {"wrong", WrongProtocol, nullptr, PROTOCOL_NATIVE, nullptr};

// A server with the commands of these tests, and one connection to it.
struct Served {
    Served()
        : server(NewServer({&wordsCommand, &quotedCommand, &restCommand, &numCommand, &envCommand,
                            &pathCommand, &httpPathCommand})),
          client(server.port()) {}

    // The output of a command, without its status line and NUL.
    std::string Ask(const std::string &line) {
        client.Send(line + "\n");
        std::string reply = client.ReadThrough('\0');
        if (reply.size() < 3 || reply.compare(0, 2, "!\n") != 0) return "(bad reply) " + reply;
        return reply.substr(2, reply.size() - 3);
    }

    TestServer server;
    RawClient client;
};

class ArgsTest : public ::testing::Test {
  protected:
    std::string Ask(const std::string &line) { return served_.Ask(line); }
    UShort port() const { return served_.server.port(); }

    Served served_;
};

TEST_F(ArgsTest, WordsKeepTheirQuotes) {
    EXPECT_EQ(Ask("words a  \"b c\"\td\\e \"x\\\"y\" \"t\\"),
              "[a][\"b c\"][d\\e][\"x\"y\"][\"t\\]");
    // A quote opens anywhere in a word.
    EXPECT_EQ(Ask("words x\"y z\"w v"), "[x\"y z\"w][v]");
    EXPECT_EQ(Ask("words   "), "");
    EXPECT_EQ(Ask("rest one   two  three"), "[two  three]");
    EXPECT_EQ(Ask("quoted \"a b\" c \"\" \"open"), "[a b][c][](fail)");
}

TEST_F(ArgsTest, NumbersWithinTheirLimits) {
    EXPECT_EQ(Ask("num int 10 0 12"), "12");
    EXPECT_EQ(Ask("num int 10 0 9"), "no");
    EXPECT_EQ(Ask("num int 0 5 6"), "no");
    EXPECT_EQ(Ask("num int 0 5 5"), "5");
    EXPECT_EQ(Ask("num int 0 0 4294967297"), "1");  // no overflow check
    EXPECT_EQ(Ask("num int 0 0 12a"), "no");
    EXPECT_EQ(Ask("num int 0 0 -1"), "no");
    EXPECT_EQ(Ask("num int 0 0"), "no");
    EXPECT_EQ(Ask("num long 0 0 18446744073709551615"), "18446744073709551615");
    EXPECT_EQ(Ask("num long 5 0 4"), "no");
    EXPECT_EQ(Ask("num slong -5 5 -5"), "-5");
    EXPECT_EQ(Ask("num slong -5 5 6"), "no");
    EXPECT_EQ(Ask("num slong -5 0 +700"), "700");
    EXPECT_EQ(Ask("num slong 0 0 x"), "no");
    EXPECT_EQ(Ask("num hex 0 0 fF"), "255");
    EXPECT_EQ(Ask("num hex 16 0 f"), "no");
    EXPECT_EQ(Ask("num hex 0 0 0x10"), "no");
    EXPECT_EQ(Ask("num hexlong 0 0 DEADBEEFcafe"), "244837814094590");
    EXPECT_EQ(Ask("num double 0 0 2.5"), "2.5");
    EXPECT_EQ(Ask("num double 0 0 1e3"), "1000");
    EXPECT_EQ(Ask("num double 1 2 3.5"), "no");
    EXPECT_EQ(Ask("num double -1 1 abc"), "no");
    EXPECT_EQ(Ask("num double -1 1 0.5x"), "no");
}

TEST_F(ArgsTest, TheEnvironmentLastsForTheConnection) {
    EXPECT_EQ(Ask("env set a 1"), "1");
    EXPECT_EQ(Ask("env set b 2"), "2");
    EXPECT_EQ(Ask("env set c 3"), "3");
    EXPECT_EQ(Ask("env set b 22"), "22");
    EXPECT_EQ(Ask("env unset a"), "(none)");
    EXPECT_EQ(Ask("env get c"), "3");
    EXPECT_EQ(Ask("env get b"), "22");
    RawClient other(port());
    other.Send("env get b\n");
    EXPECT_EQ(other.ReadThrough('\0'), std::string("!\n(none)") + '\0');
}

std::mutex logMutex;
std::vector<std::string> logLines;

void CaptureLog(const char *, int, int level, int, const char *format, va_list args) {
    char text[1024];
    vsnprintf(text, sizeof text, format, args);
    std::lock_guard<std::mutex> lock(logMutex);
    if (strstr(text, "thread: max") == nullptr)
        logLines.push_back(std::to_string(level) + " " + text);
}

// The message handler is a plain word: set before the server's threads
// run, and put back after they have gone.
TEST(ArgsLogTest, PathAndLogLine) {
    logLines.clear();
    QKSetMessageHandler(CaptureLog);
    {
        Served served;
        EXPECT_EQ(served.Ask("path"), "path");
        EXPECT_EQ(served.Ask("path a  b"), "path a  b");
        RawClient http(served.server.port());
        http.Send("GET /path?x=1 HTTP/1.1\r\n\r\nGET /path/y HTTP/1.0\r\n\r\n");
        EXPECT_NE(http.ReadHttp().find("\r\n9\r\n/path?x=1\r\n"), std::string::npos);
        EXPECT_NE(http.ReadHttp().find("\r\n\r\n/path/y"), std::string::npos);
    }
    QKSetMessageHandler(nullptr);
    std::lock_guard<std::mutex> lock(logMutex);
    ASSERT_EQ(logLines.size(), 4u);
    const char *expected[] = {"path", "path a  b", "GET /path?x=1 HTTP/1.1",
                              "GET /path/y HTTP/1.0"};
    for (int i = 0; i < 4; i++) {
        size_t colon = logLines[i].find(": ");
        ASSERT_NE(colon, std::string::npos) << logLines[i];
        EXPECT_TRUE(Matches(logLines[i].substr(0, colon), "2 " + std::string(colon - 2, '9')));
        EXPECT_EQ(logLines[i].substr(colon + 2), expected[i]);
    }
}

TEST(ArgsDeathTest, ArgumentCallsOfTheOtherProtocolAreAssertions) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            TestServer server(NewServer({&wrongCommand}));
            RawClient client(server.port());
            client.Send("wrong a=b\n");
            client.ReadAll();
        },
        "client->c_protocol != PROTOCOL_NATIVE");
}

}  // namespace
