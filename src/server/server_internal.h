// The command server, private to its sources: the server and client objects,
// the command tables, the process-wide count of requests in progress, and
// the steps of a request that the sources share.
#pragma once

#include <sys/socket.h>

#include <atomic>

#include "qk/qkcommon.h"
#include "qk/server.h"

#ifndef FALSE
#define FALSE 0
#endif

namespace qk::server {

constexpr UInt kLineSize = 65536;  // a request line, NUL included
constexpr UInt kWorkSize = 65536;  // decoded arguments and header lines
constexpr UInt kNameSize = 1024;   // the user agent
constexpr UInt kAuthorizationSize = 512;
constexpr UInt kCookiesSize = 2048;
constexpr UInt kHostSize = 264;
constexpr UInt kHeadersSize = 4096;  // the store of header names and values
constexpr UInt kMaxHeaders = 64;

// keepAliveTimeout before QKServerSetKeepAliveTimeout: no limit.
constexpr Int kKeepAliveNotSet = -2;

// A registered command. The entry lives apart from the tables, so that a
// request that found it keeps it while the tables change; `c_active` counts
// those requests, and a replaced or deleted entry is freed when it falls to
// 0.
struct CommandEntry {
    QKServerCommand *command;
    UInt nameLength;
    UInt c_active;
    int deleted;
};

typedef QK_ARRAY(CommandEntry *) CommandArray;

}  // namespace qk::server

struct QKClient {
    char c_line[qk::server::kLineSize];
    UInt c_request;
    UInt c_protocol;
    UInt c_format;
    UInt c_encoding;
    UInt c_features;
    char c_name[qk::server::kNameSize];
    Int c_contentLength;  // of the reply; -1 unknown
    int c_query;
    char c_authorizationText[qk::server::kAuthorizationSize];
    char c_cookiesText[qk::server::kCookiesSize];
    const char *c_authorization;  // none, or c_authorizationText
    const char *c_cookies;        // none, or c_cookiesText
    char c_host[qk::server::kHostSize];
    UInt c_port;
    char *c_command;
    char *c_commandArgs;
    char *c_args;
    UInt c_argEncoding;
    int c_lookahead;         // the argument reader's next character or code
    int c_lookaheadEscaped;  // it came from a percent escape
    UInt c_workLength;
    char c_work[qk::server::kWorkSize];
    char c_headers[qk::server::kHeadersSize];
    UInt c_headersUsed;
    const char *c_headerNames[qk::server::kMaxHeaders];
    const char *c_headerValues[qk::server::kMaxHeaders];
    UInt c_headerCount;
    Channel *c_channel;
    int c_buffered;
    int c_chunked;
    ByteArray c_body;
    int c_keepAlive;
    Int c_expiration;
    QKServer *c_server;
    int c_assigned;  // reserved by the accepting thread (threadLock)
    UInt c_number;
    Condition c_condition;
    QKClient *c_next;  // on freeClients (threadLock)
    ByteArray c_env;
    int c_authenticated;
    Int c_readTimeout;
    Int c_writeTimeout;

    // The request in the making.
    Int c_requestLength;  // Content-Length of a POST body; -1 unknown
    int c_expectContinue;
    int c_form;
    int c_lineEnd;  // the byte that ended the request line

    // The worker's own data.
    int c_counted;        // this line counts in the process's active requests
    int c_ready;          // a connection was handed over (threadLock)
    Mutex c_waitLock;     // guards c_waiting against QKServerRun's stop
    int c_waiting;        // blocked for the first byte of a request
    QKClient *c_allNext;  // all clients of the server (threadLock)
};

struct QKServer {
    qk::server::CommandArray s_native;
    qk::server::CommandArray s_http;  // longest name first
    Condition condition;
    Mutex commandLock;
    int builtins;
    int http;
    SSLConfig *ssl;
    QKServerExitFunction onExit;
    QKServerCleanupFunction onCleanup;
    QKServerRotateFunction onRotate;
    void *userData;
    QKAuthKey *authKey;
    Mutex threadLock;
    QKClient *freeClients;
    UInt threads;
    UInt maxThreads;
    UInt clientNumber;
    Int readTimeout;
    Int writeTimeout;
    Int threadLinger;
    Int keepAliveTimeout;
    Int maxActive;
    UInt stackSize;
    Int pid;

    // Running and stopping.
    TCPServer *listener;
    QKClient *allClients;   // threadLock
    Condition threadsDone;  // signalled when `threads` falls to 0
    std::atomic<int> stopRequested;
    std::atomic<int> stopping;   // QKServerRun is ending the workers
    std::atomic<int> wakeReady;  // wakeAddress is set
    struct sockaddr_storage wakeAddress;
    socklen_t wakeLength;
};

namespace qk::server {

// Channel time-outs in milliseconds from seconds, 0 or below meaning none;
// a time-out beyond what the milliseconds hold is the longest they hold.
inline Int Millis(Int seconds) {
    if (seconds <= 0) return -1;
    return seconds < 0x7FFFFFFF / 1000 ? seconds * 1000 : 0x7FFFFFFF;
}

inline bool IsBlank(int c) {
    return c == ' ' || c == '\t';
}

// ---- The process-wide state (process_state.cpp) ----

// A line has begun: counts it in `active`. Gives the count with it and
// the `exiting` flag.
void ActiveEnter(UInt *active, bool *exiting);
// The line is done: counts it out, waking a clean exit at 0.
void ActiveLeave();
// Sets `exiting`; false when it was already set.
bool BeginExit();
// Waits until no request is in progress.
void WaitForIdle();

// ---- Command tables (commands.cpp) ----

// Finds the command of a native line or an HTTP target and raises its
// c_active; none when there is none.
CommandEntry *FindNative(QKServer *server, const char *line);
CommandEntry *FindHttp(QKServer *server, const char *target);
// Looks up a native command by its exact name (for "help").
CommandEntry *FindNativeByName(QKServer *server, const char *name);
// Lowers c_active, waking a replacement or deletion at 0.
void ReleaseEntry(QKServer *server, CommandEntry *entry);
// Appends "help NAME\n" for each native command, in order.
void ListNativeCommands(QKServer *server, ByteArray *text);
// Registers a record of QKServerNew: false with the error state set for an
// invalid record or a name used twice.
bool RegisterNew(QKServer *server, QKServerCommand *record);
// Takes every entry out of the tables and frees it.
void UnregisterAll(QKServer *server);

// ---- Requests (dispatch.cpp, http_request.cpp) ----

// Resets the per-request fields of the client.
void ResetRequest(QKClient *client);
// Dispatches the NUL-terminated line in c_line; above 0 the
// connection goes on.
int DispatchLine(QKClient *client, bool refuse);
// Serves an HTTP request whose method word has been read; `rest` is what
// follows it in the line. Above 0 the connection goes on.
int HttpRequest(QKClient *client, UInt request, char *rest);
// Reads the head of an HTTP request up to the empty line, storing the
// header lines and taking in those the server uses (http_head.cpp). False
// on a zero byte or a read failure.
bool ReadHead(QKClient *client);
// Sets the argument encoding of an HTTP request and reads ahead the first
// character (http_args.cpp).
void HttpArgsStart(QKClient *client);

// ---- Builtin commands (builtins.cpp, builtin_exit.cpp) ----

struct Builtin {
    const char *name;
    const char *help;
    QKServerCommandFunction function;
};

// The builtin whose name is the first word of `line`, or none.
const Builtin *FindBuiltin(const char *line);
// The builtin named `name` exactly, or none.
const Builtin *FindBuiltinByName(const char *name);
// Appends "help NAME\n" for each builtin, in order.
void ListBuiltins(ByteArray *text);
// The builtins of the process's life, with authentication required.
int BuiltinAbort(QKClient *client, void *unused);
int BuiltinExit(QKClient *client, void *unused);
int BuiltinRotate(QKClient *client, void *unused);
int BuiltinAuth(QKClient *client, void *unused);
// The error "connection not authenticated" when a process key is set and
// the connection has not proved it; the status to return, or -1 to go on.
int RequireAuthentication(QKClient *client);

// ---- Clients and workers (client_life.cpp, worker.cpp) ----

QKClient *ClientNew(QKServer *server);
void ClientFree(QKClient *client);
// The worker thread of a client.
UInt WorkerMain(void *argument);
// Wakes the workers of a stopping server; under threadLock.
void WakeWorkers(QKServer *server);

// Writes to the reply's body or the channel (reply.cpp).
int ClientWrite(QKClient *client, const void *buffer, UInt size);

// ---- Authentication (auth_key.cpp) ----

// The key itself: the process key for QK_AUTH_PROCESS_KEY; none when there
// is none.
const QKAuthKey *ResolveKey(const QKAuthKey *key);

}  // namespace qk::server
