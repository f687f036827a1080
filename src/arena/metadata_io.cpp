// Channels on the arena's metadata files.
#include "arena/metadata_io.h"

namespace qk::arena {

Channel *OpenForRead(const char *path, const char *format) {
    Channel *channel = ChannelNew(-1, -1);
    if (ChannelOpenFile(channel, path, "r")) return channel;
    QKErrorRethrow(format, path);
    CloseKeepingError(channel);
    return nullptr;
}

void CloseKeepingError(Channel *channel) {
    QKErrorSave();
    ChannelClose(channel);
    QKErrorRestore();
}

bool CloseRead(Channel *channel, const char *path) {
    if (ChannelClose(channel)) return true;
    QKErrorRethrow("could not close: \"%s\"", path);
    return false;
}

}  // namespace qk::arena
