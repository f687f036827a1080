// Writing a reply: the native status lines, and the write calls that go to
// the held body of an HTTP reply or straight to the channel, with the
// escapes of QKClientWriteChar.
#include <string.h>
#include <trio.h>

#include "server/server_internal.h"

namespace qk::server {
namespace {

const char *const kErrorTexts[] = {
    nullptr,          "illegal command", "illegal argument", "no data",    "dead pool",
    "internal error", "protocol error",  "write error",      "read error", "read timeout",
};

int WriteFormatted(QKClient *client, const char *format, ULong value) {
    char text[32];
    int n = trio_snprintf(text, sizeof text, format, value);
    return ClientWrite(client, text, (UInt)n);
}

}  // namespace

int ClientWrite(QKClient *client, const void *buffer, UInt size) {
    if (client->c_buffered) {
        ArrayAppend(client->c_body, static_cast<const UByte *>(buffer), size);
        return 1;
    }
    return ChannelWriteBuf(client->c_channel, buffer, size);
}

}  // namespace qk::server

using namespace qk::server;

extern "C" {

QK_API int QKClientSuccess(QKClient *client, ULong value) {
    if (client->c_protocol != PROTOCOL_NATIVE) {
        return QKClientHttpHeader(client, 200, NULL, NULL, NULL) ? QK_COMMAND_DONE
                                                                 : QK_COMMAND_DROP;
    }
    Channel *channel = client->c_channel;
    bool ok = ChannelWriteByte(channel, '!');
    if (ok && value != 0) ok = ChannelWriteByte(channel, ' ') && ChannelWriteULong(channel, value);
    ok = ok && ChannelWriteByte(channel, '\n') && ChannelFlush(channel);
    return ok ? QK_COMMAND_DONE : QK_COMMAND_DROP;
}

QK_API int QKClientError(QKClient *client, Int code, const char *detail) {
    if (code < 1 || code > 9) qkassert(FALSE);
    bool ok;
    if (client->c_protocol != PROTOCOL_NATIVE) {
        ok = QKClientHttpHeader(client, 400, NULL, detail, NULL);
    } else {
        Channel *channel = client->c_channel;
        ok = ChannelWriteString(channel, "? ") && ChannelWriteInt(channel, code) &&
             ChannelWriteByte(channel, ' ') && ChannelWriteString(channel, kErrorTexts[code]);
        if (ok && detail)
            ok = ChannelWriteString(channel, ": ") && ChannelWriteString(channel, detail);
        ok = ok && ChannelWriteByte(channel, '\n') && ChannelWriteByte(channel, '\0') &&
             ChannelFlush(channel);
    }
    if (!ok || code == QK_CLIENT_PROTOCOL_ERROR) return QK_COMMAND_DROP;
    return QK_COMMAND_ERROR;
}

QK_API int QKClientWriteString(QKClient *client, const char *text) {
    return ClientWrite(client, text, (UInt)strlen(text));
}

QK_API int QKClientWriteBuf(QKClient *client, const void *buffer, UInt size) {
    return ClientWrite(client, buffer, size);
}

QK_API int QKClientWriteUInt(QKClient *client, UInt value) {
    return WriteFormatted(client, "%I64u", value);
}

QK_API int QKClientWriteULong(QKClient *client, ULong value) {
    return WriteFormatted(client, "%I64u", value);
}

QK_API int QKClientWriteUTF8(QKClient *client, UShort character) {
    char out[3];
    UInt n;
    if (character < 0x80) {
        out[0] = (char)character;
        n = 1;
    } else if (character < 0x800) {
        out[0] = (char)(0xC0 | (character >> 6));
        out[1] = (char)(0x80 | (character & 0x3F));
        n = 2;
    } else {
        out[0] = (char)(0xE0 | (character >> 12));
        out[1] = (char)(0x80 | ((character >> 6) & 0x3F));
        out[2] = (char)(0x80 | (character & 0x3F));
        n = 3;
    }
    return ClientWrite(client, out, n);
}

QK_API int QKClientWriteChar(QKClient *client, UInt mode, UShort character) {
    if (mode > QK_WRITE_XML) qkassert(FALSE);
    char byte = (char)(character & 0xFF);
    switch (mode) {
        case QK_WRITE_LATIN1:
            return ClientWrite(client, &byte, 1);
        case QK_WRITE_UTF8:
            return QKClientWriteUTF8(client, character);
        case QK_WRITE_URL: {
            if (character > 255) return 1;
            bool plain = (character >= 'a' && character <= 'z') ||
                         (character >= 'A' && character <= 'Z') ||
                         (character >= '0' && character <= '9') ||
                         (character != 0 && strchr("!*-._`{}~", character) != nullptr);
            if (plain) return ClientWrite(client, &byte, 1);
            static const char kHex[] = "0123456789abcdef";
            char escape[3] = {'%', kHex[character >> 4], kHex[character & 15]};
            return ClientWrite(client, escape, 3);
        }
        default:
            break;
    }
    const char *entity = nullptr;
    switch (character) {
        case '"':
            entity = "&quot;";
            break;
        case '&':
            entity = "&amp;";
            break;
        case '<':
            entity = "&lt;";
            break;
        case '>':
            entity = "&gt;";
            break;
        case '\'':
            if (mode == QK_WRITE_XML) entity = "&apos;";
            break;
        case '$':
            if (mode == QK_WRITE_XML) entity = "$$";
            break;
        default:
            break;
    }
    if (entity) return QKClientWriteString(client, entity);
    return ClientWrite(client, &byte, 1);
}

QK_API int QKClientWriteUCS2Buf(QKClient *client, UInt mode, const UShort *buffer, UInt count) {
    for (UInt i = 0; i < count; i++) {
        if (!QKClientWriteChar(client, mode, buffer[i])) return 0;
    }
    return 1;
}

QK_API int QKClientWriteUCS2String(QKClient *client, UInt mode, const UShortArray *string) {
    return QKClientWriteUCS2Buf(client, mode, string->data, string->length);
}

}  // extern "C"
