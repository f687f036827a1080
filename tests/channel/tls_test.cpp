// TCP servers and clients in one test, plain and over TLS: an echo server
// on a thread of its own serves client after client through one channel,
// and the clients trust, check names, send plain text or garbage, stay
// silent, leave abruptly or write to a server that left. Then the texts of
// TLS errors, and the calls before the TLS library started. Keys and
// self-signed certificates are made for each test with the TLS library's
// interface.
#include <fnmatch.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <sys/wait.h>

#include "channel/channel_test_util.h"

namespace {

// Whether `text` matches the shell pattern (`*` for any run of characters).
bool Matches(const std::string &text, const char *pattern) {
    return fnmatch(pattern, text.c_str(), 0) == 0;
}

// A self-signed certificate for `name` with the alternative names
// `alternatives`, and its EC key after it, in one PEM file.
bool MakeIdentity(const std::string &path, const char *name, const char *alternatives) {
    EVP_PKEY *key = EVP_EC_gen("P-256");
    X509 *cert = X509_new();
    X509_NAME *subject = X509_get_subject_name(cert);
    X509_EXTENSION *names =
        X509V3_EXT_conf_nid(nullptr, nullptr, NID_subject_alt_name, alternatives);
    FILE *file = fopen(path.c_str(), "w");
    const bool ok =
        key && file && X509_set_version(cert, 2) &&
        ASN1_INTEGER_set(X509_get_serialNumber(cert), 1) &&
        X509_gmtime_adj(X509_getm_notBefore(cert), -3600) &&
        X509_gmtime_adj(X509_getm_notAfter(cert), 2 * 86400) && X509_set_pubkey(cert, key) &&
        X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_ASC, (const UByte *)name, -1, -1, 0) &&
        X509_set_issuer_name(cert, subject) && X509_add_ext(cert, names, -1) &&
        X509_sign(cert, key, EVP_sha256()) > 0 && PEM_write_X509(file, cert) &&
        PEM_write_PrivateKey(file, key, nullptr, nullptr, 0, nullptr, nullptr);
    if (file) fclose(file);
    X509_EXTENSION_free(names);
    X509_free(cert);
    EVP_PKEY_free(key);
    return ok;
}

// The server's side, on a thread: accepts the next connection into `c` and
// answers each line with "echo " and the line, until "bye" or the end of the
// stream or a failure; then it drops the connection without a close alert.
// `*end` tells how: "accept" and the error, or the last peek's result and
// the error. An accepted socket closes on exec, and is non-blocking exactly
// when a time-out is set.
std::thread Echo(TCPServer *server, Channel *c, std::string *end) {
    return std::thread([=] {
        if (!TCPServerAccept(server, c)) {
            *end = "accept " + ErrorText();
            EXPECT_TRUE(!ChannelConnected(c) && c->ssl == nullptr);
            return;
        }
        EXPECT_TRUE(ChannelIsSocket(c) && fcntl(c->fd, F_GETFD) & FD_CLOEXEC &&
                    IsNonBlocking(c->fd) == (c->readTimeout >= 0));
        int next;
        std::string line;
        while ((next = ChannelPeekByte(c)) >= 0 && (line = ReadLine(c)) != "bye")
            WriteLine(c, "echo " + line);
        *end = std::to_string(next) + (next < -1 ? " " + ErrorText() : "");
        ChannelDisconnect(c);
    });
}

// Each test has an identity "localhost" (for that name and 127.0.0.1) and
// another, "other".
class TlsTest : public ChannelTest {
  protected:
    void SetUp() override {
        ChannelTest::SetUp();
        ASSERT_EQ(SSLInit(), 1);
        ASSERT_TRUE(MakeIdentity(own_, "localhost", "DNS:localhost,IP:127.0.0.1") &&
                    MakeIdentity(other_, "other", "DNS:other.example"));
    }
    // Settings as SSLConfigNew takes them, with "" for none.
    static SSLConfig *Config(int server, const std::string &certificate, const std::string &key,
                             const std::string &ca) {
        auto file = [](const std::string &name) { return name.empty() ? nullptr : name.c_str(); };
        return SSLConfigNew(server, file(certificate), file(key), file(ca));
    }

    const std::string own_ = dir_ / "localhost.pem", other_ = dir_ / "other.pem";
};

enum Act { kEcho, kSilent, kGarbage, kAbrupt, kBye };

// A strict server trusts "other" clients; a client trusts any server, or
// "localhost" or "other", or speaks no TLS.
TEST_F(TlsTest, Scenarios) {
    SSLConfig *server = Config(1, own_, own_, ""), *strict = Config(1, own_, own_, other_);
    SSLConfig *any = Config(0, "", "", ""), *trusting = Config(0, "", "", own_), *plain = nullptr;
    SSLConfig *wrong = Config(0, "", "", other_), *identified = Config(0, other_, other_, "");
    ASSERT_TRUE(server && strict && any && trusting && wrong && identified) << ErrorText();
    TCPServer *listener = TCPServerOpen(TCPAddrLocal(QK_FAMILY_IPV4, 0));
    TCPAddr addr, peer;
    ASSERT_TRUE(listener && TCPServerGetAddr(listener, &addr)) << ErrorText();
    const std::string block(3 * 1024 * 1024 + 17, 'b');
    const std::string failed = "5,2: SSL error: SSL_connect: *certificate verify failed*",
                      refused = "accept 5,2: SSL error: SSL_accept: *";
    const long before = OpenDescriptors();
    // The server's settings, the limit of both ends' reads and writes, the
    // client's settings and host name, what the client does, and patterns of
    // the client's error and the server's end.
    const std::tuple<SSLConfig *, Int, SSLConfig *, const char *, Act, std::string, std::string>
        cases[] = {
            // clang-format off
        {plain, -1, plain, nullptr, kEcho, "", "-1"}, {plain, 500, plain, nullptr, kEcho, "", "-1"},
        {server, -1, any, nullptr, kEcho, "", "-1"}, {server, 5000, any, nullptr, kEcho, "", "-1"},
        {server, 10000, trusting, "localhost", kEcho, "", "-1"},
        {server, 10000, trusting, "127.0.0.1", kEcho, "", "-1"},
        {server, 10000, trusting, nullptr, kEcho, "", "-1"},  // the chain alone
        {server, 10000, any, "wrong.example", kEcho, "", "-1"},
        {server, 10000, trusting, "wrong.example", kEcho, failed + "(hostname mismatch)", refused},
        {server, 10000, trusting, "127.0.0.2", kEcho, failed + "(IP address mismatch)", refused},
        {server, 10000, wrong, "localhost", kEcho, failed + "(self-signed certificate)", refused},
        {strict, 10000, identified, nullptr, kEcho, "", "-1"},
        // With TLS 1.3 a refused client learns of it at its next read.
        {strict, 10000, any, nullptr, kEcho, "*", refused + "certificate*"},
        {server, -1, plain, nullptr, kEcho, "*", refused},  // plain text
        {server, 1, plain, nullptr, kSilent, "", "accept 2,2: timeout"},  // a second
        {server, 1, any, nullptr, kSilent, "", "-3 2,2: timeout"},
        {server, 10000, any, nullptr, kGarbage, "", "-2 5,2: SSL_read() failed, error=1"},
        {server, 10000, any, nullptr, kAbrupt, "", "-1"},
        // Writing to a server that left fails without SIGPIPE, which would
        // end this program.
        {server, 10000, any, nullptr, kBye, "5,2: SSL error: SSL_write: *", "98"},
            // clang-format on
        };
    Channel *served = ChannelNew(-1, -1);
    for (int i = 0;
         const auto &[serves, timeout, connects, name, act, clientError, serverEnd] : cases) {
        ChannelSetReadTimeout(served, timeout);
        ChannelSetWriteTimeout(served, timeout);
        std::string end;
        ChannelSetSSL(served, serves);
        std::thread echo = Echo(listener, served, &end);
        Channel *client = ChannelNewEx(timeout, timeout, i % 2 ? 5 : -1);  // a connect limit
        ChannelSetSSL(client, connects);
        std::string host = name ? name : "", error;
        ChannelSetSSLHost(client, name ? host.c_str() : nullptr);
        std::fill(host.begin(), host.end(), 'x');  // the channel keeps a copy
        if (!ChannelConnect(client, addr)) {
            error = ErrorText();
            EXPECT_FALSE(ChannelConnected(client));
        } else if (act == kEcho) {
            // A refusing server may be gone already: then the peer is unknown.
            EXPECT_EQ(IsNonBlocking(client->fd), timeout >= 0);
            EXPECT_TRUE(clientError != "" || (ChannelGetAddr(client, &peer, 1) &&
                                              IPAddrIsLocal(peer.ip) && peer.port == addr.port));
            EXPECT_EQ(ChannelGetMemorySize(client) > sizeof(Channel), connects != nullptr);
            for (const std::string &line : {std::string("hello"), block}) {
                int result = 0;
                if (error.empty() && (!WriteLine(client, line) ||
                                      ReadLine(client, 0, &result) != "echo " + line || !result))
                    error = ErrorText();
            }
        } else if (act == kSilent) {
            echo.join();               // until the server gives up
        } else if (act == kGarbage) {  // a record header, and bytes not under the session's keys
            EXPECT_EQ(send(client->fd, "\x17\x03\x03\x00\x05garbage", 12, MSG_NOSIGNAL), 12);
        } else if (act == kAbrupt) {
            // Reading first takes in all the server sent, so that the socket
            // ends with a FIN: unread bytes would turn it into a reset.
            EXPECT_TRUE(WriteLine(client, "then silence") &&
                        ReadLine(client) == "echo then silence");
            ChannelDisconnect(client);  // no close alert
        } else {
            EXPECT_TRUE(WriteLine(client, "bye"));
            if (!WriteUntilFailure(client)) error = ErrorText();
        }
        // With a close alert, the server's end of the stream; a failed
        // write is tried again.
        EXPECT_TRUE(ChannelClose(client) || !error.empty());
        if (echo.joinable()) echo.join();
        EXPECT_TRUE(Matches(error, clientError.c_str())) << i << ": " << error;
        EXPECT_TRUE(Matches(end, serverEnd.c_str())) << i++ << ": " << end;
    }
    // The failures cost the server nothing, and nothing leaked.
    EXPECT_EQ(OpenDescriptors(), before);
    ChannelClose(served);
    for (SSLConfig *config : {server, strict, any, trusting, wrong, identified})
        SSLConfigDelete(config);
    TCPServerClose(listener);
}

TEST_F(TlsTest, ErrorTexts) {
    const std::string &own = own_, &other = other_, junk = dir_ / "junk", none = dir_ / "none";
    WriteWhole(junk, "this is no certificate\n");
    // Server or client, certificate, key, CA file and the error.
    const std::tuple<int, std::string, std::string, std::string, std::string> cases[] = {
        // clang-format off
        {1, own, "", "", "a server needs a certificate and a key"},
        {0, "", own, "", "a private key needs its certificate"},
        {1, none, own, "", "cannot load certificate \"" + none + "\": *No such file*"},
        // Another key of the certificate's kind is refused as it is loaded.
        {1, own, other, "", "cannot load private key \"" + other + "\": *key values mismatch*"},
        {0, "", "", junk, "cannot load CA file \"" + junk + "\": ?*"},
        // clang-format on
    };
    for (const auto &[server, certificate, key, ca, error] : cases) {
        EXPECT_TRUE(!Config(server, certificate, key, ca) &&
                    Matches(ErrorText(), ("5,2: SSL error: " + error).c_str()) &&
                    ERR_peek_error() == 0)
            << ErrorText() << " (or errors left in the queue)";
    }
    SSLErrorThrow("nothing queued");  // and no reason behind the text
    EXPECT_EQ(ErrorText(), "5,2: SSL error: nothing queued");
    SSLConfig *any = Config(0, "", "", "");
    Channel *channel = ChannelNew(-1, -1);
    EXPECT_EQ(Outcome(ChannelStartSSL(channel, 0)),
              "0 5,2: SSL error: no TLS settings on the channel");
    ChannelSetSSL(channel, any);
    EXPECT_EQ(Outcome(ChannelStartSSL(channel, 0)), "0 22,0: Invalid argument");  // not connected
    EXPECT_EQ(ChannelClose(channel), 1);
    SSLConfigDelete(any);
}

// Before SSLInit, TLS calls refuse to work. Only a process that never
// started the TLS layer can show it: the test runs itself again in a child
// that does nothing else.
TEST(TlsFreshProcess, CallsBeforeInitFail) {
    if (getenv("QK_TLS_FRESH_CHILD") == nullptr) {
        const std::string self = std::filesystem::read_symlink("/proc/self/exe");
        int status = system(("QK_TLS_FRESH_CHILD=1 '" + self + "' '--gtest_filter=TlsF*'").c_str());
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "see the child's output";
        return;
    }
    const std::string notStarted = "5,2: SSL error: library not initialized";
    EXPECT_EQ(Outcome(SSLConfigNew(0, nullptr, nullptr, nullptr) != nullptr), "0 " + notStarted);
    Channel *channel = ChannelNew(-1, -1);
    EXPECT_EQ(Outcome(ChannelStartSSL(channel, 1)), "0 " + notStarted);
    EXPECT_EQ(ChannelClose(channel), 1);
    // A thread's set-up starts the library and keeps the error state.
    SSLThreadInit();
    EXPECT_EQ(ErrorText(), notStarted);
    SSLConfig *config = SSLConfigNew(0, nullptr, nullptr, nullptr);
    EXPECT_TRUE(config && SSLInit()) << ErrorText();
    SSLConfigDelete(config);
}

}  // namespace
