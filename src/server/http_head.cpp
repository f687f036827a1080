// The head of an HTTP request: header lines read byte by byte, each byte
// taken as a Latin-1 character and kept in UTF-8; at most 64 headers and
// 4096 bytes are stored for QKClientHeader, and the headers that the server
// itself uses are taken in as they come.
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "server/server_internal.h"

namespace qk::server {
namespace {

bool IsListSeparator(char c) {
    return c == ' ' || c == '\t' || c == ',';
}

// Calls `function(token, length)` for each item of a list separated by
// blanks and commas.
template <typename Function>
void ForEachToken(const char *list, Function function) {
    const char *p = list;
    while (*p) {
        while (*p && IsListSeparator(*p)) p++;
        const char *start = p;
        while (*p && !IsListSeparator(*p)) p++;
        if (p > start) function(start, (size_t)(p - start));
    }
}

bool TokenIs(const char *token, size_t length, const char *word) {
    return strlen(word) == length && strncasecmp(token, word, length) == 0;
}

// A case-insensitive search.
bool Contains(const char *text, const char *word) {
    size_t length = strlen(word);
    for (const char *p = text; *p; p++) {
        if (strncasecmp(p, word, length) == 0) return true;
    }
    return false;
}

// The version number that follows `marker` in `text`, or -1.
int VersionAfter(const char *text, const char *marker) {
    const char *found = strstr(text, marker);
    if (found == nullptr) return -1;
    return atoi(found + strlen(marker));
}

void TakeUserAgent(QKClient *client, const char *value) {
    size_t length = strlen(value);
    if (length < sizeof client->c_name) memcpy(client->c_name, value, length + 1);
    if (VersionAfter(value, "Mozilla/") >= 5) client->c_features |= 8 | 4 | 16;
    int msie = VersionAfter(value, "MSIE ");
    if (msie >= 3) client->c_features |= 8 | 4 | 1 | 2;
    if (msie >= 5) client->c_features |= 16;
}

void TakeHost(QKClient *client, const char *value) {
    const char *colon = value[0] == '[' ? strchr(value, ']') : value;
    colon = colon ? strchr(colon, ':') : nullptr;
    size_t length = colon ? (size_t)(colon - value) : strlen(value);
    if (length >= 263 || (colon == nullptr && length == 0)) return;
    memcpy(client->c_host, value, length);
    client->c_host[length] = '\0';
    client->c_port = colon ? (UInt)strtoul(colon + 1, NULL, 10) : 80;
}

void TakeConnection(QKClient *client, const char *value) {
    ForEachToken(value, [client](const char *token, size_t length) {
        if (TokenIs(token, length, "close")) client->c_keepAlive = 0;
        if (TokenIs(token, length, "keep-alive")) client->c_keepAlive = 1;
    });
}

// A decimal length, or -1 when malformed.
Int ParseLength(const char *value) {
    if (*value == '\0') return -1;
    Long length = 0;
    for (const char *p = value; *p; p++) {
        if (*p < '0' || *p > '9') return -1;
        length = length * 10 + (*p - '0');
        if (length > 0x7fffffff) return -1;
    }
    return (Int)length;
}

void TakeAuthorization(QKClient *client, const char *value) {
    if (strncasecmp(value, "basic", 5) != 0 || !IsBlank(value[5])) return;
    const char *credentials = value + 5;
    while (IsBlank(*credentials)) credentials++;
    size_t length = strlen(credentials);
    if (length >= sizeof client->c_authorizationText) return;
    memcpy(client->c_authorizationText, credentials, length + 1);
    client->c_authorization = client->c_authorizationText;
}

void TakeCookies(QKClient *client, const char *value) {
    size_t length = strlen(value);
    if (length >= sizeof client->c_cookiesText) return;
    memcpy(client->c_cookiesText, value, length + 1);
    client->c_cookies = client->c_cookiesText;
}

void TakeHeader(QKClient *client, const char *name, const char *value) {
    bool post = client->c_request == REQUEST_POST;
    if (strcasecmp(name, "user-agent") == 0) {
        TakeUserAgent(client, value);
    } else if (strcasecmp(name, "host") == 0) {
        TakeHost(client, value);
    } else if (strcasecmp(name, "connection") == 0) {
        TakeConnection(client, value);
    } else if (post && strcasecmp(name, "content-length") == 0) {
        client->c_requestLength = ParseLength(value);
    } else if (post && strcasecmp(name, "content-type") == 0) {
        if (!Contains(value, "x-www-form-urlencoded")) client->c_form = 0;
    } else if (post && strcasecmp(name, "expect") == 0) {
        ForEachToken(value, [client](const char *token, size_t length) {
            if (TokenIs(token, length, "100-continue")) client->c_expectContinue = 1;
        });
    } else if (strcasecmp(name, "authorization") == 0) {
        TakeAuthorization(client, value);
    } else if (strcasecmp(name, "cookie") == 0) {
        TakeCookies(client, value);
    }
}

// Stores a header when there is room; others are dropped.
void StoreHeader(QKClient *client, const char *name, size_t nameLength, const char *value,
                 size_t valueLength) {
    if (client->c_headerCount >= kMaxHeaders) return;
    if (client->c_headersUsed + nameLength + valueLength + 2 > kHeadersSize) return;
    char *store = client->c_headers + client->c_headersUsed;
    memcpy(store, name, nameLength + 1);
    memcpy(store + nameLength + 1, value, valueLength + 1);
    client->c_headerNames[client->c_headerCount] = store;
    client->c_headerValues[client->c_headerCount] = store + nameLength + 1;
    client->c_headerCount++;
    client->c_headersUsed += (UInt)(nameLength + valueLength + 2);
}

// A header line in c_work, `colon` the end of its name or -1.
void EndLine(QKClient *client, UInt length, Int colon) {
    if (colon <= 0) return;
    char *line = client->c_work;
    line[length] = '\0';
    line[colon] = '\0';
    char *value = line + colon + 1;
    while (IsBlank(*value)) value++;
    StoreHeader(client, line, (size_t)colon, value, strlen(value));
    TakeHeader(client, line, value);
}

}  // namespace

bool ReadHead(QKClient *client) {
    Channel *channel = client->c_channel;
    // CR LF CR LF ends the head; the request line's end counts in it.
    int state = client->c_lineEnd == '\r' ? 1 : 2;
    UInt length = 0;
    Int colon = -1;
    for (;;) {
        int byte = ChannelReadByte(channel);
        if (byte == -1) {
            EndLine(client, length, colon);
            return true;
        }
        if (byte < 0 || byte == 0) return false;
        if (byte == '\r' || byte == '\n') {
            if (byte == '\r') {
                state = state == 2 ? 3 : 1;
            } else {
                state = state == 1 ? 2 : state == 3 ? 4 : 0;
            }
            EndLine(client, length, colon);
            length = 0;
            colon = -1;
            if (state == 4) return true;
            continue;
        }
        state = 0;
        if (byte == ':' && colon < 0) colon = (Int)length;
        // Kept as UTF-8 of the Latin-1 character, as far as there is room.
        if (byte < 0x80) {
            if (length + 1 < kWorkSize) client->c_work[length++] = (char)byte;
        } else if (length + 2 < kWorkSize) {
            client->c_work[length++] = (char)(0xC0 | (byte >> 6));
            client->c_work[length++] = (char)(0x80 | (byte & 0x3F));
        }
    }
}

}  // namespace qk::server
