// Helpers of the channel tests: the fixture that starts the library and
// gives each test a directory for its files and local sockets, a channel on
// one end of a socket pair, reads and lines through channels, and the
// thread's error state as one text.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <random>
#include <string>
#include <thread>

#include "frame/file_test_dir.h"
#include "qk/qkcommon.h"

// Local sockets are "<dir_>/qk.test.<name>.<port>".
class ChannelTest : public ::testing::Test {
  protected:
    void SetUp() override {
        QKLibInit("channeltest");
        QKErrorClear();
        setenv("QK_SOCKET_DIR", dir_.Path().c_str(), 1);
        QKUnixSocketSetBase("test");
    }
    void TearDown() override {
        unsetenv("QK_SOCKET_DIR");
        QKUnixSocketSetBase(nullptr);
        QKSetNamedPipeSecurityDescriptor(nullptr);
        QKSetMessageHandler(nullptr);
    }

    TempDir dir_;
};

// "code,domain: message" of the thread's error state.
inline std::string ErrorText() {
    const ULong code = QKErrorCode();
    return std::to_string(code & 0xFFFFFFFF) + "," + std::to_string(code >> 32) + ": " +
           QKErrorMessage();
}

// A call's result and the error state after it, as one text.
inline std::string Outcome(Long result) {
    return std::to_string(result) + " " + ErrorText();
}

inline std::string Random(size_t size, unsigned seed) {
    std::mt19937 random(seed);
    std::string bytes(size, '\0');
    for (char &c : bytes) c = (char)random();
    return bytes;
}

// What ChannelReadBuf gives for `size` bytes, its result in `result`.
inline std::string ReadBuf(Channel *channel, UInt size, int *result) {
    std::string bytes(size, '\0');
    UInt count = 0;
    *result = ChannelReadBuf(channel, bytes.data(), size, &count);
    return bytes.substr(0, count);
}

// One line as text, with the terminator behind it checked; `result` gets
// what ChannelReadLine returned.
inline std::string ReadLine(Channel *channel, UInt max = 0, int *result = nullptr) {
    ByteArray line = {};
    int r = ChannelReadLine(channel, &line, max);
    if (result != nullptr) *result = r;
    std::string text(reinterpret_cast<char *>(line.data), line.length);
    if (line.data[line.length] != 0) text += "<no terminator>";
    ArrayFree(line);
    return text;
}

inline bool WriteLine(Channel *channel, const std::string &line) {
    return ChannelWriteBuf(channel, line.data(), (UInt)line.size()) == 1 &&
           ChannelWriteByte(channel, '\n') == 1 && ChannelFlush(channel) == 1;
}

// Writes blocks of 1 MiB until one fails (0), or 64 of them went (1).
inline int WriteUntilFailure(Channel *channel) {
    const std::string block(1 << 20, 'w');
    int result = 1;
    for (int i = 0; i < 64 && result; i++) result = ChannelWriteBuf(channel, block.data(), 1 << 20);
    return result;
}

// A channel on one end of a socket pair; the test plays the peer on the
// other end, raw or through a second channel that does not own it.
struct Pair {
    Channel *channel, *far = ChannelNew(-1, -1);
    int peer = -1;

    explicit Pair(Int readTimeout = -1, Int writeTimeout = -1)
        : channel(ChannelNew(readTimeout, writeTimeout)) {
        int fds[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
        EXPECT_TRUE(ChannelSetFD(channel, fds[0], 1) && ChannelSetFD(far, peer = fds[1], 0));
    }
    ~Pair() {
        ChannelClose(channel);
        ChannelClose(far);
        EXPECT_EQ(close(peer), 0) << "closed by a channel that does not own it";
    }
    // The peer goes: the channel reads the end of the stream, and writes fail.
    void Leave() const { shutdown(peer, SHUT_RDWR); }
    void Send(const std::string &bytes) const {
        ASSERT_EQ(send(peer, bytes.data(), bytes.size(), MSG_NOSIGNAL), (ssize_t)bytes.size());
    }
    // Flushes the channel and takes all the peer has received so far.
    std::string Drain() const {
        EXPECT_EQ(ChannelFlush(channel), 1);
        std::string bytes;
        char buffer[65536];
        for (ssize_t n; (n = recv(peer, buffer, sizeof buffer, MSG_DONTWAIT)) > 0;)
            bytes.append(buffer, n);
        return bytes;
    }
};

inline long OpenDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

inline bool IsNonBlocking(int fd) {
    return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0;
}
