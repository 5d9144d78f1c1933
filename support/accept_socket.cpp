#include "support/accept_socket.h"

#include "support/addr_string.h"

#include <ace/INET_Addr.h>
#include <ace/Time_Value.h>
#include <ace/UNIX_Addr.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/un.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

namespace {

/// ACE's set_addr() keeps the family that the object has; set() takes that of the argument, IPv6
/// too, whatever its type says.
void set_raw_addr(ACE_INET_Addr& address, const sockaddr_storage& raw)
{
    const int length = raw.ss_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    address.set(reinterpret_cast<const sockaddr_in*>(&raw), length);
}

} // namespace

Accept_Limit::Accept_Limit(const ACE_Time_Value* timeout)
    : may_wait(timeout != nullptr && *timeout > ACE_Time_Value::zero),
      deadline(Deadline::after(timeout))
{
}

int accept_socket(int listener, sockaddr_storage& peer, const Accept_Limit& limit, bool restart,
                  int flags)
{
    for (;;) {
        socklen_t length = sizeof peer;
        const int handle =
            accept4(listener, reinterpret_cast<sockaddr*>(&peer), &length, SOCK_CLOEXEC | flags);
        if (handle != -1) {
            return handle;
        }
        if (errno == EINTR) {
            if (!restart) {
                return -1;
            }
            continue;
        }
        if (errno != EAGAIN || !limit.may_wait) {
            return -1;
        }
        const int ready = wait_for_handle(listener, POLLIN, limit.deadline, restart);
        if (ready == 0) {
            errno = ETIMEDOUT;
        }
        if (ready <= 0) {
            return -1;
        }
    }
}

void set_inet_addr(ACE_INET_Addr& address, const sockaddr_storage& peer)
{
    set_raw_addr(address, peer);
    unmap_ipv4(address);
}

void set_unix_addr(ACE_UNIX_Addr& address, const sockaddr_storage& peer)
{
    sockaddr_un name{};
    std::memcpy(&name, &peer, sizeof name);
    name.sun_family = AF_UNIX;
    name.sun_path[sizeof name.sun_path - 1] = '\0';
    address.set(&name, sizeof name);
}

bool is_unreadable(const ACE_INET_Addr& address)
{
    return address == ACE_INET_Addr();
}

int listen_address(const ACE_INET_Addr& address, bool ipv6_only, ACE_INET_Addr& result)
{
    if (is_unreadable(address)) {
        errno = EINVAL;
        return -1;
    }
    result = address;
    if (ipv6_only && address.get_type() == AF_INET && address.is_any()) {
        sockaddr_in6 wildcard{};
        wildcard.sin6_family = AF_INET6;
        wildcard.sin6_port = htons(address.get_port_number());
        sockaddr_storage raw{};
        std::memcpy(&raw, &wildcard, sizeof wildcard);
        set_raw_addr(result, raw);
    }
    return 0;
}

int set_buffers(int handle, int recv_buf_size, int send_buf_size)
{
    if (recv_buf_size > 0 &&
        setsockopt(handle, SOL_SOCKET, SO_RCVBUF, &recv_buf_size, sizeof recv_buf_size) == -1) {
        return -1;
    }
    return send_buf_size > 0
               ? setsockopt(handle, SOL_SOCKET, SO_SNDBUF, &send_buf_size, sizeof send_buf_size)
               : 0;
}

int waiting_connections(int listener)
{
    // Of a listening socket this field is the length of its queue.
    constexpr socklen_t LENGTH = offsetof(tcp_info, tcpi_unacked) + sizeof(tcp_info::tcpi_unacked);
    tcp_info info{};
    socklen_t length = LENGTH;
    if (getsockopt(listener, IPPROTO_TCP, TCP_INFO, &info, &length) == -1 || length < LENGTH) {
        return 1;
    }
    return static_cast<int>(info.tcpi_unacked);
}

int send_at_once(int listener)
{
    const int on = 1;
    return setsockopt(listener, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}
