/*
 * Addresses and channels: the library's one buffered byte stream over a TCP
 * socket, a local (AF_UNIX) socket or a file, with time-outs, TLS, and an
 * optional scrambling of the bytes by a fingerprint keystream.
 *
 * A Channel holds its two buffers inside the object, so it allocates
 * nothing while it runs. Single bytes move through the inline macros below;
 * the functions are called once per buffer.
 *
 * Time-outs are in milliseconds as given by callers; a negative value means
 * no limit. A socket is non-blocking exactly when its read or write time-out
 * is at or above 0. SocketWait takes its time-out as whole seconds (callers
 * pass milliseconds, so a socket wait lasts that many seconds); ChannelSelect
 * takes real milliseconds.
 *
 * Read codes: -1 end of file (errno 0), -2 error (error state set), -3
 * time-out ((2, 2) set). ChannelReadUTF8 adds -4 for a malformed sequence.
 */
#ifndef QK_CHANNEL_H
#define QK_CHANNEL_H

#include "qk/array.h"
#include "qk/types.h"

QK_BEGIN_DECLS

/* ---- Addresses ---- */

enum {
    QK_FAMILY_NONE = 0,
    QK_FAMILY_IPV4 = 1,
    QK_FAMILY_IPV6 = 2,
    QK_FAMILY_LOCAL = 3 /* a local stream socket named by `host` */
};

/* Family 1: `addr4` in host byte order in the first four bytes of `host`.
 * Family 2: the IPv6 address in network order. Family 3: a zero-terminated
 * local socket name of at most 15 characters. */
typedef struct IPAddr {
    union {
        UByte host[16];
        UInt addr4;
        UByte addr6[16];
        char name[16];
    } u;
    Int family;
} IPAddr;

typedef struct TCPAddr {
    IPAddr ip;
    UShort port;
} TCPAddr;

QK_API void QKTCPInit(void);
QK_API void QKUnixSocketSetBase(const char *base);
/* The file system path of a local socket address:
 * "<dir>/qk.<base>.<name>.<port>", where <dir> is the environment variable
 * QK_SOCKET_DIR or "/tmp". Copies at most `size` bytes including the
 * terminator and returns the full length. */
QK_API size_t QKUnixSocketPath(const TCPAddr *addr, char *buffer, size_t size);
QK_API int QKIsFamilySupported(Int family);
QK_API int QKSetDefaultFamily(Int family);
QK_API Int QKGetDefaultFamily(void);

QK_API IPAddr IPAddrLocal(Int family);
QK_API IPAddr IPAddrAny(Int family);
QK_API int IPAddrIsLocal(IPAddr addr);
QK_API int IPAddrIsAny(IPAddr addr);
QK_API int IPAddrEquals(IPAddr a, IPAddr b);
QK_API UInt IPAddrGetAddr4(IPAddr addr);
QK_API int IPAddrCopyAddr6(IPAddr addr, UByte *target);
QK_API void IPAddrSetAddr4(IPAddr *addr, UInt value);
QK_API void IPAddrSetAddr6(IPAddr *addr, const UByte *value);
QK_API int IPAddrSetIP(IPAddr *addr, const char *text);
QK_API int IPAddrSetHost(IPAddr *addr, const char *text);
/* `array` is an Array of IPAddr, emptied first. */
QK_API int IPAddrSetHostMultiple(void *array, const char *text);
/* Append to a byte Array (kept zero-terminated beyond its length). */
QK_API int IPAddrGetIP(IPAddr addr, ByteArray *array);
QK_API int IPAddrGetHost(IPAddr addr, ByteArray *array);

QK_API TCPAddr TCPAddrLocal(Int family, UShort port);
QK_API TCPAddr TCPAddrAny(Int family, UShort port);
QK_API int TCPAddrSetHostPort(TCPAddr *addr, const char *text);
QK_API int TCPAddrParsePortArg(TCPAddr *addr, const char *text);
QK_API int TCPAddrGetIPPort(TCPAddr addr, ByteArray *array);

/* ---- TLS settings ---- */

/* Opaque TLS settings (a context with certificate, key and trust), shared by
 * any number of channels; made by SSLConfigNew. */
typedef struct SSLConfig SSLConfig;

/* ---- Channels ---- */

#define CHANNEL_BUFFER_SIZE 11680
/* The largest transfer handed to one system call. */
#define CHANNEL_MAX_TRANSFER 134217728

typedef struct Channel {
    int fd; /* -1 when not connected */
    Int readTimeout;
    Int writeTimeout;
    Int connectTimeout;
    UShort portMin;
    UShort portMax;
    UShort portNext;
    UByte own;
    Int crtFd;
    UByte isSocket;
    SSLConfig *sslConfig;
    void *sslExtra; /* the peer's host name for a client's verification */
    void *ssl;      /* the live TLS connection */
    UByte isPipe;   /* a local socket */
    UByte obfuscated;
    ULong readKey;
    Int readPos;
    Int readEnd;
    UByte readBuffer[CHANNEL_BUFFER_SIZE];
    ULong writeKey;
    UInt writePos;
    UInt writeScrambled; /* the buffer's first bytes, already obfuscated */
    UByte writeBuffer[CHANNEL_BUFFER_SIZE];
} Channel;

QK_API Channel *ChannelNew(Int readTimeout, Int writeTimeout);
QK_API Channel *ChannelNewEx(Int readTimeout, Int writeTimeout, Int connectTimeout);
QK_API int ChannelClose(Channel *channel);
QK_API size_t ChannelGetMemorySize(const Channel *channel);
QK_API Int ChannelSetReadTimeout(Channel *channel, Int timeout);
QK_API Int ChannelSetWriteTimeout(Channel *channel, Int timeout);
QK_API void ChannelSetConnectTimeout(Channel *channel, Int timeout);
QK_API void ChannelSetOutboundPortRange(Channel *channel, UShort min, UShort max);
QK_API void ChannelSetObfuscationKey(Channel *channel, ULong key);
QK_API int ChannelConnect(Channel *channel, TCPAddr addr);
QK_API int ChannelConnectNamedPipeWithFlags(Channel *channel, TCPAddr addr, UInt flags);
QK_API int ChannelImpersonateNamedPipeClient(Channel *channel);
QK_API int ChannelSetFD(Channel *channel, int descriptor, int own);
QK_API int ChannelOpenFile(Channel *channel, const char *path, const char *mode);
QK_API int ChannelOpenFileUCS2(Channel *channel, const UShort *path, UInt length, const char *mode);
QK_API int ChannelFileSeek(Channel *channel, Long offset);
QK_API int ChannelFileTell(Channel *channel, Long *offset);
QK_API int ChannelFileTruncate(Channel *channel, ULong size);
QK_API void ChannelDisconnect(Channel *channel);
QK_API int ChannelConnected(const Channel *channel);
QK_API int ChannelIsSocket(const Channel *channel);
QK_API int ChannelGetAddr(Channel *channel, TCPAddr *addr, int peer);
QK_API int ChannelShutdown(Channel *channel);

/* Reading. */
QK_API int ChannelReadByte_(Channel *channel, int peek);
QK_API int ChannelReadBuf(Channel *channel, void *buffer, UInt size, UInt *count);
QK_API int ChannelReadLine(Channel *channel, ByteArray *array, UInt max);
QK_API int ChannelReadUIntLE(Channel *channel, UInt *value);
QK_API int ChannelReadULongLE(Channel *channel, ULong *value);
QK_API int ChannelReadUTF8(Channel *channel);
QK_API int ChannelReadUTF8Field(Channel *channel, UInt *remaining);

/* The next byte, or a read code. */
#define ChannelReadByte(c) \
    ((c)->readPos < (c)->readEnd ? (int)(c)->readBuffer[(c)->readPos++] : ChannelReadByte_((c), 0))
/* The next byte left unread, or a read code. */
#define ChannelPeekByte(c) \
    ((c)->readPos < (c)->readEnd ? (int)(c)->readBuffer[(c)->readPos] : ChannelReadByte_((c), 1))

/* Writing: 1, or 0 with the error state set. */
QK_API int ChannelWriteBuf(Channel *channel, const void *buffer, UInt size);
QK_API int ChannelWriteString(Channel *channel, const char *text);
QK_API int ChannelWriteInt(Channel *channel, Int value);
QK_API int ChannelWriteUInt(Channel *channel, UInt value);
QK_API int ChannelWriteLong(Channel *channel, Long value);
QK_API int ChannelWriteULong(Channel *channel, ULong value);
QK_API int ChannelWriteHexInt(Channel *channel, UInt value);
QK_API int ChannelWriteHexLong(Channel *channel, ULong value);
QK_API int ChannelWriteDouble(Channel *channel, double value);
QK_API int ChannelWriteUIntLE(Channel *channel, UInt value);
QK_API int ChannelWriteULongLE(Channel *channel, ULong value);
QK_API int ChannelWriteUTF8(Channel *channel, UShort character);
QK_API int ChannelFlush(Channel *channel);
QK_API int ChannelSync(Channel *channel);

/* One byte: 1, or 0 when the full buffer could not be flushed. */
#define ChannelWriteByte(c, b)                                  \
    (((c)->writePos >= CHANNEL_BUFFER_SIZE && !ChannelFlush(c)) \
         ? 0                                                    \
         : ((c)->writeBuffer[(c)->writePos++] = (UByte)(b), 1))

/* Waiting. */
QK_API int SocketWait(int socket, int forWrite, Int timeout);
QK_API Int ChannelSelect(Channel **channels, UInt count, Int milliseconds);

/* ---- Serial forms on a channel ----
 * Integers are written byte by byte, least significant first, with a width
 * of 1 to 8 bytes. A byte Array is a 4-byte length and the bytes; an Array of
 * elements is a 4-byte count and each element by its writer. */
typedef int (*ChannelWriteElementFn)(Channel *channel, const void *element, void *userData);
typedef int (*ChannelReadElementFn)(Channel *channel, void *element, void *userData);

QK_API int ChannelWriteIntegerLE(Channel *channel, ULong value, UInt width);
QK_API int ChannelReadIntegerLE(Channel *channel, ULong *value, UInt width);
QK_API int ChannelWriteByteArray(Channel *channel, const void *byteArray);
QK_API int ChannelReadByteArray(Channel *channel, void *byteArray);
QK_API int ChannelWriteArray_(Channel *channel, const void *array, size_t eltSize,
                              ChannelWriteElementFn write, void *userData);
QK_API int ChannelReadArray_(Channel *channel, void *array, size_t eltSize,
                             ChannelReadElementFn read, void *userData, const char *file, int line);
#define ChannelWriteArray(ch, a, write, user) \
    ChannelWriteArray_((ch), &(a), sizeof *(a).data, (write), (user))
#define ChannelReadArray(ch, a, read, user) \
    ChannelReadArray_((ch), &(a), sizeof *(a).data, (read), (user), __FILE__, __LINE__)

/* The serial forms of an FArray: an 8-byte count and the elements. */
typedef int (*FArrayWriteElementFn)(Channel *channel, const void *element, void *userData);
typedef int (*FArrayReadElementFn)(Channel *channel, void *element, void *userData);
QK_API int FArrayWriteRaw_(const FArray *array, Channel *channel, size_t eltSize);
QK_API int FArrayReadRaw_(FArray *array, Channel *channel, size_t eltSize, const char *file,
                          int line);
QK_API int FArrayWrite_(const FArray *array, Channel *channel, void *userData,
                        FArrayWriteElementFn writeElement, size_t eltSize);
QK_API int FArrayRead_(FArray *array, Channel *channel, void *userData,
                       FArrayReadElementFn readElement, size_t eltSize, const char *file, int line);

/* ---- TCP server, datagrams and local sockets ---- */

typedef struct TCPServer TCPServer;

QK_API TCPServer *TCPServerOpen(TCPAddr addr);
QK_API int TCPServerAccept(TCPServer *server, Channel *channel);
QK_API int TCPServerClose(TCPServer *server);
QK_API int TCPServerGetAddr(TCPServer *server, TCPAddr *addr);
QK_API int UDPSendBuf(TCPAddr addr, const void *buffer, UInt size);
/* The access mode of local sockets made from now on (0600 by default); a
 * null descriptor restores the default. */
QK_API void QKSetNamedPipeSecurityDescriptor(const UInt *mode);

/* ---- TLS ---- */

/* Starts the TLS library: 1, or 0 with the error state set. */
QK_API int SSLInit(void);
/* Per-thread set-up of the TLS library, idempotent. */
QK_API void SSLThreadInit(void);
/* Throws (5, 2) "SSL error: <what>: <the library's reason>" and clears the
 * TLS library's error queue. */
QK_API void SSLErrorThrow(const char *what);
/* Settings for the server role (certificate and key required) or the client
 * role (`caFile` to verify the server, or none to accept any certificate).
 * Files are PEM. None on failure. */
QK_API SSLConfig *SSLConfigNew(int server, const char *certificateFile, const char *keyFile,
                               const char *caFile);
QK_API void SSLConfigDelete(SSLConfig *config);
/* Gives a channel TLS settings (none to remove them); a client channel
 * names `hostName` to the server and, when its settings have a CA file,
 * verifies the certificate against it (a name, or an address in text).
 * The settings are not copied and must stay valid as long as the channel
 * may start a session (ChannelConnect, ChannelStartSSL); the name is copied. */
QK_API void ChannelSetSSL(Channel *channel, SSLConfig *config);
QK_API void ChannelSetSSLHost(Channel *channel, const char *hostName);
/* The handshake on a connected channel: 1, or 0 with the error state set. */
QK_API int ChannelStartSSL(Channel *channel, int server);

QK_END_DECLS

#endif /* QK_CHANNEL_H */
