// QKDigest: MD5 over the record's own fields (RFC 1321), with no object of
// the TLS library behind it.
#include <string.h>

#include "frame/endian.h"
#include "qk/digest.h"
#include "qk/frame.h"
#include "qk/memory.h"

namespace {

// The count of a computed digest: a count of bytes fed is a multiple of 8.
constexpr ULong kComputed = ~(ULong)0;

constexpr UInt kShift[64] = {7, 12, 17, 22, 7, 12, 17, 22, 7, 12, 17, 22, 7, 12, 17, 22,
                             5, 9,  14, 20, 5, 9,  14, 20, 5, 9,  14, 20, 5, 9,  14, 20,
                             4, 11, 16, 23, 4, 11, 16, 23, 4, 11, 16, 23, 4, 11, 16, 23,
                             6, 10, 15, 21, 6, 10, 15, 21, 6, 10, 15, 21, 6, 10, 15, 21};

// floor(abs(sin(i + 1)) * 2^32).
constexpr UInt kSine[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};

inline UInt RotateLeft(UInt x, UInt n) {
    return (x << n) | (x >> (32 - n));
}

// One 64-byte block into the state.
void Transform(UInt state[4], const UByte *block) {
    UInt m[16];
    for (int i = 0; i < 16; i++) m[i] = qk::LoadLE32(block + 4 * i);
    UInt a = state[0], b = state[1], c = state[2], d = state[3];
    for (int i = 0; i < 64; i++) {
        UInt f;
        int g;
        if (i < 16) {
            f = (b & c) | (~b & d);
            g = i;
        } else if (i < 32) {
            f = (d & b) | (~d & c);
            g = (5 * i + 1) & 15;
        } else if (i < 48) {
            f = b ^ c ^ d;
            g = (3 * i + 5) & 15;
        } else {
            f = c ^ (b | ~d);
            g = (7 * i) & 15;
        }
        UInt next = d;
        d = c;
        c = b;
        b += RotateLeft(a + f + kSine[i] + m[g], kShift[i]);
        a = next;
    }
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
}

}  // namespace

QKDigest *QKDigestNew(void) {
    QKDigest *digest = AllocateZero(QKDigest);
    QKDigestReset(digest);
    return digest;
}

void QKDigestReset(QKDigest *digest) {
    digest->bits = 0;
    digest->state[0] = 0x67452301;
    digest->state[1] = 0xefcdab89;
    digest->state[2] = 0x98badcfe;
    digest->state[3] = 0x10325476;
    memset(digest->block, 0, sizeof digest->block);
    memset(digest->result, 0, sizeof digest->result);
}

void QKDigestUpdate(QKDigest *digest, const void *data, UInt size) {
    qkassert(digest->bits != kComputed && "a computed digest is reset before it is fed");
    const UByte *p = static_cast<const UByte *>(data);
    UInt held = (UInt)(digest->bits >> 3) & 63;
    digest->bits += (ULong)size << 3;
    if (held) {
        UInt take = 64 - held < size ? 64 - held : size;
        memcpy(digest->block + held, p, take);
        p += take;
        size -= take;
        if (held + take < 64) return;
        Transform(digest->state, digest->block);
    }
    for (; size >= 64; p += 64, size -= 64) Transform(digest->state, p);
    if (size) memcpy(digest->block, p, size);
}

void QKDigestCompute(QKDigest *digest) {
    if (digest->bits == kComputed) return;  // the result stands
    ULong bits = digest->bits;
    UInt held = (UInt)(bits >> 3) & 63;
    digest->block[held++] = 0x80;
    if (held > 56) {
        memset(digest->block + held, 0, 64 - held);
        Transform(digest->state, digest->block);
        held = 0;
    }
    memset(digest->block + held, 0, 56 - held);
    qk::StoreLE(digest->block + 56, bits, 8);
    Transform(digest->state, digest->block);
    for (int i = 0; i < 4; i++) qk::StoreLE(digest->result + 4 * i, digest->state[i], 4);
    digest->bits = kComputed;
}

UByte QKDigestGet(const QKDigest *digest, Int i) {
    qkassert(0 <= i && i <= 15);
    return digest->result[i];
}

QKDigest *QKDigestClone(const QKDigest *digest) {
    QKDigest *copy = AllocateZero(QKDigest);
    *copy = *digest;
    return copy;
}

void QKDigestDelete(QKDigest *digest) {
    UnAllocate(digest);
}

UInt QKDigestGetMemorySize(const QKDigest *digest) {
    return digest ? (UInt)sizeof(QKDigest) : 0;
}
