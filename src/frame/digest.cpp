// QKDigest: MD5 through the TLS library's digest interface.
#include <string.h>

#include "frame/crypto_internal.h"
#include "qk/memory.h"

struct QKDigest {
    EVP_MD_CTX *context;
    bool computed;  // the result stands; feeding more needs a reset
    UByte result[QK_DIGEST_SIZE];
};

namespace {

using qk::crypto::Check;

// MD5, fetched once for the process.
const EVP_MD *MD5() {
    static EVP_MD *md = [] {
        EVP_MD *fetched = EVP_MD_fetch(NULL, "MD5", NULL);
        if (!fetched) Check(0, "EVP_MD_fetch(MD5)");
        return fetched;
    }();
    return md;
}

}  // namespace

QKDigest *QKDigestNew(void) {
    QKDigest *digest = AllocateZero(QKDigest);
    digest->context = EVP_MD_CTX_new();
    if (!digest->context) Check(0, "EVP_MD_CTX_new()");
    QKDigestReset(digest);
    return digest;
}

void QKDigestReset(QKDigest *digest) {
    Check(EVP_DigestInit_ex(digest->context, MD5(), NULL), "EVP_DigestInit_ex()");
    digest->computed = false;
    memset(digest->result, 0, sizeof digest->result);
}

void QKDigestUpdate(QKDigest *digest, const void *data, UInt size) {
    qkassert(!digest->computed);
    if (size == 0) return;
    Check(EVP_DigestUpdate(digest->context, data, size), "EVP_DigestUpdate()");
}

void QKDigestCompute(QKDigest *digest) {
    if (digest->computed) return;
    unsigned int size = 0;
    Check(EVP_DigestFinal_ex(digest->context, digest->result, &size), "EVP_DigestFinal_ex()");
    qkassert(size == QK_DIGEST_SIZE);
    digest->computed = true;
}

UByte QKDigestGet(const QKDigest *digest, Int i) {
    qkassert(0 <= i && i <= 15);
    return digest->result[i];
}

QKDigest *QKDigestClone(const QKDigest *digest) {
    QKDigest *copy = AllocateZero(QKDigest);
    copy->context = EVP_MD_CTX_new();
    if (!copy->context) Check(0, "EVP_MD_CTX_new()");
    // A finished context holds nothing worth copying: start the copy afresh
    // and carry the result over.
    if (digest->computed) {
        Check(EVP_DigestInit_ex(copy->context, MD5(), NULL), "EVP_DigestInit_ex()");
    } else {
        Check(EVP_MD_CTX_copy_ex(copy->context, digest->context), "EVP_MD_CTX_copy_ex()");
    }
    copy->computed = digest->computed;
    memcpy(copy->result, digest->result, sizeof copy->result);
    return copy;
}

void QKDigestDelete(QKDigest *digest) {
    if (!digest) return;
    EVP_MD_CTX_free(digest->context);
    UnAllocate(digest);
}

UInt QKDigestGetMemorySize(const QKDigest *digest) {
    return digest ? (UInt)sizeof(QKDigest) : 0;
}
