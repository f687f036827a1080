// Local (family 3) servers: the socket file's place and mode, accepted
// connections, the lock that keeps a second server off a name in use, stale
// socket files, and names too long for a socket.
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>

#include "frame/file_test_dir.h"
#include "server_test_support.h"

namespace {

using namespace qktest;

class LocalSocketTest : public ::testing::Test {
  protected:
    void SetUp() override {
        QKLibInit("localsockettest");
        QKErrorClear();
        setenv("QK_SOCKET_DIR", dir_.Path().c_str(), 1);
    }
    void TearDown() override {
        unsetenv("QK_SOCKET_DIR");
        QKSetNamedPipeSecurityDescriptor(nullptr);
    }

    static std::string PathOf(const TCPAddr &addr) {
        char path[256];
        EXPECT_LT(QKUnixSocketPath(&addr, path, sizeof path), sizeof path);
        return path;
    }
    // The socket file's mode, 0 when there is none.
    static mode_t ModeOf(const std::string &path) {
        struct stat status;
        if (lstat(path.c_str(), &status) != 0) return 0;
        EXPECT_TRUE(S_ISSOCK(status.st_mode)) << path;
        return status.st_mode & 07777;
    }

    TempDir dir_;
};

TEST_F(LocalSocketTest, AcceptModeAndRemovalAtClose) {
    const TCPAddr addr = LocalName("echo", 7);
    const std::string path = PathOf(addr);
    EXPECT_EQ(path.rfind(dir_.Path() + "/", 0), 0u) << path;
    const mode_t oldMask = umask(0);  // the mode does not depend on it
    TCPServer *server = TCPServerOpen(addr);
    EXPECT_EQ(umask(oldMask), 0u);
    ASSERT_NE(server, nullptr) << ErrorText();
    EXPECT_EQ(ModeOf(path), 0600u);
    TCPAddr back = {};
    ASSERT_EQ(TCPServerGetAddr(server, &back), 1);
    EXPECT_EQ(back.ip.family, QK_FAMILY_LOCAL);
    EXPECT_STREQ(back.ip.u.name, "echo");
    EXPECT_EQ(back.port, 7);

    int client = RawConnect(0, path);
    ASSERT_GE(client, 0) << strerror(errno);
    Channel *channel = ChannelNew(5000, 5000);
    ASSERT_EQ(TCPServerAccept(server, channel), 1) << ErrorText();
    EXPECT_EQ(channel->own, 1);
    EXPECT_EQ(channel->isSocket, 0);
    EXPECT_EQ(channel->isPipe, 1);
    EXPECT_NE(fcntl(channel->fd, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_NE(fcntl(channel->fd, F_GETFL) & O_NONBLOCK, 0);
    ASSERT_TRUE(SendAll(client, "ping\n"));
    std::string line;
    ASSERT_TRUE(ReadLine(channel, &line)) << ErrorText();
    EXPECT_EQ(line, "ping");
    ASSERT_TRUE(WriteLine(channel, "pong")) << ErrorText();
    EXPECT_EQ(Receive(client, 5), "pong\n");
    close(client);
    EXPECT_EQ(ChannelClose(channel), 1);
    EXPECT_EQ(TCPServerClose(server), 1);
    EXPECT_EQ(ModeOf(path), 0u) << "the socket file stays after close";

    // Another mode for the sockets made from now on, then the default again.
    const UInt groupMode = 0660;
    QKSetNamedPipeSecurityDescriptor(&groupMode);
    server = TCPServerOpen(addr);
    ASSERT_NE(server, nullptr) << ErrorText();
    EXPECT_EQ(ModeOf(path), 0660u);
    EXPECT_EQ(TCPServerClose(server), 1);
    QKSetNamedPipeSecurityDescriptor(nullptr);
    server = TCPServerOpen(addr);
    ASSERT_NE(server, nullptr) << ErrorText();
    EXPECT_EQ(ModeOf(path), 0600u);
    EXPECT_EQ(TCPServerClose(server), 1);
}

TEST_F(LocalSocketTest, NameTooLongForASocket) {
    std::string deep = dir_.Path() + "/" + std::string(60, 'd') + "/" + std::string(60, 'e');
    ASSERT_EQ(DirectoryCreate(nullptr, deep.c_str(), 1), 1) << ErrorText();
    setenv("QK_SOCKET_DIR", deep.c_str(), 1);
    const int before = OpenDescriptors();
    EXPECT_EQ(TCPServerOpen(LocalName("x", 1)), nullptr);
    EXPECT_EQ(ErrorText(), "1,2: socket name too long");
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_EQ(rmdir(deep.c_str()), 0) << "something was made there, a lock file maybe";
}

// A second server on a name in use fails clearly and leaves the first one
// whole; once the first is closed, the name is free.
TEST_F(LocalSocketTest, SecondServerOnTheSameNameConflicts) {
    const TCPAddr addr = LocalName("busy", 9);
    const std::string path = PathOf(addr);
    TCPServer *first = TCPServerOpen(addr);
    ASSERT_NE(first, nullptr) << ErrorText();
    const int before = OpenDescriptors();
    TCPServer *again = TCPServerOpen(addr);
    TCPServerClose(again);
    ASSERT_EQ(again, nullptr);
    EXPECT_EQ(ErrorText(), "16,0: local socket \"" + path +
                               "\" is in use by another server: Device or resource busy");
    EXPECT_EQ(OpenDescriptors(), before);
    TCPServer *neighbour = TCPServerOpen(LocalName("busy", 10));  // another port
    ASSERT_NE(neighbour, nullptr) << ErrorText();
    EXPECT_EQ(TCPServerClose(neighbour), 1);

    int client = RawConnect(0, path);
    ASSERT_GE(client, 0);
    Channel *channel = ChannelNew(-1, -1);
    EXPECT_EQ(TCPServerAccept(first, channel), 1) << ErrorText();
    close(client);
    EXPECT_EQ(ChannelClose(channel), 1);
    EXPECT_EQ(TCPServerClose(first), 1);
    TCPServer *second = TCPServerOpen(addr);
    ASSERT_NE(second, nullptr) << ErrorText();
    EXPECT_EQ(TCPServerClose(second), 1);
}

// A socket file left by a server that died is replaced; a file of another
// kind at the path is kept, and the open fails without holding the lock.
TEST_F(LocalSocketTest, StaleSocketFileIsReplacedOtherFilesAreKept) {
    const TCPAddr addr = LocalName("stale", 3);
    const std::string path = PathOf(addr);
    int dead = socket(AF_UNIX, SOCK_STREAM, 0);
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    ASSERT_EQ(bind(dead, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    close(dead);
    TCPServer *server = TCPServerOpen(addr);
    ASSERT_NE(server, nullptr) << ErrorText();
    int client = RawConnect(0, path);
    EXPECT_GE(client, 0);
    close(client);
    EXPECT_EQ(TCPServerClose(server), 1);

    WriteWhole(path, "not a socket");
    const int before = OpenDescriptors();
    EXPECT_EQ(TCPServerOpen(addr), nullptr);
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(EADDRINUSE, QK_DOMAIN_OS)) << ErrorText();
    EXPECT_EQ(ReadWhole(path), "not a socket");
    EXPECT_EQ(OpenDescriptors(), before);
    unlink(path.c_str());
    server = TCPServerOpen(addr);
    ASSERT_NE(server, nullptr) << ErrorText();
    EXPECT_EQ(TCPServerClose(server), 1);
}

}  // namespace
