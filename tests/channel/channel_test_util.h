// Helpers of the channel tests: channel pairs over a socket pair, a plain
// loopback listener, raw reads and writes on the far end, and the checks of
// the thread's error state.
#pragma once

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "qk/channel.h"
#include "qk/frame.h"

namespace chantest {

inline void Init() {
    QKLibInit("channeltest");
}

// The error state as the contract gives it: the 64-bit code and the text.
inline ::testing::AssertionResult HasError(Int code, Int domain, const char *text = nullptr) {
    ULong got = QKErrorCode();
    if (got != QK_ERROR_CODE(code, domain))
        return ::testing::AssertionFailure()
               << "code " << (got & 0xFFFFFFFFu) << " domain " << (got >> 32) << " ("
               << QKErrorMessage() << "), expected " << code << "/" << domain;
    if (text != nullptr && std::string(QKErrorMessage()).find(text) == std::string::npos)
        return ::testing::AssertionFailure() << "message \"" << QKErrorMessage() << "\"";
    return ::testing::AssertionSuccess();
}

// A channel over one end of a socket pair; the other end stays a raw
// descriptor for the test to play the peer.
struct Pair {
    Channel *channel = nullptr;
    int peer = -1;

    explicit Pair(Int readTimeout = -1, Int writeTimeout = -1) {
        int fds[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
        channel = ChannelNew(readTimeout, writeTimeout);
        EXPECT_EQ(ChannelSetFD(channel, fds[0], 1), 1);
        peer = fds[1];
    }
    ~Pair() {
        if (channel != nullptr) ChannelClose(channel);
        ClosePeer();
    }
    void ClosePeer() {
        if (peer >= 0) close(peer);
        peer = -1;
    }
    void Send(const std::string &bytes) const {
        size_t done = 0;
        while (done < bytes.size()) {
            ssize_t n = write(peer, bytes.data() + done, bytes.size() - done);
            ASSERT_GT(n, 0);
            done += (size_t)n;
        }
    }
    // Exactly `size` bytes from the peer's end.
    std::string Receive(size_t size) const {
        std::string bytes(size, '\0');
        size_t done = 0;
        while (done < size) {
            ssize_t n = read(peer, &bytes[done], size - done);
            if (n <= 0) break;
            done += (size_t)n;
        }
        bytes.resize(done);
        return bytes;
    }
    // Flushes the channel and takes all the peer has received.
    std::string Drain() const {
        EXPECT_EQ(ChannelFlush(channel), 1);
        std::string bytes;
        char buffer[65536];
        ssize_t n;
        while ((n = recv(peer, buffer, sizeof buffer, MSG_DONTWAIT)) > 0) bytes.append(buffer, n);
        return bytes;
    }
};

// Two channels over the two ends of one socket pair.
struct ChannelPair {
    Channel *a;
    Channel *b;
    ChannelPair() {
        int fds[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
        a = ChannelNew(-1, -1);
        b = ChannelNew(-1, -1);
        EXPECT_EQ(ChannelSetFD(a, fds[0], 1), 1);
        EXPECT_EQ(ChannelSetFD(b, fds[1], 1), 1);
    }
    ~ChannelPair() {
        ChannelClose(a);
        ChannelClose(b);
    }
};

// A plain listening TCP socket on 127.0.0.1 and an ephemeral port.
struct Listener {
    int fd = -1;
    UShort port = 0;

    Listener() {
        fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        struct sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        EXPECT_EQ(listen(fd, 16), 0);
        socklen_t length = sizeof address;
        EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length), 0);
        port = ntohs(address.sin_port);
    }
    ~Listener() {
        if (fd >= 0) close(fd);
    }
    int Accept() const { return accept4(fd, nullptr, nullptr, SOCK_CLOEXEC); }
    TCPAddr Addr() const { return TCPAddrLocal(QK_FAMILY_IPV4, port); }
};

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

inline bool IsNonBlocking(int fd) {
    return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0;
}

}  // namespace chantest
