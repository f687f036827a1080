// Local (family 3) channels: the socket's path, names that do not fit,
// connecting to a plain AF_UNIX listener, the local waits and their texts,
// a busy server, and what a local channel refuses.
#include <stdlib.h>
#include <sys/un.h>

#include <thread>

#include "channel/channel_test_util.h"
#include "frame/file_test_dir.h"

using namespace chantest;

namespace {

class LocalChannelTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { Init(); }
    void SetUp() override {
        setenv("QK_SOCKET_DIR", dir_.Path().c_str(), 1);
        QKUnixSocketSetBase("test");
    }
    void TearDown() override {
        unsetenv("QK_SOCKET_DIR");
        QKUnixSocketSetBase(nullptr);
    }

    static TCPAddr Local(const char *name, UShort port) {
        TCPAddr addr = {};
        std::string text = std::string("/") + name;
        EXPECT_EQ(IPAddrSetHost(&addr.ip, text.c_str()), 1);
        addr.port = port;
        return addr;
    }

    // A plain listener at the path of `addr`.
    int Listen(const TCPAddr &addr, int backlog) {
        int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        struct sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        QKUnixSocketPath(&addr, address.sun_path, sizeof address.sun_path);
        EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        EXPECT_EQ(listen(fd, backlog), 0);
        return fd;
    }

    TempDir dir_;
};

TEST_F(LocalChannelTest, PathFromDirectoryBaseNameAndPort) {
    TCPAddr addr = Local("srv", 8080);
    char path[256];
    size_t length = QKUnixSocketPath(&addr, path, sizeof path);
    std::string expected = dir_.Path() + "/qk.test.srv.8080";
    EXPECT_EQ(std::string(path), expected);
    EXPECT_EQ(length, expected.size());
    // A small buffer gets what fits; the full length still comes back.
    char small[8];
    EXPECT_EQ(QKUnixSocketPath(&addr, small, sizeof small), expected.size());
    EXPECT_EQ(std::string(small), expected.substr(0, 7));
    unsetenv("QK_SOCKET_DIR");
    QKUnixSocketPath(&addr, path, sizeof path);
    EXPECT_STREQ(path, "/tmp/qk.test.srv.8080");
}

TEST_F(LocalChannelTest, NameTooLongForTheSystem) {
    std::string deep = dir_.Path() + "/" + std::string(100, 'd');
    setenv("QK_SOCKET_DIR", deep.c_str(), 1);
    Channel *channel = ChannelNew(-1, -1);
    EXPECT_EQ(ChannelConnect(channel, Local("name", 1)), 0);
    EXPECT_TRUE(HasError(QK_ERR_INVALID, QK_DOMAIN_GENERAL, "socket name too long"));
    EXPECT_FALSE(ChannelConnected(channel));
    EXPECT_EQ(ChannelClose(channel), 1);
}

TEST_F(LocalChannelTest, RoundTripAndRefusals) {
    TCPAddr addr = Local("echo", 7);
    int listener = Listen(addr, 4);
    Channel *channel = ChannelNew(-1, -1);
    ASSERT_EQ(ChannelConnect(channel, addr), 1) << QKErrorMessage();
    EXPECT_TRUE(channel->isPipe);
    EXPECT_FALSE(ChannelIsSocket(channel));
    int server = accept(listener, nullptr, nullptr);
    ASSERT_GE(server, 0);

    EXPECT_TRUE(ChannelWriteString(channel, "ping\n") && ChannelFlush(channel));
    char buffer[5];
    ASSERT_EQ(read(server, buffer, 5), 5);
    EXPECT_EQ(std::string(buffer, 5), "ping\n");
    ASSERT_EQ(write(server, "pong\n", 5), 5);
    EXPECT_EQ(ReadLine(channel), "pong");

    EXPECT_EQ(ChannelShutdown(channel), 0);
    EXPECT_TRUE(
        HasError(QK_ERR_INVALID, QK_DOMAIN_GENERAL, "ChannelShutdown: operation not supported"));
    EXPECT_EQ(ChannelImpersonateNamedPipeClient(channel), 0);
    EXPECT_TRUE(HasError(QK_ERR_NOT_SUPPORTED, QK_DOMAIN_GENERAL, "not supported"));
    Channel *set[1] = {channel};
    EXPECT_EQ(ChannelSelect(set, 1, 0), -1);
    EXPECT_TRUE(
        HasError(EINVAL, QK_DOMAIN_RUNTIME, "Illegal ChannelSelect on a non-socket channel"));
    Long offset;
    EXPECT_EQ(ChannelFileTell(channel, &offset), 0);
    EXPECT_TRUE(
        HasError(QK_ERR_FAILURE, QK_DOMAIN_GENERAL, "ChannelFileSeek: the Channel is not a file"));
    EXPECT_EQ(ChannelClose(channel), 1);
    close(server);
    close(listener);
}

TEST_F(LocalChannelTest, LocalWaitsReadInMillisecondsAndWriteInSeconds) {
    TCPAddr addr = Local("slow", 9);
    int listener = Listen(addr, 4);
    Channel *channel = ChannelNew(30, 0);
    ASSERT_EQ(ChannelConnect(channel, addr), 1) << QKErrorMessage();
    EXPECT_TRUE(IsNonBlocking(channel->fd));
    int server = accept(listener, nullptr, nullptr);
    EXPECT_EQ(ChannelReadByte(channel), -3);
    EXPECT_TRUE(HasError(QK_ERR_TIMEOUT, QK_DOMAIN_GENERAL, "read timeout"));
    std::string block(1 << 20, 'b');
    int result = 1;
    for (int i = 0; i < 64 && result; i++)
        result = ChannelWriteBuf(channel, block.data(), (UInt)block.size());
    EXPECT_EQ(result, 0);
    EXPECT_TRUE(HasError(QK_ERR_TIMEOUT, QK_DOMAIN_GENERAL, "write timeout"));
    ChannelDisconnect(channel);
    ChannelClose(channel);
    close(server);
    close(listener);
}

TEST_F(LocalChannelTest, NoServer) {
    Channel *channel = ChannelNew(-1, -1);
    EXPECT_EQ(ChannelConnect(channel, Local("nobody", 1)), 0);
    EXPECT_TRUE(HasError(ENOENT, QK_DOMAIN_OS));
    // The named-pipe form takes local addresses only.
    EXPECT_EQ(ChannelConnectNamedPipeWithFlags(channel, TCPAddrLocal(1, 80), 0), 0);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(ChannelClose(channel), 1);
}

TEST_F(LocalChannelTest, BusyServer) {
    TCPAddr addr = Local("busy", 3);
    int listener = Listen(addr, 0);
    // Fill the backlog; the connect that finds it full fails at once with a
    // connect limit of 0.
    std::vector<Channel *> queued;
    for (int i = 0; i < 8; i++) {
        Channel *channel = ChannelNewEx(-1, -1, 0);
        if (!ChannelConnectNamedPipeWithFlags(channel, addr, 0)) {
            EXPECT_TRUE(HasError(EAGAIN, QK_DOMAIN_OS));
            ChannelClose(channel);
            break;
        }
        queued.push_back(channel);
    }
    ASSERT_LT(queued.size(), 8u);
    // Without a limit, the connect tries until the server takes a client.
    Channel *patient = ChannelNewEx(-1, -1, -1);
    int connected = 0;
    std::thread waiter([&] { connected = ChannelConnect(patient, addr); });
    usleep(50000);
    int server = accept(listener, nullptr, nullptr);
    waiter.join();
    EXPECT_EQ(connected, 1);
    for (Channel *channel : queued) ChannelClose(channel);
    ChannelClose(patient);
    close(server);
    close(listener);
}

}  // namespace
