// The builtins that act on the process: "exit" (a clean exit, which waits
// for the requests in progress), "abort", "rotate", and "auth", which proves
// a connection with the challenge handshake.
#include <string.h>
#include <unistd.h>

#include <atomic>

#include "server/server_internal.h"

namespace {

std::atomic<QKRotateLogFunction> rotateLog{nullptr};

int EndOutput(QKClient *client) {
    return qk::server::ClientWrite(client, "", 1) ? QK_COMMAND_DONE : QK_COMMAND_DROP;
}

// The exiting request stops counting as active, so that the exit can wait
// for all the others.
void LeaveActive(QKClient *client) {
    if (!client->c_counted) return;
    client->c_counted = 0;
    qk::server::ActiveLeave();
}

// The last bytes of an exit or abort: the NUL, flushed.
void EndProcess(QKClient *client, int status) {
    ChannelWriteByte(client->c_channel, '\0');
    ChannelFlush(client->c_channel);
    QKExit(status);
}

}  // namespace

namespace qk::server {

int BuiltinAbort(QKClient *client, void *) {
    int refused = RequireAuthentication(client);
    if (refused >= 0) return refused;
    if (*QKClientArgs(client) != '\0')
        return QKClientError(client, QK_CLIENT_ILLEGAL_ARGUMENT, NULL);
    QKServer *server = client->c_server;
    QKClientSuccess(client, 0);
    QKMessage(2, "server: aborting");
    int status = server->onCleanup ? server->onCleanup(1, server->userData) : 0;
    QKMessage(2, "server: done");
    EndProcess(client, status);
    return QK_COMMAND_DROP;
}

int BuiltinExit(QKClient *client, void *) {
    int refused = RequireAuthentication(client);
    if (refused >= 0) return refused;
    if (*QKClientArgs(client) != '\0')
        return QKClientError(client, QK_CLIENT_ILLEGAL_ARGUMENT, NULL);
    QKServer *server = client->c_server;
    QKClientSuccess(client, 0);
    if (!BeginExit()) {
        // Only one thread runs the exit.
        LeaveActive(client);
        for (;;) pause();
    }
    if (server->onExit) server->onExit(server->userData);
    QKMessage(2, "server: exiting");
    LeaveActive(client);
    WaitForIdle();
    int status = 0;
    if (server->onCleanup) {
        QKMessage(2, "server: cleanup");
        status = server->onCleanup(0, server->userData);
    }
    QKMessage(2, "server: done");
    EndProcess(client, status);
    return QK_COMMAND_DROP;
}

// "rotate [-d AGE]".
int BuiltinRotate(QKClient *client, void *) {
    int refused = RequireAuthentication(client);
    if (refused >= 0) return refused;
    QKServer *server = client->c_server;
    Int age = -1;
    bool ageGiven = false;
    const char *option;
    while (QKClientStringArg(client, &option)) {
        UInt days;
        if (ageGiven || strcmp(option, "-d") != 0 || !QKClientIntegerArg(client, &days, 0, 0))
            return QKClientError(client, QK_CLIENT_ILLEGAL_ARGUMENT, NULL);
        age = (Int)days;
        ageGiven = true;
    }
    QKRotateLogFunction rotate = rotateLog.load();
    if ((rotate && !rotate(age)) || (server->onRotate && !server->onRotate(age, server->userData)))
        return QKClientError(client, QK_CLIENT_INTERNAL_ERROR, QKErrorMessage());
    if (QKClientSuccess(client, 0) != QK_COMMAND_DONE) return QK_COMMAND_DROP;
    return EndOutput(client);
}

// "auth CHALLENGE": the accepting side of the handshake. Its last byte
// stays in the write buffer for the commit.
int BuiltinAuth(QKClient *client, void *) {
    QKAuthKey *key = client->c_server->authKey;
    if (ResolveKey(key) == nullptr)
        return QKClientError(client, QK_CLIENT_ILLEGAL_COMMAND, "no authentication key");
    const char *challenge;
    if (!QKClientStringArg(client, &challenge))
        return QKClientError(client, QK_CLIENT_ILLEGAL_ARGUMENT, "missing challenge");
    if (!ChannelAuthenticate(client->c_channel, key, 0, challenge, (UInt)strlen(challenge)))
        return QK_COMMAND_DROP;
    client->c_authenticated = 1;
    return QK_COMMAND_DONE;
}

}  // namespace qk::server

extern "C" {

QK_API void QKServerSetRotateLogFunction(QKRotateLogFunction function) {
    rotateLog.store(function);
}

}  // extern "C"
