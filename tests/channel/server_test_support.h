// Helpers of the server, local socket and TLS tests: addresses, raw client
// sockets, lines through channels, and the error state in one line.
#pragma once

#include <dirent.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>

#include "qk/qkcommon.h"

namespace qktest {

inline TCPAddr Loopback(UShort port) {
    TCPAddr addr = {};
    addr.ip.family = QK_FAMILY_IPV4;
    addr.ip.u.addr4 = 0x7f000001;
    addr.port = port;
    return addr;
}

inline TCPAddr LocalName(const char *name, UShort port) {
    TCPAddr addr = {};
    addr.ip.family = QK_FAMILY_LOCAL;
    strncpy(addr.ip.u.name, name, sizeof addr.ip.u.name - 1);
    addr.port = port;
    return addr;
}

inline UShort PortOf(TCPServer *server) {
    TCPAddr addr = {};
    EXPECT_EQ(TCPServerGetAddr(server, &addr), 1);
    return addr.port;
}

// A blocking client of 127.0.0.1:port, or with `path` of a local socket;
// -1 when the connection fails.
inline int RawConnect(UShort port, const std::string &path = "") {
    struct sockaddr_in inet = {};
    inet.sin_family = AF_INET;
    inet.sin_port = htons(port);
    inet.sin_addr.s_addr = htonl(0x7f000001);
    struct sockaddr_un local = {};
    local.sun_family = AF_UNIX;
    strncpy(local.sun_path, path.c_str(), sizeof local.sun_path - 1);
    const bool isLocal = !path.empty();
    int fd = socket(isLocal ? AF_UNIX : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const auto *address = isLocal ? reinterpret_cast<const sockaddr *>(&local)
                                  : reinterpret_cast<const sockaddr *>(&inet);
    if (connect(fd, address, isLocal ? sizeof local : sizeof inet) == 0) return fd;
    close(fd);
    return -1;
}

inline bool SendAll(int fd, const std::string &data) {
    return send(fd, data.data(), data.size(), MSG_NOSIGNAL) == (ssize_t)data.size();
}

// Reads until `size` bytes came or the stream ended.
inline std::string Receive(int fd, size_t size) {
    std::string data(size, '\0');
    size_t done = 0;
    for (ssize_t n; done < size && (n = recv(fd, &data[done], size - done, 0)) > 0;) done += n;
    data.resize(done);
    return data;
}

inline int OpenDescriptors() {
    int count = 0;
    DIR *directory = opendir("/proc/self/fd");
    while (directory != nullptr && readdir(directory) != nullptr) count++;
    if (directory != nullptr) closedir(directory);
    return count;
}

// "code,domain: message" of the thread's error state.
inline std::string ErrorText() {
    ULong code = QKErrorCode();
    return std::to_string((UInt)code) + "," + std::to_string((UInt)(code >> 32)) + ": " +
           QKErrorMessage();
}

// One line from a channel; false at end of file or on failure, with what
// came in `line`.
inline bool ReadLine(Channel *channel, std::string *line) {
    ByteArray array = {};
    int ok = ChannelReadLine(channel, &array, 0);
    line->assign(reinterpret_cast<const char *>(array.data), array.length);
    ArrayFree(array);
    return ok == 1;
}

inline bool WriteLine(Channel *channel, const std::string &line) {
    return ChannelWriteBuf(channel, line.data(), (UInt)line.size()) == 1 &&
           ChannelWriteByte(channel, '\n') == 1 && ChannelFlush(channel) == 1;
}

}  // namespace qktest
