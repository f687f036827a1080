// The builtins that end the process, each run in a child process: a clean
// "exit" refuses new requests, waits for those in progress and runs the
// program's callbacks; a second "exit" meanwhile sleeps; "abort" ends at
// once. The exit hook stands in for the process's end, so that the child can
// check the bytes it received before it goes; a failed check ends the child
// with a status of its own.
#include "server/server_support.h"

namespace {

std::atomic<int> exitStatus{-1}, exitCalls{0}, cleanupAborting{-1};
Gate gate;
QKServerCommand slowCommand = Command("slow", [](QKClient *client, void *) {
    gate.Pass();
    return Answer(client, "slow");
});

// A server whose exit is held and whose callbacks record their calls.
TestServer *ExitingServer() {
    QKSetExit([](int status) {
        exitStatus = status;
        for (;;) pause();
    });
    return new TestServer(
        {&slowCommand},
        {.onExit = [](void *) { exitCalls++; },
         .onCleanup = [](int aborting, void *) { return (cleanupAborting = aborting) ? 5 : 7; }});
}

#define CHECK(condition, status) \
    if (!(condition)) _exit(status)

void CleanExit() {
    UShort port = ExitingServer()->port;
    RawClient running(port), first(port);
    running.Send("slow\n");
    gate.arrived.acquire();
    first.Send("exit\n");
    CHECK(first.Read(2) == "!\n", 10);
    CHECK(Eventually([] { return exitCalls == 1; }, 20000), 11);
    RawClient second(port);
    second.Send("exit\n");
    CHECK(second.Read(2) == "!\n", 12);
    // While exiting: a known command is dropped unanswered (without
    // coming to the gate), an unknown one is answered and the
    // connection ends.
    RawClient refused(port), unknown(port);
    refused.Send("slow\n");
    CHECK(refused.ReadThrough() == "" && !gate.arrived.try_acquire(), 13);
    unknown.Send("nosuch\n");
    CHECK(unknown.ReadThrough() == kIllegal, 14);
    CHECK(exitStatus == -1 && cleanupAborting == -1, 15);
    gate.open.count_down();
    CHECK(running.ReadThrough('\0') == Nul("!\nslow") && running.AtEnd(), 16);
    CHECK(first.Read(1) == Nul(""), 17);
    CHECK(Eventually([] { return exitStatus != -1; }, 20000), 18);
    CHECK(exitStatus == 7 && cleanupAborting == 0 && exitCalls == 1, 19);
    pollfd p = {second.fd_, POLLIN, 0};
    CHECK(poll(&p, 1, 0) == 0, 20);  // the second exit sleeps
    _exit(0);
}

void Abort() {
    RawClient client(ExitingServer()->port);
    client.Send("abort\n");
    CHECK(client.ReadThrough('\0') == Nul("!\n"), 30);
    CHECK(Eventually([] { return exitStatus != -1; }, 20000), 31);
    CHECK(exitStatus == 5 && cleanupAborting == 1 && exitCalls == 0, 32);
    _exit(0);
}

TEST(ExitDeathTest, CleanExitWaitsForRequestsInProgressAndAbortEndsAtOnce) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(CleanExit(), ::testing::ExitedWithCode(0), "");
    EXPECT_EXIT(Abort(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
