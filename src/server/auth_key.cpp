// Authentication keys: opaque bytes, the process key behind the pointer
// value 1, and the challenge and response of the handshake. A response is
// the MD5 of the key's bytes followed by the challenge text, in lower-case
// hexadecimal; the digests come from a pool, so that the handshake
// allocates nothing in the steady state.
#include <openssl/crypto.h>
#include <openssl/rand.h>
#include <string.h>

#include "qk/digest.h"
#include "qk/memory.h"
#include "server/server_internal.h"

struct QKAuthKey {
    UInt length;
    UByte bytes[1];  // `length` bytes
};

namespace {

constexpr UInt kChallengeBytes = 16;
constexpr UInt kHexLength = 32;
constexpr UInt kGeneratedKeyBytes = 128;

Mutex processKeyLock = MUTEX_INITIALIZER;
QKAuthKey *processKey = nullptr;

struct Scratch {
    QKDigest *digest;
    ByteArray text;
};

void ScratchPoolCB(int operation, void *item, void *) {
    auto *scratch = static_cast<Scratch *>(item);
    switch (operation) {
        case POOL_NEW:
            scratch->digest = QKDigestNew();
            ArrayInit(scratch->text);
            break;
        case POOL_REUSE:
            QKDigestReset(scratch->digest);
            break;
        case POOL_DELETE:
            QKDigestDelete(scratch->digest);
            ArrayFree(scratch->text);
            break;
        default:
            break;
    }
}

Pool bufPool = POOL_INITIALIZER(ScratchPoolCB);

QKAuthKey *NewKey(UInt length) {
    auto *key = static_cast<QKAuthKey *>(Allocate(offsetof(QKAuthKey, bytes) + length + 1, NULL));
    key->length = length;
    return key;
}

bool RandomBytes(UByte *buffer, UInt size) {
    if (RAND_bytes(buffer, (int)size) != 1) {
        SSLErrorThrow("RAND_bytes");
        return false;
    }
    return true;
}

void AppendHex(ByteArray *array, const UByte *bytes, UInt count) {
    static const char kHex[] = "0123456789abcdef";
    ArrayEnsure(*array, array->length + 2 * count + 1);
    for (UInt i = 0; i < count; i++) {
        array->data[array->length++] = (UByte)kHex[bytes[i] >> 4];
        array->data[array->length++] = (UByte)kHex[bytes[i] & 15];
    }
    array->data[array->length] = 0;  // kept beyond the length
}

// The response to `challenge` under `key`, as 32 characters into `out`.
void ComputeResponse(const QKAuthKey *key, const char *challenge, UInt length, char *out) {
    Scratch *scratch = PoolAcquire(bufPool, NULL, Scratch, -1);
    QKDigest *digest = scratch->digest;
    QKDigestUpdate(digest, key->bytes, key->length);
    QKDigestUpdate(digest, challenge, length);
    QKDigestCompute(digest);
    UByte result[QK_DIGEST_SIZE];
    for (Int i = 0; i < QK_DIGEST_SIZE; i++) result[i] = QKDigestGet(digest, i);
    ArrayClear(scratch->text);
    AppendHex(&scratch->text, result, QK_DIGEST_SIZE);
    memcpy(out, scratch->text.data, kHexLength);
    QKDigestReset(digest);
    PoolRelease(bufPool, scratch, NULL);
}

const QKAuthKey *RequireKey(const QKAuthKey *key) {
    const QKAuthKey *resolved = qk::server::ResolveKey(key);
    if (resolved == nullptr) QKErrorThrow(1, 2, "no authentication key");
    return resolved;
}

}  // namespace

namespace qk::server {

const QKAuthKey *ResolveKey(const QKAuthKey *key) {
    return key == QK_AUTH_PROCESS_KEY ? QKAuthGetProcessKey() : key;
}

}  // namespace qk::server

extern "C" {

QK_API QKAuthKey *QKAuthGetProcessKey(void) {
    MutexLock(&processKeyLock);
    QKAuthKey *key = processKey;
    MutexUnlock(&processKeyLock);
    return key;
}

QK_API void QKAuthSetProcessKey(QKAuthKey *key) {
    MutexLock(&processKeyLock);
    QKAuthKey *old = processKey;
    processKey = key == QK_AUTH_PROCESS_KEY ? old : key;
    MutexUnlock(&processKeyLock);
    if (old != processKey) QKAuthKeyDelete(old);
}

QK_API QKAuthKey *QKAuthKeyGenerate(void) {
    QKAuthKey *key = NewKey(kGeneratedKeyBytes);
    if (!RandomBytes(key->bytes, kGeneratedKeyBytes)) {
        UnAllocate(key);
        return nullptr;
    }
    return key;
}

QK_API void QKAuthKeyDelete(QKAuthKey *key) {
    if (key == QK_AUTH_PROCESS_KEY || key == nullptr) return;
    OPENSSL_cleanse(key->bytes, key->length);
    UnAllocate(key);
}

QK_API QKAuthKey *QKAuthKeyDuplicate(const QKAuthKey *key) {
    if (key == QK_AUTH_PROCESS_KEY) return QK_AUTH_PROCESS_KEY;
    if (key == nullptr) return nullptr;
    return QKAuthKeyFromBuffer(key->bytes, key->length);
}

QK_API int QKAuthKeyEqual(const QKAuthKey *a, const QKAuthKey *b) {
    a = qk::server::ResolveKey(a);
    b = qk::server::ResolveKey(b);
    if (a == nullptr || b == nullptr) return a == b;
    return a->length == b->length && memcmp(a->bytes, b->bytes, a->length) == 0;
}

QK_API QKAuthKey *QKAuthKeyFromBuffer(const void *buffer, UInt length) {
    QKAuthKey *key = NewKey(length);
    if (length) memcpy(key->bytes, buffer, length);
    return key;
}

QK_API int QKAuthKeyToBuffer(const QKAuthKey *key, ByteArray *array) {
    const QKAuthKey *resolved = RequireKey(key);
    if (resolved == nullptr) return 0;
    ArrayAppend(*array, resolved->bytes, resolved->length);
    return 1;
}

QK_API int QKAuthKeyCreateChallenge(const QKAuthKey *, ByteArray *array) {
    UByte bytes[kChallengeBytes];
    if (!RandomBytes(bytes, kChallengeBytes)) return 0;
    AppendHex(array, bytes, kChallengeBytes);
    return 1;
}

QK_API int QKAuthKeyGetResponse(const QKAuthKey *key, const char *challenge, UInt length,
                                ByteArray *array) {
    const QKAuthKey *resolved = RequireKey(key);
    if (resolved == nullptr) return 0;
    char response[kHexLength];
    ComputeResponse(resolved, challenge, length, response);
    ArrayEnsure(*array, array->length + kHexLength + 1);
    memcpy(array->data + array->length, response, kHexLength);
    array->length += kHexLength;
    array->data[array->length] = 0;
    return 1;
}

QK_API int QKAuthKeyCheckResponse(const QKAuthKey *key, const char *challenge, UInt length,
                                  const char *response, UInt responseLength) {
    if (responseLength != kHexLength) return 0;
    const QKAuthKey *resolved = RequireKey(key);
    if (resolved == nullptr) return 0;
    char expected[kHexLength];
    ComputeResponse(resolved, challenge, length, expected);
    return CRYPTO_memcmp(expected, response, kHexLength) == 0;
}

}  // extern "C"
