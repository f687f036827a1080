// TLS on channels over loopback, both peers in one test: round trips in
// both blocking modes, certificate and host name checks, handshakes that
// fail without harming the server, time-outs, and the texts of TLS errors.
// Keys and self-signed certificates are made at start with the TLS
// library's interface.
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <thread>

#include "frame/file_test_dir.h"
#include "server_test_support.h"

extern char **environ;

namespace {

using namespace qktest;

// An EC key and a self-signed certificate for `name` with the alternative
// names `alternatives`, written as PEM files.
bool MakeIdentity(const std::string &keyPath, const std::string &certificatePath, const char *name,
                  const char *alternatives) {
    static long serial = 1;
    EVP_PKEY *key = EVP_EC_gen("P-256");
    X509 *certificate = X509_new();
    X509_set_version(certificate, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), serial++);
    X509_gmtime_adj(X509_getm_notBefore(certificate), -3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate), 2 * 86400);
    X509_set_pubkey(certificate, key);
    X509_NAME *subject = X509_get_subject_name(certificate);
    X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char *>(name), -1, -1, 0);
    X509_set_issuer_name(certificate, subject);
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
    bool ok = key != nullptr;
    for (auto [nid, value] : {std::pair<int, const char *>{NID_basic_constraints, "CA:TRUE"},
                              {NID_subject_alt_name, alternatives}}) {
        X509_EXTENSION *extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value);
        ok = ok && extension != nullptr && X509_add_ext(certificate, extension, -1) == 1;
        X509_EXTENSION_free(extension);
    }
    ok = ok && X509_sign(certificate, key, EVP_sha256()) > 0;
    FILE *keyFile = fopen(keyPath.c_str(), "w");
    FILE *certificateFile = fopen(certificatePath.c_str(), "w");
    ok = ok && keyFile && certificateFile &&
         PEM_write_PrivateKey(keyFile, key, nullptr, nullptr, 0, nullptr, nullptr) == 1 &&
         PEM_write_X509(certificateFile, certificate) == 1;
    if (keyFile) fclose(keyFile);
    if (certificateFile) fclose(certificateFile);
    X509_free(certificate);
    EVP_PKEY_free(key);
    return ok;
}

class TlsTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        QKLibInit("tlstest");
        ASSERT_EQ(SSLInit(), 1);
        files_ = new TempDir;
        ASSERT_TRUE(MakeIdentity(File("key.pem"), File("cert.pem"), "localhost",
                                 "DNS:localhost,IP:127.0.0.1"));
        ASSERT_TRUE(MakeIdentity(File("other-key.pem"), File("other-cert.pem"), "other",
                                 "DNS:other.example"));
    }
    static void TearDownTestSuite() { delete files_; }
    static std::string File(const char *name) { return *files_ / name; }

    void SetUp() override {
        QKErrorClear();
        serverConfig_ = SSLConfigNew(1, File("cert.pem").c_str(), File("key.pem").c_str(), nullptr);
        ASSERT_NE(serverConfig_, nullptr) << ErrorText();
        anyServer_ = SSLConfigNew(0, nullptr, nullptr, nullptr);
        ASSERT_NE(anyServer_, nullptr) << ErrorText();
        server_ = TCPServerOpen(Loopback(0));
        ASSERT_NE(server_, nullptr) << ErrorText();
        addr_ = Loopback(PortOf(server_));
    }
    void TearDown() override {
        TCPServerClose(server_);
        SSLConfigDelete(serverConfig_);
        SSLConfigDelete(anyServer_);
    }

    // The server side on a thread of its own: accepts the next connection
    // into `channel` (TLS settings `config`, both time-outs `timeout`), then
    // runs `serve` when that worked.
    struct Peer {
        std::thread thread;
        int accepted = -1;
        std::string error;  // when not accepted
        Channel *channel = nullptr;
        void Join() {
            if (thread.joinable()) thread.join();
        }
        ~Peer() {
            Join();
            ChannelClose(channel);
        }
    };
    void Serve(Peer *peer, Int timeout, SSLConfig *config,
               std::function<void(Channel *)> serve = nullptr) {
        peer->channel = ChannelNew(timeout, timeout);
        ChannelSetSSL(peer->channel, config);
        peer->thread = std::thread([this, peer, serve] {
            peer->accepted = TCPServerAccept(server_, peer->channel);
            if (peer->accepted != 1) peer->error = ErrorText();
            if (peer->accepted == 1 && serve) serve(peer->channel);
        });
    }
    static Channel *Client(SSLConfig *config, const char *host = nullptr, Int timeout = 10000) {
        Channel *channel = ChannelNew(timeout, timeout);
        ChannelSetSSL(channel, config);
        // The channel keeps its own copy: the caller's buffer is wiped at once.
        std::string name = host != nullptr ? host : "";
        ChannelSetSSLHost(channel, host != nullptr ? name.c_str() : nullptr);
        std::fill(name.begin(), name.end(), 'x');
        return channel;
    }
    static bool StartsWith(const std::string &text, const std::string &start) {
        return text.rfind(start, 0) == 0;
    }

    static TempDir *files_;
    SSLConfig *serverConfig_ = nullptr;
    SSLConfig *anyServer_ = nullptr;  // a client's settings that check nothing
    TCPServer *server_ = nullptr;
    TCPAddr addr_;
};

TempDir *TlsTest::files_ = nullptr;

// A line and a block larger than the buffers both ways, with blocking and
// non-blocking sockets; the server's close alert ends the client's stream.
TEST_F(TlsTest, RoundTripInBothModes) {
    std::string block(3 * 1024 * 1024 + 17, '\0');
    for (size_t i = 0; i < block.size(); i++) block[i] = (char)(i * 7 + i / 4096);
    for (Int timeout : {-1, 10000}) {
        SCOPED_TRACE(timeout);
        Peer peer;
        std::string line;
        Serve(&peer, timeout, serverConfig_, [&](Channel *channel) {
            std::string echo(block.size(), '\0');
            UInt count = 0;
            if (ReadLine(channel, &line) && WriteLine(channel, "echo " + line) &&
                ChannelReadBuf(channel, echo.data(), (UInt)echo.size(), &count) == 0) {
                ChannelWriteBuf(channel, echo.data(), count);
                ChannelFlush(channel);
            }
        });
        Channel *client = Client(anyServer_, nullptr, timeout);
        ASSERT_EQ(ChannelConnect(client, addr_), 1) << ErrorText();
        EXPECT_NE(client->ssl, nullptr);
        EXPECT_GT(ChannelGetMemorySize(client), sizeof(Channel));
        ASSERT_TRUE(WriteLine(client, "hello over TLS"));
        std::string answer;
        ASSERT_TRUE(ReadLine(client, &answer)) << ErrorText();
        EXPECT_EQ(answer, "echo hello over TLS");
        ASSERT_EQ(ChannelWriteBuf(client, block.data(), (UInt)block.size()), 1) << ErrorText();
        ASSERT_EQ(ChannelFlush(client), 1) << ErrorText();
        std::string back(block.size(), '\0');
        UInt count = 0;
        EXPECT_EQ(ChannelReadBuf(client, back.data(), (UInt)back.size(), &count), 0) << ErrorText();
        EXPECT_TRUE(back == block);
        peer.Join();
        EXPECT_EQ(line, "hello over TLS");
        EXPECT_EQ(ChannelClose(peer.channel), 1);
        peer.channel = nullptr;
        EXPECT_EQ(ChannelReadByte(client), -1);
        EXPECT_EQ(ChannelClose(client), 1);
    }
}

// A client that trusts the certificate accepts the server under the names
// it carries, and refuses it under another name or when it trusts another
// certificate; the server then sees the client's alert.
TEST_F(TlsTest, ClientVerifiesCertificateAndHostName) {
    SSLConfig *trusting = SSLConfigNew(0, nullptr, nullptr, File("cert.pem").c_str());
    SSLConfig *other = SSLConfigNew(0, nullptr, nullptr, File("other-cert.pem").c_str());
    ASSERT_TRUE(trusting && other) << ErrorText();
    const struct {
        SSLConfig *config;
        const char *host;
        const char *verdict;  // none when it passes
    } cases[] = {
        {trusting, "localhost", nullptr},
        {trusting, "127.0.0.1", nullptr},
        {trusting, nullptr, nullptr},  // the chain alone
        {anyServer_, "wrong.example", nullptr},
        {trusting, "wrong.example", "hostname mismatch"},
        {trusting, "127.0.0.2", "IP address mismatch"},
        {other, "localhost", "self-signed certificate"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.host ? c.host : "(no host)");
        Peer peer;
        std::string line;
        Serve(&peer, 10000, serverConfig_, [&](Channel *channel) { ReadLine(channel, &line); });
        Channel *client = Client(c.config, c.host);
        int connected = ChannelConnect(client, addr_);
        std::string error = ErrorText();
        if (connected == 1) WriteLine(client, "verified");
        peer.Join();
        if (c.verdict == nullptr) {
            EXPECT_EQ(connected, 1) << error;
            EXPECT_EQ(line, "verified");
        } else {
            EXPECT_EQ(connected, 0);
            EXPECT_TRUE(StartsWith(error, "5,2: SSL error: SSL_connect: ")) << error;
            EXPECT_NE(error.find("certificate verify failed"), std::string::npos) << error;
            EXPECT_NE(error.find(c.verdict), std::string::npos) << error;
            EXPECT_FALSE(ChannelConnected(client));
            EXPECT_EQ(peer.accepted, 0);
            EXPECT_TRUE(StartsWith(peer.error, "5,2: SSL error: SSL_accept: ")) << peer.error;
            EXPECT_FALSE(ChannelConnected(peer.channel));
        }
        EXPECT_EQ(ChannelClose(client), 1);
    }
    SSLConfigDelete(trusting);
    SSLConfigDelete(other);
}

// A client that speaks plain text and one that says nothing fail their
// handshakes; the server goes on with the next TLS client, leaking nothing.
TEST_F(TlsTest, FailedHandshakesLeaveTheServerAccepting) {
    const int before = OpenDescriptors();
    for (Int timeout : {-1, 1}) {  // 1: one second in a socket wait
        Peer peer;
        Serve(&peer, timeout, serverConfig_);
        int raw = RawConnect(addr_.port);
        ASSERT_GE(raw, 0);
        if (timeout < 0) {
            ASSERT_TRUE(SendAll(raw, "GET / HTTP/1.0\r\n\r\n"));
        }
        peer.Join();
        EXPECT_EQ(peer.accepted, 0);
        if (timeout < 0) {
            EXPECT_TRUE(StartsWith(peer.error, "5,2: SSL error: SSL_accept: ")) << peer.error;
        } else {
            EXPECT_EQ(peer.error, "2,2: timeout");
        }
        EXPECT_FALSE(ChannelConnected(peer.channel));
        EXPECT_EQ(peer.channel->ssl, nullptr);
        close(raw);
    }
    {
        Peer peer;
        std::string line;
        Serve(&peer, -1, serverConfig_, [&](Channel *channel) { ReadLine(channel, &line); });
        Channel *client = Client(anyServer_);
        ASSERT_EQ(ChannelConnect(client, addr_), 1) << ErrorText();
        EXPECT_TRUE(WriteLine(client, "after the failures"));
        peer.Join();
        EXPECT_EQ(line, "after the failures");
        EXPECT_EQ(ChannelClose(client), 1);
    }
    EXPECT_EQ(OpenDescriptors(), before);
}

// After the handshake: a read that waits too long times out, bytes that are
// no TLS record fail the read with the library's code, and a peer that goes
// without the close alert ends the stream.
TEST_F(TlsTest, ReadTimeoutBadRecordAndAbruptEnd) {
    for (int kind = 0; kind < 3; kind++) {
        SCOPED_TRACE(kind);
        Peer peer;
        int last = 0;
        std::string line, error;
        std::atomic<bool> done{false};
        Serve(&peer, kind == 0 ? 1 : 10000, serverConfig_, [&](Channel *channel) {
            if (kind == 2) {
                WriteLine(channel, "ready");
                ReadLine(channel, &line);
            }
            last = ChannelReadByte(channel);
            error = ErrorText();
            done = true;
        });
        Channel *client = Client(anyServer_);
        ASSERT_EQ(ChannelConnect(client, addr_), 1) << ErrorText();
        if (kind == 0) {
            while (!done) usleep(10 * 1000);  // silent until the server gives up
        } else if (kind == 1) {
            // A record header and bytes that are not under the session's keys.
            ASSERT_TRUE(SendAll(client->fd, std::string("\x17\x03\x03\x00\x05garbage", 12)));
        } else {
            // Reading first takes in all the server sent, so that the socket
            // ends with a FIN: unread bytes would turn it into a reset.
            std::string ready;
            ASSERT_TRUE(ReadLine(client, &ready)) << ErrorText();
            ASSERT_TRUE(WriteLine(client, "then silence"));
            ChannelDisconnect(client);  // no close alert
        }
        peer.Join();
        const int expected[] = {-3, -2, -1};
        const char *errors[] = {"2,2: timeout", "5,2: SSL_read() failed, error=1", nullptr};
        EXPECT_EQ(last, expected[kind]);
        if (errors[kind]) {
            EXPECT_EQ(error, errors[kind]);
        }
        if (kind == 2) {
            EXPECT_EQ(line, "then silence");
        }
        EXPECT_EQ(ChannelClose(client), 1);
    }
}

// Writing to a peer that has gone fails with the library's text and does
// not raise SIGPIPE, which would end this program.
TEST_F(TlsTest, WriteToAPeerThatLeft) {
    Peer peer;
    Serve(&peer, 10000, serverConfig_);
    Channel *client = Client(anyServer_);
    ASSERT_EQ(ChannelConnect(client, addr_), 1) << ErrorText();
    peer.Join();
    ChannelDisconnect(peer.channel);
    std::string chunk(64 * 1024, 'w');
    int result = 1;
    for (int i = 0; i < 200 && result == 1; i++) {
        result = ChannelWriteBuf(client, chunk.data(), (UInt)chunk.size());
    }
    EXPECT_EQ(result, 0);
    EXPECT_TRUE(StartsWith(ErrorText(), "5,2: SSL error: SSL_write: ")) << ErrorText();
    ChannelClose(client);
}

// A server given a CA file asks for the client's certificate and checks it.
TEST_F(TlsTest, ServerVerifiesClientCertificates) {
    SSLConfig *strict = SSLConfigNew(1, File("cert.pem").c_str(), File("key.pem").c_str(),
                                     File("other-cert.pem").c_str());
    SSLConfig *identified =
        SSLConfigNew(0, File("other-cert.pem").c_str(), File("other-key.pem").c_str(), nullptr);
    ASSERT_TRUE(strict && identified) << ErrorText();
    for (SSLConfig *clientConfig : {identified, anyServer_}) {
        Peer peer;
        std::string line;
        Serve(&peer, 10000, strict, [&](Channel *channel) {
            ReadLine(channel, &line);
            ChannelDisconnect(channel);
        });
        Channel *client = Client(clientConfig);
        // With TLS 1.3 a refused client learns of it at its next read.
        if (ChannelConnect(client, addr_) == 1 && WriteLine(client, "identified")) {
            ChannelReadByte(client);
        }
        peer.Join();
        if (clientConfig == identified) {
            EXPECT_EQ(line, "identified") << peer.error;
        } else {
            EXPECT_EQ(peer.accepted, 0);
            EXPECT_TRUE(StartsWith(peer.error, "5,2: SSL error: SSL_accept: ")) << peer.error;
            EXPECT_NE(peer.error.find("certificate"), std::string::npos) << peer.error;
        }
        ChannelClose(client);
    }
    SSLConfigDelete(strict);
    SSLConfigDelete(identified);
}

TEST_F(TlsTest, ErrorTexts) {
    const std::string missing = File("missing.pem");
    WriteWhole(File("junk.pem"), "this is no certificate\n");
    auto check = [](SSLConfig *config, const std::string &start, const char *part) {
        const std::string error = ErrorText();
        EXPECT_EQ(config, nullptr);
        EXPECT_TRUE(StartsWith(error, "5,2: " + start)) << error;
        if (part) {
            EXPECT_NE(error.find(part), std::string::npos) << error;
        }
        EXPECT_EQ(ERR_peek_error(), 0u) << "errors left in the queue";
    };
    check(SSLConfigNew(1, File("cert.pem").c_str(), nullptr, nullptr),
          "SSL error: a server needs a certificate and a key", nullptr);
    check(SSLConfigNew(0, nullptr, File("key.pem").c_str(), nullptr),
          "SSL error: a private key needs its certificate", nullptr);
    check(SSLConfigNew(1, missing.c_str(), File("key.pem").c_str(), nullptr),
          "SSL error: cannot load certificate \"" + missing + "\": ", "No such file");
    // Another key of the certificate's kind is refused as it is loaded.
    check(SSLConfigNew(1, File("cert.pem").c_str(), File("other-key.pem").c_str(), nullptr),
          "SSL error: cannot load private key \"" + File("other-key.pem") + "\": ",
          "key values mismatch");
    check(SSLConfigNew(0, nullptr, nullptr, File("junk.pem").c_str()),
          "SSL error: cannot load CA file \"" + File("junk.pem") + "\": ", nullptr);

    // SSLErrorThrow takes the oldest entry of the queue and empties it.
    ERR_raise(ERR_LIB_SSL, SSL_R_BAD_LENGTH);
    ERR_raise(ERR_LIB_SSL, SSL_R_BAD_VALUE);
    char oldest[256];
    ERR_error_string_n(ERR_peek_error(), oldest, sizeof oldest);
    SSLErrorThrow("what happened");
    EXPECT_EQ(ErrorText(), std::string("5,2: SSL error: what happened: ") + oldest);
    EXPECT_NE(strstr(oldest, "bad length"), nullptr) << oldest;
    EXPECT_EQ(ERR_peek_error(), 0u);
    SSLErrorThrow("nothing queued");
    EXPECT_EQ(ErrorText(), "5,2: SSL error: nothing queued");

    Channel *channel = ChannelNew(-1, -1);
    EXPECT_EQ(ChannelStartSSL(channel, 0), 0);
    EXPECT_EQ(ErrorText(), "5,2: SSL error: no TLS settings on the channel");
    ChannelSetSSL(channel, anyServer_);
    EXPECT_EQ(ChannelStartSSL(channel, 0), 0);
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(EINVAL, QK_DOMAIN_RUNTIME));
    EXPECT_EQ(ChannelClose(channel), 1);

    // The certificate calls fail through the same path.
    EXPECT_EQ(X509CertificateLoad(File("junk.pem").c_str()), nullptr);
    EXPECT_TRUE(StartsWith(ErrorText(), "5,2: SSL error: ")) << ErrorText();
    EXPECT_EQ(ERR_peek_error(), 0u);
}

// Before SSLInit, TLS calls refuse to work. Only a process that never
// started the TLS layer can show it: the test runs itself again in a child
// that does nothing else.
TEST(TlsFreshProcess, CallsBeforeInitFail) {
    if (getenv("QK_TLS_FRESH_CHILD") == nullptr) {
        char exe[4096];
        ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
        ASSERT_GT(n, 0);
        exe[n] = '\0';
        std::string filter = "--gtest_filter=TlsFreshProcess.CallsBeforeInitFail";
        char *argv[] = {exe, filter.data(), nullptr};
        setenv("QK_TLS_FRESH_CHILD", "1", 1);
        pid_t child = -1;
        int spawned = posix_spawn(&child, exe, nullptr, nullptr, argv, environ);
        unsetenv("QK_TLS_FRESH_CHILD");
        ASSERT_EQ(spawned, 0);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "see the child's output";
        return;
    }
    EXPECT_EQ(SSLConfigNew(0, nullptr, nullptr, nullptr), nullptr);
    EXPECT_EQ(ErrorText(), "5,2: SSL error: library not initialized");
    Channel *channel = ChannelNew(-1, -1);
    EXPECT_EQ(ChannelStartSSL(channel, 1), 0);
    EXPECT_EQ(ErrorText(), "5,2: SSL error: library not initialized");
    EXPECT_EQ(ChannelClose(channel), 1);
    // A thread's set-up starts the library and keeps the error state.
    SSLThreadInit();
    EXPECT_EQ(ErrorText(), "5,2: SSL error: library not initialized");
    SSLConfig *config = SSLConfigNew(0, nullptr, nullptr, nullptr);
    EXPECT_NE(config, nullptr) << ErrorText();
    SSLConfigDelete(config);
    EXPECT_EQ(SSLInit(), 1);
}

}  // namespace
