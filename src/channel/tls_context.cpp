// The TLS library's start, its errors in the frame's error state, and the
// settings (contexts) that channels start their sessions from.
#include <errno.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <atomic>

#include <trio.h>

#include "channel/tls_config.h"
#include "qk/frame.h"
#include "qk/memory.h"

namespace {

std::atomic<bool> ready{false};

// Starts the library once per process; later calls give the first result.
bool StartOnce() {
    static const bool started = [] {
        bool ok = OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS,
                                   nullptr) == 1;
        ready.store(ok, std::memory_order_release);
        return ok;
    }();
    return started;
}

// Throws `format` with `path`, as the `what` of a TLS error, with the reason
// from the queue.
void ThrowForFile(const char *format, const char *path) {
    char what[512];
    trio_snprintf(what, sizeof what, format, path);
    SSLErrorThrow(what);
}

// Loads this side's certificate chain and key into `context`; false with
// the error thrown.
bool LoadIdentity(SSL_CTX *context, const char *certificateFile, const char *keyFile) {
    if (SSL_CTX_use_certificate_chain_file(context, certificateFile) != 1) {
        ThrowForFile("cannot load certificate \"%s\"", certificateFile);
        return false;
    }
    if (SSL_CTX_use_PrivateKey_file(context, keyFile, SSL_FILETYPE_PEM) != 1) {
        ThrowForFile("cannot load private key \"%s\"", keyFile);
        return false;
    }
    if (SSL_CTX_check_private_key(context) != 1) {
        ThrowForFile("private key \"%s\" does not match the certificate", keyFile);
        return false;
    }
    return true;
}

// Trusts the certificates of `caFile` for the peer's certificate and
// requires one: a server then asks its clients for a certificate too.
bool LoadTrust(SSL_CTX *context, const char *caFile, bool server) {
    if (SSL_CTX_load_verify_locations(context, caFile, nullptr) != 1) {
        ThrowForFile("cannot load CA file \"%s\"", caFile);
        return false;
    }
    if (server) {
        STACK_OF(X509_NAME) *names = SSL_load_client_CA_file(caFile);
        if (names != nullptr) SSL_CTX_set_client_CA_list(context, names);
        SSL_CTX_set_verify(context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    } else {
        SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
    }
    return true;
}

}  // namespace

namespace qk::tls {

bool Initialized() {
    return ready.load(std::memory_order_acquire);
}

bool RequireInitialized() {
    if (Initialized()) return true;
    ThrowReason("library not initialized", nullptr);
    return false;
}

void TakeErrors(char *text, size_t size) {
    unsigned long error = ERR_get_error();
    text[0] = '\0';
    if (error != 0) ERR_error_string_n(error, text, size);
    ERR_clear_error();
}

void ThrowReason(const char *what, const char *reason) {
    ERR_clear_error();
    if (reason != nullptr && reason[0] != '\0') {
        QKErrorThrow(QK_ERR_CONNECTION, QK_DOMAIN_GENERAL, "SSL error: %s: %s", what, reason);
    } else {
        QKErrorThrow(QK_ERR_CONNECTION, QK_DOMAIN_GENERAL, "SSL error: %s", what);
    }
}

}  // namespace qk::tls

extern "C" {

QK_API int SSLInit(void) {
    if (StartOnce()) return 1;
    SSLErrorThrow("OPENSSL_init_ssl");
    return 0;
}

// The library keeps its per-thread state by itself; a thread only needs the
// library started. The thread's error state is left as it was.
QK_API void SSLThreadInit(void) {
    if (qk::tls::Initialized()) return;
    int savedErrno = errno;
    int savedLastError = QKGetLastError();
    StartOnce();
    QKSetLastError(savedLastError);
    errno = savedErrno;
}

QK_API void SSLErrorThrow(const char *what) {
    char reason[256];
    qk::tls::TakeErrors(reason, sizeof reason);
    qk::tls::ThrowReason(what != nullptr ? what : "", reason);
}

QK_API SSLConfig *SSLConfigNew(int server, const char *certificateFile, const char *keyFile,
                               const char *caFile) {
    if (!qk::tls::RequireInitialized()) return nullptr;
    if (server && (certificateFile == nullptr || keyFile == nullptr)) {
        qk::tls::ThrowReason("a server needs a certificate and a key", nullptr);
        return nullptr;
    }
    if (certificateFile == nullptr && keyFile != nullptr) {
        qk::tls::ThrowReason("a private key needs its certificate", nullptr);
        return nullptr;
    }
    ERR_clear_error();  // what is in the queue now is not ours
    SSL_CTX *context = SSL_CTX_new(server ? TLS_server_method() : TLS_client_method());
    if (context == nullptr) {
        SSLErrorThrow("SSL_CTX_new");
        return nullptr;
    }
    SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
    // A peer that closes the connection without the close alert ends the
    // stream like a plain socket does. Channels retry writes with what is
    // left of the buffer, from wherever it stands.
    SSL_CTX_set_options(context, SSL_OP_IGNORE_UNEXPECTED_EOF | SSL_OP_NO_RENEGOTIATION);
    SSL_CTX_set_mode(context, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    if (server) {
        static const unsigned char kSessionContext[] = "qkcommon";
        SSL_CTX_set_session_id_context(context, kSessionContext, sizeof kSessionContext - 1);
    }
    bool ok = (certificateFile == nullptr || LoadIdentity(context, certificateFile, keyFile)) &&
              (caFile == nullptr || LoadTrust(context, caFile, server));
    if (!ok) {
        SSL_CTX_free(context);
        return nullptr;
    }
    if (caFile == nullptr) SSL_CTX_set_verify(context, SSL_VERIFY_NONE, nullptr);
    SSLConfig *config = AllocateZero(SSLConfig);
    config->context = context;
    config->server = server ? 1 : 0;
    config->verify = caFile != nullptr ? 1 : 0;
    return config;
}

QK_API void SSLConfigDelete(SSLConfig *config) {
    if (config == nullptr) return;
    SSL_CTX_free(config->context);
    UnAllocate(config);
}

}  // extern "C"
