#include "support/accept_socket.h"
#include "support/peer_acceptor_traits.h"
#include "support/socket_helpers.h"
#include "support/tls_io.h"

#include <ace/INET_Addr.h>

#include <unistd.h>

#include <cerrno>

using Traits = ACE_Peer_Acceptor_Traits<ACE_SSL_SOCK_Stream>;

namespace {

/// ACE's own handshake waits with select(2), which ends the process for descriptors from 1024 up.
int shake_hands(const ACE_SSL_SOCK_Stream& stream, const Accept_Limit& limit, bool restart)
{
    SSL* const ssl = tls_ready(stream);
    if (ssl == nullptr) {
        return -1;
    }
    SSL_set_accept_state(ssl);
    for (;;) {
        tls_clear_errors();
        errno = 0;
        const int result = SSL_do_handshake(ssl);
        if (result == 1) {
            return 0;
        }
        const int events = tls_outcome(ssl, result);
        if (events == 0) {
            errno = ECONNRESET;
        }
        if (events <= 0) {
            return -1;
        }
        const int ready = wait_for_handle(stream.get_handle(), static_cast<short>(events),
                                          limit.deadline, restart);
        if (ready == 0) {
            errno = ETIMEDOUT;
        }
        if (ready <= 0) {
            return -1;
        }
    }
}

} // namespace

int Traits::open(Peer_Acceptor& acceptor, const ACE_Addr& address, int reuse_addr, int backlog,
                 int ipv6_only, int recv_buf_size, int send_buf_size)
{
    ACE_INET_Addr where;
    if (listen_address(static_cast<const ACE_INET_Addr&>(address), ipv6_only != 0, where) == -1 ||
        acceptor.open(where, reuse_addr, PF_UNSPEC, backlog, 0, ipv6_only) == -1) {
        return -1;
    }
    const int handle = acceptor.get_handle();
    if (enable_fd_cloexec(handle) == -1 || send_at_once(handle) == -1 ||
        set_buffers(handle, recv_buf_size, send_buf_size) == -1) {
        const int error = errno;
        acceptor.close();
        errno = error;
        return -1;
    }
    return 0;
}

int Traits::accept(Peer_Acceptor& acceptor, ACE_SSL_SOCK_Stream& stream, ACE_Addr* remote,
                   ACE_Time_Value* timeout, bool restart, bool)
{
    sockaddr_storage peer{};
    const Accept_Limit limit(timeout);
    const int handle = accept_socket(acceptor.get_handle(), peer, limit, restart, SOCK_NONBLOCK);
    if (handle == -1) {
        return -1;
    }
    if (remote != nullptr) {
        set_inet_addr(static_cast<ACE_INET_Addr&>(*remote), peer);
    }
    stream.set_handle(handle);
    if (shake_hands(stream, limit, restart) == 0) {
        return 0;
    }
    const int error = errno;
    tls_detach(stream);
    close(handle);
    errno = error;
    return -1;
}

int Traits::waiting(ACE_HANDLE)
{
    return 1;
}

void Traits::remember(Peer_Acceptor&, Leftover&) {}

void Traits::forget(Leftover&) {}
