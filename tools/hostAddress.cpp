#include "tools/hostAddress.h"

#include "lib/misc/text.h"

#include <arpa/inet.h>
#include <atomic>
#include <cstring>
#include <ifaddrs.h>
#include <memory>
#include <netinet/in.h>

namespace tools {

namespace {

std::atomic<int> g_remoteTestPort{0};

// Loopback 127/8, "this network" 0/8, link-local 169.254/16 and the broadcast address.
bool isLocalIpv4(std::uint32_t hostOrder) {
    const std::uint32_t first = hostOrder >> 24;
    return first == 127 || first == 0 || (hostOrder >> 16) == 0xA9FE || hostOrder == 0xFFFFFFFF;
}

// The IPv4 address an IPv6 one carries (mapped ::ffff:a.b.c.d or compatible ::a.b.c.d).
bool embeddedIpv4(const in6_addr& address, std::uint32_t& hostOrder) {
    const unsigned char* b = address.s6_addr;
    for (int i = 0; i < 10; ++i)
        if (b[i] != 0)
            return false;
    const bool mapped = b[10] == 0xFF && b[11] == 0xFF;
    if (!mapped && (b[10] != 0 || b[11] != 0))
        return false;
    std::uint32_t network;
    std::memcpy(&network, b + 12, 4);
    hostOrder = ntohl(network);
    return true;
}

bool isLocalIpv6(const in6_addr& address) {
    std::uint32_t v4 = 0;
    if (embeddedIpv4(address, v4))
        return isLocalIpv4(v4) || v4 == 1; // ::1 has the compatible form of 0.0.0.1
    const unsigned char* b = address.s6_addr;
    return IN6_IS_ADDR_LINKLOCAL(&address) || IN6_IS_ADDR_LOOPBACK(&address) ||
           IN6_IS_ADDR_UNSPECIFIED(&address) || (b[0] == 0xFF && (b[1] & 0x0F) <= 2);
}

struct IfaddrsDeleter {
    void operator()(ifaddrs* list) const { freeifaddrs(list); }
};

// Whether one of this computer's interfaces has the address (IPv4 in network order or IPv6).
bool isInterfaceAddress(int family, const void* bytes) {
    ifaddrs* raw = nullptr;
    if (getifaddrs(&raw) != 0)
        return false;
    std::unique_ptr<ifaddrs, IfaddrsDeleter> list(raw);
    for (const ifaddrs* entry = raw; entry; entry = entry->ifa_next) {
        if (!entry->ifa_addr || entry->ifa_addr->sa_family != family)
            continue;
        if (family == AF_INET &&
            std::memcmp(&reinterpret_cast<const sockaddr_in*>(entry->ifa_addr)->sin_addr, bytes,
                        4) == 0)
            return true;
        if (family == AF_INET6 &&
            std::memcmp(&reinterpret_cast<const sockaddr_in6*>(entry->ifa_addr)->sin6_addr, bytes,
                        16) == 0)
            return true;
    }
    return false;
}

bool isThisComputerIpv4(const sockaddr_in& address) {
    const std::uint32_t hostOrder = ntohl(address.sin_addr.s_addr);
    const int testPort = g_remoteTestPort.load();
    if (testPort != 0 && (hostOrder >> 24) == 127 && ntohs(address.sin_port) == testPort)
        return false;
    return isLocalIpv4(hostOrder) || isInterfaceAddress(AF_INET, &address.sin_addr);
}

} // namespace

bool isThisComputer(const sockaddr* address) {
    if (!address)
        return true;
    if (address->sa_family == AF_INET)
        return isThisComputerIpv4(*reinterpret_cast<const sockaddr_in*>(address));
    if (address->sa_family != AF_INET6)
        return true; // only IP connections are made
    const auto& v6 = *reinterpret_cast<const sockaddr_in6*>(address);
    std::uint32_t v4 = 0;
    if (embeddedIpv4(v6.sin6_addr, v4)) {
        // An IPv4 address in IPv6 clothing is judged as itself.
        sockaddr_in plain{};
        plain.sin_family = AF_INET;
        plain.sin_port = v6.sin6_port;
        plain.sin_addr.s_addr = htonl(v4);
        if (v4 != 1)
            return isThisComputerIpv4(plain);
    }
    return isLocalIpv6(v6.sin6_addr) || isInterfaceAddress(AF_INET6, &v6.sin6_addr);
}

bool hostNamesThisComputer(const std::string& host, int port) {
    std::string name = misc::lowered(misc::percentDecoded(host));
    if (name.size() >= 2 && name.front() == '[' && name.back() == ']')
        name = name.substr(1, name.size() - 2);
    name = name.substr(0, name.find('%')); // an IPv6 zone ("::1%lo")
    while (!name.empty() && name.back() == '.')
        name.pop_back();
    if (name.empty() || name == "localhost" || name.ends_with(".localhost"))
        return true;
    sockaddr_in v4{};
    v4.sin_family = AF_INET;
    v4.sin_port = htons(static_cast<std::uint16_t>(port));
    // inet_aton reads every historical form: one number, hexadecimal and octal parts.
    if (inet_aton(name.c_str(), &v4.sin_addr) != 0)
        return isThisComputer(reinterpret_cast<const sockaddr*>(&v4));
    sockaddr_in6 v6{};
    v6.sin6_family = AF_INET6;
    v6.sin6_port = htons(static_cast<std::uint16_t>(port));
    if (inet_pton(AF_INET6, name.c_str(), &v6.sin6_addr) == 1)
        return isThisComputer(reinterpret_cast<const sockaddr*>(&v6));
    return false;
}

std::string addressText(const sockaddr* address) {
    char text[INET6_ADDRSTRLEN] = "?";
    if (address && address->sa_family == AF_INET)
        inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(address)->sin_addr, text,
                  sizeof text);
    else if (address && address->sa_family == AF_INET6)
        inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr, text,
                  sizeof text);
    return text;
}

void setRemoteTestPort(int port) { g_remoteTestPort = port; }

} // namespace tools
