// Channels on files: opening by a UTF-8 or UCS2 path, and the position and
// size of the file as the channel's user sees them through the buffers.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include "channel/channel_internal.h"
#include "frame/file_internal.h"

using namespace qk::channel;

namespace {

bool IsFile(const Channel *channel) {
    return !IsStream(channel);
}

// Mode "r" reads an existing file; "w" and "a" read and write, making the
// file when it is missing, "w" emptying it and "a" starting at its end.
bool OpenFlags(const char *mode, int *flags) {
    if (mode == nullptr || mode[0] == '\0' || mode[1] != '\0') return false;
    switch (mode[0]) {
        case 'r':
            *flags = O_RDONLY;
            return true;
        case 'w':
            *flags = O_RDWR | O_CREAT | O_TRUNC;
            return true;
        case 'a':
            *flags = O_RDWR | O_CREAT;
            return true;
        default:
            return false;
    }
}

}  // namespace

extern "C" {

QK_API int ChannelOpenFile(Channel *channel, const char *path, const char *mode) {
    int flags;
    if (!OpenFlags(mode, &flags) || qk::CheckUTF8(path, strlen(path)) != READ_EOF) {
        errno = EINVAL;
        return 0;
    }
    ChannelDisconnect(channel);
    int fd;
    do {
        fd = open(path, flags | O_CLOEXEC, 0666);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        if (errno == ENOENT || errno == ENOTDIR) {
            errno = ENOENT;
        } else {
            QKSetLastErrorFromErrno();
        }
        return 0;
    }
    if (mode[0] == 'a' && lseek(fd, 0, SEEK_END) < 0) {
        QKSetLastErrorFromErrno();
        qk::CloseKeepingError(fd);
        return 0;
    }
    channel->fd = fd;
    channel->own = 1;
    channel->crtFd = fd;
    channel->isSocket = 0;
    channel->isPipe = 0;
    ResetPositions(channel);
    return 1;
}

QK_API int ChannelOpenFileUCS2(Channel *channel, const UShort *path, UInt length,
                               const char *mode) {
    // A zero unit would cut the name short.
    for (UInt i = 0; i < length; i++) {
        if (path[i] == 0) {
            errno = EINVAL;
            return 0;
        }
    }
    ByteArray bytes{};
    qk::AppendUCS2AsUTF8(&bytes, path, length);
    ArrayAdd(bytes, 0);
    int result = ChannelOpenFile(channel, reinterpret_cast<const char *>(bytes.data), mode);
    KeepingError([&bytes] { ArrayFree(bytes); });
    return result;
}

QK_API int ChannelFileSeek(Channel *channel, Long offset) {
    if (!IsFile(channel)) {
        QKErrorThrow(QK_ERR_FAILURE, QK_DOMAIN_GENERAL,
                     "ChannelFileSeek: the Channel is not a file");
        return 0;
    }
    if (!ChannelFlush(channel)) return 0;
    channel->readPos = 0;
    channel->readEnd = 0;
    if (lseek(channel->fd, (off_t)offset, offset >= 0 ? SEEK_SET : SEEK_END) < 0) {
        QKSetLastErrorFromErrno();
        return 0;
    }
    return 1;
}

QK_API int ChannelFileTell(Channel *channel, Long *offset) {
    if (!IsFile(channel)) {
        QKErrorThrow(QK_ERR_FAILURE, QK_DOMAIN_GENERAL,
                     "ChannelFileSeek: the Channel is not a file");
        return 0;
    }
    if (!ChannelFlush(channel)) return 0;
    off_t position = lseek(channel->fd, 0, SEEK_CUR);
    if (position < 0) {
        QKSetLastErrorFromErrno();
        return 0;
    }
    *offset = (Long)position - (channel->readEnd - channel->readPos);
    return 1;
}

// The file position is kept; what the read buffer held may have changed, so
// it is dropped after moving the position back to what the caller has read.
QK_API int ChannelFileTruncate(Channel *channel, ULong size) {
    if (!IsFile(channel)) {
        QKErrorThrow(QK_ERR_FAILURE, QK_DOMAIN_GENERAL,
                     "ChannelFileTruncate: the Channel is not a file");
        return 0;
    }
    Long position;
    if (!ChannelFileTell(channel, &position)) return 0;
    channel->readPos = 0;
    channel->readEnd = 0;
    if (lseek(channel->fd, (off_t)position, SEEK_SET) < 0) {
        QKSetLastErrorFromErrno();
        return 0;
    }
    return FileTruncateFD(channel->fd, size, 0, 0);
}

}  // extern "C"
