// The challenge handshake on a channel. The initiator sends "auth C1"; from
// the next byte on, both directions are obfuscated with K, the fingerprint
// of C1 followed by its response R1, which only holders of the key can
// compute. The accepting side answers "C1 R1 C2"; the initiator checks R1,
// answers a status byte and R2; the accepting side checks R2 and answers its
// own status byte.
#include <string.h>

#include "qk/fingerprint.h"
#include "server/server_internal.h"

namespace {

constexpr UInt kTokenSize = 64;  // challenges and responses are 32 characters

const char kInvalidResponse[] = "invalid response to the challenge sent";
const char kRefused[] = "the response has been refused";

void ThrowInvalid() {
    QKErrorThrow(1, 9, kInvalidResponse);
}

// One byte, or false with the error state set: a read failure passes as it
// is, and the end of the stream is an error of its own.
bool ReadByte(Channel *channel, int *byte) {
    *byte = ChannelReadByte(channel);
    if (*byte >= 0) return true;
    if (*byte == -1) QKErrorThrow(3, 2, "premature eof");
    return false;
}

// The bytes up to `delimiter`, which is consumed: false when the stream
// fails or the token grows too long for one.
bool ReadToken(Channel *channel, char delimiter, char *token, UInt *length) {
    for (*length = 0;;) {
        int byte;
        if (!ReadByte(channel, &byte)) return false;
        if (byte == delimiter) break;
        if (*length == kTokenSize) {
            QKErrorThrow(3, 2, "Authentication protocol error");
            return false;
        }
        token[(*length)++] = (char)byte;
    }
    token[*length] = '\0';
    return true;
}

// Computes R1 for C1 and turns obfuscation on with K.
bool StartObfuscation(Channel *channel, const QKAuthKey *key, const char *challenge, UInt length) {
    ByteArray response = {nullptr, 0, 0};
    if (!QKAuthKeyGetResponse(key, challenge, length, &response)) return false;
    ULong k = FingerprintExtend(Fingerprint(challenge, length), response.data, response.length);
    ArrayFree(response);
    ChannelSetObfuscationKey(channel, k);
    return true;
}

bool WriteResponse(Channel *channel, const QKAuthKey *key, const char *challenge, UInt length,
                   char after) {
    ByteArray response = {nullptr, 0, 0};
    bool ok = QKAuthKeyGetResponse(key, challenge, length, &response) &&
              ChannelWriteBuf(channel, response.data, response.length) &&
              ChannelWriteByte(channel, after);
    ArrayFree(response);
    return ok;
}

// Checks the peer's response to our challenge and writes the status byte:
// 0 when right; 1, flushed, and an error when wrong.
bool CheckAndAnswer(Channel *channel, const QKAuthKey *key, const char *challenge, UInt length,
                    const char *response, UInt responseLength) {
    if (!QKAuthKeyCheckResponse(key, challenge, length, response, responseLength)) {
        if (ChannelWriteByte(channel, 1)) ChannelFlush(channel);
        ThrowInvalid();
        return false;
    }
    return ChannelWriteByte(channel, 0) != 0;
}

// The status byte of the peer.
bool ReadAccepted(Channel *channel) {
    int byte;
    if (!ReadByte(channel, &byte)) return false;
    if (byte != 0) {
        QKErrorThrow(1, 9, kRefused);
        return false;
    }
    return true;
}

bool Initiate(Channel *channel, const QKAuthKey *key) {
    ByteArray c1 = {nullptr, 0, 0};
    bool ok = QKAuthKeyCreateChallenge(key, &c1) && ChannelWriteString(channel, "auth ") &&
              ChannelWriteBuf(channel, c1.data, c1.length) && ChannelWriteByte(channel, '\n') &&
              ChannelFlush(channel) && StartObfuscation(channel, key, (char *)c1.data, c1.length);
    // C1 comes back first, then a blank.
    for (UInt i = 0; ok && i <= c1.length; i++) {
        int byte;
        ok = ReadByte(channel, &byte);
        int expected = i < c1.length ? c1.data[i] : ' ';
        if (ok && byte != expected) {
            ThrowInvalid();
            ok = false;
        }
    }
    char r1[kTokenSize + 1], c2[kTokenSize + 1];
    UInt r1Length, c2Length;
    ok = ok && ReadToken(channel, ' ', r1, &r1Length) &&
         CheckAndAnswer(channel, key, (char *)c1.data, c1.length, r1, r1Length) &&
         ReadToken(channel, '\n', c2, &c2Length) &&
         WriteResponse(channel, key, c2, c2Length, '\n') && ChannelFlush(channel) &&
         ReadAccepted(channel);
    ArrayFree(c1);
    return ok;
}

bool Accept(Channel *channel, const QKAuthKey *key, const char *c1, UInt c1Length) {
    if (!StartObfuscation(channel, key, c1, c1Length)) return false;
    ByteArray c2 = {nullptr, 0, 0};
    bool ok = QKAuthKeyCreateChallenge(key, &c2) && ChannelWriteBuf(channel, c1, c1Length) &&
              ChannelWriteByte(channel, ' ') && WriteResponse(channel, key, c1, c1Length, ' ') &&
              ChannelWriteBuf(channel, c2.data, c2.length) && ChannelWriteByte(channel, '\n') &&
              ChannelFlush(channel) && ReadAccepted(channel);
    char r2[kTokenSize + 1];
    UInt r2Length;
    // The last status byte stays in the buffer: the caller's commit sends it.
    ok = ok && ReadToken(channel, '\n', r2, &r2Length) &&
         CheckAndAnswer(channel, key, (char *)c2.data, c2.length, r2, r2Length);
    ArrayFree(c2);
    return ok;
}

}  // namespace

extern "C" {

QK_API int ChannelAuthenticate(Channel *channel, const QKAuthKey *key, int initiator,
                               const char *challenge, UInt challengeLength) {
    if (!ChannelConnected(channel)) {
        QKErrorThrow(0, 2, "the channel is not connected");
        return 0;
    }
    const QKAuthKey *resolved = qk::server::ResolveKey(key);
    if (resolved == nullptr) {
        QKErrorThrow(1, 2, "no authentication key");
        return 0;
    }
    if (initiator) return Initiate(channel, resolved) ? 1 : 0;
    return Accept(channel, resolved, challenge, challengeLength) ? 1 : 0;
}

}  // extern "C"
