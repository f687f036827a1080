// Opening, writing and closing the arena's metadata files through channels,
// with the error of the first failure kept.
#pragma once

#include "qk/channel.h"
#include "qk/frame.h"

namespace qk::arena {

// A channel reading `path`, or none with `format` (which takes the path)
// thrown over the cause.
Channel *OpenForRead(const char *path, const char *format);
// Closes a channel on an error path; the pending error stays.
void CloseKeepingError(Channel *channel);
// Closes a channel that was read to its end.
bool CloseRead(Channel *channel, const char *path);

// Writes `path` from scratch: `write(channel)` fills it and reports its own
// failures, then the file is synced and closed. The other messages read
// "<who>: could not write data on: \"<path>\"", "<who>: could not sync:
// ..." and "<who>: could not close: ...".
template <typename F>
bool WriteMetadata(const char *who, const char *path, F write) {
    Channel *channel = ChannelNew(-1, -1);
    if (!ChannelOpenFile(channel, path, "w")) {
        QKErrorRethrow("%s: could not write data on: \"%s\"", who, path);
        CloseKeepingError(channel);
        return false;
    }
    if (!write(channel)) {
        CloseKeepingError(channel);
        return false;
    }
    if (!ChannelSync(channel)) {
        QKErrorRethrow("%s: could not sync: \"%s\"", who, path);
        CloseKeepingError(channel);
        return false;
    }
    if (!ChannelClose(channel)) {
        QKErrorRethrow("%s: could not close: \"%s\"", who, path);
        return false;
    }
    return true;
}

}  // namespace qk::arena
