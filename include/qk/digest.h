/*
 * Digests, certificates, public keys and compression.
 *
 * QKDigest computes MD5 by itself. The certificate and public-key functions are thin
 * wrappers of the TLS library's objects; they fail with the TLS library's
 * reason as a (5, 2) error. Compress runs whole buffers through zlib's
 * deflate and inflate, with a preset dictionary when one is set.
 */
#ifndef QK_DIGEST_H
#define QK_DIGEST_H

#include "qk/array.h"
#include "qk/types.h"

QK_BEGIN_DECLS

/* ---- MD5 ---- */

#define QK_DIGEST_SIZE 16

/* An MD5 computation as a plain record: it holds no other memory, so that a
 * copy of the record is a clone. `bits` counts the bits fed; once the result
 * is computed it is all ones until the next reset. */
typedef struct QKDigest {
    ULong bits;
    UInt state[4];
    UByte block[64];
    UByte result[QK_DIGEST_SIZE];
} QKDigest;

/* A digest, reset. */
QK_API QKDigest *QKDigestNew(void);
/* The MD5 start; the result bytes are zeroed. */
QK_API void QKDigestReset(QKDigest *digest);
QK_API void QKDigestUpdate(QKDigest *digest, const void *data, UInt size);
/* Pads and computes. The result stays in the object until the next reset;
 * feeding more bytes without a reset is an assertion. */
QK_API void QKDigestCompute(QKDigest *digest);
/* Result byte i, 0 <= i <= 15. */
QK_API UByte QKDigestGet(const QKDigest *digest, Int i);
/* A copy, with its state: both go on independently. */
QK_API QKDigest *QKDigestClone(const QKDigest *digest);
QK_API void QKDigestDelete(QKDigest *digest);
/* The size of the object, or 0 for none. */
QK_API UInt QKDigestGetMemorySize(const QKDigest *digest);

/* ---- Certificates and revocation lists ---- */

/* The size of a certificate's or list's fingerprint: its SHA-1 digest. */
#define QK_X509_FINGERPRINT_SIZE 20

typedef struct X509Certificate X509Certificate;
typedef struct X509CertificateRevocationList X509CertificateRevocationList;

/* Loads the first certificate of a PEM file. */
QK_API X509Certificate *X509CertificateLoad(const char *path);
/* The subject-name hash as 8 lower-case hexadecimal digits, in the object. */
QK_API const char *X509CertificateHash(X509Certificate *certificate);
/* The SHA-1 digest of the encoded certificate, QK_X509_FINGERPRINT_SIZE
 * bytes in the object. */
QK_API const UByte *X509CertificateFingerprint(X509Certificate *certificate);
QK_API void X509CertificateDelete(X509Certificate *certificate);

/* The same for a revocation list; the hash is that of its issuer's name. */
QK_API X509CertificateRevocationList *X509CertificateRevocationListLoad(const char *path);
QK_API const char *X509CertificateRevocationListHash(X509CertificateRevocationList *list);
QK_API const UByte *X509CertificateRevocationListFingerprint(X509CertificateRevocationList *list);
QK_API void X509CertificateRevocationListDelete(X509CertificateRevocationList *list);

/* ---- RSA keys ---- */

/* Digest kinds of signatures. */
enum { PUBLIC_DIGEST_SHA1 = 0, PUBLIC_DIGEST_RIPEMD160 = 1, PUBLIC_DIGEST_MD5 = 2 };

typedef struct PublicEncryptionKey PublicEncryptionKey;

/* A new RSA key pair of `bits` bits with the public exponent 65537. */
QK_API PublicEncryptionKey *PublicEncryptionKeyGenerate(UInt bits);
/* A key from PEM text: a private key (both halves) or a public key alone. */
QK_API PublicEncryptionKey *PublicEncryptionKeyFromBuffer(const char *text, UInt size);
/* Appends the key as PEM text, the private key with `withPrivate`, else the
 * public key; the text stays zero-terminated beyond its length. */
QK_API int PublicEncryptionKeyToBuffer(PublicEncryptionKey *key, int withPrivate, CharArray *text);
QK_API void PublicEncryptionKeyDelete(PublicEncryptionKey *key);
/* The size of the modulus in bytes: the size of an encrypted block. */
QK_API UInt PublicEncryptionKeySize(PublicEncryptionKey *key);

/* Encrypts in blocks of the key's size minus 42 bytes, appending one
 * key-sized block for each: with `usePublic` by the public key with OAEP
 * padding, else by the private key with PKCS#1 padding. */
QK_API int PublicEncryptBuffer(PublicEncryptionKey *key, int usePublic, const void *data, UInt size,
                               ByteArray *array);
/* The reverse, block by block: with `usePrivate` by the private key and
 * OAEP, else by the public key and PKCS#1. */
QK_API int PublicDecryptBuffer(PublicEncryptionKey *key, int usePrivate, const void *data,
                               UInt size, ByteArray *array);
/* Appends a PKCS#1 signature of the data's digest of the kind given. */
QK_API int PublicSignBuffer(PublicEncryptionKey *key, int digestKind, const void *data, UInt size,
                            ByteArray *array);
/* 1 when the signature matches; 0 when it does not, or on failure, which
 * alone sets the error state. */
QK_API int PublicVerifySignature(PublicEncryptionKey *key, int digestKind, const void *data,
                                 UInt size, const void *signature, UInt signatureSize);

/* ---- Compression ---- */

/* The level of an object that inflates. Levels 0 to 9 and -1 (zlib's
 * default) make an object that deflates. */
#define COMPRESS_INFLATE (-2)

typedef struct Compress Compress;

/* A compressor at `level`, or a decompressor with COMPRESS_INFLATE, with
 * an optional preset dictionary (none: size 0). */
QK_API Compress *CompressNew(Int level, const void *dictionary, UInt dictionarySize);
/* Sets the preset dictionary of the following buffers; size 0 removes it. */
QK_API void CompressSetDictionary(Compress *compress, const void *dictionary, UInt size);
/* Appends the zlib stream of the whole buffer. */
QK_API int CompressDeflate(Compress *compress, const void *data, UInt size, ByteArray *out);
/* Appends the bytes of the whole zlib stream in the buffer; a stream that
 * is cut short, damaged, followed by other bytes, or that needs another
 * dictionary is an error (3, 2), with nothing appended. */
QK_API int CompressInflate(Compress *compress, const void *data, UInt size, ByteArray *out);
QK_API void CompressDelete(Compress *compress);

QK_END_DECLS

#endif /* QK_DIGEST_H */
