// The native protocol on the wire: builtin replies and help byte for byte,
// the program's commands, pipelining, skipped lines, long lines, and log
// rotation; the client side that reads a reply's status. And the client object seen from a command:
// arguments word by word, numbers within limits, the connection's environment, the request path and
// the log line.
#include <sstream>

#include "server/server_support.h"

namespace {

std::string NextWord(QKClient *client) {
    const char *word;
    return QKClientStringArg(client, &word) ? word : "";
}

// "words ...": each word as QKClientStringArg gives it; "quoted ...": each
// word as QKClientQuotedArg gives it, up to a failure.
int Words(QKClient *client, void *quoted) {
    std::string out;
    const char *word;
    bool ok = true;
    while (*QKClientArgs(client) &&
           (ok = (quoted ? QKClientQuotedArg : QKClientStringArg)(client, &word)))
        out += std::string("[") + word + "]";
    return Answer(client, out + (ok ? "" : "(fail)"));
}

// "num KIND MIN MAX VALUE": the value read by the call of that kind within
// the limits, or "no".
int Number(QKClient *client, void *) {
    std::string kind = NextWord(client), min = NextWord(client), max = NextWord(client);
    ULong low = strtoull(min.c_str(), nullptr, 10), high = strtoull(max.c_str(), nullptr, 10);
    UInt u;
    ULong ul;
    Long l;
    double d;
    std::ostringstream out;
    bool ok =
        kind == "int"       ? QKClientIntegerArg(client, &u, low, high) && out << u
        : kind == "hex"     ? QKClientHexArg(client, &u, low, high) && out << u
        : kind == "long"    ? QKClientLongArg(client, &ul, low, high) && out << ul
        : kind == "hexlong" ? QKClientHexLongArg(client, &ul, low, high) && out << ul
        : kind == "slong"
            ? QKClientSignedLongArg(client, &l, atoll(min.c_str()), atoll(max.c_str())) && out << l
            : QKClientDoubleArg(client, &d, atof(min.c_str()), atof(max.c_str())) && out << d;
    return Answer(client, ok ? out.str() : "no");
}

// "env set NAME VALUE", "env unset NAME", "env get NAME".
int Env(QKClient *client, void *) {
    std::string action = NextWord(client), name = NextWord(client);
    if (action == "set") QKClientSetEnvString(client, name.c_str(), NextWord(client).c_str());
    if (action == "unset") QKClientSetEnvString(client, name.c_str(), nullptr);
    const char *value = QKClientGetEnvString(client, name.c_str());
    return Answer(client, value ? value : "(none)");
}

// The request path, with the NUL that is counted in its length; then the
// log line of the request; then the request's kind, format and whether it
// is authenticated.
int Path(QKClient *client, void *) {
    ByteArray path = {nullptr, 0, 0};
    QKClientGetPath(client, &path);
    std::string out = Text(path);
    out = !out.empty() && !out.back() ? out.substr(0, out.size() - 1) : "(no NUL)";
    ArrayFree(path);
    QKClientLog(client);
    bool known = QKClientServer(client) && QKClientChannel(client) && QKClientNumber(client);
    return Answer(client, out + (known ? " " : " (unknown) ") +
                              std::to_string(QKClientRequest(client)) +
                              std::to_string(QKClientGetFormat(client)) +
                              std::to_string(QKClientAuthenticated(client)));
}

// "echo ARGS": the arguments as the command sees them, with a line of help.
// "len ARGS": their length, as the success value.
// clang-format off
QKServerCommand commands[] = {
    {"echo",
     [](QKClient *c, void *) { return Answer(c, "[" + std::string(QKClientArgs(c)) + "]\n"); },
     [](Channel *c) { return ChannelWriteString(c, "echo ARGS # say it again\n"); },
     PROTOCOL_NATIVE, nullptr},
    Command("len", [](QKClient *c, void *) { return QKClientSuccess(c, strlen(QKClientArgs(c))); }),
    Command("words", Words), Command("quoted", Words, (void *)1), Command("num", Number),
    Command("env", Env), Command("path", Path), Command("/path", Path)};
// clang-format on

std::vector<Int> rotations;
const std::string kBadArgument = Nul("? 2 illegal argument\n");

// One connection takes every request in turn; each reply must come whole
// and alone. Another has an environment of its own. The log lines of the
// requests that asked for their path give each one's number, then the
// request as it came.
TEST(NativeTest, RepliesByteForByte) {
    // Before the server's threads run: where the messages go, and the log
    // rotation behind "rotate", then the server's own callback, each failing
    // for one age; both record the ages they are given.
    FILE *log = tmpfile();
    rotations.clear();
    QKServerSetRotateLogFunction([](Int age) {
        rotations.push_back(age);
        return age == 9 ? (QKErrorThrow(0, 2, "cannot rotate"), 0) : 1;
    });
    Int offset = 100;
    auto onRotate = [](Int age, void *offset) {
        rotations.push_back(age + *(Int *)offset);
        return age == 8 ? (QKErrorThrow(0, 2, "callback refused"), 0) : 1;
    };
    auto server = std::make_unique<TestServer>(
        Pointers(commands), ServerOptions{.onRotate = onRotate, .userData = &offset, .log = log});
    RawClient client(server->port), other(server->port), http(server->port);
    const std::string list =
        "!\nhelp echo\nhelp len\nhelp words\nhelp quoted\nhelp num\nhelp env\nhelp path\n"
        "help abort\nhelp exit\nhelp close\nhelp version\nhelp set\nhelp rotate\nhelp help\n"
        "help auth\nhelp pid\n";
    auto O = [](const std::string &output) { return Nul("!\n" + output); };
    const struct {
        std::string request, reply;
    } replies[] = {
        // clang-format off
        {"version\n", Nul(std::string("!\n") + QKVersionString() + "\n")},
        {"pid\n", kPidReply}, {"set -r 5 -w 0\n", Nul("!\n")},
        {"set\n", Nul("!\n")}, {"set -x 3\n", kBadArgument}, {"set -r\n", kBadArgument},
        {"close extra\n", kBadArgument}, {"rotate -d 2\n", Nul("!\n")}, {"rotate\n", Nul("!\n")},
        {"rotate -d 9\n", Nul("? 5 internal error: cannot rotate\n")},
        {"rotate -d 8\n", Nul("? 5 internal error: callback refused\n")},
        {"rotate -d 2 -d 3\n", kBadArgument}, {"rotate now\n", kBadArgument},
        {"exit now\n", kBadArgument},
        {"auth 0123\n", Nul("? 1 illegal command: no authentication key\n")},
        // Help lists the commands, the program's first, or gives one's line.
        {"help\n", Nul(list)}, {"help nosuch\n", Nul(list)}, {"help len\n", Nul("!\n")},
        {"help echo\n", Nul("!\necho ARGS # say it again\n")},
        {"help set\n",
         Nul("!\nset [-r DELAY] [-w DELAY] # set the server-side read/write timeout delay\n")},
        // Commands are whole words.
        {"echo  a b  \n", Nul("!\n[a b  ]\n")}, {"echo\tx\n", Nul("!\n[x]\n")},
        {"echo\n", Nul("!\n[]\n")}, {"echoes\n", kIllegal}, {"versions\n", kIllegal},
        {"GETTER\n", kIllegal}, {"len abc\n", "! 3\n"}, {"len\n", "!\n"},
        // Pipelined, with comments and empty lines skipped unanswered; the longest line.
        {"echo a\r\n\n# a comment\necho b\r#\recho c\n\nlen xy\n",
         Nul("!\n[a]\n") + Nul("!\n[b]\n") + Nul("!\n[c]\n") + "! 2\n"},
        {"len " + std::string(65531, 'x') + "\n", "! 65531\n"},
        // Words as QKClientStringArg gives them: a quote opens anywhere in a word.
        {"words a  \"b c\"\td\\e \"x\\\"y\" \"t\\\n", O("[a][\"b c\"][d\\e][\"x\"y\"][\"t\\]")},
        {"words x\"y z\"w v\n", O("[x\"y z\"w][v]")}, {"words   \n", O("")},
        {"quoted \"a b\" c \"\" \"open\n", O("[a b][c][](fail)")},
        {"path\n", O("path 000")}, {"path a  b\n", O("path a  b 000")},
        // A maximum of 0 is no limit; the narrow kinds have no overflow check.
        {"num int 10 0 12\n", O("12")}, {"num int 10 0 9\n", O("no")}, {"num int 0 5 6\n", O("no")},
        {"num int 0 5 5\n", O("5")}, {"num int 0 0 -1\n", O("no")}, {"num int 0 0 12a\n", O("no")},
        {"num int 0 0 4294967297\n", O("1")}, {"num hex 0 0 fF\n", O("255")},
        {"num hex 0 0 0x10\n", O("no")}, {"num slong -5 5 -5\n", O("-5")},
        {"num long 0 0 18446744073709551615\n", O("18446744073709551615")},
        {"num hexlong 0 0 DEADBEEFcafe\n", O("244837814094590")}, {"num long 5 0 4\n", O("no")},
        {"num slong -5 0 +700\n", O("700")}, {"num double 1 2 3.5\n", O("no")},
        {"num double 0 0 2.5\n", O("2.5")},
        // The environment lasts from one request to the next, and is the connection's own.
        {"env set a 1\n", O("1")}, {"env set b 2\n", O("2")}, {"env set b 22\n", O("22")},
        {"env unset a\n", O("(none)")}, {"env get b\n", O("22")},
        // clang-format on
    };
    for (const auto &c : replies) {
        client.Send(c.request);
        EXPECT_EQ(client.Read(c.reply.size()), c.reply) << c.request;
    }
    // The connection survived all of these; one byte over the longest line ends it.
    client.Send("len " + std::string(65532, 'x') + "\n");
    EXPECT_TRUE(client.AtEnd());
    other.Send("env get b\n");
    EXPECT_EQ(other.ReadThrough('\0'), Nul("!\n(none)"));
    http.Send(
        "GET /path?x=1 HTTP/1.1\r\n\r\nGET /path/y HTTP/1.1\r\n\r\nGET /path HTTP/1.1\r\n\r\n"
        "POST /path HTTP/1.0\r\nContent-Length: 0\r\n\r\n");
    std::string bodies;
    for (std::string reply; !(reply = http.ReadHttp()).empty();)
        bodies += reply.substr(reply.find("\r\n\r\n") + 4) + "|";
    EXPECT_EQ(bodies,
              "d\r\n/path?x=1 100\r\n0\r\n\r\n|b\r\n/path/y 100\r\n0\r\n\r\n|"
              "9\r\n/path 100\r\n0\r\n\r\n|/path? 200|");
    server.reset();  // its threads gone, what they recorded can be read
    QKServerSetRotateLogFunction(nullptr);
    EXPECT_EQ(rotations, (std::vector<Int>{2, 102, -1, 99, 9, 8, 108}));
    std::string text, logged;
    for (int c = (rewind(log), fgetc(log)); c != EOF; c = fgetc(log)) text += (char)c;
    std::regex line("\\] [0-9]+: (.*)\r\n");
    for (std::sregex_iterator i(text.begin(), text.end(), line), end; i != end; ++i)
        logged += (*i)[1].str() + "|";
    EXPECT_EQ(logged,
              "path|path a  b|GET /path?x=1 HTTP/1.1|GET /path/y HTTP/1.1|GET /path HTTP/1.1|POST "
              "/path HTTP/1.0|");
}

TEST(NativeDeathTest, ArgumentCallsOfTheOtherProtocolAreAssertions) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    QKServerCommand wrong = Command("wrong", [](QKClient *client, void *) {
        const char *name, *value;
        return QKClientScriptArg(client, &name, &value);
    });
    EXPECT_DEATH(
        {
            TestServer server({&wrong});
            RawClient client(server.port);
            client.Send("wrong a=b\n");
            client.ReadThrough();
        },
        "client->c_protocol != PROTOCOL_NATIVE");
}

// QKCommandStatus on the bytes of a reply, then the end of the stream:
// "RESULT VALUE TEXT|UNREAD" after a reply (result 0 or 1), "2 ERROR" after
// a failure.
TEST(CommandStatusTest, ReadsTheStatusLine) {
    const std::string cases[][2] = {
        // clang-format off
        {"!\n", "0 0 |"}, {"! 7 done well\nout", "0 7 done well|out"}, {"! 12", "2 premature eof"},
        {Nul("? 3 no data: nothing here\n") + "!\n", "1 3 no data: nothing here|!\n"},
        {Nul("x\n"), "2 protocol error"}, {Nul("?\n"), "2 protocol error"}, {"", "2 premature eof"},
        {Nul("! 4x\n"), "2 protocol error"}, {Nul("? 12 big\n"), "2 protocol error"},
        {Nul("? 0 zero\n"), "2 protocol error"}, {"? 1 illegal command\n", "2 premature eof"},
        // clang-format on
    };
    for (const auto &[bytes, status] : cases) {
        int fds[2];
        ASSERT_TRUE(socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == 0 &&
                    write(fds[1], bytes.data(), bytes.size()) == (ssize_t)bytes.size());
        close(fds[1]);
        Channel *channel = ChannelNew(-1, -1);
        ChannelSetFD(channel, fds[0], 1);
        ULong value = 99;
        ByteArray text = {nullptr, 0, 0};
        int result = QKCommandStatus(channel, &value, &text);
        std::string out =
            std::to_string(result) + " " +
            (result == 2 ? QKErrorMessage() : std::to_string(value) + " " + Text(text) + "|");
        for (int b; result < 2 && (b = ChannelReadByte(channel)) >= 0;) out += (char)b;
        EXPECT_EQ(out, status) << bytes;
        ArrayFree(text);
        ChannelClose(channel);
    }
}

}  // namespace
