// The life of a server object: creation with its command tables, settings,
// status, and deletion once it no longer runs.
#include <unistd.h>

#include <new>

#include "qk/memory.h"
#include "server/server_internal.h"

using namespace qk::server;

extern "C" {

QK_API void QKServerInit(void) {
    QKLibInit(NULL);
}

QK_API QKServer *QKServerNew(int http, int builtins, QKServerCommand **commands,
                             QKServerRotateFunction onRotate, QKServerExitFunction onExit,
                             QKServerCleanupFunction onCleanup, void *userData, QKAuthKey *authKey,
                             Int readTimeout, Int writeTimeout, Int threadLinger, Int maxActive,
                             UInt stackSize) {
    QKServer *server = new (Allocate(sizeof(QKServer), NULL)) QKServer();
    ConditionInit(&server->condition);
    MutexInit(&server->commandLock);
    MutexInit(&server->threadLock);
    ConditionInit(&server->threadsDone);
    server->http = http != 0;
    server->builtins = builtins != 0;
    server->onRotate = onRotate;
    server->onExit = onExit;
    server->onCleanup = onCleanup;
    server->userData = userData;
    server->authKey = authKey;
    server->readTimeout = readTimeout;
    server->writeTimeout = writeTimeout;
    server->threadLinger = threadLinger;
    server->keepAliveTimeout = kKeepAliveNotSet;
    server->maxActive = maxActive;
    server->stackSize = stackSize;
    server->pid = (Int)getpid();
    for (UInt i = 0; commands && commands[i]; i++) {
        if (!RegisterNew(server, commands[i])) {
            UnregisterAll(server);
            qkassert(ArrayLength(server->s_native) == 0);
            qkassert(ArrayLength(server->s_http) == 0);
            QKServerDelete(server);
            return nullptr;
        }
    }
    return server;
}

QK_API void QKServerDelete(QKServer *server) {
    if (server == nullptr) return;
    qkassert(server->threads == 0 && server->listener == NULL);
    UnregisterAll(server);
    ArrayFree(server->s_native);
    ArrayFree(server->s_http);
    ConditionDestroy(&server->condition);
    ConditionDestroy(&server->threadsDone);
    MutexDestroy(&server->commandLock);
    MutexDestroy(&server->threadLock);
    server->~QKServer();
    UnAllocate(server);
}

QK_API void QKServerSetKeepAliveTimeout(QKServer *server, Int seconds) {
    server->keepAliveTimeout = seconds;
}

QK_API void QKServerSetSSL(QKServer *server, SSLConfig *ssl) {
    server->ssl = ssl;
}

QK_API void QKServerStatus(QKServer *server, UInt *threads, UInt *maxThreads) {
    MutexLock(&server->threadLock);
    if (threads) *threads = server->threads;
    if (maxThreads) *maxThreads = server->maxThreads;
    MutexUnlock(&server->threadLock);
}

}  // extern "C"
