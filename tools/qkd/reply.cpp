// Replies and arguments shared by the tool's commands.
#include <string.h>

#include "commands.h"

namespace qkd {

int ReplyText(QKClient *client, const std::string &text, UInt format) {
    if (QKClientProtocol(client) == PROTOCOL_NATIVE) {
        if (QKClientSuccess(client, 0) != QK_COMMAND_DONE) return QK_COMMAND_DROP;
    } else {
        QKClientSetFormat(client, format);
        QKClientSetEncoding(client, QK_ENCODING_UTF8);
        QKClientSetContentLength(client, (Int)text.size());
        if (!QKClientHttpHeader(client, 200, NULL, NULL, NULL)) return QK_COMMAND_DROP;
    }
    if (!QKClientWriteBuf(client, text.data(), (UInt)text.size())) return QK_COMMAND_DROP;
    // The native output ends with a NUL; an HTTP body ends by its length.
    if (QKClientProtocol(client) == PROTOCOL_NATIVE && !QKClientWriteBuf(client, "", 1))
        return QK_COMMAND_DROP;
    return QK_COMMAND_DONE;
}

bool TextArgument(QKClient *client, std::string *text, int *status) {
    text->clear();
    if (QKClientProtocol(client) == PROTOCOL_NATIVE) {
        *text = QKClientArgs(client);
        return true;
    }
    bool found = false;
    const char *name;
    const char *value;
    while (QKClientScriptArg(client, &name, &value)) {
        bool bare = *value == '\0' && strcmp(name, "text") != 0;
        if (strcmp(name, "text") != 0 && !bare) {
            *status = QKClientError(client, QK_CLIENT_ILLEGAL_ARGUMENT,
                                    (std::string("unknown argument \"") + name + "\"").c_str());
            return false;
        }
        if (found) {
            *status = QKClientError(client, QK_CLIENT_ILLEGAL_ARGUMENT, "more than one text");
            return false;
        }
        *text = bare ? name : value;
        found = true;
    }
    return true;
}

}  // namespace qkd
