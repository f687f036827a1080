// The arguments of an HTTP request: name and value pairs read character by
// character from the query or the path behind the command's name, with
// percent escapes, '+' for a blank in a query, and UTF-8 or Latin-1 by what
// the arguments turned out to be.
#include <string.h>

#include "server/server_internal.h"

namespace qk::server {
namespace {

// Character codes of the reader besides characters.
constexpr int kEnd = -1;
constexpr int kBadSequence = -2;
constexpr int kSeparator = -3;

int HexValue(int c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// One byte of the arguments at *p, with '%' escapes and '+' undone; moves
// *p behind it. `escaped` tells that it came from an escape.
int DecodeByte(const UByte **p, bool query, bool *escaped) {
    const UByte *s = *p;
    *escaped = false;
    if (s[0] == '%') {
        int high = HexValue(s[1]);
        int low = high >= 0 ? HexValue(s[2]) : -1;
        if (low >= 0) {
            *p = s + 3;
            *escaped = true;
            int value = high * 16 + low;
            return value == 0 ? ' ' : value;
        }
    }
    *p = s + 1;
    if (s[0] == '+' && query) return ' ';
    return s[0];
}

// The number of continuation bytes of a UTF-8 lead byte: 0 for a single
// byte, -1 for a byte that cannot start a character here.
int Continuations(int lead) {
    if (lead < 0x80) return 0;
    if ((lead & 0xE0) == 0xC0) return 1;
    if ((lead & 0xF0) == 0xE0) return 2;
    return -1;
}

// Joins a UTF-8 sequence: the character, or -1 for a malformed one
// (overlong forms included).
int JoinUTF8(const int *bytes, int count) {
    if (count == 0) return bytes[0];
    int value = bytes[0] & (count == 1 ? 0x1F : 0x0F);
    for (int i = 1; i <= count; i++) {
        if ((bytes[i] & 0xC0) != 0x80) return -1;
        value = (value << 6) | (bytes[i] & 0x3F);
    }
    if ((count == 1 && value < 0x80) || (count == 2 && value < 0x800)) return -1;
    return value;
}

// Reads the next character of the arguments.
int NextChar(QKClient *client, bool *escaped) {
    const UByte *p = reinterpret_cast<const UByte *>(client->c_args);
    *escaped = false;
    if (*p == '\0') return kEnd;
    if (*p == '&' || *p == '/' || *p == '?') {
        while (*p == '&' || *p == '/' || *p == '?') {
            if (*p == '?') client->c_query = 1;
            p++;
        }
        client->c_args = (char *)p;
        return kSeparator;
    }
    int bytes[3];
    bytes[0] = DecodeByte(&p, client->c_query, escaped);
    int result = bytes[0];
    if (client->c_argEncoding == QK_ENCODING_UTF8) {
        int count = Continuations(bytes[0]);
        bool ok = count >= 0;
        for (int i = 1; ok && i <= count; i++) {
            bool ignored;
            if (*p == '\0') {
                ok = false;
            } else {
                bytes[i] = DecodeByte(&p, client->c_query, &ignored);
            }
        }
        result = ok ? JoinUTF8(bytes, count) : -1;
        if (result < 0) result = kBadSequence;
    }
    client->c_args = (char *)p;
    return result;
}

void Advance(QKClient *client) {
    bool escaped;
    client->c_lookahead = NextChar(client, &escaped);
    client->c_lookaheadEscaped = escaped;
}

// Appends a character to c_work in UTF-8: false when it does not fit.
bool PutWork(QKClient *client, int c) {
    UInt n = c < 0x80 ? 1 : c < 0x800 ? 2 : 3;
    if (client->c_workLength + n + 1 > kWorkSize) return false;
    char *out = client->c_work + client->c_workLength;
    if (n == 1) {
        out[0] = (char)c;
    } else if (n == 2) {
        out[0] = (char)(0xC0 | (c >> 6));
        out[1] = (char)(0x80 | (c & 0x3F));
    } else {
        out[0] = (char)(0xE0 | (c >> 12));
        out[1] = (char)(0x80 | ((c >> 6) & 0x3F));
        out[2] = (char)(0x80 | (c & 0x3F));
    }
    client->c_workLength += n;
    return true;
}

bool EndWork(QKClient *client) {
    if (client->c_workLength + 1 > kWorkSize) return false;
    client->c_work[client->c_workLength++] = '\0';
    return true;
}

// True when the arguments, with their escapes undone, are well-formed
// UTF-8.
bool IsUTF8(QKClient *client) {
    const UByte *p = reinterpret_cast<const UByte *>(client->c_args);
    UInt length = 0;
    while (*p && length < kWorkSize) {
        bool escaped;
        client->c_work[length++] = (char)DecodeByte(&p, false, &escaped);
    }
    const UByte *s = reinterpret_cast<const UByte *>(client->c_work);
    for (UInt i = 0; i < length;) {
        int count = Continuations(s[i]);
        if (count < 0 || (count > 0 && i + (UInt)count >= length)) return false;
        int bytes[3] = {s[i], 0, 0};
        for (int k = 1; k <= count; k++) bytes[k] = s[i + k];
        if (JoinUTF8(bytes, count) < 0) return false;
        i += (UInt)count + 1;
    }
    return true;
}

}  // namespace

void HttpArgsStart(QKClient *client) {
    client->c_argEncoding = IsUTF8(client) ? QK_ENCODING_UTF8 : QK_ENCODING_LATIN1;
    Advance(client);
}

}  // namespace qk::server

using namespace qk::server;

extern "C" {

QK_API int QKClientScriptArg(QKClient *client, const char **name, const char **value) {
    qkassert(client->c_protocol != PROTOCOL_NATIVE);
    while (client->c_lookahead == ' ') Advance(client);
    if (client->c_lookahead == kEnd || client->c_lookahead == kBadSequence) return 0;
    client->c_workLength = 0;
    while (client->c_lookahead >= 0 &&
           !(client->c_lookahead == '=' && !client->c_lookaheadEscaped)) {
        if (!PutWork(client, client->c_lookahead)) return 0;
        Advance(client);
    }
    if (client->c_lookahead == kBadSequence || client->c_workLength == 0) return 0;
    if (!EndWork(client)) return 0;
    UInt valueStart = client->c_workLength;
    if (client->c_lookahead == '=') {
        Advance(client);
        while (client->c_lookahead >= 0) {
            if (!PutWork(client, client->c_lookahead)) return 0;
            Advance(client);
        }
        if (client->c_lookahead == kBadSequence) return 0;
    }
    if (!EndWork(client)) return 0;
    if (client->c_lookahead == kSeparator) Advance(client);
    if (name) *name = client->c_work;
    if (value) *value = client->c_work + valueStart;
    return 1;
}

}  // extern "C"
