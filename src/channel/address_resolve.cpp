// Addresses from text: host names through the system resolver, local
// socket names, "host:port" with service names, and the port argument of a
// command line.
//
// A name the resolver does not know gives errno -1 with the system error
// ENXIO; a resolver that cannot answer now, EAGAIN; one that failed, EIO.
#include <arpa/inet.h>
#include <errno.h>
#include <netdb.h>
#include <string.h>

#include <vector>

#include "channel/channel_internal.h"
#include "frame/file_internal.h"

namespace {

constexpr size_t kHostSize = 256;
constexpr size_t kLocalNameSize = 16;

typedef QK_ARRAY(IPAddr) IPAddrArray;

void ResolverFailed(int error) {
    switch (error) {
        case TRY_AGAIN:
            qk::SetSystemError(EAGAIN);
            break;
        case NO_RECOVERY:
            qk::SetSystemError(EIO);
            break;
        default:
            qk::SetSystemError(ENXIO);
            break;
    }
}

// Sets `addr` from the text, and appends every address the text stands for
// to `all` when it is given. 1, or 0 with the error state set.
int SetHost(IPAddr *addr, IPAddrArray *all, const char *text) {
    IPAddr one;
    memset(&one, 0, sizeof one);
    if (text[0] == '/') {
        const char *name = text + 1;
        size_t length = strlen(name);
        if (length >= kLocalNameSize) {
            QKErrorThrow(QK_ERR_INVALID, QK_DOMAIN_GENERAL, "socket name too long");
            return 0;
        }
        if (strpbrk(name, "/\\") != nullptr) {
            QKErrorThrow(QK_ERR_INVALID, QK_DOMAIN_GENERAL,
                         "socket name must not contain '/' and '\\' chars");
            return 0;
        }
        memcpy(one.u.name, name, length);
        one.family = QK_FAMILY_LOCAL;
    } else if (!IPAddrSetIP(&one, text)) {
        struct hostent entry;
        struct hostent *result = nullptr;
        int error = 0;
        std::vector<char> work(2048);
        int rc;
        while ((rc = gethostbyname_r(text, &entry, work.data(), work.size(), &result, &error)) ==
               ERANGE) {
            work.resize(work.size() * 2);
        }
        if (rc != 0 || result == nullptr) {
            ResolverFailed(error);
            return 0;
        }
        if (result->h_addrtype != AF_INET) {
            QKErrorThrow(QK_ERR_INVALID, QK_DOMAIN_GENERAL, "Not an Internet address");
            return 0;
        }
        if (result->h_length != 4) {
            QKErrorThrow(QK_ERR_INVALID, QK_DOMAIN_GENERAL, "Not an ipv4 Internet address");
            return 0;
        }
        if (result->h_addr_list[0] == nullptr) {
            qk::SetSystemError(ENXIO);
            return 0;
        }
        for (char **p = result->h_addr_list; *p != nullptr; p++) {
            UInt network;
            memcpy(&network, *p, 4);
            IPAddr each;
            IPAddrSetAddr4(&each, ntohl(network));
            if (p == result->h_addr_list) one = each;
            if (all != nullptr) ArrayAdd(*all, each);
        }
        *addr = one;
        return 1;
    }
    if (all != nullptr) ArrayAdd(*all, one);
    *addr = one;
    return 1;
}

// A port given as decimal digits, or as a service name known to the system.
int ParsePort(const char *text, UShort *port) {
    bool decimal = text[0] != '\0';
    for (const char *p = text; *p != '\0'; p++) {
        if (*p < '0' || *p > '9') {
            decimal = false;
            break;
        }
    }
    if (decimal) {
        UInt value = 0;
        for (const char *p = text; *p != '\0'; p++) {
            value = value * 10 + (UInt)(*p - '0');
            if (value > 65535) {
                QKErrorThrow(QK_ERR_FAILURE, QK_DOMAIN_GENERAL, "invalid port number");
                return 0;
            }
        }
        *port = (UShort)value;
        return 1;
    }
    struct servent entry;
    struct servent *result = nullptr;
    std::vector<char> work(1024);
    int rc;
    while ((rc = getservbyname_r(text, "tcp", &entry, work.data(), work.size(), &result)) ==
           ERANGE) {
        work.resize(work.size() * 2);
    }
    if (rc != 0 || result == nullptr) {
        QKErrorThrow(QK_ERR_INVALID, QK_DOMAIN_GENERAL, "unknown service \"%s\"", text);
        return 0;
    }
    *port = ntohs((UShort)result->s_port);
    return 1;
}

bool IsDecimal(const char *text) {
    if (*text == '\0') return false;
    for (; *text != '\0'; text++) {
        if (*text < '0' || *text > '9') return false;
    }
    return true;
}

}  // namespace

extern "C" {

QK_API int IPAddrSetHost(IPAddr *addr, const char *text) {
    return SetHost(addr, nullptr, text);
}

QK_API int IPAddrSetHostMultiple(void *array, const char *text) {
    IPAddrArray *all = static_cast<IPAddrArray *>(array);
    all->length = 0;
    IPAddr first;
    return SetHost(&first, all, text);
}

QK_API int IPAddrGetHost(IPAddr addr, ByteArray *array) {
    if (addr.family != QK_FAMILY_IPV4) {
        errno = EINVAL;
        return 0;
    }
    UInt network = htonl(addr.u.addr4);
    struct hostent entry;
    struct hostent *result = nullptr;
    int error = 0;
    std::vector<char> work(2048);
    int rc;
    while ((rc = gethostbyaddr_r(&network, sizeof network, AF_INET, &entry, work.data(),
                                 work.size(), &result, &error)) == ERANGE) {
        work.resize(work.size() * 2);
    }
    if (rc != 0 || result == nullptr || result->h_name == nullptr) {
        ResolverFailed(error);
        return 0;
    }
    qk::channel::AppendText(array, result->h_name, strlen(result->h_name));
    return 1;
}

QK_API int TCPAddrSetHostPort(TCPAddr *addr, const char *text) {
    char host[kHostSize];
    size_t length = 0;
    const char *p = text;
    bool bracket = false;
    if (*p == '[') {
        bracket = true;
        p++;
    }
    for (;; p++) {
        if (*p == '\0' || length == kHostSize - 1) {
            QKErrorThrow(QK_ERR_FAILURE, QK_DOMAIN_GENERAL, "invalid address (missing ':' char)");
            return 0;
        }
        if (bracket && *p == ']') {
            bracket = false;
            continue;
        }
        if (!bracket && *p == ':') break;
        host[length++] = *p;
    }
    host[length] = '\0';
    TCPAddr result;
    memset(&result, 0, sizeof result);
    if (!IPAddrSetHost(&result.ip, length == 0 ? "localhost" : host)) return 0;
    if (!ParsePort(p + 1, &result.port)) return 0;
    *addr = result;
    return 1;
}

QK_API int TCPAddrParsePortArg(TCPAddr *addr, const char *text) {
    if (text[0] == '/') {
        const char *next = strchr(text + 1, '/');
        size_t length = next != nullptr ? (size_t)(next - (text + 1)) : strlen(text + 1);
        std::vector<char> base(text + 1, text + 1 + length);
        base.push_back('\0');
        QKUnixSocketSetBase(base.data());
        return TCPAddrSetHostPort(addr, next != nullptr ? next : text);
    }
    if (IsDecimal(text)) {
        UInt value = 0;
        for (const char *p = text; *p != '\0' && value <= 65535; p++)
            value = value * 10 + (UInt)(*p - '0');
        if (value == 0 || value > 65535) {
            QKErrorThrow(QK_ERR_FAILURE, QK_DOMAIN_GENERAL, "invalid port number");
            return 0;
        }
        *addr = TCPAddrAny(QK_FAMILY_NONE, (UShort)value);
        return 1;
    }
    return TCPAddrSetHostPort(addr, text);
}

}  // extern "C"
