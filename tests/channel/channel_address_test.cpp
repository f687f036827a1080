// Addresses: the dotted-quad parser, local socket names, host and port
// texts with brackets and service names, command-line ports, comparison,
// printing, the resolver and the default family.
#include "channel/channel_test_util.h"

using namespace chantest;

namespace {

class ChannelAddressTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { Init(); }
    void TearDown() override { QKUnixSocketSetBase(nullptr); }
};

IPAddr Quad(UInt value) {
    IPAddr addr;
    IPAddrSetAddr4(&addr, value);
    return addr;
}

std::string Printed(TCPAddr addr) {
    ByteArray text = {};
    ArrayAppend(text, ">", 1);
    if (!TCPAddrGetIPPort(addr, &text)) {
        ArrayFree(text);
        return "<none>";
    }
    std::string s((char *)text.data + 1, text.length - 1);
    if (text.data[text.length] != 0) s += "<no terminator>";
    ArrayFree(text);
    return s;
}

TEST_F(ChannelAddressTest, SetIPTakesExactlyFourNumbers) {
    IPAddr addr = Quad(0x01020304);
    for (const char *bad : {"1.2.3", "1.2.3.4.5", "1..2.3", "256.1.1.1", "1.2.3.4 ", "", "1.2.3.",
                            "1.2.3.-4", "1.2.3.99999999999"}) {
        EXPECT_EQ(IPAddrSetIP(&addr, bad), 0) << bad;
        EXPECT_EQ(IPAddrGetAddr4(addr), 0x01020304u) << bad;
    }
    EXPECT_EQ(IPAddrSetIP(&addr, "192.168.0.255"), 1);
    EXPECT_EQ(IPAddrGetAddr4(addr), 0xC0A800FFu);
    EXPECT_EQ(IPAddrSetIP(&addr, "127.000.0.01"), 1);
    EXPECT_TRUE(IPAddrIsLocal(addr));
}

TEST_F(ChannelAddressTest, LocalNames) {
    IPAddr addr, other;
    EXPECT_EQ(IPAddrSetHost(&addr, "/0123456789abcdef"), 0);
    EXPECT_TRUE(HasError(QK_ERR_INVALID, QK_DOMAIN_GENERAL, "socket name too long"));
    EXPECT_EQ(IPAddrSetHost(&addr, "/a\\b"), 0);
    EXPECT_TRUE(HasError(QK_ERR_INVALID, QK_DOMAIN_GENERAL,
                         "socket name must not contain '/' and '\\' chars"));
    ASSERT_EQ(IPAddrSetHost(&addr, "/0123456789abcde"), 1);
    EXPECT_EQ(addr.family, QK_FAMILY_LOCAL);
    EXPECT_STREQ(addr.u.name, "0123456789abcde");
    ASSERT_EQ(IPAddrSetHost(&other, "/0123456789abcde"), 1);
    EXPECT_TRUE(IPAddrEquals(addr, other));
    ASSERT_EQ(IPAddrSetHost(&other, "/0123456789abcd"), 1);
    EXPECT_FALSE(IPAddrEquals(addr, other));
}

TEST_F(ChannelAddressTest, CompareCopyAndPrint) {
    EXPECT_TRUE(IPAddrEquals(Quad(0x7F000001), IPAddrLocal(QK_FAMILY_IPV4)));
    EXPECT_FALSE(IPAddrEquals(Quad(0x7F000001), Quad(0x7F000002)));
    EXPECT_TRUE(IPAddrEquals(Quad(0), IPAddrAny(QK_FAMILY_NONE)));
    IPAddr none = {}, six = {};
    EXPECT_FALSE(IPAddrEquals(none, none));
    UByte bytes[16] = {0xfe, 0x80};
    IPAddrSetAddr6(&six, bytes);
    EXPECT_FALSE(IPAddrEquals(six, six));
    EXPECT_EQ(IPAddrCopyAddr6(six, bytes), 0);
    ASSERT_EQ(IPAddrCopyAddr6(Quad(0xC0A80102), bytes), 1);
    const UByte mapped[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 255, 255, 192, 168, 1, 2};
    EXPECT_EQ(memcmp(bytes, mapped, 16), 0);
    EXPECT_EQ(Printed(TCPAddrLocal(QK_FAMILY_IPV4, 65535)), "127.0.0.1:65535");
    EXPECT_EQ(Printed({Quad(0xFF00FF01), 0}), "255.0.255.1:0");
    EXPECT_EQ(Printed({six, 1}), "<none>");
}

TEST_F(ChannelAddressTest, HostPort) {
    TCPAddr addr;
    ASSERT_EQ(TCPAddrSetHostPort(&addr, ":80"), 1) << QKErrorMessage();
    EXPECT_EQ(Printed(addr), "127.0.0.1:80");
    ASSERT_EQ(TCPAddrSetHostPort(&addr, "[10.1.2.3]:8080"), 1);
    EXPECT_EQ(Printed(addr), "10.1.2.3:8080");
    ASSERT_EQ(TCPAddrSetHostPort(&addr, "localhost:http"), 1);
    EXPECT_EQ(Printed(addr), "127.0.0.1:80");
    ASSERT_EQ(TCPAddrSetHostPort(&addr, "/srv:12"), 1);
    EXPECT_STREQ(addr.ip.u.name, "srv");
    EXPECT_EQ(addr.port, 12);

    addr = TCPAddrLocal(QK_FAMILY_IPV4, 1);
    for (const char *bad : {"1.2.3.4:65536", "1.2.3.4:99999999999999"}) {
        EXPECT_EQ(TCPAddrSetHostPort(&addr, bad), 0);
        EXPECT_TRUE(HasError(QK_ERR_FAILURE, QK_DOMAIN_GENERAL, "invalid port number"));
    }
    // Inside the bracket a colon belongs to the host.
    for (std::string bad :
         {std::string("1.2.3.4"), std::string("[1.2.3.4:5"), std::string(300, 'h') + ":80"}) {
        EXPECT_EQ(TCPAddrSetHostPort(&addr, bad.c_str()), 0);
        EXPECT_TRUE(
            HasError(QK_ERR_FAILURE, QK_DOMAIN_GENERAL, "invalid address (missing ':' char)"));
    }
    EXPECT_EQ(TCPAddrSetHostPort(&addr, "1.2.3.4:no-such-service-here"), 0);
    EXPECT_EQ(Printed(addr), "127.0.0.1:1");
}

TEST_F(ChannelAddressTest, PortArgument) {
    TCPAddr addr;
    ASSERT_EQ(TCPAddrParsePortArg(&addr, "80"), 1);
    EXPECT_EQ(Printed(addr), "0.0.0.0:80");
    EXPECT_EQ(TCPAddrParsePortArg(&addr, "0"), 0);
    EXPECT_EQ(TCPAddrParsePortArg(&addr, "123456789012345678901"), 0);
    ASSERT_EQ(TCPAddrParsePortArg(&addr, "127.0.0.1:9"), 1);
    EXPECT_EQ(Printed(addr), "127.0.0.1:9");
    // A leading "/base" names the local socket base, then the rest is parsed.
    ASSERT_EQ(TCPAddrParsePortArg(&addr, "/mybase/srv:44"), 1);
    EXPECT_STREQ(addr.ip.u.name, "srv");
    char path[256];
    setenv("QK_SOCKET_DIR", "/d", 1);
    QKUnixSocketPath(&addr, path, sizeof path);
    unsetenv("QK_SOCKET_DIR");
    EXPECT_STREQ(path, "/d/qk.mybase.srv.44");
    // Without a second '/' the whole text is parsed again, and has no port.
    EXPECT_EQ(TCPAddrParsePortArg(&addr, "/other"), 0);
    QKUnixSocketPath(&addr, path, sizeof path);
    EXPECT_NE(std::string(path).find("/qk.other."), std::string::npos);
}

TEST_F(ChannelAddressTest, Resolver) {
    IPAddr addr;
    ASSERT_EQ(IPAddrSetHost(&addr, "localhost"), 1) << QKErrorMessage();
    EXPECT_TRUE(IPAddrIsLocal(addr));
    QK_ARRAY(IPAddr) all = {};
    ArrayAdd(all, Quad(1));
    ASSERT_EQ(IPAddrSetHostMultiple(&all, "10.0.0.1"), 1);
    ASSERT_EQ(all.length, 1u);
    EXPECT_EQ(IPAddrGetAddr4(all.data[0]), 0x0A000001u);
    ArrayFree(all);
    EXPECT_EQ(IPAddrSetHost(&addr, "no-such-host.invalid"), 0);
    EXPECT_EQ(QKErrorCode() >> 32, (ULong)QK_DOMAIN_OS);
    ByteArray name = {};
    ASSERT_EQ(IPAddrGetHost(IPAddrLocal(QK_FAMILY_IPV4), &name), 1);
    EXPECT_GT(name.length, 0u);
    ArrayFree(name);
}

TEST_F(ChannelAddressTest, DefaultFamily) {
    EXPECT_EQ(QKSetDefaultFamily(QK_FAMILY_IPV6), 0);
    EXPECT_EQ(QKGetDefaultFamily(), QK_FAMILY_IPV4);
    EXPECT_EQ(QKSetDefaultFamily(QK_FAMILY_IPV4), 1);
    EXPECT_FALSE(QKIsFamilySupported(QK_FAMILY_IPV6));
    EXPECT_DEATH(IPAddrLocal(QK_FAMILY_IPV6), "FALSE");
}

}  // namespace
