/*
 * Fingerprint: the 64-bit fingerprint of a string of bytes.
 *
 * The value is stored on disk and sent on the wire, so it is the same on
 * every host whatever its byte order or the alignment of the bytes. It is a
 * polynomial remainder over GF(2) with the generating constant
 * 0xf48fc4ebab65b981; every result is even, and
 * FingerprintExtend(Fingerprint(a), b) equals Fingerprint of a followed by b.
 */
#ifndef QK_FINGERPRINT_H
#define QK_FINGERPRINT_H

#include "qk/types.h"

QK_BEGIN_DECLS

/* The generating constant. */
#define FINGERPRINT_POLYNOMIAL 0xf48fc4ebab65b981ULL
/* The fingerprint of no bytes, where Fingerprint starts. */
#define FINGERPRINT_EMPTY 0x8000000000000000ULL

/* Makes the tables ready. The tables are compiled into the library, so this
 * has nothing left to do; QKLibInit calls it, and it is safe at any time. */
QK_API void FingerprintInit(void);
QK_API ULong Fingerprint(const void *data, UInt size);
/* Continues `value` over `size` more bytes. */
QK_API ULong FingerprintExtend(ULong value, const void *data, UInt size);

QK_END_DECLS

#endif /* QK_FINGERPRINT_H */
