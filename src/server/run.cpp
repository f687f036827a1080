// The accepting thread: it reserves a client object (a parked one, or a new
// one whose worker thread starts after the accept), accepts the next
// connection straight into the client's channel, and hands it over. It runs
// until QKServerStop, which wakes it by connecting to the listening socket.
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include "server/server_internal.h"

namespace qk::server {
namespace {

void Pause(long milliseconds) {
    timespec delay = {milliseconds / 1000, (milliseconds % 1000) * 1000000L};
    while (nanosleep(&delay, &delay) != 0) {
    }
}

// Notes where QKServerStop connects to wake the accepting thread: the
// loopback address for a server on the wildcard address.
void SetWakeAddress(QKServer *server) {
    TCPAddr bound;
    if (!TCPServerGetAddr(server->listener, &bound)) return;
    memset(&server->wakeAddress, 0, sizeof server->wakeAddress);
    if (bound.ip.family == QK_FAMILY_IPV4) {
        auto *address = reinterpret_cast<sockaddr_in *>(&server->wakeAddress);
        address->sin_family = AF_INET;
        address->sin_port = htons(bound.port);
        UInt host = IPAddrIsAny(bound.ip) ? INADDR_LOOPBACK : bound.ip.u.addr4;
        address->sin_addr.s_addr = htonl(host);
        server->wakeLength = sizeof(sockaddr_in);
    } else if (bound.ip.family == QK_FAMILY_LOCAL) {
        auto *address = reinterpret_cast<sockaddr_un *>(&server->wakeAddress);
        address->sun_family = AF_UNIX;
        if (QKUnixSocketPath(&bound, address->sun_path, sizeof address->sun_path) >=
            sizeof address->sun_path)
            return;
        server->wakeLength = sizeof(sockaddr_un);
    } else {
        return;
    }
    server->wakeReady.store(1);
}

// Takes a client for the next connection: the first parked one, or a new
// one. `fresh` tells that it has no worker thread yet.
QKClient *Reserve(QKServer *server, bool *fresh) {
    MutexLock(&server->threadLock);
    QKClient *client = server->freeClients;
    UInt newMax = 0;
    if (client) {
        server->freeClients = client->c_next;
        client->c_next = nullptr;
        *fresh = false;
    } else {
        client = ClientNew(server);
        client->c_number = ++server->clientNumber;
        client->c_allNext = server->allClients;
        server->allClients = client;
        if (++server->threads > server->maxThreads) newMax = server->maxThreads = server->threads;
        *fresh = true;
    }
    client->c_assigned = 1;
    MutexUnlock(&server->threadLock);
    if (newMax) QKMessage(2, "thread: max=%d", (int)newMax);
    return client;
}

// Gives back a reserved client that got no connection.
void GiveBack(QKServer *server, QKClient *client, bool fresh) {
    MutexLock(&server->threadLock);
    if (fresh) {
        QKClient **all = &server->allClients;
        while (*all != client) all = &(*all)->c_allNext;
        *all = client->c_allNext;
        server->threads--;
    } else {
        client->c_assigned = 0;
        client->c_next = server->freeClients;
        server->freeClients = client;
        ConditionSignal(&client->c_condition);
    }
    MutexUnlock(&server->threadLock);
    if (fresh) ClientFree(client);
}

// Ends every worker and waits until all have gone.
void StopWorkers(QKServer *server) {
    MutexLock(&server->threadLock);
    server->stopping.store(1);
    WakeWorkers(server);
    while (server->threads > 0) ConditionWait(&server->threadsDone, &server->threadLock);
    MutexUnlock(&server->threadLock);
}

}  // namespace
}  // namespace qk::server

using namespace qk::server;

extern "C" {

QK_API int QKServerListen(QKServer *server, TCPAddr addr, int retries) {
    qkassert(server->listener == NULL);
    TCPServer *listener;
    while ((listener = TCPServerOpen(addr)) == nullptr) {
        if (retries <= 0) return 0;
        QKMessageSys(3, ":server initialization failed, retrying");
        retries--;
        Pause(5000);
    }
    server->listener = listener;
    SetWakeAddress(server);
    return 1;
}

QK_API int QKServerGetAddr(QKServer *server, TCPAddr *addr) {
    if (server->listener == nullptr) {
        QKErrorThrow(1, 2, "the server is not listening");
        return 0;
    }
    return TCPServerGetAddr(server->listener, addr);
}

QK_API int QKServerRun(QKServer *server) {
    if (server->listener == nullptr) {
        QKErrorThrow(1, 2, "the server is not listening");
        return 0;
    }
    while (!server->stopRequested.load()) {
        bool fresh;
        QKClient *client = Reserve(server, &fresh);
        Channel *channel = client->c_channel;
        ChannelSetSSL(channel, server->ssl);
        bool accepted = false;
        while (!server->stopRequested.load()) {
            if (TCPServerAccept(server->listener, channel)) {
                accepted = true;
                break;
            }
            Pause(10);  // out of descriptors, or the like: let it pass
        }
        if (!accepted || server->stopRequested.load()) {
            ChannelDisconnect(channel);
            GiveBack(server, client, fresh);
            break;
        }
        if (fresh) {
            ThreadCreateDetached(WorkerMain, client, server->stackSize);
        } else {
            MutexLock(&server->threadLock);
            client->c_ready = 1;
            ConditionSignal(&client->c_condition);
            MutexUnlock(&server->threadLock);
        }
    }
    StopWorkers(server);
    server->wakeReady.store(0);
    TCPServerClose(server->listener);
    server->listener = nullptr;
    server->stopping.store(0);
    server->stopRequested.store(0);
    return 1;
}

QK_API void QKServerStop(QKServer *server) {
    server->stopRequested.store(1);
    if (!server->wakeReady.load()) return;
    // Only calls that are safe in a signal handler from here on.
    int saved = errno;
    int fd = socket(server->wakeAddress.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0) {
        (void)connect(fd, reinterpret_cast<sockaddr *>(&server->wakeAddress), server->wakeLength);
        close(fd);
    }
    errno = saved;
}

QK_API int QKServerStart(QKServer *server, TCPAddr addr, int retries) {
    if (!QKServerListen(server, addr, retries)) return 0;
    QKServerRun(server);
    int status = server->onCleanup ? server->onCleanup(0, server->userData) : 0;
    QKExit(status);
    return 1;
}

}  // extern "C"
