// Channels over loopback TCP, both peers in the test: connecting with and
// without a connect limit, round trips, the addresses of both ends, the
// outbound port range, refused connections, and ChannelSelect.
#include <thread>
#include <vector>

#include "channel/channel_test_util.h"

using namespace chantest;

namespace {

class ChannelTCPTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { Init(); }
    void TearDown() override { QKSetMessageHandler(nullptr); }
};

// A port that nobody listens on: bound, then let go.
UShort FreePort() {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address);
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length);
    close(fd);
    return ntohs(address.sin_port);
}

std::vector<std::string> messages;
void Capture(const char *, int, int level, int, const char *format, va_list) {
    messages.push_back(std::to_string(level) + ":" + format);
}

TEST_F(ChannelTCPTest, RoundTripBothWaysWithAndWithoutLimits) {
    Listener listener;
    // (read and write limit, connect limit): the socket ends non-blocking
    // exactly when a read or write limit is set.
    for (auto [limit, connectLimit] : {std::pair{-1, -1}, {5, 5}, {-1, 5}, {5, -1}}) {
        Channel *client = ChannelNewEx(limit, limit, connectLimit);
        ASSERT_EQ(ChannelConnect(client, listener.Addr()), 1) << QKErrorMessage();
        EXPECT_TRUE(ChannelIsSocket(client));
        EXPECT_EQ(IsNonBlocking(client->fd), limit >= 0);
        Channel *server = ChannelNew(-1, -1);
        ASSERT_EQ(ChannelSetFD(server, listener.Accept(), 1), 1);

        std::string big(100000, '\0');
        for (size_t i = 0; i < big.size(); i++) big[i] = (char)(i * 7);
        std::thread sender([&] {
            EXPECT_EQ(ChannelWriteString(client, "hello\r\n"), 1);
            EXPECT_EQ(ChannelWriteBuf(client, big.data(), (UInt)big.size()), 1);
            EXPECT_EQ(ChannelFlush(client), 1);
        });
        EXPECT_EQ(ReadLine(server), "hello");
        std::string got(big.size(), '\0');
        EXPECT_EQ(ChannelReadBuf(server, &got[0], (UInt)got.size(), nullptr), 0);
        EXPECT_EQ(got, big);
        sender.join();

        EXPECT_EQ(ChannelWriteULongLE(server, 0x1122334455667788ULL), 1);
        EXPECT_EQ(ChannelFlush(server), 1);
        ULong value = 0;
        EXPECT_EQ(ChannelReadULongLE(client, &value), 1);
        EXPECT_EQ(value, 0x1122334455667788ULL);

        // The two ends see each other's addresses.
        TCPAddr local, peer, serverPeer;
        ASSERT_EQ(ChannelGetAddr(client, &local, 0), 1);
        ASSERT_EQ(ChannelGetAddr(client, &peer, 1), 1);
        ASSERT_EQ(ChannelGetAddr(server, &serverPeer, 1), 1);
        EXPECT_TRUE(IPAddrIsLocal(peer.ip));
        EXPECT_EQ(peer.port, listener.port);
        EXPECT_EQ(serverPeer.port, local.port);
        EXPECT_TRUE(IPAddrEquals(serverPeer.ip, local.ip));

        // A closed client gives the server the end of the stream.
        EXPECT_EQ(ChannelClose(client), 1);
        EXPECT_EQ(ChannelReadByte(server), -1);
        EXPECT_EQ(ChannelClose(server), 1);
    }
}

TEST_F(ChannelTCPTest, RefusedConnectionsKeepTheSystemError) {
    TCPAddr addr = TCPAddrLocal(QK_FAMILY_IPV4, FreePort());
    for (Int limit : {-1, 2}) {
        Channel *channel = ChannelNewEx(-1, -1, limit);
        EXPECT_EQ(ChannelConnect(channel, addr), 0);
        EXPECT_TRUE(HasError(ECONNREFUSED, QK_DOMAIN_OS));
        EXPECT_FALSE(ChannelConnected(channel));
        // A channel that failed to connect closes cleanly.
        EXPECT_EQ(ChannelClose(channel), 1);
    }
    // Only IPv4 connects.
    Channel *channel = ChannelNew(-1, -1);
    addr.ip.family = QK_FAMILY_IPV6;
    EXPECT_EQ(ChannelConnect(channel, addr), 0);
    EXPECT_TRUE(HasError(EAFNOSUPPORT, QK_DOMAIN_OS));
    EXPECT_EQ(ChannelClose(channel), 1);
}

TEST_F(ChannelTCPTest, OutboundPortRange) {
    Listener listener;
    UShort port = FreePort();
    Channel *channel = ChannelNew(-1, -1);
    ChannelSetOutboundPortRange(channel, port, port);
    ASSERT_EQ(ChannelConnect(channel, listener.Addr()), 1);
    TCPAddr local;
    ASSERT_EQ(ChannelGetAddr(channel, &local, 0), 1);
    EXPECT_EQ(local.port, port);
    // The only port of the range is now taken: the connection goes on
    // without a bound port, and says so.
    messages.clear();
    QKSetMessageHandler(Capture);
    Channel *second = ChannelNew(-1, -1);
    ChannelSetOutboundPortRange(second, port, port);
    errno = 0;
    ASSERT_EQ(ChannelConnect(second, listener.Addr()), 1);
    EXPECT_EQ(errno, 0);
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0], "3:could not bind to any port in range [%u,%u]");
    ASSERT_EQ(ChannelGetAddr(second, &local, 0), 1);
    EXPECT_NE(local.port, port);
    EXPECT_DEATH(ChannelSetOutboundPortRange(second, 10, 9), "min <= max");
    ChannelClose(second);
    ChannelClose(channel);
}

TEST_F(ChannelTCPTest, ChannelSelectPrefersBufferedData) {
    ChannelPair first, second;
    Channel *channels[3] = {second.b, nullptr, first.b};
    // The socket of entry 0 is ready, but entry 2 holds buffered bytes.
    EXPECT_TRUE(ChannelWriteString(second.a, "r") && ChannelFlush(second.a));
    EXPECT_TRUE(ChannelWriteString(first.a, "xy") && ChannelFlush(first.a));
    ASSERT_EQ(ChannelReadByte(first.b), 'x');
    EXPECT_EQ(ChannelSelect(channels, 3, 0), 2);
    EXPECT_EQ(ChannelReadByte(first.b), 'y');
    // Without buffered bytes the ready socket answers.
    EXPECT_EQ(ChannelSelect(channels, 3, 0), 0);
    EXPECT_EQ(ChannelReadByte(second.b), 'r');
    // Nothing anywhere: a timeout.
    EXPECT_EQ(ChannelSelect(channels, 3, 20), -1);
    EXPECT_TRUE(HasError(QK_ERR_TIMEOUT, QK_DOMAIN_GENERAL, "timeout"));
    // A peer that goes away makes its channel ready.
    ChannelDisconnect(first.a);
    EXPECT_EQ(ChannelSelect(channels, 3, -1), 2);
    EXPECT_EQ(ChannelReadByte(first.b), -1);
}

TEST_F(ChannelTCPTest, ChannelSelectRefusals) {
    Channel *empty[2] = {nullptr, nullptr};
    EXPECT_EQ(ChannelSelect(empty, 2, 0), -1);
    EXPECT_TRUE(HasError(QK_ERR_FAILURE, QK_DOMAIN_GENERAL, "ChannelSelect: empty channel array"));

    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    Channel *notSocket = ChannelNew(-1, -1);
    ASSERT_EQ(ChannelSetFD(notSocket, fds[0], 1), 1);
    close(fds[1]);
    EXPECT_FALSE(ChannelIsSocket(notSocket));
    ChannelPair pair;
    Channel *mixed[2] = {pair.a, notSocket};
    EXPECT_EQ(ChannelSelect(mixed, 2, 0), -1);
    EXPECT_TRUE(
        HasError(EINVAL, QK_DOMAIN_RUNTIME, "Illegal ChannelSelect on a non-socket channel"));
    ChannelClose(notSocket);
}

TEST_F(ChannelTCPTest, SocketWaitCountsSeconds) {
    ChannelPair pair;
    EXPECT_EQ(SocketWait(pair.a->fd, 1, 0), 1);
    EXPECT_EQ(SocketWait(pair.a->fd, 0, 0), 0);
    EXPECT_TRUE(HasError(QK_ERR_TIMEOUT, QK_DOMAIN_GENERAL, "timeout"));
    EXPECT_TRUE(ChannelWriteString(pair.b, "!") && ChannelFlush(pair.b));
    EXPECT_EQ(SocketWait(pair.a->fd, 0, -1), 1);
    // A descriptor in trouble counts as ready.
    int closed = dup(pair.a->fd);
    close(closed);
    EXPECT_EQ(SocketWait(closed, 0, 1), 1);
}

}  // namespace
