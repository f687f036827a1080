// HTTP on the server's port: heads byte for byte, chunked replies on 1.1,
// held bodies on 1.0, no head on 0.9, keep-alive, early errors, the command
// table's path rules, request headers, and forms.
#include "server/server_support.h"

using namespace qktest;

namespace {

const std::string kText = "Content-Type: text/plain;charset=iso-8859-1\r\n";

int Hello(QKClient *client, void *) {
    if (QKClientSuccess(client, 0) != QK_COMMAND_DONE) return QK_COMMAND_DROP;
    return QKClientWriteString(client, "hello") ? QK_COMMAND_DONE : QK_COMMAND_DROP;
}

// Two pieces with flushes around them: two chunks and no empty one.
int Stream(QKClient *client, void *) {
    QKClientSuccess(client, 0);
    QKClientFlush(client);
    QKClientWriteString(client, "ab");
    QKClientFlush(client);
    QKClientFlush(client);
    QKClientWriteString(client, "cde");
    return QK_COMMAND_DONE;
}

int Sized(QKClient *client, void *) {
    QKClientSetContentLength(client, 5);
    QKClientSuccess(client, 0);
    return QKClientWriteString(client, "hello") ? QK_COMMAND_DONE : QK_COMMAND_DROP;
}

// The command name, then the request path as the client object gives it.
int Path(QKClient *client, void *userData) {
    QKClientSuccess(client, 0);
    ByteArray path = {nullptr, 0, 0};
    QKClientGetPath(client, &path);
    QKClientWriteString(client, (const char *)userData);
    QKClientWriteString(client, ":");
    QKClientWriteString(client, QKClientCommand(client));
    QKClientWriteString(client, "|");
    QKClientWriteBuf(client, path.data, path.length - 1);  // without its NUL
    ArrayFree(path);
    return QK_COMMAND_DONE;
}

// Every stored header, then what the server took from them.
int Headers(QKClient *client, void *) {
    QKClientSuccess(client, 0);
    std::string out;
    for (UInt i = 0; i < QKClientHeaderNum(client); i++)
        out +=
            std::string(QKClientHeaderName(client, i)) + "=" + QKClientHeaderValue(client, i) + ";";
    const char *host;
    UInt port;
    if (QKClientHost(client, &host, &port))
        out += std::string("host=") + host + ":" + std::to_string(port) + ";";
    const char *value = QKClientHeader(client, "X-TEST");
    out += std::string("x-test=") + (value ? value : "(none)") + ";";
    if (QKClientCookies(client)) out += std::string("cookies=") + QKClientCookies(client) + ";";
    if (QKClientAuthorization(client))
        out += std::string("basic=") + QKClientAuthorization(client) + ";";
    if (QKClientName(client)) out += std::string("agent=") + QKClientName(client) + ";";
    out += "features=";
    for (UInt bit = 1; bit <= 16; bit <<= 1) out += QKClientFeature(client, bit) ? "1" : "0";
    QKClientWriteString(client, out.c_str());
    return QK_COMMAND_DONE;
}

// "name=value;" for each argument pair, then "end".
int Script(QKClient *client, void *) {
    QKClientSuccess(client, 0);
    const char *name, *value;
    while (QKClientScriptArg(client, &name, &value)) {
        QKClientWriteString(client, name);
        QKClientWriteString(client, "=");
        QKClientWriteString(client, value);
        QKClientWriteString(client, ";");
    }
    QKClientWriteString(client, "end");
    return QK_COMMAND_DONE;
}

// "?s=STATUS&l=LOCATION&f=FORMAT&t=TEXT&e=ENCODING&x=SECONDS": a head
// made to order.
int Status(QKClient *client, void *) {
    Int status = 200;
    std::string location, text;
    bool hasLocation = false, hasText = false;
    const char *name, *value;
    while (QKClientScriptArg(client, &name, &value)) {
        std::string key = name;
        if (key == "s") status = atoi(value);
        if (key == "f") QKClientSetFormat(client, (UInt)atoi(value));
        if (key == "e") QKClientSetEncoding(client, (UInt)atoi(value));
        if (key == "x") QKClientSetExpirationDelay(client, atoi(value));
        if (key == "l") hasLocation = true, location = value;
        if (key == "t") hasText = true, text = value;
    }
    if (!QKClientHttpHeader(client, status, hasLocation ? location.c_str() : nullptr,
                            hasText ? text.c_str() : nullptr, nullptr))
        return QK_COMMAND_DROP;
    return QK_COMMAND_DONE;
}

// The same characters in each escape mode, separated by '|'.
int Chars(QKClient *client, void *) {
    QKClientSuccess(client, 0);
    const UShort text[] = {'a', 'Z',  '0', ' ', '<', '>',  '&',
                           '"', '\'', '$', '~', '/', 0xE9, 0x20AC};
    for (UInt mode = 0; mode <= QK_WRITE_XML; mode++) {
        QKClientWriteUCS2Buf(client, mode, text, sizeof text / sizeof text[0]);
        QKClientWriteString(client, "|");
    }
    return QK_COMMAND_DONE;
}

QKServerCommand helloCommand = {"/hello", Hello, nullptr, PROTOCOL_HTTP, nullptr};
QKServerCommand streamCommand = {"/stream", Stream, nullptr, PROTOCOL_HTTP, nullptr};
QKServerCommand sizedCommand = {"/sized", Sized, nullptr, PROTOCOL_HTTP, nullptr};
QKServerCommand aCommand = {"/a", Path, nullptr, PROTOCOL_HTTP, (void *)"A"};
QKServerCommand abCommand = {"/a/b", Path, nullptr, PROTOCOL_HTTP, (void *)"AB"};
QKServerCommand only11Command = {"/only11", Hello, nullptr, PROTOCOL_HTTP11, nullptr};
QKServerCommand headersCommand = {"/headers", Headers, nullptr, PROTOCOL_HTTP, nullptr};
QKServerCommand scriptCommand = {"/script", Script, nullptr, PROTOCOL_HTTP, nullptr};
QKServerCommand statusCommand = {"/status", Status, nullptr, PROTOCOL_HTTP, nullptr};
QKServerCommand charsCommand = {"/chars", Chars, nullptr, PROTOCOL_HTTP, nullptr};
QKServerCommand indexCommand = {"", Path, nullptr, PROTOCOL_HTTP, (void *)"INDEX"};

class HttpTest : public ::testing::Test {
  protected:
    HttpTest()
        : server_(NewServer({&helloCommand, &streamCommand, &sizedCommand, &aCommand, &abCommand,
                             &only11Command, &headersCommand, &scriptCommand, &statusCommand,
                             &charsCommand})) {}

    // One request on a new connection; the reply with its dates made stable.
    std::string Ask(const std::string &request) {
        RawClient client(server_.port());
        client.Send(request);
        return StableDates(client.ReadHttp());
    }
    // The body of a reply on HTTP/1.0.
    std::string Body(const std::string &target, const std::string &head = "") {
        std::string reply = Ask("GET " + target + " HTTP/1.0\r\n" + head + "\r\n");
        size_t end = reply.find("\r\n\r\n");
        return end == std::string::npos ? "(no head)" + reply : reply.substr(end + 4);
    }

    TestServer server_;
};

std::string Head(const std::string &status, const std::string &lines) {
    return "HTTP/1.1 " + status + "\r\n" + ServerLines() + lines;
}

TEST_F(HttpTest, Http11RepliesAreChunkedAndTheConnectionStays) {
    RawClient client(server_.port());
    client.Send("GET /hello HTTP/1.1\r\nHost: here\r\n\r\n");
    const std::string hello =
        Head("200 OK", kText + "Transfer-Encoding: chunked\r\n\r\n") + "5\r\nhello\r\n0\r\n\r\n";
    EXPECT_EQ(StableDates(client.ReadHttp()), hello);
    // Two more requests on the same connection, the second pipelined behind
    // the first.
    client.Send("GET /stream HTTP/1.1\r\n\r\nGET /sized HTTP/1.1\r\n\r\n");
    EXPECT_EQ(StableDates(client.ReadHttp()),
              Head("200 OK", kText + "Transfer-Encoding: chunked\r\n\r\n") +
                  "2\r\nab\r\n3\r\ncde\r\n0\r\n\r\n");
    EXPECT_EQ(StableDates(client.ReadHttp()),
              Head("200 OK", kText + "Content-Length: 5\r\n\r\n") + "hello");
    client.Send("GET /hello HTTP/1.1\r\nConnection: close\r\n\r\n");
    EXPECT_EQ(StableDates(client.ReadHttp()),
              Head("200 OK", kText + "Connection: close\r\nTransfer-Encoding: chunked\r\n\r\n") +
                  "5\r\nhello\r\n0\r\n\r\n");
    EXPECT_TRUE(client.AtEnd());
}

TEST_F(HttpTest, Http10HoldsTheBodyToWriteItsLength) {
    EXPECT_EQ(Ask("GET /stream HTTP/1.0\r\n\r\n"),
              Head("200 OK", kText + "Connection: close\r\nContent-Length: 5\r\n\r\n") + "abcde");
    RawClient client(server_.port());
    client.Send("GET /hello HTTP/1.0\r\nConnection: Keep-Alive\r\n\r\n");
    EXPECT_EQ(
        StableDates(client.ReadHttp()),
        Head("200 OK", kText + "Connection: Keep-Alive\r\nContent-Length: 5\r\n\r\n") + "hello");
    client.Send("GET /hello HTTP/1.0\r\n\r\n");
    EXPECT_EQ(StableDates(client.ReadHttp()),
              Head("200 OK", kText + "Connection: close\r\nContent-Length: 5\r\n\r\n") + "hello");
    EXPECT_TRUE(client.AtEnd());
}

TEST_F(HttpTest, Http09HasNoHead) {
    RawClient client(server_.port());
    client.Send("GET /stream\r\n");
    EXPECT_EQ(client.ReadAll(), "abcde");
}

TEST_F(HttpTest, ErrorsBeforeTheVersionAreAnsweredAsHttp10AndClose) {
    auto early = [](const std::string &status, const std::string &text) {
        return Head(status, kText + "Connection: close\r\nContent-Length: " +
                                std::to_string(text.size()) + "\r\n\r\n" + text);
    };
    EXPECT_EQ(Ask("GET hello HTTP/1.1\r\n\r\n"), early("400 Bad Request", "invalid path"));
    EXPECT_EQ(Ask("GET * HTTP/1.1\r\n\r\n"), early("400 Bad Request", "invalid path"));
    EXPECT_EQ(Ask("GET /hello HTTP/2.0\r\n\r\n"),
              early("400 Bad Request", "illegal protocol version"));
    EXPECT_EQ(Ask("GET /hello  HTTP/1.1\r\n\r\n"),
              early("400 Bad Request", "illegal protocol version"));
    EXPECT_EQ(Ask("HEAD /hello HTTP/1.1\r\n\r\n"),
              early("400 Bad Request", "command not supported"));
    EXPECT_EQ(Ask("PUT /hello HTTP/1.1\r\n\r\n"),
              early("501 Not Implemented", "Method not supported"));
    EXPECT_EQ(Ask("DELETE /hello HTTP/1.1\r\n\r\n"),
              early("501 Not Implemented", "Method not supported"));
}

TEST_F(HttpTest, OptionsAndProtocolMismatch) {
    RawClient client(server_.port());
    client.Send("OPTIONS * HTTP/1.1\r\n\r\nOPTIONS /hello HTTP/1.1\r\n\r\n");
    EXPECT_EQ(StableDates(client.ReadHttp()),
              Head("200 OK", kText + "Allow: GET, POST\r\nTransfer-Encoding: chunked\r\n\r\n") +
                  "0\r\n\r\n");
    EXPECT_EQ(StableDates(client.ReadHttp()),
              Head("400 Bad Request", kText + "Transfer-Encoding: chunked\r\n\r\n") +
                  "15\r\ncommand not supported\r\n0\r\n\r\n");
    // A command for HTTP/1.1 only, asked in 1.0: an error without text.
    EXPECT_EQ(Ask("GET /only11 HTTP/1.0\r\n\r\n"),
              Head("400 Bad Request", kText + "Connection: close\r\nContent-Length: 0\r\n\r\n"));
}

TEST_F(HttpTest, LongestNameWinsAndNamesEndAtSlashOrQuery) {
    EXPECT_EQ(Body("/a/b/c"), "AB:/a/b|/a/b/c");
    EXPECT_EQ(Body("/a/b"), "AB:/a/b|/a/b");
    EXPECT_EQ(Body("/a?q=1"), "A:/a|/a?q=1");
    EXPECT_EQ(Body("/a/x"), "A:/a|/a/x");
    EXPECT_EQ(Body("/ab"), "(no head)");  // no command: closed without a word
}

TEST(HttpFallbackTest, TheEmptyNameTakesEveryPath) {
    TestServer server(NewServer({&aCommand, &indexCommand}));
    RawClient client(server.port());
    client.Send("GET /index.html HTTP/1.1\r\n\r\nGET / HTTP/1.1\r\n\r\nGET /a HTTP/1.1\r\n\r\n");
    std::string chunked = Head("200 OK", kText + "Transfer-Encoding: chunked\r\n\r\n");
    EXPECT_EQ(StableDates(client.ReadHttp()), chunked + "12\r\nINDEX:|/index.html\r\n0\r\n\r\n");
    EXPECT_EQ(StableDates(client.ReadHttp()), chunked + "8\r\nINDEX:|/\r\n0\r\n\r\n");
    EXPECT_EQ(StableDates(client.ReadHttp()), chunked + "7\r\nA:/a|/a\r\n0\r\n\r\n");
}

TEST_F(HttpTest, HeadersAreStoredAndTaken) {
    EXPECT_EQ(Body("/headers",
                   "Host: example.org:8080\r\nX-Test: \t v1: v2\r\nno colon here\r\n"
                   ": no name\r\nCookie: c=1\r\nAuthorization: Basic dXNlcg==\r\n"
                   "User-Agent: Mozilla/5.0 (compatible; MSIE 6.0)\r\n"),
              "Host=example.org:8080;X-Test=v1: v2;Cookie=c=1;Authorization=Basic dXNlcg==;"
              "User-Agent=Mozilla/5.0 (compatible; MSIE 6.0);host=example.org:8080;"
              "x-test=v1: v2;cookies=c=1;basic=dXNlcg==;"
              "agent=Mozilla/5.0 (compatible; MSIE 6.0);features=11111");
    EXPECT_EQ(
        Body("/headers", "host: plain\r\nUser-Agent: MSIE 3.0\r\nAuthorization: Digest x\r\n"),
        "host=plain;User-Agent=MSIE 3.0;Authorization=Digest x;host=plain:80;"
        "x-test=(none);agent=MSIE 3.0;features=11110");
    // A Latin-1 byte in a value is kept as UTF-8.
    EXPECT_EQ(Body("/headers", "X-Test: caf\xe9\r\nHost:\r\n"),
              "X-Test=caf\xc3\xa9;Host=;x-test=caf\xc3\xa9;features=00000");
}

TEST_F(HttpTest, ScriptArgumentsAreDecoded) {
    EXPECT_EQ(Body("/script?a=1&b&c=3"), "a=1;b=;c=3;end");
    EXPECT_EQ(Body("/script/a=x+y/b=%41%00z"), "a=x+y;b=A z;end");
    EXPECT_EQ(Body("/script?a=x+y&&b=%3d&c%3Dd=%26"), "a=x y;b==;c=d=&;end");
    // UTF-8 when the whole is UTF-8, else Latin-1 for every byte.
    EXPECT_EQ(Body("/script?a=%C3%A9"), "a=\xc3\xa9;end");
    EXPECT_EQ(Body("/script?a=%C3%A9&b=%E9"), "a=\xc3\x83\xc2\xa9;b=\xc3\xa9;end");
    EXPECT_EQ(Body("/script?=x"), "end");  // an empty name ends the arguments
}

TEST_F(HttpTest, PostFormsJoinTheTarget) {
    const std::string form = "Content-Type: application/x-www-form-urlencoded\r\n";
    EXPECT_EQ(Ask("POST /script?x=0 HTTP/1.1\r\n" + form +
                  "Content-Length: 7\r\nConnection: keep-alive\r\n\r\na=1&b=2"),
              Head("200 OK", kText + "Connection: close\r\nTransfer-Encoding: chunked\r\n\r\n") +
                  "f\r\nx=0;a=1;b=2;end\r\n0\r\n\r\n");
    RawClient client(server_.port());
    client.Send("POST /script HTTP/1.1\r\nExpect: 100-continue\r\nContent-Length: 3\r\n\r\n");
    EXPECT_EQ(client.ReadExactly(25), "HTTP/1.1 100 CONTINUE\r\n\r\n");
    client.Send("k=v");
    EXPECT_EQ(StableDates(client.ReadHttp()),
              Head("200 OK", kText + "Connection: close\r\nTransfer-Encoding: chunked\r\n\r\n") +
                  "7\r\nk=v;end\r\n0\r\n\r\n");
    // A form without a length, or one too big for the line.
    const std::string refused =
        Head("400 Bad Request", kText + "Connection: close\r\nContent-Length: 0\r\n\r\n");
    EXPECT_EQ(Ask("POST /script HTTP/1.0\r\n\r\n"), refused);
    EXPECT_EQ(Ask("POST /script HTTP/1.0\r\nContent-Length: 65530\r\n\r\n"), refused);
    EXPECT_EQ(
        Ask("POST /script HTTP/1.0\r\nContent-Length: 65527\r\n\r\n" + std::string(65527, '&')),
        Head("200 OK", kText + "Connection: close\r\nContent-Length: 3\r\n\r\nend"));
}

TEST_F(HttpTest, HeadsFollowStatusAndFormat) {
    EXPECT_EQ(Ask("GET /status?s=302&l=%2Fthere HTTP/1.0\r\n\r\n"),
              Head("302 Moved Temporarily",
                   "Content-Type: text/html;charset=iso-8859-1\r\nLocation: /there\r\n"
                   "Connection: close\r\nContent-Length: 6\r\n\r\n/there"));
    EXPECT_EQ(Body("/status?s=301&l=%2Fx&f=1"),
              "<html><body>This page was moved <a href=\"/x\">here</a>.</body></html>\r\n");
    EXPECT_EQ(Ask("GET /status?s=401&l=realm&t=who&f=2 HTTP/1.0\r\n\r\n"),
              Head("401 Unauthorized",
                   "Content-Type: text/html;charset=iso-8859-1\r\n"
                   "WWW-Authenticate: Basic realm=\"realm\"\r\nConnection: close\r\n"
                   "Content-Length: 40\r\n\r\n<html><body><h1>who</h1></body></html>\r\n"));
    EXPECT_EQ(Ask("GET /status?s=299&f=4&e=186&x=60 HTTP/1.0\r\n\r\n"),
              Head("299 ",
                   "Content-Type: text/xml;charset=utf-8\r\nConnection: close\r\n"
                   "Expires: *\r\nContent-Length: 39\r\n\r\n"
                   "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"));
    EXPECT_EQ(Body("/status?f=6"),
              "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n<!DOCTYPE wml PUBLIC "
              "\"-//WAPFORUM//DTD WML 1.1//EN\" \"http://www.wapforum.org/DTD/wml_1.1.xml\">\n");
    EXPECT_EQ(Ask("GET /status?f=17&e=186 HTTP/1.0\r\n\r\n"),
              Head("200 OK",
                   "Content-Type: image/png\r\nConnection: close\r\n"
                   "Content-Length: 0\r\n\r\n"));
    EXPECT_EQ(Ask("GET /status?f=0&e=7 HTTP/1.0\r\n\r\n"),
              Head("200 OK",
                   "Content-Type: text/plain\r\nConnection: close\r\n"
                   "Content-Length: 0\r\n\r\n"));
}

TEST_F(HttpTest, CharactersAreEscapedByMode) {
    EXPECT_EQ(Body("/chars"),
              "aZ0 <>&\"'$~/\xe9\xac|"
              "aZ0 <>&\"'$~/\xc3\xa9\xe2\x82\xac|"
              "aZ0%20%3c%3e%26%22%27%24~%2f%e9|"
              "aZ0 &lt;&gt;&amp;&quot;'$~/\xe9\xac|"
              "aZ0 &lt;&gt;&amp;&quot;&apos;$$~/\xe9\xac|");
}

TEST_F(HttpTest, ClientGoneMidRequestLeavesTheServerServing) {
    for (const char *partial : {"GET /hello HTTP/1.1\r\nHost: x", "GET /hel",
                                "POST /script HTTP/1.0\r\nContent-Length: 9\r\n\r\nab"}) {
        RawClient client(server_.port());
        client.Send(partial);
        client.Close();
    }
    EXPECT_EQ(Body("/hello"), "hello");
}

}  // namespace
