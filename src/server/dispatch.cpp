// Dispatching a request line: an HTTP method word leads to the HTTP path;
// anything else is a native command, looked up in the server's table and
// then among the builtins.
#include <string.h>

#include "server/server_internal.h"

namespace qk::server {
namespace {

struct Method {
    const char *name;
    UInt length;
    UInt request;  // 0: a method that is not supported
};

const Method kMethods[] = {
    {"GET", 3, REQUEST_GET},
    {"HEAD", 4, REQUEST_HEAD},
    {"POST", 4, REQUEST_POST},
    {"OPTIONS", 7, REQUEST_OPTIONS},
    {"PUT", 3, 0},
    {"DELETE", 6, 0},
    {"TRACE", 5, 0},
};

// The method that is the first word of the line, or none.
const Method *FindMethod(const char *line) {
    for (const Method &method : kMethods) {
        char next = line[method.length];
        if ((next == '\0' || IsBlank(next)) && memcmp(line, method.name, method.length) == 0)
            return &method;
    }
    return nullptr;
}

// Cuts the native command word of `nameLength` bytes off its arguments.
void SetNativeArgs(QKClient *client, UInt nameLength) {
    char *end = client->c_line + nameLength;
    if (*end != '\0') {
        *end = '\0';
        client->c_commandArgs = end + 1;
    } else {
        client->c_commandArgs = nullptr;
    }
    char *args = client->c_commandArgs ? client->c_commandArgs : end;
    while (IsBlank(*args)) args++;
    client->c_args = args;
}

// After a native command: commits unless the status is a drop. Above 0 the
// connection goes on.
int Finish(QKClient *client, int status, bool survivesExit) {
    if (status != QK_COMMAND_DROP && !QKClientCommit(client)) status = QK_COMMAND_DROP;
    if (status == QK_COMMAND_DROP) return 0;
    if (survivesExit) return 1;
    return QKServerExiting() ? 0 : 1;
}

}  // namespace

void ResetRequest(QKClient *client) {
    client->c_request = REQUEST_NATIVE;
    client->c_format = QK_FORMAT_TEXT;
    client->c_encoding = QK_ENCODING_LATIN1;
    client->c_name[0] = '\0';
    client->c_contentLength = -1;
    client->c_query = 0;
    client->c_authorization = nullptr;
    client->c_cookies = nullptr;
    client->c_host[0] = '\0';
    client->c_port = 0;
    client->c_command = client->c_line;
    client->c_commandArgs = nullptr;
    client->c_args = client->c_line + strlen(client->c_line);
    client->c_argEncoding = QK_ENCODING_LATIN1;
    client->c_lookahead = -1;
    client->c_lookaheadEscaped = 0;
    client->c_headersUsed = 0;
    client->c_headerCount = 0;
    client->c_buffered = 0;
    client->c_chunked = 0;
    ArrayClear(client->c_body);
    client->c_keepAlive = 0;
    client->c_expiration = -1;
    client->c_requestLength = -1;
    client->c_expectContinue = 0;
    client->c_form = 1;
}

int DispatchLine(QKClient *client, bool refuse) {
    QKServer *server = client->c_server;
    char *line = client->c_line;
    ResetRequest(client);
    if (server->http) {
        const Method *method = FindMethod(line);
        if (method && method->request == 0) {
            // Answered before the version is known: as HTTP/1.0, closing.
            client->c_protocol = PROTOCOL_HTTP10;
            if (QKClientHttpHeader(client, 501, NULL, "Method not supported", NULL))
                QKClientCommit(client);
            return 0;
        }
        if (method) {
            if (refuse) return 0;
            return HttpRequest(client, method->request, line + method->length);
        }
    }

    client->c_protocol = PROTOCOL_NATIVE;
    client->c_request = REQUEST_NATIVE;
    client->c_command = line;
    client->c_format = QK_FORMAT_TEXT;
    if (CommandEntry *entry = FindNative(server, line)) {
        SetNativeArgs(client, entry->nameLength);
        int status =
            refuse ? QK_COMMAND_DROP : entry->command->function(client, entry->command->userData);
        ReleaseEntry(server, entry);
        return Finish(client, status, false);
    }
    if (server->builtins) {
        if (const Builtin *builtin = FindBuiltin(line)) {
            SetNativeArgs(client, (UInt)strlen(builtin->name));
            int status = builtin->function(client, nullptr);
            return Finish(client, status, builtin->function == BuiltinAuth);
        }
    }
    if (QKClientError(client, QK_CLIENT_ILLEGAL_COMMAND, NULL) == QK_COMMAND_DROP) return 0;
    return QKServerExiting() ? 0 : 1;
}

}  // namespace qk::server
