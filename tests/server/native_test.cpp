// The native protocol on the wire: builtin replies byte for byte, the
// program's commands, pipelining, skipped lines, long lines, and the client
// side that reads a reply's status.
#include <sys/socket.h>
#include <unistd.h>

#include "server/server_support.h"

using namespace qktest;

namespace {

// "echo ARGS": the arguments as the command sees them, behind a "!" line.
int Echo(QKClient *client, void *) {
    if (QKClientSuccess(client, 0) != QK_COMMAND_DONE) return QK_COMMAND_DROP;
    QKClientWriteString(client, "[");
    QKClientWriteString(client, QKClientArgs(client));
    QKClientWriteString(client, "]\n");
    return QKClientWriteBuf(client, "", 1) ? QK_COMMAND_DONE : QK_COMMAND_DROP;
}

int EchoHelp(Channel *channel) {
    return ChannelWriteString(channel, "echo ARGS # say it again\n");
}

// "len ARGS": the length of the arguments, as the success value.
int Length(QKClient *client, void *) {
    return QKClientSuccess(client, strlen(QKClientArgs(client)));
}

QKServerCommand echoCommand = {"echo", Echo, EchoHelp, PROTOCOL_NATIVE, nullptr};
QKServerCommand lenCommand = {"len", Length, nullptr, PROTOCOL_NATIVE, nullptr};

std::string Nul(const std::string &text) {
    return text + std::string(1, '\0');
}

std::string Pid() {
    return std::to_string(getpid());
}

class NativeTest : public ::testing::Test {
  protected:
    NativeTest() : server_(NewServer({&echoCommand, &lenCommand})), client_(server_.port()) {}

    // Sends a request and reads one reply ending in a NUL.
    std::string Ask(const std::string &request) {
        client_.Send(request);
        return client_.ReadThrough('\0');
    }

    TestServer server_;
    RawClient client_;
};

TEST_F(NativeTest, BuiltinRepliesByteForByte) {
    EXPECT_EQ(Ask("version\n"), Nul(std::string("!\n") + QKVersionString() + "\n"));
    EXPECT_EQ(Ask("pid\n"), Nul("! " + Pid() + "\n" + Pid() + "\n"));
    EXPECT_EQ(Ask("set -r 5 -w 0\n"), Nul("!\n"));
    EXPECT_EQ(Ask("set\n"), Nul("!\n"));
    EXPECT_EQ(Ask("set -x 3\n"), Nul("? 2 illegal argument\n"));
    EXPECT_EQ(Ask("set -r\n"), Nul("? 2 illegal argument\n"));
    EXPECT_EQ(Ask("set -r abc\n"), Nul("? 2 illegal argument\n"));
    EXPECT_EQ(Ask("close extra\n"), Nul("? 2 illegal argument\n"));
    EXPECT_EQ(Ask("rotate -d 2\n"), Nul("!\n"));
    EXPECT_EQ(Ask("rotate -d 2 -d 3\n"), Nul("? 2 illegal argument\n"));
    EXPECT_EQ(Ask("rotate now\n"), Nul("? 2 illegal argument\n"));
    EXPECT_EQ(Ask("exit now\n"), Nul("? 2 illegal argument\n"));
    EXPECT_EQ(Ask("auth 0123\n"), Nul("? 1 illegal command: no authentication key\n"));
    // The connection survived all of these; "close" ends it without a word.
    client_.Send("close\n");
    EXPECT_TRUE(client_.AtEnd());
}

TEST_F(NativeTest, HelpListsAndDescribes) {
    const std::string list =
        "!\nhelp echo\nhelp len\nhelp abort\nhelp exit\nhelp close\nhelp version\nhelp set\n"
        "help rotate\nhelp help\nhelp auth\nhelp pid\n";
    EXPECT_EQ(Ask("help\n"), Nul(list));
    EXPECT_EQ(Ask("help nosuch\n"), Nul(list));
    EXPECT_EQ(Ask("help echo\n"), Nul("!\necho ARGS # say it again\n"));
    EXPECT_EQ(Ask("help len\n"), Nul("!\n"));
    EXPECT_EQ(Ask("help version\n"), Nul("!\nversion # server release and build\n"));
    EXPECT_EQ(Ask("help set\n"),
              Nul("!\nset [-r DELAY] [-w DELAY] # set the server-side read/write timeout delay\n"));
    EXPECT_EQ(Ask("help rotate\n"),
              Nul("!\nrotate [-d AGE] # rotate the log file, optionally removing archived log "
                  "files older than AGE days\n"));
    EXPECT_EQ(Ask("help abort\n"), Nul("!\nabort # immediately shutdown the server\n"));
    EXPECT_EQ(Ask("help exit\n"), Nul("!\nexit # cleanly shutdown the server\n"));
    EXPECT_EQ(Ask("help close\n"), Nul("!\nclose # close the current connection\n"));
    EXPECT_EQ(Ask("help help\n"), Nul("!\nhelp [COMMAND]\n"));
    EXPECT_EQ(Ask("help auth\n"), Nul("!\nauth CHALLENGE # authenticate the connection\n"));
    EXPECT_EQ(Ask("help pid\n"), Nul("!\npid # server pid\n"));
}

TEST_F(NativeTest, CommandsMatchWholeWords) {
    EXPECT_EQ(Ask("echo  a b  \n"), Nul("!\n[a b  ]\n"));
    EXPECT_EQ(Ask("echo\tx\n"), Nul("!\n[x]\n"));
    EXPECT_EQ(Ask("echo\n"), Nul("!\n[]\n"));
    EXPECT_EQ(Ask("echoes\n"), Nul("? 1 illegal command\n"));
    EXPECT_EQ(Ask("versions\n"), Nul("? 1 illegal command\n"));
    EXPECT_EQ(Ask("GETTER\n"), Nul("? 1 illegal command\n"));
    client_.Send("len abc\n");
    EXPECT_EQ(client_.ReadThrough('\n'), "! 3\n");
    client_.Send("len\n");
    EXPECT_EQ(client_.ReadThrough('\n'), "!\n");
    // A method word alone is HTTP without a target.
    client_.Send("GET\n");
    EXPECT_EQ(StableDates(client_.ReadAll()),
              "HTTP/1.1 400 Bad Request\r\n" + ServerLines() +
                  "Content-Type: text/plain;charset=iso-8859-1\r\nConnection: close\r\n"
                  "Content-Length: 12\r\n\r\ninvalid path");
}

TEST_F(NativeTest, PipelinedRequestsAnswerInOrderAndSkipCommentsAndEmptyLines) {
    client_.Send("echo a\r\n\n# a comment\necho b\r#\recho c\n\nlen xy\n");
    EXPECT_EQ(client_.ReadThrough('\0'), Nul("!\n[a]\n"));
    EXPECT_EQ(client_.ReadThrough('\0'), Nul("!\n[b]\n"));
    EXPECT_EQ(client_.ReadThrough('\0'), Nul("!\n[c]\n"));
    // Nothing was answered for the skipped lines: the next bytes are len's.
    EXPECT_EQ(client_.ReadThrough('\n'), "! 2\n");
}

TEST_F(NativeTest, LongestLineIsServedAndOneMoreByteDropsTheConnection) {
    std::string longest = "len " + std::string(65535 - 4, 'x');
    client_.Send(longest + "\n");
    EXPECT_EQ(client_.ReadThrough('\n'), "! " + std::to_string(65535 - 4) + "\n");
    client_.Send(longest + "y\n");
    EXPECT_TRUE(client_.AtEnd());
}

TEST(NativeServerTest, WithoutBuiltinsOrHttpTheWordsAreUnknownCommands) {
    TestServer server(NewServer({&echoCommand}, 0, 0));
    RawClient client(server.port());
    client.Send("pid\nGET / HTTP/1.0\nhelp\n");
    EXPECT_EQ(client.ReadThrough('\0'), Nul("? 1 illegal command\n"));
    EXPECT_EQ(client.ReadThrough('\0'), Nul("? 1 illegal command\n"));
    EXPECT_EQ(client.ReadThrough('\0'), Nul("? 1 illegal command\n"));
}

TEST(NativeServerTest, ClientDisconnectingMidLineLeavesTheServerServing) {
    TestServer server(NewServer({&echoCommand}));
    {
        RawClient client(server.port());
        client.Send("echo half a li");
    }
    {
        RawClient client(server.port());
        client.Send("echo whole\n");
        EXPECT_EQ(client.ReadThrough('\0'), Nul("!\n[whole]\n"));
    }
}

// The log rotation behind "rotate", and the server's own callback after it.
std::vector<Int> rotations;

int RotateLog(Int age) {
    rotations.push_back(age);
    if (age == 9) QKErrorThrow(0, 2, "cannot rotate");
    return age != 9;
}

int OnRotate(Int age, void *userData) {
    rotations.push_back(age + *static_cast<Int *>(userData));
    if (age == 8) QKErrorThrow(0, 2, "callback refused");
    return age != 8;
}

TEST(RotateTest, RotationFailuresAreInternalErrors) {
    rotations.clear();
    QKServerSetRotateLogFunction(RotateLog);  // before the server's threads run
    Int offset = 100;
    QKServerCommand *none[] = {nullptr};
    {
        TestServer server(QKServerNew(0, 1, none, OnRotate, nullptr, nullptr, &offset, nullptr, 60,
                                      60, 30, 0, 0));
        RawClient client(server.port());
        client.Send("rotate\nrotate -d 3\nrotate -d 9\nrotate -d 8\n");
        EXPECT_EQ(client.ReadThrough('\0'), Nul("!\n"));
        EXPECT_EQ(client.ReadThrough('\0'), Nul("!\n"));
        EXPECT_EQ(client.ReadThrough('\0'), Nul("? 5 internal error: cannot rotate\n"));
        EXPECT_EQ(client.ReadThrough('\0'), Nul("? 5 internal error: callback refused\n"));
    }
    QKServerSetRotateLogFunction(nullptr);
    EXPECT_EQ(rotations, (std::vector<Int>{-1, 99, 3, 103, 9, 8, 108}));
}

// ---- The client side ----

// Reads a reply's status from `bytes`, sent by the raw end of a socket
// pair whose other end is a channel; the channel and what it left unread
// stay for inspection.
class StatusTest : public ::testing::Test {
  protected:
    ~StatusTest() override {
        Reset();
        ArrayFree(text_);
    }

    void Reset() {
        if (channel_) ChannelClose(channel_);
        if (peer_ >= 0) close(peer_);
        channel_ = nullptr;
        peer_ = -1;
    }

    int Status(const std::string &bytes, bool thenClose = false) {
        Reset();
        int fds[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        channel_ = ChannelNew(-1, -1);
        EXPECT_EQ(ChannelSetFD(channel_, fds[0], 1), 1);
        peer_ = fds[1];
        EXPECT_EQ(write(peer_, bytes.data(), bytes.size()), (ssize_t)bytes.size());
        if (thenClose) {
            close(peer_);
            peer_ = -1;
        }
        value_ = 99;
        return QKCommandStatus(channel_, &value_, &text_);
    }
    std::string Text() const { return std::string((const char *)text_.data, text_.length); }

    Channel *channel_ = nullptr;
    int peer_ = -1;
    ULong value_ = 99;
    ByteArray text_ = {nullptr, 0, 0};
};

TEST_F(StatusTest, SuccessLines) {
    EXPECT_EQ(Status("!\n"), 0);
    EXPECT_EQ(value_, 0u);
    EXPECT_EQ(Status("! 42\n"), 0);
    EXPECT_EQ(value_, 42u);
    EXPECT_EQ(Status("! 7 done well\nout"), 0);
    EXPECT_EQ(value_, 7u);
    EXPECT_EQ(Text(), "done well");
    EXPECT_EQ(text_.data[text_.length], 0);
    // The output stays in the channel for the caller.
    EXPECT_EQ(ChannelReadByte(channel_), 'o');
}

TEST_F(StatusTest, ErrorLinesAreReadUpToTheirNul) {
    EXPECT_EQ(Status(Nul("? 3 no data: nothing here\n") + "!\n"), 1);
    EXPECT_EQ(value_, 3u);
    EXPECT_EQ(Text(), "no data: nothing here");
    EXPECT_EQ(QKCommandStatus(channel_, &value_, &text_), 0);  // the next reply is whole
}

TEST_F(StatusTest, MalformedRepliesFail) {
    for (const char *bytes : {"x\n", "?\n", "!x\n", "! 4x\n", "? 12 big\n", "? 0 zero\n"}) {
        EXPECT_EQ(Status(Nul(bytes)), 2) << bytes;
        EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(3, 2)) << bytes;
        EXPECT_STREQ(QKErrorMessage(), "protocol error") << bytes;
    }
}

TEST_F(StatusTest, EndOfStreamIsPrematureEof) {
    for (const char *bytes : {"! 12", "? 1 illegal command\n", ""}) {
        EXPECT_EQ(Status(bytes, true), 2) << bytes;
        EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(3, 2)) << bytes;
        EXPECT_STREQ(QKErrorMessage(), "premature eof") << bytes;
    }
}

TEST(CommandClientTest, SendsACommandAndReadsItsStatusAndOutput) {
    TestServer server(NewServer({&echoCommand}));
    Channel *channel = ChannelNew(-1, -1);
    ASSERT_EQ(ChannelConnect(channel, TCPAddrLocal(QK_FAMILY_IPV4, server.port())), 1);
    ByteArray text = {nullptr, 0, 0};
    ULong value = 0;
    ASSERT_EQ(QKCommandSend(channel, "pid"), 1);
    EXPECT_EQ(QKCommandStatus(channel, &value, &text), 0);
    EXPECT_EQ(value, (ULong)getpid());
    ASSERT_EQ(QKCommandReadOutput(channel, &text), 1);
    EXPECT_EQ(std::string((char *)text.data, text.length), Pid() + "\n");
    ASSERT_EQ(QKCommandSend(channel, "nosuch thing"), 1);
    EXPECT_EQ(QKCommandStatus(channel, &value, &text), 1);
    EXPECT_EQ(value, 1u);
    EXPECT_EQ(std::string((char *)text.data, text.length), "illegal command");
    ASSERT_EQ(QKCommandSend(channel, "echo hi"), 1);
    EXPECT_EQ(QKCommandStatus(channel, &value, &text), 0);
    ASSERT_EQ(QKCommandReadOutput(channel, &text), 1);
    EXPECT_STREQ((char *)text.data, "[hi]\n");
    ArrayFree(text);
    ChannelClose(channel);
}

}  // namespace
