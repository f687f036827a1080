// RSA keys: generation, and their PEM text in both directions.
#include <openssl/core_names.h>
#include <openssl/decoder.h>
#include <openssl/pem.h>
#include <string.h>

#include "frame/crypto_internal.h"
#include "qk/memory.h"

namespace {

using qk::crypto::ThrowError;

PublicEncryptionKey *Wrap(EVP_PKEY *pkey) {
    PublicEncryptionKey *key = AllocateZero(PublicEncryptionKey);
    key->pkey = pkey;
    return key;
}

}  // namespace

PublicEncryptionKey *PublicEncryptionKeyGenerate(UInt bits) {
    SSLThreadInit();
    EVP_PKEY_CTX *context = EVP_PKEY_CTX_new_from_name(NULL, "RSA", NULL);
    if (!context) {
        ThrowError("EVP_PKEY_CTX_new_from_name()");
        return NULL;
    }
    unsigned int modulusBits = bits;
    unsigned long exponent = 65537;
    OSSL_PARAM parameters[] = {
        OSSL_PARAM_construct_uint(OSSL_PKEY_PARAM_RSA_BITS, &modulusBits),
        OSSL_PARAM_construct_ulong(OSSL_PKEY_PARAM_RSA_E, &exponent),
        OSSL_PARAM_construct_end(),
    };
    EVP_PKEY *pkey = NULL;
    if (EVP_PKEY_keygen_init(context) <= 0 || EVP_PKEY_CTX_set_params(context, parameters) <= 0 ||
        EVP_PKEY_generate(context, &pkey) <= 0) {
        ThrowError("EVP_PKEY_generate()");
        EVP_PKEY_CTX_free(context);
        return NULL;
    }
    EVP_PKEY_CTX_free(context);
    return Wrap(pkey);
}

PublicEncryptionKey *PublicEncryptionKeyFromBuffer(const char *text, UInt size) {
    SSLThreadInit();
    EVP_PKEY *pkey = NULL;
    // Any PEM form of an RSA key: private, or the public half alone.
    OSSL_DECODER_CTX *decoder =
        OSSL_DECODER_CTX_new_for_pkey(&pkey, "PEM", NULL, "RSA", 0, NULL, NULL);
    if (!decoder) {
        ThrowError("OSSL_DECODER_CTX_new_for_pkey()");
        return NULL;
    }
    const auto *data = reinterpret_cast<const unsigned char *>(text);
    size_t left = size;
    int ok = OSSL_DECODER_from_data(decoder, &data, &left);
    OSSL_DECODER_CTX_free(decoder);
    if (!ok || !pkey) {
        EVP_PKEY_free(pkey);
        ThrowError("OSSL_DECODER_from_data()");
        return NULL;
    }
    return Wrap(pkey);
}

int PublicEncryptionKeyToBuffer(PublicEncryptionKey *key, int withPrivate, CharArray *text) {
    SSLThreadInit();
    BIO *memory = BIO_new(BIO_s_mem());
    if (!memory) return ThrowError("BIO_new()");
    int ok = withPrivate ? PEM_write_bio_PrivateKey(memory, key->pkey, NULL, NULL, 0, NULL, NULL)
                         : PEM_write_bio_PUBKEY(memory, key->pkey);
    if (!ok) {
        BIO_free(memory);
        return ThrowError(withPrivate ? "PEM_write_bio_PrivateKey()" : "PEM_write_bio_PUBKEY()");
    }
    char *pem = NULL;
    long size = BIO_get_mem_data(memory, &pem);
    ArrayEnsure(*text, text->length + (UInt)size + 1);
    ArrayAppend(*text, pem, (UInt)size);
    text->data[text->length] = '\0';
    BIO_free(memory);
    return 1;
}

void PublicEncryptionKeyDelete(PublicEncryptionKey *key) {
    if (!key) return;
    EVP_PKEY_free(key->pkey);
    UnAllocate(key);
}

UInt PublicEncryptionKeySize(PublicEncryptionKey *key) {
    return (UInt)EVP_PKEY_get_size(key->pkey);
}
