// The builtins that end the process, each run in a child process: a clean
// "exit" refuses new requests, waits for those in progress and runs the
// program's callbacks; a second "exit" meanwhile sleeps; "abort" ends at
// once. The exit hook stands in for the process's end, so that the child can
// check the bytes it received before it goes.
#include <poll.h>
#include <unistd.h>

#include <atomic>

#include "server/gate.h"
#include "server/server_support.h"

using namespace qktest;

namespace {

std::atomic<int> exitStatus{-1};
std::atomic<int> exitCalls{0};
std::atomic<int> cleanupAborting{-1};
Gate gate;

void HoldingExit(int status) {
    exitStatus = status;
    for (;;) pause();
}

void OnExit(void *) {
    exitCalls++;
}

int OnCleanup(int aborting, void *) {
    cleanupAborting = aborting;
    return aborting ? 5 : 7;
}

int Slow(QKClient *client, void *) {
    gate.Pass();
    QKClientSuccess(client, 0);
    QKClientWriteString(client, "slow");
    return QKClientWriteBuf(client, "", 1) ? QK_COMMAND_DONE : QK_COMMAND_DROP;
}

int Echo(QKClient *client, void *) {
    return QKClientSuccess(client, 0);
}

QKServerCommand slowCommand = {"slow", Slow, nullptr, PROTOCOL_NATIVE, nullptr};
QKServerCommand echoCommand = {"echo", Echo, nullptr, PROTOCOL_NATIVE, nullptr};

QKServer *ExitingServer() {
    QKServerCommand *commands[] = {&slowCommand, &echoCommand, nullptr};
    return QKServerNew(1, 1, commands, nullptr, OnExit, OnCleanup, nullptr, nullptr, 60, 60, 30, 0,
                       0);
}

// In the child, a failed check ends it with its own status.
#define CHECK(condition, status) \
    if (!(condition)) _exit(status)

template <typename Predicate>
bool Eventually(Predicate predicate) {
    for (int i = 0; i < 2000; i++) {
        if (predicate()) return true;
        usleep(10000);
    }
    return false;
}

// True when nothing can be read from the socket now.
bool Silent(int fd) {
    pollfd p = {fd, POLLIN, 0};
    return poll(&p, 1, 0) == 0;
}

const std::string kNul(1, '\0');

void CleanExit() {
    QKSetExit(HoldingExit);
    TestServer server(ExitingServer());
    RawClient running(server.port());
    running.Send("slow\n");
    gate.AwaitInside(1);

    RawClient first(server.port());
    first.Send("exit\n");
    CHECK(first.ReadExactly(2) == "!\n", 10);
    CHECK(Eventually([] { return exitCalls == 1; }), 11);
    RawClient second(server.port());
    second.Send("exit\n");
    CHECK(second.ReadExactly(2) == "!\n", 12);

    // While exiting: a known command is dropped unanswered, an unknown one
    // is answered and the connection ends.
    RawClient refused(server.port());
    refused.Send("echo\n");
    CHECK(refused.ReadAll() == "", 13);
    RawClient unknown(server.port());
    unknown.Send("nosuch\n");
    CHECK(unknown.ReadAll() == "? 1 illegal command\n" + kNul, 14);
    CHECK(exitStatus == -1 && cleanupAborting == -1, 15);

    gate.Open();
    CHECK(running.ReadThrough('\0') == "!\nslow" + kNul, 16);
    CHECK(running.AtEnd(), 17);
    CHECK(first.ReadExactly(1) == kNul, 18);
    CHECK(Eventually([] { return exitStatus != -1; }), 19);
    CHECK(exitStatus == 7 && cleanupAborting == 0 && exitCalls == 1, 20);
    CHECK(Silent(second.fd()), 21);  // the second exit sleeps
    _exit(0);
}

void Abort() {
    QKSetExit(HoldingExit);
    TestServer server(ExitingServer());
    RawClient client(server.port());
    client.Send("abort\n");
    CHECK(client.ReadThrough('\0') == "!\n" + kNul, 30);
    CHECK(Eventually([] { return exitStatus != -1; }), 31);
    CHECK(exitStatus == 5 && cleanupAborting == 1 && exitCalls == 0, 32);
    _exit(0);
}

TEST(ExitDeathTest, CleanExitWaitsForRequestsInProgress) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(CleanExit(), ::testing::ExitedWithCode(0), "");
}

TEST(ExitDeathTest, AbortEndsAtOnce) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(Abort(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
