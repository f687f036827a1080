// The programs end to end: qkd started as a process on a port of the
// system's choice, driven by qkcmd over the native protocol and by curl
// over HTTP/1.0 and 1.1, and stopped by "exit", SIGTERM and SIGINT. A shell
// script runs each session, without QKAUTHKEY unless a command sets it, and
// under a time limit that guards against hanging.
#include "server/server_support.h"

namespace {

std::string Hex(ULong value) {
    char text[17];
    snprintf(text, sizeof text, "%016llx", (unsigned long long)value);
    return text;
}

class QkdTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(mkdir(dir_.c_str(), 0700), 0) << dir_; }
    void TearDown() override { EXPECT_EQ(system(("rm -rf " + dir_).c_str()), 0); }

    // A session: qkd with `options` in the background, its address taken
    // from the line it writes; then each command line (which may use $qkcmd
    // and $url) with its output, stderr included, and "status N"; then
    // `stop`. The whole must match the lines' patterns, then "qkd 0" for
    // qkd's own status and its one line on stdout; its stderr follows.
    void Session(const std::string &options,
                 const std::vector<std::pair<std::string, std::string>> &lines,
                 const std::string &stop) {
        std::string script = "cd " + dir_ + "; rm -f out; " QKD_PATH " --port 0 --data data " +
                             options +
                             " >out 2>err & pid=$!; trap 'kill -9 $pid; exit 9' TERM\n"
                             "until grep -q listening out || ! kill -0 $pid; do sleep 0.01; done\n"
                             "addr=$(sed -n 's/qkd listening on //p' out); url=http://$addr\n"
                             "qkcmd=\"" QKCMD_PATH " $addr\"\n",
                    pattern;
        for (const auto &[line, expected] : lines) {
            script += line + " 2>&1; echo status $?\n";
            pattern += expected;
        }
        std::ofstream(dir_ + "/session")
            << script << stop << "; wait $pid; echo qkd $?; cat out; echo; cat err\n";
        FILE *pipe = popen(("timeout 30 env -u QKAUTHKEY sh " + dir_ + "/session").c_str(), "r");
        std::string out;
        for (int c; (c = fgetc(pipe)) != EOF;) out += (char)c;
        pclose(pipe);
        pattern += "qkd 0\nqkd listening on 127.0.0.1:[1-9][0-9]*\n\n[\\s\\S]*";
        EXPECT_TRUE(std::regex_match(out, std::regex(pattern))) << out;
    }

    // A scratch directory of the test's own.
    std::string dir_ = ::testing::TempDir() + "/qkd_e2e_" + std::to_string(getpid()) + "_" +
                       ::testing::UnitTest::GetInstance()->current_test_info()->name();
};

// 1.0 closes the connection; 1.1 keeps it, so that the second request
// makes no new one.
TEST_F(QkdTest, NativeCommandsAndHttp) {
    const std::string curl = "curl -s -S -i -w '[%{num_connects}]' ",
                      hello = Hex(Fingerprint("hello", 5)) + "\n";
    Session("",
            {
                {"$qkcmd fp hello world", Hex(Fingerprint("hello world", 11)) + "\nstatus 0\n"},
                {"$qkcmd utf Hé", "ucs2: 0048 00e9\nlower: hé\nupper: HÉ\nstatus 0\n"},
                {"$qkcmd version", std::string(QKVersionString()) + "\nstatus 0\n"},
                {"$qkcmd nosuch x", "qkcmd: error 1: illegal command\nstatus 1\n"},
                {"$qkcmd close", "qkcmd: no reply: premature eof\nstatus 2\n"},  // no reply at all
                {QKCMD_PATH " 127.0.0.1:1 version", "qkcmd: 127.0.0.1:1: .*\nstatus 2\n"},
                {QKCMD_PATH " 127.0.0.1:1", "usage: .*\nstatus 2\n"},
                {QKD_PATH " --port 70000", "usage: .*\nstatus 2\n"},
                {curl + "--http1.0 $url/fp?text=hello",
                 "HTTP/1.1 200 OK\r\n(.*\r\n)*Content-Type: text/plain;charset=utf-8\r\n(.*\r\n)*"
                 "Connection: close\r\n(.*\r\n)*\r\n" +
                     hello + "\\[1\\]status 0\n"},
                {curl + "--http1.1 $url/fp/hello $url/utf?text=%C3%A9+A",
                 "HTTP/1.1 200 OK\r\n(.*\r\n)*\r\n" + hello +
                     "\\[1\\]HTTP/1.1 200 OK\r\n(.*\r\n)*\r\n" +
                     "ucs2: 00e9 0020 0041\nlower: é a\nupper: É A\n\\[0\\]status 0\n"},
            },
            "$qkcmd exit");
}

TEST_F(QkdTest, AuthenticationKey) {
    for (const char *name : {"/key", "/wrong"})
        EXPECT_EQ(system(("head -c 128 /dev/urandom >" + dir_ + name).c_str()), 0);
    Session("-authkey key",
            {
                {"$qkcmd exit",
                 "qkcmd: error 1: illegal command: connection not authenticated\nstatus 1\n"},
                {"$qkcmd -authkey wrong version",
                 "qkcmd: authentication: invalid response to the challenge sent\nstatus 2\n"},
                {"$qkcmd -authkey missing version",
                 ".*unable to load authentication key file .*\r\nqkcmd: no authentication "
                 "key\nstatus 2\n"},
                {"$qkcmd -authkey key fp hello", Hex(Fingerprint("hello", 5)) + "\nstatus 0\n"},
            },
            "QKAUTHKEY=key $qkcmd exit");  // the key from QKAUTHKEY
}

TEST_F(QkdTest, SignalsStopItCleanly) {
    for (const char *stop : {"kill -TERM $pid", "kill -INT $pid"}) Session("", {}, stop);
}

}  // namespace
