// The command server: round trips of the native protocol through one
// loopback connection ("fp hello" answered by a success line, the 16-digit
// fingerprint and its NUL) against the same exchange done by hand with
// plain read and write on a socket of the same kind, so that the ratio is
// what the server's worker, dispatch, client object and channels cost.
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "compare.h"
#include "loopback.h"
#include "qk/qkcommon.h"

namespace {

const char kRequest[] = "fp hello";

// The reply to "fp TEXT": the same bytes in both implementations.
std::string FingerprintReply(const char *text, size_t size) {
    char reply[32];
    int n = snprintf(reply, sizeof reply, "!\n%016llx\n",
                     (unsigned long long)Fingerprint(text, (UInt)size));
    return std::string(reply, (size_t)n + 1);  // with the NUL
}

// The success line goes out through the reply call, which flushes it, as
// a command with output does; the rest is the output and its NUL, sent at
// the commit.
int FingerprintCommand(QKClient *client, void *) {
    const char *text = QKClientArgs(client);
    std::string reply = FingerprintReply(text, strlen(text));
    if (QKClientSuccess(client, 0) != QK_COMMAND_DONE) return QK_COMMAND_DROP;
    return QKClientWriteBuf(client, reply.data() + 2, (UInt)reply.size() - 2) ? QK_COMMAND_DONE
                                                                              : QK_COMMAND_DROP;
}

// The same bytes written as one piece: a single flush, at the commit.
int FingerprintCommandOneWrite(QKClient *client, void *) {
    const char *text = QKClientArgs(client);
    std::string reply = FingerprintReply(text, strlen(text));
    return QKClientWriteBuf(client, reply.data(), (UInt)reply.size()) ? QK_COMMAND_DONE
                                                                      : QK_COMMAND_DROP;
}

void RoundTripServer(benchmark::State &state, QKServerCommandFunction function) {
    QKServerInit();
    FILE *quiet = fopen("/dev/null", "w");
    FILE *saved = QKGetMessageStream(0);
    QKSetMessageStream(0, quiet);  // the server's progress lines
    QKServerCommand fp = {"fp", function, nullptr, PROTOCOL_NATIVE, nullptr};
    QKServerCommand *commands[] = {&fp, nullptr};
    QKServer *server =
        QKServerNew(1, 1, commands, nullptr, nullptr, nullptr, nullptr, nullptr, 60, 60, 30, 0, 0);
    TCPAddr addr;
    if (!QKServerListen(server, TCPAddrLocal(QK_FAMILY_IPV4, 0), 0) ||
        !QKServerGetAddr(server, &addr)) {
        state.SkipWithError("listen");
        QKServerDelete(server);
        return;
    }
    std::thread runner([server] { QKServerRun(server); });
    Channel *channel = ChannelNew(-1, -1);
    ByteArray output = {};
    if (!ChannelConnect(channel, addr)) state.SkipWithError("connect");
    for (auto _ : state) {
        if (!QKCommandSend(channel, kRequest) || QKCommandStatus(channel, nullptr, nullptr) != 0 ||
            !QKCommandReadOutput(channel, &output)) {
            state.SkipWithError("round trip");
            break;
        }
    }
    ChannelClose(channel);
    ArrayFree(output);
    QKServerStop(server);
    runner.join();
    QKServerDelete(server);
    QKSetMessageStream(0, saved);
    fclose(quiet);
    state.SetItemsProcessed((int64_t)state.iterations());
}

// Reads into `buffer` until it holds `end`; the bytes up to and including
// it are taken out into *message. False at the end of the stream.
bool ReadThrough(int fd, std::string *buffer, char end, std::string *message) {
    size_t found;
    while ((found = buffer->find(end)) == std::string::npos) {
        char chunk[4096];
        ssize_t n = read(fd, chunk, sizeof chunk);
        if (n <= 0) return false;
        buffer->append(chunk, (size_t)n);
    }
    message->assign(*buffer, 0, found + 1);
    buffer->erase(0, found + 1);
    return true;
}

void RoundTripPlain(benchmark::State &state) {
    int client, serverFd;
    qkbench::LoopbackPair(&client, &serverFd);
    std::thread server([serverFd] {
        std::string buffer, line;
        while (ReadThrough(serverFd, &buffer, '\n', &line)) {
            // "fp TEXT\n"
            std::string reply = FingerprintReply(line.data() + 3, line.size() - 4);
            if (!qkbench::WriteAll(serverFd, reply.data(), reply.size())) break;
        }
        close(serverFd);
    });
    std::string request = std::string(kRequest) + "\n", buffer, reply;
    for (auto _ : state) {
        if (!qkbench::WriteAll(client, request.data(), request.size()) ||
            !ReadThrough(client, &buffer, '\0', &reply)) {
            state.SkipWithError("round trip");
            break;
        }
    }
    close(client);
    server.join();
    state.SetItemsProcessed((int64_t)state.iterations());
}

int registered = [] {
    for (bool oneWrite : {false, true}) {
        std::string group =
            oneWrite ? "server/native_roundtrip_one_write" : "server/native_roundtrip";
        QKServerCommandFunction function =
            oneWrite ? FingerprintCommandOneWrite : FingerprintCommand;
        benchmark::RegisterBenchmark(qkbench::Name(group, "qk").c_str(), [function](
                                                                             benchmark::State &s) {
            RoundTripServer(s, function);
        })->UseRealTime();
        benchmark::RegisterBenchmark(qkbench::Name(group, "plain").c_str(), RoundTripPlain)
            ->UseRealTime();
    }
    return 0;
}();

}  // namespace
