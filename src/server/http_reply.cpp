// The head of an HTTP reply, and the end of a reply: a body of unknown
// length goes out in chunks on HTTP/1.1, and is held until the commit on
// HTTP/1.0 so that its length can be written; HTTP/0.9 has no head at all.
#include <string.h>
#include <time.h>
#include <trio.h>

#include "qk/memory.h"
#include "server/server_internal.h"

namespace qk::server {
namespace {

struct Reason {
    Int status;
    const char *text;
};

const Reason kReasons[] = {
    {200, "OK"},
    {201, "Created"},
    {202, "Accepted"},
    {203, "Non-Authoritative Information"},
    {204, "No Content"},
    {205, "Reset Content"},
    {206, "Partial Content"},
    {300, "Multiple Choices"},
    {301, "Moved Permanently"},
    {302, "Moved Temporarily"},
    {303, "See Other"},
    {304, "Not Modified"},
    {305, "Use Proxy"},
    {400, "Bad Request"},
    {401, "Unauthorized"},
    {402, "Payment Required"},
    {403, "Forbidden"},
    {404, "Not Found"},
    {405, "Method Not Allowed"},
    {406, "Not Acceptable"},
    {407, "Proxy Authentication Required"},
    {408, "Request Timeout"},
    {409, "Conflict"},
    {410, "Gone"},
    {411, "Length Required"},
    {412, "Precondition Failed"},
    {413, "Request Entity Too Large"},
    {414, "Request-URI Too Long"},
    {415, "Unsupported Media Type"},
    {500, "Internal Server Error"},
    {501, "Not Implemented"},
    {502, "Bad Gateway"},
    {503, "Service Unavailable"},
    {504, "Gateway Timeout"},
    {505, "HTTP Version Not Supported"},
};

const char *ReasonOf(Int status) {
    for (const Reason &reason : kReasons) {
        if (reason.status == status) return reason.text;
    }
    return "";
}

struct ContentType {
    const char *type;
    bool charset;
};

// By reply format; format 21 writes the caller's own header lines.
const ContentType kContentTypes[] = {
    {"text/plain", true},
    {"text/html", true},
    {"text/html", true},
    {"text/html", true},
    {"text/xml", true},
    {"text/xml", true},
    {"text/vnd.wap.wml", true},
    {"image/gif", false},
    {"image/jpeg", false},
    {"text/css", false},
    {"application/x-javascript", false},
    {"image/vnd.wap.wbmp", false},
    {"application/pdf", false},
    {"application/x-shockwave-flash", false},
    {"application/msword", false},
    {"application/vnd.ms-excel", false},
    {"application/vnd.ms-powerpoint", false},
    {"image/png", false},
    {"application/zip", false},
    {"image/x-icon", false},
    {"application/java-archive", false},
};

const char *CharsetOf(UInt encoding) {
    if (encoding == QK_ENCODING_LATIN1) return ";charset=iso-8859-1";
    if (encoding == QK_ENCODING_UTF8) return ";charset=utf-8";
    return "";
}

// English names whatever the locale.
const char *const kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
const char *const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                               "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// "NAME: Sun, 06 Nov 1994 08:49:37 GMT\r\n" for `when`.
bool WriteDate(Channel *channel, const char *name, time_t when) {
    struct tm parts;
    if (gmtime_r(&when, &parts) == nullptr) return true;
    char text[64];
    int n = trio_snprintf(text, sizeof text, "%s: %s, %02d %s %04d %02d:%02d:%02d GMT\r\n", name,
                          kDays[parts.tm_wday], parts.tm_mday, kMonths[parts.tm_mon],
                          parts.tm_year + 1900, parts.tm_hour, parts.tm_min, parts.tm_sec);
    return ChannelWriteBuf(channel, text, (UInt)n);
}

bool WriteContentType(Channel *channel, const char *type, const char *charset) {
    return ChannelWriteString(channel, "Content-Type: ") && ChannelWriteString(channel, type) &&
           ChannelWriteString(channel, charset) && ChannelWriteString(channel, "\r\n");
}

bool WriteHead(QKClient *client, Int status, const char *location, const char *text,
               const char *headers) {
    Channel *channel = client->c_channel;
    bool ok = ChannelWriteString(channel, "HTTP/1.1 ") && ChannelWriteInt(channel, status) &&
              ChannelWriteByte(channel, ' ') && ChannelWriteString(channel, ReasonOf(status)) &&
              ChannelWriteString(channel, "\r\nServer: QK/") &&
              ChannelWriteString(channel, QKVersionString()) && ChannelWriteString(channel, "\r\n");
    time_t now = time(NULL);
    ok = ok && WriteDate(channel, "Date", now);
    if (!ok) return false;
    if (status >= 300 && status <= 399) {
        ok = WriteContentType(channel, "text/html", ";charset=iso-8859-1") &&
             ChannelWriteString(channel, "Location: ") &&
             ChannelWriteString(channel, location ? location : "") &&
             ChannelWriteString(channel, "\r\n");
    } else if (status >= 400) {
        ok = WriteContentType(channel, client->c_format ? "text/html" : "text/plain",
                              ";charset=iso-8859-1");
        if (ok && status == 401 && location) {
            ok = ChannelWriteString(channel, "WWW-Authenticate: Basic realm=\"") &&
                 ChannelWriteString(channel, location) && ChannelWriteString(channel, "\"\r\n");
        }
    } else if (client->c_format == QK_FORMAT_OWN) {
        // The caller's own lines; without them the type alone, bare.
        ok = ChannelWriteString(channel, text ? text : "text/plain");
    } else {
        const ContentType &type = kContentTypes[client->c_format];
        ok =
            WriteContentType(channel, type.type, type.charset ? CharsetOf(client->c_encoding) : "");
    }
    if (client->c_keepAlive) {
        if (ok && client->c_protocol == PROTOCOL_HTTP10)
            ok = ChannelWriteString(channel, "Connection: Keep-Alive\r\n");
    } else {
        ok = ok && ChannelWriteString(channel, "Connection: close\r\n");
    }
    if (ok && client->c_expiration >= 0)
        ok = WriteDate(channel, "Expires", now + client->c_expiration);
    if (ok && headers) ok = ChannelWriteString(channel, headers);
    if (!ok) return false;
    if (client->c_contentLength >= 0) {
        ok = ChannelWriteString(channel, "Content-Length: ") &&
             ChannelWriteInt(channel, client->c_contentLength) &&
             ChannelWriteString(channel, "\r\n\r\n");
    } else if (client->c_protocol == PROTOCOL_HTTP11) {
        ok = ChannelWriteString(channel, "Transfer-Encoding: chunked\r\n\r\n");
        client->c_buffered = 1;
        client->c_chunked = 1;
    } else {
        client->c_buffered = 1;  // the head stays open until the commit
    }
    ArrayClear(client->c_body);
    return ok;
}

// The start of the body that the head implies.
bool WriteBodyStart(QKClient *client, Int status, const char *location, const char *text) {
    bool html = client->c_format != QK_FORMAT_TEXT;
    if (status >= 300 && status <= 399) {
        if (!html) return QKClientWriteString(client, location ? location : "");
        return QKClientWriteString(client, "<html><body>This page was moved <a href=\"") &&
               QKClientWriteString(client, location ? location : "") &&
               QKClientWriteString(client, "\">here</a>.</body></html>\r\n");
    }
    if (status >= 400) {
        if (text == nullptr) return true;
        if (!html) return QKClientWriteString(client, text);
        return QKClientWriteString(client, "<html><body><h1>") &&
               QKClientWriteString(client, text) &&
               QKClientWriteString(client, "</h1></body></html>\r\n");
    }
    UInt format = client->c_format;
    if (format != 4 && format != 5 && format != QK_FORMAT_WML) return true;
    const char *encoding = client->c_encoding == QK_ENCODING_LATIN1 ? " encoding=\"ISO-8859-1\""
                           : client->c_encoding == QK_ENCODING_UTF8 ? " encoding=\"UTF-8\""
                                                                    : "";
    bool ok = QKClientWriteString(client, "<?xml version=\"1.0\"") &&
              QKClientWriteString(client, encoding) && QKClientWriteString(client, "?>\n");
    if (ok && format == QK_FORMAT_WML) {
        ok = QKClientWriteString(client,
                                 "<!DOCTYPE wml PUBLIC \"-//WAPFORUM//DTD WML 1.1//EN\" "
                                 "\"http://www.wapforum.org/DTD/wml_1.1.xml\">\n");
    }
    return ok;
}

// Writes the held body as one chunk; an empty body writes nothing.
bool WriteChunk(QKClient *client) {
    Channel *channel = client->c_channel;
    UInt length = client->c_body.length;
    if (length == 0) return true;
    char size[16];
    int n = trio_snprintf(size, sizeof size, "%x\r\n", length);
    bool ok = ChannelWriteBuf(channel, size, (UInt)n) &&
              ChannelWriteBuf(channel, client->c_body.data, length) &&
              ChannelWriteString(channel, "\r\n");
    client->c_body.length = 0;
    return ok;
}

}  // namespace
}  // namespace qk::server

using namespace qk::server;

extern "C" {

QK_API int QKClientHttpHeader(QKClient *client, Int status, const char *location, const char *text,
                              const char *headers) {
    if (client->c_protocol != PROTOCOL_HTTP09 &&
        !WriteHead(client, status, location, text, headers))
        return 0;
    return WriteBodyStart(client, status, location, text) ? 1 : 0;
}

QK_API int QKClientFlush(QKClient *client) {
    if (!client->c_buffered) return ChannelFlush(client->c_channel);
    if (!client->c_chunked || client->c_body.length == 0) return 1;
    bool ok = WriteChunk(client);
    return ok && ChannelFlush(client->c_channel);
}

QK_API int QKClientCommit(QKClient *client) {
    Channel *channel = client->c_channel;
    bool ok = true;
    if (client->c_buffered && client->c_chunked) {
        ok = WriteChunk(client) && ChannelWriteString(channel, "0\r\n\r\n");
    } else if (client->c_buffered) {
        ok = ChannelWriteString(channel, "Content-Length: ") &&
             ChannelWriteUInt(channel, client->c_body.length) &&
             ChannelWriteString(channel, "\r\n\r\n") &&
             ChannelWriteBuf(channel, client->c_body.data, client->c_body.length);
    }
    client->c_buffered = 0;
    client->c_chunked = 0;
    if (client->c_body.data) ArrayFree(client->c_body);
    return ok && ChannelFlush(channel) ? 1 : 0;
}

}  // extern "C"
