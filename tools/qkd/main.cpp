// qkd: the library's command server as a program. It listens on 127.0.0.1,
// tells on stdout where, and serves the built-in commands and the text
// commands over the native protocol and HTTP on one port until "exit",
// SIGINT or SIGTERM, which all end it cleanly with status 0.
//
//   qkd [--port N] [--data DIR] [-authkey FILE]
#include <dirent.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "commands.h"

namespace {

constexpr UShort kDefaultPort = 8760;
// Seconds that a server that was asked to stop may take before the process
// ends anyway: requests in progress finish within it.
constexpr unsigned kStopGrace = 10;
constexpr Int kReadTimeout = 60;
constexpr Int kWriteTimeout = 60;
constexpr Int kThreadLinger = 30;

struct Options {
    UShort port = kDefaultPort;
    std::string data;  // kept for the commands that will store data
};

std::atomic<QKServer *> theServer{nullptr};
volatile sig_atomic_t exitStatus = 0;
volatile sig_atomic_t aborting = 0;

void Usage() {
    fprintf(stderr, "usage: qkd [--port N] [--data DIR] [-authkey FILE]\n");
}

bool ParsePort(const char *text, UShort *port) {
    char *end;
    unsigned long value = strtoul(text, &end, 10);
    if (*text < '0' || *text > '9' || *end != '\0' || value > 65535) return false;
    *port = (UShort)value;
    return true;
}

bool ParseOptions(int argc, char **argv, Options *options) {
    for (int i = 1; i < argc; i++) {
        const char *arg = argv[i];
        if (strcmp(arg, "--port") == 0 && i + 1 < argc) {
            if (!ParsePort(argv[++i], &options->port)) return false;
        } else if (strncmp(arg, "--port=", 7) == 0) {
            if (!ParsePort(arg + 7, &options->port)) return false;
        } else if (strcmp(arg, "--data") == 0 && i + 1 < argc && argv[i + 1][0] != '\0') {
            options->data = argv[++i];
        } else if (strncmp(arg, "--data=", 7) == 0 && arg[7] != '\0') {
            options->data = arg + 7;
        } else {
            return false;
        }
    }
    return true;
}

// True when a key was asked for, by "-authkey FILE" or by the environment.
bool KeyRequested(int argc, char **argv) {
    for (int i = 1; i + 1 < argc; i++) {
        if (strcmp(argv[i], "-authkey") == 0) return true;
    }
    const char *variable = getenv("QKAUTHKEY");
    return variable != NULL && *variable != '\0';
}

void Say(const char *text) {
    ssize_t ignored = write(STDERR_FILENO, text, strlen(text));
    (void)ignored;
}

// Asks the server to stop, from the signal thread or a worker: QKServerRun
// returns in main once the requests in progress are done.
void Stop() {
    alarm(kStopGrace);
    QKServer *server = theServer.load();
    if (server) QKServerStop(server);
}

// SIGINT and SIGTERM are blocked in every thread and taken by one thread
// of their own with sigwait. A handler would run on whichever thread the
// kernel picks, perhaps a worker parked in a timed wait, where some
// runtimes (the thread sanitizer among them) hold the signal back until
// the wait ends; the waiting thread takes it at once.
sigset_t StopSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    return signals;
}

std::atomic<bool> finished{false};

void SignalThread() {
    sigset_t signals = StopSignals();
    int number = 0;
    while (sigwait(&signals, &number) == 0 && !finished.load()) {
        Stop();
    }
}

void OnStopTimeout(int) {
    Say("qkd: the server did not stop in time\n");
    _exit(exitStatus);
}

// The end of the builtins "exit" and "abort". An exit stops the server, so
// that main frees it and returns; an abort ends the process at once.
void OnProcessExit(int status) {
    exitStatus = status;
    if (aborting) {
        fflush(NULL);
        _exit(status);
    }
    Stop();
}

int OnCleanup(int isAborting, void *) {
    aborting = isAborting;
    return isAborting ? 1 : 0;
}

// The number of threads of the process.
int ThreadCount() {
    DIR *tasks = opendir("/proc/self/task");
    if (tasks == NULL) return 0;
    int count = 0;
    while (struct dirent *entry = readdir(tasks)) count += entry->d_name[0] != '.';
    closedir(tasks);
    return count;
}

// QKServerRun returns once its workers have ended, but their threads may
// still be on their way out, freeing what the TLS library keeps for each
// thread. Waits a little while at most until the process is back to
// `count` threads, so that it does not end under them.
void AwaitThreads(int count) {
    for (int i = 0; i < 200 && ThreadCount() > count; i++) usleep(10000);
}

void Handle(int number, void (*handler)(int)) {
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(number, &action, NULL);
}

}  // namespace

int main(int argc, char **argv) {
    // Before any thread exists, so that all inherit the mask.
    sigset_t stopSignals = StopSignals();
    pthread_sigmask(SIG_BLOCK, &stopSignals, NULL);
    QKLibInit(argv[0]);
    QKServerInit();
    bool keyRequested = KeyRequested(argc, argv);
    QKAuthInit(&argc, argv);
    Options options;
    if (!ParseOptions(argc, argv, &options)) {
        Usage();
        return 2;
    }
    // Progress messages go to stderr: stdout carries the address line only.
    QKSetMessageStream(0, stderr);
    if (keyRequested && QKAuthGetProcessKey() == NULL) {
        fprintf(stderr, "qkd: no authentication key\n");
        return 1;
    }
    if (!options.data.empty() && !DirectoryCreate(NULL, options.data.c_str(), 1)) {
        fprintf(stderr, "qkd: cannot create %s: %s\n", options.data.c_str(), QKErrorMessage());
        return 1;
    }

    QKServer *server =
        QKServerNew(1, 1, qkd::Commands(), NULL, NULL, OnCleanup, NULL, QK_AUTH_PROCESS_KEY,
                    kReadTimeout, kWriteTimeout, kThreadLinger, 0, 0);
    if (server == NULL) {
        fprintf(stderr, "qkd: %s\n", QKErrorMessage());
        return 1;
    }
    theServer.store(server);
    QKSetExit(OnProcessExit);
    std::thread signalThread(SignalThread);
    Handle(SIGALRM, OnStopTimeout);
    signal(SIGPIPE, SIG_IGN);

    int status = 1;
    TCPAddr addr;
    ByteArray where = {};
    if (!QKServerListen(server, TCPAddrLocal(QK_FAMILY_IPV4, options.port), 0) ||
        !QKServerGetAddr(server, &addr) || !TCPAddrGetIPPort(addr, &where)) {
        fprintf(stderr, "qkd: cannot listen on port %u: %s\n", options.port, QKErrorMessage());
    } else {
        printf("qkd listening on %.*s\n", (int)where.length, reinterpret_cast<char *>(where.data));
        fflush(stdout);
        int threads = ThreadCount();
        QKServerRun(server);
        AwaitThreads(threads);
        status = exitStatus;
    }
    ArrayFree(where);
    finished.store(true);
    pthread_kill(signalThread.native_handle(), SIGTERM);
    signalThread.join();
    alarm(0);
    theServer.store(nullptr);
    QKServerDelete(server);
    return status;
}
