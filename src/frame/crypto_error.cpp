// Errors of the TLS library turned into the frame's error state.
#include <openssl/err.h>

#include "frame/crypto_internal.h"

namespace qk::crypto {

namespace {

// The oldest error of the queue as text, or "" when it is empty; the queue
// is emptied either way.
void TakeErrors(char *text, size_t size) {
    unsigned long error = ERR_get_error();
    text[0] = '\0';
    if (error != 0) ERR_error_string_n(error, text, size);
    ERR_clear_error();
}

}  // namespace

int ThrowError(const char *operation) {
    SSLErrorThrow(operation);
    return 0;
}

void Check(int ok, const char *operation) {
    if (ok == 1) return;
    char reason[256];
    TakeErrors(reason, sizeof reason);
    QKFatal("%s failed: %s", operation, reason);
}

}  // namespace qk::crypto
