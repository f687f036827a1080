// Helpers of the server tests: command records and their replies; an
// in-process server on an ephemeral loopback port, run by a thread of its
// own; a raw socket client that reads with a guard against hanging (a
// guard, not a time limit under test); polling for a condition; and a gate
// that holds commands in progress.
#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <deque>
#include <fstream>
#include <latch>
#include <regex>
#include <semaphore>
#include <thread>

#include "qk/qkcommon.h"

// The text with a NUL after it; the bytes of an array.
inline const auto Nul = [](const std::string &text) { return text + std::string(1, '\0'); };
inline std::string Text(const ByteArray &array) {
    return std::string((const char *)array.data, array.length);
}

// This process's id as text; the native reply of "pid", and the one to
// an unknown command.
inline const std::string kPid = std::to_string(getpid()),
                         kPidReply = Nul("! " + kPid + "\n" + kPid + "\n"),
                         kIllegal = Nul("? 1 illegal command\n");

// A command record: native when its name is a word, else for HTTP.
inline QKServerCommand Command(const char *name, QKServerCommandFunction function,
                               void *userData = nullptr, UInt protocols = 0) {
    if (protocols == 0) protocols = name[0] == '/' || !name[0] ? PROTOCOL_HTTP : PROTOCOL_NATIVE;
    return {name, function, nullptr, protocols, userData};
}

template <size_t N>
std::vector<QKServerCommand *> Pointers(QKServerCommand (&records)[N]) {
    std::vector<QKServerCommand *> pointers;
    for (QKServerCommand &record : records) pointers.push_back(&record);
    return pointers;
}

// The status of a command that is done, or that must drop its connection.
inline const auto Done = [](bool ok) { return ok ? QK_COMMAND_DONE : QK_COMMAND_DROP; };

// A success with `text` as its output, and the NUL that ends a native one.
inline int Answer(QKClient *client, const std::string &text) {
    UInt nul = QKClientProtocol(client) == PROTOCOL_NATIVE;
    return Done(QKClientSuccess(client, 0) == QK_COMMAND_DONE &&
                QKClientWriteBuf(client, text.c_str(), (UInt)text.size() + nul));
}

// What QKServerNew takes besides the commands, with the tests' defaults.
struct ServerOptions {
    int http = 1, builtins = 1;
    QKAuthKey *key = nullptr;
    Int maxActive = 0, threadLinger = 30;
    QKServerRotateFunction onRotate = nullptr;
    QKServerExitFunction onExit = nullptr;
    QKServerCleanupFunction onCleanup = nullptr;
    void *userData = nullptr;
    FILE *log = nullptr;  // where the server's messages go, or nowhere
};

inline QKServer *NewServer(std::vector<QKServerCommand *> commands, ServerOptions o = {}) {
    commands.push_back(nullptr);
    return QKServerNew(o.http, o.builtins, commands.data(), o.onRotate, o.onExit, o.onCleanup,
                       o.userData, o.key, 60, 60, o.threadLinger, o.maxActive, 0);
}

// A server listening on 127.0.0.1 at a port of the system's choice, served
// by QKServerRun on a library thread until the object goes. Its progress
// messages go nowhere.
struct TestServer {
    QKServer *handle;
    UShort port = 0;
    ThreadHandle thread;

    explicit TestServer(std::vector<QKServerCommand *> commands, ServerOptions options = {})
        : handle(NewServer(std::move(commands), options)) {
        static FILE *sink = fopen("/dev/null", "w");
        QKSetMessageStream(0, options.log ? options.log : sink);
        TCPAddr addr;
        EXPECT_TRUE(handle && QKServerListen(handle, TCPAddrLocal(QK_FAMILY_IPV4, 0), 0) &&
                    QKServerGetAddr(handle, &addr))
            << QKErrorMessage();
        port = addr.port;
        thread = ThreadCreate([](void *s) { return (UInt)QKServerRun((QKServer *)s); }, handle, 0);
    }
    ~TestServer() {
        QKServerStop(handle);
        EXPECT_EQ(ThreadJoin(thread), 1u);
        QKServerDelete(handle);
    }
};

// A blocking client socket whose reads give up after 20 seconds.
struct RawClient {
    explicit RawClient(UShort port) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address = {AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
        EXPECT_EQ(connect(fd_, (sockaddr *)&address, sizeof address), 0) << strerror(errno);
    }
    ~RawClient() { close(fd_); }

    bool Send(const std::string &data) {
        return send(fd_, data.data(), data.size(), MSG_NOSIGNAL) == (ssize_t)data.size();
    }
    // Up to `count` bytes, up to and including `end`, or up to the end of
    // the stream or of the guard.
    std::string Read(size_t count = std::string::npos, int end = -1) {
        std::string text;
        pollfd p = {fd_, POLLIN, 0};
        UByte c = 0;
        while (text.size() < count && (text.empty() || c != end)) {
            if (poll(&p, 1, 20000) <= 0) ADD_FAILURE() << "no data from the server";
            if (!p.revents || recv(fd_, &c, 1, 0) != 1) break;
            text += (char)c;
        }
        return text;
    }
    std::string ReadThrough(int end = -1) { return Read(std::string::npos, end); }
    // True when the server closed the connection with nothing more to read.
    bool AtEnd() { return Read(1).empty(); }

    // An HTTP reply with a head: the head, then the body by its
    // Content-Length, by its chunks, or to the end of the stream.
    std::string ReadHttp() {
        std::string head, c;
        while (head.find("\r\n\r\n") == std::string::npos && !(c = Read(1)).empty()) head += c;
        size_t length = head.find("Content-Length: ");
        if (length != std::string::npos) return head + Read(std::stoul(head.substr(length + 16)));
        if (head.find("Transfer-Encoding: chunked\r\n") == std::string::npos) return head + Read();
        for (size_t n = 1; n > 0;) {
            std::string size = ReadThrough('\n');
            n = size.empty() ? 0 : std::stoul(size, nullptr, 16);
            head += size + Read(n + 2);
        }
        return head;
    }

    int fd_;
};

// The body of the reply to a GET on HTTP/1.0 with the `head` lines;
// nothing when the connection closed without a reply.
inline std::string Get(UShort port, const std::string &target, const std::string &head = "") {
    RawClient client(port);
    client.Send("GET " + target + " HTTP/1.0\r\n" + head + "\r\n");
    std::string reply = client.ReadThrough();
    return reply.empty() ? "" : reply.substr(reply.find("\r\n\r\n") + 4);
}

// True once `ready` is, polled every 10 milliseconds for at most `limit`.
template <typename Ready>
bool Eventually(Ready ready, int limit) {
    for (int waited = 0; waited < limit; waited += 10, usleep(10000))
        if (ready()) return true;
    return ready();
}

// A gate that commands wait at, so that a test can hold requests in
// progress: `arrived` is released once by each command that comes, and
// `open` counted down to let them all go on.
struct Gate {
    std::counting_semaphore<> arrived{0};
    std::latch open{1};
    void Pass() {
        arrived.release();
        open.wait();
    }
};
