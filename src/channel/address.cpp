// IPAddr and TCPAddr as value types: making, comparing and printing them,
// the dotted-quad parser, and the process's default family. Only IPv4
// connects; an IPv6 address can be stored and compared, and a local socket
// is named by a short string.
#include <errno.h>
#include <string.h>

#include <atomic>

#include <trio.h>

#include "channel/channel_internal.h"

namespace {

// The assertion text of an address asked for in a family that has none.
constexpr int FALSE = 0;

constexpr UInt kLoopback = 0x7F000001u;

std::atomic<Int> defaultFamily{QK_FAMILY_IPV4};

IPAddr MakeIPv4(Int family, UInt value) {
    if (family == QK_FAMILY_NONE) family = QKGetDefaultFamily();
    if (family != QK_FAMILY_IPV4) qkassert(FALSE);
    IPAddr addr;
    memset(&addr, 0, sizeof addr);
    addr.family = QK_FAMILY_IPV4;
    addr.u.addr4 = value;
    return addr;
}

TCPAddr WithPort(IPAddr ip, UShort port) {
    TCPAddr addr;
    memset(&addr, 0, sizeof addr);
    addr.ip = ip;
    addr.port = port;
    return addr;
}

}  // namespace

extern "C" {

// Sockets need no start-up here.
QK_API void QKTCPInit(void) {}

QK_API int QKIsFamilySupported(Int family) {
    return family == QK_FAMILY_IPV4;
}

QK_API Int QKGetDefaultFamily(void) {
    return defaultFamily.load(std::memory_order_relaxed);
}

QK_API int QKSetDefaultFamily(Int family) {
    Int old = defaultFamily.exchange(family);
    IPAddr local;
    if (!IPAddrSetHost(&local, "localhost")) {
        defaultFamily.store(old);
        return 0;
    }
    if (local.family != family) {
        defaultFamily.store(old);
        QKErrorThrow(QK_ERR_NOT_SUPPORTED, QK_DOMAIN_GENERAL, "not supported");
        return 0;
    }
    return 1;
}

QK_API IPAddr IPAddrLocal(Int family) {
    return MakeIPv4(family, kLoopback);
}

QK_API IPAddr IPAddrAny(Int family) {
    return MakeIPv4(family, 0);
}

QK_API int IPAddrIsLocal(IPAddr addr) {
    return addr.family == QK_FAMILY_IPV4 && addr.u.addr4 == kLoopback;
}

QK_API int IPAddrIsAny(IPAddr addr) {
    return addr.family == QK_FAMILY_IPV4 && addr.u.addr4 == 0;
}

QK_API int IPAddrEquals(IPAddr a, IPAddr b) {
    UInt a4 = IPAddrGetAddr4(a);
    UInt b4 = IPAddrGetAddr4(b);
    if (a4 != 0 || b4 != 0) return a4 == b4;
    if (a.family != b.family) return 0;
    switch (a.family) {
        case QK_FAMILY_IPV4:
            return a.u.addr4 == b.u.addr4;
        case QK_FAMILY_LOCAL:
            return strncmp(a.u.name, b.u.name, 15) == 0;
        default:
            return 0;
    }
}

QK_API UInt IPAddrGetAddr4(IPAddr addr) {
    return addr.family == QK_FAMILY_IPV4 ? addr.u.addr4 : 0;
}

QK_API int IPAddrCopyAddr6(IPAddr addr, UByte *target) {
    if (addr.family != QK_FAMILY_IPV4) return 0;
    memset(target, 0, 10);
    target[10] = 255;
    target[11] = 255;
    UInt value = addr.u.addr4;
    for (int i = 0; i < 4; i++) target[12 + i] = (UByte)(value >> (24 - 8 * i));
    return 1;
}

QK_API void IPAddrSetAddr4(IPAddr *addr, UInt value) {
    memset(addr->u.host, 0, sizeof addr->u.host);
    addr->u.addr4 = value;
    addr->family = QK_FAMILY_IPV4;
}

QK_API void IPAddrSetAddr6(IPAddr *addr, const UByte *value) {
    memcpy(addr->u.addr6, value, sizeof addr->u.addr6);
    addr->family = QK_FAMILY_IPV6;
}

// Four decimal numbers of at most 255, single dots between them, nothing
// else.
QK_API int IPAddrSetIP(IPAddr *addr, const char *text) {
    UInt value = 0;
    const char *p = text;
    for (int part = 0; part < 4; part++) {
        if (part > 0) {
            if (*p != '.') return 0;
            p++;
        }
        if (*p < '0' || *p > '9') return 0;
        UInt number = 0;
        while (*p >= '0' && *p <= '9') {
            number = number * 10 + (UInt)(*p - '0');
            if (number > 255) return 0;
            p++;
        }
        value = (value << 8) | number;
    }
    if (*p != '\0') return 0;
    IPAddrSetAddr4(addr, value);
    return 1;
}

QK_API int IPAddrGetIP(IPAddr addr, ByteArray *array) {
    if (addr.family != QK_FAMILY_IPV4) {
        errno = EINVAL;
        return 0;
    }
    UInt v = addr.u.addr4;
    char text[16];
    int n = trio_snprintf(text, sizeof text, "%d.%d.%d.%d", (int)(v >> 24), (int)((v >> 16) & 255),
                          (int)((v >> 8) & 255), (int)(v & 255));
    qk::channel::AppendText(array, text, (size_t)n);
    return 1;
}

QK_API TCPAddr TCPAddrLocal(Int family, UShort port) {
    return WithPort(IPAddrLocal(family), port);
}

QK_API TCPAddr TCPAddrAny(Int family, UShort port) {
    return WithPort(IPAddrAny(family), port);
}

QK_API int TCPAddrGetIPPort(TCPAddr addr, ByteArray *array) {
    if (addr.ip.family != QK_FAMILY_IPV4) {
        errno = EINVAL;
        return 0;
    }
    UInt v = addr.ip.u.addr4;
    char text[24];
    int n =
        trio_snprintf(text, sizeof text, "%d.%d.%d.%d:%d", (int)(v >> 24), (int)((v >> 16) & 255),
                      (int)((v >> 8) & 255), (int)(v & 255), (int)addr.port);
    qk::channel::AppendText(array, text, (size_t)n);
    return 1;
}

}  // extern "C"
