// An HTTP request after its method word: the target and the version, the
// head, the body of a form, then the command found for the target.
#include <string.h>

#include "server/server_internal.h"

namespace qk::server {
namespace {

// An error found before the version of the request is known: answered as
// HTTP/1.0, and the connection closes.
int EarlyError(QKClient *client, const char *detail) {
    client->c_protocol = PROTOCOL_HTTP10;
    client->c_keepAlive = 0;
    if (QKClientError(client, QK_CLIENT_ILLEGAL_COMMAND, detail) != QK_COMMAND_DROP)
        QKClientCommit(client);
    return 0;
}

// An error that closes the connection.
int FatalError(QKClient *client) {
    client->c_keepAlive = 0;
    if (QKClientError(client, QK_CLIENT_ILLEGAL_COMMAND, NULL) != QK_COMMAND_DROP)
        QKClientCommit(client);
    return 0;
}

// After a reply: above 0 when the connection goes on.
int Finish(QKClient *client, int status) {
    if (status != QK_COMMAND_DROP && !QKClientCommit(client)) status = QK_COMMAND_DROP;
    return status != QK_COMMAND_DROP && client->c_keepAlive ? 1 : 0;
}

// Appends the body of a form to the target in c_line, behind '?' or '&'.
bool ReadForm(QKClient *client, UInt targetLength) {
    Int length = client->c_requestLength;
    if (length < 0 || (ULong)targetLength + 2 + (ULong)length > kLineSize) return false;
    char *line = client->c_line;
    line[targetLength] = strchr(line, '?') ? '&' : '?';
    if (ChannelReadBuf(client->c_channel, line + targetLength + 1, (UInt)length, NULL) != 0)
        return false;
    line[targetLength + 1 + length] = '\0';
    return true;
}

}  // namespace

int HttpRequest(QKClient *client, UInt request, char *rest) {
    client->c_request = request;
    client->c_protocol = PROTOCOL_HTTP09;
    client->c_headerCount = 0;
    client->c_expectContinue = 0;
    client->c_form = 1;
    if (request == REQUEST_HEAD) return EarlyError(client, "command not supported");

    char *target = rest;
    while (IsBlank(*target)) target++;
    if (*target != '/' && *target != '*') return EarlyError(client, "invalid path");
    char *end = target;
    while (*end != '\0' && !IsBlank(*end)) end++;
    if (*target == '*' && (request != REQUEST_OPTIONS || end != target + 1))
        return EarlyError(client, "invalid path");
    const char *version = *end ? end + 1 : end;
    if (*version == '\0') {
        client->c_protocol = PROTOCOL_HTTP09;
    } else if (strcmp(version, "HTTP/1.0") == 0) {
        client->c_protocol = PROTOCOL_HTTP10;
    } else if (strcmp(version, "HTTP/1.1") == 0) {
        client->c_protocol = PROTOCOL_HTTP11;
        client->c_keepAlive = 1;
    } else {
        return EarlyError(client, "illegal protocol version");
    }
    // The target moves to the start of the line, where a form can follow it.
    UInt targetLength = (UInt)(end - target);
    memmove(client->c_line, target, targetLength);
    client->c_line[targetLength] = '\0';

    if (client->c_protocol != PROTOCOL_HTTP09 && !ReadHead(client)) return FatalError(client);
    client->c_format = QK_FORMAT_TEXT;

    if (request == REQUEST_OPTIONS) {
        int status;
        if (strcmp(client->c_line, "*") == 0 && client->c_protocol != PROTOCOL_HTTP09) {
            status = QKClientHttpHeader(client, 200, NULL, NULL, "Allow: GET, POST\r\n")
                         ? QK_COMMAND_DONE
                         : QK_COMMAND_DROP;
        } else {
            status = QKClientError(client, QK_CLIENT_ILLEGAL_COMMAND, "command not supported");
        }
        return Finish(client, status);
    }
    if (request == REQUEST_POST) {
        Channel *channel = client->c_channel;
        if (client->c_expectContinue &&
            !(ChannelWriteString(channel, "HTTP/1.1 100 CONTINUE\r\n\r\n") &&
              ChannelFlush(channel)))
            return 0;
        if (client->c_form && !ReadForm(client, targetLength)) return FatalError(client);
        client->c_keepAlive = 0;
    }

    QKServer *server = client->c_server;
    CommandEntry *entry = FindHttp(server, client->c_line);
    if (entry == nullptr) return 0;
    if ((entry->command->protocols & client->c_protocol) == 0) {
        ReleaseEntry(server, entry);
        return Finish(client, QKClientError(client, QK_CLIENT_ILLEGAL_COMMAND, NULL));
    }
    client->c_command = client->c_line;
    char *args = client->c_line + entry->nameLength;
    if (*args != '\0') {
        client->c_query = *args == '?';
        *args++ = '\0';
        client->c_commandArgs = args;
    } else {
        client->c_commandArgs = nullptr;
    }
    client->c_args = args;
    HttpArgsStart(client);
    int status = entry->command->function(client, entry->command->userData);
    ReleaseEntry(server, entry);
    return Finish(client, status);
}

}  // namespace qk::server
