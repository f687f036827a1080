// The command server's requests, native and HTTP. Each input is sent on a
// new connection to an in-process server on a local socket, the writing side
// is then shut, and the replies are read until the server closes. The server
// has a native command for each kind of argument, which takes arguments of
// its kind until one fails, and an HTTP command on every path, which reads
// the script arguments, the headers and what the server took from them. A
// process key is set, so that exit, abort and rotate stay refused.
#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "fuzz_util.h"

namespace {

// The next argument of kind `kind` (0 to 7, in the order of kNames below)
// appended to `out` as text; false when there is none.
bool NextArg(QKClient *client, intptr_t kind, std::string *out) {
    const char *word = nullptr;
    UInt u = 0;
    ULong ul = 0;
    Long l = 0;
    double d = 0;
    const int ok = kind == 0   ? QKClientStringArg(client, &word)
                   : kind == 1 ? QKClientQuotedArg(client, &word)
                   : kind == 2 ? QKClientIntegerArg(client, &u, 5, 1000)
                   : kind == 3 ? QKClientLongArg(client, &ul, 0, 0)
                   : kind == 4 ? QKClientSignedLongArg(client, &l, -1000, 1000)
                   : kind == 5 ? QKClientDoubleArg(client, &d, -1e6, 1e6)
                   : kind == 6 ? QKClientHexArg(client, &u, 0, 0)
                               : QKClientHexLongArg(client, &ul, 16, 0xFFFFFFFF);
    *out += word ? std::string(word) : std::to_string(u + ul + l) + std::to_string(d);
    return ok;
}

int NativeArgs(QKClient *client, void *kind) {
    std::string out;
    while (NextArg(client, (intptr_t)kind, &out)) out += ' ';
    if (*QKClientArgs(client) != '\0')
        return QKClientError(client, QK_CLIENT_ILLEGAL_ARGUMENT, QKClientArgs(client));
    if (QKClientSuccess(client, out.size()) != QK_COMMAND_DONE) return QK_COMMAND_DROP;
    return QKClientWriteBuf(client, out.c_str(), (UInt)out.size() + 1) ? QK_COMMAND_DONE
                                                                       : QK_COMMAND_DROP;
}

int HttpArgs(QKClient *client, void *) {
    std::string out;
    const char *name, *value, *host;
    while (QKClientScriptArg(client, &name, &value)) out += std::string(name) + "=" + value + ";";
    for (UInt i = 0; i < QKClientHeaderNum(client); i++)
        out += std::string(QKClientHeaderName(client, i)) + ":" + QKClientHeaderValue(client, i);
    UInt port;
    if (QKClientHost(client, &host, &port)) out += host + std::to_string(port);
    for (const char *text : {QKClientHeader(client, "x-a"), QKClientName(client),
                             QKClientCookies(client), QKClientAuthorization(client)})
        out += text ? text : "-";
    QKClientSetFormat(client, QKClientFeature(client, 16) ? QK_FORMAT_HTML : QK_FORMAT_XML);
    if (QKClientSuccess(client, 0) != QK_COMMAND_DONE) return QK_COMMAND_DROP;
    return QKClientWriteString(client, out.c_str()) ? QK_COMMAND_DONE : QK_COMMAND_DROP;
}

// The path of the server's socket; the server runs until the process ends.
const std::string &ServerPath() {
    static const std::string path = [] {
        setenv("QK_SOCKET_DIR", qkfuzz::FreshDir().c_str(), 1);
        QKAuthSetProcessKey(QKAuthKeyGenerate());
        static const char *const kNames[] = {"str",   "quoted", "int", "long",
                                             "slong", "double", "hex", "hexlong"};
        static QKServerCommand commands[9];
        static QKServerCommand *list[10] = {};
        for (int i = 0; i < 8; i++) {
            commands[i] = {kNames[i], NativeArgs, nullptr, PROTOCOL_NATIVE, (void *)(intptr_t)i};
            list[i] = &commands[i];
        }
        commands[8] = {"", HttpArgs, nullptr, PROTOCOL_HTTP10 | PROTOCOL_HTTP11, nullptr};
        list[8] = &commands[8];
        static QKServer *server = QKServerNew(1, 1, list, nullptr, nullptr, nullptr, nullptr,
                                              QK_AUTH_PROCESS_KEY, 10, 10, 60, 0, 0);
        TCPAddr addr = {};
        addr.ip.family = QK_FAMILY_LOCAL;
        strcpy(addr.ip.u.name, "fuzz");
        addr.port = 1;
        FUZZ_CHECK(server != nullptr && QKServerListen(server, addr, 0));
        ThreadCreateDetached([](void *s) { return (UInt)QKServerRun((QKServer *)s); }, server, 0);
        char buffer[256];
        FUZZ_CHECK(QKUnixSocketPath(&addr, buffer, sizeof buffer) < sizeof buffer);
        return std::string(buffer);
    }();
    return path;
}

int Connect() {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, ServerPath().c_str(), sizeof address.sun_path - 1);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    FUZZ_CHECK(fd >= 0 && connect(fd, (sockaddr *)&address, sizeof address) == 0);
    return fd;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const int fd = Connect();
    size_t sent = 0;
    bool writing = true;
    for (;;) {
        if (writing && sent == size) {
            shutdown(fd, SHUT_WR);
            writing = false;
        }
        pollfd p = {fd, (short)(POLLIN | (writing ? POLLOUT : 0)), 0};
        int ready;
        while ((ready = poll(&p, 1, 30000)) < 0 && errno == EINTR) {
        }
        FUZZ_CHECK(ready == 1);  // the server never leaves a request hanging
        if (p.revents & (POLLIN | POLLHUP | POLLERR)) {
            char reply[65536];
            ssize_t n = recv(fd, reply, sizeof reply, 0);
            if (n == 0 || (n < 0 && errno != EINTR)) break;
        } else if (writing) {
            ssize_t n = send(fd, data + sent, size - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
            if (n > 0) sent += (size_t)n;
            if (n < 0 && errno != EAGAIN && errno != EINTR)
                writing = false;  // the server has closed
        }
    }
    close(fd);
    return 0;
}
