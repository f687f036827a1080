// Worker threads and the server's life: reuse of parked workers, lingering,
// stopping with requests in progress, the limit of active requests, and
// changes of the command tables while requests run. (Replies byte for byte
// are http_test.cpp's; here a GET gives the body alone.)
#include <future>

#include "server/server_support.h"

namespace {

// Answers its user data; or waits at the gate given as user data, then
// answers "slow".
const auto Say = [](QKClient *client, void *text) { return Answer(client, (const char *)text); };
const auto Slow = [](QKClient *client, void *gate) {
    return static_cast<Gate *>(gate)->Pass(), Answer(client, "slow");
};

QKServerCommand helloCommand = Command("/hello", Say, (void *)"hello"),
                nativeHello = Command("hello", Say, (void *)"hello");

UInt Threads(const TestServer &server, UInt *maxThreads = nullptr) {
    UInt threads = 0;
    return QKServerStatus(server.handle, &threads, maxThreads), threads;
}

// One worker serves, one waits in the accept: the connection before has
// always ended when the next one comes. A path without a command is closed
// without a word; a client that goes in the middle of a request leaves the
// server serving.
TEST(WorkersTest, ShortConnectionsInARowReuseTheWorkers) {
    TestServer server({&helloCommand});
    for (int i = 0; i < 200; i++) {
        ASSERT_EQ(Get(server.port, i % 2 ? "/hello" : "/nosuch"), i % 2 ? "hello" : "") << i;
        RawClient client(server.port);
        client.Send("pid\nclose\n");
        client.ReadThrough('\0');
        ASSERT_TRUE(client.AtEnd());
    }
    UInt maxThreads = 0, threads = Threads(server, &maxThreads);
    EXPECT_TRUE(threads <= maxThreads && maxThreads <= 3) << threads << " of " << maxThreads;
    for (const char *partial : {"GET /hello HTTP/1.1\r\nHost: x", "GET /hel",
                                "POST /hello HTTP/1.0\r\nContent-Length: 9\r\n\r\nab"})
        RawClient(server.port).Send(partial);
    EXPECT_EQ(Get(server.port, "/hello"), "hello");
}

// Live connections each have a worker; once they are gone, their workers
// end after one second of waiting, all but the one reserved for the next
// accept.
TEST(WorkersTest, LiveConnectionsEachHaveAWorkerAndIdleOnesLingerThenEnd) {
    TestServer server({&nativeHello, &helloCommand}, {.threadLinger = 1});
    {
        std::deque<RawClient> clients;
        for (int i = 0; i < 6; i++) {
            clients.emplace_back(server.port).Send("hello\n");
            ASSERT_EQ(clients.back().ReadThrough('\0'), Nul("!\nhello"));
        }
        EXPECT_TRUE(Threads(server) >= 6 && Threads(server) <= 7) << Threads(server);
    }
    EXPECT_TRUE(Eventually([&] { return Threads(server) == 1; }, 20000));
    EXPECT_EQ(Get(server.port, "/hello"), "hello");
}

// A stopping server wakes and closes a connection that waits for a
// request, and lets one in progress finish; its connection then ends too.
TEST(WorkersTest, StopEndsIdleConnectionsAndLetsRequestsFinish) {
    Gate gate;
    QKServerCommand slow = Command("/slow", Slow, &gate);
    TestServer server({&helloCommand, &slow});
    RawClient idle(server.port), busy(server.port);
    idle.Send("GET /hello HTTP/1.1\r\n\r\n");
    idle.ReadHttp();
    busy.Send("GET /slow HTTP/1.1\r\n\r\n");
    gate.arrived.acquire();
    QKServerStop(server.handle);
    EXPECT_TRUE(idle.AtEnd());
    gate.open.count_down();
    EXPECT_NE(busy.ReadHttp().find("\r\n\r\n4\r\nslow\r\n0\r\n\r\n"), std::string::npos);
    EXPECT_TRUE(busy.AtEnd());
}

// Beyond the limit, known commands are closed without an answer; unknown
// ones and the builtins are still answered. The slow request counts as
// active until its worker is past the commit, a moment after its client
// has the whole reply.
TEST(WorkersTest, RequestsBeyondMaxActiveAreRefused) {
    Gate gate;
    QKServerCommand slow = Command("/slow", Slow, &gate);
    TestServer server({&helloCommand, &slow, &nativeHello}, {.maxActive = 1});
    RawClient first(server.port), native(server.port), unknown(server.port);
    first.Send("GET /slow HTTP/1.0\r\n\r\n");
    gate.arrived.acquire();
    EXPECT_EQ(Get(server.port, "/hello"), "");
    native.Send("hello\n");
    EXPECT_EQ(native.ReadThrough(), "");
    unknown.Send("nosuch\npid\n");
    EXPECT_EQ(unknown.Read(kIllegal.size() + kPidReply.size()), kIllegal + kPidReply);
    gate.open.count_down();
    EXPECT_NE(first.ReadThrough().find("\r\n\r\nslow"), std::string::npos);
    EXPECT_TRUE(Eventually([&] { return Get(server.port, "/hello") == "hello"; }, 2000));
}

// The command leaves the table at once, while its request still runs; the
// deletion returns when the request is done. Then records are added: one
// of a name and kind that is not there gives no old one, and one of the same
// name and kind replaces it.
TEST(CommandTableTest, DeletionWaitsForTheRequestsAndAddReplaces) {
    Gate gate;
    QKServerCommand slow = Command("slow", Slow, &gate),
                    again = Command("slow", Say, (void *)"again"),
                    newer = Command("slow", Say, (void *)"newer"),
                    http = Command("/hello", Say, (void *)"other");
    TestServer server({&nativeHello, &slow, &helloCommand});
    RawClient first(server.port), other(server.port);
    first.Send("slow\n");
    gate.arrived.acquire();
    auto deleted = std::async(std::launch::async, [&] {
        return QKServerCommandDelete(server.handle, "slow", PROTOCOL_NATIVE);
    });
    auto gone = [&] {
        std::string list = other.Send("help\n") ? other.ReadThrough('\0') : "help slow\n";
        return list.find("help slow\n") == std::string::npos;
    };
    EXPECT_TRUE(Eventually(gone, 10000));
    other.Send("slow\n");
    EXPECT_EQ(other.ReadThrough('\0'), kIllegal);
    EXPECT_EQ(deleted.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);
    gate.open.count_down();
    EXPECT_EQ(deleted.get(), &slow);
    EXPECT_EQ(first.ReadThrough('\0'), Nul("!\nslow"));
    EXPECT_EQ(QKServerCommandDelete(server.handle, "slow", PROTOCOL_NATIVE), nullptr);
    for (auto [record, expected] : {std::pair(&again, (QKServerCommand *)nullptr),
                                    {&newer, &again},
                                    {&http, &helloCommand}}) {
        QKServerCommand *old = &slow;
        EXPECT_TRUE(QKServerCommandAdd(server.handle, record, &old) && old == expected);
    }
    other.Send("slow\n");
    EXPECT_EQ(other.ReadThrough('\0'), Nul("!\nnewer"));
    EXPECT_EQ(Get(server.port, "/hello"), "other");
}

// A record is refused by QKServerNew and by QKServerCommandAdd, unless it
// only has the name of another, which Add replaces. A server that does not
// listen cannot run nor give its address, and ignores a stop; one whose
// port is taken gives up at once without retries.
TEST(ServerSetupTest, RecordsPortsAndWhatIsTurnedOff) {
    const struct {
        QKServerCommand record;
        std::string error;
    } cases[] = {
        // clang-format off
        {{"", Say, nullptr, PROTOCOL_NATIVE, nullptr}, "invalid server command: \"\""},
        {{" x", Say, nullptr, PROTOCOL_NATIVE, nullptr}, "invalid server command: \" x\""},
        {Command("x", Say, nullptr, PROTOCOL_HTTP), "invalid server command: \"x\""},
        {Command("/f", nullptr), "invalid server command: \"/f\""},
        {Command("/hello", Say), "duplicate server command: \"/hello\""},
        // clang-format on
    };
    QKServer *server = NewServer({&helloCommand, &nativeHello});
    for (auto c : cases) {
        EXPECT_EQ(NewServer({&helloCommand, &nativeHello, &c.record}), nullptr);
        EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(0, 2)) << c.error;
        EXPECT_EQ(QKErrorMessage(), c.error);
        int added = QKServerCommandAdd(server, &c.record, nullptr);
        EXPECT_EQ(added ? "" : QKErrorMessage(), c.error[0] == 'd' ? "" : c.error);
    }
    TCPAddr addr;
    EXPECT_TRUE(!QKServerRun(server) && !QKServerGetAddr(server, &addr));  // not listening
    TestServer running({&nativeHello}, {.http = 0, .builtins = 0});
    QKServerStop(server);
    EXPECT_EQ(QKServerStart(server, TCPAddrLocal(QK_FAMILY_IPV4, running.port), 0), 0);
    QKServerDelete(server);
    // Without builtins or HTTP, their words are unknown commands.
    RawClient client(running.port);
    client.Send("pid\nGET / HTTP/1.0\nhelp\n");
    EXPECT_EQ(client.Read(3 * kIllegal.size()), kIllegal + kIllegal + kIllegal);
}

}  // namespace
