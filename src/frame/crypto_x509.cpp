// Certificates and revocation lists read from PEM files, with their name
// hashes and SHA-1 fingerprints.
#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <trio.h>

#include "frame/crypto_internal.h"
#include "qk/memory.h"

struct X509Certificate {
    X509 *x509;
    char hash[9];
    UByte fingerprint[QK_X509_FINGERPRINT_SIZE];
};

struct X509CertificateRevocationList {
    X509_CRL *crl;
    char hash[9];
    UByte fingerprint[QK_X509_FINGERPRINT_SIZE];
};

namespace {

using qk::crypto::ThrowError;

// The PEM file at `path` opened for reading, or none with the error thrown.
BIO *OpenFile(const char *path) {
    BIO *file = BIO_new_file(path, "r");
    if (!file) ThrowError("BIO_new_file()");
    return file;
}

const EVP_MD *SHA1() {
    static EVP_MD *md = EVP_MD_fetch(NULL, "SHA1", NULL);
    return md;
}

// The hash of a name, as the TLS library names its certificate files, in
// `text`; none with the error thrown.
const char *NameHash(const X509_NAME *name, char (&text)[9]) {
    int ok = 0;
    unsigned long hash = X509_NAME_hash_ex(name, NULL, NULL, &ok);
    if (!ok) {
        ThrowError("X509_NAME_hash_ex()");
        return NULL;
    }
    trio_snprintf(text, sizeof text, "%08lx", hash & 0xffffffffUL);
    return text;
}

}  // namespace

X509Certificate *X509CertificateLoad(const char *path) {
    SSLThreadInit();
    BIO *file = OpenFile(path);
    if (!file) return NULL;
    X509 *x509 = PEM_read_bio_X509(file, NULL, NULL, NULL);
    BIO_free(file);
    if (!x509) {
        ThrowError("PEM_read_bio_X509()");
        return NULL;
    }
    X509Certificate *certificate = AllocateZero(X509Certificate);
    certificate->x509 = x509;
    return certificate;
}

const char *X509CertificateHash(X509Certificate *certificate) {
    SSLThreadInit();
    return NameHash(X509_get_subject_name(certificate->x509), certificate->hash);
}

const UByte *X509CertificateFingerprint(X509Certificate *certificate) {
    SSLThreadInit();
    unsigned int size = 0;
    if (!SHA1() || !X509_digest(certificate->x509, SHA1(), certificate->fingerprint, &size) ||
        size != QK_X509_FINGERPRINT_SIZE) {
        ThrowError("X509_digest()");
        return NULL;
    }
    return certificate->fingerprint;
}

void X509CertificateDelete(X509Certificate *certificate) {
    if (!certificate) return;
    X509_free(certificate->x509);
    UnAllocate(certificate);
}

X509CertificateRevocationList *X509CertificateRevocationListLoad(const char *path) {
    SSLThreadInit();
    BIO *file = OpenFile(path);
    if (!file) return NULL;
    X509_CRL *crl = PEM_read_bio_X509_CRL(file, NULL, NULL, NULL);
    BIO_free(file);
    if (!crl) {
        ThrowError("PEM_read_bio_X509_CRL()");
        return NULL;
    }
    X509CertificateRevocationList *list = AllocateZero(X509CertificateRevocationList);
    list->crl = crl;
    return list;
}

const char *X509CertificateRevocationListHash(X509CertificateRevocationList *list) {
    SSLThreadInit();
    return NameHash(X509_CRL_get_issuer(list->crl), list->hash);
}

const UByte *X509CertificateRevocationListFingerprint(X509CertificateRevocationList *list) {
    SSLThreadInit();
    unsigned int size = 0;
    if (!SHA1() || !X509_CRL_digest(list->crl, SHA1(), list->fingerprint, &size) ||
        size != QK_X509_FINGERPRINT_SIZE) {
        ThrowError("X509_CRL_digest()");
        return NULL;
    }
    return list->fingerprint;
}

void X509CertificateRevocationListDelete(X509CertificateRevocationList *list) {
    if (!list) return;
    X509_CRL_free(list->crl);
    UnAllocate(list);
}
