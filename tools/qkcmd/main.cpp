// qkcmd: sends one command of the native protocol to a server and prints
// its reply: the status line's value (and text) when it has one, then the
// output. The exit status is 0 for a success, 1 for an error reply and 2
// for a failure (no connection, refused authentication, broken reply).
//
//   qkcmd HOST:PORT [-authkey FILE] COMMAND...
//
// With a key (-authkey FILE, or the file named by QKAUTHKEY) the
// connection is authenticated before the command.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "qk/qkcommon.h"

namespace {

constexpr int kSuccess = 0;
constexpr int kErrorReply = 1;
constexpr int kFailure = 2;

int Usage() {
    fprintf(stderr, "usage: qkcmd HOST:PORT [-authkey FILE] COMMAND...\n");
    return kFailure;
}

int Fail(const char *what) {
    fprintf(stderr, "qkcmd: %s: %s\n", what, QKErrorMessage());
    return kFailure;
}

// True when a key was asked for, by "-authkey FILE" or by the environment.
bool KeyRequested(int argc, char **argv) {
    for (int i = 1; i + 1 < argc; i++) {
        if (strcmp(argv[i], "-authkey") == 0) return true;
    }
    const char *variable = getenv("QKAUTHKEY");
    return variable != NULL && *variable != '\0';
}

// The reply to the command sent: its status line, then for a success the
// output up to its NUL, or up to the end of the connection for a reply
// that has no output.
int ReadReply(Channel *channel) {
    ULong value;
    ByteArray text = {};
    int status = QKCommandStatus(channel, &value, &text);
    std::string line(reinterpret_cast<char *>(text.data), text.length);
    ArrayFree(text);
    if (status == kFailure) return Fail("no reply");
    if (status == kErrorReply) {
        fprintf(stderr, "qkcmd: error %llu: %s\n", (unsigned long long)value, line.c_str());
        return kErrorReply;
    }
    if (value != 0 || !line.empty()) {
        printf("%llu%s%s\n", (unsigned long long)value, line.empty() ? "" : " ", line.c_str());
    }
    for (;;) {
        int byte = ChannelReadByte(channel);
        if (byte == 0 || byte == -1) break;
        if (byte < 0) return Fail("reading the output");
        putchar(byte);
    }
    return fflush(stdout) == 0 ? kSuccess : kFailure;
}

int Run(const char *address, const std::string &command) {
    TCPAddr addr;
    if (!TCPAddrSetHostPort(&addr, address)) return Fail(address);
    Channel *channel = ChannelNew(-1, -1);
    int result = kFailure;
    if (!ChannelConnect(channel, addr)) {
        Fail(address);
    } else if (QKAuthGetProcessKey() != NULL &&
               !ChannelAuthenticate(channel, QK_AUTH_PROCESS_KEY, 1, NULL, 0)) {
        Fail("authentication");
    } else if (!QKCommandSend(channel, command.c_str()) || !ChannelShutdown(channel)) {
        // The write side closes after the command: the server ends the
        // connection after its reply, which ends a reply without output.
        Fail("sending the command");
    } else {
        result = ReadReply(channel);
    }
    ChannelClose(channel);
    return result;
}

}  // namespace

int main(int argc, char **argv) {
    QKLibInit(argv[0]);
    bool keyRequested = KeyRequested(argc, argv);
    QKAuthInit(&argc, argv);
    if (argc < 3) return Usage();
    QKSetMessageStream(0, stderr);
    if (keyRequested && QKAuthGetProcessKey() == NULL) {
        fprintf(stderr, "qkcmd: no authentication key\n");
        return kFailure;
    }
    std::string command = argv[2];
    for (int i = 3; i < argc; i++) command += std::string(" ") + argv[i];
    if (command.find_first_of("\r\n") != std::string::npos) {
        fprintf(stderr, "qkcmd: a command is one line\n");
        return kFailure;
    }
    return Run(argv[1], command);
}
