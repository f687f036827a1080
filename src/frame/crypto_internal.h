// Helpers shared by the digest, certificate and public-key files, over the
// TLS library's EVP interface.
#pragma once

#include <openssl/evp.h>

#include "qk/channel.h"
#include "qk/digest.h"
#include "qk/frame.h"

// An RSA key: the key pair, or the public half alone.
struct PublicEncryptionKey {
    EVP_PKEY *pkey;
};

namespace qk::crypto {

// Throws through SSLErrorThrow: (5, 2) with the oldest error of the TLS
// library's queue for the thread, or with `operation` alone when the queue
// is empty, and empties the queue. Returns 0, so that callers can return
// its value.
int ThrowError(const char *operation);

// Ends the process when an operation that cannot fail with valid
// arguments failed anyway.
void Check(int ok, const char *operation);

}  // namespace qk::crypto
