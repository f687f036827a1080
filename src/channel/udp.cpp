// One-shot datagrams: a new socket per call, closed after the send.
#include <errno.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "frame/file_internal.h"
#include "qk/channel.h"
#include "qk/frame.h"

extern "C" {

QK_API int UDPSendBuf(TCPAddr addr, const void *buffer, UInt size) {
    if (addr.ip.family != QK_FAMILY_IPV4) {
        qk::SetSystemError(EAFNOSUPPORT);
        return 0;
    }
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        QKSetLastErrorFromErrno();
        return 0;
    }
    struct sockaddr_in address;
    memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_port = htons(addr.port);
    address.sin_addr.s_addr = htonl(addr.ip.u.addr4);
    ssize_t sent;
    do {
        sent = sendto(fd, buffer, size, MSG_NOSIGNAL,
                      reinterpret_cast<const struct sockaddr *>(&address), sizeof address);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0) {
        QKSetLastErrorFromErrno();
        qk::CloseKeepingError(fd);
        return 0;
    }
    close(fd);
    if ((size_t)sent != size) {
        // A datagram goes whole or not at all; a short count is a failure.
        qk::SetSystemError(EMSGSIZE);
        return 0;
    }
    return 1;
}

}  // extern "C"
