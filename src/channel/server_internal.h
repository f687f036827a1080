// The listening side of channels, private to its sources: the server object
// and the helpers that the TCP and local forms share.
#pragma once

#include <sys/un.h>

#include "qk/channel.h"
#include "qk/file.h"

// A listening socket. `lock` and `path` are used by local (family 3)
// servers only: the lock on "<path>.lock" is held while the server lives,
// so that a second server on the same name fails before it touches the
// first one's socket file.
struct TCPServer {
    int fd;  // -1 when none
    TCPAddr addr;
    FileLock *lock;
    char path[sizeof(((struct sockaddr_un *)0)->sun_path)];
};

namespace qk::server {

// Opens a local listening socket for `server->addr` (local_server.cpp): 1,
// or 0 with the error state set and nothing left open.
bool OpenLocal(TCPServer *server);

// Removes the socket file and releases the lock of a local server, keeping
// the error state as it stands.
void CloseLocal(TCPServer *server);

}  // namespace qk::server
