// Addresses: the texts every parser takes or refuses, comparison, copying
// and printing, the resolver and the default family.
#include "channel/channel_test_util.h"

namespace {

class AddressTest : public ChannelTest {
  protected:
    static int SetIP(TCPAddr *addr, const char *text) { return IPAddrSetIP(&addr->ip, text); }
    static int SetHost(TCPAddr *addr, const char *text) { return IPAddrSetHost(&addr->ip, text); }
    static int HostPort(TCPAddr *addr, const char *text) { return TCPAddrSetHostPort(addr, text); }
    static int PortArg(TCPAddr *addr, const char *text) { return TCPAddrParsePortArg(addr, text); }
    static IPAddr Quad(UInt value) { return {.u = {.addr4 = value}, .family = QK_FAMILY_IPV4}; }
};

// "a.b.c.d:port" for IPv4 (printed behind what the array held), "/name:port"
// for a local name, else "<none>".
std::string Show(TCPAddr addr) {
    if (addr.ip.family == QK_FAMILY_LOCAL)
        return "/" + std::string(addr.ip.u.name) + ":" + std::to_string(addr.port);
    ByteArray text = {};
    ArrayAppend(text, ">", 1);  // printing appends, and keeps a zero behind
    std::string s = TCPAddrGetIPPort(addr, &text) ? (char *)text.data + 1 : "<none>";
    ArrayFree(text);
    return s;
}

// Each parser starts on 127.0.0.1:1, which a failure leaves alone.
TEST_F(AddressTest, ParsersTakeOrRefuseTexts) {
    const std::string port = "!0,2: invalid port number",
                      colon = "!0,2: invalid address (missing ':' char)";
    // The address shown, or "!" and the error text if checked.
    const std::tuple<int (*)(TCPAddr *, const char *), std::string, std::string> cases[] = {
        // clang-format off
        {SetIP, "192.168.0.255", "192.168.0.255:1"}, {SetIP, "127.000.0.01", "127.0.0.1:1"},
        {SetIP, "1.2.3", "!"}, {SetIP, "1.2.3.4.5", "!"}, {SetIP, "1..2.3", "!"}, {SetIP, "", "!"},
        {SetIP, "256.1.1.1", "!"}, {SetIP, "1.2.3.4 ", "!"}, {SetIP, "1.2.3.99999999999", "!"},
        {SetHost, "/0123456789abcde", "/0123456789abcde:1"}, {SetHost, "localhost", "127.0.0.1:1"},
        {SetHost, "/0123456789abcdef", "!1,2: socket name too long"},
        {SetHost, "/a\\b", "!1,2: socket name must not contain '/' and '\\' chars"},
        {HostPort, ":80", "127.0.0.1:80"}, {HostPort, "/srv:12", "/srv:12"},
        {HostPort, "[10.1.2.3]:8080", "10.1.2.3:8080"}, {HostPort, "1.2.3.4:65536", port},
        {HostPort, "localhost:http", "127.0.0.1:80"}, {HostPort, "1.2.3.4:9999999999", port},
        {HostPort, "1.2.3.4", colon}, {HostPort, std::string(300, 'h') + ":8", colon},
        {HostPort, "[1.2.3.4:5", colon},  // inside the bracket ':' is the host's
        {HostPort, "1.2.3.4:no-such", "!1,2: unknown service \"no-such\""},
        {PortArg, "80", "0.0.0.0:80"}, {PortArg, "0", port}, {PortArg, "/other", colon},
        {PortArg, "127.0.0.1:9", "127.0.0.1:9"}, {PortArg, "/mybase/srv:44", "/srv:44"},
        {PortArg, "123456789012345678901", port},
        // clang-format on
    };
    for (const auto &[parse, text, expected] : cases) {
        TCPAddr addr = TCPAddrLocal(QK_FAMILY_IPV4, 1);
        QKErrorClear();
        const int ok = parse(&addr, text.c_str());
        const std::string got = ok ? Show(addr) : "!" + (expected.size() > 1 ? ErrorText() : "");
        EXPECT_EQ(got, expected) << text;
        EXPECT_EQ(Show(addr), ok ? got : "127.0.0.1:1") << text;
    }
}

TEST_F(AddressTest, CompareCopyPrintAndResolve) {
    UByte bytes[16] = {0xfe, 0x80};
    IPAddr none = {}, six = {}, name, shorter;
    IPAddrSetAddr6(&six, bytes);
    ASSERT_TRUE(IPAddrSetHost(&name, "/0123456789abcde") &&
                IPAddrSetHost(&shorter, "/0123456789abcd"));
    const std::tuple<IPAddr, IPAddr, bool> pairs[] = {
        // clang-format off
        {Quad(0x7F000001), IPAddrLocal(QK_FAMILY_IPV4), true}, {Quad(0), IPAddrAny(0), true},
        {Quad(0x7F000001), Quad(0x7F000002), false}, {none, none, false}, {six, six, false},
        {name, name, true}, {name, shorter, false},
        // clang-format on
    };
    for (int i = 0; const auto &[a, b, equal] : pairs) EXPECT_EQ(IPAddrEquals(a, b), equal) << i++;
    EXPECT_EQ(IPAddrCopyAddr6(six, bytes), 0);
    ASSERT_EQ(IPAddrCopyAddr6(Quad(0xC0A80102), bytes), 1);
    EXPECT_EQ(std::string((char *)bytes, 16), std::string(10, 0) + "\xff\xff\xc0\xa8\x01\x02");
    EXPECT_EQ(Show(TCPAddrLocal(QK_FAMILY_IPV4, 65535)), "127.0.0.1:65535");
    EXPECT_EQ(Show({Quad(0xFF00FF01), 0}), "255.0.255.1:0");
    EXPECT_EQ(Show({six, 1}), "<none>");
    // The resolver, both ways, and the default family.
    QK_ARRAY(IPAddr) all = {};
    ArrayAdd(all, Quad(1));  // emptied first
    EXPECT_TRUE(IPAddrSetHostMultiple(&all, "10.0.0.1") && all.length == 1 &&
                IPAddrGetAddr4(all.data[0]) == 0x0A000001u);
    ArrayFree(all);
    EXPECT_TRUE(!IPAddrSetHost(&none, "no-such-host.invalid") &&
                QKErrorCode() >> 32 == QK_DOMAIN_OS);
    ByteArray host = {};
    EXPECT_TRUE(IPAddrGetHost(IPAddrLocal(QK_FAMILY_IPV4), &host) && host.length > 0);
    ArrayFree(host);
    EXPECT_TRUE(!QKSetDefaultFamily(QK_FAMILY_IPV6) && QKGetDefaultFamily() == QK_FAMILY_IPV4);
    EXPECT_TRUE(QKSetDefaultFamily(QK_FAMILY_IPV4) && !QKIsFamilySupported(QK_FAMILY_IPV6));
    EXPECT_DEATH(IPAddrLocal(QK_FAMILY_IPV6), "FALSE");
}

}  // namespace
