/*
 * The command server: one port that speaks a native line protocol and
 * HTTP/1.0 and 1.1, dispatching each request to a table of commands that the
 * program registers; the client object through which a command reads its
 * request and writes its reply; and the challenge authentication between
 * processes that share a secret key, with the connection obfuscated after it.
 *
 * Threads: one thread accepts; each live connection has a worker thread of
 * its own, which waits `threadLinger` seconds for a new connection when its
 * connection ends, so that workers are reused. No lock is held while a
 * command runs: a command function runs concurrently with itself.
 *
 * The native protocol. A request is a line of at most 65535 bytes ending in
 * LF or CR: a command word and its arguments. A reply is a status line, "!"
 * or "! VALUE" for a success, "? CODE TEXT[: DETAIL]" for an error, then LF;
 * an error ends with a NUL byte, and so does a success that carries output
 * behind its status line (the command writes that NUL itself).
 */
#ifndef QK_SERVER_H
#define QK_SERVER_H

#include "qk/array.h"
#include "qk/channel.h"
#include "qk/types.h"

QK_BEGIN_DECLS

/* ---- Protocols, request kinds, statuses ---- */

/* Values of QKClientProtocol and bits of QKServerCommand.protocols. */
enum {
    PROTOCOL_NATIVE = 1,
    PROTOCOL_HTTP09 = 2,
    PROTOCOL_HTTP10 = 4,
    PROTOCOL_HTTP11 = 8,
    PROTOCOL_HTTP = PROTOCOL_HTTP09 | PROTOCOL_HTTP10 | PROTOCOL_HTTP11
};

/* Values of QKClientRequest. */
enum {
    REQUEST_NATIVE = 0,
    REQUEST_GET = 1,
    REQUEST_POST = 2,
    REQUEST_HEAD = 4,
    REQUEST_OPTIONS = 5
};

/* The status of a command, returned by command functions and by the reply
 * calls. */
enum {
    QK_COMMAND_DONE = 0,  /* done: the server commits the reply */
    QK_COMMAND_ERROR = 1, /* an error was reported to the client; the connection goes on */
    QK_COMMAND_DROP = 2   /* the connection is dead or must be dropped: no commit */
};

/* Error codes of QKClientError. */
enum {
    QK_CLIENT_ILLEGAL_COMMAND = 1,
    QK_CLIENT_ILLEGAL_ARGUMENT = 2,
    QK_CLIENT_NO_DATA = 3,
    QK_CLIENT_DEAD_POOL = 4,
    QK_CLIENT_INTERNAL_ERROR = 5,
    QK_CLIENT_PROTOCOL_ERROR = 6, /* the reply status is QK_COMMAND_DROP */
    QK_CLIENT_WRITE_ERROR = 7,
    QK_CLIENT_READ_ERROR = 8,
    QK_CLIENT_READ_TIMEOUT = 9
};

/* Reply formats of QKClientSetFormat, by content type. */
enum {
    QK_FORMAT_TEXT = 0, /* text/plain */
    QK_FORMAT_HTML = 1, /* text/html; 2 and 3 are text/html too */
    QK_FORMAT_XML = 4,  /* text/xml, with an XML declaration; 5 likewise */
    QK_FORMAT_WML = 6,  /* text/vnd.wap.wml, with the declaration and doctype */
    QK_FORMAT_GIF = 7,  /* then 8 jpeg, 9 css, 10 javascript, 11 wbmp, 12 pdf, */
    QK_FORMAT_PNG = 17, /* 13 flash, 14 word, 15 excel, 16 powerpoint, 17 png, */
    QK_FORMAT_ZIP = 18, /* 18 zip, 19 icon, 20 java archive */
    QK_FORMAT_OWN = 21  /* the caller writes its own Content-Type line */
};

/* Charsets of QKClientSetEncoding. */
enum { QK_ENCODING_LATIN1 = 1, QK_ENCODING_UTF8 = 186 };

/* Escapes of QKClientWriteChar. */
enum {
    QK_WRITE_LATIN1 = 0, /* the low byte */
    QK_WRITE_UTF8 = 1,
    QK_WRITE_URL = 2,  /* percent escapes; nothing above 255 */
    QK_WRITE_HTML = 3, /* &quot; &amp; &lt; &gt; */
    QK_WRITE_XML = 4   /* as HTML, and &apos;, and "$" doubled */
};

/* ---- Authentication keys ---- */

/* A key: opaque bytes. The pointer QK_AUTH_PROCESS_KEY stands for the
 * process key, looked up at the time of use; none means no key. */
typedef struct QKAuthKey QKAuthKey;
#define QK_AUTH_PROCESS_KEY ((QKAuthKey *)1)

/* Takes "-authkey FILE" out of the arguments (argc shrinks by 2), or else
 * reads the environment variable QKAUTHKEY, and loads the file named as the
 * process key. A file that cannot be loaded is reported at level 3. */
QK_API void QKAuthInit(int *argc, char **argv);
QK_API QKAuthKey *QKAuthGetProcessKey(void);
/* Replaces the process key, deleting the old one: for start-up. */
QK_API void QKAuthSetProcessKey(QKAuthKey *key);
/* A new key of 128 random bytes. */
QK_API QKAuthKey *QKAuthKeyGenerate(void);
QK_API void QKAuthKeyDelete(QKAuthKey *key);
QK_API QKAuthKey *QKAuthKeyDuplicate(const QKAuthKey *key);
QK_API int QKAuthKeyEqual(const QKAuthKey *a, const QKAuthKey *b);
QK_API QKAuthKey *QKAuthKeyFromBuffer(const void *buffer, UInt length);
/* A key of the whole file's bytes, or none with the error state set. */
QK_API QKAuthKey *QKAuthKeyFromFile(const char *path);
/* Append to a byte Array; the text forms stay zero-terminated beyond their
 * length. 1, or 0 with the error state set. */
QK_API int QKAuthKeyToBuffer(const QKAuthKey *key, ByteArray *array);
/* 16 random bytes as 32 lower-case hexadecimal characters. */
QK_API int QKAuthKeyCreateChallenge(const QKAuthKey *key, ByteArray *array);
/* The MD5 of the key's bytes followed by the challenge, in hexadecimal. */
QK_API int QKAuthKeyGetResponse(const QKAuthKey *key, const char *challenge, UInt length,
                                ByteArray *array);
QK_API int QKAuthKeyCheckResponse(const QKAuthKey *key, const char *challenge, UInt length,
                                  const char *response, UInt responseLength);
/* The handshake on a connected channel. The initiator sends "auth
 * CHALLENGE"; the accepting side is given the challenge that the peer sent.
 * After success the channel stays obfuscated in both directions. 1, or 0
 * with the error state set. */
QK_API int ChannelAuthenticate(Channel *channel, const QKAuthKey *key, int initiator,
                               const char *challenge, UInt challengeLength);

/* ---- Commands ---- */

typedef struct QKServer QKServer;
typedef struct QKClient QKClient;

typedef int (*QKServerCommandFunction)(QKClient *client, void *userData);
/* Writes the command's one-line help on the channel: 1, or 0. */
typedef int (*QKServerCommandHelp)(Channel *channel);

/* Kept alive by the program as long as it is registered. A native command
 * (protocols exactly PROTOCOL_NATIVE) is named by the word that starts its
 * line; any other is an HTTP command named by a path, empty or starting with
 * '/', the empty path matching every target. */
typedef struct QKServerCommand {
    const char *name;
    QKServerCommandFunction function;
    QKServerCommandHelp help; /* or none */
    UInt protocols;
    void *userData;
} QKServerCommand;

/* Called after the log rotation of the builtin "rotate": 1, or 0. */
typedef int (*QKServerRotateFunction)(Int age, void *userData);
/* Called once when a clean exit begins. */
typedef void (*QKServerExitFunction)(void *userData);
/* Called at the end of an exit or abort; gives the exit status. */
typedef int (*QKServerCleanupFunction)(int aborting, void *userData);
/* The log rotation behind the builtin "rotate" (`age` in days, -1 none): 1,
 * or 0 with the error state set. Without one, there is nothing to rotate and
 * "rotate" only calls the server's onRotate. */
typedef int (*QKRotateLogFunction)(Int age);

/* ---- The server ---- */

/* QKLibInit and what the server needs. */
QK_API void QKServerInit(void);
/* A server, or none with the error state set. `commands` is an array of
 * records ended by none, or none. `authKey`: none, QK_AUTH_PROCESS_KEY or a
 * key (kept, not copied). Timeouts and `threadLinger` in seconds, 0 or
 * below meaning no limit (threadLinger: workers do not linger). `maxActive`
 * above 0 refuses requests beyond that many in progress. */
QK_API QKServer *QKServerNew(int http, int builtins, QKServerCommand **commands,
                             QKServerRotateFunction onRotate, QKServerExitFunction onExit,
                             QKServerCleanupFunction onCleanup, void *userData, QKAuthKey *authKey,
                             Int readTimeout, Int writeTimeout, Int threadLinger, Int maxActive,
                             UInt stackSize);
/* Frees a server that is not running (never started, or QKServerRun has
 * returned). The records stay the program's. */
QK_API void QKServerDelete(QKServer *server);
/* 1, or 0 for an invalid record. A record of the same name and kind
 * replaces the old one, which falls idle before the call returns and is
 * given in *old (none when there was none). */
QK_API int QKServerCommandAdd(QKServer *server, QKServerCommand *record, QKServerCommand **old);
/* Takes a record out and waits for it to fall idle; none when absent. */
QK_API QKServerCommand *QKServerCommandDelete(QKServer *server, const char *name, UInt protocols);
/* Seconds that a connection may wait for its next request. Not set: no
 * limit; -1: the read timeout. */
QK_API void QKServerSetKeepAliveTimeout(QKServer *server, Int seconds);
QK_API void QKServerSetSSL(QKServer *server, SSLConfig *ssl);
/* The log rotation of "rotate", process-wide. */
QK_API void QKServerSetRotateLogFunction(QKRotateLogFunction function);

/* Opens the listening socket, trying `retries` more times 5 seconds apart:
 * 1, or 0 with the error state set. */
QK_API int QKServerListen(QKServer *server, TCPAddr addr, int retries);
/* The address the server listens on, its port as bound (so that a port 0
 * can be read back): 1, or 0. */
QK_API int QKServerGetAddr(QKServer *server, TCPAddr *addr);
/* Accepts and serves on the calling thread until QKServerStop; then lets the
 * requests in progress finish, ends all workers, closes the listening
 * socket and returns 1. 0 when the server is not listening. */
QK_API int QKServerRun(QKServer *server);
/* Asks QKServerRun to return. Safe from any thread and from a signal
 * handler. */
QK_API void QKServerStop(QKServer *server);
/* QKServerListen and QKServerRun, then the server's onCleanup and QKExit
 * with its status: does not return, except with 0 when the port cannot be
 * opened after all retries. */
QK_API int QKServerStart(QKServer *server, TCPAddr addr, int retries);
QK_API void QKServerStatus(QKServer *server, UInt *threads, UInt *maxThreads);
/* True once a clean exit has begun in the process. */
QK_API int QKServerExiting(void);

/* ---- The client side of the native protocol ---- */

/* Reads a reply's status line: 0 success, 1 error reply (its code in
 * *value), 2 failure with the error state set. The line's text goes to
 * `array` (emptied first); an error reply is read up to its NUL. */
QK_API int QKCommandStatus(Channel *channel, ULong *value, ByteArray *array);
/* Writes a request line and LF, and flushes: 1, or 0. */
QK_API int QKCommandSend(Channel *channel, const char *line);
/* Reads the output of a successful reply up to its NUL into `array`
 * (emptied first, kept zero-terminated): 1, or 0 with the error state set. */
QK_API int QKCommandReadOutput(Channel *channel, ByteArray *array);

/* ---- The client object ---- */

QK_API QKServer *QKClientServer(QKClient *client);
/* The user agent, or none. */
QK_API const char *QKClientName(QKClient *client);
QK_API UInt QKClientProtocol(QKClient *client);
QK_API UInt QKClientRequest(QKClient *client);
QK_API Channel *QKClientChannel(QKClient *client);
QK_API const char *QKClientCommand(QKClient *client);
QK_API const char *QKClientAuthorization(QKClient *client);
QK_API const char *QKClientCookies(QKClient *client);
QK_API UInt QKClientGetFormat(QKClient *client);
QK_API int QKClientAuthenticated(QKClient *client);
QK_API UInt QKClientNumber(QKClient *client);
QK_API UInt QKClientHeaderNum(QKClient *client);
QK_API void QKClientSetContentLength(QKClient *client, Int length);
QK_API void QKClientSetFormat(QKClient *client, UInt format);
QK_API void QKClientSetEncoding(QKClient *client, UInt encoding);
QK_API void QKClientSetExpirationDelay(QKClient *client, Int seconds);
QK_API void QKClientSetKeepAlive(QKClient *client, int keepAlive);
QK_API int QKClientFeature(QKClient *client, UInt mask);
QK_API int QKClientHost(QKClient *client, const char **host, UInt *port);
QK_API const char *QKClientHeader(QKClient *client, const char *name);
QK_API const char *QKClientHeaderName(QKClient *client, UInt index);
QK_API const char *QKClientHeaderValue(QKClient *client, UInt index);
/* Values that last as long as the connection. */
QK_API void QKClientSetEnvString(QKClient *client, const char *name, const char *value);
QK_API const char *QKClientGetEnvString(QKClient *client, const char *name);
/* The request path again, with a NUL counted in the length. */
QK_API void QKClientGetPath(QKClient *client, ByteArray *array);
QK_API void QKClientLog(QKClient *client);

/* Replies. */
QK_API int QKClientHttpHeader(QKClient *client, Int status, const char *location, const char *text,
                              const char *headers);
QK_API int QKClientSuccess(QKClient *client, ULong value);
QK_API int QKClientError(QKClient *client, Int code, const char *detail);
QK_API int QKClientFlush(QKClient *client);
QK_API int QKClientCommit(QKClient *client);
QK_API int QKClientWriteString(QKClient *client, const char *text);
QK_API int QKClientWriteBuf(QKClient *client, const void *buffer, UInt size);
QK_API int QKClientWriteUInt(QKClient *client, UInt value);
QK_API int QKClientWriteULong(QKClient *client, ULong value);
QK_API int QKClientWriteUTF8(QKClient *client, UShort character);
QK_API int QKClientWriteChar(QKClient *client, UInt mode, UShort character);
QK_API int QKClientWriteUCS2Buf(QKClient *client, UInt mode, const UShort *buffer, UInt count);
QK_API int QKClientWriteUCS2String(QKClient *client, UInt mode, const UShortArray *string);

/* Native arguments. */
QK_API const char *QKClientArgs(QKClient *client);
QK_API int QKClientStringArg(QKClient *client, const char **string);
QK_API int QKClientQuotedArg(QKClient *client, const char **string);
QK_API int QKClientIntegerArg(QKClient *client, UInt *value, UInt min, UInt max);
QK_API int QKClientLongArg(QKClient *client, ULong *value, ULong min, ULong max);
QK_API int QKClientSignedLongArg(QKClient *client, Long *value, Long min, Long max);
QK_API int QKClientDoubleArg(QKClient *client, double *value, double min, double max);
QK_API int QKClientHexArg(QKClient *client, UInt *value, UInt min, UInt max);
QK_API int QKClientHexLongArg(QKClient *client, ULong *value, ULong min, ULong max);

/* HTTP arguments: the next name and value, in UTF-8, valid until the next
 * call. */
QK_API int QKClientScriptArg(QKClient *client, const char **name, const char **value);

QK_END_DECLS

#endif /* QK_SERVER_H */
