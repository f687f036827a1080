// Servers and the channels that connect to them, over loopback TCP and
// local (family 3) sockets: failures to listen and to connect, the outbound
// port range, the socket file's place, mode and lock, the waits of a local
// channel and what it refuses, a busy local server, selecting, and
// datagrams. Client after client over TCP, plain and with TLS, is in
// tls_test.cpp.
#include <arpa/inet.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <vector>

#include "channel/channel_test_util.h"
#include "qk/file.h"

namespace {

using ServerTest = ChannelTest;

// The mode of the socket file at `path`: 0 when there is none, 1 for a file
// of another kind.
mode_t ModeOf(const std::string &path) {
    struct stat status;
    if (lstat(path.c_str(), &status) != 0) return 0;
    return S_ISSOCK(status.st_mode) ? status.st_mode & 07777 : 1;
}

TCPAddr LocalName(const char *name, UShort port) {
    TCPAddr addr = {{}, port};
    EXPECT_EQ(IPAddrSetHost(&addr.ip, (std::string("/") + name).c_str()), 1);
    return addr;
}

std::vector<std::string> messages;
void Capture(const char *, int, int level, int, const char *format, va_list) {
    messages.push_back(std::to_string(level) + ":" + format);
}

// A port in use and a family that is not served fail with the system's
// error, and so does a port nobody listens on; a closed server's port is
// free again at once, even with its last connection in TIME_WAIT (the
// server closed it first).
TEST_F(ServerTest, FailuresToListenAndToConnectAndThePortRange) {
    TCPAddr addr = TCPAddrLocal(QK_FAMILY_IPV4, 0), v6;
    TCPServer *server = TCPServerOpen(addr);
    ASSERT_TRUE(server && TCPServerGetAddr(server, &addr)) << ErrorText();  // the port chosen
    (v6 = addr).ip.family = QK_FAMILY_IPV6;
    EXPECT_TRUE(TCPServerOpen(addr) == nullptr && errno == -1);
    EXPECT_EQ(ErrorText(), "98,1: Address already in use");
    Channel *channel = ChannelNew(-1, -1), *client = ChannelNew(-1, -1);
    for (int connect : {0, 1})  // only IPv4 listens and connects
        EXPECT_EQ(Outcome(connect ? ChannelConnect(channel, v6) : !!TCPServerOpen(v6)),
                  "0 97,1: Address family not supported by protocol");
    ASSERT_TRUE(ChannelConnect(client, addr) && TCPServerAccept(server, channel)) << ErrorText();
    EXPECT_TRUE(ChannelClose(channel) && ChannelReadByte(client) == -1);
    EXPECT_TRUE(ChannelClose(client) && TCPServerClose(server) && TCPServerClose(nullptr));
    for (Int limit : {-1, 2}) {
        channel = ChannelNewEx(-1, -1, limit);  // with and without a connect limit
        EXPECT_EQ(Outcome(ChannelConnect(channel, addr)), "0 111,1: Connection refused") << limit;
        EXPECT_EQ(ChannelClose(channel), 1);
    }
    ASSERT_NE(server = TCPServerOpen(addr), nullptr) << ErrorText();
    // The only port of the outbound range taken, a connection goes on
    // without a bound port, and says so.
    TCPAddr spare = TCPAddrLocal(QK_FAMILY_IPV4, 0), local;
    TCPServer *unused = TCPServerOpen(spare);  // then a port nobody uses
    ASSERT_TRUE(TCPServerGetAddr(unused, &spare) && TCPServerClose(unused));
    Channel *channels[2] = {ChannelNew(-1, -1), ChannelNew(-1, -1)};
    messages.clear();
    QKSetMessageHandler(Capture);
    for (Channel *each : channels) {
        ChannelSetOutboundPortRange(each, spare.port, spare.port);
        errno = 0;
        ASSERT_TRUE(ChannelConnect(each, addr) && ChannelGetAddr(each, &local, 0));
        EXPECT_TRUE(errno == 0 && (local.port == spare.port) == (each == channels[0]));
    }
    EXPECT_EQ(messages, std::vector<std::string>{"3:could not bind to any port in range [%u,%u]"});
    EXPECT_DEATH(ChannelSetOutboundPortRange(channels[0], 10, 9), "min <= max");
    EXPECT_TRUE(ChannelClose(channels[0]) && ChannelClose(channels[1]) && TCPServerClose(server));
}

// The socket file's place and mode, whatever the umask; the waits of a
// local channel and what it refuses; names too long for a socket, and no
// server at all.
TEST_F(ServerTest, LocalSocketFilesAndRefusals) {
    const TCPAddr addr = LocalName("echo", 7);
    char path[256], small[8];
    EXPECT_EQ(QKUnixSocketPath(&addr, path, sizeof path), (dir_ / "qk.test.echo.7").size());
    EXPECT_EQ(QKUnixSocketPath(&addr, small, sizeof small), strlen(path));  // what fits
    EXPECT_TRUE(path == dir_ / "qk.test.echo.7" && std::string(path, 7) == small);
    const mode_t oldMask = umask(0);
    TCPServer *server = TCPServerOpen(addr);
    EXPECT_EQ(umask(oldMask), 0u);
    TCPAddr back;
    ASSERT_TRUE(server && TCPServerGetAddr(server, &back) && IPAddrEquals(back.ip, addr.ip) &&
                back.port == 7);
    EXPECT_EQ(ModeOf(path), 0600u);
    Channel *client = ChannelNew(30, 0), *served = ChannelNew(5000, 5000);
    ASSERT_TRUE(ChannelConnect(client, addr) && TCPServerAccept(server, served)) << ErrorText();
    for (Channel *end : {client, served})  // no sockets to the rest of the library
        EXPECT_TRUE(end->own && !end->isSocket && end->isPipe && IsNonBlocking(end->fd) &&
                    fcntl(end->fd, F_GETFD) & FD_CLOEXEC);
    EXPECT_TRUE(WriteLine(served, "ping") && ReadLine(client) == "ping");
    // A local channel waits to read in milliseconds and to write in seconds.
    EXPECT_EQ(Outcome(ChannelReadByte(client)), "-3 2,2: read timeout");
    EXPECT_EQ(Outcome(WriteUntilFailure(client)), "0 2,2: write timeout");
    ChannelDisconnect(client);
    ASSERT_TRUE(ChannelClose(served) && ChannelConnect(client, addr)) << ErrorText();
    Long offset;
    EXPECT_EQ(Outcome(ChannelShutdown(client)), "0 1,2: ChannelShutdown: operation not supported");
    EXPECT_EQ(Outcome(ChannelImpersonateNamedPipeClient(client)), "0 6,2: not supported");
    EXPECT_EQ(Outcome(ChannelSelect(&client, 1, 0)),
              "-1 22,0: Illegal ChannelSelect on a non-socket channel");
    EXPECT_EQ(Outcome(ChannelFileTell(client, &offset)),
              "0 0,2: ChannelFileSeek: the Channel is not a file");
    EXPECT_EQ(Outcome(!ChannelFileSeek(client, 0) && !ChannelFileTruncate(client, 0)),
              "1 0,2: ChannelFileTruncate: the Channel is not a file");
    EXPECT_TRUE(TCPServerClose(server) && ModeOf(path) == 0) << "the socket file stays after close";
    // Another mode for the sockets made from now on, then the default again.
    const UInt groupMode = 0660;
    for (const UInt *mode : {&groupMode, (const UInt *)nullptr}) {
        QKSetNamedPipeSecurityDescriptor(mode);
        ASSERT_NE(server = TCPServerOpen(addr), nullptr) << ErrorText();
        EXPECT_TRUE(ModeOf(path) == (mode ? 0660u : 0600u) && TCPServerClose(server));
    }
    EXPECT_EQ(Outcome(ChannelConnect(client, LocalName("nobody", 1))),
              "0 2,1: No such file or directory");
    // The named-pipe form takes local addresses only.
    EXPECT_TRUE(!ChannelConnectNamedPipeWithFlags(client, TCPAddrLocal(QK_FAMILY_IPV4, 80), 0) &&
                errno == EINVAL);
    std::string deep = dir_ / (std::string(60, 'd') + "/" + std::string(60, 'e'));
    ASSERT_EQ(DirectoryCreate(nullptr, deep.c_str(), 1), 1) << ErrorText();
    setenv("QK_SOCKET_DIR", deep.c_str(), 1);
    for (int connect : {0, 1})  // and nothing is made there, not even a lock file
        EXPECT_EQ(Outcome(connect ? ChannelConnect(client, addr) : !!TCPServerOpen(addr)),
                  "0 1,2: socket name too long");
    EXPECT_TRUE(ChannelClose(client) && rmdir(deep.c_str()) == 0);
}

// The connect that finds the backlog full fails at once with a connect
// limit of 0; without a limit, it tries until the server takes a client.
TEST_F(ServerTest, BusyAndStaleLocalServers) {
    TCPAddr addr = LocalName("busy", 3);
    struct sockaddr_un address = {AF_UNIX, {}};
    QKUnixSocketPath(&addr, address.sun_path, sizeof address.sun_path);
    int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_TRUE(!bind(listener, (sockaddr *)&address, sizeof address) && !listen(listener, 0));
    std::vector<Channel *> queued;
    for (int i = 0; i < 8; i++) {
        queued.push_back(ChannelNewEx(-1, -1, 0));
        if (!ChannelConnectNamedPipeWithFlags(queued.back(), addr, 0)) break;
    }
    EXPECT_EQ(ErrorText(), "11,1: Resource temporarily unavailable");
    ChannelSetConnectTimeout(queued.back(), -1);
    int connected = 0;
    std::thread waiter([&] { connected = ChannelConnect(queued.back(), addr); });
    usleep(50000);
    int accepted = accept(listener, nullptr, nullptr);
    waiter.join();
    EXPECT_EQ(connected, 1);
    for (Channel *channel : queued) ChannelClose(channel);
    close(accepted);
    close(listener);
    // A second server on a name in use fails clearly and leaves the first one
    // whole; once the first is closed, the name is free. A socket file left by
    // a server that died is replaced; a file of another kind at the path is
    // kept, and the open fails without holding the lock.
    addr = LocalName("busy", 9);
    const std::string path = dir_ / "qk.test.busy.9";
    TCPServer *first = TCPServerOpen(addr);
    const long before = OpenDescriptors();
    EXPECT_EQ(Outcome(!!TCPServerOpen(addr)),
              "0 16,0: local socket \"" + path +
                  "\" is in use by another server: Device or resource busy");
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_TRUE(ModeOf(path) == 0600u && TCPServerClose(first));  // still the first one's
    ASSERT_EQ(mknod(path.c_str(), S_IFSOCK | 0755, 0), 0);        // a dead server's socket file
    for (const char *other : {(const char *)nullptr, "not a socket"}) {
        if (other) WriteWhole(path, other);
        const long count = OpenDescriptors();
        TCPServer *server = TCPServerOpen(addr);
        if (other) {  // kept; and the lock was let go
            EXPECT_EQ(Outcome(server != nullptr), "0 98,1: Address already in use");
            EXPECT_TRUE(ReadWhole(path) == other && OpenDescriptors() == count);
            EXPECT_TRUE(!unlink(path.c_str()) && (server = TCPServerOpen(addr)));
        }
        EXPECT_TRUE(ModeOf(path) == 0600u && TCPServerClose(server));
    }
}

TEST_F(ServerTest, SelectPrefersBufferedData) {
    Pair first, second;
    Channel *channels[3] = {second.channel, nullptr, first.channel};
    // The socket of entry 0 is ready, but entry 2 holds buffered bytes.
    second.Send("r");
    first.Send("xy");
    ASSERT_EQ(ChannelReadByte(first.channel), 'x');
    EXPECT_TRUE(ChannelSelect(channels, 3, 0) == 2 && ChannelReadByte(first.channel) == 'y');
    // Without buffered bytes the ready socket answers.
    EXPECT_TRUE(ChannelSelect(channels, 3, 0) == 0 && ChannelReadByte(second.channel) == 'r');
    EXPECT_EQ(Outcome(ChannelSelect(channels, 3, 20)), "-1 2,2: timeout");  // nothing anywhere
    // A peer that goes away makes its channel ready.
    first.Leave();
    EXPECT_TRUE(ChannelSelect(channels, 3, -1) == 2 && ChannelReadByte(first.channel) == -1);
    Channel *none[2] = {nullptr, nullptr};
    EXPECT_EQ(Outcome(ChannelSelect(none, 2, 0)), "-1 0,2: ChannelSelect: empty channel array");
}

TEST_F(ServerTest, DatagramsGoWholeOrFail) {
    int receiver = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in address = {AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t length = sizeof address;
    ASSERT_TRUE(!bind(receiver, reinterpret_cast<sockaddr *>(&address), length) &&
                !getsockname(receiver, reinterpret_cast<sockaddr *>(&address), &length));
    const TCPAddr to = TCPAddrLocal(QK_FAMILY_IPV4, ntohs(address.sin_port));
    const long before = OpenDescriptors();
    const std::tuple<TCPAddr, std::string, ULong> cases[] = {
        // the error, 0 when sent
        // clang-format off
        {to, "first datagram", 0}, {to, "", 0}, {to, std::string("a\0b\xff", 4), 0},
        {to, std::string(70000, 'x'), QK_ERROR_CODE(EMSGSIZE, QK_DOMAIN_OS)},  // more than fits
        {LocalName("dgram", 1), "x", QK_ERROR_CODE(EAFNOSUPPORT, QK_DOMAIN_OS)},
        // clang-format on
    };
    for (const auto &[target, datagram, error] : cases) {
        EXPECT_EQ(UDPSendBuf(target, datagram.data(), (UInt)datagram.size()), !error);
        EXPECT_EQ(error ? QKErrorCode() : 0, error) << ErrorText();
        // Loopback datagrams are queued before sendto returns.
        char buffer[2048];
        ssize_t n = recv(receiver, buffer, sizeof buffer, MSG_DONTWAIT);
        EXPECT_EQ(n < 0 ? "<none>" : std::string(buffer, n), error ? "<none>" : datagram);
    }
    EXPECT_EQ(OpenDescriptors(), before);
    close(receiver);
}

}  // namespace
