// The socket transport under TLS sessions. The TLS library's own socket
// transport writes with write(2), which raises SIGPIPE when the peer has
// gone; this one sends with MSG_NOSIGNAL, as the channel's plain path does,
// and otherwise behaves the same: would-block and EINTR ask for a retry,
// and a read of 0 bytes marks the end of the stream.
#include <errno.h>
#include <stdint.h>
#include <sys/socket.h>

#include "channel/tls_config.h"

namespace {

int Descriptor(BIO *bio) {
    return (int)(intptr_t)BIO_get_data(bio);
}

bool Retryable(int error) {
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

int SocketWrite(BIO *bio, const char *data, size_t size, size_t *written) {
    BIO_clear_retry_flags(bio);
    ssize_t n = send(Descriptor(bio), data, size, MSG_NOSIGNAL);
    if (n >= 0) {
        *written = (size_t)n;
        return 1;
    }
    if (Retryable(errno)) BIO_set_retry_write(bio);
    return 0;
}

int SocketRead(BIO *bio, char *data, size_t size, size_t *received) {
    BIO_clear_retry_flags(bio);
    ssize_t n = recv(Descriptor(bio), data, size, 0);
    if (n > 0) {
        *received = (size_t)n;
        return 1;
    }
    if (n == 0) {
        BIO_set_flags(bio, BIO_FLAGS_IN_EOF);
    } else if (Retryable(errno)) {
        BIO_set_retry_read(bio);
    }
    return 0;
}

long SocketControl(BIO *bio, int command, long, void *pointer) {
    switch (command) {
        case BIO_C_GET_FD:
            if (pointer != nullptr) *static_cast<int *>(pointer) = Descriptor(bio);
            return Descriptor(bio);
        case BIO_CTRL_EOF:
            return BIO_test_flags(bio, BIO_FLAGS_IN_EOF) != 0;
        case BIO_CTRL_GET_CLOSE:
            return BIO_NOCLOSE;
        case BIO_CTRL_SET_CLOSE:
        case BIO_CTRL_FLUSH:
        case BIO_CTRL_DUP:
            return 1;
        default:
            return 0;
    }
}

const BIO_METHOD *Method() {
    static BIO_METHOD *method = [] {
        BIO_METHOD *m = BIO_meth_new(
            BIO_get_new_index() | BIO_TYPE_SOURCE_SINK | BIO_TYPE_DESCRIPTOR, "qk socket");
        if (m != nullptr &&
            (!BIO_meth_set_write_ex(m, SocketWrite) || !BIO_meth_set_read_ex(m, SocketRead) ||
             !BIO_meth_set_ctrl(m, SocketControl))) {
            BIO_meth_free(m);
            m = nullptr;
        }
        return m;
    }();
    return method;
}

}  // namespace

namespace qk::tls {

BIO *SocketBIONew(int fd) {
    const BIO_METHOD *method = Method();
    if (method == nullptr) return nullptr;
    BIO *bio = BIO_new(method);
    if (bio == nullptr) return nullptr;
    BIO_set_data(bio, (void *)(intptr_t)fd);
    BIO_set_init(bio, 1);
    return bio;
}

}  // namespace qk::tls
