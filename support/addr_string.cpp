#include "support/addr_string.h"

#include <ace/INET_Addr.h>
#include <ace/MEM_Addr.h>

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

/// What sets an IPv4 address mapped into IPv6 apart: ::ffff:0:0/96 (RFC 4291, section 2.5.5.2).
constexpr size_t MAPPED_PREFIX = 12;

/// Room for "%" and the zone of a link-local address (RFC 4007, section 11).
constexpr size_t ZONE_SIZE = IF_NAMESIZE + 1;

using Host = char[INET6_ADDRSTRLEN + ZONE_SIZE];

void write_ipv4(const void* address, in_port_t port, bool with_port, char* text, size_t size)
{
    Host host;
    inet_ntop(AF_INET, address, host, sizeof host);
    if (with_port) {
        std::snprintf(text, size, "%s:%u", host, static_cast<unsigned>(ntohs(port)));
    } else {
        std::snprintf(text, size, "%s", host);
    }
}

void append_zone(uint32_t scope, Host& host)
{
    char name[IF_NAMESIZE];
    if (scope == 0) {
        return;
    }
    const size_t used = std::strlen(host);
    if (if_indextoname(scope, name) != nullptr) {
        std::snprintf(host + used, sizeof host - used, "%%%s", name);
    } else {
        std::snprintf(host + used, sizeof host - used, "%%%u", static_cast<unsigned>(scope));
    }
}

void write_ipv6(const sockaddr_in6& address, bool with_port, char* text, size_t size)
{
    if (IN6_IS_ADDR_V4MAPPED(&address.sin6_addr)) {
        write_ipv4(address.sin6_addr.s6_addr + MAPPED_PREFIX, address.sin6_port, with_port, text,
                   size);
        return;
    }
    Host host;
    inet_ntop(AF_INET6, &address.sin6_addr, host, sizeof host);
    append_zone(address.sin6_scope_id, host);
    if (with_port) {
        std::snprintf(text, size, "[%s]:%u", host, static_cast<unsigned>(ntohs(address.sin6_port)));
    } else {
        std::snprintf(text, size, "%s", host);
    }
}

/// Where the address stands; for a shared-memory one the loopback address that it listens on.
const sockaddr* raw_address(const ACE_Addr& address)
{
    const auto* memory = dynamic_cast<const ACE_MEM_Addr*>(&address);
    const void* raw = memory != nullptr ? memory->get_local_addr().get_addr() : address.get_addr();
    return static_cast<const sockaddr*>(raw);
}

} // namespace

ACE_Addr_String::ACE_Addr_String(const ACE_Addr& address, bool with_port)
    : text_{}, has_text_(false)
{
    static_assert(sizeof text_ > sizeof(sockaddr_un::sun_path));
    static_assert(sizeof text_ > sizeof(Host) + sizeof "[]:65535");
    const sockaddr* raw = raw_address(address);
    if (raw == nullptr) {
        return;
    }
    const int error = errno; // interface names are looked up
    has_text_ = true;
    switch (raw->sa_family) {
    case AF_INET: {
        sockaddr_in ipv4;
        std::memcpy(&ipv4, raw, sizeof ipv4);
        write_ipv4(&ipv4.sin_addr, ipv4.sin_port, with_port, text_, sizeof text_);
        break;
    }
    case AF_INET6: {
        sockaddr_in6 ipv6;
        std::memcpy(&ipv6, raw, sizeof ipv6);
        write_ipv6(ipv6, with_port, text_, sizeof text_);
        break;
    }
    case AF_UNIX: {
        // The path need not end in NUL when it fills its field.
        const auto* path = reinterpret_cast<const char*>(raw) + offsetof(sockaddr_un, sun_path);
        std::memcpy(text_, path, strnlen(path, sizeof(sockaddr_un::sun_path)));
        break;
    }
    default:
        has_text_ = false;
        break;
    }
    errno = error;
}

void unmap_ipv4(ACE_INET_Addr& address)
{
    const auto* raw = static_cast<const sockaddr*>(address.get_addr());
    if (raw->sa_family != AF_INET6) {
        return;
    }
    sockaddr_in6 ipv6;
    std::memcpy(&ipv6, raw, sizeof ipv6);
    if (!IN6_IS_ADDR_V4MAPPED(&ipv6.sin6_addr)) {
        return;
    }
    sockaddr_in ipv4{};
    ipv4.sin_family = AF_INET;
    ipv4.sin_port = ipv6.sin6_port;
    std::memcpy(&ipv4.sin_addr, ipv6.sin6_addr.s6_addr + MAPPED_PREFIX, sizeof ipv4.sin_addr);
    address.set(&ipv4, sizeof ipv4);
}
