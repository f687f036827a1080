// TCP servers on loopback: the port read back after port 0, what an accepted
// connection looks like in the channel, many clients through one channel,
// failures to listen, and one-shot datagrams.
#include <fcntl.h>
#include <netinet/tcp.h>

#include "server_test_support.h"

namespace {

using namespace qktest;

class ServerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        QKLibInit("servertest");
        QKErrorClear();
    }
};

int Option(int fd, int level, int name) {
    int value = -1;
    socklen_t length = sizeof value;
    getsockopt(fd, level, name, &value, &length);
    return value;
}

TEST_F(ServerTest, AcceptInstallsTheConnection) {
    TCPServer *server = TCPServerOpen(Loopback(0));
    ASSERT_NE(server, nullptr) << ErrorText();
    TCPAddr addr;
    memset(&addr, 0xAB, sizeof addr);
    ASSERT_EQ(TCPServerGetAddr(server, &addr), 1);
    EXPECT_EQ(addr.ip.family, QK_FAMILY_IPV4);
    EXPECT_EQ(addr.ip.u.addr4, 0x7f000001u);
    ASSERT_NE(addr.port, 0);

    // Without time-outs the socket stays blocking; with one it is not.
    for (Int timeout : {-1, 5000}) {
        SCOPED_TRACE(timeout);
        int client = RawConnect(addr.port);  // the port the system chose
        ASSERT_GE(client, 0);
        Channel *channel = ChannelNew(timeout, -1);
        channel->readPos = 3;  // leftovers of an earlier life
        channel->readEnd = 9;
        channel->writePos = 5;
        ASSERT_EQ(TCPServerAccept(server, channel), 1) << ErrorText();
        EXPECT_EQ(channel->own, 1);
        EXPECT_EQ(channel->crtFd, -1);
        EXPECT_EQ(channel->isSocket, 1);
        EXPECT_EQ(channel->isPipe, 0);
        EXPECT_EQ(channel->readPos + channel->readEnd + (Int)channel->writePos, 0);
        const int fd = channel->fd;
        EXPECT_NE(Option(fd, SOL_SOCKET, SO_KEEPALIVE), 0);
        EXPECT_NE(Option(fd, IPPROTO_TCP, TCP_NODELAY), 0);
        EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
        EXPECT_EQ((fcntl(fd, F_GETFL) & O_NONBLOCK) != 0, timeout >= 0);

        ASSERT_TRUE(SendAll(client, "hello\r\nsecond"));
        std::string line;
        ASSERT_TRUE(ReadLine(channel, &line)) << ErrorText();
        EXPECT_EQ(line, "hello");
        ASSERT_TRUE(WriteLine(channel, "world")) << ErrorText();
        EXPECT_EQ(Receive(client, 6), "world\n");
        close(client);
        EXPECT_FALSE(ReadLine(channel, &line));
        EXPECT_EQ(line, "second");
        EXPECT_EQ(ChannelClose(channel), 1);
    }
    EXPECT_EQ(TCPServerClose(server), 1);
}

// One channel object serves client after client; nothing is carried over
// between them, neither bytes nor descriptors.
TEST_F(ServerTest, ManyClientsInSequenceThroughOneChannel) {
    TCPServer *server = TCPServerOpen(Loopback(0));
    ASSERT_NE(server, nullptr) << ErrorText();
    const TCPAddr addr = Loopback(PortOf(server));
    Channel *serving = ChannelNew(10000, 10000);
    const int before = OpenDescriptors();
    for (int i = 0; i < 60; i++) {
        Channel *client = ChannelNew(10000, 10000);
        ASSERT_EQ(ChannelConnect(client, addr), 1) << ErrorText();
        // Every other client leaves half a line in the serving channel.
        const std::string request = "client " + std::to_string(i);
        ASSERT_TRUE(WriteLine(client, request + (i % 2 ? "\nunfinished" : "")));
        ASSERT_EQ(TCPServerAccept(server, serving), 1) << ErrorText();
        std::string line;
        ASSERT_TRUE(ReadLine(serving, &line)) << ErrorText();
        ASSERT_EQ(line, request);
        ASSERT_TRUE(WriteLine(serving, "answer " + std::to_string(i)));
        ASSERT_TRUE(ReadLine(client, &line)) << ErrorText();
        ASSERT_EQ(line, "answer " + std::to_string(i));
        EXPECT_EQ(ChannelClose(client), 1);
    }
    ChannelDisconnect(serving);
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_EQ(ChannelClose(serving), 1);
    EXPECT_EQ(TCPServerClose(server), 1);
}

// A port in use and a family that is not served fail with the system's
// error; a closed server's port is free again at once, even with its last
// connection in TIME_WAIT (the server closed it first).
TEST_F(ServerTest, OpenFailuresAndImmediateReuse) {
    TCPServer *first = TCPServerOpen(Loopback(0));
    ASSERT_NE(first, nullptr) << ErrorText();
    const UShort port = PortOf(first);
    EXPECT_EQ(TCPServerOpen(Loopback(port)), nullptr);
    EXPECT_EQ(errno, -1);
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(EADDRINUSE, QK_DOMAIN_OS)) << ErrorText();
    TCPAddr v6 = Loopback(0);
    v6.ip.family = QK_FAMILY_IPV6;
    EXPECT_EQ(TCPServerOpen(v6), nullptr);
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(EAFNOSUPPORT, QK_DOMAIN_OS)) << ErrorText();

    int client = RawConnect(port);
    ASSERT_GE(client, 0);
    Channel *channel = ChannelNew(-1, -1);
    ASSERT_EQ(TCPServerAccept(first, channel), 1) << ErrorText();
    EXPECT_EQ(ChannelClose(channel), 1);
    EXPECT_EQ(Receive(client, 1), "");
    close(client);
    EXPECT_EQ(TCPServerClose(first), 1);
    TCPServer *second = TCPServerOpen(Loopback(port));
    ASSERT_NE(second, nullptr) << ErrorText();
    EXPECT_EQ(TCPServerClose(second), 1);
    EXPECT_EQ(TCPServerClose(nullptr), 1);
}

TEST_F(ServerTest, DatagramsGoWholeOrFail) {
    int receiver = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(0x7f000001);
    socklen_t length = sizeof address;
    ASSERT_EQ(bind(receiver, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(getsockname(receiver, reinterpret_cast<sockaddr *>(&address), &length), 0);
    const TCPAddr to = Loopback(ntohs(address.sin_port));
    auto next = [receiver] {  // loopback datagrams are queued before sendto returns
        char buffer[2048];
        ssize_t n = recv(receiver, buffer, sizeof buffer, MSG_DONTWAIT);
        return n < 0 ? std::string("<none>") : std::string(buffer, (size_t)n);
    };

    const int before = OpenDescriptors();
    const std::string binary("a\0b\xff", 4);
    EXPECT_EQ(UDPSendBuf(to, "first datagram", 14), 1) << ErrorText();
    EXPECT_EQ(UDPSendBuf(to, "", 0), 1) << ErrorText();
    EXPECT_EQ(UDPSendBuf(to, binary.data(), 4), 1) << ErrorText();
    EXPECT_EQ(next(), "first datagram");
    EXPECT_EQ(next(), "");
    EXPECT_EQ(next(), binary);

    const std::string huge(70000, 'x');  // more than a datagram holds
    EXPECT_EQ(UDPSendBuf(to, huge.data(), (UInt)huge.size()), 0);
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(EMSGSIZE, QK_DOMAIN_OS)) << ErrorText();
    EXPECT_EQ(UDPSendBuf(LocalName("dgram", 1), "x", 1), 0);
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(EAFNOSUPPORT, QK_DOMAIN_OS)) << ErrorText();
    EXPECT_EQ(next(), "<none>");
    EXPECT_EQ(OpenDescriptors(), before);
    close(receiver);
}

}  // namespace
