// The plain-socket side of a benchmark: one TCP connection over loopback,
// with Nagle's delay off on both ends as the library's channels have it,
// and whole reads and writes on it.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace qkbench {

inline void LoopbackPair(int *client, int *server) {
    int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address);
    listen(listener, 1);
    socklen_t length = sizeof address;
    getsockname(listener, reinterpret_cast<sockaddr *>(&address), &length);
    *client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    connect(*client, reinterpret_cast<sockaddr *>(&address), sizeof address);
    *server = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    close(listener);
    int one = 1;
    setsockopt(*client, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    setsockopt(*server, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

// The whole of `size` bytes, or false at the end of the stream or an error.
inline bool ReadAll(int fd, char *p, size_t size) {
    while (size > 0) {
        ssize_t n = read(fd, p, size);
        if (n <= 0) return false;
        p += n;
        size -= (size_t)n;
    }
    return true;
}

inline bool WriteAll(int fd, const char *p, size_t size) {
    while (size > 0) {
        ssize_t n = send(fd, p, size, MSG_NOSIGNAL);
        if (n <= 0) return false;
        p += n;
        size -= (size_t)n;
    }
    return true;
}

}  // namespace qkbench
