// Encryption, decryption and signatures with RSA keys. Buffers longer than
// one block are cut in blocks, each encrypted on its own.
#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/rsa.h>

#include "frame/crypto_internal.h"

#ifndef FALSE
#define FALSE 0
#endif

namespace {

using qk::crypto::ThrowError;

// What a block goes through. The private key "encrypts" by signing the
// raw block with PKCS#1 type 1 padding and the public key takes it back by
// recovering it; OAEP runs the other way round.
enum class Operation { EncryptPublic, EncryptPrivate, DecryptPrivate, DecryptPublic };

// The room OAEP padding with SHA-1 takes in a block.
constexpr UInt kOaepOverhead = 42;

int Init(EVP_PKEY_CTX *context, Operation operation) {
    int ok = 0;
    switch (operation) {
        case Operation::EncryptPublic:
            ok = EVP_PKEY_encrypt_init(context);
            break;
        case Operation::EncryptPrivate:
            ok = EVP_PKEY_sign_init(context);
            break;
        case Operation::DecryptPrivate:
            ok = EVP_PKEY_decrypt_init(context);
            break;
        case Operation::DecryptPublic:
            ok = EVP_PKEY_verify_recover_init(context);
            break;
    }
    if (ok <= 0) return 0;
    bool oaep = operation == Operation::EncryptPublic || operation == Operation::DecryptPrivate;
    return EVP_PKEY_CTX_set_rsa_padding(context,
                                        oaep ? RSA_PKCS1_OAEP_PADDING : RSA_PKCS1_PADDING) > 0;
}

const char *const kRunNames[] = {"EVP_PKEY_encrypt()", "EVP_PKEY_sign()", "EVP_PKEY_decrypt()",
                                 "EVP_PKEY_verify_recover()"};

int Run(EVP_PKEY_CTX *context, Operation operation, UByte *out, size_t *outSize, const UByte *in,
        size_t inSize) {
    switch (operation) {
        case Operation::EncryptPublic:
            return EVP_PKEY_encrypt(context, out, outSize, in, inSize);
        case Operation::EncryptPrivate:
            return EVP_PKEY_sign(context, out, outSize, in, inSize);
        case Operation::DecryptPrivate:
            return EVP_PKEY_decrypt(context, out, outSize, in, inSize);
        case Operation::DecryptPublic:
            return EVP_PKEY_verify_recover(context, out, outSize, in, inSize);
    }
    return 0;
}

// Appends the result of `operation` on each block of `size` bytes of data
// (the last block maybe shorter); on failure appends nothing.
int Blocks(PublicEncryptionKey *key, Operation operation, const void *data, UInt size,
           UInt blockSize, ByteArray *array) {
    EVP_PKEY_CTX *context = EVP_PKEY_CTX_new_from_pkey(NULL, key->pkey, NULL);
    if (!context) return ThrowError("EVP_PKEY_CTX_new_from_pkey()");
    if (!Init(context, operation)) {
        EVP_PKEY_CTX_free(context);
        return ThrowError("EVP_PKEY_CTX_set_rsa_padding()");
    }
    const UInt keySize = (UInt)EVP_PKEY_get_size(key->pkey);
    const UInt start = array->length;
    const auto *p = static_cast<const UByte *>(data);
    for (UInt at = 0; at < size; at += blockSize) {
        UInt length = size - at < blockSize ? size - at : blockSize;
        ArrayEnsure(*array, array->length + keySize);
        size_t outSize = keySize;
        if (Run(context, operation, array->data + array->length, &outSize, p + at, length) <= 0) {
            array->length = start;
            EVP_PKEY_CTX_free(context);
            return ThrowError(kRunNames[(int)operation]);
        }
        array->length += (UInt)outSize;
    }
    EVP_PKEY_CTX_free(context);
    return 1;
}

// The name of a signature's digest, from the TLS library's type numbers:
// 0 SHA-1, 1 RIPEMD-160, 2 MD5.
const char *DigestName(int digestKind) {
    int type = 0;
    switch (digestKind) {
        case PUBLIC_DIGEST_SHA1:
            type = NID_sha1;
            break;
        case PUBLIC_DIGEST_RIPEMD160:
            type = NID_ripemd160;
            break;
        case PUBLIC_DIGEST_MD5:
            type = NID_md5;
            break;
        default:
            qkassert(FALSE);
    }
    return OBJ_nid2sn(type);
}

}  // namespace

int PublicEncryptBuffer(PublicEncryptionKey *key, int usePublic, const void *data, UInt size,
                        ByteArray *array) {
    SSLThreadInit();
    UInt keySize = (UInt)EVP_PKEY_get_size(key->pkey);
    if (keySize <= kOaepOverhead) return ThrowError("key too small");
    return Blocks(key, usePublic ? Operation::EncryptPublic : Operation::EncryptPrivate, data, size,
                  keySize - kOaepOverhead, array);
}

int PublicDecryptBuffer(PublicEncryptionKey *key, int usePrivate, const void *data, UInt size,
                        ByteArray *array) {
    SSLThreadInit();
    UInt keySize = (UInt)EVP_PKEY_get_size(key->pkey);
    if (keySize == 0 || size % keySize != 0) {
        QKErrorThrow(QK_ERR_INVALID, QK_DOMAIN_GENERAL, "bad argument(s)");
        return 0;
    }
    return Blocks(key, usePrivate ? Operation::DecryptPrivate : Operation::DecryptPublic, data,
                  size, keySize, array);
}

int PublicSignBuffer(PublicEncryptionKey *key, int digestKind, const void *data, UInt size,
                     ByteArray *array) {
    SSLThreadInit();
    const char *digest = DigestName(digestKind);
    EVP_MD_CTX *context = EVP_MD_CTX_new();
    if (!context) return ThrowError("EVP_MD_CTX_new()");
    size_t signatureSize = 0;
    const auto *p = static_cast<const unsigned char *>(data);
    int ok = EVP_DigestSignInit_ex(context, NULL, digest, NULL, NULL, key->pkey, NULL) > 0 &&
             EVP_DigestSign(context, NULL, &signatureSize, p, size) > 0;
    if (ok) {
        ArrayEnsure(*array, array->length + (UInt)signatureSize);
        ok = EVP_DigestSign(context, array->data + array->length, &signatureSize, p, size) > 0;
    }
    EVP_MD_CTX_free(context);
    if (!ok) return ThrowError("EVP_DigestSign()");
    array->length += (UInt)signatureSize;
    return 1;
}

int PublicVerifySignature(PublicEncryptionKey *key, int digestKind, const void *data, UInt size,
                          const void *signature, UInt signatureSize) {
    SSLThreadInit();
    const char *digest = DigestName(digestKind);
    EVP_MD_CTX *context = EVP_MD_CTX_new();
    if (!context) return ThrowError("EVP_MD_CTX_new()");
    int result = EVP_DigestVerifyInit_ex(context, NULL, digest, NULL, NULL, key->pkey, NULL);
    if (result > 0) {
        result = EVP_DigestVerify(context, static_cast<const unsigned char *>(signature),
                                  signatureSize, static_cast<const unsigned char *>(data), size);
    } else {
        result = -1;
    }
    EVP_MD_CTX_free(context);
    if (result < 0) return ThrowError("EVP_DigestVerify()");
    if (result == 0) ERR_clear_error();  // a mismatch is an answer, not a failure
    return result == 1;
}
