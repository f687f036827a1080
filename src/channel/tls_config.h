// TLS settings and the helpers that the TLS sources share (private).
#pragma once

#include <openssl/ssl.h>

#include "qk/channel.h"

// A TLS context with this side's certificate and key and the rules for the
// peer's certificate. It is shared by any number of channels and must
// outlive every channel that was given it: a channel refers to it until it
// is given other settings, and starts each session from it. (A live session
// holds its own reference on the context, so deleting the settings never
// pulls the ground from under a session that has already started.)
struct SSLConfig {
    SSL_CTX *context;
    int server;  // made for the server role
    int verify;  // the peer's certificate is checked against a CA file
};

namespace qk::tls {

// True once SSLInit has succeeded in this process.
bool Initialized();

// False, with (5, 2) "SSL error: library not initialized" thrown, when
// SSLInit has not succeeded yet.
bool RequireInitialized();

// Throws (5, 2) "SSL error: <what>: <reason>", or "SSL error: <what>" when
// `reason` is none or empty. Empties the TLS library's error queue.
void ThrowReason(const char *what, const char *reason);

// The oldest error of the thread's queue as text into `text` ("" when the
// queue is empty); the queue is emptied.
void TakeErrors(char *text, size_t size);

// A BIO over a connected socket descriptor that sends with MSG_NOSIGNAL, so
// that a peer that went away gives an error instead of SIGPIPE. The
// descriptor is not closed with the BIO. None on failure.
BIO *SocketBIONew(int fd);

}  // namespace qk::tls
