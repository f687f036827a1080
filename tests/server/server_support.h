// Helpers of the server tests: an in-process server on an ephemeral
// loopback port, run by a thread of its own, and a raw socket client that
// reads with a guard against hanging (a guard, not a time limit under test).
#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "qk/qkcommon.h"

namespace qktest {

// How long a read waits before the test gives up on it.
constexpr int kGuardMilliseconds = 20000;

// A server listening on 127.0.0.1 at a port of the system's choice, served
// by QKServerRun on a library thread until the object goes.
class TestServer {
  public:
    explicit TestServer(QKServer *server) : server_(server) {
        QKSetMessageStream(0, Quiet());
        if (!QKServerListen(server, TCPAddrLocal(QK_FAMILY_IPV4, 0), 0)) {
            ADD_FAILURE() << "listen: " << QKErrorMessage();
            return;
        }
        TCPAddr addr;
        EXPECT_EQ(QKServerGetAddr(server, &addr), 1);
        port_ = addr.port;
        thread_ = ThreadCreate(Run, server, 0);
    }
    ~TestServer() {
        QKServerStop(server_);
        if (thread_) {
            EXPECT_EQ(ThreadJoin(thread_), 1u);
        }
        QKServerDelete(server_);
    }
    TestServer(const TestServer &) = delete;
    TestServer &operator=(const TestServer &) = delete;

    UShort port() const { return port_; }
    QKServer *get() const { return server_; }

    // Progress messages of the server go nowhere.
    static FILE *Quiet() {
        static FILE *sink = fopen("/dev/null", "w");
        return sink;
    }

  private:
    static UInt Run(void *server) { return (UInt)QKServerRun(static_cast<QKServer *>(server)); }

    QKServer *server_;
    UShort port_ = 0;
    ThreadHandle thread_ = nullptr;
};

// A server with the given commands, HTTP on, builtins on.
inline QKServer *NewServer(std::vector<QKServerCommand *> commands, int http = 1, int builtins = 1,
                           QKAuthKey *key = nullptr, Int maxActive = 0, Int threadLinger = 30) {
    commands.push_back(nullptr);
    QKServer *server = QKServerNew(http, builtins, commands.data(), nullptr, nullptr, nullptr,
                                   nullptr, key, 60, 60, threadLinger, maxActive, 0);
    EXPECT_NE(server, nullptr) << QKErrorMessage();
    return server;
}

// A blocking client socket with guarded reads.
class RawClient {
  public:
    explicit RawClient(UShort port) {
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address;
        memset(&address, 0, sizeof address);
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
            ADD_FAILURE() << "connect: " << strerror(errno);
            close(fd_);
            fd_ = -1;
        }
    }
    ~RawClient() { Close(); }
    RawClient(const RawClient &) = delete;
    RawClient &operator=(const RawClient &) = delete;

    int fd() const { return fd_; }

    void Close() {
        if (fd_ >= 0) close(fd_);
        fd_ = -1;
    }

    bool Send(const std::string &data) {
        size_t done = 0;
        while (done < data.size()) {
            ssize_t n = send(fd_, data.data() + done, data.size() - done, MSG_NOSIGNAL);
            if (n <= 0) return false;
            done += (size_t)n;
        }
        return true;
    }

    // One byte, -1 at the end of the stream, -2 when the guard ran out.
    int ReadByte() {
        if (pos_ == buffer_.size()) {
            pollfd p = {fd_, POLLIN, 0};
            if (poll(&p, 1, kGuardMilliseconds) <= 0) {
                ADD_FAILURE() << "no data from the server";
                return -2;
            }
            char chunk[65536];
            ssize_t n = recv(fd_, chunk, sizeof chunk, 0);
            if (n <= 0) return -1;
            buffer_.assign(chunk, (size_t)n);
            pos_ = 0;
        }
        return (UByte)buffer_[pos_++];
    }

    // Bytes up to and including `end`, or up to the end of the stream.
    std::string ReadThrough(char end) {
        std::string text;
        for (int c; (c = ReadByte()) >= 0;) {
            text += (char)c;
            if (c == (UByte)end) break;
        }
        return text;
    }

    std::string ReadExactly(size_t count) {
        std::string text;
        for (int c; text.size() < count && (c = ReadByte()) >= 0;) text += (char)c;
        return text;
    }

    // Everything up to the end of the stream.
    std::string ReadAll() {
        std::string text;
        for (int c; (c = ReadByte()) >= 0;) text += (char)c;
        return text;
    }

    // True when the server closed the connection with nothing more to read.
    bool AtEnd() { return ReadByte() == -1; }

    // An HTTP reply with a head: the head, then the body by its
    // Content-Length, by its chunks, or to the end of the stream.
    std::string ReadHttp() {
        std::string head;
        while (head.size() < 4 || head.compare(head.size() - 4, 4, "\r\n\r\n") != 0) {
            int c = ReadByte();
            if (c < 0) return head;
            head += (char)c;
        }
        size_t length = head.find("Content-Length: ");
        if (length != std::string::npos)
            return head + ReadExactly(std::stoul(head.substr(length + 16)));
        if (head.find("Transfer-Encoding: chunked\r\n") == std::string::npos)
            return head + ReadAll();
        std::string body;
        for (;;) {
            std::string size = ReadThrough('\n');
            body += size;
            size_t n = std::stoul(size, nullptr, 16);
            body += ReadExactly(n + 2);
            if (n == 0 || size.empty()) break;
        }
        return head + body;
    }

  private:
    int fd_ = -1;
    std::string buffer_;
    size_t pos_ = 0;
};

// True when `text` consists of characters of the classes in `pattern`:
// '9' a digit, 'x' a lower-case hexadecimal digit, any other itself.
inline bool Matches(const std::string &text, const std::string &pattern) {
    if (text.size() != pattern.size()) return false;
    for (size_t i = 0; i < text.size(); i++) {
        char c = text[i];
        bool ok = pattern[i] == '9'   ? c >= '0' && c <= '9'
                  : pattern[i] == 'x' ? (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f')
                                      : c == pattern[i];
        if (!ok) return false;
    }
    return true;
}

// A date of an HTTP head: "Sun, 06 Nov 1994 08:49:37 GMT", in English.
inline bool IsHttpDate(const std::string &date) {
    static const std::string days = "Sun Mon Tue Wed Thu Fri Sat";
    static const std::string months = "Jan Feb Mar Apr May Jun Jul Aug Sep Oct Nov Dec";
    return date.size() == 29 && days.find(date.substr(0, 3)) % 4 == 0 &&
           months.find(date.substr(8, 3)) % 4 == 0 && Matches(date.substr(3, 5), ", 99 ") &&
           Matches(date.substr(11), " 9999 99:99:99 GMT");
}

// An HTTP reply with its Date and Expires lines checked for their form and
// replaced by "Date: *" and "Expires: *", so that it can be compared byte
// for byte.
inline std::string StableDates(std::string reply) {
    for (const char *name : {"\r\nDate: ", "\r\nExpires: "}) {
        size_t start = reply.find(name);
        if (start == std::string::npos) continue;
        start += strlen(name);
        size_t end = reply.find("\r\n", start);
        if (end != std::string::npos && IsHttpDate(reply.substr(start, end - start)))
            reply.replace(start, end - start, "*");
    }
    return reply;
}

// The head lines every reply starts with, after its status line.
inline std::string ServerLines() {
    return std::string("Server: QK/") + QKVersionString() + "\r\nDate: *\r\n";
}

}  // namespace qktest
