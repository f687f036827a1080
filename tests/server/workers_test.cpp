// Worker threads and the server's life: reuse of parked workers, lingering,
// stopping with requests in progress, the limit of active requests, and
// changes of the command tables while requests run.
#include <unistd.h>

#include <atomic>
#include <memory>
#include <thread>

#include "server/gate.h"
#include "server/server_support.h"

using namespace qktest;

namespace {

int Hello(QKClient *client, void *) {
    QKClientSuccess(client, 0);
    return QKClientWriteString(client, "hello") ? QK_COMMAND_DONE : QK_COMMAND_DROP;
}

int Other(QKClient *client, void *) {
    QKClientSuccess(client, 0);
    return QKClientWriteString(client, "other") ? QK_COMMAND_DONE : QK_COMMAND_DROP;
}

// Waits at the gate given as user data, then answers "slow".
int Slow(QKClient *client, void *gate) {
    static_cast<Gate *>(gate)->Pass();
    QKClientSuccess(client, 0);
    QKClientWriteString(client, "slow");
    if (QKClientProtocol(client) == PROTOCOL_NATIVE) QKClientWriteBuf(client, "", 1);
    return QK_COMMAND_DONE;
}

QKServerCommand helloCommand = {"/hello", Hello, nullptr, PROTOCOL_HTTP, nullptr};
QKServerCommand nativeHello = {"hello", Hello, nullptr, PROTOCOL_NATIVE, nullptr};

std::string Reply(const std::string &status, const std::string &connection,
                  const std::string &body) {
    return "HTTP/1.1 " + status + "\r\n" + ServerLines() +
           "Content-Type: text/plain;charset=iso-8859-1\r\n" + connection +
           "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::string Get(UShort port, const std::string &target) {
    RawClient client(port);
    client.Send("GET " + target + " HTTP/1.0\r\n\r\n");
    return StableDates(client.ReadAll());
}

TEST(WorkersTest, ShortConnectionsInARowReuseTheWorkers) {
    TestServer server(NewServer({&helloCommand}));
    const std::string hello = Reply("200 OK", "Connection: close\r\n", "hello");
    for (int i = 0; i < 200; i++) {
        ASSERT_EQ(Get(server.port(), "/hello"), hello) << i;
        RawClient client(server.port());
        client.Send("pid\nclose\n");
        client.ReadThrough('\0');
        ASSERT_TRUE(client.AtEnd());
    }
    UInt threads, maxThreads;
    QKServerStatus(server.get(), &threads, &maxThreads);
    // One worker serves, one waits in the accept: the connection before has
    // always ended when the next one comes.
    EXPECT_LE(maxThreads, 3u);
    EXPECT_LE(threads, maxThreads);
}

TEST(WorkersTest, LiveConnectionsEachHaveAWorkerAndIdleOnesLingerThenEnd) {
    TestServer server(NewServer({&nativeHello}, 1, 1, nullptr, 0, 1));
    {
        std::vector<std::unique_ptr<RawClient>> clients;
        for (int i = 0; i < 6; i++) {
            clients.push_back(std::make_unique<RawClient>(server.port()));
            clients.back()->Send("version\n");
            ASSERT_EQ(clients.back()->ReadThrough('\0'),
                      std::string("!\n") + QKVersionString() + "\n" + std::string(1, '\0'));
        }
        UInt threads, maxThreads;
        QKServerStatus(server.get(), &threads, &maxThreads);
        EXPECT_GE(threads, 6u);
        EXPECT_LE(threads, 7u);
    }
    // The connections are gone: their workers end after one second of
    // waiting, all but the one that is reserved for the next accept.
    UInt threads = 0;
    for (int i = 0; i < 200; i++) {
        QKServerStatus(server.get(), &threads, nullptr);
        if (threads <= 1) break;
        usleep(100000);
    }
    EXPECT_EQ(threads, 1u);
    RawClient client(server.port());
    client.Send("hello\n");
    EXPECT_EQ(client.ReadThrough('o'), "!\nhello");
}

TEST(WorkersTest, StopEndsIdleConnectionsAndLetsRequestsFinish) {
    Gate gate;
    QKServerCommand slow = {"/slow", Slow, nullptr, PROTOCOL_HTTP, &gate};
    TestServer server(NewServer({&helloCommand, &slow}));
    RawClient idle(server.port());
    idle.Send("GET /hello HTTP/1.1\r\n\r\n");
    idle.ReadHttp();
    RawClient busy(server.port());
    busy.Send("GET /slow HTTP/1.0\r\n\r\n");
    gate.AwaitInside(1);

    QKServerStop(server.get());
    EXPECT_TRUE(idle.AtEnd());  // woken and closed while it waited
    gate.Open();
    EXPECT_EQ(StableDates(busy.ReadAll()), Reply("200 OK", "Connection: close\r\n", "slow"));
}

TEST(WorkersTest, RequestsBeyondMaxActiveAreRefused) {
    Gate gate;
    QKServerCommand slow = {"/slow", Slow, nullptr, PROTOCOL_HTTP, &gate};
    TestServer server(NewServer({&helloCommand, &slow, &nativeHello}, 1, 1, nullptr, 1));
    RawClient first(server.port());
    first.Send("GET /slow HTTP/1.0\r\n\r\n");
    gate.AwaitInside(1);

    EXPECT_EQ(Get(server.port(), "/hello"), "");  // closed without an answer
    {
        RawClient native(server.port());
        native.Send("hello\n");
        EXPECT_EQ(native.ReadAll(), "");
    }
    {
        RawClient native(server.port());
        native.Send("nosuch\npid\n");
        EXPECT_EQ(native.ReadThrough('\0'), std::string("? 1 illegal command\n") + '\0');
        EXPECT_EQ(native.ReadThrough('\n'), "! " + std::to_string(getpid()) + "\n");
    }
    gate.Open();
    EXPECT_EQ(StableDates(first.ReadAll()), Reply("200 OK", "Connection: close\r\n", "slow"));
    // The slow request counts as active until its worker is past the
    // commit, a moment after its client has the whole reply.
    std::string hello;
    for (int i = 0; i < 200 && hello.empty(); i++) {
        hello = Get(server.port(), "/hello");
        if (hello.empty()) usleep(10000);
    }
    EXPECT_EQ(hello, Reply("200 OK", "Connection: close\r\n", "hello"));
}

TEST(CommandTableTest, DeletionWaitsForTheRequestsInTheCommand) {
    Gate gate;
    QKServerCommand slow = {"slow", Slow, nullptr, PROTOCOL_NATIVE, &gate};
    TestServer server(NewServer({&slow}));
    RawClient first(server.port());
    first.Send("slow\n");
    gate.AwaitInside(1);

    std::atomic<QKServerCommand *> deleted{nullptr};
    std::atomic<bool> returned{false};
    std::thread deleter([&] {
        deleted = QKServerCommandDelete(server.get(), "slow", PROTOCOL_NATIVE);
        returned = true;
    });
    // The command leaves the table at once, while its request still runs.
    RawClient other(server.port());
    std::string list;
    for (int i = 0; i < 1000; i++) {
        other.Send("help\n");
        list = other.ReadThrough('\0');
        if (list.find("help slow\n") == std::string::npos) break;
        usleep(10000);
    }
    EXPECT_EQ(list.find("help slow\n"), std::string::npos);
    other.Send("slow\n");
    EXPECT_EQ(other.ReadThrough('\0'), std::string("? 1 illegal command\n") + '\0');
    EXPECT_FALSE(returned);
    gate.Open();
    deleter.join();
    EXPECT_EQ(deleted.load(), &slow);
    EXPECT_EQ(first.ReadThrough('\0'), std::string("!\nslow") + '\0');
    EXPECT_EQ(QKServerCommandDelete(server.get(), "slow", PROTOCOL_NATIVE), nullptr);
}

TEST(CommandTableTest, AddReplacesByNameAndKind) {
    QKServerCommand one = {"one", Hello, nullptr, PROTOCOL_NATIVE, nullptr};
    QKServerCommand two = {"two", Hello, nullptr, PROTOCOL_NATIVE, nullptr};
    QKServerCommand newOne = {"one", Other, nullptr, PROTOCOL_NATIVE, nullptr};
    QKServerCommand other = {"/hello", Other, nullptr, PROTOCOL_HTTP, nullptr};
    TestServer server(NewServer({&one, &two, &helloCommand}, 1, 0));
    QKServerCommand *old = &other;
    ASSERT_EQ(QKServerCommandAdd(server.get(), &newOne, &old), 1);
    EXPECT_EQ(old, &one);
    ASSERT_EQ(QKServerCommandAdd(server.get(), &other, &old), 1);
    EXPECT_EQ(old, &helloCommand);
    EXPECT_EQ(Get(server.port(), "/hello"), Reply("200 OK", "Connection: close\r\n", "other"));
    QKServerCommand three = {"three", Hello, nullptr, PROTOCOL_NATIVE, nullptr};
    ASSERT_EQ(QKServerCommandAdd(server.get(), &three, &old), 1);
    EXPECT_EQ(old, nullptr);
    RawClient client(server.port());
    client.Send("one\nthree\n");
    EXPECT_EQ(client.ReadThrough('r'), "!\nother");
    EXPECT_EQ(client.ReadThrough('o'), "!\nhello");
}

TEST(CommandTableTest, InvalidAndDuplicateRecordsAreRefused) {
    QKServerCommand empty = {"", Hello, nullptr, PROTOCOL_NATIVE, nullptr};
    QKServerCommand blank = {" x", Hello, nullptr, PROTOCOL_NATIVE, nullptr};
    QKServerCommand noSlash = {"x", Hello, nullptr, PROTOCOL_HTTP, nullptr};
    QKServerCommand noFunction = {"/f", nullptr, nullptr, PROTOCOL_HTTP, nullptr};
    for (QKServerCommand *record : {&empty, &blank, &noSlash, &noFunction}) {
        QKServerCommand *commands[] = {&helloCommand, record, nullptr};
        EXPECT_EQ(
            QKServerNew(1, 1, commands, nullptr, nullptr, nullptr, nullptr, nullptr, 0, 0, 0, 0, 0),
            nullptr);
        EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(0, 2));
        EXPECT_EQ(std::string(QKErrorMessage()),
                  std::string("invalid server command: \"") + record->name + "\"");
    }
    QKServerCommand again = {"/hello", Other, nullptr, PROTOCOL_HTTP, nullptr};
    QKServerCommand *commands[] = {&helloCommand, &nativeHello, &again, nullptr};
    EXPECT_EQ(
        QKServerNew(1, 1, commands, nullptr, nullptr, nullptr, nullptr, nullptr, 0, 0, 0, 0, 0),
        nullptr);
    EXPECT_STREQ(QKErrorMessage(), "duplicate server command: \"/hello\"");

    QKServer *server = NewServer({&helloCommand, &nativeHello});
    EXPECT_EQ(QKServerCommandAdd(server, &noSlash, nullptr), 0);
    EXPECT_STREQ(QKErrorMessage(), "invalid server command: \"x\"");
    QKServerDelete(server);
}

TEST(ServerStartTest, ABusyPortWithoutRetriesReturnsAtOnce) {
    TestServer running(NewServer({&helloCommand}));
    QKServer *server = NewServer({&helloCommand});
    EXPECT_EQ(QKServerStart(server, TCPAddrLocal(QK_FAMILY_IPV4, running.port()), 0), 0);
    QKServerDelete(server);
}

}  // namespace
