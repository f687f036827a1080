// Channels: reading the lines of a 100 MB file with ChannelReadLine against
// getline on a FILE*, and an echo over one loopback TCP connection with 64 B
// and 16 KiB messages, channels at both ends against plain read and write on
// the same kind of sockets. The echo reports round trips per second (items)
// and bytes moved both ways.
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <random>
#include <string>
#include <thread>

#include "compare.h"
#include "loopback.h"
#include "qk/channel.h"
#include "qk/qkcommon.h"

namespace {

constexpr size_t kFileSize = 100u << 20;

// Lines of 0 to 120 printable bytes, LF-terminated, made once per run.
const std::string &LinesFile() {
    static const std::string path = [] {
        const char *tmp = getenv("TMPDIR");
        std::string p = std::string(tmp && *tmp ? tmp : "/tmp") + "/qkbench_lines_" +
                        std::to_string(getpid()) + ".txt";
        FILE *f = fopen(p.c_str(), "wb");
        std::mt19937 random(3);
        std::string line;
        size_t written = 0;
        while (written < kFileSize) {
            line.assign(random() % 121, 'x');
            for (char &c : line) c = (char)(' ' + random() % 95);
            line += '\n';
            fwrite(line.data(), 1, line.size(), f);
            written += line.size();
        }
        fclose(f);
        // The name outlives the string, whose destructor runs first.
        static char name[4096];
        snprintf(name, sizeof name, "%s", p.c_str());
        atexit([] { unlink(name); });
        return p;
    }();
    return path;
}

void ReadLinesChannel(benchmark::State &state) {
    LinesFile();  // made before the clock runs
    ByteArray line = {};
    size_t bytes = 0;
    for (auto _ : state) {
        Channel *channel = ChannelNew(-1, -1);
        if (!ChannelOpenFile(channel, LinesFile().c_str(), "r")) state.SkipWithError("open");
        size_t lines = 0;
        while (ChannelReadLine(channel, &line, 0)) {
            bytes += line.length + 1;
            lines++;
        }
        benchmark::DoNotOptimize(lines);
        ChannelClose(channel);
    }
    state.SetBytesProcessed((int64_t)bytes);
    ArrayFree(line);
}

void ReadLinesGetline(benchmark::State &state) {
    char *line = nullptr;
    size_t capacity = 0;
    size_t bytes = 0;
    LinesFile();
    for (auto _ : state) {
        FILE *f = fopen(LinesFile().c_str(), "rb");
        if (f == nullptr) state.SkipWithError("open");
        size_t lines = 0;
        ssize_t n;
        while ((n = getline(&line, &capacity, f)) > 0) {
            bytes += (size_t)n;
            lines++;
        }
        benchmark::DoNotOptimize(lines);
        fclose(f);
    }
    state.SetBytesProcessed((int64_t)bytes);
    free(line);
}

// One loopback connection: the client's and the server's descriptors.
struct Connection {
    int client = -1;
    int server = -1;

    Connection() { qkbench::LoopbackPair(&client, &server); }
};

void EchoPlain(benchmark::State &state, size_t size) {
    Connection c;
    std::thread server([&] {
        std::string buffer(size, '\0');
        while (qkbench::ReadAll(c.server, &buffer[0], size) &&
               qkbench::WriteAll(c.server, buffer.data(), size)) {
        }
        close(c.server);
    });
    std::string message(size, 'm'), answer(size, '\0');
    for (auto _ : state) {
        if (!qkbench::WriteAll(c.client, message.data(), size) ||
            !qkbench::ReadAll(c.client, &answer[0], size))
            state.SkipWithError("echo");
    }
    close(c.client);
    server.join();
    state.SetItemsProcessed((int64_t)state.iterations());
    state.SetBytesProcessed((int64_t)(state.iterations() * 2 * size));
}

void EchoChannel(benchmark::State &state, size_t size) {
    Connection c;
    Channel *client = ChannelNew(-1, -1);
    Channel *serverChannel = ChannelNew(-1, -1);
    ChannelSetFD(client, c.client, 1);
    ChannelSetFD(serverChannel, c.server, 1);
    std::thread server([&] {
        std::string buffer(size, '\0');
        while (ChannelReadBuf(serverChannel, &buffer[0], (UInt)size, nullptr) == 0 &&
               ChannelWriteBuf(serverChannel, buffer.data(), (UInt)size) &&
               ChannelFlush(serverChannel)) {
        }
    });
    std::string message(size, 'm'), answer(size, '\0');
    for (auto _ : state) {
        if (!ChannelWriteBuf(client, message.data(), (UInt)size) || !ChannelFlush(client) ||
            ChannelReadBuf(client, &answer[0], (UInt)size, nullptr) != 0)
            state.SkipWithError("echo");
    }
    ChannelClose(client);
    server.join();
    ChannelClose(serverChannel);
    state.SetItemsProcessed((int64_t)state.iterations());
    state.SetBytesProcessed((int64_t)(state.iterations() * 2 * size));
}

int registered = [] {
    benchmark::RegisterBenchmark(qkbench::Name("channel/readline_100MB", "qk").c_str(),
                                 ReadLinesChannel)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(qkbench::Name("channel/readline_100MB", "getline").c_str(),
                                 ReadLinesGetline)
        ->Unit(benchmark::kMillisecond);
    for (size_t size : {(size_t)64, (size_t)16384}) {
        std::string group = "channel/echo_" + std::string(size == 64 ? "64B" : "16KiB");
        benchmark::RegisterBenchmark(qkbench::Name(group, "qk").c_str(), [size](
                                                                             benchmark::State &s) {
            EchoChannel(s, size);
        })->UseRealTime();
        benchmark::RegisterBenchmark(qkbench::Name(group, "plain").c_str(),
                                     [size](benchmark::State &s) { EchoPlain(s, size); })
            ->UseRealTime();
    }
    return 0;
}();

}  // namespace
