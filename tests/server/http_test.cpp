// HTTP on the server's port: heads byte for byte, chunked replies on 1.1,
// held bodies on 1.0, no head on 0.9, keep-alive, early errors, the command
// table's path rules, request headers, forms, and escapes.
#include <map>

#include "server/server_support.h"

namespace {

// "hello", with its length set first when given user data.
int Hello(QKClient *client, void *sized) {
    if (sized) QKClientSetContentLength(client, 5);
    return Answer(client, "hello");
}

// Two pieces with flushes around them: two chunks and no empty one.
int Stream(QKClient *client, void *) {
    return Done(QKClientSuccess(client, 0) == QK_COMMAND_DONE && QKClientFlush(client) &&
                QKClientWriteString(client, "ab") && QKClientFlush(client) &&
                QKClientFlush(client) && QKClientWriteString(client, "cde"));
}

// The command's user data and name, then the request path.
int Path(QKClient *client, void *userData) {
    ByteArray path = {nullptr, 0, 0};
    QKClientGetPath(client, &path);
    std::string out = std::string((const char *)userData) + ":" + QKClientCommand(client) + "|" +
                      std::string((const char *)path.data, path.length - 1);  // without its NUL
    ArrayFree(path);
    return Answer(client, out);
}

// Every stored header, then what the server took from them.
int Headers(QKClient *client, void *) {
    std::string out;
    auto add = [&](const std::string &name, const char *value) {
        if (value) out += name + "=" + value + ";";
    };
    for (UInt i = 0; i < QKClientHeaderNum(client); i++)
        add(QKClientHeaderName(client, i), QKClientHeaderValue(client, i));
    const char *host;
    UInt port;
    if (QKClientHost(client, &host, &port))
        add("host", (host + (":" + std::to_string(port))).c_str());
    add("x-test", QKClientHeader(client, "X-TEST"));
    add("cookies", QKClientCookies(client));
    add("basic", QKClientAuthorization(client));
    add("agent", QKClientName(client));
    out += "features=";
    for (UInt bit = 1; bit <= 16; bit <<= 1) out += QKClientFeature(client, bit) ? "1" : "0";
    return Answer(client, out);
}

// "name=value;" for each argument pair, then "end".
int Script(QKClient *client, void *) {
    const char *name, *value;
    QKClientSuccess(client, 0);
    while (QKClientScriptArg(client, &name, &value))
        for (const char *piece : {name, "=", value, ";"}) QKClientWriteString(client, piece);
    return Done(QKClientWriteString(client, "end"));
}

// "?s=STATUS&l=LOCATION&t=TEXT&f=FORMAT&e=ENCODING&x=SECONDS": a head
// made to order.
int Status(QKClient *client, void *) {
    std::map<std::string, std::string> a = {{"s", "200"}};
    const char *name, *value;
    while (QKClientScriptArg(client, &name, &value)) a[name] = value;
    if (a.count("f")) QKClientSetFormat(client, std::stoi(a["f"]));
    if (a.count("e")) QKClientSetEncoding(client, std::stoi(a["e"]));
    if (a.count("x")) QKClientSetExpirationDelay(client, std::stoi(a["x"]));
    return Done(QKClientHttpHeader(client, std::stoi(a["s"]),
                                   a.count("l") ? a["l"].c_str() : nullptr,
                                   a.count("t") ? a["t"].c_str() : nullptr, nullptr));
}

// The same characters in each escape mode, separated by '|'.
int Chars(QKClient *client, void *) {
    const std::u16string text = u"aZ0 <>&\"'$~/\u00e9\u20ac";
    QKClientSuccess(client, 0);
    for (UInt mode = 0; mode <= QK_WRITE_XML; mode++)
        QKClientWriteUCS2Buf(client, mode, (const UShort *)text.data(), (UInt)text.size()),
            QKClientWriteString(client, "|");
    return QK_COMMAND_DONE;
}

// clang-format off
QKServerCommand commands[] = {
    Command("/hello", Hello), Command("/sized", Hello, (void *)1),
    Command("/only11", Hello, nullptr, PROTOCOL_HTTP11), Command("/stream", Stream),
    Command("/a", Path, (void *)"A"), Command("/a/b", Path, (void *)"AB"),
    Command("", Path, (void *)"INDEX"), Command("/headers", Headers), Command("/script", Script),
    Command("/status", Status), Command("/chars", Chars)};
// clang-format on

// An HTTP reply with its Date and Expires lines checked for their form and
// replaced by "Date: *" and "Expires: *", so that it can be compared byte
// for byte.
std::string StableDates(const std::string &reply) {
    static const std::regex date(
        "\r\n(Date|Expires): (Sun|Mon|Tue|Wed|Thu|Fri|Sat), [0-9]{2} (Jan|"
        "Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) [0-9]{4} [0-9]{2}(:[0-9]{2}){2} GMT\r\n");
    return std::regex_replace(reply, date, "\r\n$1: *\r\n");
}

const std::string kText = "Content-Type: text/plain;charset=iso-8859-1\r\n",
                  kClose = "Connection: close\r\n";

std::string Head(const std::string &status, const std::string &lines) {
    return "HTTP/1.1 " + status + "\r\nServer: QK/" + QKVersionString() + "\r\nDate: *\r\n" + lines;
}

// A reply whose body is held for its length, and one in chunks.
std::string Held(const std::string &status, const std::string &connection, const std::string &body,
                 const std::string &type = kText) {
    return Head(status, type + connection + "Content-Length: " + std::to_string(body.size()) +
                            "\r\n\r\n" + body);
}

std::string Chunked(const std::string &connection, const std::string &chunks) {
    return Head("200 OK", kText + connection + "Transfer-Encoding: chunked\r\n\r\n") + chunks +
           "0\r\n\r\n";
}

class HttpTest : public ::testing::Test {
  protected:
    // The replies to the requests sent at once on a new connection, which
    // then must end.
    std::vector<std::string> Replies(const std::string &requests, size_t count) {
        RawClient client(server_.port);
        client.Send(requests);
        std::vector<std::string> replies;
        while (replies.size() < count) replies.push_back(StableDates(client.ReadHttp()));
        EXPECT_TRUE(client.AtEnd()) << requests;
        return replies;
    }

    TestServer server_{Pointers(commands)};
};

TEST_F(HttpTest, RepliesByteForByte) {
    const std::string earlyError = "400 Bad Request", refused = Held(earlyError, kClose, ""),
                      html = "Content-Type: text/html;charset=iso-8859-1\r\n";
    const struct {
        std::string requests;
        std::vector<std::string> replies;
    } cases[] = {
        // 1.1 replies are chunked and the connection stays, with requests
        // pipelined behind each other, until the client closes it.
        {"GET /hello HTTP/1.1\r\nHost: here\r\n\r\nGET /stream HTTP/1.1\r\n\r\n"
         "GET /sized HTTP/1.1\r\n\r\nGET /hello HTTP/1.1\r\nConnection: close\r\n\r\n",
         {Chunked("", "5\r\nhello\r\n"), Chunked("", "2\r\nab\r\n3\r\ncde\r\n"),
          Held("200 OK", "", "hello"), Chunked(kClose, "5\r\nhello\r\n")}},
        // 1.0 holds the body to write its length.
        {"GET /stream HTTP/1.0\r\n\r\n", {Held("200 OK", kClose, "abcde")}},
        {"GET /hello HTTP/1.0\r\nConnection: Keep-Alive\r\n\r\nGET /hello HTTP/1.0\r\n\r\n",
         {Held("200 OK", "Connection: Keep-Alive\r\n", "hello"), Held("200 OK", kClose, "hello")}},
        // 0.9 has no head.
        {"GET /stream\r\n", {"abcde"}},
        // Errors before the version are answered as 1.0, and close.
        {"GET hello HTTP/1.1\r\n\r\n", {Held(earlyError, kClose, "invalid path")}},
        {"GET /hello HTTP/2.0\r\n\r\n", {Held(earlyError, kClose, "illegal protocol version")}},
        {"HEAD /hello HTTP/1.1\r\n\r\n", {Held(earlyError, kClose, "command not supported")}},
        {"PUT /hello HTTP/1.1\r\n\r\n",
         {Held("501 Not Implemented", kClose, "Method not supported")}},
        // OPTIONS; a command for 1.1 only, asked in 1.0, is an error without
        // text.
        {"OPTIONS * HTTP/1.1\r\n\r\nOPTIONS /hello HTTP/1.1\r\n\r\nGET /only11 HTTP/1.0\r\n\r\n",
         {Head("200 OK", kText + "Allow: GET, POST\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n"),
          Head("400 Bad Request", kText + "Transfer-Encoding: chunked\r\n\r\n") +
              "15\r\ncommand not supported\r\n0\r\n\r\n",
          refused}},
        // A form joins the target; without a length, or too big for the
        // line, it is refused.
        {"POST /script?x=0 HTTP/1.1\r\nContent-Type: application/x-www-form-urlencoded\r\n"
         "Content-Length: 7\r\nConnection: keep-alive\r\n\r\na=1&b=2",
         {Chunked(kClose, "f\r\nx=0;a=1;b=2;end\r\n")}},
        // With "100-continue" expected, the interim reply comes before the
        // form is read.
        {"POST /script HTTP/1.1\r\nExpect: 100-continue\r\nContent-Length: 3\r\n\r\nk=v",
         {"HTTP/1.1 100 CONTINUE\r\n\r\n" + Chunked(kClose, "7\r\nk=v;end\r\n")}},
        {"POST /script HTTP/1.0\r\n\r\n", {refused}},
        {"POST /script HTTP/1.0\r\nContent-Length: 65530\r\n\r\n", {refused}},
        {"POST /script HTTP/1.0\r\nContent-Length: 65527\r\n\r\n" + std::string(65527, '&'),
         {Held("200 OK", kClose, "end")}},
        // Heads follow the status and the format.
        {"GET /status?s=302&l=%2Fthere HTTP/1.0\r\n\r\n",
         {Held("302 Moved Temporarily", "Location: /there\r\n" + kClose, "/there", html)}},
        {"GET /status?s=401&l=realm&t=who&f=2 HTTP/1.0\r\n\r\n",
         {Held("401 Unauthorized", "WWW-Authenticate: Basic realm=\"realm\"\r\n" + kClose,
               "<html><body><h1>who</h1></body></html>\r\n", html)}},
        {"GET /status?s=299&f=4&e=186&x=60 HTTP/1.0\r\n\r\n",
         {Held("299 ", kClose + "Expires: *\r\n", "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n",
               "Content-Type: text/xml;charset=utf-8\r\n")}},
        {"GET /status?f=17&e=186 HTTP/1.0\r\n\r\n",
         {Held("200 OK", kClose, "", "Content-Type: image/png\r\n")}},
        {"GET /status?f=0&e=7 HTTP/1.0\r\n\r\n",
         {Held("200 OK", kClose, "", "Content-Type: text/plain\r\n")}},
    };
    for (const auto &c : cases) EXPECT_EQ(Replies(c.requests, c.replies.size()), c.replies);
}

TEST_F(HttpTest, BodiesOn10) {
    const struct {
        std::string target, head, body;
    } cases[] = {
        // The longest name wins; names end at a slash or a query.
        // clang-format off
        {"/a/b/c", "", "AB:/a/b|/a/b/c"}, {"/a/b", "", "AB:/a/b|/a/b"},
        {"/a?q=1", "", "A:/a|/a?q=1"}, {"/a/x", "", "A:/a|/a/x"}, {"/ab", "", "INDEX:|/ab"},
        {"/", "", "INDEX:|/"},  // the empty name takes every path
        // clang-format on
        // Headers are stored and taken; a Latin-1 byte in a value is kept
        // as UTF-8.
        {"/headers",
         "Host: example.org:8080\r\nX-Test: \t v1: v2\r\nno colon here\r\n: no name\r\n"
         "Cookie: c=1\r\nAuthorization: Basic dXNlcg==\r\n"
         "User-Agent: Mozilla/5.0 (compatible; MSIE 6.0)\r\n",
         "Host=example.org:8080;X-Test=v1: v2;Cookie=c=1;Authorization=Basic dXNlcg==;"
         "User-Agent=Mozilla/5.0 (compatible; MSIE 6.0);host=example.org:8080;x-test=v1: v2;"
         "cookies=c=1;basic=dXNlcg==;agent=Mozilla/5.0 (compatible; MSIE 6.0);features=11111"},
        {"/headers", "host: plain\r\nUser-Agent: MSIE 3.0\r\nAuthorization: Digest x\r\n",
         "host=plain;User-Agent=MSIE 3.0;Authorization=Digest x;host=plain:80;"
         "agent=MSIE 3.0;features=11110"},
        {"/headers", "X-Test: caf\xe9\r\nHost:\r\n",
         "X-Test=caf\xc3\xa9;Host=;x-test=caf\xc3\xa9;features=00000"},
        // Script arguments are decoded: UTF-8 when the whole is UTF-8, else
        // Latin-1 for every byte; an empty name ends them.
        // clang-format off
        {"/script?a=1&b&c=3", "", "a=1;b=;c=3;end"}, {"/script?=x", "", "end"},
        {"/script/a=x+y/b=%41%00z", "", "a=x+y;b=A z;end"},
        {"/script?a=x+y&&b=%3d&c%3Dd=%26", "", "a=x y;b==;c=d=&;end"},
        {"/script?a=%C3%A9", "", "a=\xc3\xa9;end"},
        {"/script?a=%C3%A9&b=%E9", "", "a=\xc3\x83\xc2\xa9;b=\xc3\xa9;end"},
        // clang-format on
        {"/status?s=301&l=%2Fx&f=1", "",
         "<html><body>This page was moved <a href=\"/x\">here</a>.</body></html>\r\n"},
        {"/status?f=6", "",
         "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n<!DOCTYPE wml PUBLIC "
         "\"-//WAPFORUM//DTD WML 1.1//EN\" \"http://www.wapforum.org/DTD/wml_1.1.xml\">\n"},
        // Characters escaped by mode.
        {"/chars", "",
         "aZ0 <>&\"'$~/\xe9\xac|aZ0 <>&\"'$~/\xc3\xa9\xe2\x82\xac|"
         "aZ0%20%3c%3e%26%22%27%24~%2f%e9|aZ0 &lt;&gt;&amp;&quot;'$~/\xe9\xac|"
         "aZ0 &lt;&gt;&amp;&quot;&apos;$$~/\xe9\xac|"},
    };
    for (const auto &c : cases) EXPECT_EQ(Get(server_.port, c.target, c.head), c.body) << c.target;
}

}  // namespace
