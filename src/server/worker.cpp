// The worker thread of a client object: it serves one connection after
// another. Between connections it parks on the server's free list and waits
// `threadLinger` seconds for the accepting thread to hand it a new one;
// the handover happens under `threadLock`, so that a connection is never
// lost or served twice. A worker that is not reused in time ends.
#include <string.h>
#include <sys/socket.h>

#include <openssl/crypto.h>

#include "server/server_internal.h"

namespace qk::server {
namespace {

void SetReadTimeout(Channel *channel, Int milliseconds) {
    if (channel->readTimeout != milliseconds) ChannelSetReadTimeout(channel, milliseconds);
}

void SetWriteTimeout(Channel *channel, Int milliseconds) {
    if (channel->writeTimeout != milliseconds) ChannelSetWriteTimeout(channel, milliseconds);
}

// The worker is about to wait for the first byte of a request: while it
// does, a stopping server may shut the connection's reading side to wake it.
// False when the server is stopping already.
bool BeginWait(QKClient *client) {
    MutexLock(&client->c_waitLock);
    bool stopping = client->c_server->stopping.load() != 0;
    if (!stopping) client->c_waiting = 1;
    MutexUnlock(&client->c_waitLock);
    return !stopping;
}

void EndWait(QKClient *client) {
    MutexLock(&client->c_waitLock);
    client->c_waiting = 0;
    MutexUnlock(&client->c_waitLock);
}

// Reads one line into c_line, up to CR or LF, which is consumed and noted in
// c_lineEnd. The length, or -1 when the connection ends: end of file, a
// failure, or 65536 bytes without a line end.
Int ReadLine(QKClient *client) {
    Channel *channel = client->c_channel;
    UInt length = 0;
    for (;;) {
        if (channel->readPos >= channel->readEnd && ChannelPeekByte(channel) < 0) return -1;
        const UByte *start = channel->readBuffer + channel->readPos;
        UInt available = (UInt)(channel->readEnd - channel->readPos);
        UInt take = 0;
        while (take < available && start[take] != '\r' && start[take] != '\n') take++;
        if (length + take > kLineSize - 1) return -1;
        memcpy(client->c_line + length, start, take);
        length += take;
        channel->readPos += (Int)take;
        if (take < available) {
            client->c_lineEnd = start[take];
            channel->readPos++;
            client->c_line[length] = '\0';
            return (Int)length;
        }
    }
}

// Serves the requests of one connection until it ends.
void ServeConnection(QKClient *client) {
    QKServer *server = client->c_server;
    Channel *channel = client->c_channel;
    ArrayClear(client->c_env);
    client->c_authenticated = 0;
    client->c_features = 0;
    client->c_readTimeout = server->readTimeout;
    client->c_writeTimeout = server->writeTimeout;
    ChannelSetObfuscationKey(channel, ~(ULong)0);
    for (;;) {
        // The wait for the first byte of a request is governed by the
        // keep-alive time-out; the rest of the request by the read time-out.
        Int keepAlive = server->keepAliveTimeout;
        Int readTimeout = Millis(client->c_readTimeout);
        Int firstTimeout = keepAlive == kKeepAliveNotSet ? -1
                           : keepAlive >= 0              ? Millis(keepAlive)
                                                         : readTimeout;
        SetReadTimeout(channel, firstTimeout);
        SetWriteTimeout(channel, Millis(client->c_writeTimeout));
        if (!BeginWait(client)) break;
        int first = ChannelPeekByte(channel);
        EndWait(client);
        if (first < 0) break;
        SetReadTimeout(channel, readTimeout);

        UInt active;
        bool exiting;
        ActiveEnter(&active, &exiting);
        client->c_counted = 1;
        Int length = ReadLine(client);
        bool goOn = length >= 0;
        if (length > 0 && client->c_line[0] != '#') {
            bool refuse = exiting || (server->maxActive > 0 && active > (UInt)server->maxActive);
            goOn = DispatchLine(client, refuse) > 0;
        }
        if (client->c_counted) {
            client->c_counted = 0;
            ActiveLeave();
        }
        if (!goOn) break;
    }
}

// Takes a client off the server's free list; under threadLock.
void Unlink(QKServer *server, QKClient *client) {
    QKClient **list = &server->freeClients;
    qkassert(list != NULL);
    QKClient *l = *list;
    while (l != NULL && l != client) {
        list = &l->c_next;
        l = *list;
    }
    qkassert(l != NULL);
    *list = client->c_next;
    client->c_next = nullptr;
    QKClient **all = &server->allClients;
    while (*all != client) all = &(*all)->c_allNext;
    *all = client->c_allNext;
}

// Ends the connection and parks the client until a new connection is handed
// over (true) or the worker is to end (false: the client is freed).
bool Park(QKClient *client) {
    QKServer *server = client->c_server;
    MutexLock(&server->threadLock);
    // Closed under the lock: once the peer sees the end of the connection,
    // the accepting thread can only find this client parked.
    ChannelDisconnect(client->c_channel);
    client->c_assigned = 0;
    client->c_ready = 0;
    client->c_next = server->freeClients;
    server->freeClients = client;
    bool timedOut = false;
    for (;;) {
        if (client->c_ready) {
            client->c_ready = 0;
            MutexUnlock(&server->threadLock);
            return true;
        }
        if (!client->c_assigned) {
            if (server->stopping.load() || timedOut || server->threadLinger <= 0) break;
            timedOut = !ConditionTimedWait(&client->c_condition, &server->threadLock,
                                           (UInt)server->threadLinger * 1000u);
            continue;
        }
        // Reserved by the accepting thread: the handover is coming.
        ConditionWait(&client->c_condition, &server->threadLock);
    }
    Unlink(server, client);
    MutexUnlock(&server->threadLock);
    // The worker gives back what it holds before it counts itself out, so
    // that nothing of it runs once a stopping server has seen it end: its
    // client, and the TLS library's state of this thread, which the library
    // would otherwise release at the thread's exit, racing with its own
    // clean-up at the process's exit.
    ClientFree(client);
    OPENSSL_thread_stop();
    MutexLock(&server->threadLock);
    qkassert(server->threads > 0);
    if (--server->threads == 0) ConditionBroadcast(&server->threadsDone);
    MutexUnlock(&server->threadLock);
    return false;
}

}  // namespace

UInt WorkerMain(void *argument) {
    auto *client = static_cast<QKClient *>(argument);
    ThreadSetName("QKServer");
    do {
        ServeConnection(client);
    } while (Park(client));
    return 0;
}

// Wakes the workers of a stopping server: parked ones through their
// condition, and those that wait for a request by shutting the reading side
// of their connection. Those that serve a request finish it first. Under
// threadLock, after `stopping` is set.
void WakeWorkers(QKServer *server) {
    for (QKClient *client = server->allClients; client; client = client->c_allNext) {
        MutexLock(&client->c_waitLock);
        if (client->c_waiting) shutdown(client->c_channel->fd, SHUT_RD);
        MutexUnlock(&client->c_waitLock);
    }
    for (QKClient *client = server->freeClients; client; client = client->c_next) {
        ConditionSignal(&client->c_condition);
    }
}

}  // namespace qk::server
