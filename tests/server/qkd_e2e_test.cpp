// The programs end to end: qkd started as a process on a port of the
// system's choice, driven by qkcmd over the native protocol and by curl
// over HTTP/1.0 and 1.1, and stopped by "exit", SIGTERM and SIGINT.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "qk/qkcommon.h"

extern char **environ;

namespace {

constexpr int kGuardMilliseconds = 20000;

struct Result {
    int status = -1;  // the exit status, or -1 when the process did not exit
    std::string out;
    std::string err;
};

// The environment of the children, without QKAUTHKEY unless given.
std::vector<std::string> Environment(const std::string &key) {
    std::vector<std::string> env;
    for (char **e = environ; *e; e++) {
        if (strncmp(*e, "QKAUTHKEY=", 10) != 0) env.push_back(*e);
    }
    if (!key.empty()) env.push_back("QKAUTHKEY=" + key);
    return env;
}

std::vector<char *> Pointers(std::vector<std::string> &strings) {
    std::vector<char *> pointers;
    for (std::string &s : strings) pointers.push_back(s.data());
    pointers.push_back(nullptr);
    return pointers;
}

// Starts a program with its stdout and stderr on pipes (stderr on a file
// when `errFile` is given).
pid_t Spawn(std::vector<std::string> args, int *out, int *err, const std::string &errFile = "",
            const std::string &key = "") {
    int outPipe[2], errPipe[2];
    EXPECT_EQ(pipe2(outPipe, O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(errPipe, O_CLOEXEC), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
    if (errFile.empty()) {
        posix_spawn_file_actions_adddup2(&actions, errPipe[1], 2);
    } else {
        posix_spawn_file_actions_addopen(&actions, 2, errFile.c_str(),
                                         O_WRONLY | O_CREAT | O_APPEND, 0600);
    }
    std::vector<std::string> env = Environment(key);
    pid_t pid;
    int spawned = posix_spawnp(&pid, args[0].c_str(), &actions, nullptr, Pointers(args).data(),
                               Pointers(env).data());
    posix_spawn_file_actions_destroy(&actions);
    close(outPipe[1]);
    close(errPipe[1]);
    EXPECT_EQ(spawned, 0) << args[0];
    *out = outPipe[0];
    *err = errPipe[0];
    return spawned == 0 ? pid : -1;
}

// Reads a pipe to its end, or up to the first LF with `line`.
std::string Drain(int fd, bool line = false) {
    std::string text;
    char chunk[4096];
    for (;;) {
        pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, kGuardMilliseconds) <= 0) {
            ADD_FAILURE() << "no output from the child";
            break;
        }
        ssize_t n = read(fd, chunk, line ? 1 : sizeof chunk);
        if (n <= 0) break;
        text.append(chunk, (size_t)n);
        if (line && text.back() == '\n') break;
    }
    return text;
}

int Wait(pid_t pid) {
    for (int i = 0; i < kGuardMilliseconds / 10; i++) {
        int status;
        if (waitpid(pid, &status, WNOHANG) == pid)
            return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        usleep(10000);
    }
    ADD_FAILURE() << "the child did not end";
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    return -1;
}

Result RunProgram(std::vector<std::string> args, const std::string &key = "") {
    int out, err;
    Result result;
    pid_t pid = Spawn(std::move(args), &out, &err, "", key);
    if (pid < 0) return result;
    result.out = Drain(out);
    result.err = Drain(err);
    close(out);
    close(err);
    result.status = Wait(pid);
    return result;
}

std::string Hex(ULong value, int digits) {
    char text[17];
    snprintf(text, sizeof text, "%0*llx", digits, (unsigned long long)value);
    return text;
}

// A qkd process on 127.0.0.1 at an ephemeral port; its stderr goes to a
// file of the scratch directory, shown when a test fails.
class QkdTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char dir[] = "/tmp/qkd_e2e_XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        dir_ = dir;
    }

    void TearDown() override {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        if (HasFailure()) {
            FILE *log = fopen((dir_ + "/qkd.err").c_str(), "r");
            for (int c; log && (c = fgetc(log)) != EOF;) fputc(c, stderr);
            if (log) fclose(log);
        }
        if (out_ >= 0) close(out_);
        std::string command = "rm -rf '" + dir_ + "'";
        EXPECT_EQ(system(command.c_str()), 0);
    }

    void Start(std::vector<std::string> extra = {}) {
        std::vector<std::string> args = {QKD_PATH, "--port", "0", "--data", dir_ + "/data"};
        args.insert(args.end(), extra.begin(), extra.end());
        int err;
        pid_ = Spawn(args, &out_, &err, dir_ + "/qkd.err");
        close(err);
        std::string line = Drain(out_, true);
        const std::string prefix = "qkd listening on 127.0.0.1:";
        ASSERT_EQ(line.compare(0, prefix.size(), prefix), 0) << line;
        port_ = line.substr(prefix.size(), line.size() - prefix.size() - 1);
        ASSERT_GT(std::stoi(port_), 0);
        address_ = "127.0.0.1:" + port_;
    }

    // The server's exit status after it was told to stop.
    int Stopped() {
        EXPECT_EQ(Drain(out_), "");  // nothing but the one line on stdout
        int status = Wait(pid_);
        pid_ = -1;
        return status;
    }

    Result Command(std::vector<std::string> words, const std::string &key = "") {
        words.insert(words.begin(), {QKCMD_PATH, address_});
        return RunProgram(words, key);
    }

    Result Curl(std::vector<std::string> args) {
        args.insert(args.begin(), {"curl", "-s", "-S", "-i"});
        return RunProgram(args);
    }

    std::string Url(const std::string &path) { return "http://" + address_ + path; }

    std::string dir_;
    pid_t pid_ = -1;
    int out_ = -1;
    std::string port_;
    std::string address_;
};

TEST_F(QkdTest, NativeCommandsThroughQkcmd) {
    Start();
    struct stat info;
    EXPECT_TRUE(stat((dir_ + "/data").c_str(), &info) == 0 && S_ISDIR(info.st_mode));

    Result fp = Command({"fp", "hello", "world"});
    EXPECT_EQ(fp.status, 0) << fp.err;
    EXPECT_EQ(fp.out, Hex(Fingerprint("hello world", 11), 16) + "\n");
    EXPECT_EQ(Command({"md5", "hello"}).out, "5d41402abc4b2a76b9719d911017c592\n");
    EXPECT_EQ(Command({"utf", "Hé"}).out, "ucs2: 0048 00e9\nlower: hé\nupper: HÉ\n");
    EXPECT_EQ(Command({"version"}).out, std::string(QKVersionString()) + "\n");
    EXPECT_EQ(Command({"help", "fp"}).out,
              "fp TEXT # 64-bit fingerprint of the text, 16 hex digits\n");

    Result unknown = Command({"nosuch", "x"});
    EXPECT_EQ(unknown.status, 1);
    EXPECT_EQ(unknown.err, "qkcmd: error 1: illegal command\n");
    Result malformed = Command({"utf", "\xff"});
    EXPECT_EQ(malformed.status, 1);
    EXPECT_EQ(Command({"close"}).status, 2);  // no reply at all
    EXPECT_EQ(RunProgram({QKCMD_PATH, "127.0.0.1:1", "version"}).status, 2);

    Result exit = Command({"exit"});
    EXPECT_EQ(exit.status, 0) << exit.err;
    EXPECT_EQ(exit.out, "");
    EXPECT_EQ(Stopped(), 0);
}

TEST_F(QkdTest, HttpThroughCurl) {
    Start();
    std::string hello = Hex(Fingerprint("hello", 5), 16) + "\n";
    Result one = Curl({"--http1.0", Url("/fp?text=hello")});
    EXPECT_EQ(one.status, 0) << one.err;
    EXPECT_NE(one.out.find("HTTP/1.1 200 OK\r\n"), std::string::npos) << one.out;
    EXPECT_NE(one.out.find("Content-Type: text/plain;charset=utf-8\r\n"), std::string::npos);
    EXPECT_NE(one.out.find("Connection: close\r\n"), std::string::npos);
    EXPECT_EQ(one.out.substr(one.out.find("\r\n\r\n") + 4), hello);

    // HTTP/1.1 keeps the connection: the second request makes no new one.
    Result two =
        Curl({"--http1.1", "-w", "[%{num_connects}]", Url("/fp/hello"), Url("/utf?text=%C3%A9+A")});
    EXPECT_EQ(two.status, 0) << two.err;
    EXPECT_NE(two.out.find("\r\n\r\n" + hello + "[1]HTTP/1.1 200 OK"), std::string::npos)
        << two.out;
    EXPECT_NE(two.out.find("\r\n\r\nucs2: 00e9 0020 0041\nlower: é a\nupper: É A\n[0]"),
              std::string::npos)
        << two.out;

    Result index = Curl({Url("/")});
    EXPECT_NE(index.out.find("Content-Type: text/html;charset=utf-8\r\n"), std::string::npos);
    for (const char *action : {"/fp", "/md5", "/utf"}) {
        std::string form = std::string("<form action=\"") + action + "\" method=\"get\">";
        EXPECT_NE(index.out.find(form), std::string::npos) << action;
    }
    EXPECT_EQ(Curl({Url("/favicon.ico")}).out.find("HTTP/1.1 404 Not Found\r\n"), 0u);
    Result bad = Curl({Url("/md5?text=a&b=c")});
    EXPECT_EQ(bad.out.find("HTTP/1.1 400 Bad Request\r\n"), 0u) << bad.out;

    kill(pid_, SIGTERM);
    EXPECT_EQ(Stopped(), 0);
}

TEST_F(QkdTest, AuthenticationKey) {
    std::string key = dir_ + "/key", wrong = dir_ + "/wrong";
    for (const std::string &path : {key, wrong}) {
        QKAuthKey *generated = QKAuthKeyGenerate();
        ByteArray bytes = {};
        QKAuthKeyToBuffer(generated, &bytes);
        FILE *file = fopen(path.c_str(), "wb");
        ASSERT_NE(file, nullptr);
        fwrite(bytes.data, 1, bytes.length, file);
        fclose(file);
        ArrayFree(bytes);
        QKAuthKeyDelete(generated);
    }
    Start({"-authkey", key});

    Result anonymous = Command({"exit"});
    EXPECT_EQ(anonymous.status, 1);
    EXPECT_EQ(anonymous.err, "qkcmd: error 1: illegal command: connection not authenticated\n");
    EXPECT_EQ(Command({"-authkey", wrong, "version"}).status, 2);
    EXPECT_EQ(Command({"-authkey", dir_ + "/missing", "version"}).status, 2);
    Result fp = Command({"-authkey", key, "fp", "hello"});
    EXPECT_EQ(fp.out, Hex(Fingerprint("hello", 5), 16) + "\n") << fp.err;
    EXPECT_EQ(Command({"exit"}, key).status, 0);  // the key from QKAUTHKEY
    EXPECT_EQ(Stopped(), 0);
}

TEST_F(QkdTest, UsageAndInterrupt) {
    for (std::vector<std::string> args : {std::vector<std::string>{QKD_PATH, "--port", "70000"},
                                          {QKD_PATH, "--bogus"},
                                          {QKCMD_PATH, "127.0.0.1:1"}}) {
        Result usage = RunProgram(args);
        EXPECT_EQ(usage.status, 2) << args[1];
        EXPECT_EQ(usage.err.find("usage: "), 0u) << usage.err;
    }
    Start();
    kill(pid_, SIGINT);
    EXPECT_EQ(Stopped(), 0);
}

}  // namespace
