// TLS sessions on channels: the handshake in either role, and the reads and
// writes that the channel's primitives hand to a live session.
#include <arpa/inet.h>
#include <errno.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <string.h>

#include <trio.h>

#include "channel/tls_config.h"
#include "channel/tls_internal.h"
#include "qk/frame.h"
#include "qk/memory.h"

namespace {

// What a live session is taken to hold, for ChannelGetMemorySize: the
// session object with its keys and the peer's certificate (a round 8 KiB),
// and one record buffer of the largest size for each direction, which the
// library keeps for the life of the session.
constexpr size_t kSessionEstimate = 8192 + 2 * SSL3_RT_MAX_PACKET_SIZE;

SSL *Session(const Channel *channel) {
    return static_cast<SSL *>(channel->ssl);
}

bool IsAddressLiteral(const char *host) {
    unsigned char address[16];
    return inet_pton(AF_INET, host, address) == 1 || inet_pton(AF_INET6, host, address) == 1;
}

// Names the server a client expects: the name it asks for (SNI) and, when
// the certificate is verified, the name or address it must carry.
bool SetPeerName(SSL *ssl, const char *host, bool verify) {
    if (IsAddressLiteral(host)) {
        if (verify && X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl), host) != 1) {
            SSLErrorThrow("X509_VERIFY_PARAM_set1_ip_asc");
            return false;
        }
        return true;
    }
    if (SSL_set_tlsext_host_name(ssl, host) != 1) {
        SSLErrorThrow("SSL_set_tlsext_host_name");
        return false;
    }
    if (verify && SSL_set1_host(ssl, host) != 1) {
        SSLErrorThrow("SSL_set1_host");
        return false;
    }
    return true;
}

// Throws the failure of `what` on `ssl`, whose SSL_get_error was `error`
// with `systemError` in errno: the library's reason, with the verdict of the
// certificate check when it was made (`verified`) and failed, or the
// system's error when the library has no reason.
void ThrowSessionFailure(const char *what, SSL *ssl, bool verified, int error, int systemError) {
    char reason[512];
    qk::tls::TakeErrors(reason, sizeof reason);
    long verdict = verified ? SSL_get_verify_result(ssl) : X509_V_OK;
    if (verdict != X509_V_OK) {
        size_t length = strlen(reason);
        trio_snprintf(reason + length, sizeof reason - length, "%s(%s)", length ? " " : "",
                      X509_verify_cert_error_string(verdict));
    } else if (reason[0] == '\0' && error == SSL_ERROR_SYSCALL && systemError != 0) {
        char text[256];
        trio_snprintf(reason, sizeof reason, "%s", strerror_r(systemError, text, sizeof text));
    } else if (reason[0] == '\0' &&
               (error == SSL_ERROR_SYSCALL || error == SSL_ERROR_ZERO_RETURN)) {
        trio_snprintf(reason, sizeof reason, "connection closed by the peer");
    }
    qk::tls::ThrowReason(what, reason);
}

// Frees a session on an error path, leaving the error state as it is.
void FreeKeepingError(SSL *ssl) {
    int savedErrno = errno;
    int savedLastError = QKGetLastError();
    SSL_free(ssl);
    ERR_clear_error();
    QKSetLastError(savedLastError);
    errno = savedErrno;
}

}  // namespace

namespace qk::tls {

long Read(Channel *channel, void *buffer, size_t size) {
    SSL *ssl = Session(channel);
    // SSL_get_error reads the queue: an old entry would be taken for ours.
    ERR_clear_error();
    size_t done = 0;
    if (SSL_read_ex(ssl, buffer, size, &done) == 1) return (long)done;
    int error = SSL_get_error(ssl, 0);
    ERR_clear_error();
    switch (error) {
        case SSL_ERROR_ZERO_RETURN:
            return 0;
        case SSL_ERROR_WANT_READ:
            return kWantRead;
        case SSL_ERROR_WANT_WRITE:
            return kWantWrite;
        default:
            QKErrorThrow(QK_ERR_CONNECTION, QK_DOMAIN_GENERAL, "SSL_read() failed, error=%d",
                         error);
            return kFailed;
    }
}

long Write(Channel *channel, const void *buffer, size_t size) {
    SSL *ssl = Session(channel);
    ERR_clear_error();
    const int callerErrno = errno;
    errno = 0;  // so that a failure's errno is the transport's
    size_t done = 0;
    if (SSL_write_ex(ssl, buffer, size, &done) == 1) {
        errno = callerErrno;
        return (long)done;
    }
    int systemError = errno;
    int error = SSL_get_error(ssl, 0);
    switch (error) {
        case SSL_ERROR_WANT_READ:
            ERR_clear_error();
            return kWantRead;
        case SSL_ERROR_WANT_WRITE:
            ERR_clear_error();
            return kWantWrite;
        default:
            ThrowSessionFailure("SSL_write", ssl, false, error, systemError);
            return kFailed;
    }
}

bool Pending(const Channel *channel) {
    SSL *ssl = Session(channel);
    return ssl != nullptr && SSL_pending(ssl) > 0;
}

void End(Channel *channel, bool polite) {
    SSL *ssl = Session(channel);
    if (ssl == nullptr) return;
    channel->ssl = nullptr;
    int savedErrno = errno;
    int savedLastError = QKGetLastError();
    // One close alert, without waiting for the peer's answer; its failure
    // changes nothing, since the session goes anyway.
    if (polite) (void)SSL_shutdown(ssl);
    SSL_free(ssl);
    ERR_clear_error();
    QKSetLastError(savedLastError);
    errno = savedErrno;
}

size_t MemorySize(const Channel *channel) {
    return channel->ssl != nullptr ? kSessionEstimate : 0;
}

}  // namespace qk::tls

extern "C" {

QK_API void ChannelSetSSL(Channel *channel, SSLConfig *config) {
    channel->sslConfig = config;
}

// The channel keeps its own copy of the name; ChannelClose frees it.
QK_API void ChannelSetSSLHost(Channel *channel, const char *hostName) {
    UnAllocate(channel->sslExtra);
    channel->sslExtra = hostName != nullptr ? Strdup(hostName) : nullptr;
}

QK_API int ChannelStartSSL(Channel *channel, int server) {
    if (!qk::tls::RequireInitialized()) return 0;
    SSLConfig *config = channel->sslConfig;
    if (config == nullptr) {
        qk::tls::ThrowReason("no TLS settings on the channel", nullptr);
        return 0;
    }
    if (channel->fd < 0) {
        errno = EINVAL;
        return 0;
    }
    qk::tls::End(channel, false);
    ERR_clear_error();
    SSL *ssl = SSL_new(config->context);
    if (ssl == nullptr) {
        SSLErrorThrow("SSL_new");
        return 0;
    }
    BIO *bio = qk::tls::SocketBIONew(channel->fd);
    if (bio == nullptr) {
        SSLErrorThrow("BIO_new");
        SSL_free(ssl);
        return 0;
    }
    SSL_set_bio(ssl, bio, bio);
    const char *host = static_cast<const char *>(channel->sslExtra);
    if (!server && host != nullptr && host[0] != '\0' && !SetPeerName(ssl, host, config->verify)) {
        FreeKeepingError(ssl);
        return 0;
    }
    if (server) {
        SSL_set_accept_state(ssl);
    } else {
        SSL_set_connect_state(ssl);
    }
    const int callerErrno = errno;
    for (;;) {
        errno = 0;  // so that a failure's errno is the transport's
        int result = SSL_do_handshake(ssl);
        if (result == 1) {
            errno = callerErrno;
            break;
        }
        int systemError = errno;
        int error = SSL_get_error(ssl, result);
        if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) {
            ERR_clear_error();
            // On a non-blocking socket: wait as long as the channel's time-out
            // for that direction allows. A failed wait has set the error
            // ((2, 2) "timeout", or the system's).
            const bool forWrite = error == SSL_ERROR_WANT_WRITE;
            if (SocketWait(channel->fd, forWrite,
                           forWrite ? channel->writeTimeout : channel->readTimeout)) {
                continue;
            }
        } else {
            ThrowSessionFailure(server ? "SSL_accept" : "SSL_connect", ssl, config->verify, error,
                                systemError);
        }
        FreeKeepingError(ssl);
        return 0;
    }
    channel->ssl = ssl;
    return 1;
}

}  // extern "C"
