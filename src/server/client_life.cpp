// Client objects: one per worker thread, holding a connection's channel and
// all the buffers of its requests, so that a request allocates nothing.
#include <string.h>

#include "qk/memory.h"
#include "server/server_internal.h"

namespace qk::server {

QKClient *ClientNew(QKServer *server) {
    auto *client = static_cast<QKClient *>(Allocate(sizeof(QKClient), NULL));
    memset(client, 0, sizeof *client);
    client->c_server = server;
    ConditionInit(&client->c_condition);
    MutexInit(&client->c_waitLock);
    client->c_channel = ChannelNew(Millis(server->readTimeout), Millis(server->writeTimeout));
    qkassert(client->c_channel != NULL);
    client->c_contentLength = -1;
    client->c_expiration = -1;
    client->c_encoding = QK_ENCODING_LATIN1;
    return client;
}

void ClientFree(QKClient *client) {
    ChannelClose(client->c_channel);  // disconnected already: nothing can fail
    ArrayFree(client->c_body);
    ArrayFree(client->c_env);
    ConditionDestroy(&client->c_condition);
    MutexDestroy(&client->c_waitLock);
    UnAllocate(client);
}

}  // namespace qk::server
