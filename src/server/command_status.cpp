// The client side of the native protocol: a request line out, the status
// line of its reply in, and the output of a successful reply up to its NUL.
#include <string.h>

#include "server/server_internal.h"

namespace {

// Sets the error of a reply that could not be read, by the read code or
// character that stopped it; the failure status.
int Fail(int code) {
    if (code == -3) {
        QKErrorThrow(2, 2, "read timeout");
    } else if (code == -1) {
        QKErrorThrow(3, 2, "premature eof");
    } else if (code != -2) {
        QKErrorThrow(3, 2, "protocol error");
    }
    return 2;
}

void KeepTerminated(ByteArray *array) {
    ArrayEnsure(*array, array->length + 1);
    array->data[array->length] = 0;
}

}  // namespace

extern "C" {

QK_API int QKCommandStatus(Channel *channel, ULong *value, ByteArray *array) {
    if (value) *value = 0;
    if (array) {
        ArrayClear(*array);
        KeepTerminated(array);
    }
    int c = ChannelReadUTF8(channel);
    if (c != '!' && c != '?') return Fail(c);
    bool error = c == '?';
    c = ChannelReadUTF8(channel);
    if (!error && c == '\n') return 0;
    if (c != ' ') return Fail(c);
    ULong number = 0;
    while ((c = ChannelReadUTF8(channel)) >= '0' && c <= '9')
        number = number * 10 + (ULong)(c - '0');
    if (c != ' ' && c != '\n') return Fail(c);
    if (error && (number < 1 || number > 9)) return Fail(0);
    if (value) *value = number;
    if (c == ' ') {
        while ((c = ChannelReadUTF8(channel)) != '\n') {
            if (c < 0) return Fail(c);
            if (array) {
                ArrayAdd(*array, (UByte)c);
                KeepTerminated(array);
            }
        }
    }
    if (!error) return 0;
    while ((c = ChannelReadUTF8(channel)) != 0) {
        if (c < 0) return Fail(c);
    }
    return 1;
}

QK_API int QKCommandSend(Channel *channel, const char *line) {
    return ChannelWriteString(channel, line) && ChannelWriteByte(channel, '\n') &&
                   ChannelFlush(channel)
               ? 1
               : 0;
}

QK_API int QKCommandReadOutput(Channel *channel, ByteArray *array) {
    ArrayClear(*array);
    for (;;) {
        int byte = ChannelReadByte(channel);
        if (byte == 0) break;
        if (byte < 0) {
            Fail(byte);
            KeepTerminated(array);
            return 0;
        }
        ArrayAdd(*array, (UByte)byte);
    }
    KeepTerminated(array);
    return 1;
}

}  // extern "C"
