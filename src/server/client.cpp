// The client object's accessors and setters, the connection's environment
// of named values, the request path, and the log line of a request.
#include <string.h>
#include <strings.h>

#include "server/server_internal.h"

using namespace qk::server;

namespace {

const char *VersionText(UInt protocol) {
    if (protocol == PROTOCOL_HTTP10) return " HTTP/1.0";
    if (protocol == PROTOCOL_HTTP11) return " HTTP/1.1";
    return "";
}

bool HasArgs(const QKClient *client) {
    return client->c_commandArgs != nullptr;
}

// The offset of the pair named `name` in the environment, or -1.
Long FindEnv(const QKClient *client, const char *name) {
    const char *data = reinterpret_cast<const char *>(client->c_env.data);
    UInt offset = 0;
    while (offset < client->c_env.length) {
        const char *pairName = data + offset;
        const char *value = pairName + strlen(pairName) + 1;
        if (strcmp(pairName, name) == 0) return offset;
        offset = (UInt)(value + strlen(value) + 1 - data);
    }
    return -1;
}

}  // namespace

extern "C" {

QK_API QKServer *QKClientServer(QKClient *client) {
    return client->c_server;
}

QK_API const char *QKClientName(QKClient *client) {
    return client->c_name[0] ? client->c_name : nullptr;
}

QK_API UInt QKClientProtocol(QKClient *client) {
    return client->c_protocol;
}

QK_API UInt QKClientRequest(QKClient *client) {
    return client->c_request;
}

QK_API Channel *QKClientChannel(QKClient *client) {
    return client->c_channel;
}

QK_API const char *QKClientCommand(QKClient *client) {
    return client->c_command;
}

QK_API const char *QKClientAuthorization(QKClient *client) {
    return client->c_authorization;
}

QK_API const char *QKClientCookies(QKClient *client) {
    return client->c_cookies;
}

QK_API UInt QKClientGetFormat(QKClient *client) {
    return client->c_format;
}

QK_API int QKClientAuthenticated(QKClient *client) {
    return client->c_authenticated;
}

QK_API UInt QKClientNumber(QKClient *client) {
    return client->c_number;
}

QK_API UInt QKClientHeaderNum(QKClient *client) {
    return client->c_headerCount;
}

QK_API void QKClientSetContentLength(QKClient *client, Int length) {
    client->c_contentLength = length;
}

QK_API void QKClientSetFormat(QKClient *client, UInt format) {
    qkassert(format <= QK_FORMAT_OWN);
    client->c_format = format;
}

QK_API void QKClientSetEncoding(QKClient *client, UInt encoding) {
    client->c_encoding = encoding;
}

QK_API void QKClientSetExpirationDelay(QKClient *client, Int seconds) {
    client->c_expiration = seconds;
}

QK_API void QKClientSetKeepAlive(QKClient *client, int keepAlive) {
    client->c_keepAlive = keepAlive != 0;
}

QK_API int QKClientFeature(QKClient *client, UInt mask) {
    return (client->c_features & mask) != 0;
}

QK_API int QKClientHost(QKClient *client, const char **host, UInt *port) {
    if (client->c_port == 0) return 0;
    if (host) *host = client->c_host;
    if (port) *port = client->c_port;
    return 1;
}

QK_API const char *QKClientHeader(QKClient *client, const char *name) {
    for (UInt i = 0; i < client->c_headerCount; i++) {
        if (strcasecmp(client->c_headerNames[i], name) == 0) return client->c_headerValues[i];
    }
    return nullptr;
}

QK_API const char *QKClientHeaderName(QKClient *client, UInt index) {
    return index < client->c_headerCount ? client->c_headerNames[index] : nullptr;
}

QK_API const char *QKClientHeaderValue(QKClient *client, UInt index) {
    return index < client->c_headerCount ? client->c_headerValues[index] : nullptr;
}

QK_API void QKClientSetEnvString(QKClient *client, const char *name, const char *value) {
    Long offset = FindEnv(client, name);
    if (offset >= 0) {
        UByte *pair = client->c_env.data + offset;
        size_t nameSize = strlen(name) + 1;
        size_t size = nameSize + strlen((const char *)pair + nameSize) + 1;
        memmove(pair, pair + size, client->c_env.length - offset - size);
        client->c_env.length -= (UInt)size;
    }
    if (value) {
        ArrayAppend(client->c_env, (const UByte *)name, strlen(name) + 1);
        ArrayAppend(client->c_env, (const UByte *)value, strlen(value) + 1);
    }
}

QK_API const char *QKClientGetEnvString(QKClient *client, const char *name) {
    Long offset = FindEnv(client, name);
    if (offset < 0) return nullptr;
    const char *pair = reinterpret_cast<const char *>(client->c_env.data) + offset;
    return pair + strlen(pair) + 1;
}

QK_API void QKClientGetPath(QKClient *client, ByteArray *array) {
    ArrayClear(*array);
    ArrayAppend(*array, (const UByte *)client->c_command, strlen(client->c_command));
    if (HasArgs(client)) {
        char separator = client->c_protocol == PROTOCOL_NATIVE ? ' ' : client->c_query ? '?' : '/';
        ArrayAdd(*array, (UByte)separator);
        ArrayAppend(*array, (const UByte *)client->c_commandArgs, strlen(client->c_commandArgs));
    }
    ArrayAdd(*array, 0);
}

QK_API void QKClientLog(QKClient *client) {
    UInt number = client->c_number;
    const char *command = client->c_command;
    const char *version = VersionText(client->c_protocol);
    if (client->c_protocol == PROTOCOL_NATIVE) {
        if (HasArgs(client)) {
            QKMessage(2, "%u: %s %s", number, command, client->c_commandArgs);
        } else {
            QKMessage(2, "%u: %s", number, command);
        }
    } else if (client->c_request == REQUEST_POST) {
        QKMessage(2, "%u: POST %s%s", number, command, version);
    } else if (HasArgs(client)) {
        QKMessage(2, "%u: GET %s%c%s%s", number, command, client->c_query ? '?' : '/',
                  client->c_commandArgs, version);
    } else {
        QKMessage(2, "%u: GET %s%s", number, command, version);
    }
}

}  // extern "C"
